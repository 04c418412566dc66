#pragma once
// Test helper: while alive, routes every log record to a list and enables the given level on one
// channel; restores the sink and the level when it goes out of scope.
#include <string>
#include <vector>

#include "core/logging/clogger.h"

namespace vorn2test {

class CapturedLog
{
public:
    CapturedLog(const wchar_t* channel, int lowestEnabled);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    const std::vector<Logging::LogRecord>& Records() const { return m_records; }

private:
    Logging::CLogger& m_logger;
    int m_previousLevel;
    std::vector<Logging::LogRecord> m_records;
};

} // namespace vorn2test
