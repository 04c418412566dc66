#include "core/base/vornexception.h"

#include <climits>
#include <cstdarg>
#include <cwchar>

#include "core/base/vorn2_debug.h"

namespace {
std::string toNarrow(const std::wstring& wide)
{
    std::string narrow;
    std::mbstate_t state{};
    char buffer[MB_LEN_MAX];
    for (wchar_t c : wide) {
        const std::size_t n = std::wcrtomb(buffer, c, &state);
        if (n == static_cast<std::size_t>(-1)) {
            narrow.push_back('?');
            state = std::mbstate_t{};
        } else {
            narrow.append(buffer, n);
        }
    }
    return narrow;
}
} // namespace

VornException::VornException(const char* file, unsigned line, const char* function, std::wstring message)
    : LbException(file, line, function), m_message(std::move(message)), m_narrow(toNarrow(m_message))
{
}

void vorn2_throw_exception(const char* file, unsigned line, const char* function, const wchar_t* message, ...)
{
    vorn2_debug_break();
    std::wstring text = message ? message : L"";
    if (text.find(L'%') != std::wstring::npos) {
        constexpr std::size_t bufferSize = 8192;
        wchar_t buffer[bufferSize];
        buffer[0] = L'\0';
        std::va_list args;
        va_start(args, message);
        const int written = std::vswprintf(buffer, bufferSize, message, args);
        va_end(args);
        // vswprintf reports -1 when the text doesn't fit; keep what it wrote, truncated.
        buffer[bufferSize - 1] = L'\0';
        if (written >= 0 || buffer[0] != L'\0')
            text = buffer;
    }
    throw VornException(file, line, function, std::move(text));
}
