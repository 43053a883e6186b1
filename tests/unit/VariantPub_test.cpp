#include "nonwin/VariantPub.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The process's time zone while this lives, as a rule that needs no zone files.
class CTimeZone {
  public:
    explicit CTimeZone(const char* szRule) {
        const char* szBefore = getenv("TZ");
        m_bSet = szBefore != nullptr;
        if (szBefore) m_strBefore = szBefore;
        setenv("TZ", szRule, 1);
        tzset();
    }
    ~CTimeZone() {
        if (m_bSet)
            setenv("TZ", m_strBefore.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

  private:
    bool m_bSet;
    std::string m_strBefore;
};

constexpr char kEast[] = "CST-8";                   // 8 hours ahead of UTC
constexpr char kWest[] = "EST5EDT,M3.2.0,M11.1.0";  // 5 hours behind, daylight saving
constexpr double kMarch4 = 44259.0;                 // 2021-03-04
constexpr time_t kMarch4Seconds = 1614816000;       // its midnight in UTC

std::string Real(double dValue, int nPointBit) {
    CString str("stale");
    FormatReal(dValue, nPointBit, str);
    return str;
}

std::string Real(float fValue, int nPointBit) {
    CString str("stale");
    FormatReal(fValue, nPointBit, str);
    return str;
}

std::string Integer(int64_t nValue, int nPointBit) {
    CString str("stale");
    FormatInteger(nValue, nPointBit, str);
    return str;
}

std::string Date(DATE date) {
    CString str("stale");
    FormatDate(date, str);
    return str;
}

std::string Filled(const char* szTemplate, int nYear = 2024, int nMonth = 3, int nDay = 5,
                   int nHour = 7, int nMinute = 8, int nSecond = 9) {
    CString str("stale");
    DateToStr(nYear, nMonth, nDay, nHour, nMinute, nSecond, szTemplate, str);
    return str;
}

TEST(RealCut, GoesTowardZero) {
    EXPECT_EQ(RealToI32(2.9), 2);
    EXPECT_EQ(RealToI32(-2.9), -2);
    EXPECT_EQ(RealToI64(2.9), 2);
    EXPECT_EQ(RealToI64(-2.9), -2);
}

TEST(RealCut, ClampsTo32Bits) {
    EXPECT_EQ(RealToI32(2147483646.9), 2147483646);
    EXPECT_EQ(RealToI32(2147483647.9), INT32_MAX);
    EXPECT_EQ(RealToI32(2147483648.0), INT32_MAX);
    EXPECT_EQ(RealToI32(-2147483648.9), INT32_MIN);
    EXPECT_EQ(RealToI32(-2147483649.0), INT32_MIN);
    EXPECT_EQ(RealToI32(1e300), INT32_MAX);
    EXPECT_EQ(RealToI32(-1e300), INT32_MIN);
    EXPECT_EQ(RealToI32(kInfinity), INT32_MAX);
    EXPECT_EQ(RealToI32(-kInfinity), INT32_MIN);
}

TEST(RealCut, ClampsTo64Bits) {
    EXPECT_EQ(RealToI64(9223372036854774784.0), 9223372036854774784);
    EXPECT_EQ(RealToI64(9223372036854775808.0), INT64_MAX);
    EXPECT_EQ(RealToI64(-9223372036854775808.0), INT64_MIN);
    EXPECT_EQ(RealToI64(kInfinity), INT64_MAX);
    EXPECT_EQ(RealToI64(-kInfinity), INT64_MIN);
}

TEST(RealCut, NoNumberIsZero) {
    EXPECT_EQ(RealToI32(kNaN), 0);
    EXPECT_EQ(RealToI64(kNaN), 0);
}

TEST(RealText, HasTheDigitsAskedFor) {
    EXPECT_EQ(Real(2.5, 1), "2.5");
    EXPECT_EQ(Real(2.5, 2), "2.50");
    EXPECT_EQ(Real(-0.125, 10), "-0.1250000000");
    EXPECT_EQ(Real(2.5f, 2), "2.50");
    EXPECT_EQ(Real(0.1f, 10), "0.1000000015");  // the float, widened
}

TEST(RealText, IsShortForEveryOtherCount) {
    EXPECT_EQ(Real(2.5, -1), "2.5");
    EXPECT_EQ(Real(2.5, 11), "2.5");
    EXPECT_EQ(Real(2.5f, -1), "2.5");
    EXPECT_EQ(Real(2.5f, 11), "2.5");
    EXPECT_EQ(Real(1234567.0, -1), "1.23457e+06");
    EXPECT_EQ(Real(0.1f, -1), "0.1");
}

TEST(RealText, RoundsHalfAwayFromZeroWithoutDigits) {
    EXPECT_EQ(Real(2.5, 0), "3");
    EXPECT_EQ(Real(-2.5, 0), "-3");
    EXPECT_EQ(Real(2.4, 0), "2");
    EXPECT_EQ(Real(-2.4, 0), "-2");
    EXPECT_EQ(Real(-0.0, 0), "0");
    EXPECT_EQ(Real(2.5f, 0), "3");
    EXPECT_EQ(Real(-2.5f, 0), "-3");
}

TEST(RealText, RoundsAFloatInFloatArithmetic) {
    // The sums lie between two floats and are taken to the even one.
    EXPECT_EQ(Real(0.49999997f, 0), "1");
    EXPECT_EQ(Real(static_cast<double>(0.49999997f), 0), "0");
    EXPECT_EQ(Real(-0.49999997f, 0), "-1");
    EXPECT_EQ(Real(8388609.0f, 0), "8388610");
    EXPECT_EQ(Real(8388609.0, 0), "8388609");
}

TEST(RealText, ClampsWhatItRounds) {
    EXPECT_EQ(Real(3e9, 0), "2147483647");
    EXPECT_EQ(Real(-3e9, 0), "-2147483648");
    EXPECT_EQ(Real(kNaN, 0), "0");
    EXPECT_EQ(Real(3e9f, 0), "2147483647");
    EXPECT_EQ(Real(-3e9f, 0), "-2147483648");
    EXPECT_EQ(Real(std::numeric_limits<float>::quiet_NaN(), 0), "0");
}

TEST(RealText, TheLargestDoubleFits) {
    const std::string str = Real(-std::numeric_limits<double>::max(), 10);
    EXPECT_EQ(str.size(), 1u + 309u + 1u + 10u);
    EXPECT_EQ(str.substr(str.size() - 11), ".0000000000");
}

TEST(IntegerText, HasZerosForTheDigitsAskedFor) {
    EXPECT_EQ(Integer(42, 3), "42.000");
    EXPECT_EQ(Integer(-42, 1), "-42.0");
    EXPECT_EQ(Integer(42, 10), "42.0000000000");
    EXPECT_EQ(Integer(42, 0), "42");
    EXPECT_EQ(Integer(42, -1), "42");
    EXPECT_EQ(Integer(42, 11), "42");
    EXPECT_EQ(Integer(4294967295, 0), "4294967295");
}

TEST(DateRules, ADateBecomesSeconds) {
    const CTimeZone zone("UTC0");
    time_t nSeconds = 0;
    EXPECT_TRUE(DateToSeconds(kMarch4, nSeconds));
    EXPECT_EQ(nSeconds, kMarch4Seconds);
    EXPECT_TRUE(DateToSeconds(kMarch4 + 0.5, nSeconds));
    EXPECT_EQ(nSeconds, kMarch4Seconds + 43200);
    EXPECT_TRUE(DateToSeconds(25569.0, nSeconds));
    EXPECT_EQ(nSeconds, 0);
}

TEST(DateRules, SecondsAreWestOfUtc) {
    time_t nSeconds = 0;
    {
        const CTimeZone zone(kEast);
        EXPECT_TRUE(DateToSeconds(kMarch4, nSeconds));
        EXPECT_EQ(nSeconds, kMarch4Seconds - 8 * 3600);
        EXPECT_EQ(SecondsToDate(kMarch4Seconds - 8 * 3600), kMarch4);
    }
    const CTimeZone zone(kWest);
    EXPECT_TRUE(DateToSeconds(kMarch4, nSeconds));
    EXPECT_EQ(nSeconds, kMarch4Seconds + 5 * 3600);
    EXPECT_EQ(SecondsToDate(kMarch4Seconds + 5 * 3600), kMarch4);
}

TEST(DateRules, SecondsAreCutTowardZeroAlsoBefore1970) {
    const CTimeZone zone("UTC0");
    time_t nSeconds = 0;
    EXPECT_TRUE(DateToSeconds(25568.5, nSeconds));
    EXPECT_EQ(nSeconds, -43199);  // -43200 + 0.5, cut
    EXPECT_TRUE(DateToSeconds(25569.0 + 0.6 / 86400, nSeconds));
    EXPECT_EQ(nSeconds, 1);
}

TEST(DateRules, ADateThatCannotBeCountedFails) {
    time_t nSeconds = 77;
    for (double date : {kNaN, kInfinity, -kInfinity, 1e300, -1e300, 1.1e14, -1.1e14})
        EXPECT_FALSE(DateToSeconds(date, nSeconds)) << date;
    EXPECT_EQ(nSeconds, 77);
}

TEST(DateRules, SecondsBecomeADate) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(SecondsToDate(0), 25569.0);
    EXPECT_EQ(SecondsToDate(kMarch4Seconds), kMarch4);
    EXPECT_EQ(SecondsToDate(-43200), 25568.5);
}

TEST(DateRules, SecondsAreCutTo32Bits) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(SecondsToDate(INT32_MAX), INT32_MAX / 86400.0 + 25569.0);
    if (sizeof(time_t) < 8) return;
    const int64_t nAfter = int64_t{INT32_MAX} + 1;
    EXPECT_EQ(SecondsToDate(static_cast<time_t>(nAfter)), INT32_MIN / 86400.0 + 25569.0);
    EXPECT_EQ(SecondsToDate(static_cast<time_t>(nAfter * 2 + 86400)), 25570.0);
}

