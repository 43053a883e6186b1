// Bytes of the wire, put together by hand for the tests: written from the wire tables, sharing no
// code with what is tested.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

using std::string_literals::operator""s;

// "0B 00 01" as three bytes.
inline std::string Hex(const std::string& strDigits) {
    std::string str;
    for (size_t i = 0; i + 1 < strDigits.size(); ++i) {
        if (strDigits[i] == ' ') continue;
        str += static_cast<char>(std::strtol(strDigits.substr(i, 2).c_str(), nullptr, 16));
        ++i;
    }
    return str;
}

// A text and its zero byte.
inline std::string Z(const std::string& str) { return str + '\0'; }

inline std::string U8(unsigned n) { return std::string(1, static_cast<char>(n)); }
inline std::string U16(unsigned n) { return U8(n & 0xFF) + U8(n >> 8 & 0xFF); }
inline std::string U32(uint32_t n) { return U16(n & 0xFFFF) + U16(n >> 16); }
inline std::string U32Big(uint32_t n) {
    return U8(n >> 24) + U8(n >> 16 & 0xFF) + U8(n >> 8 & 0xFF) + U8(n & 0xFF);
}

inline std::string Repeat(const std::string& str, size_t nTimes) {
    std::string strAll;
    for (size_t i = 0; i < nTimes; ++i) strAll += str;
    return strAll;
}

inline std::string Upper(unsigned n) {
    char sz[16];
    std::snprintf(sz, sizeof sz, "%X", n);
    return sz;
}

// The login's scrambler, both ways: a key byte before each three bytes.
inline std::string Scramble(const std::string& strPlain) {
    std::string str;
    unsigned nKey = 0x5B;
    for (size_t i = 0; i < strPlain.size(); ++i) {
        const unsigned c = static_cast<unsigned char>(strPlain[i]);
        if (i % 3 == 0) str += U8((nKey = nKey * 7 + 13) & 0xFF);
        const unsigned k = nKey & 0xFF;
        str += U8((i % 3 == 0 ? c + k : i % 3 == 1 ? c - k : c ^ k) & 0xFF);
    }
    return str;
}

inline std::string Unscramble(const std::string& strWire) {
    std::string str;
    unsigned k = 0;
    for (size_t i = 0; i < strWire.size(); ++i) {
        const unsigned c = static_cast<unsigned char>(strWire[i]);
        if (i % 4 == 0)
            k = c;
        else
            str += U8((i % 4 == 1 ? c - k : i % 4 == 2 ? c + k : c ^ k) & 0xFF);
    }
    return str;
}
