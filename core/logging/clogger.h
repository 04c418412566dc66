#pragma once
// Logging::CLogger: one named log channel. The library's five channels ("Vorn2.COBJParser",
// "Vorn2.ConvertMeshToSurfelCollection", "Vorn2.CKMeansClusteringLmVector3D",
// "Vorn2.CLineRaster", "Vorn.PreRegistration") exist from load time on and are reached through
// Get(); a default-constructed logger has no channel of its own (an empty name) and works the same.
//
// Levels: 0 trace, 1 debug, 2 info, 3 warn, 4 error, 5 fatal. A level is enabled when it is at
// least the logger's lowest enabled level, 3 (warn) by default; SetLogLevel takes any int, so 0
// enables everything and 6 silences the channel. Warn and Trace format a wide printf text (wide
// strings are passed with %ls), check their own level and hand one LogRecord to the sink.
//
// The sink is process-wide. By default it writes one narrow line to stderr,
//   WARN Vorn2.CLineRaster datalayer/algorithms/clineraster(123) operator++: message
// with channel and message converted to UTF-8. SetSink replaces it (an empty function restores
// stderr); records reach the sink one at a time under a mutex, and once SetSink has returned the
// old sink is no longer called. An exception leaving the sink is caught and the record dropped,
// so logging never throws into the code that logs. A sink must not call SetSink (that throws
// std::logic_error); a record logged from inside a sink goes to stderr, not back into the sink.
// No files and no environment variables are read.
//
// Threads: Warn, Trace, the level functions and SetSink may be called from any thread.
// Null file, function or format pointers count as empty texts. A message longer than
// m_ciMaxMessageLength wide characters is cut to that length.

#include <atomic>
#include <cstdarg>
#include <functional>
#include <string>

namespace Logging {

/// One message as the sink receives it; file is already normalised by CLogger::SourceName.
struct LogRecord
{
    int level;
    std::wstring channel;
    std::string file;
    int line;
    std::string function;
    std::wstring message;
};

using LogSink = std::function<void(const LogRecord&)>;

class CLogger
{
public:
    static constexpr int m_ciLevelTrace = 0;
    static constexpr int m_ciLevelDebug = 1;
    static constexpr int m_ciLevelInfo = 2;
    static constexpr int m_ciLevelWarn = 3;
    static constexpr int m_ciLevelError = 4;
    static constexpr int m_ciLevelFatal = 5;
    static constexpr int m_ciMaxMessageLength = 65536;

    /// A logger without a channel of its own (empty name), warn and above enabled.
    CLogger();
    /// A logger on the given channel (null counts as empty), warn and above enabled.
    explicit CLogger(const wchar_t* channel);
    /// Copies channel and level.
    CLogger(const CLogger& other);
    CLogger& operator=(const CLogger& other);

    const std::wstring& GetChannel() const { return m_channel; }

    /// One of the library's five channels by its exact name. Throws std::invalid_argument for any
    /// other name, or null.
    static CLogger& Get(const wchar_t* channel);

    bool IsLogLevelEnabled(int level) const { return level >= GetLogLevel(); }
    void SetLogLevel(int lowestEnabled) { m_lowestEnabled.store(lowestEnabled, std::memory_order_relaxed); }
    int GetLogLevel() const { return m_lowestEnabled.load(std::memory_order_relaxed); }

    /// Logs at level 3 when that level is enabled.
    void Warn(const char* file, int line, const char* function, const wchar_t* format, ...) const;
    /// Logs at level 0 when that level is enabled.
    void Trace(const char* file, int line, const char* function, const wchar_t* format, ...) const;

    /// The source file without extension and without any leading path before the first
    /// component named "core", "datalayer", "graphene", "bson" or "tools":
    /// "/x/y/datalayer/algorithms/clineraster.cpp" gives "datalayer/algorithms/clineraster".
    /// The marker must be a whole path component ("mycore/" doesn't count); a path without any
    /// keeps its leading part and loses only the extension. Null gives "".
    static std::string SourceName(const char* file);

    /// Replaces the process-wide sink; an empty function restores the stderr line.
    /// Throws std::logic_error when called from inside a sink.
    static void SetSink(LogSink sink);

private:
    void write(int level, const char* file, int line, const char* function, const wchar_t* format,
               std::va_list args) const;

    std::wstring m_channel;
    std::atomic<int> m_lowestEnabled{m_ciLevelWarn};
};

} // namespace Logging

/// Logs a warning through logger when level 3 is enabled, with the place of the call. The
/// further arguments are the wide format and its values; they are evaluated only when enabled.
#define VORN2_LOG_WARN(logger, ...)                                                                          \
    do {                                                                                                     \
        const ::Logging::CLogger& vorn2LogChannel_ = (logger);                                               \
        if (vorn2LogChannel_.IsLogLevelEnabled(::Logging::CLogger::m_ciLevelWarn))                           \
            vorn2LogChannel_.Warn(__FILE__, __LINE__, __func__, __VA_ARGS__);                                \
    } while (0)

/// The same for a trace message at level 0.
#define VORN2_LOG_TRACE(logger, ...)                                                                         \
    do {                                                                                                     \
        const ::Logging::CLogger& vorn2LogChannel_ = (logger);                                               \
        if (vorn2LogChannel_.IsLogLevelEnabled(::Logging::CLogger::m_ciLevelTrace))                          \
            vorn2LogChannel_.Trace(__FILE__, __LINE__, __func__, __VA_ARGS__);                               \
    } while (0)
