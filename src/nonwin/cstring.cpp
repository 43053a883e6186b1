#include "nonwin/cstring.h"

#include <iconv.h>
#include <pthread.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "nonwin/XVariant.h"

namespace {

// One open converter between two code pages, closed when destroyed.
class CConverter {
  public:
    CConverter(const char* szTo, const char* szFrom) : m_cd(iconv_open(szTo, szFrom)) {}
    ~CConverter() {
        if (IsOpen()) iconv_close(m_cd);
    }
    CConverter(const CConverter&) = delete;
    CConverter& operator=(const CConverter&) = delete;

    // False when the system has no such converter; errno says why.
    bool IsOpen() const {
        return m_cd != reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)
    }

    // Converts nIn bytes in one call to pOut, which has room for nLeft bytes; nLeft becomes the
    // room that is left. False with errno set when the input is not used up: what was converted
    // before stays. Characters that were replaced by similar ones are no failure.
    bool Convert(const void* pIn, size_t nIn, void* pOut, size_t& nLeft) const {
        char* pFrom = static_cast<char*>(const_cast<void*>(pIn));  // only read, by its contract
        char* pTo = static_cast<char*>(pOut);
        return iconv(m_cd, &pFrom, &nIn, &pTo, &nLeft) != static_cast<size_t>(-1);
    }

    // Converts nIn bytes into a string of at most nRoom bytes; szFailed is printed on failure.
    void ConvertInto(CString& str, const void* pIn, size_t nIn, size_t nRoom,
                     const char* szFailed) const {
        str.resize(nRoom);
        size_t nLeft = nRoom;
        if (!Convert(pIn, nIn, str.data(), nLeft)) perror(szFailed);
        str.resize(nRoom - nLeft);
    }

  private:
    iconv_t m_cd;
};

// Whether all bytes are ASCII: such a text is the same in GB2312 and UTF-8.
bool IsAscii(const char* p, size_t nLen) {
    constexpr uint64_t kHighBits = 0x8080808080808080;
    uint64_t nSeen = 0;
    for (; nLen >= sizeof nSeen; p += sizeof nSeen, nLen -= sizeof nSeen) {
        uint64_t nBytes;
        std::memcpy(&nBytes, p, sizeof nBytes);
        nSeen |= nBytes;
    }
    for (; nLen > 0; ++p, --nLen) nSeen |= static_cast<BYTE>(*p);
    return (nSeen & kHighBits) == 0;
}

bool IsInSet(LPCTSTR pSet, char ch) { return std::strchr(pSet, ch) != nullptr; }

// Blocks all signals for the calling thread, and puts its mask back when destroyed.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

  private:
    sigset_t m_before;
};

}  // namespace

LPCTSTR CString::RefuseNull(LPCTSTR szSrc) {
    if (!szSrc) throw std::logic_error("basic_string::_M_construct null not valid");
    return szSrc;
}

CString::CString(const XVariant& varSrc) { varSrc.ToStringA(*this, -1); }

CString CString::Right(int nCount) const {
    const size_type nWanted = static_cast<size_type>(nCount);
    return substr(nWanted < length() ? length() - nWanted : 0);
}

void CString::TrimLeft(char ch) {
    const size_type nFirst = find_first_not_of(ch);
    erase(0, nFirst == npos ? length() : nFirst);
}

void CString::TrimRight(char ch) {
    const size_type nLast = find_last_not_of(ch);
    erase(nLast == npos ? 0 : nLast + 1);
}

void CString::Trim(char ch) {
    TrimRight(ch);
    TrimLeft(ch);
}

void CString::TrimLeft(LPCTSTR pStr) {
    size_type nRun = 0;
    while (nRun < length() && IsInSet(pStr, (*this)[nRun])) ++nRun;
    erase(0, nRun);
}

void CString::TrimRight(LPCTSTR pStr) {
    size_type nKeep = length();
    while (nKeep > 0 && IsInSet(pStr, (*this)[nKeep - 1])) --nKeep;
    erase(nKeep);
}

void CString::Trim(LPCTSTR pStr) {
    TrimRight(pStr);
    TrimLeft(pStr);
}

int CString::Replace(LPCTSTR pszOld, LPCTSTR pszNew) {
    const size_type nOldLen = std::strlen(pszOld);
    const size_type nNewLen = std::strlen(pszNew);
    int nCount = 0;
    size_type nFrom = 0;
    for (;;) {
        const size_type nHit = find(pszOld, nFrom, nOldLen);
        if (nHit == npos) return nCount;
        ++nCount;
        replace(nHit, nOldLen, pszNew, nNewLen);
        nFrom = nHit + nNewLen;
    }
}

int CString::Replace(char chOld, char chNew) {
    int nCount = 0;
    for (char& ch : *this) {
        if (ch != chOld) continue;
        ch = chNew;
        ++nCount;
    }
    return nCount;
}

int CString::Remove(char chRemove) {
    const size_type nBefore = length();
    erase(std::remove(begin(), end(), chRemove), end());
    return static_cast<int>(nBefore - length());
}

CString CString::Tokenize(const char* pszTokens, int& iStart) const {
    if (iStart < 0) return CString();
    const size_type nStart = static_cast<size_type>(iStart);
    if (!pszTokens || !*pszTokens) {
        if (nStart >= length()) iStart = -1;
        return CString();
    }
    if (nStart >= length()) {
        iStart = -1;
        return CString();
    }
    const size_type nFrom = nStart + std::strspn(c_str() + nStart, pszTokens);
    if (nFrom >= length()) {
        iStart = -1;
        return CString();
    }
    const size_type nExcluding = std::strcspn(c_str() + nFrom, pszTokens);
    iStart = static_cast<int>(nFrom + nExcluding + 1);
    return substr(nFrom, nExcluding);
}

