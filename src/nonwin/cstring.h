// Text of the ground floor: the library's one string type, the code page conversions, the numbers
// in texts, and the start of threads.
//
// Inside the library every text is GB2312; scripts and the file system speak UTF-8. The conversions
// declared here are the only places where the code page changes.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "VzDefine.h"

class XVariant;

// A byte string, normally GB2312 text: the standard string, which it derives from, with a small
// interface of trimming, searching, tokenising and replacing over it.
//
// It counts its length, may hold any byte including zero, and is always followed by a zero byte.
// Positions and counts given as int have the standard string's meaning and bounds: a negative count
// is longer than any text and is cut at its end, a negative position is beyond every end.
// Text pointers are zero-terminated and never null, unless a comment says what null does.
//
// Ownership: a value; owns its bytes as the standard string does.
// Threads:   one thread at a time for each object; nothing is shared between objects.
// Python:    none.
class CString : public std::string {
  public:
    CString() = default;
    // Throws std::logic_error "basic_string::_M_construct null not valid" when szSrc is null.
    CString(LPCTSTR szSrc) : std::string(RefuseNull(szSrc)) {}
    CString(const std::string& strSrc) : std::string(strSrc) {}
    CString(std::string&& strSrc) noexcept : std::string(std::move(strSrc)) {}
    // len copies of c.
    CString(char c, size_t len) : std::string(len, c) {}
    // The GB2312 form of len UTF-16 units, as FromUtf16 makes it.
    CString(const unsigned short* szUtf16, size_t len) { FromUtf16(szUtf16, len); }
    // The text form of a value: a text as it is, everything else as XVariant::ToStringA writes it
    // with -1 digits, empty for types that have no text form.
    explicit CString(const XVariant& varSrc);

    // The zero-terminated text; valid until the string changes.
    operator LPCTSTR() const { return c_str(); }

    // One byte by position, unchecked. For every integer type, because the built-in subscript of
    // the text pointer would compete with an operator that converts its argument.
    template <class TInt>
    const char& operator[](TInt nAt) const {
        return std::string::operator[](static_cast<size_type>(nAt));
    }
    template <class TInt>
    char& operator[](TInt nAt) {
        return std::string::operator[](static_cast<size_type>(nAt));
    }

    bool IsEmpty() const { return empty(); }
    // Makes the string empty.
    void Empty() { clear(); }
    // The length in bytes, zero bytes inside included.
    size_t GetLength() const { return length(); }

    // The byte at nAt. Throws std::out_of_range when there is none.
    char GetAt(int nAt) const { return at(static_cast<size_type>(nAt)); }
    // Overwrites the byte at nAt. Throws std::out_of_range when there is none.
    void SetAt(int nAt, char ch) { at(static_cast<size_type>(nAt)) = ch; }

    // The first nCount bytes, or all when there are fewer.
    CString Left(int nCount) const { return substr(0, static_cast<size_type>(nCount)); }
    // The bytes from nFirst on, nCount of them at most. Throws std::out_of_range when nFirst is
    // beyond the length.
    CString Mid(int nFirst) const { return substr(static_cast<size_type>(nFirst)); }
    CString Mid(int nFirst, int nCount) const {
        return substr(static_cast<size_type>(nFirst), static_cast<size_type>(nCount));
    }
    // The last nCount bytes, or all when there are fewer.
    CString Right(int nCount) const;

    // The position of the first hit at or after nStart, or -1.
    int Find(char ch) const { return ToPosition(find(ch)); }
    int Find(char ch, int nStart) const {
        return ToPosition(find(ch, static_cast<size_type>(nStart)));
    }
    int Find(LPCTSTR pszSub) const { return ToPosition(find(pszSub)); }
    int Find(LPCTSTR pszSub, int nStart) const {
        return ToPosition(find(pszSub, static_cast<size_type>(nStart)));
    }
    // The position of the last hit, or -1.
    int ReverseFind(char ch) const { return ToPosition(rfind(ch)); }

    // Puts a byte or a text before the byte at nAt. Throws std::out_of_range when nAt is beyond the
    // length.
    void Insert(int nAt, char ch) { insert(static_cast<size_type>(nAt), 1, ch); }
    void Insert(int nAt, const char* szText) { insert(static_cast<size_type>(nAt), szText); }

    void Append(const char* szText) { append(szText); }
    // Appends nLen bytes, zero bytes included. Throws std::length_error when nLen is negative.
    void Append(const char* pBytes, int nLen) { append(pBytes, static_cast<size_type>(nLen)); }
    void AppendChar(char ch) { push_back(ch); }
    // Makes the length nLength: cuts, or fills up with zero bytes.
    void Truncate(size_type nLength) { resize(nLength); }

    // Removes the run of ch at the start, at the end, at both.
    void TrimLeft(char ch);
    void TrimRight(char ch);
    void Trim(char ch);
    // Removes the run of bytes that belong to the set pStr. Deliberate: a zero byte inside the
    // string belongs to every set.
    void TrimLeft(LPCTSTR pStr);
    void TrimRight(LPCTSTR pStr);
    void Trim(LPCTSTR pStr);

    // Replaces every pszOld by pszNew from left to right; what was put in is not searched again.
    // Returns the number of replacements, which tells whether pszOld occurred at all.
    // pszOld must not be empty: it would be found without end. Neither text may be this string's.
    int Replace(LPCTSTR pszOld, LPCTSTR pszNew);
    // Overwrites every chOld by chNew. Returns the number of bytes changed.
    int Replace(char chOld, char chNew);
    // Removes every chRemove. Returns the number of bytes removed.
    int Remove(char chRemove);

