// Texts of numbers and dates, and the string's taking apart. Input: eight bytes of a number, a byte
// of digits, then three texts: a set or what is looked for, what that becomes, and the string.

#include <cstdlib>
#include <cstring>

#include "ClientSock.h"
#include "Input.h"
#include "nonwin/VariantPub.h"
#include "nonwin/XVariant.h"
#include "nonwin/cstring.h"

namespace {

void CheckNumbers(uint64_t nBits, int nPointBit) {
    double d;
    std::memcpy(&d, &nBits, sizeof d);
    float f;
    std::memcpy(&f, &nBits, sizeof f);
    CString str;
    FormatReal(d, nPointBit, str);
    FormatReal(f, nPointBit, str);
    FormatInteger(static_cast<int64_t>(nBits), nPointBit, str);
    if (!IsPointBit(nPointBit))
        Require(std::strtoll(str, nullptr, 10) == static_cast<int64_t>(nBits), "integer and back");
    FormatDate(d, str);

    // A date that has a text is that of the text, to the second, where the seconds fit 32 bits.
    time_t nSeconds = 0;
    if (DateToSeconds(d, nSeconds) && nSeconds >= 0 && nSeconds < INT32_MAX / 2) {
        const DATE again = TextToDate(str);
        time_t nAgain = 0;
        Require(DateToSeconds(again, nAgain) && nAgain == nSeconds, "date and back");
    }
    SecondsToDate(static_cast<time_t>(nBits));
    int fields[6];
    for (int i = 0; i < 6; ++i) fields[i] = static_cast<int>(nBits >> (8 * i));
    DateToStr(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5],
              CString("$Y-$2M-$D $h:$2m:$s"), str);
    Require(str.find('$') == CString::npos, "all replaced");
}

void CheckTextAsValue(const CString& str) {
    const XVariant value(str);
    value.ToDate();
    value.ToDouble();
    value.ToInt64();
    value.ToInt();
    TextToDate(str);
    TextToI32(str, 10);
    TextToU32(str, 16);
    CString strTime;
    DateToStr(2024, 3, 5, 7, 8, 9, str, strTime);
    CHostAddress address;
    if (ParseHostText(str, address) == kLoggedIn) Require(address.nPort != 0, "port");
}

size_t Count(const std::string& str, const std::string& strWhat) {
    size_t n = 0;
    for (size_t nAt = 0; (nAt = str.find(strWhat, nAt)) != std::string::npos; ++n)
        nAt += strWhat.size();
    return n;
}

// Tokens and what stood between them are the string again.
void CheckTokens(const CString& str, const CString& strSet) {
    size_t nBytes = 0;
    size_t nTokens = 0;
    int nAt = 0;
    for (;;) {
        const CString strToken = str.Tokenize(strSet, nAt);
        if (strToken.empty()) break;
        Require(strSet.empty() || strToken.find_first_of(strSet.c_str()) == CString::npos, "token");
        nBytes += strToken.size();
        Require(++nTokens <= str.size() && nBytes <= str.size(), "tokens");
    }
    if (strSet.empty() || str.find('\0') != CString::npos) return;
    size_t nSetBytes = 0;
    for (const char c : str)
        if (std::strchr(strSet, c)) ++nSetBytes;
    Require(nBytes + nSetBytes == str.size(), "tokens and delimiters");
}

void CheckReplace(const CString& str, const CString& strOld, const CString& strNew) {
    if (strOld.empty()) return;
    CString strChanged(str);
    const int nCount = strChanged.Replace(strOld.c_str(), strNew.c_str());
    Require(static_cast<size_t>(nCount) == Count(str, strOld), "replacements");
    const size_t nGone = static_cast<size_t>(nCount) * strOld.size();
    Require(strChanged.size() == str.size() - nGone + static_cast<size_t>(nCount) * strNew.size(),
            "length");
    CString strBytes(str);
    strBytes.Replace(strOld[0], strNew.empty() ? 'x' : strNew[0]);
    Require(strBytes.size() == str.size(), "bytes replaced");
    strBytes.Remove(strOld[0]);
    Require(strBytes.Find(strOld[0]) == -1, "bytes removed");
}

void CheckTrims(const CString& str, const CString& strSet) {
    CString strTrimmed(str);
    strTrimmed.Trim(strSet.c_str());
    Require(strTrimmed.empty() || (!std::strchr(strSet, strTrimmed.front()) &&
                                   !std::strchr(strSet, strTrimmed.back())),
            "trimmed");
    strTrimmed.Trim(' ');
    CString strLower(str);
    strLower.MakeLower();
    CString strUpper(str);
    strUpper.MakeUpper();
    Require(strLower.CompareNoCase(strUpper) == 0, "case");
    std::string strCopy = str;
    _strlwr(&strCopy[0]);
    Require(strcasecmp(strCopy.c_str(), str.c_str()) == 0, "lower");
    const int nHalf = static_cast<int>(str.size() / 2);
    Require(str.Left(nHalf) + str.Mid(nHalf) == std::string(str), "halves");
    Require(str.Right(nHalf).size() == static_cast<size_t>(nHalf), "right");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    // A time zone without daylight saving: every local time is met once.
    static const bool bZone = setenv("TZ", "<+08>-8", 1) == 0;
    Require(bZone, "time zone");
    CInput input(pData, nSize);
    uint64_t nBits = 0;
    for (int i = 0; i < 8; ++i) nBits |= uint64_t{input.Byte()} << (8 * i);
    const int nPointBit = static_cast<int>(input.Byte()) - 2;
    const CString strSet(input.Text());
    const CString strNew(input.Text());
    const CString str(input.Rest());
    CheckNumbers(nBits, nPointBit);
    CheckTextAsValue(str);
    CheckTokens(str, strSet);
    CheckReplace(str, strSet, strNew);
    CheckTrims(str, strSet);
    return 0;
}
