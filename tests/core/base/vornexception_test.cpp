#include <clocale>
#include <exception>
#include <gtest/gtest.h>
#include <string>

#include "core/base/vornexception.h"

namespace {

/// Runs the throwing helper and hands back what it threw.
template <typename... Args> VornException thrown(const wchar_t* message, Args... args)
{
    try {
        vorn2_throw_exception("datalayer/pointcloud/x.cpp", 17, "Check", message, args...);
    } catch (const VornException& e) {
        return e;
    }
    ADD_FAILURE() << "vorn2_throw_exception returned";
    return VornException("", 0, "", L"");
}

} // namespace

TEST(VornException, MessageWithPercentIsFormattedWithTheArguments)
{
    const VornException e = thrown(L"bad %d of %ls", 3, L"x");
    EXPECT_EQ(std::wstring(e.GetMessage()), L"bad 3 of x");
    EXPECT_STREQ(e.what(), "bad 3 of x");
    EXPECT_EQ(std::wstring(thrown(L"100%% sure").GetMessage()), L"100% sure");
}

TEST(VornException, MessageWithoutPercentIsTakenAsItIs)
{
    const VornException e = thrown(L"plain text", 42, L"ignored");
    EXPECT_EQ(std::wstring(e.GetMessage()), L"plain text");
    // Unformatted text has no buffer limit.
    const std::wstring longText(10000, L'a');
    EXPECT_EQ(std::wstring(thrown(longText.c_str()).GetMessage()), longText);
}

TEST(VornException, FormattedTextLongerThanTheBufferIsTruncated)
{
    // The buffer holds 8192 wide characters including the terminator.
    const std::wstring longArgument(9000, L'z');
    const VornException e = thrown(L"%ls!", longArgument.c_str());
    const std::wstring message = e.GetMessage();
    EXPECT_EQ(message.size(), 8191u);
    EXPECT_EQ(message, longArgument.substr(0, 8191));
    EXPECT_EQ(std::string(e.what()).size(), 8191u);
}

TEST(VornException, WhatGivesTheNarrowTextOfTheCurrentLocale)
{
    const std::string previous = std::setlocale(LC_ALL, nullptr);
    std::setlocale(LC_ALL, "C");
    // The C locale can't represent these characters: each becomes '?'.
    const VornException e = thrown(L"Gr\u00fc\u00dfe %ls", L"\u20ac");
    std::setlocale(LC_ALL, previous.c_str());
    EXPECT_EQ(std::wstring(e.GetMessage()), L"Gr\u00fc\u00dfe \u20ac");
    EXPECT_STREQ(e.what(), "Gr??e ?");
}

TEST(VornException, RecordsTheSourceLocationOfTheThrow)
{
    const VornException e = thrown(L"x");
    EXPECT_STREQ(e.GetFile(), "datalayer/pointcloud/x.cpp");
    EXPECT_EQ(e.GetLine(), 17u);
    EXPECT_STREQ(e.GetFunction(), "Check");
    EXPECT_EQ(e.Dump(), "datalayer/pointcloud/x.cpp(17): Check");
}

TEST(VornException, MacroThrowsAtThePlaceOfTheCallAndIsCaughtThroughEitherBase)
{
    const unsigned line = __LINE__ + 2;
    try {
        VORN2_THROW(L"broken contract %d", 5);
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "broken contract 5");
        const auto* lb = dynamic_cast<const LbException*>(&e);
        ASSERT_NE(lb, nullptr);
        EXPECT_STREQ(lb->GetFile(), __FILE__);
        EXPECT_EQ(lb->GetLine(), line);
        EXPECT_STREQ(lb->GetFunction(), "TestBody");
        return;
    }
    FAIL() << "nothing was thrown";
}
