#include "captured_log.h"

namespace vorn2test {

CapturedLog::CapturedLog(const wchar_t* channel, int lowestEnabled)
    : m_logger(Logging::CLogger::Get(channel)), m_previousLevel(m_logger.GetLogLevel())
{
    m_logger.SetLogLevel(lowestEnabled);
    Logging::CLogger::SetSink([this](const Logging::LogRecord& record) { m_records.push_back(record); });
}

CapturedLog::~CapturedLog()
{
    Logging::CLogger::SetSink({});
    m_logger.SetLogLevel(m_previousLevel);
}

} // namespace vorn2test
