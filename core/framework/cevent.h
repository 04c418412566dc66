#pragma once
// CEvent: a manual-reset event. Once set it stays set, and every waiter passes, until ResetEvent
// clears it. It is made to be shared: SetEvent, ResetEvent, IsSet and Wait may be called from any
// thread at any time. The event is neither copyable nor movable; the owner keeps it alive while
// other threads may still use it.
//
// Wait with a timeout of zero or less is a poll. Timeouts are capped at 100 years, so
// std::chrono::milliseconds::max() waits, for all practical purposes, until the event is set.

#include <chrono>
#include <condition_variable>
#include <mutex>

class CEvent
{
public:
    explicit CEvent(bool initiallySignalled = false);
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    /// Signals the event and wakes every waiting thread.
    void SetEvent();
    /// Clears the event.
    void ResetEvent();
    /// True while the event is set; never blocks.
    bool IsSet() const;
    /// Blocks until the event is set or the timeout has passed; true when it is set.
    bool Wait(std::chrono::milliseconds timeout);

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_signalled;
};