TEST(DateRules, TheDifferenceIsCutAndNotTheSeconds) {
    const CTimeZone zone(kEast);
    // In range before the zone is taken off, out of range after it.
    const int64_t nCut = int64_t{INT32_MAX} + 8 * 3600 - (int64_t{1} << 32);
    EXPECT_EQ(SecondsToDate(INT32_MAX), static_cast<double>(nCut) / 86400.0 + 25569.0);
}

TEST(DateText, IsLocalTime) {
    for (const char* szZone : {"UTC0", kEast, kWest}) {
        const CTimeZone zone(szZone);
        EXPECT_EQ(Date(kMarch4), "2021-03-04 00:00:00") << szZone;
        EXPECT_EQ(Date(kMarch4 + (7 * 3600 + 8 * 60 + 9) / 86400.0), "2021-03-04 07:08:09");
    }
}

TEST(DateText, FollowsDaylightSaving) {
    const CTimeZone zone(kWest);
    EXPECT_EQ(Date(44378.0), "2021-07-01 01:00:00");  // the date counts in standard time
}

TEST(DateText, ReadsTheTimeZoneFirst) {
    const CTimeZone zone("UTC0");
    setenv("TZ", kEast, 1);  // not known to the C library yet
    EXPECT_EQ(Date(kMarch4), "2021-03-04 00:00:00");
    setenv("TZ", kWest, 1);
    EXPECT_EQ(SecondsToDate(kMarch4Seconds + 5 * 3600), kMarch4);
}

