#include "core/base/vorn2_debug.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

bool vorn2_debugger_attached()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("TracerPid:", 0) == 0)
            return std::strtol(line.c_str() + 10, nullptr, 10) != 0;
    }
    return false;
}

void vorn2_debug_break()
{
    if (vorn2_debugger_attached())
        std::raise(SIGTRAP);
}

namespace {
std::string& pendingDebugOutput()
{
    static std::string pending;
    return pending;
}
} // namespace

void vorn2_debug_printf(const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    std::va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length > 0) {
        std::string& pending = pendingDebugOutput();
        const std::size_t old = pending.size();
        pending.resize(old + static_cast<std::size_t>(length) + 1);
        std::vsnprintf(pending.data() + old, static_cast<std::size_t>(length) + 1, format, args);
        pending.resize(old + static_cast<std::size_t>(length));
        if (pending.find('\n', old) != std::string::npos) {
            std::fputs(pending.c_str(), stderr);
            pending.clear();
        }
    }
    va_end(args);
}
