#include "core/base/lbexception.h"

LbException::LbException(const char* file, unsigned line, const char* function)
    : m_file(file ? file : ""), m_line(line), m_function(function ? function : "")
{
}

std::string LbException::Dump() const
{
    return m_file + "(" + std::to_string(m_line) + "): " + m_function;
}