TEST(DateText, IsRoundedToTheSecondAndCutBefore1970) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(kMarch4 + 0.6 / 86400), "2021-03-04 00:00:01");
    EXPECT_EQ(Date(25568.5), "1969-12-31 12:00:01");
}

TEST(DateText, GoesBeyond2038) {
    if (sizeof(time_t) < 8) return;
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(73050.0), "2099-12-31 00:00:00");
    EXPECT_EQ(Date(-36494.0), "1800-01-29 00:00:01");  // cut toward zero
}

TEST(DateText, IsEmptyForADateWithoutLocalTime) {
    for (double date : {kNaN, kInfinity, -kInfinity, 1e300, 1e14, -1e14})
        EXPECT_EQ(Date(date), "") << date;
}

TEST(DateText, FitsForTheFarthestYears) {
    if (sizeof(time_t) < 8) return;
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(784351731011.0).substr(0, 11), "2147484000-");  // beyond an int
}

TEST(TextDate, ReadsAllFields) {
    const CTimeZone zone(kEast);
    EXPECT_EQ(TextToDate("2021-03-04"), kMarch4);
    EXPECT_EQ(TextToDate("2021-3-4 12:00:00"), kMarch4 + 0.5);
    EXPECT_EQ(Date(TextToDate("2021-03-04 07:08:09")), "2021-03-04 07:08:09");
}

TEST(TextDate, MissingFieldsKeepTheirDefaults) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(TextToDate("2021")), "2021-01-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-05")), "2021-05-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-05-06 07")), "2021-05-06 07:00:00");
    EXPECT_EQ(Date(TextToDate("2021-05-06 07:08")), "2021-05-06 07:08:00");
}

TEST(TextDate, EndsAtTheFirstMisfit) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(TextToDate("2021/05/06")), "2021-01-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021 -05")), "2021-01-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-x-06")), "2021-01-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-05-06T07:08")), "2021-05-06 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-05-06 07.08")), "2021-05-06 07:00:00");
}

