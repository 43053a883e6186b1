// What every fuzz target shares: how it takes its input apart, and how it says that a rule broke.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

// Ends a run whose result breaks a rule. A fuzzer takes that for a crash, a test for a failure.
inline void Require(bool bHolds, const char* szRule) {
    if (!bHolds) throw std::logic_error(szRule);
}

// The input of one run, taken from the front. What is not there reads as zero or as empty.
class CInput {
  public:
    CInput(const uint8_t* pData, size_t nSize) : m_pData(pData), m_nLeft(nSize) {}

    unsigned Byte() {
        if (!m_nLeft) return 0;
        --m_nLeft;
        return *m_pData++;
    }
    // The next bytes up to a zero byte, which is taken too.
    std::string Text() {
        const void* pEnd = m_nLeft ? std::memchr(m_pData, 0, m_nLeft) : nullptr;
        const size_t n =
            pEnd ? static_cast<size_t>(static_cast<const uint8_t*>(pEnd) - m_pData) : m_nLeft;
        std::string str = Chars(n);
        Byte();
        return str;
    }
    // The next nSize bytes, or what is left.
    std::string Chars(size_t nSize) {
        if (nSize > m_nLeft) nSize = m_nLeft;
        std::string str(m_pData, m_pData + nSize);
        m_pData += nSize;
        m_nLeft -= nSize;
        return str;
    }
    std::string Rest() { return Chars(m_nLeft); }

    // What is left, in place: the end of these bytes is the end of the input's memory.
    const uint8_t* Data() const { return m_pData; }
    size_t Left() const { return m_nLeft; }

  private:
    const uint8_t* m_pData;
    size_t m_nLeft;
};

// Whether all of str is well-formed UTF-8 of characters up to U+FFFF, which is all GB2312 gives.
inline bool IsUtf8(const std::string& str) {
    for (size_t i = 0; i < str.size();) {
        const unsigned c = static_cast<unsigned char>(str[i]);
        const size_t nMore = c < 0x80 ? 0 : c >= 0xC2 && c < 0xE0 ? 1 : (c & 0xF0) == 0xE0 ? 2 : 9;
        if (nMore == 9 || i + nMore >= str.size()) return false;
        for (size_t k = 1; k <= nMore; ++k)
            if ((static_cast<unsigned char>(str[i + k]) & 0xC0) != 0x80) return false;
        i += nMore + 1;
    }
    return true;
}

// The one function of each target. It returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize);
