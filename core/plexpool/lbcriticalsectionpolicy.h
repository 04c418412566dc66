#pragma once
// Lock policies of the pooled allocators. A policy is a base class with Lock() and Unlock(); the
// pool brackets every change of its free list and block list with them. Only the policy 0 exists
// here: it takes no lock, for pools that serve one thread at a time.

template <int Policy> class LbCriticalSectionPolicy;

/// The lock-free policy of single-threaded pools: both operations do nothing.
template <> class LbCriticalSectionPolicy<0>
{
public:
    void Lock() noexcept {}
    void Unlock() noexcept {}
};

/// Scoped use of a lock policy.
template <typename Policy> class LbCriticalSectionGuard
{
public:
    explicit LbCriticalSectionGuard(Policy& policy) noexcept : m_policy(policy) { m_policy.Lock(); }
    ~LbCriticalSectionGuard() { m_policy.Unlock(); }
    LbCriticalSectionGuard(const LbCriticalSectionGuard&) = delete;
    LbCriticalSectionGuard& operator=(const LbCriticalSectionGuard&) = delete;

private:
    Policy& m_policy;
};
