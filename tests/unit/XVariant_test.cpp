#include "nonwin/XVariant.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "nonwin/VariantPub.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VZ_UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VZ_UNDER_SANITIZER 1
#endif
#endif
#ifndef VZ_UNDER_SANITIZER
#define VZ_UNDER_SANITIZER 0
#endif

namespace {

using Codes = std::initializer_list<VARTYPE>;

constexpr int64_t kPattern = 0x1122334455667788;
constexpr VARTYPE kUnknownCodes[] = {6, 9, 10, 12, 13, 14, 15, 21, 24, 100, 8192, 8204, 65535};

// A value of any code with all 8 payload bytes set.
XVariant Raw(VARTYPE vt, int64_t nPayload = kPattern) {
    XVariant value;
    if (vt == VT_STR) {
        value.pStrVal = new CString("text");
    } else {
        value.llVal = nPayload;
    }
    value.vt = vt;
    return value;
}

XVariant Text(const std::string& str) {
    XVariant value("");
    value.pStrVal->assign(str);
    return value;
}

// The payload of a copy of a value with all payload bytes set.
int64_t CopiedPayload(VARTYPE vt) {
    const XVariant source = Raw(vt);
    return XVariant(source).llVal;
}

XVariant Int8(int n) { return XVariant(static_cast<char>(n)); }
XVariant Date(DATE date) { return XVariant(date, VT_DATE); }

XVariant NullText() {
    XVariant value;
    value.vt = VT_STR;
    return value;
}

std::string ToText(const XVariant& value, int nPointBit = -1) {
    CString str("stale");
    EXPECT_TRUE(value.ToStringA(str, nPointBit));
    return str;
}

TEST(XVariantLayout, IsATypeCodeAnd8PayloadBytes) {
    static_assert(offsetof(XVariant, vt) == 0 && sizeof(XVariant::vt) == 2);
    static_assert(offsetof(XVariant, pStrVal) == 8);
    static_assert(offsetof(XVariant, boolVal) == 8 && sizeof(XVariant::boolVal) == 1);
    static_assert(offsetof(XVariant, cVal) == 8 && offsetof(XVariant, bVal) == 8);
    static_assert(sizeof(XVariant::iVal) == 2 && sizeof(XVariant::uiVal) == 2);
    static_assert(sizeof(XVariant::lVal) == 4 && sizeof(XVariant::ulVal) == 4);
    static_assert(sizeof(XVariant::intVal) == 4 && sizeof(XVariant::uintVal) == 4);
    static_assert(sizeof(XVariant::fltVal) == 4 && sizeof(XVariant::dblVal) == 8);
    static_assert(sizeof(XVariant::date) == 8 && sizeof(XVariant::llVal) == 8);
    static_assert(sizeof(XVariant) == 16 && alignof(XVariant) == 8);
}

TEST(XVariant, StartsEmptyWithAZeroPayload) {
    const XVariant value;
    EXPECT_EQ(value.vt, VT_EMPTY);
    EXPECT_EQ(value.llVal, 0);
}

TEST(XVariant, TypedConstructorsSetCodeAndPayload) {
    EXPECT_EQ(XVariant("ab").vt, VT_STR);
    EXPECT_EQ(*XVariant("ab").pStrVal, "ab");
    EXPECT_EQ(XVariant(true).vt, VT_BOOL);
    EXPECT_EQ(XVariant(true).bVal, 1);
    EXPECT_EQ(XVariant('\xFF').vt, VT_I1);
    EXPECT_EQ(XVariant('\xFF').cVal, '\xFF');
    EXPECT_EQ(XVariant(BYTE{200}).vt, VT_UI1);
    EXPECT_EQ(XVariant(BYTE{200}).bVal, 200);
    EXPECT_EQ(XVariant(short{-2}).vt, VT_I2);
    EXPECT_EQ(XVariant(short{-2}).iVal, -2);
    EXPECT_EQ(XVariant(USHORT{65535}).vt, VT_UI2);
    EXPECT_EQ(XVariant(USHORT{65535}).uiVal, 65535);
    EXPECT_EQ(XVariant(-3).vt, VT_I4);
    EXPECT_EQ(XVariant(-3).lVal, -3);
    EXPECT_EQ(XVariant(-4L).vt, VT_I4);
    EXPECT_EQ(XVariant(-4L).lVal, -4);
    EXPECT_EQ(XVariant(UINT{4000000000}).vt, VT_UI4);
    EXPECT_EQ(XVariant(UINT{4000000000}).ulVal, 4000000000u);
    EXPECT_EQ(XVariant(ULONG{4000000001}).vt, VT_UI4);
    EXPECT_EQ(XVariant(ULONG{4000000001}).ulVal, 4000000001u);
    EXPECT_EQ(XVariant(2.5f).vt, VT_R4);
    EXPECT_EQ(XVariant(2.5f).fltVal, 2.5f);
    EXPECT_EQ(XVariant(2.5).vt, VT_R8);
    EXPECT_EQ(XVariant(2.5).dblVal, 2.5);
    EXPECT_EQ(XVariant(2.5, VT_DATE).vt, VT_DATE);
    EXPECT_EQ(XVariant(2.5, VT_DATE).date, 2.5);
    EXPECT_EQ(XVariant(-5LL).vt, VT_I8);
    EXPECT_EQ(XVariant(-5LL).llVal, -5);
}

TEST(XVariant, TypedConstructorsLeaveTheRestOfThePayloadZero) {
    EXPECT_EQ(XVariant(true).llVal, 1);
    EXPECT_EQ(XVariant(BYTE{200}).llVal, 200);
    EXPECT_EQ(XVariant(USHORT{65535}).llVal, 65535);
    EXPECT_EQ(XVariant(UINT{4000000000}).llVal, 4000000000);
}

TEST(XVariant, ADoubleNeverBecomesAPointer) {
    EXPECT_EQ(XVariant(2.5, VT_STR).vt, VT_R8);
    EXPECT_EQ(XVariant(2.5, VT_STR).dblVal, 2.5);
}

TEST(XVariant, ANullTextPointerGivesTheEmptyText) {
    const XVariant value(static_cast<LPCSTR>(nullptr));
    EXPECT_EQ(value.vt, VT_STR);
    EXPECT_EQ(*value.pStrVal, "");
}

TEST(XVariant, TypedAssignmentsReplaceCodeAndPayload) {
    XVariant value("former text");
    value = true;
    EXPECT_TRUE(value == XVariant(true));
    value = 'c';
    EXPECT_TRUE(value == XVariant('c'));
    value = BYTE{200};
    EXPECT_TRUE(value == XVariant(BYTE{200}));
    value = short{-2};
    EXPECT_TRUE(value == XVariant(short{-2}));
    value = USHORT{65535};
    EXPECT_TRUE(value == XVariant(USHORT{65535}));
    value = -3;
    EXPECT_TRUE(value == XVariant(-3));
    value = -4L;
    EXPECT_TRUE(value == XVariant(-4L));
    value = UINT{4000000000};
    EXPECT_TRUE(value == XVariant(UINT{4000000000}));
    value = ULONG{4000000001};
    EXPECT_TRUE(value == XVariant(ULONG{4000000001}));
    value = 2.5f;
    EXPECT_TRUE(value == XVariant(2.5f));
    value = 2.5;
    EXPECT_TRUE(value == XVariant(2.5));
    value = -5LL;
    EXPECT_TRUE(value == XVariant(-5LL));
    value = "new text";
    EXPECT_TRUE(value == XVariant("new text"));
}

TEST(XVariant, TakesItsOwnTextInAnAssignment) {
    XVariant value("text");
    value = value.pStrVal->c_str() + 1;
    EXPECT_EQ(*value.pStrVal, "ext");
}

TEST(XVariant, CopyConstructionTakesThePayloadWidthOfTheCode) {
    for (VARTYPE vt : Codes{2, 18}) EXPECT_EQ(CopiedPayload(vt), 0x7788) << vt;
    for (VARTYPE vt : Codes{3, 4, 19, 22, 23}) EXPECT_EQ(CopiedPayload(vt), 0x55667788) << vt;
    for (VARTYPE vt : Codes{11, 16, 17}) EXPECT_EQ(CopiedPayload(vt), 0x88) << vt;
    for (VARTYPE vt : Codes{0, 1, 5, 7, 20}) EXPECT_EQ(CopiedPayload(vt), kPattern) << vt;
}

TEST(XVariant, CopyConstructionKeepsThePayloadOfUnknownCodes) {
    for (VARTYPE vt : kUnknownCodes) {
        const XVariant source = Raw(vt);
        const XVariant copy(source);
        EXPECT_EQ(copy.vt, vt);
        EXPECT_EQ(copy.llVal, kPattern) << vt;
    }
}

TEST(XVariant, WholeCopyTakesEveryPayloadByteAndATextOfItsOwn) {
    for (VARTYPE vt : Codes{0, 2, 3, 5, 11, 17, 6, 21}) {
        XVariant copy;
        copy.CopyWhole(Raw(vt));
        EXPECT_EQ(copy.vt, vt);
        EXPECT_EQ(copy.llVal, kPattern) << vt;
    }
    const XVariant source("text");
    XVariant copy;
    copy.CopyWhole(source);
    EXPECT_EQ(copy.vt, VT_STR);
    EXPECT_EQ(*copy.pStrVal, "text");
    EXPECT_NE(copy.pStrVal, source.pStrVal);
}

TEST(XVariant, AssignmentTakesThePayloadWidthOfTheCode) {
    XVariant value;
    for (VARTYPE vt : Codes{2, 18}) EXPECT_EQ((value = Raw(vt)).llVal, 0x7788) << vt;
    for (VARTYPE vt : Codes{3, 4, 19, 22, 23}) EXPECT_EQ((value = Raw(vt)).llVal, 0x55667788) << vt;
    for (VARTYPE vt : Codes{11, 16, 17}) EXPECT_EQ((value = Raw(vt)).llVal, 0x88) << vt;
    for (VARTYPE vt : Codes{5, 7, 20}) EXPECT_EQ((value = Raw(vt)).llVal, kPattern) << vt;
}

TEST(XVariant, AssignmentDropsThePayloadOfUnknownCodes) {
    for (VARTYPE vt : kUnknownCodes) {
        XVariant value("former text");
        value = Raw(vt);
        EXPECT_EQ(value.vt, vt);
        EXPECT_EQ(value.llVal, 0) << vt;
    }
    XVariant value(7);
    value = Raw(VT_EMPTY);
    EXPECT_EQ(value.vt, VT_EMPTY);
    EXPECT_EQ(value.llVal, 0);
    value = Raw(VT_NULL);
    EXPECT_EQ(value.vt, VT_NULL);
    EXPECT_EQ(value.llVal, 0);
}

TEST(XVariant, CopiesOwnATextOfTheirOwn) {
    const XVariant source = Text(std::string("a\0b", 3));
    const XVariant copy(source);
    XVariant assigned("former text");
    assigned = source;
    for (const XVariant* p : {&copy, static_cast<const XVariant*>(&assigned)}) {
        EXPECT_EQ(p->vt, VT_STR);
        EXPECT_NE(p->pStrVal, source.pStrVal);
        EXPECT_EQ(p->pStrVal->size(), 3u);  // zero bytes included
    }
}

TEST(XVariant, MovedFromIsEmpty) {
    XVariant text("text");
    const CString* const pText = text.pStrVal;
    const XVariant moved(std::move(text));
    EXPECT_EQ(moved.vt, VT_STR);
    EXPECT_EQ(moved.pStrVal, pText);
    EXPECT_EQ(text.vt, VT_EMPTY);
    EXPECT_EQ(text.llVal, 0);
}

TEST(XVariant, AssigningItselfChangesNothing) {
    XVariant text("text"), number(7), unknown = Raw(VT_CY);
    const XVariant &sameText = text, &sameNumber = number, &sameUnknown = unknown;
    text = sameText;
    number = sameNumber;
    unknown = sameUnknown;
    EXPECT_EQ(*text.pStrVal, "text");
    EXPECT_EQ(number.lVal, 7);
    EXPECT_EQ(unknown.llVal, kPattern);
}

TEST(XVariant, ClearFreesAndZeroes) {
    XVariant text("text");
    text.Clear();
    EXPECT_EQ(text.vt, VT_EMPTY);
    EXPECT_EQ(text.llVal, 0);
    XVariant number = Raw(VT_CY);
    number.Clear();
    EXPECT_EQ(number.vt, VT_EMPTY);
    EXPECT_EQ(number.llVal, 0);
}

TEST(XVariant, ClearDoesNotTouchAnEmptyValue) {
    XVariant value = Raw(VT_EMPTY);
    value.Clear();
    EXPECT_EQ(value.llVal, kPattern);
}

TEST(XVariant, ANullTextIsTheEmptyText) {
    XVariant value = NullText();
    const XVariant copy(value);
    XVariant assigned(7);
    assigned = value;
    for (const XVariant* p :
         {static_cast<const XVariant*>(&value), &copy, static_cast<const XVariant*>(&assigned)}) {
        EXPECT_EQ(p->vt, VT_STR);
        EXPECT_EQ(ToText(*p), "");
        EXPECT_EQ(p->ToInt(), 0u);
        EXPECT_EQ(p->ToInt64(), 0u);
        EXPECT_EQ(p->ToFloat(), 0.0f);
        EXPECT_EQ(p->ToDouble(), 0.0);
        EXPECT_EQ(p->ToDate(), 0.0);
        EXPECT_FALSE(p->ToBool());
        EXPECT_TRUE(*p == XVariant("") && XVariant("") == *p && *p == value);
    }
    EXPECT_EQ(value.ChangeType(VT_I4), 0);
    EXPECT_EQ(value.lVal, 0);
}

TEST(XVariantNumber, SignedIntegersKeepTheirSign) {
    for (const XVariant& value : {XVariant(short{-2}), XVariant(-2)}) {
        EXPECT_EQ(value.ToFloat(), -2.0f);
        EXPECT_EQ(value.ToDouble(), -2.0);
        EXPECT_EQ(value.ToInt(), 0xFFFFFFFEu);
        EXPECT_EQ(value.ToInt64(), 0xFFFFFFFFFFFFFFFEu);
    }
    XVariant value(-2);
    value.vt = VT_INT;
    EXPECT_EQ(value.ToDouble(), -2.0);
    EXPECT_EQ(value.ToInt(), 0xFFFFFFFEu);
    EXPECT_EQ(value.ToInt64(), 0xFFFFFFFFFFFFFFFEu);
}

TEST(XVariantNumber, UnsignedIntegersHaveNoSign) {
    EXPECT_EQ(XVariant(USHORT{65535}).ToDouble(), 65535.0);
    EXPECT_EQ(XVariant(USHORT{65535}).ToInt(), 65535u);
    EXPECT_EQ(XVariant(USHORT{65535}).ToInt64(), 65535u);
    XVariant value(UINT{0xFFFFFFFE});
    for (VARTYPE vt : Codes{VT_UI4, VT_UINT}) {
        value.vt = vt;
        EXPECT_EQ(value.ToFloat(), 4294967294.0f);
        EXPECT_EQ(value.ToDouble(), 4294967294.0);
        EXPECT_EQ(value.ToInt(), 0xFFFFFFFEu);
        EXPECT_EQ(value.ToInt64(), 0xFFFFFFFEu);
    }
}

TEST(XVariantNumber, BytesAreNeverSignExtended) {
    for (const XVariant& value : {Int8(-1), XVariant(BYTE{255})}) {
        EXPECT_EQ(value.ToInt(), 255u);
        EXPECT_EQ(value.ToInt64(), 255u);
        EXPECT_EQ(value.ToDouble(), 255.0);
        EXPECT_EQ(value.ToFloat(), 255.0f);
        EXPECT_EQ(ToText(value), "255");
    }
}

TEST(XVariantNumber, BooleansAreOneAndZero) {
    EXPECT_EQ(XVariant(true).ToDouble(), 1.0);
    EXPECT_EQ(XVariant(true).ToFloat(), 1.0f);
    EXPECT_EQ(XVariant(true).ToInt(), 1u);
    EXPECT_EQ(XVariant(true).ToInt64(), 1u);
    EXPECT_EQ(XVariant(false).ToDouble(), 0.0);
    EXPECT_EQ(XVariant(false).ToInt(), 0u);
}

TEST(XVariantNumber, SixtyFourBitsAreCutForInt) {
    const XVariant value((1LL << 32) + 5);
    EXPECT_EQ(value.ToInt(), 5u);
    EXPECT_EQ(ToText(value), "5");
    EXPECT_EQ(value.ToDouble(), 4294967301.0);
    EXPECT_EQ(value.ToInt64(), 4294967301u);
    EXPECT_EQ(XVariant(-1LL).ToInt64(), UINT64_MAX);
    EXPECT_EQ(XVariant(-1LL).ToDouble(), -1.0);
}

TEST(XVariantNumber, SixtyFourBitsBecomeAFloatInOneStep) {
    // Halfway between two floats but for its last bit, which a double would drop.
    EXPECT_EQ(XVariant((1LL << 60) + (1LL << 36) + 1).ToFloat(), 0x1.000002p60f);
}

TEST(XVariantNumber, RealsAreCutTowardZero) {
    for (const XVariant& value : {XVariant(-2.9f), XVariant(-2.9), Date(-2.9)}) {
        EXPECT_EQ(value.ToInt(), static_cast<UINT>(-2));
        EXPECT_EQ(value.ToInt64(), static_cast<uint64_t>(-2));
    }
    EXPECT_EQ(XVariant(2.9).ToInt(), 2u);
    EXPECT_EQ(XVariant(2.5f).ToDouble(), 2.5);
    EXPECT_EQ(XVariant(0.1).ToFloat(), 0.1f);
    EXPECT_EQ(Date(45000.5).ToDouble(), 45000.5);
    EXPECT_EQ(Date(45000.5).ToFloat(), 45000.5f);
}

TEST(XVariantNumber, RealsAreClamped) {
    const double kNaN = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(XVariant(3e9).ToInt(), 0x7FFFFFFFu);
    EXPECT_EQ(XVariant(-3e9).ToInt(), 0x80000000u);
    EXPECT_EQ(XVariant(3e9f).ToInt(), 0x7FFFFFFFu);
    EXPECT_EQ(Date(1e300).ToInt(), 0x7FFFFFFFu);
    EXPECT_EQ(XVariant(kNaN).ToInt(), 0u);
    EXPECT_EQ(XVariant(3e9).ToInt64(), 3000000000u);
    EXPECT_EQ(XVariant(1e300).ToInt64(), static_cast<uint64_t>(INT64_MAX));
    EXPECT_EQ(XVariant(-1e30f).ToInt64(), static_cast<uint64_t>(INT64_MIN));
    EXPECT_EQ(XVariant(kNaN).ToInt64(), 0u);
    EXPECT_EQ(XVariant(std::nanf("")).ToInt(), 0u);
}

TEST(XVariantNumber, TextsAreReadFromTheirStart) {
    EXPECT_EQ(Text("  12").ToInt(), 12u);
    EXPECT_EQ(Text("  12").ToInt64(), 12u);
    EXPECT_EQ(Text("12.5e1x").ToDouble(), 125.0);
    EXPECT_EQ(Text("0.1").ToFloat(), 0.1f);
    EXPECT_EQ(Text("12.9").ToInt(), 12u);
    EXPECT_EQ(Text("abc").ToInt(), 0u);
    EXPECT_EQ(Text("abc").ToDouble(), 0.0);
    EXPECT_EQ(Text("0x10").ToInt(), 0u);
    EXPECT_EQ(Text(std::string("1\0"
                               "2",
                               3))
                  .ToInt(),
              1u);
}

TEST(XVariantNumber, TextsToIntFollowA32BitHost) {
    EXPECT_EQ(Text("-1").ToInt(), 0xFFFFFFFFu);
    EXPECT_EQ(Text("4294967296").ToInt(), 0xFFFFFFFFu);
    EXPECT_EQ(Text("-2147483649").ToInt(), 0x7FFFFFFFu);
    EXPECT_EQ(Text("4294967296").ToInt64(), 4294967296u);
    EXPECT_EQ(Text("-1").ToInt64(), UINT64_MAX);
    EXPECT_EQ(Text("18446744073709551616").ToInt64(), UINT64_MAX);
}

TEST(XVariantNumber, ColourTextsBecomeColourWords) {
    EXPECT_EQ(Text("#FF8000").ToInt(), 0x80FFu);
    EXPECT_EQ(Text("#010203").ToInt(), 0x030201u);
    EXPECT_EQ(Text("#aa010203").ToInt(), 0x030201u);
    EXPECT_EQ(Text("#").ToInt(), 0u);
    EXPECT_EQ(Text("#xyz").ToInt(), 0u);
    EXPECT_EQ(Text("#123456789").ToInt(), 0xFFFFFFu);  // saturated
    EXPECT_EQ(Text("#010203").ToInt64(), 0x030201u);
    EXPECT_EQ(Text(" #010203").ToInt(), 0u);
    EXPECT_EQ(Text("#010203").ToDouble(), 0.0);
}

TEST(XVariantNumber, CodesWithoutANumberAreZero) {
    for (VARTYPE vt : kUnknownCodes) {
        const XVariant value = Raw(vt);
        EXPECT_EQ(value.ToInt(), 0u) << vt;
        EXPECT_EQ(value.ToInt64(), 0u) << vt;
        EXPECT_EQ(value.ToFloat(), 0.0f) << vt;
        EXPECT_EQ(value.ToDouble(), 0.0) << vt;
        EXPECT_EQ(value.ToDate(), 0.0) << vt;
        EXPECT_FALSE(value.ToBool()) << vt;
    }
    EXPECT_EQ(Raw(VT_EMPTY).ToInt64(), 0u);
    EXPECT_EQ(Raw(VT_NULL).ToDouble(), 0.0);
}

TEST(XVariantNumber, IsTrueWhenTheIntIsNotZero) {
    EXPECT_TRUE(XVariant(true).ToBool());
    EXPECT_TRUE(XVariant(-1).ToBool());
    EXPECT_TRUE(Text("1").ToBool());
    EXPECT_TRUE(XVariant(-1.0).ToBool());
    EXPECT_FALSE(XVariant(0.5).ToBool());
    EXPECT_FALSE(Text("abc").ToBool());
    EXPECT_FALSE(Text("true").ToBool());
    EXPECT_FALSE(XVariant(1LL << 32).ToBool());
}

TEST(XVariantDate, ANumberIsACountOfDays) {
    EXPECT_EQ(XVariant(3).ToDate(), 3.0);
    EXPECT_EQ(XVariant(2.5f).ToDate(), 2.5);
    EXPECT_EQ(Date(45000.25).ToDate(), 45000.25);
}

TEST(XVariantDate, ATextIsReadAsLocalTime) {
    EXPECT_EQ(ToText(Date(Text("2021-03-04").ToDate())), "2021-03-04 00:00:00");
    EXPECT_EQ(Text("x").ToDate(), 0.0);
    EXPECT_EQ(Text("2021-03-04").ToDate(), TextToDate("2021-03-04"));
}

TEST(XVariantChangeType, ItsOwnCodeChangesNothing) {
    XVariant value(7);
    const XVariant other(8);
    EXPECT_EQ(value.ChangeType(VT_I4), 0);
    EXPECT_EQ(value.ChangeType(VT_I4, &other), 0);
    EXPECT_EQ(value.lVal, 7);
    XVariant unknown = Raw(VT_CY);
    EXPECT_EQ(unknown.ChangeType(VT_CY), 0);
    EXPECT_EQ(unknown.llVal, kPattern);
}

TEST(XVariantChangeType, StoresThePayloadOfTheNewCode) {
    struct {
        VARTYPE vt;
        int64_t nPayload;
    } const rows[] = {
        {VT_I2, 0xFFFE},      {VT_UI2, 0xFFFE},      {VT_I4, 0xFFFFFFFE}, {VT_UI4, 0xFFFFFFFE},
        {VT_INT, 0xFFFFFFFE}, {VT_UINT, 0xFFFFFFFE}, {VT_BOOL, 1},        {VT_I1, 0xFE},
        {VT_UI1, 0xFE},       {VT_I8, -2},
    };
    for (const auto& row : rows) {
        XVariant value(-2.9);
        EXPECT_EQ(value.ChangeType(row.vt), 0);
        EXPECT_EQ(value.vt, row.vt);
        EXPECT_EQ(value.llVal, row.nPayload) << row.vt;
    }
}

TEST(XVariantChangeType, StoresReals) {
    XVariant value(7);
    EXPECT_EQ(value.ChangeType(VT_R4), 0);
    EXPECT_EQ(value.fltVal, 7.0f);
    EXPECT_EQ(value.ChangeType(VT_R8), 0);
    EXPECT_EQ(value.dblVal, 7.0);
    EXPECT_EQ(value.ChangeType(VT_DATE), 0);
    EXPECT_EQ(value.date, 7.0);
}

TEST(XVariantChangeType, ATextBecomesADate) {
    XVariant value("2021-03-04 07:08:09");
    EXPECT_EQ(value.ChangeType(VT_DATE), 0);
    EXPECT_EQ(ToText(value), "2021-03-04 07:08:09");
}

TEST(XVariantChangeType, StoresTheShortTextForm) {
    XVariant value(0.1);
    EXPECT_EQ(value.ChangeType(VT_STR), 0);
    EXPECT_EQ(*value.pStrVal, "0.1");
    XVariant empty;
    EXPECT_EQ(empty.ChangeType(VT_STR), 0);
    EXPECT_EQ(*empty.pStrVal, "");
}

TEST(XVariantChangeType, AHalfIsNotTrue) {
    XVariant value(0.5);
    EXPECT_EQ(value.ChangeType(VT_BOOL), 0);
    EXPECT_EQ(value.bVal, 0);
}

TEST(XVariantChangeType, TakesAnotherSource) {
    XVariant value("former text");
    const XVariant source("42");
    EXPECT_EQ(value.ChangeType(VT_I4, &source), 0);
    EXPECT_EQ(value.lVal, 42);
    EXPECT_EQ(*source.pStrVal, "42");
    EXPECT_EQ(value.ChangeType(VT_STR, &value), 0);
    EXPECT_EQ(*value.pStrVal, "42");
}

TEST(XVariantChangeType, OtherCodesAreRefusedAndLeaveAZeroPayload) {
    for (VARTYPE vt : Codes{0, 1, 6, 9, 10, 12, 13, 14, 15, 21, 24, 8192, 65535}) {
        for (XVariant value : {XVariant(7), XVariant("text")}) {
            EXPECT_EQ(value.ChangeType(vt), 1) << vt;
            EXPECT_EQ(value.vt, vt);
            EXPECT_EQ(value.llVal, 0) << vt;
        }
    }
}

TEST(XVariantEquality, ComparesThePayloadOfEqualCodes) {
    EXPECT_TRUE(XVariant(7) == XVariant(7));
    EXPECT_FALSE(XVariant(7) == XVariant(8));
    EXPECT_TRUE(XVariant(7) != XVariant(8));
    EXPECT_FALSE(XVariant(7) != XVariant(7));
    EXPECT_FALSE(XVariant(7) == XVariant(UINT{7}));
    EXPECT_TRUE(XVariant(2.5) == XVariant(2.5));
    EXPECT_FALSE(XVariant(2.5) == XVariant(2.5, VT_DATE));
    EXPECT_TRUE(XVariant(0.0) == XVariant(-0.0));
    EXPECT_TRUE(XVariant(0.0f) == XVariant(-0.0f));
}

TEST(XVariantEquality, LooksAtThePayloadWidthOfTheCode) {
    const int64_t nRest[] = {0x1122334455660000, 0x1122334400000000, 0x1122334455667700, 0};
    const std::vector<VARTYPE> codes[] = {{2, 18}, {3, 19, 22, 23}, {11, 16, 17}, {20}};
    for (int i = 0; i < 4; ++i) {
        for (VARTYPE vt : codes[i]) {
            EXPECT_TRUE(Raw(vt, 0x55 | nRest[i]) == Raw(vt, 0x55)) << vt;
            EXPECT_FALSE(Raw(vt, 0x56 | nRest[i]) == Raw(vt, 0x55)) << vt;
        }
    }
    EXPECT_FALSE(Raw(2, 0x100) == Raw(2, 0));
    EXPECT_FALSE(Raw(3, 0x1000000) == Raw(3, 0));
    EXPECT_FALSE(Raw(20, int64_t{1} << 56) == Raw(20, 0));
    EXPECT_TRUE(Raw(4, 0x1122334400000000) == Raw(4, 0));
}

TEST(XVariantEquality, NaNEqualsNothing) {
    const double kNaN = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(XVariant(kNaN) == XVariant(kNaN));
    EXPECT_FALSE(Date(kNaN) == Date(kNaN));
    EXPECT_FALSE(XVariant(std::nanf("")) == XVariant(std::nanf("")));
    EXPECT_TRUE(XVariant(kNaN) != XVariant(kNaN));
}

TEST(XVariantEquality, TextsCompareUpToTheirZeroByte) {
    EXPECT_TRUE(Text("ab") == Text("ab"));
    EXPECT_FALSE(Text("ab") == Text("aB"));
    EXPECT_TRUE(Text(std::string("a\0b", 3)) == Text(std::string("a\0c", 3)));
}

TEST(XVariantEquality, EmptyAndNullEqualThemselves) {
    EXPECT_TRUE(Raw(VT_EMPTY, 1) == Raw(VT_EMPTY, 2));
    EXPECT_TRUE(Raw(VT_NULL, 1) == Raw(VT_NULL, 2));
    EXPECT_FALSE(Raw(VT_EMPTY) == Raw(VT_NULL));
}

TEST(XVariantEquality, UnknownCodesEqualNothing) {
    for (VARTYPE vt : kUnknownCodes) EXPECT_FALSE(Raw(vt) == Raw(vt)) << vt;
}

TEST(XVariantText, TextsAreTakenWhole) {
    CString str("stale");
    EXPECT_TRUE(Text(std::string("a\0b", 3)).ToStringA(str, 2));
    EXPECT_EQ(str.size(), 3u);
}

TEST(XVariantText, IntegersAreDecimal) {
    EXPECT_EQ(ToText(XVariant(short{-42})), "-42");
    EXPECT_EQ(ToText(XVariant(-42)), "-42");
    EXPECT_EQ(ToText(Raw(VT_INT, 0xFFFFFFFF)), "-1");
    EXPECT_EQ(ToText(XVariant(USHORT{65535})), "65535");
    EXPECT_EQ(ToText(XVariant(UINT{4294967295})), "4294967295");
    EXPECT_EQ(ToText(Raw(VT_UINT, 0xFFFFFFFF)), "4294967295");
    EXPECT_EQ(ToText(XVariant(0xFFFFFFFFLL)), "-1");
}

TEST(XVariantText, IntegersGetZerosForTheDigitsAskedFor) {
    EXPECT_EQ(ToText(XVariant(7), 2), "7.00");
    EXPECT_EQ(ToText(XVariant(42), 3), "42.000");
    for (VARTYPE vt : Codes{2, 3, 16, 17, 18, 19, 22, 23})
        EXPECT_EQ(ToText(Raw(vt, 7), 1), "7.0") << vt;
    EXPECT_EQ(ToText(XVariant(7), 0), "7");
    EXPECT_EQ(ToText(XVariant(7), 11), "7");
    EXPECT_EQ(ToText(XVariant(7LL), 2), "7");
    EXPECT_EQ(ToText(XVariant(true), 2), "1");
}

TEST(XVariantText, RealsFollowTheDigits) {
    for (const XVariant& value : {XVariant(2.5f), XVariant(2.5)}) {
        EXPECT_EQ(ToText(value, 0), "3");
        EXPECT_EQ(ToText(value, 2), "2.50");
        EXPECT_EQ(ToText(value, -1), "2.5");
        EXPECT_EQ(ToText(value, 11), "2.5");
    }
    EXPECT_EQ(ToText(XVariant(-2.5f), 0), "-3");
    EXPECT_EQ(ToText(XVariant(0.49999997f), 0), "1");  // rounded as a float
}

TEST(XVariantText, BooleansAreDigits) {
    EXPECT_EQ(ToText(XVariant(true)), "1");
    EXPECT_EQ(ToText(XVariant(false)), "0");
}

TEST(XVariantText, DatesAreLocalTimeOrEmpty) {
    EXPECT_EQ(ToText(Date(44259.25)), "2021-03-04 06:00:00");
    EXPECT_EQ(ToText(Date(44259.25), 3), "2021-03-04 06:00:00");
    EXPECT_EQ(ToText(Date(1e300)), "");
}

TEST(XVariantText, OtherCodesHaveNone) {
    for (VARTYPE vt : kUnknownCodes) {
        CString str("stale");
        EXPECT_FALSE(Raw(vt).ToStringA(str, -1)) << vt;
        EXPECT_EQ(str, "") << vt;
    }
    CString str("stale");
    EXPECT_FALSE(Raw(VT_EMPTY).ToString(str, -1));
    EXPECT_FALSE(Raw(VT_NULL).ToString(str, -1));
    EXPECT_EQ(str, "");
}

TEST(XVariantText, ToStringIsTheSame) {
    CString str;
    EXPECT_TRUE(XVariant(7).ToString(str, 2));
    EXPECT_EQ(str, "7.00");
}

// Keeps the process from getting more than nRoom bytes of address space while it lives.
class CMemoryLimit {
  public:
    explicit CMemoryLimit(size_t nRoom) {
        getrlimit(RLIMIT_AS, &m_before);
        struct rlimit limit = m_before;
        limit.rlim_cur = UsedBytes() + nRoom;
        setrlimit(RLIMIT_AS, &limit);
    }
    ~CMemoryLimit() { setrlimit(RLIMIT_AS, &m_before); }

