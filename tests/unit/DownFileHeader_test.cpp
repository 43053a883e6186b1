// The header of a file transfer reply: ReadHttpCont and GetFileInfoByBuf.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DownFile.h"

namespace {

constexpr int kNameMax = 63;
constexpr int kValueMax = 255;

// What reading one line gave.
struct SLine {
    int nResult;
    int nPos;
    std::string strName;
    std::string strValue;
};

SLine ReadLine(const std::string& strBytes, int nPos = 0) {
    char szName[kNameMax + 1], szValue[kValueMax + 1];
    SLine line;
    line.nResult = ReadHttpCont(strBytes.data(), nPos, static_cast<int>(strBytes.size()), szName,
                                kNameMax, szValue, kValueMax);
    line.nPos = nPos;
    line.strName = szName;
    line.strValue = szValue;
    return line;
}

SCFileInfo Parse(const std::string& strBytes, int* pPos = nullptr) {
    SCFileInfo fi;
    const int nPos = GetFileInfoByBuf(strBytes.data(), static_cast<int>(strBytes.size()), fi);
    if (pPos) *pPos = nPos;
    return fi;
}

// --- one line

TEST(HeaderLine, GivesNameAndValueAndMovesBehindItself) {
    const SLine line = ReadLine("Size:A\r\nnext");
    EXPECT_EQ(line.nResult, 1);
    EXPECT_EQ(line.nPos, 8);
    EXPECT_EQ(line.strName, "Size");
    EXPECT_EQ(line.strValue, "A");
}

TEST(HeaderLine, StartsAtTheOffsetGiven) {
    const SLine line = ReadLine("Size:A\r\nGZ:Yes\r\n", 8);
    EXPECT_EQ(line.nResult, 1);
    EXPECT_EQ(line.nPos, 16);
    EXPECT_EQ(line.strName, "GZ");
    EXPECT_EQ(line.strValue, "Yes");
}

TEST(HeaderLine, NeedsNoCarriageReturn) {
    const SLine line = ReadLine("a:b\n");
    EXPECT_EQ(line.nResult, 1);
    EXPECT_EQ(line.nPos, 4);
    EXPECT_EQ(line.strValue, "b");
}

TEST(HeaderLine, DropsBlanksWhereverTheyStand) {
    const SLine line = ReadLine(" \tF i\tle\rName \t:\r y e s\tplease \r\r\n");
    EXPECT_EQ(line.nResult, 1);
    EXPECT_EQ(line.strName, "FileName");
    EXPECT_EQ(line.strValue, "yesplease");
}

TEST(HeaderLine, DropsFurtherColons) {
    const SLine line = ReadLine("a::b:c:\n");
    EXPECT_EQ(line.strName, "a");
    EXPECT_EQ(line.strValue, "bc");
}

TEST(HeaderLine, ValueMayBeMissing) {
    EXPECT_EQ(ReadLine("Exist:\n").nResult, 1);
    EXPECT_EQ(ReadLine("Exist:\n").strValue, "");
    EXPECT_EQ(ReadLine("Exist\n").nResult, 1);
    EXPECT_EQ(ReadLine("Exist\n").strName, "Exist");
    EXPECT_EQ(ReadLine("Exist\n").strValue, "");
}

TEST(HeaderLine, WithoutANameEndsTheHeader) {
    const SLine blank = ReadLine("\r\nbody");
    EXPECT_EQ(blank.nResult, 0);
    EXPECT_EQ(blank.nPos, 2);
    const SLine spaces = ReadLine(" \t\r\nbody");
    EXPECT_EQ(spaces.nResult, 0);
    EXPECT_EQ(spaces.nPos, 4);
    const SLine nameless = ReadLine(":value\r\nbody");
    EXPECT_EQ(nameless.nResult, 0);
    EXPECT_EQ(nameless.nPos, 8);
}

TEST(HeaderLine, EndOfTheBytesIsNoLine) {
    EXPECT_EQ(ReadLine("").nResult, 0);
    const SLine line = ReadLine("Size:A\r");
    EXPECT_EQ(line.nResult, 0);
    EXPECT_EQ(line.nPos, 7);
    EXPECT_EQ(ReadLine("Size:A\n", 7).nResult, 0);
}

TEST(HeaderLine, NoByteIsReadBeyondTheLengthGiven) {
    char szName[8], szValue[8];
    int nPos = 0;
    EXPECT_EQ(ReadHttpCont("a:b\n", nPos, 3, szName, 7, szValue, 7), 0);
    EXPECT_EQ(nPos, 3);
    nPos = 0;
    EXPECT_EQ(ReadHttpCont("a:b\n", nPos, -1, szName, 7, szValue, 7), 0);
    EXPECT_EQ(nPos, 0);
}

TEST(HeaderLine, NameLengthOnBothSidesOfTheLimit) {
    const SLine fits = ReadLine(std::string(63, 'n') + ":v\n");
    EXPECT_EQ(fits.nResult, 1);
    EXPECT_EQ(fits.strName, std::string(63, 'n'));
    const SLine tooLong = ReadLine(std::string(64, 'n') + ":v\n");
    EXPECT_EQ(tooLong.nResult, 0);
    EXPECT_EQ(tooLong.nPos, 64);  // behind the byte that did not fit
    EXPECT_EQ(tooLong.strName, std::string(63, 'n'));
}

TEST(HeaderLine, ValueLengthOnBothSidesOfTheLimit) {
    const SLine fits = ReadLine("n:" + std::string(255, 'v') + "\n");
    EXPECT_EQ(fits.nResult, 1);
    EXPECT_EQ(fits.strValue, std::string(255, 'v'));
    const SLine tooLong = ReadLine("n:" + std::string(256, 'v') + "\n");
    EXPECT_EQ(tooLong.nResult, 0);
    EXPECT_EQ(tooLong.nPos, 258);
}

TEST(HeaderLine, BlanksAndColonsDoNotCountForTheLimits) {
    const SLine line = ReadLine(std::string(63, 'n') + std::string(50, ' ') +
                                ":::" + std::string(255, 'v') + " : \r\n");
    EXPECT_EQ(line.nResult, 1);
    EXPECT_EQ(line.strValue, std::string(255, 'v'));
}

TEST(HeaderLine, WritesNothingBeyondTheRoomGiven) {
    char szName[5] = "####", szValue[4] = "###";
    int nPos = 0;
    EXPECT_EQ(ReadHttpCont("abcdef:x\n", nPos, 9, szName, 2, szValue, 1), 0);
    EXPECT_EQ(std::string(szName, 5), std::string("ab\0#\0", 5));
    EXPECT_EQ(std::string(szValue, 4), std::string("\0##\0", 4));
    nPos = 0;
    EXPECT_EQ(ReadHttpCont("a:bc\n", nPos, 5, szName, 2, szValue, 1), 0);
    EXPECT_EQ(std::string(szValue, 4), std::string("b\0#\0", 4));
}

TEST(HeaderLine, OtherBytesAreTakenAsTheyAre) {
    const SLine line = ReadLine("n\xD6\xD0:\x80\xFF;=\n");
    EXPECT_EQ(line.strName, "n\xD6\xD0");
    EXPECT_EQ(line.strValue, "\x80\xFF;=");
    EXPECT_EQ(ReadLine(std::string("\0\n", 2)).nResult, 1);  // a zero byte is part of a name
}

// --- the whole header

TEST(Header, DefaultsWhenNothingIsNamed) {
    int nPos = -1;
    const SCFileInfo fi = Parse("\r\n", &nPos);
    EXPECT_EQ(nPos, 2);
    EXPECT_FALSE(fi.bUseLast);
    EXPECT_TRUE(fi.bExist);
    EXPECT_FALSE(fi.bGZ);
    EXPECT_FALSE(fi.bAppend);
    EXPECT_FALSE(fi.bHello);
    EXPECT_EQ(fi.tt, 0);
    EXPECT_EQ(fi.dwSize, 0u);
    EXPECT_EQ(fi.strName, "");
}

TEST(Header, EveryNameSetsItsOwnField) {
    EXPECT_TRUE(Parse("UseLast:Yes\n\n").bUseLast);
    EXPECT_TRUE(Parse("GZ:Yes\n\n").bGZ);
    EXPECT_TRUE(Parse("Append:Yes\n\n").bAppend);
    EXPECT_TRUE(Parse("Hello:Yes\n\n").bHello);
    EXPECT_FALSE(Parse("Exist:No\n\n").bExist);
    EXPECT_EQ(Parse("FileTime:5F5E1000\n\n").tt, 0x5F5E1000);
    EXPECT_EQ(Parse("Size:1c8\n\n").dwSize, 0x1C8u);
    EXPECT_EQ(Parse("FileName:RecData/drvinfo.dat\n\n").strName, "RecData/drvinfo.dat");

    const SCFileInfo fi = Parse("UseLast:No\r\nGZ:Yes\r\nAppend:No\r\nHello:Yes\r\nSize:7\r\n\r\n");
    EXPECT_FALSE(fi.bUseLast);
    EXPECT_TRUE(fi.bGZ);
    EXPECT_FALSE(fi.bAppend);
    EXPECT_TRUE(fi.bHello);
    EXPECT_TRUE(fi.bExist);
    EXPECT_EQ(fi.dwSize, 7u);
}

TEST(Header, NamesCountInAnyCase) {
    const SCFileInfo fi = Parse(
        "size:A\nFILETIME:10\nuselast:yes\nEXIST:no\ngz:YES\naPPEND:yEs\nhello:yeS\n"
        "FILENAME:aB\n\n");
    EXPECT_EQ(fi.dwSize, 10u);
    EXPECT_EQ(fi.tt, 16);
    EXPECT_TRUE(fi.bUseLast);
    EXPECT_FALSE(fi.bExist);
    EXPECT_TRUE(fi.bGZ);
    EXPECT_TRUE(fi.bAppend);
    EXPECT_TRUE(fi.bHello);
    EXPECT_EQ(fi.strName, "aB");
}

TEST(Header, UnknownNamesArePassedOver) {
    int nPos = -1;
    const std::string strHeader = "Size:A\r\nSizes:5\r\nSiz:6\r\nX-Server:Yes\r\n\r\n";
    const SCFileInfo fi = Parse(strHeader + "body", &nPos);
    EXPECT_EQ(fi.dwSize, 10u);
    EXPECT_EQ(nPos, static_cast<int>(strHeader.size()));
}

TEST(Header, TrueIsWhatBeginsWithYes) {
    EXPECT_TRUE(Parse("Hello: yes please\n\n").bHello);
    EXPECT_TRUE(Parse("Hello:YESTERDAY\n\n").bHello);
    EXPECT_TRUE(Parse("Hello:y e s\n\n").bHello);  // blanks are dropped everywhere
    EXPECT_TRUE(Parse("Exist: yes please\n\n").bExist);
    for (const char* szValue : {"", "Y", "Ye", "No", "1", "true", "oYes"}) {
        EXPECT_FALSE(Parse(std::string("Hello:") + szValue + "\n\n").bHello) << szValue;
        EXPECT_FALSE(Parse(std::string("Exist:") + szValue + "\n\n").bExist) << szValue;
    }
}

TEST(Header, NumbersAreHexadecimalOf32Bits) {
    EXPECT_EQ(Parse("Size:ffFF\n\n").dwSize, 0xFFFFu);
    EXPECT_EQ(Parse("Size:0x1F\n\n").dwSize, 0x1Fu);
    EXPECT_EQ(Parse("Size:12G4\n\n").dwSize, 0x12u);
    EXPECT_EQ(Parse("Size:\n\n").dwSize, 0u);
    EXPECT_EQ(Parse("Size:xyz\n\n").dwSize, 0u);
    EXPECT_EQ(Parse("Size:-1\n\n").dwSize, 0xFFFFFFFFu);
    EXPECT_EQ(Parse("Size:FFFFFFFF\n\n").dwSize, 0xFFFFFFFFu);
    EXPECT_EQ(Parse("Size:100000000\n\n").dwSize, 0xFFFFFFFFu);  // beyond 32 bits
    EXPECT_EQ(Parse("Size:1 0 0\n\n").dwSize, 0x100u);
}

TEST(Header, FileTimeIsUnsignedWhereTimeReachesThatFar) {
    EXPECT_EQ(Parse("FileTime:7FFFFFFF\n\n").tt, static_cast<time_t>(0x7FFFFFFFu));
    EXPECT_EQ(Parse("FileTime:80000000\n\n").tt, static_cast<time_t>(0x80000000u));
    EXPECT_EQ(Parse("FileTime:FFFFFFFF\n\n").tt, static_cast<time_t>(0xFFFFFFFFu));
    if (sizeof(time_t) > 4) {
        EXPECT_GT(Parse("FileTime:80000000\n\n").tt, 0);
    }
}

TEST(Header, LastOfTwoCounts) {
    EXPECT_EQ(Parse("Size:1\nSize:2\n\n").dwSize, 2u);
    EXPECT_FALSE(Parse("Hello:Yes\nHello:\n\n").bHello);
}

TEST(Header, WhatIsNotNamedStaysAsItIs) {
    SCFileInfo fi;
    fi.dwSize = 77;
    fi.bGZ = true;
    EXPECT_EQ(GetFileInfoByBuf("Hello:Yes\n\n", 11, fi), 11);
    EXPECT_EQ(fi.dwSize, 77u);
    EXPECT_TRUE(fi.bGZ);
    EXPECT_TRUE(fi.bHello);
}

TEST(Header, BodyStartsBehindTheBlankLine) {
    int nPos = -1;
    Parse("Size:A\r\n\r\n\r\n0123", &nPos);
    EXPECT_EQ(nPos, 10);
    Parse("Size:A\n\n0123", &nPos);
    EXPECT_EQ(nPos, 8);
}

TEST(Header, CutBeforeItsBlankLineIsReadAsFarAsItGoes) {
    int nPos = -1;
    const SCFileInfo fi = Parse("Size:A\r\nFileTime:10\r\nGZ:Yes", &nPos);
    EXPECT_EQ(nPos, 27);
    EXPECT_EQ(fi.dwSize, 10u);
    EXPECT_EQ(fi.tt, 16);
    EXPECT_FALSE(fi.bGZ);  // a line without its end is none
}

TEST(Header, IsWholeOnceItsBlankLineIsThere) {
    const auto isWhole = [](const std::string& strBytes) {
        SCFileInfo fi;
        bool bWhole = false;
        GetFileInfoByBuf(strBytes.data(), static_cast<int>(strBytes.size()), fi, &bWhole);
        return bWhole;
    };
    for (const std::string strHeader :
         {"Size:6\r\nGZ:Yes\r\n\r\n", "Size:6\n\n", "\n", "Size:6\r\n \t\r\n", "Exist:No\n:x\n"}) {
        for (size_t n = 0; n < strHeader.size(); ++n) {
            EXPECT_FALSE(isWhole(strHeader.substr(0, n))) << n << " of " << strHeader;
        }
        EXPECT_TRUE(isWhole(strHeader)) << strHeader;
        EXPECT_TRUE(isWhole(strHeader + "body")) << strHeader;
        EXPECT_TRUE(isWhole(strHeader + "body\n")) << strHeader;
    }
    EXPECT_TRUE(isWhole(std::string(63, 'n') + ":v\n\n"));
    EXPECT_FALSE(isWhole(std::string(64, 'n') + ":v\n\n"));
    EXPECT_FALSE(isWhole("n:" + std::string(256, 'v') + "\n\n"));
}

TEST(Header, EveryPrefixIsReadWithoutASlip) {
    const std::string strHeader = "Size:A\r\nHello:Yes\r\nFileName:a:b\r\n\r\n";
    for (size_t n = 0; n < strHeader.size(); ++n) {
        const std::vector<char> exact(strHeader.data(), strHeader.data() + n);
        SCFileInfo fi;
        EXPECT_EQ(GetFileInfoByBuf(exact.data(), static_cast<int>(n), fi), static_cast<int>(n));
        EXPECT_EQ(fi.dwSize, n >= 8 ? 10u : 0u);
        EXPECT_EQ(fi.bHello, n >= 19);
        EXPECT_EQ(fi.strName, n >= 33 ? "ab" : "");
    }
}

TEST(Header, LineThatIsTooLongEndsIt) {
    int nPos = -1;
    const SCFileInfo fi = Parse("Size:A\n" + std::string(64, 'n') + ":v\nHello:Yes\n\n", &nPos);
    EXPECT_EQ(nPos, 7 + 64);
    EXPECT_EQ(fi.dwSize, 10u);
    EXPECT_FALSE(fi.bHello);
}

TEST(Header, TakesNamesOf63AndValuesOf255Bytes) {
    const std::string strFits(255, 'v');
    const SCFileInfo fi =
        Parse(std::string(63, 'n') + ":v\nFileName:" + strFits + "\nHello:Yes\n\n");
    EXPECT_EQ(fi.strName, strFits);
    EXPECT_TRUE(fi.bHello);
    const SCFileInfo cut = Parse("GZ:Yes\nFileName:" + strFits + "v\nHello:Yes\n\n");
    EXPECT_TRUE(cut.bGZ);
    EXPECT_EQ(cut.strName, "");
    EXPECT_FALSE(cut.bHello);
}

TEST(Header, OfNoBytesIsEmpty) {
    SCFileInfo fi;
    EXPECT_EQ(GetFileInfoByBuf("x", 0, fi), 0);
    EXPECT_EQ(GetFileInfoByBuf("x", -1, fi), 0);
}

}  // namespace