    // The next token: the longest run of bytes at or after iStart that are not in the set
    // pszTokens. Runs of delimiters are stepped over, so no token is empty; iStart moves behind the
    // one delimiter after the token. At the end the result is empty and iStart -1.
    // A negative iStart gives an empty text and stays. A zero byte inside the string ends both
    // kinds of runs.
    // Deliberate: with an empty (or null) set there are no tokens, not even the rest of the string:
    // the result is empty, and iStart stays while it is inside the string, else it becomes -1.
    CString Tokenize(const char* pszTokens, int& iStart) const;

    // Every byte through the C library's tolower or toupper, so the process's locale counts.
    void MakeLower();
    void MakeUpper();
    // Compares the zero-terminated texts without regard to case: below 0, 0 or above 0.
    int CompareNoCase(const char* szOther) const;

    // strUtf8 becomes the UTF-8 form of the whole length of this text (an empty one is empty).
    // strUtf8 must be another string. Failures as for the free ToUtf8.
    void ToUtf8(CString& strUtf8) const;
    // Becomes the GB2312 form of len UTF-8 bytes; of none when len is 0. szUtf8 must not be this
    // string's own text. A byte sequence that is no UTF-8, is cut at the end, or has no GB2312 form
    // ends the text before it; the error goes to stderr. Empty when no converter can be had.
    void FromUtf8(const char* szUtf8, size_t len);
    // The same for len UTF-16 units (little-endian, no surrogates); of none when len is 0.
    void FromUtf16(const unsigned short* szUtf16, size_t len);
    // As the free ToUtf16, for the text up to its first zero byte.
    unsigned short* ToUtf16(size_t& outLen) const;

  private:
    // szSrc, or std::logic_error when it is null.
    static LPCTSTR RefuseNull(LPCTSTR szSrc);
    static int ToPosition(size_type nPos) { return nPos == npos ? -1 : static_cast<int>(nPos); }
};

// A text in UTF-8, made from a GB2312 one up to its first zero byte: for scripts and file paths.
// Conversion failures as for ToUtf8.
//
// Ownership: a value. Threads: one thread at a time. Python: none.
class CT2UTF8 : public CString {
  public:
    explicit CT2UTF8(const char* szT);
    explicit CT2UTF8(const std::string& strT);
};

// A text in GB2312, made from a UTF-8 one: for what comes from a script. A standard string is
// converted over its full length. Conversion failures as for CString::FromUtf8.
//
// Ownership: a value. Threads: one thread at a time. Python: none.
class CUTF82T : public CString {
  public:
    explicit CUTF82T(const char* szUtf8);
    explicit CUTF82T(const std::string& strUtf8);
};

// True when the zero-terminated texts are equal byte by byte: bytes after an embedded zero byte
// take no part. A null pointer equals no text. Order (std::map) is that of the standard string,
// over the full length.
bool operator==(const CString& str1, const CString& str2);
bool operator==(const CString& str1, LPCTSTR sz2);
bool operator==(LPCTSTR sz1, const CString& str2);
bool operator==(const CString& str1, const std::string& str2);
bool operator==(const std::string& str1, const CString& str2);
inline bool operator!=(const CString& str1, const CString& str2) { return !(str1 == str2); }
inline bool operator!=(const CString& str1, LPCTSTR sz2) { return !(str1 == sz2); }
inline bool operator!=(LPCTSTR sz1, const CString& str2) { return !(sz1 == str2); }
inline bool operator!=(const CString& str1, const std::string& str2) { return !(str1 == str2); }
inline bool operator!=(const std::string& str1, const CString& str2) { return !(str1 == str2); }

// strUtf8 becomes the UTF-8 form of inlen GB2312 bytes; inlen 0 means up to the first zero byte.
// szInBuf must not be the text of strUtf8. Bytes that are no GB2312 text, or a character cut at the
// end, end the result before them; the error goes to stderr. Empty when no converter can be had.
// Thread-safe, as all conversions: each opens and closes a converter of its own.
void ToUtf8(const char* szInBuf, CString& strUtf8, size_t inlen);

// A new array of the UTF-16 little-endian units of inlen GB2312 bytes (0: up to the first zero
// byte), which the caller frees with delete[]; outLen is the number of units. No terminator is
// counted, what lies behind the units means nothing.
// Null, and a message on stderr, when no converter can be had (outLen 0) or the bytes cannot be
// converted (outLen is then the number of bytes of room that were left).
unsigned short* ToUtf16(const char* szInBuf, size_t& outLen, size_t inlen);

// Lowers the letters A to Z in place, whatever the locale; every other byte stays.
void _strlwr(char* str);

// The number at the start of szText in the given base, exactly as strtoul gives it where unsigned
// long has 32 bits, on every host: white space and a sign may come first, a minus wraps around, a
// magnitude beyond 32 bits gives 0xFFFFFFFF, no digits give 0. errno stays as it was.
DWORD TextToU32(const char* szText, int nBase);
// The same for strtol where long has 32 bits: values out of range give the nearer end.
int32_t TextToI32(const char* szText, int nBase);

// Starts start_rtn(arg) on a new detached thread with the default stack size. All signals are
// blocked in it, so they stay with the threads of the interpreter; the caller's mask does not
// change. Nobody can join the thread, and no exception may leave start_rtn.
// Returns 0, or the error number of what failed; then nothing runs and arg is still the caller's.
int vzthread_create(void* (*start_rtn)(void*), void* arg);
