#pragma once
// CArchive: the class framework's binary archive over a std::iostream. An archive is opened either
// for storing or for loading; operator<< writes and operator>> reads single values as raw
// little-endian bytes, with no tags, padding or version field, so a record's layout is exactly
// the sequence of its values.
//
// Widths: bool 1 byte (written 0 or 1; any non-zero byte reads as true), char types 1, short 2,
// int 4, long and long long 8 (long is 64-bit here), float 4 and double 8 in IEEE form, bit for
// bit (NaN payloads and infinities survive). The fixed-width aliases (std::int32_t, ...) resolve
// to these overloads.
//
// Errors throw CArchiveException: reading past the end ("archive: read past the end of the
// stream"), a stream that refuses a write, and storing into a loading archive or loading from a
// storing one. A failed read leaves the target variable untouched and, on a seekable stream, puts
// the read position back where the value began, so the archive stays usable.
//
// The archive borrows the stream: the caller keeps it alive while the archive is used. Writes go
// straight to the stream; Flush() flushes the stream's buffer. Threads: one at a time.

#include <cstddef>
#include <iosfwd>
#include <stdexcept>
#include <string>

/// The archive's own failure; what() tells which.
class CArchiveException : public std::runtime_error
{
public:
    explicit CArchiveException(const std::string& message) : std::runtime_error(message) {}
};

class CArchive
{
public:
    enum Mode : int
    {
        store = 0,
        load = 1
    };

    CArchive(std::iostream& stream, Mode mode);
    CArchive(const CArchive&) = delete;
    CArchive& operator=(const CArchive&) = delete;

    bool IsStoring() const { return m_mode == store; }
    bool IsLoading() const { return m_mode == load; }

    /// Writes size raw bytes. Throws CArchiveException on a loading archive or when the stream
    /// fails, std::invalid_argument for a null buffer with a non-zero size.
    void Write(const void* buffer, std::size_t size);
    /// Reads exactly size raw bytes. Throws CArchiveException on a storing archive or when fewer
    /// bytes remain (the buffer may then hold the part that was read), std::invalid_argument for
    /// a null buffer with a non-zero size.
    void Read(void* buffer, std::size_t size);

    /// Flushes the stream when storing; nothing when loading.
    void Flush();

    CArchive& operator<<(bool value);
    CArchive& operator<<(char value);
    CArchive& operator<<(signed char value);
    CArchive& operator<<(unsigned char value);
    CArchive& operator<<(short value);
    CArchive& operator<<(unsigned short value);
    CArchive& operator<<(int value);
    CArchive& operator<<(unsigned int value);
    CArchive& operator<<(long value);
    CArchive& operator<<(unsigned long value);
    CArchive& operator<<(long long value);
    CArchive& operator<<(unsigned long long value);
    CArchive& operator<<(float value);
    CArchive& operator<<(double value);

    CArchive& operator>>(bool& value);
    CArchive& operator>>(char& value);
    CArchive& operator>>(signed char& value);
    CArchive& operator>>(unsigned char& value);
    CArchive& operator>>(short& value);
    CArchive& operator>>(unsigned short& value);
    CArchive& operator>>(int& value);
    CArchive& operator>>(unsigned int& value);
    CArchive& operator>>(long& value);
    CArchive& operator>>(unsigned long& value);
    CArchive& operator>>(long long& value);
    CArchive& operator>>(unsigned long long& value);
    CArchive& operator>>(float& value);
    CArchive& operator>>(double& value);

private:
    template <typename T> CArchive& storeValue(T value);
    template <typename T> CArchive& loadValue(T& value);
    void requireStoring() const;
    void requireLoading() const;
    /// Reads exactly size bytes or throws, restoring the read position when it can.
    void readExactly(unsigned char* buffer, std::size_t size);

    std::iostream& m_stream;
    Mode m_mode;
};
