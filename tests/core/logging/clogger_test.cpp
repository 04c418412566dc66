#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/logging/clogger.h"

using Logging::CLogger;
using Logging::LogRecord;

namespace {

/// Captures records for the life of the object and restores the stderr sink afterwards.
class CapturedRecords
{
public:
    CapturedRecords()
    {
        CLogger::SetSink([this](const LogRecord& record) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_records.push_back(record);
        });
    }
    ~CapturedRecords() { CLogger::SetSink({}); }

    std::vector<LogRecord> records()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }

private:
    std::mutex m_mutex;
    std::vector<LogRecord> m_records;
};

/// Restores a shared channel's level at the end of a test.
class LevelRestorer
{
public:
    explicit LevelRestorer(CLogger& logger) : m_logger(logger), m_level(logger.GetLogLevel()) {}
    ~LevelRestorer() { m_logger.SetLogLevel(m_level); }

private:
    CLogger& m_logger;
    int m_level;
};

const wchar_t* const kChannels[] = {L"Vorn2.COBJParser", L"Vorn2.ConvertMeshToSurfelCollection",
                                    L"Vorn2.CKMeansClusteringLmVector3D", L"Vorn2.CLineRaster",
                                    L"Vorn.PreRegistration"};

} // namespace

TEST(CLogger, TheFiveChannelsExistWithWarnAndAboveEnabled)
{
    for (const wchar_t* name : kChannels) {
        CLogger& logger = CLogger::Get(name);
        EXPECT_EQ(logger.GetChannel(), name);
        EXPECT_EQ(&CLogger::Get(name), &logger);
        EXPECT_EQ(logger.GetLogLevel(), 3);
        EXPECT_FALSE(logger.IsLogLevelEnabled(0));
        EXPECT_FALSE(logger.IsLogLevelEnabled(2));
        EXPECT_TRUE(logger.IsLogLevelEnabled(3));
        EXPECT_TRUE(logger.IsLogLevelEnabled(5));
    }
    const CLogger unnamed;
    EXPECT_EQ(unnamed.GetChannel(), L"");
    EXPECT_EQ(unnamed.GetLogLevel(), 3);
}

TEST(CLogger, GetOfAnUnknownChannelThrowsInvalidArgument)
{
    EXPECT_THROW(CLogger::Get(L"Vorn2.PreRegistration"), std::invalid_argument);
    EXPECT_THROW(CLogger::Get(L"vorn2.clineraster"), std::invalid_argument);
    EXPECT_THROW(CLogger::Get(L""), std::invalid_argument);
    EXPECT_THROW(CLogger::Get(nullptr), std::invalid_argument);
    try {
        CLogger::Get(L"Vorn2.Nothing");
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "CLogger::Get: unknown channel \"Vorn2.Nothing\"");
    }
}

TEST(CLogger, SetLogLevelMovesTheThresholdOfThatLoggerOnly)
{
    CLogger a(L"A");
    const CLogger b(L"B");
    a.SetLogLevel(0);
    EXPECT_TRUE(a.IsLogLevelEnabled(0));
    EXPECT_FALSE(b.IsLogLevelEnabled(0));
    a.SetLogLevel(6);
    EXPECT_FALSE(a.IsLogLevelEnabled(5));
    EXPECT_EQ(a.GetLogLevel(), 6);
    const CLogger copy(a);
    EXPECT_EQ(copy.GetChannel(), L"A");
    EXPECT_EQ(copy.GetLogLevel(), 6);
}

TEST(CLogger, WarnHandsTheSinkARecordWithFormattedMessageAndNormalisedFile)
{
    CapturedRecords captured;
    CLogger& logger = CLogger::Get(L"Vorn2.CLineRaster");
    logger.Warn("/build/agent/src/datalayer/algorithms/clineraster.cpp", 123, "operator++", L"bad %d of %ls",
                3, L"x");
    const std::vector<LogRecord> records = captured.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 3);
    EXPECT_EQ(records[0].channel, L"Vorn2.CLineRaster");
    EXPECT_EQ(records[0].file, "datalayer/algorithms/clineraster");
    EXPECT_EQ(records[0].line, 123);
    EXPECT_EQ(records[0].function, "operator++");
    EXPECT_EQ(records[0].message, L"bad 3 of x");
}

