#pragma once
// INonCopyable: a base that removes copy and move from the classes deriving from it (pools and
// other owners of raw memory whose identity matters).

class INonCopyable
{
protected:
    INonCopyable() = default;
    ~INonCopyable() = default;

public:
    INonCopyable(const INonCopyable&) = delete;
    INonCopyable& operator=(const INonCopyable&) = delete;
};
