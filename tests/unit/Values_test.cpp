// Values as scripts of vzclient see them, and as its writes send them.
#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "WireBytes.h"
#include "vzclient/Values.h"

namespace {

// In the zone of Shanghai, which is eight hours ahead and has no summer time, unless told another.
class Values : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* szZone = std::getenv("TZ");
        m_bZone = szZone != nullptr;
        if (szZone) m_strZone = szZone;
        SetZone("CST-8");
        ASSERT_TRUE(LoadDateTimes());
    }
    void TearDown() override {
        if (m_bZone) {
            setenv("TZ", m_strZone.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        Renew();
        EXPECT_EQ(TakeError(), "");
    }
    static void SetZone(const char* szZone) {
        setenv("TZ", szZone, 1);
        Renew();
    }
    static void Renew() {
        tzset();
        RunScript("import time\ntime.tzset()\n");
    }

    // repr of the object that a value with its type code becomes, and both ways to it agree.
    static std::string Seen(const std::string& strBytes) {
        const std::vector<BYTE> bytes(strBytes.begin(), strBytes.end());
        XVariant value;
        value.FromBuffer(bytes.data(), bytes.size(), true);
        const std::string strSeen = ReprOf(ValueToPy(value));
        CByteReader reader(bytes.data(), bytes.size());
        EXPECT_EQ(ReprOf(TakeValue(reader)), strSeen);
        EXPECT_EQ(reader.Left(), 0u);
        return strSeen;
    }
    static std::string SeenDate(double fDays) {
        XVariant value(fDays, VT_DATE);
        CPyRef obj(ValueToPy(value));
        if (!obj) return TakeError();
        CPyRef str(PyObject_Str(obj));
        return PyUnicode_AsUTF8(str);
    }
    // What is sent for an expression's value to a tag of type vt; "! " and why not, or the error.
    static std::string Sent(VARTYPE vt, const std::string& strExpression) {
        CPyRef obj(Eval(strExpression));
        std::string strBytes = "kept";
        const char* szWhy = nullptr;
        const bool bDone = EncodeFor(vt, obj, strBytes, szWhy);
        EXPECT_EQ(strBytes.substr(0, 4), "kept");
        strBytes.erase(0, 4);
        const std::string strError = TakeError();
        EXPECT_EQ(bDone, !szWhy && strError.empty());
        if (bDone) return strBytes;
        EXPECT_EQ(strBytes, "");
        return "! " + (szWhy ? std::string(szWhy) : strError);
    }

  private:
    bool m_bZone = false;
    std::string m_strZone;
};

const std::string kRange = "! out of the tag's range";
const std::string kWhole = "! the tag holds whole numbers";
const std::string kInexact = "! too large to be sent exactly";

// ---- To scripts ---------------------------------------------------------------------------------

TEST_F(Values, SignedWholeNumbersAreInts) {
    EXPECT_EQ(Seen(Hex("02 00 FE FF")), "-2");
    EXPECT_EQ(Seen(Hex("03 00 02 01 00 00")), "258");
    EXPECT_EQ(Seen(Hex("03 00 00 00 00 80")), "-2147483648");
    EXPECT_EQ(Seen(Hex("16 00 FF FF FF 7F")), "2147483647");
    EXPECT_EQ(Seen(Hex("10 00 80")), "-128");
    EXPECT_EQ(Seen(Hex("10 00 7F")), "127");
    EXPECT_EQ(Seen(Hex("14 00 00 00 00 00 00 00 00 80")), "-9223372036854775808");
    EXPECT_EQ(Seen(Hex("14 00 FF FF FF FF FF FF FF 7F")), "9223372036854775807");
}

TEST_F(Values, UnsignedWholeNumbersAreInts) {
    EXPECT_EQ(Seen(Hex("11 00 C8")), "200");
    EXPECT_EQ(Seen(Hex("12 00 FF FF")), "65535");
    EXPECT_EQ(Seen(Hex("13 00 FF FF FF FF")), "4294967295");
    EXPECT_EQ(Seen(Hex("17 00 00 00 00 80")), "2147483648");
}

TEST_F(Values, RealsAreFloats) {
    EXPECT_EQ(Seen(Hex("04 00 00 00 08 41")), "8.5");
    EXPECT_EQ(Seen(Hex("05 00 00 00 00 00 00 00 04 40")), "2.5");
    EXPECT_EQ(Seen(Hex("05 00 00 00 00 00 00 00 F8 7F")), "nan");
    EXPECT_EQ(Seen(Hex("04 00 00 00 80 FF")), "-inf");
}

TEST_F(Values, EveryByteButZeroIsTrue) {
    EXPECT_EQ(Seen(Hex("0B 00 00")), "False");
    EXPECT_EQ(Seen(Hex("0B 00 01")), "True");
    EXPECT_EQ(Seen(Hex("0B 00 80")), "True");
}

TEST_F(Values, TypesWithoutAValueAreNone) {
    for (const unsigned nType : {0u, 1u, 6u, 9u, 10u, 12u, 13u, 14u, 15u, 21u, 24u, 255u, 0xFFFFu})
        EXPECT_EQ(Seen(U16(nType)), "None") << nType;
}

TEST_F(Values, ArrayIsItsTypeCodeAloneAndNone) {
    const std::vector<BYTE> bytes = {0x00, 0x20, 0x0B, 0x00, 0x01};
    CByteReader reader(bytes.data(), bytes.size());
    EXPECT_EQ(ReprOf(TakeValue(reader)), "None");
    EXPECT_EQ(ReprOf(TakeValue(reader)), "True");
    EXPECT_EQ(reader.Left(), 0u);
}

TEST_F(Values, TextIsUtf8OrElseGb2312OrElseReplaced) {
    EXPECT_EQ(Seen(Hex("08 00 41 42 00")), "'AB'");
    EXPECT_EQ(Seen(Hex("08 00 00")), "''");
    EXPECT_EQ(Seen(Hex("08 00 E6 B0 B4 00")), "'\xE6\xB0\xB4'");
    EXPECT_EQ(Seen(Hex("08 00 D6 D0 00")), "'\xE4\xB8\xAD'");
    EXPECT_EQ(Seen(Hex("08 00 41 FF 00")), "'A\xEF\xBF\xBD'");
    EXPECT_EQ(Seen(Hex("08 00 E6 B0 B4 E6 B0 00")), "'\xE6\xB0\xB4\xEF\xBF\xBD'")
        << "cut in a character";
}

TEST_F(Values, ValueWithoutATextIsTheEmptyOne) {
    XVariant value;
    value.vt = VT_STR;
    EXPECT_EQ(ReprOf(ValueToPy(value)), "''");
}

TEST_F(Values, ValuesAreTakenOneAfterTheOther) {
    const std::string str = Hex("03 00 2A 00 00 00") + Hex("08 00 41 42 00") + Hex("00 00");
    const std::vector<BYTE> bytes(str.begin(), str.end());
    CByteReader reader(bytes.data(), bytes.size());
    EXPECT_EQ(ReprOf(TakeValue(reader)), "42");
    EXPECT_EQ(ReprOf(TakeValue(reader)), "'AB'");
    EXPECT_EQ(ReprOf(TakeValue(reader)), "None");
    EXPECT_EQ(reader.Left(), 0u);
}

// ---- Dates --------------------------------------------------------------------------------------

TEST_F(Values, DateIsLocalTime) {
    EXPECT_EQ(SeenDate(25569), "1970-01-01 00:00:00+08:00");
    EXPECT_EQ(SeenDate(0), "1899-12-30 00:00:00+08:00");
    EXPECT_EQ(SeenDate(-1.25), "1899-12-28 18:00:00+08:00");
    EXPECT_EQ(Seen(Hex("07 00 AB AA AA AA AC 2E E6 40")),
              "datetime.datetime(2024, 5, 17, 9, 30, "
              "tzinfo=datetime.timezone(datetime.timedelta(seconds=28800)))");
}

TEST_F(Values, DateIsRoundedToTheMillisecond) {
    EXPECT_EQ(SeenDate(45000.5 + 0.0014 / 86400), "2023-03-15 12:00:00.001000+08:00");
    EXPECT_EQ(SeenDate(25568 + 0.9996 / 86400), "1969-12-31 00:00:01+08:00");
    EXPECT_EQ(SeenDate(25568 + 0.25 / 86400), "1969-12-31 00:00:00.250000+08:00");
}

TEST_F(Values, FirstAndLastDateAreDatetimesAndOthersFloats) {
    EXPECT_EQ(SeenDate(-657434), "0100-01-01 00:00:00+08:00");
    EXPECT_EQ(SeenDate(-657434.5), "-657434.5");
    EXPECT_EQ(SeenDate(2958465.5), "9999-12-31 12:00:00+08:00");
    EXPECT_EQ(SeenDate(2958466), "2958466.0");
    EXPECT_EQ(SeenDate(1e300), "1e+300");
    EXPECT_EQ(SeenDate(std::nan("")), "nan");
}

TEST_F(Values, DateThatRoundsUpToNoDatetimeIsAFloat) {
    EXPECT_EQ(SeenDate(2958466 - 0.001 / 86400), "9999-12-31 23:59:59.999000+08:00");
    EXPECT_EQ(SeenDate(std::nextafter(2958466.0, 0)), "2958465.9999999995");
}

TEST_F(Values, DateHasTheOffsetOfItsOwnTime) {
    SetZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(SeenDate(45306.5), "2024-01-15 12:00:00+01:00");
    EXPECT_EQ(SeenDate(45488.5), "2024-07-15 12:00:00+02:00");
}

TEST_F(Values, TimeIsLocalToTheMicrosecond) {
    CPyRef time(TimeToPy(1700000000123456));
    CPyRef str(PyObject_Str(time));
    EXPECT_STREQ(PyUnicode_AsUTF8(str), "2023-11-15 06:13:20.123456+08:00");
}

// ---- From scripts: whole numbers ----------------------------------------------------------------

struct SWholeType {
    VARTYPE vt;
    const char* szMin;
    const char* szMax;
    std::string strMin;
    std::string strMax;
};

TEST_F(Values, WholeNumbersAreTakenUpToBothEndsOfTheirRange) {
    const std::vector<SWholeType> types = {
        {VT_I1, "-128", "127", Hex("03 00 80 FF FF FF"), Hex("03 00 7F 00 00 00")},
        {VT_UI1, "0", "255", Hex("03 00 00 00 00 00"), Hex("03 00 FF 00 00 00")},
        {VT_I2, "-32768", "32767", Hex("03 00 00 80 FF FF"), Hex("03 00 FF 7F 00 00")},
        {VT_UI2, "0", "65535", Hex("03 00 00 00 00 00"), Hex("03 00 FF FF 00 00")},
        {VT_I4, "-2**31", "2**31-1", Hex("03 00 00 00 00 80"), Hex("03 00 FF FF FF 7F")},
        {VT_INT, "-2**31", "2**31-1", Hex("03 00 00 00 00 80"), Hex("03 00 FF FF FF 7F")},
        {VT_UI4, "0", "2**32-1", Hex("03 00 00 00 00 00"), Hex("05 00 00 00 E0 FF FF FF EF 41")},
        {VT_UINT, "0", "2**32-1", Hex("03 00 00 00 00 00"), Hex("05 00 00 00 E0 FF FF FF EF 41")},
    };
    for (const SWholeType& type : types) {
        const std::string strMin = type.szMin;
        const std::string strMax = type.szMax;
        EXPECT_EQ(Sent(type.vt, strMin), type.strMin) << type.vt;
        EXPECT_EQ(Sent(type.vt, strMax), type.strMax) << type.vt;
        EXPECT_EQ(Sent(type.vt, strMin + "-1"), kRange) << type.vt;
        EXPECT_EQ(Sent(type.vt, strMax + "+1"), kRange) << type.vt;
        EXPECT_EQ(Sent(type.vt, "float(" + strMin + ")"), type.strMin) << type.vt;
        EXPECT_EQ(Sent(type.vt, "float(" + strMax + "+1)"), kRange) << type.vt;
        EXPECT_EQ(Sent(type.vt, "2**64"), kRange) << type.vt;
        EXPECT_EQ(Sent(type.vt, "True"), Hex("03 00 01 00 00 00")) << type.vt;
        EXPECT_EQ(Sent(type.vt, "0.5"), kWhole) << type.vt;
        EXPECT_EQ(Sent(type.vt, "'1'"), kWhole) << type.vt;
        EXPECT_EQ(Sent(type.vt, "None"), kWhole) << type.vt;
        EXPECT_EQ(Sent(type.vt, "float('nan')"), kRange) << type.vt;
        EXPECT_EQ(Sent(type.vt, "float('inf')"), kRange) << type.vt;
    }
}

TEST_F(Values, SixtyFourBitsAreSentAsARealWhenThatIsExact) {
    EXPECT_EQ(Sent(VT_I8, "2**31-1"), Hex("03 00 FF FF FF 7F"));
    EXPECT_EQ(Sent(VT_I8, "2**31"), Hex("05 00 00 00 00 00 00 00 E0 41"));
    EXPECT_EQ(Sent(VT_I8, "-2**31-1"), Hex("05 00 00 00 20 00 00 00 E0 C1"));
    EXPECT_EQ(Sent(VT_I8, "2**53"), Hex("05 00 00 00 00 00 00 00 40 43"));
    EXPECT_EQ(Sent(VT_I8, "2**53+1"), kInexact);
    EXPECT_EQ(Sent(VT_I8, "2**53+2"), Hex("05 00 01 00 00 00 00 00 40 43"));
    EXPECT_EQ(Sent(VT_I8, "-2**63"), Hex("05 00 00 00 00 00 00 00 E0 C3"));
    EXPECT_EQ(Sent(VT_I8, "2**63-1"), kInexact);
    EXPECT_EQ(Sent(VT_I8, "2**63"), kRange);
    EXPECT_EQ(Sent(VT_I8, "-2**63-1"), kRange);
    EXPECT_EQ(Sent(VT_I8, "-2.0**63"), Hex("05 00 00 00 00 00 00 00 E0 C3"));
    EXPECT_EQ(Sent(VT_I8, "2.0**63"), kRange);
}

TEST_F(Values, ObjectWithAnIndexIsAWholeNumber) {
    RunScript(
        "class Index:\n    def __index__(self): return 258\n"
        "class Broken:\n    def __index__(self): raise KeyError('x')\n");
    EXPECT_EQ(Sent(VT_I4, "Index()"), Hex("03 00 02 01 00 00"));
    EXPECT_EQ(Sent(VT_R8, "Index()"), Hex("05 00 00 00 00 00 00 20 70 40"));
    EXPECT_EQ(Sent(VT_EMPTY, "Index()"), Hex("03 00 02 01 00 00"));
    for (const VARTYPE vt : {VT_I4, VT_R8, VT_BOOL, VT_EMPTY})
        EXPECT_EQ(Sent(vt, "Broken()"), "! KeyError") << vt;
}

TEST_F(Values, BooleanTakesTruthsZeroAndOne) {
    EXPECT_EQ(Sent(VT_BOOL, "True"), Hex("0B 00 01"));
    EXPECT_EQ(Sent(VT_BOOL, "False"), Hex("0B 00 00"));
    EXPECT_EQ(Sent(VT_BOOL, "1"), Hex("0B 00 01"));
    EXPECT_EQ(Sent(VT_BOOL, "0.0"), Hex("0B 00 00"));
    EXPECT_EQ(Sent(VT_BOOL, "2"), kRange);
    EXPECT_EQ(Sent(VT_BOOL, "-1"), kRange);
    EXPECT_EQ(Sent(VT_BOOL, "'on'"), kWhole);
}

// ---- From scripts: reals ------------------------------------------------------------------------

TEST_F(Values, RealsAreSentAsTheyAre) {
    for (const VARTYPE vt : {VT_R4, VT_R8}) {
        EXPECT_EQ(Sent(vt, "2.5"), Hex("05 00 00 00 00 00 00 00 04 40"));
        EXPECT_EQ(Sent(vt, "-3"), Hex("05 00 00 00 00 00 00 00 08 C0"));
        EXPECT_EQ(Sent(vt, "True"), Hex("05 00 00 00 00 00 00 00 F0 3F"));
        EXPECT_EQ(Sent(vt, "float('inf')"), Hex("05 00 00 00 00 00 00 00 F0 7F"));
        EXPECT_EQ(Sent(vt, "float('nan')"), Hex("05 00 00 00 00 00 00 00 F8 7F"));
        EXPECT_EQ(Sent(vt, "2**70"), Hex("05 00 00 00 00 00 00 00 50 44"));
        EXPECT_EQ(Sent(vt, "-2**70"), Hex("05 00 00 00 00 00 00 00 50 C4"));
        EXPECT_EQ(Sent(vt, "2**70+1"), kInexact);
        EXPECT_EQ(Sent(vt, "-2**70-1"), kInexact);
        EXPECT_EQ(Sent(vt, "2**1024"), kRange);
        EXPECT_EQ(Sent(vt, "-2**1024"), kRange);
        EXPECT_EQ(Sent(vt, "10**400"), kRange);
        EXPECT_EQ(Sent(vt, "'2.5'"), "! the tag holds numbers");
    }
}

TEST_F(Values, WholeNumberOfARealTagIsSentWhenTheTagHoldsItExactly) {
    EXPECT_EQ(Sent(VT_R8, "2**53"), Hex("05 00 00 00 00 00 00 00 40 43"));
    EXPECT_EQ(Sent(VT_R8, "-2**53"), Hex("05 00 00 00 00 00 00 00 40 C3"));
    EXPECT_EQ(Sent(VT_R8, "2**53+1"), kInexact);
    EXPECT_EQ(Sent(VT_R8, "-2**53-1"), kInexact);
    EXPECT_EQ(Sent(VT_R8, "2**53+2"), Hex("05 00 01 00 00 00 00 00 40 43"));
    EXPECT_EQ(Sent(VT_R8, "2**63"), Hex("05 00 00 00 00 00 00 00 E0 43"));
    EXPECT_EQ(Sent(VT_R8, "2**63-1"), kInexact);
    EXPECT_EQ(Sent(VT_R8, "2**1023"), Hex("05 00 00 00 00 00 00 00 E0 7F"));
    EXPECT_EQ(Sent(VT_R8, "-2**1023"), Hex("05 00 00 00 00 00 00 00 E0 FF"));
    EXPECT_EQ(Sent(VT_R8, "2**1024-2**971"), Hex("05 00 FF FF FF FF FF FF EF 7F"));
    EXPECT_EQ(Sent(VT_R8, "2**1024-2**971+1"), kInexact);
}

TEST_F(Values, WholeNumberOfAShortRealTagIsSentWhenTheTagHoldsItExactly) {
    const std::string kUnheld = "! too large for the tag to hold exactly";
    EXPECT_EQ(Sent(VT_R4, "2**24"), Hex("05 00 00 00 00 00 00 00 70 41"));
    EXPECT_EQ(Sent(VT_R4, "-2**24"), Hex("05 00 00 00 00 00 00 00 70 C1"));
    EXPECT_EQ(Sent(VT_R4, "2**24+1"), kUnheld);
    EXPECT_EQ(Sent(VT_R4, "-2**24-1"), kUnheld);
    EXPECT_EQ(Sent(VT_R4, "2**24+2"), Hex("05 00 00 00 00 20 00 00 70 41"));
    EXPECT_EQ(Sent(VT_R4, "2**24+1.0"), Hex("05 00 00 00 00 10 00 00 70 41"));
    EXPECT_EQ(Sent(VT_R4, "2**127"), Hex("05 00 00 00 00 00 00 00 E0 47"));
    EXPECT_EQ(Sent(VT_R4, "-2**127"), Hex("05 00 00 00 00 00 00 00 E0 C7"));
    EXPECT_EQ(Sent(VT_R4, "2**128-2**104"), Hex("05 00 00 00 00 E0 FF FF EF 47"));
    EXPECT_EQ(Sent(VT_R4, "2**128-2**104+2**80"), kRange);
    EXPECT_EQ(Sent(VT_R4, "2**128"), kRange);
    EXPECT_EQ(Sent(VT_R4, "-2**128"), kRange);
}

TEST_F(Values, ComparisonsOfAnIntsOwnClassAreNotAsked) {
    RunScript(
        "class Liar(int):\n"
        "    def __eq__(self, other): raise KeyError('x')\n"
        "    __hash__ = int.__hash__\n"
        "    def __float__(self): return 1.5\n");
    EXPECT_EQ(Sent(VT_R8, "Liar(2**70)"), Hex("05 00 00 00 00 00 00 00 50 44"));
    EXPECT_EQ(Sent(VT_R8, "Liar(2**70+1)"), kInexact);
}

TEST_F(Values, ShortRealTakesWhatItCanHold) {
    EXPECT_EQ(Sent(VT_R4, "3.4028234663852886e38"), Hex("05 00 00 00 00 E0 FF FF EF 47"));
    EXPECT_EQ(Sent(VT_R4, "3.4028234663852890e38"), kRange);
    EXPECT_EQ(Sent(VT_R4, "-3.4028234663852890e38"), kRange);
    EXPECT_EQ(Sent(VT_R8, "3.4028234663852890e38").size(), 10u);
}

// ---- From scripts: texts ------------------------------------------------------------------------

TEST_F(Values, TextIsSentAsUtf8WithItsZeroByte) {
    EXPECT_EQ(Sent(VT_STR, "'AB'"), Hex("08 00 41 42 00"));
    EXPECT_EQ(Sent(VT_STR, "''"), Hex("08 00 00"));
    EXPECT_EQ(Sent(VT_STR, "'\xE6\xB0\xB4'"), Hex("08 00 E6 B0 B4 00"));
}

TEST_F(Values, TextThatCannotBeSentIsRefused) {
    EXPECT_EQ(Sent(VT_STR, "5"), "! the tag holds text");
    EXPECT_EQ(Sent(VT_STR, "b'x'"), "! the tag holds text");
    EXPECT_EQ(Sent(VT_STR, "'a\\0b'"), "! a text ends at its first zero");
    EXPECT_EQ(Sent(VT_STR, "'\\ud800'"), "! the text has no UTF-8 form");
}

TEST_F(Values, LongestTextFillsARequestAndOneMoreByteIsRefused) {
    EXPECT_EQ(Sent(VT_STR, "'x' * 2038"), Hex("08 00") + Z(std::string(2038, 'x')));
    EXPECT_EQ(Sent(VT_STR, "'x' * 2039"), "! the text is longer than a request");
    EXPECT_EQ(Sent(VT_STR, "'\xE6\xB0\xB4' * 679 + 'x'").size(), 2041u);
    EXPECT_EQ(Sent(VT_STR, "'\xE6\xB0\xB4' * 680"), "! the text is longer than a request");
}

// ---- From scripts: dates ------------------------------------------------------------------------

TEST_F(Values, DatetimeIsSentAsDaysOfLocalTime) {
    EXPECT_EQ(Sent(VT_DATE, "datetime.datetime(2024, 5, 17, 9, 30)"),
              Hex("05 00 AB AA AA AA AC 2E E6 40"));
    EXPECT_EQ(Sent(VT_DATE, "datetime.datetime(1970, 1, 1)"), Hex("05 00 00 00 00 00 40 F8 D8 40"));
    EXPECT_EQ(Sent(VT_DATE, "datetime.datetime(1899, 12, 28, 18)"),
              Hex("05 00 00 00 00 00 00 00 F4 BF"));
    EXPECT_EQ(Sent(VT_DATE, "datetime.datetime(2024, 5, 17, 1, 30, tzinfo=datetime.timezone.utc)"),
              Hex("05 00 AB AA AA AA AC 2E E6 40"));
}

TEST_F(Values, DatetimesComeBackAsTheyWereSent) {
    for (const char* sz : {"0100-01-01 00:00:00+08:00", "1600-02-29 23:59:59.999000+08:00",
                           "2000-02-29 12:00:00+08:00", "2100-03-01 00:00:00.001000+08:00",
                           "9999-12-31 23:59:59+08:00"}) {
        const std::string strSent =
            Sent(VT_DATE, std::string("datetime.datetime.fromisoformat('") + sz + "')");
        ASSERT_EQ(strSent.size(), 10u);
        double fDays;
        std::memcpy(&fDays, strSent.data() + 2, sizeof fDays);
        EXPECT_EQ(SeenDate(fDays), sz);
    }
}

TEST_F(Values, OtherObjectsAreNoDates) {
    for (const char* sz : {"45429.4", "datetime.date(2024, 5, 17)", "'2024-05-17'"})
        EXPECT_EQ(Sent(VT_DATE, sz), "! the tag holds a datetime") << sz;
}

TEST_F(Values, DatetimeWithoutLocalTimeIsRejected) {
    EXPECT_EQ(Sent(VT_DATE,
                   "datetime.datetime(1, 1, 1, tzinfo="
                   "datetime.timezone(datetime.timedelta(hours=23)))"),
              "! no local time of that moment can be told");
}

// ---- From scripts: tags of other types ----------------------------------------------------------

TEST_F(Values, ObjectsTypeChoosesForATagWithoutOne) {
    for (const VARTYPE vt : {VT_EMPTY, VT_NULL}) {
        EXPECT_EQ(Sent(vt, "True"), Hex("0B 00 01"));
        EXPECT_EQ(Sent(vt, "'AB'"), Hex("08 00 41 42 00"));
        EXPECT_EQ(Sent(vt, "2.0"), Hex("05 00 00 00 00 00 00 00 00 40"));
        EXPECT_EQ(Sent(vt, "258"), Hex("03 00 02 01 00 00"));
        EXPECT_EQ(Sent(vt, "2**31"), Hex("05 00 00 00 00 00 00 00 E0 41"));
        EXPECT_EQ(Sent(vt, "2**53+1"), kInexact);
        EXPECT_EQ(Sent(vt, "datetime.datetime(1970, 1, 1)"), Hex("05 00 00 00 00 00 40 F8 D8 40"));
        EXPECT_EQ(Sent(vt, "None"), "! values are numbers, texts, bools and datetimes");
    }
}

TEST_F(Values, TagsOfOtherTypesAreNotWritten) {
    for (const unsigned nType : {6u, 9u, 12u, 21u, 24u, 8192u, 8204u, 0xFFFFu})
        EXPECT_EQ(Sent(static_cast<VARTYPE>(nType), "1"), "! tags of this type cannot be written");
}

}  // namespace