TEST(CLogger, TraceIsWrittenOnlyWhenLevelZeroIsEnabled)
{
    CapturedRecords captured;
    CLogger& logger = CLogger::Get(L"Vorn.PreRegistration");
    LevelRestorer restore(logger);
    logger.Trace("tools/vorn/main.cpp", 1, "f", L"hidden");
    EXPECT_TRUE(captured.records().empty());
    logger.SetLogLevel(0);
    logger.Trace("tools/vorn/main.cpp", 2, "f", L"shown %.1f", 0.5);
    logger.SetLogLevel(4);
    logger.Warn("tools/vorn/main.cpp", 3, "f", L"warn hidden at level 4");
    const std::vector<LogRecord> records = captured.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_EQ(records[0].line, 2);
    EXPECT_EQ(records[0].message, L"shown 0.5");
    EXPECT_EQ(records[0].file, "tools/vorn/main");
}

TEST(CLogger, MacrosPassThePlaceOfTheCallAndSkipDisabledArguments)
{
    CapturedRecords captured;
    CLogger logger(L"Test.Macros");
    int evaluated = 0;
    VORN2_LOG_TRACE(logger, L"%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    const int line = __LINE__ + 1;
    VORN2_LOG_WARN(logger, L"count %d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    const std::vector<LogRecord> records = captured.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, L"count 1");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[0].file, CLogger::SourceName(__FILE__));
    EXPECT_EQ(records[0].channel, L"Test.Macros");
}

TEST(CLogger, SourceNameDropsTheExtensionAndEverythingBeforeTheFirstMarker)
{
    EXPECT_EQ(CLogger::SourceName("/x/y/datalayer/algorithms/clineraster.cpp"),
              "datalayer/algorithms/clineraster");
    EXPECT_EQ(CLogger::SourceName("core/base/lbarray.h"), "core/base/lbarray");
    EXPECT_EQ(CLogger::SourceName("/w/graphene/surface_mesh.cpp"), "graphene/surface_mesh");
    EXPECT_EQ(CLogger::SourceName("/w/bson/element.cpp"), "bson/element");
    // The first marker in the path wins, even when a later one follows.
    EXPECT_EQ(CLogger::SourceName("/home/tools/build/datalayer/x.cpp"), "tools/build/datalayer/x");
    // A marker must be a whole component.
    EXPECT_EQ(CLogger::SourceName("/src/mycore/datalayer/a.cpp"), "datalayer/a");
    // Only the last extension of the file name goes; dots in directories stay.
    EXPECT_EQ(CLogger::SourceName("/opt/v1.2/datalayer/p.cpp.in"), "datalayer/p.cpp");
    EXPECT_EQ(CLogger::SourceName("/opt/v1.2/noext"), "/opt/v1.2/noext");
    EXPECT_EQ(CLogger::SourceName("plain.cpp"), "plain");
    EXPECT_EQ(CLogger::SourceName(""), "");
    EXPECT_EQ(CLogger::SourceName(nullptr), "");
}

TEST(CLogger, DefaultSinkWritesOneUtf8LineToStderr)
{
    CLogger::SetSink({});
    CLogger logger(L"Vorn2.CLineRaster");
    testing::internal::CaptureStderr();
    logger.Warn("/x/datalayer/algorithms/clineraster.cpp", 123, "operator++", L"bad %d of %ls", 3, L"x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARN Vorn2.CLineRaster datalayer/algorithms/clineraster(123) operator++: bad 3 of x\n");

    // Two-, three- and four-byte forms; a lone surrogate becomes U+FFFD.
    CLogger unnamed;
    testing::internal::CaptureStderr();
    unnamed.Warn("core/x.cpp", 1, "f", L"Gr\u00fc\u00dfe %ls \U0001F600 %lc", L"\u20ac",
                 static_cast<wint_t>(0xD800));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARN core/x(1) f: Gr\xC3\xBC\xC3\x9F"
                                                      "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xEF\xBF\xBD\n");
}

TEST(CLogger, EmptySinkRestoresStderr)
{
    CLogger logger(L"Test.Restore");
    {
        CapturedRecords captured;
        testing::internal::CaptureStderr();
        logger.Warn("core/a.cpp", 5, "g", L"to the sink");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(captured.records().size(), 1u);
    }
    testing::internal::CaptureStderr();
    logger.Warn("core/a.cpp", 6, "g", L"to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARN Test.Restore core/a(6) g: to stderr\n");
}

TEST(CLogger, NullTextsAreEmptyAndLongMessagesAreCut)
{
    CapturedRecords captured;
    CLogger logger(nullptr);
    EXPECT_EQ(logger.GetChannel(), L"");
    logger.Warn(nullptr, 0, nullptr, nullptr);
    const std::wstring longText(CLogger::m_ciMaxMessageLength + 5000, L'w');
    logger.Warn("core/a.cpp", 1, "g", L"%ls", longText.c_str());
    const std::wstring fitting(1000, L'k');
    logger.Warn("core/a.cpp", 2, "g", L"<%ls>", fitting.c_str());
    const std::vector<LogRecord> records = captured.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].file, "");
    EXPECT_EQ(records[0].function, "");
    EXPECT_EQ(records[0].message, L"");
    EXPECT_EQ(records[1].message, longText.substr(0, CLogger::m_ciMaxMessageLength));
    EXPECT_EQ(records[2].message, L"<" + fitting + L">");
}

