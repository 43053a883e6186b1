#include "nonwin/VariantPub.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

constexpr double kEpochDate = 25569.0;  // 1970-01-01 00:00 local time
constexpr double kDaySeconds = 86400.0;

// Room for the longest text: 309 digits, sign, point and 10 digits of a double.
constexpr size_t kMaxTextBytes = 400;

// The cut toward zero of a real to TInt, its ends included.
template <class TInt>
TInt CutReal(double dValue) {
    using Limits = std::numeric_limits<TInt>;
    constexpr double kLowest = static_cast<double>(Limits::min());  // a power of two: exact
    if (dValue != dValue) return 0;
    if (dValue <= kLowest) return Limits::min();
    if (dValue >= -kLowest) return Limits::max();
    return static_cast<TInt>(dValue);
}

// The C library's offset in seconds west of UTC.
int64_t ReadTimeZone() {
    tzset();  // before that the global means nothing
    return timezone;
}

// Reads the decimal integer at szText with leading white space and sign, clamped to int, and moves
// szText behind it. False when there is none.
bool ReadField(LPCSTR& szText, int& nField) {
    using Limits = std::numeric_limits<int>;
    const int nErrno = errno;
    char* szEnd = nullptr;
    const long long n = std::strtoll(szText, &szEnd, 10);
    errno = nErrno;
    if (szEnd == szText) return false;
    szText = szEnd;
    nField = n < Limits::min()   ? Limits::min()
             : n > Limits::max() ? Limits::max()
                                 : static_cast<int>(n);
    return true;
}

// Steps over what stands between two fields. A blank stands for any white space, also for none.
bool SkipSeparator(LPCSTR& szText, char chSeparator) {
    if (chSeparator == ' ') {
        while (std::isspace(static_cast<unsigned char>(*szText))) ++szText;
        return true;
    }
    if (*szText != chSeparator) return false;
    ++szText;
    return true;
}

// nField - nOffset, or false when that is no int.
bool Lower(int nField, int nOffset, int& nLowered) {
    if (nField < std::numeric_limits<int>::min() + nOffset) return false;
    nLowered = nField - nOffset;
    return true;
}

void ReplaceField(CString& strTime, int nField, const char* szShort, const char* szPadded,
                  const char* szPaddedFormat) {
    char szField[16];
    std::snprintf(szField, sizeof szField, "%d", nField);
    if (strTime.Replace(szShort, szField) > 0) return;
    std::snprintf(szField, sizeof szField, szPaddedFormat, nField);
    strTime.Replace(szPadded, szField);
}

}  // namespace

int32_t RealToI32(double dValue) { return CutReal<int32_t>(dValue); }
int64_t RealToI64(double dValue) { return CutReal<int64_t>(dValue); }

void FormatReal(double dValue, int nPointBit, CString& str) {
    if (nPointBit == 0) {
        FormatInteger(RealToI32(dValue < 0 ? dValue - 0.5 : dValue + 0.5), 0, str);
        return;
    }
    char szText[kMaxTextBytes];
    if (IsPointBit(nPointBit))
        std::snprintf(szText, sizeof szText, "%.*f", nPointBit, dValue);
    else
        std::snprintf(szText, sizeof szText, "%g", dValue);
    str.assign(szText);
}

void FormatReal(float fValue, int nPointBit, CString& str) {
    if (nPointBit != 0) {
        FormatReal(static_cast<double>(fValue), nPointBit, str);
        return;
    }
    const float fRounded = fValue < 0 ? fValue - 0.5f : fValue + 0.5f;
    FormatInteger(RealToI32(static_cast<double>(fRounded)), 0, str);
}

void FormatInteger(int64_t nValue, int nPointBit, CString& str) {
    char szText[32];
    std::snprintf(szText, sizeof szText, "%" PRId64, nValue);
    str.assign(szText);
    if (!IsPointBit(nPointBit)) return;
    str.AppendChar('.');
    str.append(static_cast<size_t>(nPointBit), '0');
}

void FormatDate(DATE date, CString& str) {
    str.Empty();
    time_t nSeconds = 0;
    struct tm fields;
    if (!DateToSeconds(date, nSeconds) || !localtime_r(&nSeconds, &fields)) return;
    char szText[kMaxTextBytes];
    std::snprintf(szText, sizeof szText, "%lld-%02d-%02d %02d:%02d:%02d", fields.tm_year + 1900LL,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    str.assign(szText);
}

bool DateToSeconds(DATE date, time_t& nSeconds) {
    constexpr double kLowest = static_cast<double>(std::numeric_limits<time_t>::min());
    const double dSeconds =
        static_cast<double>(ReadTimeZone()) + (date - kEpochDate) * kDaySeconds + 0.5;
    if (!(dSeconds >= kLowest && dSeconds < -kLowest)) return false;  // NaN fails here too
    nSeconds = static_cast<time_t>(dSeconds);
    return true;
}

DATE SecondsToDate(time_t nSeconds) {
    const uint64_t nLocal = static_cast<uint64_t>(static_cast<int64_t>(nSeconds)) -
                            static_cast<uint64_t>(ReadTimeZone());
    const int32_t nCut = static_cast<int32_t>(static_cast<uint32_t>(nLocal));
    return nCut / kDaySeconds + kEpochDate;
}

DATE TextToDate(LPCSTR szText) {
    constexpr int kFields = 6;
    constexpr char kSeparators[kFields] = {0, '-', '-', ' ', ':', ':'};
    int nFields[kFields] = {2000, 1, 1, 0, 0, 0};
    int nRead = 0;
    while (nRead < kFields && (nRead == 0 || SkipSeparator(szText, kSeparators[nRead])) &&
           ReadField(szText, nFields[nRead]))
        ++nRead;
    if (nRead == 0) return 0.0;

    struct tm fields = {};
    time_t nSeconds = -1;  // what mktime gives for a time it cannot count
    if (Lower(nFields[0], 1900, fields.tm_year) && Lower(nFields[1], 1, fields.tm_mon)) {
        fields.tm_mday = nFields[2];
        fields.tm_hour = nFields[3];
        fields.tm_min = nFields[4];
        fields.tm_sec = nFields[5];
        fields.tm_isdst = -1;  // the C library finds out about daylight saving
        nSeconds = mktime(&fields);
    }
    return SecondsToDate(nSeconds);
}

void DateToStr(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond,
               const CString& strFormat, CString& strTime) {
    strTime = strFormat;
    ReplaceField(strTime, nYear, "$Y", "$2Y", "%2d");
    ReplaceField(strTime, nMonth, "$M", "$2M", "%02d");
    ReplaceField(strTime, nDay, "$D", "$2D", "%02d");
    ReplaceField(strTime, nHour, "$h", "$2h", "%02d");
    ReplaceField(strTime, nMinute, "$m", "$2m", "%02d");
    ReplaceField(strTime, nSecond, "$s", "$2s", "%02d");
}
