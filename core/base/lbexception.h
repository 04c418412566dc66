#pragma once
// The in-house exception tree. LbException is its root: it records where it was raised (source
// file, line, function) and nothing else. The fits throw it directly; the pooled containers throw
// LbExceptionContainer when a block of nodes can't be had. Neither derives from std::exception;
// VornException (vornexception.h) is the one that does.
//
// Exceptions are plain values: copyable, no shared state, safe to throw from any thread.

#include <string>

/// Root of every interface of the base library: only a virtual destructor.
class IObject
{
public:
    virtual ~IObject() = default;
};

/// Reference-counted objects of the base library. The exception tree keeps the interface for its
/// shape only; exceptions are values and are never shared by count.
class IReferenceCounted : public virtual IObject
{
};

/// Objects that can describe themselves as text.
template <int Version> class LbIDumpable : public virtual IObject
{
public:
    /// A one-line description of the object.
    virtual std::string Dump() const = 0;
};

/// Interface of every exception of the base library.
class IException : public IReferenceCounted
{
public:
    virtual const char* GetFile() const = 0;
    virtual unsigned GetLine() const = 0;
    virtual const char* GetFunction() const = 0;
};

/// Root exception: the source location where it was raised. The strings are copied.
class LbException : public IException, public LbIDumpable<1>
{
public:
    LbException(const char* file, unsigned line, const char* function);

    const char* GetFile() const override { return m_file.c_str(); }
    unsigned GetLine() const override { return m_line; }
    const char* GetFunction() const override { return m_function.c_str(); }

    /// "file(line): function", the form the debug output shows.
    std::string Dump() const override;

private:
    std::string m_file;
    unsigned m_line;
    std::string m_function;
};

/// The pool allocator's failure: a block of container nodes could not be allocated.
class LbExceptionContainer : public LbException
{
public:
    using LbException::LbException;
};
