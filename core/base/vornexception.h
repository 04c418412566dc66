#pragma once
// VornException marks a broken contract with the surface-element classes. It carries a wide
// message; what() gives that message converted to the narrow multibyte encoding of the current C
// locale (characters that the locale can't represent become '?').
//
// Raise it through vorn2_throw_exception(), the one helper that calls vorn2_debug_break() and, when
// the message holds a '%', formats it with the further arguments (wide printf, at most 8192 wide
// characters; wide text arguments are passed with %ls).

#include <exception>
#include <string>

#include "core/base/lbexception.h"

class VornException : public LbException, public std::exception
{
public:
    VornException(const char* file, unsigned line, const char* function, std::wstring message);

    const wchar_t* GetMessage() const { return m_message.c_str(); }
    const char* what() const noexcept override { return m_narrow.c_str(); }

private:
    std::wstring m_message;
    std::string m_narrow;
};

/// Formats (when message holds '%') and throws a VornException after vorn2_debug_break().
[[noreturn]] void vorn2_throw_exception(const char* file, unsigned line, const char* function,
                                        const wchar_t* message, ...);

/// Raises a VornException at the place of the call.
#define VORN2_THROW(...) vorn2_throw_exception(__FILE__, __LINE__, __func__, __VA_ARGS__)