// The C library's functions take the value of an unsigned char.
void CString::MakeLower() {
    for (char& ch : *this) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
}

void CString::MakeUpper() {
    for (char& ch : *this) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
}

int CString::CompareNoCase(const char* szOther) const { return strcasecmp(c_str(), szOther); }

void CString::ToUtf8(CString& strUtf8) const { ::ToUtf8(c_str(), strUtf8, GetLength()); }

void CString::FromUtf8(const char* szUtf8, size_t len) {
    Empty();
    if (IsAscii(szUtf8, len)) {  // nearly every name: opening a converter costs far more
        assign(szUtf8, len);
        return;
    }
    const CConverter converter("GB2312", "UTF-8");
    if (!converter.IsOpen()) {
        perror("FromUtf8:iconv_open:");
        return;
    }
    converter.ConvertInto(*this, szUtf8, len, 2 * len, "FromUtf8:iconv:");
}

void CString::FromUtf16(const unsigned short* szUtf16, size_t len) {
    Empty();
    const CConverter converter("GB2312", "UCS-2LE");
    if (!converter.IsOpen()) {
        perror("FromUtf16:iconv_open");
        return;
    }
    converter.ConvertInto(*this, szUtf16, 2 * len, 3 * (len + 1), "FromUtf16:iconv");
}

unsigned short* CString::ToUtf16(size_t& outLen) const { return ::ToUtf16(c_str(), outLen, 0); }

CT2UTF8::CT2UTF8(const char* szT) { ::ToUtf8(szT, *this, 0); }
CT2UTF8::CT2UTF8(const std::string& strT) { ::ToUtf8(strT.c_str(), *this, 0); }

CUTF82T::CUTF82T(const char* szUtf8) { FromUtf8(szUtf8, std::strlen(szUtf8)); }
CUTF82T::CUTF82T(const std::string& strUtf8) { FromUtf8(strUtf8.data(), strUtf8.length()); }

bool operator==(const CString& str1, const CString& str2) {
    return std::strcmp(str1.c_str(), str2.c_str()) == 0;
}
bool operator==(const CString& str1, LPCTSTR sz2) {
    return sz2 && std::strcmp(str1.c_str(), sz2) == 0;
}
bool operator==(LPCTSTR sz1, const CString& str2) { return str2 == sz1; }
bool operator==(const CString& str1, const std::string& str2) { return str1 == str2.c_str(); }
bool operator==(const std::string& str1, const CString& str2) { return str2 == str1.c_str(); }

void ToUtf8(const char* szInBuf, CString& strUtf8, size_t inlen) {
    strUtf8.Empty();
    if (inlen == 0) inlen = std::strlen(szInBuf);
    if (IsAscii(szInBuf, inlen)) {
        strUtf8.assign(szInBuf, inlen);
        return;
    }
    const CConverter converter("UTF-8", "GB2312");
    if (!converter.IsOpen()) {
        perror("ToUtf8:iconv_open:");
        return;
    }
    converter.ConvertInto(strUtf8, szInBuf, inlen, 2 * inlen, "ToUtf8:iconv:");
}

unsigned short* ToUtf16(const char* szInBuf, size_t& outLen, size_t inlen) {
    outLen = 0;
    const CConverter converter("UCS-2LE", "GB2312");
    if (!converter.IsOpen()) {
        perror("ToUtf16:iconv_open:");
        return nullptr;
    }
    if (inlen == 0) inlen = std::strlen(szInBuf);
    auto pUnits = std::make_unique<unsigned short[]>(inlen + 1);
    size_t nLeft = 2 * (inlen + 1);
    if (!converter.Convert(szInBuf, inlen, pUnits.get(), nLeft)) {
        perror("ToUtf16:iconv");
        outLen = nLeft;
        return nullptr;
    }
    outLen = (inlen + 1) - nLeft / 2;
    return pUnits.release();
}

void _strlwr(char* str) {
    for (; *str; ++str)
        if (*str >= 'A' && *str <= 'Z') *str = static_cast<char>(*str + 0x20);
}

int32_t TextToI32(const char* szText, int nBase) {
    using Limits = std::numeric_limits<int32_t>;
    const int nErrno = errno;
    const long long n = std::strtoll(szText, nullptr, nBase);
    errno = nErrno;
    return static_cast<int32_t>(std::clamp<long long>(n, Limits::min(), Limits::max()));
}

DWORD TextToU32(const char* szText, int nBase) {
    constexpr long long kLargest = std::numeric_limits<DWORD>::max();
    const int nErrno = errno;
    const long long n = std::strtoll(szText, nullptr, nBase);  // saturates far beyond 32 bits
    errno = nErrno;
    if (n > kLargest || n < -kLargest) return std::numeric_limits<DWORD>::max();
    return static_cast<DWORD>(n);
}

int vzthread_create(void* (*start_rtn)(void*), void* arg) {
    pthread_attr_t attr;
    int nError = pthread_attr_init(&attr);
    if (nError != 0) return nError;
    nError = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (nError == 0) {
        const CSignalsBlocked blocked;  // a new thread starts with its creator's mask
        pthread_t thread;
        nError = pthread_create(&thread, &attr, start_rtn, arg);
    }
    pthread_attr_destroy(&attr);
    return nError;
}
