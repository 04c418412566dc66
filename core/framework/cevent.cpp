#include "core/framework/cevent.h"

#include <algorithm>

CEvent::CEvent(bool initiallySignalled) : m_signalled(initiallySignalled) {}

void CEvent::SetEvent()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = true;
    }
    m_changed.notify_all();
}

void CEvent::ResetEvent()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_signalled = false;
}

bool CEvent::IsSet() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_signalled;
}

bool CEvent::Wait(std::chrono::milliseconds timeout)
{
    // The cap keeps the deadline (now + timeout in nanoseconds) far from overflowing.
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365 * 100);
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_signalled || timeout <= std::chrono::milliseconds::zero())
        return m_signalled;
    return m_changed.wait_for(lock, std::min(timeout, longest), [this] { return m_signalled; });
}
