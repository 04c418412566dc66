#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "core/framework/cevent.h"

using namespace std::chrono_literals;

TEST(CEvent, StartsClearUnlessAskedAndStaysSetUntilReset)
{
    CEvent event;
    EXPECT_FALSE(event.IsSet());
    EXPECT_FALSE(event.Wait(0ms));
    event.SetEvent();
    EXPECT_TRUE(event.IsSet());
    // Manual reset: passing a wait doesn't clear it.
    EXPECT_TRUE(event.Wait(0ms));
    EXPECT_TRUE(event.Wait(10ms));
    EXPECT_TRUE(event.IsSet());
    event.SetEvent();
    EXPECT_TRUE(event.IsSet());
    event.ResetEvent();
    EXPECT_FALSE(event.IsSet());
    event.ResetEvent();
    EXPECT_FALSE(event.IsSet());

    CEvent initiallySet(true);
    EXPECT_TRUE(initiallySet.IsSet());
}

TEST(CEvent, WaitOnAClearEventTimesOutAfterTheTimeout)
{
    CEvent event;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.Wait(30ms));
    // A timed wait on the steady clock never returns before its deadline.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    EXPECT_FALSE(event.Wait(-5ms)); // a negative timeout is a poll
}

TEST(CEvent, WaitIsWokenBySetEventFromAnotherThread)
{
    CEvent event;
    std::thread setter([&] {
        std::this_thread::sleep_for(20ms);
        event.SetEvent();
    });
    const auto start = std::chrono::steady_clock::now();
    const bool signalled = event.Wait(60s);
    const auto waited = std::chrono::steady_clock::now() - start;
    setter.join();
    EXPECT_TRUE(signalled);
    // Woken by the set, not by the timeout (a generous bound for a loaded machine).
    EXPECT_LT(waited, 30s);
}

TEST(CEvent, SetWakesEveryWaiterIncludingOneWithoutTimeLimit)
{
    CEvent event;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&, i] {
            const auto timeout = i == 0 ? std::chrono::milliseconds::max() : std::chrono::milliseconds(60000);
            if (event.Wait(timeout))
                ++woken;
        });
    }
    std::this_thread::sleep_for(20ms);
    event.SetEvent();
    for (std::thread& t : waiters)
        t.join();
    EXPECT_EQ(woken.load(), 4);
}
