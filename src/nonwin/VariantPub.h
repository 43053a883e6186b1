// Numbers and dates as values see them: the cut to integers, the text forms, and the two rules
// between a DATE and the C library's seconds.
//
// A DATE counts days since 1899-12-30 00:00 of local wall-clock time; 25569.0 is 1970-01-01 00:00.
// Thread-safe throughout, as long as nobody changes the process's time zone or locale meanwhile.
// Python: none.
#pragma once

#include <cstdint>
#include <ctime>

#include "VzDefine.h"
#include "nonwin/cstring.h"

// Numbers of digits after the decimal point that the text forms honour; 0 means rounding, every
// other number the shortest form ("%g") for reals and no point for integers.
constexpr int kMinPointBit = 1;
constexpr int kMaxPointBit = 10;

// True when nPointBit asks for digits after the decimal point.
inline bool IsPointBit(int nPointBit) {
    return nPointBit >= kMinPointBit && nPointBit <= kMaxPointBit;
}

// A real cut toward zero. Values out of range give the nearer end, NaN gives 0.
int32_t RealToI32(double dValue);
int64_t RealToI64(double dValue);

// str becomes the text form of a real: with nPointBit in range that many digits after the point;
// with 0 the value rounded half away from zero, clamped to 32 bits, as an integer; else "%g".
// The float form rounds in float arithmetic.
void FormatReal(double dValue, int nPointBit, CString& str);
void FormatReal(float fValue, int nPointBit, CString& str);

// str becomes the decimal form of an integer; with nPointBit in range a point and that many zeros
// follow it.
void FormatInteger(int64_t nValue, int nPointBit, CString& str);

// str becomes "2024-03-05 07:08:09" in local time, the year with as many digits as it has. Empty
// when the date (NaN, or too far away) has no local time.
void FormatDate(DATE date, CString& str);

// Seconds since 1970 of a date, cut toward zero: timezone + (date - 25569) * 86400 + 0.5.
// False, nSeconds unchanged, when they do not fit or date is NaN.
bool DateToSeconds(DATE date, time_t& nSeconds);

// The date of seconds since 1970: (nSeconds - timezone) / 86400 + 25569.
// Deliberate: the difference is cut to a signed 32-bit integer before the division, on every host,
// so seconds after January 2038 come out 2^32 seconds too early.
DATE SecondsToDate(time_t nSeconds);

// The date of a text "year-month-day hour:minute:second" in local time. Fields that are missing at
// the end are those of 2000-01-01 00:00:00; a text that starts with no number gives 0.0.
// A date that the C library cannot count is taken as the second -1.
DATE TextToDate(LPCSTR szText);

// strTime becomes the template strFormat with its tokens replaced: $Y $M $D $h $m $s by year,
// month, day, hour, minute and second as they are, and for those of the six that do not occur so,
// $2Y by the year in at least 2 characters (full year, filled with a blank), $2M $2D $2h $2m $2s in
// at least 2 digits. Fields are replaced one after the other in this order. Case counts.
void DateToStr(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond,
               const CString& strFormat, CString& strTime);