TEST(TextDate, WhiteSpaceMayStandBeforeNumbers) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(TextToDate(" \t2021- 05- 06\t\n 07: 08: 09")), "2021-05-06 07:08:09");
    EXPECT_EQ(Date(TextToDate("2021-05-06+7:08")), "2021-05-06 07:08:00");
}

TEST(TextDate, WithoutANumberIsZero) {
    EXPECT_EQ(TextToDate("x"), 0.0);
    EXPECT_EQ(TextToDate(""), 0.0);
    EXPECT_EQ(TextToDate("-"), 0.0);
}

TEST(TextDate, FieldsOutOfTheirRangeCarryOver) {
    const CTimeZone zone("UTC0");
    EXPECT_EQ(Date(TextToDate("2021-14-32 25:61:61")), "2022-03-05 02:02:01");
}

TEST(TextDate, IsBrokenDownWithTheZonesDaylightSaving) {
    const CTimeZone zone(kWest);
    EXPECT_DOUBLE_EQ(TextToDate("2021-07-01"), 44378.0 - 1 / 24.0);
    EXPECT_EQ(Date(TextToDate("2021-07-01")), "2021-07-01 00:00:00");
    EXPECT_EQ(Date(TextToDate("2021-12-01")), "2021-12-01 00:00:00");
}

TEST(TextDate, ATimeThatCannotBeCountedIsTheSecondBefore1970) {
    const CTimeZone zone("UTC0");
    const DATE before = -1 / 86400.0 + 25569.0;
    EXPECT_EQ(TextToDate("-2147483648"), before);
    EXPECT_EQ(TextToDate("-99999999999999999999"), before);
    EXPECT_EQ(TextToDate("2021--2147483648"), before);
}

TEST(TextDate, HugeFieldsAreHarmless) {
    const CTimeZone zone("UTC0");
    const char kHuge[] = "2147483647-2147483647-2147483647 2147483647:2147483647:2147483647";
    const DATE date = TextToDate(kHuge);
    EXPECT_GE(date, INT32_MIN / 86400.0 + 25569.0);
    EXPECT_LE(date, INT32_MAX / 86400.0 + 25569.0);
    EXPECT_EQ(TextToDate("99999999999999999999"), TextToDate("2147483647"));
}

TEST(DateTemplate, TakesPaddedFields) {
    EXPECT_EQ(Filled("$Y/$2M/$2D $2h:$2m:$2s"), "2024/03/05 07:08:09");
}

TEST(DateTemplate, TakesShortFields) {
    EXPECT_EQ(Filled("$Y-$M-$D $h:$m:$s"), "2024-3-5 7:8:9");
    EXPECT_EQ(Filled("$M"), "3");
    EXPECT_EQ(Filled("$m"), "8");
}

TEST(DateTemplate, ThePaddedYearIsTheFullYear) {
    EXPECT_EQ(Filled("$2Y"), "2024");
    EXPECT_EQ(Filled("$2Y", 5), " 5");
    EXPECT_EQ(Filled("$Y", 5), "5");
}

TEST(DateTemplate, ReplacesEveryOccurrence) { EXPECT_EQ(Filled("$s$s $2D$2D"), "99 0505"); }

TEST(DateTemplate, PaddedTokensStayWhereTheShortOneOccurs) {
    EXPECT_EQ(Filled("$M $2M"), "3 $2M");
    EXPECT_EQ(Filled("$Y $2Y"), "2024 $2Y");
}

TEST(DateTemplate, LeavesOtherTextAlone) {
    EXPECT_EQ(Filled("$y$d$H$S %d $"), "$y$d$H$S %d $");
    EXPECT_EQ(Filled(""), "");
}

TEST(DateTemplate, FieldsAreReplacedInOrder) {
    // Replaced years are part of what the search for months sees.
    EXPECT_EQ(Filled("$$Y", -1), "$-1");
    EXPECT_EQ(Filled("$$YM", 2), "03");
}

TEST(DateTemplate, TakesEveryInt) {
    EXPECT_EQ(Filled("$2Y$2s", INT32_MIN, 0, 0, 0, 0, INT32_MAX), "-21474836482147483647");
}

TEST(DateTemplate, MayBeFilledInPlace) {
    CString str("$Y");
    DateToStr(2024, 1, 1, 0, 0, 0, str, str);
    EXPECT_EQ(str, "2024");
}

}  // namespace
