#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "DrvInfo.h"
#include "ProcessState.h"
#include "TempFolder.h"
#include "WireBytes.h"

namespace {

using CDrvMap = std::map<CString, SNDrvInfoEx>;

// The map as text: "name=id/tags " of each entry, in its order.
std::string Told(const CDrvMap& drivers) {
    std::string str;
    for (const auto& entry : drivers) {
        str += entry.first + "=" + std::to_string(entry.second.id) + "/" +
               std::to_string(entry.second.tagNum) + " ";
    }
    return str;
}

std::string Parsed(const std::string& strFile) {
    CDrvMap drivers;
    ParseDrvInfo(static_cast<const BYTE*>(static_cast<const void*>(strFile.data())), strFile.size(),
                 drivers);
    return Told(drivers);
}

TEST(DriverRecords, HoldNameIdAndTagCount) {
    EXPECT_EQ(Parsed(Hex("41 00 01 00 05 00")), "A=1/5 ");
}

TEST(DriverRecords, AreLittleEndian) {
    EXPECT_EQ(Parsed(Hex("41 00 34 12 FE FF")), "A=4660/65534 ");
}

TEST(DriverRecords, FollowEachOtherWithoutPadding) {
    EXPECT_EQ(Parsed(Z("Boiler") + U16(2) + U16(9) + Z("B") + U16(7) + U16(1)),
              "B=7/1 Boiler=2/9 ");
}

TEST(DriverRecords, LaterOneOfTheSameNameReplacesTheEarlier) {
    EXPECT_EQ(Parsed(Z("A") + U16(1) + U16(1) + Z("A") + U16(2) + U16(3)), "A=2/3 ");
}

TEST(DriverRecords, LaterOneHasNoDriverObjectYet) {
    CDrvMap drivers;
    drivers[CString("A")].pDriver = static_cast<CDBDriver*>(static_cast<void*>(&drivers));
    const std::string str = Z("A") + U16(2) + U16(3);
    ParseDrvInfo(static_cast<const BYTE*>(static_cast<const void*>(str.data())), str.size(),
                 drivers);
    EXPECT_EQ(drivers[CString("A")].pDriver, nullptr);
}

TEST(DriverRecords, MayHaveAnEmptyName) { EXPECT_EQ(Parsed(Z("") + U16(3) + U16(4)), "=3/4 "); }

TEST(DriverRecords, KeepCaseAndBytesOfTheName) {
    EXPECT_EQ(Parsed(Z("\xD6\xD0"
                       "a") +
                     U16(3) + U16(4)),
              "\xD6\xD0"
              "a=3/4 ");
}

TEST(DriverRecords, EveryFragmentAtTheEndIsNone) {
    const std::string strFile = Z("A") + U16(1) + U16(5) + Z("Bo") + U16(2) + U16(6);
    for (size_t n = 6; n < strFile.size(); ++n)
        EXPECT_EQ(Parsed(strFile.substr(0, n)), "A=1/5 ") << n;
    for (size_t n = 0; n < 6; ++n) EXPECT_EQ(Parsed(strFile.substr(0, n)), "") << n;
    EXPECT_EQ(Parsed(strFile), "A=1/5 Bo=2/6 ");
}

TEST(DriverRecords, NameWithoutItsZeroByteIsNone) {
    EXPECT_EQ(Parsed(Z("A") + U16(1) + U16(5) + "long unterminated name"), "A=1/5 ");
}

class DriverFile : public ::testing::Test {
  protected:
    DriverFile() { mkdir((strFolder + "RecData").c_str(), 0700); }
    std::string Loaded(const std::string& strBytes) {
        std::ofstream(strFolder + "RecData/drvinfo.dat", std::ios::binary) << strBytes;
        LoadPrjDrvInfo(CString(strFolder), drivers);
        return Told(drivers);
    }

    const CTempFolder folder;
    const std::string strFolder = folder.Path();
    CDrvMap drivers;
};

TEST_F(DriverFile, IsLoaded) { EXPECT_EQ(Loaded(Z("A") + U16(1) + U16(5)), "A=1/5 "); }

TEST_F(DriverFile, OfFourBytesIsIgnored) { EXPECT_EQ(Loaded(Hex("01 00 05 00")), ""); }

TEST_F(DriverFile, OfFiveBytesHoldsADriverWithoutName) {
    EXPECT_EQ(Loaded(Hex("00 01 00 05 00")), "=1/5 ");
}

TEST_F(DriverFile, ThatIsMissingChangesNothing) {
    drivers[CString("old")].id = 4;
    LoadPrjDrvInfo(CString(strFolder), drivers);
    EXPECT_EQ(Told(drivers), "old=4/0 ");
}

TEST_F(DriverFile, ThatAnotherProcessFillsIsLoadedWhenItIsComplete) {
    const std::string strPath = strFolder + "RecData/drvinfo.dat";
    XFile writer;
    ASSERT_TRUE(writer.OpenA(strPath.c_str(), O_WRONLY | O_CREAT));
    ASSERT_TRUE(writer.Lock(true, 0));
    writer.MarkUnfinished(true);
    bool bGood = false;
    std::thread loader([&] { bGood = LoadPrjDrvInfo(CString(strFolder), drivers); });
    EXPECT_TRUE(IsOpenedTimes(strPath, 2));
    const std::string strBytes = Z("A") + U16(1) + U16(5);
    writer.Write(strBytes.data(), static_cast<unsigned>(strBytes.size()));
    writer.MarkUnfinished(false);
    writer.Close();
    loader.join();
    EXPECT_TRUE(bGood);
    EXPECT_EQ(Told(drivers), "A=1/5 ");
}

TEST_F(DriverFile, ThatIsUnfinishedIsNotLoaded) {
    EXPECT_EQ(Loaded(Z("A") + U16(1) + U16(5)), "A=1/5 ");
    drivers.clear();
    XFile file;
    ASSERT_TRUE(file.OpenA((strFolder + "RecData/drvinfo.dat").c_str(), O_RDWR));
    file.MarkUnfinished(true);
    file.Close();
    EXPECT_FALSE(LoadPrjDrvInfo(CString(strFolder), drivers));
    EXPECT_EQ(Told(drivers), "");
}

TEST_F(DriverFile, AddsToWhatTheMapHolds) {
    drivers[CString("old")].id = 4;
    EXPECT_EQ(Loaded(Z("A") + U16(1) + U16(5)), "A=1/5 old=4/0 ");
}

TEST_F(DriverFile, LiesInAFolderOfUtf8Name) {
    mkdir((strFolder + "\xE4\xB8\xAD").c_str(), 0700);
    mkdir((strFolder + "\xE4\xB8\xAD/RecData").c_str(), 0700);
    std::ofstream(strFolder + "\xE4\xB8\xAD/RecData/drvinfo.dat", std::ios::binary)
        << Z("A") + U16(1) + U16(5);
    LoadPrjDrvInfo(CString(strFolder + "\xD6\xD0/"), drivers);
    EXPECT_EQ(Told(drivers), "A=1/5 ");
}

}  // namespace
