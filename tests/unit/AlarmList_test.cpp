#include "AlarmList.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "WireBytes.h"

namespace {

// The lines that a list file of these bytes gives, each behind a '|'.
std::string Lines(const std::string& strBytes) {
    char sz[] = "/tmp/vzunit-XXXXXX";
    const int h = mkstemp(sz);
    EXPECT_EQ(write(h, strBytes.data(), strBytes.size()), static_cast<ssize_t>(strBytes.size()));
    close(h);
    std::vector<CString> list;
    InitStringList(sz, list);
    unlink(sz);
    std::string str;
    for (const CString& strLine : list) str += "|" + strLine;
    return str;
}

TEST(ListFile, LinesEndWithLf) { EXPECT_EQ(Lines("one\ntwo\n"), "|one|two"); }
TEST(ListFile, LastLineMayLackItsLf) { EXPECT_EQ(Lines("one\ntwo"), "|one|two"); }
TEST(ListFile, OneCrBeforeTheLfIsDropped) { EXPECT_EQ(Lines("one\r\ntwo\r\n"), "|one|two"); }
TEST(ListFile, OnlyOneCrIsDropped) { EXPECT_EQ(Lines("one\r\r\n"), "|one\r"); }
TEST(ListFile, CrInsideALineStays) { EXPECT_EQ(Lines("o\rne\n"), "|o\rne"); }
TEST(ListFile, CrAtTheFilesEndIsDropped) { EXPECT_EQ(Lines("one\r"), "|one"); }
TEST(ListFile, EmptyLinesTakeNoIndex) { EXPECT_EQ(Lines("one\n\nthree\n\n\n"), "|one|three"); }
TEST(ListFile, LoneCrTakesNoIndex) { EXPECT_EQ(Lines("one\n\r\nthree\r\n\r"), "|one|three"); }
TEST(ListFile, BlanksAreALine) { EXPECT_EQ(Lines(" \none\n"), "| |one"); }
TEST(ListFile, EmptyFileGivesNothing) { EXPECT_EQ(Lines(""), ""); }
TEST(ListFile, TextBecomesUtf8) {
    EXPECT_EQ(Lines("\xD6\xD0\xCE\xC4\n"), "|\xE4\xB8\xAD\xE6\x96\x87");
}

TEST(ListFile, LineOf255BytesIsWhole) {
    const std::string strLine(255, 'x');
    EXPECT_EQ(Lines(strLine + "\nnext\n"), "|" + strLine + "|next");
    EXPECT_EQ(Lines(strLine + "\r\nnext\n"), "|" + strLine + "|next");
    EXPECT_EQ(Lines(strLine), "|" + strLine);
}

TEST(ListFile, LineOf256BytesIsCutAndTheNextIsWhole) {
    const std::string strLine(256, 'x');
    EXPECT_EQ(Lines(strLine + "\nnext\n"), "|" + strLine.substr(1) + "|next");
    EXPECT_EQ(Lines(strLine + "\r\nnext\n"), "|" + strLine.substr(1) + "|next");
}

TEST(ListFile, LongLineIsCutAndTheNextIsWhole) {
    EXPECT_EQ(Lines(std::string(10000, 'x') + "\nnext\n"), "|" + std::string(255, 'x') + "|next");
}

TEST(ListFile, LongLineIsCutBeforeACharacterThatDoesNotFit) {
    const std::string strLine = std::string(254, 'x') + "\xD6\xD0";
    testing::internal::CaptureStderr();
    EXPECT_EQ(Lines(strLine + "\n"), "|" + std::string(254, 'x'));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // no half character was converted
}

TEST(ListFile, CharacterThatEndsTheLineFits) {
    const std::string strLine = std::string(253, 'x') + "\xD6\xD0";
    EXPECT_EQ(Lines(strLine + "more\n"), "|" + std::string(253, 'x') + "\xE4\xB8\xAD");
}

TEST(ListFile, LineOfNoGb2312KeepsItsIndex) {
    EXPECT_EQ(Lines("one\n\xFF\xFF\nthree\n").find("|three"), Lines("one\n\xFF\xFF\n").size());
}

TEST(ListFile, FilledListIsNotReloaded) {
    std::vector<CString> list = {CString("kept")};
    InitStringList("/proc/self/status", list);
    EXPECT_EQ(list.size(), 1u);
}

TEST(ListFile, MissingFileLeavesTheListEmpty) {
    std::vector<CString> list;
    InitStringList("/no/such/file", list);
    EXPECT_TRUE(list.empty());
}

TEST(ListFile, LinesBeyondTheLastIndexAreNotRead) {
    const std::string strLines = Lines(Repeat("x\n", 65537));
    EXPECT_EQ(strLines.size(), 2u * 65536);
}

}  // namespace
