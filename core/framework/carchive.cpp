#include "core/framework/carchive.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <istream>
#include <limits>

namespace {

static_assert(sizeof(short) == 2 && sizeof(int) == 4 && sizeof(long long) == 8, "archive widths");
static_assert(sizeof(float) == 4 && sizeof(double) == 8, "archive widths");

/// Brings raw bytes between host order and the archive's little-endian order (its own inverse).
template <std::size_t Size> void toLittleEndian(unsigned char (&bytes)[Size])
{
    if constexpr (std::endian::native == std::endian::big)
        std::reverse(bytes, bytes + Size);
}

void checkBuffer(const void* buffer, std::size_t size, const char* operation)
{
    if (buffer == nullptr && size != 0)
        throw std::invalid_argument(std::string(operation) + ": null buffer");
    if (size > static_cast<std::size_t>(std::numeric_limits<std::streamsize>::max()))
        throw std::invalid_argument(std::string(operation) + ": size too large");
}

} // namespace

CArchive::CArchive(std::iostream& stream, Mode mode) : m_stream(stream), m_mode(mode)
{
    if (mode != store && mode != load)
        throw std::invalid_argument("CArchive: mode must be store or load");
}

void CArchive::requireStoring() const
{
    if (m_mode != store)
        throw CArchiveException("archive: storing into an archive opened for loading");
}

void CArchive::requireLoading() const
{
    if (m_mode != load)
        throw CArchiveException("archive: loading from an archive opened for storing");
}

void CArchive::Write(const void* buffer, std::size_t size)
{
    requireStoring();
    checkBuffer(buffer, size, "CArchive::Write");
    if (size == 0)
        return;
    m_stream.write(static_cast<const char*>(buffer), static_cast<std::streamsize>(size));
    if (!m_stream)
        throw CArchiveException("archive: write to the stream failed");
}

void CArchive::Read(void* buffer, std::size_t size)
{
    requireLoading();
    checkBuffer(buffer, size, "CArchive::Read");
    readExactly(static_cast<unsigned char*>(buffer), size);
}

void CArchive::readExactly(unsigned char* buffer, std::size_t size)
{
    if (size == 0)
        return;
    m_stream.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(size));
    const std::streamsize got = m_stream.gcount();
    if (static_cast<std::size_t>(got) == size && m_stream)
        return;
    // Put the read position back to where the value began, so that a caller who catches the
    // exception finds the stream as before the call. A stream that can't seek stays at its end.
    m_stream.clear();
    if (got > 0) {
        m_stream.seekg(-got, std::ios_base::cur);
        m_stream.clear();
    }
    throw CArchiveException("archive: read past the end of the stream");
}

void CArchive::Flush()
{
    if (m_mode == store)
        m_stream.flush();
}

template <typename T> CArchive& CArchive::storeValue(T value)
{
    requireStoring();
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    toLittleEndian(bytes);
    Write(bytes, sizeof(T));
    return *this;
}

template <typename T> CArchive& CArchive::loadValue(T& value)
{
    requireLoading();
    unsigned char bytes[sizeof(T)];
    readExactly(bytes, sizeof(T));
    toLittleEndian(bytes);
    T result;
    std::memcpy(&result, bytes, sizeof(T));
    value = result;
    return *this;
}

CArchive& CArchive::operator<<(bool value)
{
    return storeValue<unsigned char>(value ? 1 : 0);
}
CArchive& CArchive::operator<<(char value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(signed char value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(unsigned char value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(short value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(unsigned short value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(int value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(unsigned int value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(long value)
{
    return storeValue(static_cast<long long>(value));
}
CArchive& CArchive::operator<<(unsigned long value)
{
    return storeValue(static_cast<unsigned long long>(value));
}
CArchive& CArchive::operator<<(long long value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(unsigned long long value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(float value)
{
    return storeValue(value);
}
CArchive& CArchive::operator<<(double value)
{
    return storeValue(value);
}

CArchive& CArchive::operator>>(bool& value)
{
    unsigned char byte = 0;
    loadValue(byte);
    value = byte != 0;
    return *this;
}
CArchive& CArchive::operator>>(char& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(signed char& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(unsigned char& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(short& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(unsigned short& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(int& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(unsigned int& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(long& value)
{
    long long wide = 0;
    loadValue(wide);
    value = static_cast<long>(wide);
    return *this;
}
CArchive& CArchive::operator>>(unsigned long& value)
{
    unsigned long long wide = 0;
    loadValue(wide);
    value = static_cast<unsigned long>(wide);
    return *this;
}
CArchive& CArchive::operator>>(long long& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(unsigned long long& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(float& value)
{
    return loadValue(value);
}
CArchive& CArchive::operator>>(double& value)
{
    return loadValue(value);
}