TEST(CLogger, AThrowingSinkLosesTheRecordButNotTheCaller)
{
    int calls = 0;
    CLogger::SetSink([&calls](const LogRecord&) {
        ++calls;
        throw std::runtime_error("sink failure");
    });
    CLogger logger(L"Test.Throwing");
    EXPECT_NO_THROW(logger.Warn("core/a.cpp", 1, "g", L"one"));
    EXPECT_NO_THROW(logger.Warn("core/a.cpp", 2, "g", L"two"));
    CLogger::SetSink({});
    EXPECT_EQ(calls, 2);
}

TEST(CLogger, LoggingFromInsideTheSinkGoesToStderrAndSetSinkThere)
{
    CLogger inner(L"Test.Inner");
    int calls = 0;
    bool setSinkThrew = false;
    CLogger::SetSink([&](const LogRecord&) {
        ++calls;
        inner.Warn("core/b.cpp", 9, "h", L"nested");
        try {
            CLogger::SetSink({});
        } catch (const std::logic_error&) {
            setSinkThrew = true;
        }
    });
    testing::internal::CaptureStderr();
    CLogger(L"Test.Outer").Warn("core/a.cpp", 1, "g", L"outer");
    const std::string err = testing::internal::GetCapturedStderr();
    CLogger::SetSink({});
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(setSinkThrew);
    EXPECT_EQ(err, "WARN Test.Inner core/b(9) h: nested\n");
}

TEST(CLogger, RecordsFromManyThreadsAllReachTheSink)
{
    CapturedRecords captured;
    CLogger& logger = CLogger::Get(L"Vorn2.COBJParser");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&logger, t] {
            for (int i = 0; i < 200; ++i)
                VORN2_LOG_WARN(logger, L"thread %d message %d", t, i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<LogRecord> records = captured.records();
    ASSERT_EQ(records.size(), 800u);
    std::vector<int> perThread(4, 0);
    for (const LogRecord& record : records) {
        int t = -1, i = -1;
        ASSERT_EQ(std::swscanf(record.message.c_str(), L"thread %d message %d", &t, &i), 2);
        ASSERT_GE(t, 0);
        ASSERT_LT(t, 4);
        EXPECT_EQ(i, perThread[static_cast<std::size_t>(t)]++) << "records of one thread arrive in order";
    }
}
