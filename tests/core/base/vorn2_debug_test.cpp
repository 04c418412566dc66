#include <gtest/gtest.h>
#include <string>

#include "core/base/vorn2_debug.h"

namespace {

/// Empties the process-wide pending buffer, whatever earlier code left in it.
void drainDebugOutput()
{
    testing::internal::CaptureStderr();
    vorn2_debug_printf("%s", "\n");
    testing::internal::GetCapturedStderr();
}

} // namespace

TEST(DebugOutput, TextWithoutNewlineIsHeldBackUntilANewlineArrives)
{
    drainDebugOutput();
    testing::internal::CaptureStderr();
    vorn2_debug_printf("iteration %d", 5);
    vorn2_debug_printf(", cost %.2f", 0.25);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    vorn2_debug_printf("%s", " done\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "iteration 5, cost 0.25 done\n");
}

TEST(DebugOutput, ANewlineFlushesTheWholeBufferIncludingTextAfterIt)
{
    drainDebugOutput();
    testing::internal::CaptureStderr();
    vorn2_debug_printf("%s", "first\nsecond");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "first\nsecond");

    // The buffer was emptied: the next newline flushes only itself.
    testing::internal::CaptureStderr();
    vorn2_debug_printf("%s", "\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
}

TEST(DebugOutput, LongFormattedTextComesOutWhole)
{
    drainDebugOutput();
    const std::string text(20000, 'q');
    testing::internal::CaptureStderr();
    vorn2_debug_printf("%s|%d\n", text.c_str(), 12345);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), text + "|12345\n");
}

TEST(DebugBreak, DoesNothingWithoutADebugger)
{
    if (vorn2_debugger_attached())
        GTEST_SKIP() << "a debugger is attached";
    vorn2_debug_break(); // would raise SIGTRAP and end the test program if it stopped
    SUCCEED();
}