  private:
    static rlim_t UsedBytes() {
        unsigned long nPages = 0;
        FILE* pFile = std::fopen("/proc/self/statm", "r");
        if (!pFile || std::fscanf(pFile, "%lu", &nPages) != 1) ADD_FAILURE() << "no statm";
        if (pFile) std::fclose(pFile);
        return static_cast<rlim_t>(nPages) * 4096;
    }
    struct rlimit m_before;
};

// False where the limit does nothing, as under some emulators.
bool LimitWorks(size_t nBytes) {
    try {
        const CMemoryLimit limit(nBytes / 8);
        const std::string str(nBytes, 'x');
        return str.empty();
    } catch (const std::bad_alloc&) {
        return true;
    }
}

TEST(XVariantMemory, ShortageLeavesTheValueAsItWas) {
    if (VZ_UNDER_SANITIZER) GTEST_SKIP() << "the sanitizer maps memory of its own";
    constexpr size_t kHuge = size_t{64} << 20;
    if (!LimitWorks(kHuge)) GTEST_SKIP() << "address space cannot be limited here";
    const XVariant huge = Text(std::string(kHuge, 'x'));
    std::vector<BYTE> bytes(kHuge, 'x');
    bytes.back() = 0;
    XVariant value("text");
    XVariant changed(7);
    int nCaught = 0;
    {
        const CMemoryLimit limit(kHuge / 8);
        try {
            value = huge;
        } catch (const std::bad_alloc&) {
            ++nCaught;
        }
        try {
            value.FromBuffer(bytes.data(), bytes.size(), false);
        } catch (const std::bad_alloc&) {
            ++nCaught;
        }
        try {
            changed.ChangeType(VT_STR, &huge);
        } catch (const std::bad_alloc&) {
            ++nCaught;
        }
    }
    EXPECT_EQ(nCaught, 3);
    EXPECT_EQ(*value.pStrVal, "text");
    EXPECT_TRUE(changed == XVariant(7));
}

}  // namespace
