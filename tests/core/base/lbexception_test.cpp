#include <gtest/gtest.h>
#include <string>

#include "core/base/lbexception.h"

TEST(LbException, DumpShowsFileLineAndFunction)
{
    const LbException e("datalayer/algorithms/cmpfit2ndorder3d", 104, "compute");
    EXPECT_EQ(e.Dump(), "datalayer/algorithms/cmpfit2ndorder3d(104): compute");
    EXPECT_STREQ(e.GetFile(), "datalayer/algorithms/cmpfit2ndorder3d");
    EXPECT_EQ(e.GetLine(), 104u);
    EXPECT_STREQ(e.GetFunction(), "compute");
}

TEST(LbException, NullTextsCountAsEmpty)
{
    const LbException e(nullptr, 7, nullptr);
    EXPECT_STREQ(e.GetFile(), "");
    EXPECT_STREQ(e.GetFunction(), "");
    EXPECT_EQ(e.Dump(), "(7): ");
}

TEST(LbException, CopiesItsStringsAndIsCaughtAsItsInterfaces)
{
    std::string file = "core/plexpool/lbplexmanager";
    const LbExceptionContainer e(file.c_str(), 3, "Alloc");
    file.assign("overwritten");
    try {
        throw e;
    } catch (const IException& caught) {
        EXPECT_STREQ(caught.GetFile(), "core/plexpool/lbplexmanager");
        EXPECT_NE(dynamic_cast<const LbExceptionContainer*>(&caught), nullptr);
        const auto* dumpable = dynamic_cast<const LbIDumpable<1>*>(&caught);
        ASSERT_NE(dumpable, nullptr);
        EXPECT_EQ(dumpable->Dump(), "core/plexpool/lbplexmanager(3): Alloc");
    }
}
