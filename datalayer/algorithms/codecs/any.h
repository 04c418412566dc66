#pragma once
// Any: an owning, copyable, type-erased value (global namespace). The graph classes carry their
// node and edge payloads in it, and the strongly connected components store member lists in it.
// It keeps the deleter and the clone function of the stored type as plain function pointers beside
// the value, so it has no virtual operation; the value always lives on the heap.
//
// Ownership: an Any owns its value alone; a copy clones it, a move takes it over and leaves the
// source empty. Threads: no shared state; an Any is as thread-safe as the value it holds.
// Typed access: as<T>() on an empty Any first stores a default T; on a value of another type it
// throws std::bad_cast whose what() is "bad cast". The const as<T>() cannot create a value, so on
// an empty Any it throws the same exception.

#include <type_traits>
#include <typeinfo>
#include <utility>

/// The std::bad_cast that Any throws, with the message "bad cast".
class AnyBadCast : public std::bad_cast
{
public:
    const char* what() const noexcept override { return "bad cast"; }
};

class Any
{
public:
    Any() noexcept = default;
    Any(const Any& other)
        : m_value(other.m_value ? other.m_clone(other.m_value) : nullptr), m_type(other.m_type),
          m_destroy(other.m_destroy), m_clone(other.m_clone)
    {
    }
    Any(Any&& other) noexcept
        : m_value(other.m_value), m_type(other.m_type), m_destroy(other.m_destroy), m_clone(other.m_clone)
    {
        other.release();
    }
    /// Stores a copy (or the moved value) of any copyable type.
    template <typename T, typename = std::enable_if_t<!std::is_same_v<std::decay_t<T>, Any>>>
    explicit Any(T&& value)
    {
        store(std::forward<T>(value));
    }
    ~Any() { reset(); }

    /// Copy: the previous value is destroyed; from an empty source the result is empty. The clone
    /// is made before the old value goes, so a failing copy leaves this Any unchanged.
    Any& operator=(const Any& other)
    {
        if (this != &other) {
            Any copy(other);
            *this = std::move(copy);
        }
        return *this;
    }
    Any& operator=(Any&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_value = other.m_value;
            m_type = other.m_type;
            m_destroy = other.m_destroy;
            m_clone = other.m_clone;
            other.release();
        }
        return *this;
    }
    /// Replaces the value by a T moved (or copied) from the argument.
    template <typename T, typename = std::enable_if_t<!std::is_same_v<std::decay_t<T>, Any>>>
    Any& operator=(T&& value)
    {
        Any fresh(std::forward<T>(value));
        return *this = std::move(fresh);
    }

    explicit operator bool() const noexcept { return m_value != nullptr; }
    /// Destroys the value; an empty Any stays empty.
    void reset() noexcept
    {
        if (m_value)
            m_destroy(m_value);
        release();
    }
    /// typeid(void) when empty.
    const std::type_info& type() const noexcept { return *m_type; }

    /// The held T; an empty Any first gets a default T. Throws AnyBadCast (a std::bad_cast, "bad
    /// cast") when another type is held, and leaves that value untouched.
    template <typename T> T& as()
    {
        if (!m_value)
            *this = T();
        else if (*m_type != typeid(T))
            throw AnyBadCast();
        return *static_cast<T*>(m_value);
    }
    /// The held T; throws AnyBadCast when empty or when another type is held.
    template <typename T> const T& as() const
    {
        if (!m_value || *m_type != typeid(T))
            throw AnyBadCast();
        return *static_cast<const T*>(m_value);
    }

private:
    template <typename T> static void destroyValue(void* p) { delete static_cast<T*>(p); }
    template <typename T> static void* cloneValue(void* p) { return new T(*static_cast<const T*>(p)); }

    template <typename T> void store(T&& value)
    {
        using V = std::decay_t<T>;
        m_value = new V(std::forward<T>(value));
        m_type = &typeid(V);
        m_destroy = &destroyValue<V>;
        m_clone = &cloneValue<V>;
    }
    void release() noexcept
    {
        m_value = nullptr;
        m_type = &typeid(void);
        m_destroy = nullptr;
        m_clone = nullptr;
    }

    void* m_value = nullptr;
    const std::type_info* m_type = &typeid(void);
    void (*m_destroy)(void*) = nullptr;
    void* (*m_clone)(void*) = nullptr;
};
