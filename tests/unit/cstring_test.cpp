#include "nonwin/cstring.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "nonwin/XVariant.h"

namespace {

// The characters U+4E2D and U+6587.
const char kGb[] = "\xD6\xD0\xCE\xC4";
const char kUtf8[] = "\xE4\xB8\xAD\xE6\x96\x87";
const unsigned short kUtf16[] = {0x4E2D, 0x6587};
const char kNoGb[] = "\xF0\x9F\x94\xA5";  // U+1F525 in UTF-8: no GB2312 form

// The content with its zero bytes; operator== of CString stops at the first one.
std::string Bytes(const CString& str) { return std::string(str.data(), str.size()); }

template <size_t N>
std::string Literal(const char (&sz)[N]) {
    return std::string(sz, N - 1);
}

// What the standard error stream gets while this lives.
class CStderr {
  public:
    CStderr() { testing::internal::CaptureStderr(); }
    std::string Text() { return testing::internal::GetCapturedStderr(); }
};

std::string Message(const char* szText, int nError) {
    return std::string(szText) + ": " + std::strerror(nError) + "\n";
}

TEST(CString, IsAStandardStringWithoutMembersOfItsOwn) {
    static_assert(std::is_base_of<std::string, CString>::value);
    static_assert(std::is_convertible<CString*, std::string*>::value, "publicly");
    static_assert(sizeof(CString) == sizeof(std::string));
    static_assert(sizeof(CT2UTF8) == sizeof(std::string));
    static_assert(sizeof(CUTF82T) == sizeof(std::string));
}

TEST(CString, StartsEmpty) {
    EXPECT_TRUE(CString().IsEmpty());
    EXPECT_EQ(CString().GetLength(), 0u);
}

TEST(CString, CopiesATextUpToItsZeroByte) { EXPECT_EQ(Bytes(CString("ab\0c")), "ab"); }

TEST(CString, RefusesANullPointerWithAFixedText) {
    try {
        CString str(nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}

TEST(CString, RefusesANullPointerInAnAssignment) {
    CString str("a");
    EXPECT_THROW(str = nullptr, std::logic_error);
    EXPECT_EQ(Bytes(str), "a");
}

TEST(CString, CopiesAStandardStringWithItsZeroBytes) {
    EXPECT_EQ(Bytes(CString(Literal("a\0b"))), Literal("a\0b"));
}

TEST(CString, RepeatsACharacter) {
    EXPECT_EQ(Bytes(CString('x', 3)), "xxx");
    EXPECT_EQ(Bytes(CString('x', 0)), "");
}

TEST(CString, IsMadeOfUtf16) { EXPECT_EQ(Bytes(CString(kUtf16, 2)), kGb); }

TEST(CString, IsMadeOfTheTextOfAValue) {
    XVariant text("abc");
    *text.pStrVal = Literal("a\0b");
    EXPECT_EQ(Bytes(CString(text)), Literal("a\0b"));
}

TEST(CString, IsMadeOfTheTextFormOfAValue) {
    EXPECT_EQ(Bytes(CString(XVariant(-42))), "-42");
    EXPECT_EQ(Bytes(CString(XVariant(0.1))), "0.1");
    EXPECT_EQ(Bytes(CString(XVariant(2.5f))), "2.5");
}

TEST(CString, IsEmptyForAValueWithoutTextForm) {
    EXPECT_EQ(Bytes(CString(XVariant())), "");
    XVariant unknown(7);
    unknown.vt = VT_CY;
    EXPECT_EQ(Bytes(CString(unknown)), "");
}

TEST(CString, IsAZeroTerminatedTextForCFunctions) {
    const CString str("abc");
    LPCTSTR sz = str;
    EXPECT_EQ(std::strlen(str), 3u);
    EXPECT_EQ(sz, str.c_str());
}

TEST(CString, SubscriptsWithEveryIntegerType) {
    CString str("abc");
    str[0] = 'x';
    str[static_cast<ptrdiff_t>(1)] = 'y';
    str[size_t{2}] = 'z';
    const CString& same = str;
    EXPECT_EQ(same[0], 'x');
    EXPECT_EQ(same[1L], 'y');
    EXPECT_EQ(same[2u], 'z');
}

TEST(CString, EmptyEmpties) {
    CString str("abc");
    str.Empty();
    EXPECT_TRUE(str.IsEmpty());
}

TEST(CString, CountsItsZeroBytes) { EXPECT_EQ(CString(Literal("a\0b")).GetLength(), 3u); }

TEST(CString, TakesPartsFromTheLeft) {
    EXPECT_EQ(Bytes(CString("abc").Left(2)), "ab");
    EXPECT_EQ(Bytes(CString("abc").Left(0)), "");
    EXPECT_EQ(Bytes(CString("abc").Left(9)), "abc");
}

TEST(CString, TakesPartsFromTheMiddle) {
    EXPECT_EQ(Bytes(CString("abcd").Mid(1)), "bcd");
    EXPECT_EQ(Bytes(CString("abcd").Mid(1, 2)), "bc");
    EXPECT_EQ(Bytes(CString("abcd").Mid(2, 9)), "cd");
    EXPECT_EQ(Bytes(CString("abcd").Mid(4)), "");
}

TEST(CString, TakesPartsFromTheRight) {
    EXPECT_EQ(Bytes(CString("abc").Right(2)), "bc");
    EXPECT_EQ(Bytes(CString("abc").Right(0)), "");
    EXPECT_EQ(Bytes(CString("abc").Right(3)), "abc");
    EXPECT_EQ(Bytes(CString("abc").Right(9)), "abc");
}

TEST(CString, ANegativeCountIsLongerThanAnyText) {
    EXPECT_EQ(Bytes(CString("abc").Left(-1)), "abc");
    EXPECT_EQ(Bytes(CString("abc").Mid(1, -1)), "bc");
    EXPECT_EQ(Bytes(CString("abc").Right(-1)), "abc");
}

TEST(CString, APositionBeyondTheLengthIsOutOfRange) {
    CString str("abc");
    EXPECT_THROW(str.Mid(4), std::out_of_range);
    EXPECT_THROW(str.Mid(4, 1), std::out_of_range);
    EXPECT_THROW(str.Mid(-1), std::out_of_range);
    EXPECT_THROW(str.GetAt(3), std::out_of_range);
    EXPECT_THROW(str.SetAt(-1, 'x'), std::out_of_range);
    EXPECT_THROW(str.Insert(4, 'x'), std::out_of_range);
    EXPECT_THROW(str.Insert(-1, "x"), std::out_of_range);
    EXPECT_EQ(Bytes(str), "abc");
}

TEST(CString, NamesTheStandardMemberWhenMidIsOutOfRange) {
    try {
        CString("abc").Mid(4);
        FAIL() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_EQ(std::string(error.what()).find("basic_string::substr"), 0u);
    }
}

TEST(CString, FindsCharacters) {
    const CString str("abcabc");
    EXPECT_EQ(str.Find('b'), 1);
    EXPECT_EQ(str.Find('b', 1), 1);
    EXPECT_EQ(str.Find('b', 2), 4);
    EXPECT_EQ(str.Find('x'), -1);
    EXPECT_EQ(str.Find('b', 5), -1);
    EXPECT_EQ(str.Find('b', 99), -1);
    EXPECT_EQ(str.Find('b', -1), -1);
}

TEST(CString, FindsTexts) {
    const CString str("abcabc");
    EXPECT_EQ(str.Find("bc"), 1);
    EXPECT_EQ(str.Find("bc", 2), 4);
    EXPECT_EQ(str.Find("cb"), -1);
    EXPECT_EQ(str.Find("bc", 5), -1);
    EXPECT_EQ(str.Find("bc", -1), -1);
}

TEST(CString, FindsTheLastCharacter) {
    EXPECT_EQ(CString("abcabc").ReverseFind('b'), 4);
    EXPECT_EQ(CString("abc").ReverseFind('x'), -1);
    EXPECT_EQ(CString().ReverseFind('x'), -1);
}

TEST(CString, InsertsBeforeAPosition) {
    CString str("ad");
    str.Insert(1, "bc");
    str.Insert(0, '<');
    str.Insert(5, '>');
    EXPECT_EQ(Bytes(str), "<abcd>");
}

TEST(CString, Appends) {
    CString str("a");
    str.Append("bc");
    str.Append("d\0ef", 3);
    str.AppendChar('!');
    EXPECT_EQ(Bytes(str), Literal("abcd\0e!"));
}

TEST(CString, GetsAndSetsBytes) {
    CString str("abc");
    str.SetAt(1, '\xD6');
    EXPECT_EQ(str.GetAt(1), '\xD6');
    EXPECT_EQ(str.GetAt(2), 'c');
}

TEST(CString, TruncateMakesTheLength) {
    CString str("abc");
    str.Truncate(2);
    EXPECT_EQ(Bytes(str), "ab");
    str.Truncate(4);
    EXPECT_EQ(Bytes(str), Literal("ab\0\0"));
}

TEST(CString, ComparesWithoutCase) {
    EXPECT_EQ(CString("Boiler").CompareNoCase("bOILER"), 0);
    EXPECT_LT(CString("a").CompareNoCase("B"), 0);
    EXPECT_GT(CString("C").CompareNoCase("b"), 0);
}

TEST(CString, ChangesTheCaseOfItsFullLength) {
    CString str(Literal("aB\0cD\xD6\xD0"));
    str.MakeUpper();
    EXPECT_EQ(Bytes(str), Literal("AB\0CD\xD6\xD0"));
    str.MakeLower();
    EXPECT_EQ(Bytes(str), Literal("ab\0cd\xD6\xD0"));
}

TEST(CStringTrim, ACharacterGoesFromTheLeft) {
    CString str("xxaxx");
    str.TrimLeft('x');
    EXPECT_EQ(Bytes(str), "axx");
    str.TrimLeft('x');
    EXPECT_EQ(Bytes(str), "axx");
}

TEST(CStringTrim, ACharacterGoesFromTheRight) {
    CString str("xxaxx");
    str.TrimRight('x');
    EXPECT_EQ(Bytes(str), "xxa");
    str.TrimRight('x');
    EXPECT_EQ(Bytes(str), "xxa");
}

TEST(CStringTrim, ACharacterGoesFromBothEnds) {
    CString str("xxaxbxx");
    str.Trim('x');
    EXPECT_EQ(Bytes(str), "axb");
}

TEST(CStringTrim, NothingIsLeftOfATextMadeOfTheCharacter) {
    CString left("xxx"), right("xxx"), both("xxx"), empty;
    left.TrimLeft('x');
    right.TrimRight('x');
    both.Trim('x');
    empty.Trim('x');
    EXPECT_EQ(Bytes(left) + Bytes(right) + Bytes(both) + Bytes(empty), "");
}

TEST(CStringTrim, ASetGoesFromEachEnd) {
    CString left(" \tab \t"), right(" \tab \t"), both(" \tab \t");
    left.TrimLeft(" \t");
    right.TrimRight(" \t");
    both.Trim(" \t");
    EXPECT_EQ(Bytes(left), "ab \t");
    EXPECT_EQ(Bytes(right), " \tab");
    EXPECT_EQ(Bytes(both), "ab");
}

TEST(CStringTrim, NothingIsLeftOfATextMadeOfTheSet) {
    CString left("xyx"), right("xyx"), empty;
    left.TrimLeft("xy");
    right.TrimRight("xy");
    empty.Trim("xy");
    EXPECT_EQ(Bytes(left) + Bytes(right) + Bytes(empty), "");
}

TEST(CStringTrim, AZeroByteBelongsToEverySet) {
    CString str(Literal("\0x\0a\0x\0"));
    str.Trim("x");
    EXPECT_EQ(Bytes(str), "a");
    CString noSet(Literal("\0a\0"));
    noSet.Trim("");
    EXPECT_EQ(Bytes(noSet), "a");
}

TEST(CStringTrim, BytesBeyondAsciiAreMembers) {
    CString str(
        "\xD6"
        "a\xD6");
    str.Trim("\xD6");
    EXPECT_EQ(Bytes(str), "a");
}

TEST(CStringReplace, CountsAndReplacesEveryText) {
    CString str("a--b--c");
    EXPECT_EQ(str.Replace("--", "+"), 2);
    EXPECT_EQ(Bytes(str), "a+b+c");
    EXPECT_EQ(str.Replace("--", "+"), 0);
    EXPECT_EQ(Bytes(str), "a+b+c");
}

TEST(CStringReplace, DoesNotSearchWhatItPutIn) {
    CString str("$Y");
    EXPECT_EQ(str.Replace("$Y", "2024$Y"), 1);
    EXPECT_EQ(Bytes(str), "2024$Y");
}

TEST(CStringReplace, FindsAHitThatFollowsAnEmptyReplacement) {
    CString str("aab");
    EXPECT_EQ(str.Replace("a", ""), 2);
    EXPECT_EQ(Bytes(str), "b");
    CString overlap("aabb");
    EXPECT_EQ(overlap.Replace("ab", ""), 1);  // the search goes on behind the hit
    EXPECT_EQ(Bytes(overlap), "ab");
}

TEST(CStringReplace, ReachesBehindAZeroByte) {
    CString str(Literal("a\0a"));
    EXPECT_EQ(str.Replace("a", "bb"), 2);
    EXPECT_EQ(Bytes(str), Literal("bb\0bb"));
}

TEST(CStringReplace, ChangesCharacters) {
    CString str(Literal("a:b\0:c"));
    EXPECT_EQ(str.Replace(':', '_'), 2);
    EXPECT_EQ(Bytes(str), Literal("a_b\0_c"));
    EXPECT_EQ(str.Replace('x', 'y'), 0);
}

TEST(CStringRemove, CountsAndRemovesCharacters) {
    CString str("banana");
    EXPECT_EQ(str.Remove('a'), 3);
    EXPECT_EQ(Bytes(str), "bnn");
    EXPECT_EQ(str.Remove('a'), 0);
    EXPECT_EQ(CString().Remove('a'), 0);
}

TEST(CStringRemove, RemovesZeroBytes) {
    CString str(Literal("a\0b\0"));
    EXPECT_EQ(str.Remove('\0'), 2);
    EXPECT_EQ(Bytes(str), "ab");
}

TEST(CStringTokenize, StepsOverRunsOfDelimiters) {
    const CString str("a,,b,");
    int iStart = 0;
    EXPECT_EQ(Bytes(str.Tokenize(",", iStart)), "a");
    EXPECT_EQ(iStart, 2);
    EXPECT_EQ(Bytes(str.Tokenize(",", iStart)), "b");
    EXPECT_EQ(iStart, 5);
    EXPECT_EQ(Bytes(str.Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CStringTokenize, TheLastTokenLeavesTheStartBehindTheEnd) {
    int iStart = 0;
    EXPECT_EQ(Bytes(CString("ab").Tokenize(",", iStart)), "ab");
    EXPECT_EQ(iStart, 3);
    EXPECT_EQ(Bytes(CString("ab").Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CStringTokenize, HasNoTokensWithoutDelimiters) {
    for (const char* szTokens : {"", static_cast<const char*>(nullptr)}) {
        int iStart = 0;
        EXPECT_EQ(Bytes(CString("abc").Tokenize(szTokens, iStart)), "");
        EXPECT_EQ(iStart, 0);
        iStart = 2;
        EXPECT_EQ(Bytes(CString("abc").Tokenize(szTokens, iStart)), "");
        EXPECT_EQ(iStart, 2);
        iStart = 3;
        EXPECT_EQ(Bytes(CString("abc").Tokenize(szTokens, iStart)), "");
        EXPECT_EQ(iStart, -1);
    }
}

TEST(CStringTokenize, ANegativeStartStays) {
    int iStart = -5;
    EXPECT_EQ(Bytes(CString("abc").Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -5);
    EXPECT_EQ(Bytes(CString("abc").Tokenize("", iStart)), "");
    EXPECT_EQ(iStart, -5);
}

TEST(CStringTokenize, OnlyDelimitersAreTheEndAtOnce) {
    int iStart = 0;
    EXPECT_EQ(Bytes(CString(",,,").Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CStringTokenize, AnEmptyTextIsTheEndAtOnce) {
    int iStart = 0;
    EXPECT_EQ(Bytes(CString().Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CStringTokenize, AStartFarBehindTheEndIsTheEnd) {
    int iStart = 99;
    EXPECT_EQ(Bytes(CString("abc").Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CStringTokenize, EveryCharacterOfTheSetDelimits) {
    const CString str(" a;b");
    int iStart = 0;
    EXPECT_EQ(Bytes(str.Tokenize("; ", iStart)), "a");
    EXPECT_EQ(Bytes(str.Tokenize("; ", iStart)), "b");
}

TEST(CStringTokenize, AZeroByteEndsBothKindsOfRuns) {
    const CString str(Literal("a\0,b"));
    int iStart = 0;
    EXPECT_EQ(Bytes(str.Tokenize(",", iStart)), "a");
    EXPECT_EQ(iStart, 2);
    const CString zeroFirst(Literal(",\0b"));
    iStart = 0;
    EXPECT_EQ(Bytes(zeroFirst.Tokenize(",", iStart)), "");
    EXPECT_EQ(iStart, 2);
}

TEST(CStringEquality, StopsAtAZeroByte) {
    EXPECT_TRUE(CString(Literal("a\0b")) == CString(Literal("a\0c")));
    EXPECT_FALSE(CString(Literal("a\0b")) != CString("a"));
    EXPECT_FALSE(CString("a") == CString("ab"));
    EXPECT_FALSE(CString("a") == CString("b"));
}

TEST(CStringEquality, TakesLiteralsAndStandardStringsOnBothSides) {
    const CString str("abc");
    const std::string strSame("abc"), strOther("abd");
    EXPECT_TRUE(str == "abc" && "abc" == str && str == strSame && strSame == str);
    EXPECT_TRUE(str != "abd" && "abd" != str && str != strOther && strOther != str);
    EXPECT_FALSE(str != "abc" || "abc" != str || str != strSame || strSame != str);
    EXPECT_FALSE(str == "abd" || "abd" == str || str == strOther || strOther == str);
    EXPECT_TRUE(str == CT2UTF8("abc"));
}

TEST(CStringEquality, ANullPointerEqualsNoText) {
    const CString str;
    LPCTSTR szNull = nullptr;
    EXPECT_FALSE(str == szNull);
    EXPECT_TRUE(szNull != str);
}

TEST(CStringOrder, IsThatOfAllBytesAsUnsigned) {
    std::map<CString, int> keys;
    keys[CString(Literal("a\0c"))] = 1;
    keys[CString(Literal("a\0b"))] = 2;
    keys["\xD6"] = 3;
    keys["z"] = 4;
    std::vector<int> order;
    for (const auto& entry : keys) order.push_back(entry.second);
    EXPECT_EQ(order, (std::vector<int>{2, 1, 4, 3}));
}

TEST(CStringStream, PrintsItsBytes) {
    std::ostringstream out;
    out << CString(Literal("a\0b"));
    EXPECT_EQ(out.str(), Literal("a\0b"));
}

TEST(StringLower, LowersOnlyAToZ) {
    char sz[] = "@AZ[`az{09\xC0\xD6\xFF";
    _strlwr(sz);
    EXPECT_STREQ(sz, "@az[`az{09\xC0\xD6\xFF");
}

TEST(StringLower, DoesNotFollowTheLocale) {
    const std::string strBefore = std::setlocale(LC_ALL, nullptr);
    for (const char* szLocale : {"de_DE.ISO-8859-1", "en_US.ISO-8859-1", "tr_TR.ISO-8859-9"}) {
        if (!std::setlocale(LC_ALL, szLocale)) continue;  // not installed here
        char sz[] = "I\xC0\xDD";
        _strlwr(sz);
        EXPECT_STREQ(sz, "i\xC0\xDD") << szLocale;
    }
    std::setlocale(LC_ALL, strBefore.c_str());
}

TEST(CodePages, Gb2312BecomesUtf8) {
    CString str;
    ToUtf8(kGb, str, 4);
    EXPECT_EQ(Bytes(str), kUtf8);
    CString strOfMember("stale");
    CString(kGb).ToUtf8(strOfMember);
    EXPECT_EQ(Bytes(strOfMember), kUtf8);
}

TEST(CodePages, ToUtf8WithoutALengthEndsAtTheZeroByte) {
    CString str;
    ToUtf8("ab\0cd", str, 0);
    EXPECT_EQ(Bytes(str), "ab");
}

TEST(CodePages, ToUtf8WithALengthPassesZeroBytes) {
    CString str;
    ToUtf8("ab\0cd", str, 4);
    EXPECT_EQ(Bytes(str), Literal("ab\0c"));
}

TEST(CodePages, TheMemberToUtf8TakesTheFullLength) {
    CString str;
    CString(Literal("a\0\xD6\xD0")).ToUtf8(str);
    EXPECT_EQ(Bytes(str), Literal("a\0\xE4\xB8\xAD"));
}

TEST(CodePages, AnEmptyTextBecomesAnEmptyOne) {
    CStderr errors;
    CString str("stale");
    CString().ToUtf8(str);
    EXPECT_EQ(Bytes(str), "");
    EXPECT_EQ(errors.Text(), "");
}

TEST(CodePages, Utf8BecomesGb2312) {
    CString str("stale");
    str.FromUtf8(kUtf8, 6);
    EXPECT_EQ(Bytes(str), kGb);
    str.FromUtf8(kUtf8, 3);
    EXPECT_EQ(Bytes(str), "\xD6\xD0");
}

TEST(CodePages, FromUtf8OfNoBytesIsEmpty) {
    CString str("stale");
    str.FromUtf8(kUtf8, 0);
    EXPECT_EQ(Bytes(str), "");
}

TEST(CodePages, FromUtf8PassesZeroBytes) {
    CString str;
    str.FromUtf8("a\0b", 3);
    EXPECT_EQ(Bytes(str), Literal("a\0b"));
}

TEST(CodePages, Utf16BecomesGb2312) {
    const unsigned short units[] = {'a', 0x4E2D, 0, 0x6587};
    CString str("stale");
    str.FromUtf16(units, 4);
    EXPECT_EQ(Bytes(str), Literal("a\xD6\xD0\0\xCE\xC4"));
    str.FromUtf16(units, 1);
    EXPECT_EQ(Bytes(str), "a");
}

TEST(CodePages, FromUtf16OfNoUnitsIsEmpty) {
    CString str("stale");
    str.FromUtf16(kUtf16, 0);
    EXPECT_EQ(Bytes(str), "");
}

TEST(CodePages, Gb2312BecomesUtf16) {
    size_t nUnits = 99;
    std::unique_ptr<unsigned short[]> ascii(ToUtf16("ab", nUnits, 0));
    ASSERT_EQ(nUnits, 2u);
    EXPECT_EQ(ascii[0], 0x0061);
    EXPECT_EQ(ascii[1], 0x0062);
    std::unique_ptr<unsigned short[]> wide(ToUtf16(kGb, nUnits, 2));
    ASSERT_EQ(nUnits, 1u);
    EXPECT_EQ(wide[0], 0x4E2D);
}

TEST(CodePages, TheMemberToUtf16EndsAtTheZeroByte) {
    size_t nUnits = 99;
    std::unique_ptr<unsigned short[]> units(CString(Literal("a\0b")).ToUtf16(nUnits));
    ASSERT_TRUE(units);
    EXPECT_EQ(nUnits, 1u);
    std::unique_ptr<unsigned short[]> none(CString().ToUtf16(nUnits));
    ASSERT_TRUE(none);
    EXPECT_EQ(nUnits, 0u);
}

TEST(CodePages, ToUtf16WithALengthPassesZeroBytes) {
    size_t nUnits = 99;
    std::unique_ptr<unsigned short[]> units(ToUtf16("a\0b", nUnits, 3));
    ASSERT_EQ(nUnits, 3u);
    EXPECT_EQ(units[1], 0);
    EXPECT_EQ(units[2], 'b');
}

TEST(CodePages, ALongTextIsConvertedWhole) {
    std::string strGb, strUtf8;
    for (int i = 0; i < 5000; ++i) {
        strGb += kGb;
        strUtf8 += kUtf8;
    }
    EXPECT_EQ(Bytes(CT2UTF8(strGb)), strUtf8);
    EXPECT_EQ(Bytes(CUTF82T(strUtf8)), strGb);
}

TEST(CodePages, AnInvalidByteEndsTheTextBeforeIt) {
    CStderr errors;
    CString str("stale");
    str.FromUtf8("\xE4\xB8\xAD\xFFyz", 6);
    EXPECT_EQ(Bytes(str), "\xD6\xD0");
    EXPECT_EQ(errors.Text(), Message("FromUtf8:iconv:", EILSEQ));
}

TEST(CodePages, ACharacterCutInTheMiddleEndsTheTextBeforeIt) {
    CStderr errors;
    CString str("stale");
    str.FromUtf8(kUtf8, 5);
    EXPECT_EQ(Bytes(str), "\xD6\xD0");
    EXPECT_EQ(errors.Text(), Message("FromUtf8:iconv:", EINVAL));
}

TEST(CodePages, ACharacterWithoutGb2312FormEndsTheTextBeforeIt) {
    CStderr errors;
    const CUTF82T str(std::string(kUtf8) + kNoGb + "z");
    EXPECT_EQ(Bytes(str), kGb);
    EXPECT_EQ(errors.Text(), Message("FromUtf8:iconv:", EILSEQ));
}

TEST(CodePages, ToUtf8KeepsWhatStoodBeforeABadByte) {
    CStderr errors;
    CString str("stale");
    ToUtf8("a\xD6\xD0\xFFz", str, 0);
    EXPECT_EQ(Bytes(str), "a\xE4\xB8\xAD");
    EXPECT_EQ(errors.Text(), Message("ToUtf8:iconv:", EILSEQ));
}

TEST(CodePages, ToUtf8DropsACharacterCutInTheMiddle) {
    CStderr errors;
    EXPECT_EQ(Bytes(CT2UTF8("a\xD6")), "a");
    EXPECT_EQ(errors.Text(), Message("ToUtf8:iconv:", EINVAL));
}

TEST(CodePages, FromUtf16KeepsWhatStoodBeforeABadUnit) {
    const unsigned short units[] = {0x4E2D, 0xD800, 'z'};
    CStderr errors;
    EXPECT_EQ(Bytes(CString(units, 3)), "\xD6\xD0");
    EXPECT_EQ(errors.Text(), Message("FromUtf16:iconv", EILSEQ));
}

TEST(CodePages, ToUtf16FailsWithTheRoomLeft) {
    CStderr errors;
    size_t nLeft = 99;
    EXPECT_EQ(ToUtf16("ab\xFF", nLeft, 0), nullptr);
    EXPECT_EQ(nLeft, 4u);  // room for 4 units, 2 of them written
    EXPECT_EQ(errors.Text(), Message("ToUtf16:iconv", EILSEQ));
}

TEST(CodePages, Ct2Utf8EndsAtTheZeroByteInBothForms) {
    EXPECT_EQ(Bytes(CT2UTF8(kGb)), kUtf8);
    EXPECT_EQ(Bytes(CT2UTF8(Literal("\xD6\xD0\0b"))), "\xE4\xB8\xAD");
    EXPECT_EQ(Bytes(CT2UTF8(CString(Literal("a\0b")))), "a");
}

TEST(CodePages, Cutf82tTakesTextsAndFullStrings) {
    EXPECT_EQ(Bytes(CUTF82T(kUtf8)), kGb);
    EXPECT_EQ(Bytes(CUTF82T("")), "");
    EXPECT_EQ(Bytes(CUTF82T(Literal("a\0b"))), Literal("a\0b"));
}

// Whether this program can be started once more, for a test in a fresh process. An emulated one
// cannot where the system does not know how to run it.
bool StartsAgain() {
    const pid_t nChild = fork();
    if (nChild == 0) {
        close(STDOUT_FILENO);
        execl("/proc/self/exe", "unit_tests", "--gtest_list_tests", static_cast<char*>(nullptr));
        _exit(127);
    }
    int nStatus = -1;
    waitpid(nChild, &nStatus, 0);
    return nStatus == 0;
}

// Without a free descriptor the system cannot load the converter of GB2312, which is not built in.
void ConvertWithoutConverters() {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    size_t nUnits = 99;
    const bool bNull = ToUtf16("a", nUnits, 0) == nullptr;
    CString strUtf8("stale"), strGb("stale"), strOf16("stale");
    ToUtf8("\xCB\xAE", strUtf8, 0);
    strGb.FromUtf8("\xE6\xB0\xB4", 3);
    strOf16.FromUtf16(kUtf16, 2);
    const bool bEmpty = strUtf8.IsEmpty() && strGb.IsEmpty() && strOf16.IsEmpty();
    _exit(bNull && nUnits == 0 && bEmpty ? 0 : 1);
}

TEST(CodePagesDeathTest, WithoutAConverterResultsAreEmptyAndTheErrorsPrinted) {
    if (!StartsAgain()) GTEST_SKIP() << "this program cannot be started again here";
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process has loaded no converter yet
    EXPECT_EXIT(ConvertWithoutConverters(), testing::ExitedWithCode(0),
                "^ToUtf16:iconv_open:: [^\n]+\n"
                "ToUtf8:iconv_open:: [^\n]+\n"
                "FromUtf8:iconv_open:: [^\n]+\n"
                "FromUtf16:iconv_open: [^\n]+\n");
}

// ASCII is the same in both code pages, so names of it need no converter.
void ConvertAsciiWithoutConverters() {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    CString strUtf8("stale"), strGb("stale");
    ToUtf8("pressure 1", strUtf8, 0);
    strGb.FromUtf8("pressure 1", 10);
    _exit(strUtf8 == "pressure 1" && strGb == "pressure 1" ? 0 : 1);
}

TEST(CodePagesDeathTest, AsciiNeedsNoConverter) {
    if (!StartsAgain()) GTEST_SKIP() << "this program cannot be started again here";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(ConvertAsciiWithoutConverters(), testing::ExitedWithCode(0), "^$");
}

TEST(CodePages, ABeyondAsciiByteIsSeenAtEveryPosition) {
    for (size_t nAt = 0; nAt < 20; ++nAt) {
        const std::string strGb = std::string(nAt, 'x') + "\xCB\xAE" + std::string(19 - nAt, 'y');
        const std::string strUtf =
            std::string(nAt, 'x') + "\xE6\xB0\xB4" + std::string(19 - nAt, 'y');
        CString strBack;
        strBack.FromUtf8(strUtf.data(), strUtf.size());
        EXPECT_EQ(strBack, strGb);
        EXPECT_EQ(CT2UTF8(strGb), strUtf);
    }
}

TEST(TextToU32, ReadsWhatA32BitHostReads) {
    EXPECT_EQ(TextToU32("0", 10), 0u);
    EXPECT_EQ(TextToU32("  12abc", 10), 12u);
    EXPECT_EQ(TextToU32("+7", 10), 7u);
    EXPECT_EQ(TextToU32("", 10), 0u);
    EXPECT_EQ(TextToU32("abc", 10), 0u);
    EXPECT_EQ(TextToU32("- 5", 10), 0u);
    EXPECT_EQ(TextToU32("FF8000", 16), 0xFF8000u);
    EXPECT_EQ(TextToU32("0x1f", 16), 0x1Fu);
    EXPECT_EQ(TextToU32("4294967295", 10), 0xFFFFFFFFu);
}

TEST(TextToU32, SaturatesBeyond32Bits) {
    EXPECT_EQ(TextToU32("4294967296", 10), 0xFFFFFFFFu);
    EXPECT_EQ(TextToU32("99999999999999999999999", 10), 0xFFFFFFFFu);
    EXPECT_EQ(TextToU32("-4294967296", 10), 0xFFFFFFFFu);
    EXPECT_EQ(TextToU32("-99999999999999999999999", 10), 0xFFFFFFFFu);
    EXPECT_EQ(TextToU32("100000000", 16), 0xFFFFFFFFu);
}

TEST(TextToU32, WrapsNegativeNumbers) {
    EXPECT_EQ(TextToU32("-1", 10), 0xFFFFFFFFu);
    EXPECT_EQ(TextToU32("-2147483649", 10), 0x7FFFFFFFu);
    EXPECT_EQ(TextToU32("-4294967295", 10), 1u);
}

TEST(TextToI32, ReadsWhatA32BitHostReads) {
    EXPECT_EQ(TextToI32(" -42x", 10), -42);
    EXPECT_EQ(TextToI32("x", 10), 0);
    EXPECT_EQ(TextToI32("-1f", 16), -0x1F);
    EXPECT_EQ(TextToI32("2147483647", 10), INT32_MAX);
    EXPECT_EQ(TextToI32("2147483648", 10), INT32_MAX);
    EXPECT_EQ(TextToI32("-2147483648", 10), INT32_MIN);
    EXPECT_EQ(TextToI32("-2147483649", 10), INT32_MIN);
    EXPECT_EQ(TextToI32("99999999999999999999999", 10), INT32_MAX);
    EXPECT_EQ(TextToI32("-99999999999999999999999", 10), INT32_MIN);
}

TEST(TextToNumber, LeavesErrnoAlone) {
    errno = EINTR;
    TextToU32("99999999999999999999999", 10);
    TextToI32("99999999999999999999999", 10);
    EXPECT_EQ(errno, EINTR);
}

// What a thread found out about itself.
struct SThreadFacts {
    std::promise<void> done;
    sigset_t mask;
    int nDetachState = -1;
};

void* FindFacts(void* arg) {
    const auto pFacts = *static_cast<std::shared_ptr<SThreadFacts>*>(arg);
    pthread_sigmask(SIG_BLOCK, nullptr, &pFacts->mask);
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &pFacts->nDetachState);
        pthread_attr_destroy(&attr);
    }
    pFacts->done.set_value();
    return nullptr;
}

std::shared_ptr<SThreadFacts> RunFactsThread() {
    auto pFacts = std::make_shared<SThreadFacts>();
    std::future<void> done = pFacts->done.get_future();
    auto pArg = pFacts;
    EXPECT_EQ(vzthread_create(FindFacts, &pArg), 0);
    EXPECT_EQ(done.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return pFacts;
}

TEST(ThreadCreate, RunsDetached) {
    EXPECT_EQ(RunFactsThread()->nDetachState, PTHREAD_CREATE_DETACHED);
}

TEST(ThreadCreate, BlocksAllSignalsInTheThread) {
    const auto pFacts = RunFactsThread();
    for (int nSignal : {SIGINT, SIGTERM, SIGALRM, SIGUSR1, SIGCHLD, SIGPIPE, SIGHUP})
        EXPECT_EQ(sigismember(&pFacts->mask, nSignal), 1) << nSignal;
}

TEST(ThreadCreate, LeavesTheMaskOfTheCaller) {
    sigset_t before, after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    sigset_t mine = before;
    sigaddset(&mine, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mine, nullptr);
    RunFactsThread();
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
}

void* NeverRuns(void*) {
    ADD_FAILURE() << "the thread ran";
    return nullptr;
}

TEST(ThreadCreate, ReturnsTheErrorAndKeepsTheMaskWhenNoThreadStarts) {
    pthread_attr_t usual, huge;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    ASSERT_EQ(pthread_getattr_default_np(&huge), 0);
    // A stack that fits in no address space.
    ASSERT_EQ(pthread_attr_setstacksize(&huge, SIZE_MAX / 8 * 7), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    EXPECT_EQ(vzthread_create(NeverRuns, nullptr), EAGAIN);
    pthread_setattr_default_np(&usual);
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&huge);
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGINT), 0);
}

}  // namespace
