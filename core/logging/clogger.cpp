#include "core/logging/clogger.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace Logging {

namespace {

constexpr const wchar_t* kChannelNames[] = {
    L"Vorn2.COBJParser",
    L"Vorn2.ConvertMeshToSurfelCollection",
    L"Vorn2.CKMeansClusteringLmVector3D",
    L"Vorn2.CLineRaster",
    L"Vorn.PreRegistration",
};
constexpr int kChannelCount = sizeof(kChannelNames) / sizeof(kChannelNames[0]);

/// The library's channels, built on first use.
CLogger* channels()
{
    static CLogger loggers[kChannelCount] = {CLogger(kChannelNames[0]), CLogger(kChannelNames[1]),
                                             CLogger(kChannelNames[2]), CLogger(kChannelNames[3]),
                                             CLogger(kChannelNames[4])};
    return loggers;
}

// Touching the channels here constructs them while the library loads, before main runs.
[[maybe_unused]] const CLogger* const channelsAtLoad = channels();

struct SinkState
{
    std::mutex mutex;
    LogSink sink;
};

SinkState& sinkState()
{
    static SinkState state;
    return state;
}

[[maybe_unused]] const SinkState* const sinkAtLoad = &sinkState();

/// True on a thread while it runs the sink.
thread_local bool insideSink = false;

/// Wide text (UTF-32) as UTF-8; a value that isn't a Unicode scalar value becomes U+FFFD.
std::string toUtf8(std::wstring_view text)
{
    std::string out;
    out.reserve(text.size());
    for (wchar_t wc : text) {
        auto c = static_cast<std::uint32_t>(wc);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            c = 0xFFFD;
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

/// The wide printf result, cut to CLogger::m_ciMaxMessageLength characters.
std::wstring formatMessage(const wchar_t* format, std::va_list args)
{
    if (format == nullptr)
        return {};
    const std::size_t largest = static_cast<std::size_t>(CLogger::m_ciMaxMessageLength) + 1;
    std::vector<wchar_t> buffer(256);
    for (;;) {
        std::va_list copy;
        va_copy(copy, args);
        const int written = std::vswprintf(buffer.data(), buffer.size(), format, copy);
        va_end(copy);
        if (written >= 0)
            return std::wstring(buffer.data(), static_cast<std::size_t>(written));
        if (buffer.size() >= largest) {
            // vswprintf gives -1 when the text doesn't fit (or can't be converted) and leaves
            // what it wrote unterminated: keep that prefix.
            buffer.back() = L'\0';
            return std::wstring(buffer.data());
        }
        buffer.resize(std::min(buffer.size() * 2, largest));
    }
}

const char* levelName(int level)
{
    static const char* const names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
    return level >= 0 && level <= CLogger::m_ciLevelFatal ? names[level] : "LOG";
}

/// The default sink: one line on stderr, written with a single call.
void writeToStderr(const LogRecord& record)
{
    std::string line = levelName(record.level);
    line += ' ';
    if (!record.channel.empty()) {
        line += toUtf8(record.channel);
        line += ' ';
    }
    line += record.file + "(" + std::to_string(record.line) + ") " + record.function + ": ";
    line += toUtf8(record.message);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace

CLogger::CLogger() = default;

CLogger::CLogger(const wchar_t* channel) : m_channel(channel ? channel : L"") {}

CLogger::CLogger(const CLogger& other) : m_channel(other.m_channel), m_lowestEnabled(other.GetLogLevel()) {}

CLogger& CLogger::operator=(const CLogger& other)
{
    m_channel = other.m_channel;
    SetLogLevel(other.GetLogLevel());
    return *this;
}

CLogger& CLogger::Get(const wchar_t* channel)
{
    if (channel != nullptr) {
        CLogger* loggers = channels();
        for (int i = 0; i < kChannelCount; ++i) {
            if (loggers[i].m_channel == channel)
                return loggers[i];
        }
    }
    throw std::invalid_argument("CLogger::Get: unknown channel \"" +
                                (channel ? toUtf8(channel) : std::string("(null)")) + "\"");
}

void CLogger::Warn(const char* file, int line, const char* function, const wchar_t* format, ...) const
{
    if (!IsLogLevelEnabled(m_ciLevelWarn))
        return;
    std::va_list args;
    va_start(args, format);
    write(m_ciLevelWarn, file, line, function, format, args);
    va_end(args);
}

void CLogger::Trace(const char* file, int line, const char* function, const wchar_t* format, ...) const
{
    if (!IsLogLevelEnabled(m_ciLevelTrace))
        return;
    std::va_list args;
    va_start(args, format);
    write(m_ciLevelTrace, file, line, function, format, args);
    va_end(args);
}

void CLogger::write(int level, const char* file, int line, const char* function, const wchar_t* format,
                    std::va_list args) const
{
    const LogRecord record{
        level, m_channel, SourceName(file), line, function ? function : "", formatMessage(format, args)};
    if (insideSink) {
        writeToStderr(record);
        return;
    }
    SinkState& state = sinkState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.sink) {
        writeToStderr(record);
        return;
    }
    insideSink = true;
    try {
        state.sink(record);
    } catch (...) {
        // Logging never throws into the code that logs: a failing sink loses the record.
    }
    insideSink = false;
}

std::string CLogger::SourceName(const char* file)
{
    if (file == nullptr)
        return {};
    const std::string_view path(file);
    static constexpr std::string_view markers[] = {"core/", "datalayer/", "graphene/", "bson/", "tools/"};
    std::size_t first = std::string_view::npos;
    for (std::string_view marker : markers) {
        for (std::size_t at = path.find(marker); at != std::string_view::npos && at < first;
             at = path.find(marker, at + 1)) {
            if (at == 0 || path[at - 1] == '/') {
                first = at;
                break;
            }
        }
    }
    std::string name(first == std::string_view::npos ? path : path.substr(first));
    const std::size_t slash = name.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > nameStart)
        name.erase(dot);
    return name;
}

void CLogger::SetSink(LogSink sink)
{
    if (insideSink)
        throw std::logic_error("CLogger::SetSink: called from inside a sink");
    SinkState& state = sinkState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.sink = std::move(sink);
}

} // namespace Logging
