// Frames of notifications, whole and in pieces, and what they tell.
#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "WireBytes.h"
#include "vzclient/Session.h"

namespace {

constexpr int64_t kTimeUs = 1600000000000000;

std::string Change(unsigned nDriver, unsigned nTag, const std::string& strValue) {
    return U16(nDriver) + U16(nTag) + strValue;
}
std::string System(unsigned nType, const std::string& strRest = "") {
    return Hex("FF FF") + U8(nType) + strRest;
}
// Alarm record of a tag: 2023-11-14 22:13:20 UTC, kind 1, group 2, level 3, status 4, 10.7 over
// 10.5.
std::string AlarmRecord(unsigned nTag) {
    return Hex("00 F1 53 65 01 F1 53 65") + U16(nTag) + Hex("01 00 02 00 03 04") +
           Hex("66 66 66 66 66 66 25 40 00 00 00 00 00 00 25 40");
}

// Two drivers: id 0 with 30 tags, whose types are their ids, and id 2 with 3 tags, of which the
// first is a text; no driver has id 1. All tags but 27 of driver 0 are watched.
class ClientFrames : public ::testing::Test {
  protected:
    ClientFrames() { Start(); }

    // As they were at first.
    void Start() {
        pFrames = nullptr;
        drivers.clear();
        drivers.push_back(std::make_unique<SDriver>(WORD{0}, WORD{30}));
        drivers.push_back(nullptr);
        drivers.push_back(std::make_unique<SDriver>(WORD{2}, WORD{3}));
        for (size_t i = 0; i < 30; ++i) drivers[0]->types[i] = static_cast<VARTYPE>(i);
        drivers[2]->types[0] = VT_STR;
        tags.clear();
        for (const size_t nDriver : {size_t{0}, size_t{2}}) {
            SDriver& driver = *drivers[nDriver];
            for (size_t i = 0; i < driver.watched.size(); ++i) {
                if (i == 27) continue;
                tags.push_back(std::make_unique<CWatchedTag>(nullptr, nullptr));
                tags.back()->routes.push_back({pFeed, static_cast<uint32_t>(100 * nDriver + i)});
                driver.watched[i] = tags.back().get();
            }
        }
        routes.m_alarmRoutes = {{pFeed, 999}};
        pFrames = std::make_unique<CFrames>(drivers, routes);
    }
    // How many bytes are done with. They lie in memory of just their size.
    size_t Walk(const std::string& strBytes) {
        const std::vector<BYTE> bytes(strBytes.begin(), strBytes.end());
        return pFrames->Walk(bytes.data(), bytes.size(), kTimeUs);
    }
    // Walks pieces that come one after the other, as a receive thread does. What is left at the
    // end.
    std::string WalkPieces(const std::vector<std::string>& pieces) {
        std::string strKept;
        for (const std::string& strPiece : pieces) {
            strKept += strPiece;
            strKept.erase(0, Walk(strKept));
        }
        return strKept;
    }
    // What was told: "tag=value" or "alarm tag", with a tag of driver 2 counted from 200.
    std::vector<std::string> Told() {
        std::vector<SEvent> events;
        pFeed->Take(events, 10000);
        std::vector<std::string> told;
        for (const SEvent& event : events) {
            EXPECT_EQ(event.nTimeUs, kTimeUs);
            EXPECT_FALSE(event.bResynced);
            if (event.eKind == SEvent::EKind::kAlarm) {
                EXPECT_EQ(event.nToken, 999u);
                told.push_back("alarm " + std::to_string(event.pMore->alarm.tid));
                continue;
            }
            CString str;
            event.value.ToStringA(str, -1);
            told.push_back(std::to_string(event.nToken) + "=" + str);
        }
        return told;
    }
    using Texts = std::vector<std::string>;

    std::shared_ptr<CFeed> pFeed = std::make_shared<CFeed>(10000, CFeed::EOverflow::kOldest);
    CRoutes routes;
    std::vector<std::unique_ptr<SDriver>> drivers;
    std::vector<std::unique_ptr<CWatchedTag>> tags;
    std::unique_ptr<CFrames> pFrames;
};

// ---- Changes ------------------------------------------------------------------------------------

TEST_F(ClientFrames, ChangeOfAnIntIsTold) {
    EXPECT_EQ(Walk(Hex("00 00 03 00 2A 00 00 00")), 8u);
    EXPECT_EQ(Told(), Texts{"3=42"});
    EXPECT_EQ(pFrames->m_nChanges, 1u);
    EXPECT_EQ(pFrames->m_nUnusable, 0u);
}

TEST_F(ClientFrames, ChangeOfEachTypeHasItsWidth) {
    const std::string strValue = Hex("01 00 00 00 00 00 F0 3F") + "tail";
    for (unsigned nType = 0; nType < 30; ++nType) {
        static constexpr unsigned kWidths[30] = {0, 0, 2, 4, 4, 8, 0, 8, 2, 0, 0, 1, 0, 0, 0,
                                                 0, 1, 1, 2, 4, 8, 0, 4, 4, 0, 0, 0, 0, 0, 0};
        Start();
        const unsigned nWidth = kWidths[nType];
        const std::string strFrame = Change(0, nType, strValue.substr(0, nWidth));
        if (nWidth) {
            EXPECT_EQ(Walk(strFrame), strFrame.size()) << nType;
            EXPECT_EQ(Told().size(), 1u) << nType;
            EXPECT_EQ(drivers[0]->watched[nType]->value.vt, nType);
        } else {
            EXPECT_EQ(Walk(strFrame + strValue), 4 + strValue.size()) << nType;
            EXPECT_EQ(Told(), Texts{}) << nType;
            EXPECT_EQ(pFrames->m_nUnusable, 1u) << nType;
        }
    }
}

TEST_F(ClientFrames, ValuesOfEachTypeAreTheirs) {
    Walk(Change(0, 2, Hex("FE FF")) + Change(0, 3, Hex("00 00 00 80")) +
         Change(0, 4, Hex("00 00 08 41")) + Change(0, 5, Hex("00 00 00 00 00 00 04 C0")) +
         Change(0, 8, Z("AB")) + Change(0, 11, Hex("02")) + Change(0, 17, Hex("C8")) +
         Change(0, 18, Hex("FF FF")) + Change(0, 19, Hex("FF FF FF FF")) +
         Change(0, 22, Hex("FF FF FF FF")) + Change(0, 23, Hex("FE FF FF FF")));
    EXPECT_EQ(Told(), (Texts{"2=-2", "3=-2147483648", "4=8.5", "5=-2.5", "8=AB", "11=1", "17=200",
                             "18=65535", "19=4294967295", "22=-1", "23=4294967294"}));
    EXPECT_EQ(pFrames->m_nChanges, 11u);
}

TEST_F(ClientFrames, TextEndsBehindItsZeroByte) {
    EXPECT_EQ(Walk(Change(2, 0, Z("")) + Change(2, 0, Z("on")) + Change(0, 17, Hex("05"))),
              5u + 7 + 5);
    EXPECT_EQ(Told(), (Texts{"200=", "200=on", "17=5"}));
}

TEST_F(ClientFrames, ChangeOfATagThatNobodyWatchesIsSteppedOver) {
    drivers[0]->types[27] = VT_UI1;
    EXPECT_EQ(Walk(Change(0, 27, Hex("05")) + Change(0, 17, Hex("06"))), 10u);
    EXPECT_EQ(Told(), Texts{"17=6"});
    EXPECT_EQ(pFrames->m_nChanges, 2u);
}

TEST_F(ClientFrames, TypeThatWasReadAnewHoldsFromThenOn) {
    Walk(Change(0, 3, Hex("2A 00 00 00")));
    drivers[0]->types[3] = VT_STR;
    Walk(Change(0, 3, Z("on")));
    drivers[0]->types[3] = VT_BOOL;
    Walk(Change(0, 3, Hex("00")));
    EXPECT_EQ(Told(), (Texts{"3=42", "3=on", "3=0"}));
}

TEST_F(ClientFrames, LastTagIsOneAndTheNextIsNone) {
    drivers[2]->types[2] = VT_UI1;
    Walk(Change(2, 2, Hex("05")));
    EXPECT_EQ(Told(), Texts{"202=5"});
    EXPECT_EQ(Walk(Change(2, 3, Hex("05"))), 5u);
    EXPECT_EQ(pFrames->m_nUnusable, 1u);
}

TEST_F(ClientFrames, DriverBeyondTheTableOrMissingIsUnusable) {
    for (const unsigned nDriver : {1u, 3u, 0xFFFEu}) {
        Start();
        EXPECT_EQ(Walk(Change(nDriver, 0, Hex("05 00"))), 6u) << nDriver;
        EXPECT_EQ(pFrames->m_nUnusable, 1u) << nDriver;
    }
}

// ---- System frames ------------------------------------------------------------------------------

// What each type is long when it names a driver and a tag that exist and carries the text "abc"; 0
// for one that cannot be used.
size_t WantedLength(unsigned nType) {
    static constexpr size_t kLengths[23] = {0,  35, 7, 35, 43, 7,  20, 7,  5,  8,  15, 15,
                                            15, 15, 8, 8,  11, 11, 11, 11, 11, 11, 8};
    return nType < 23 ? kLengths[nType] : nType == 255 ? 3 : 0;
}

TEST_F(ClientFrames, EachOfTheSystemTypesHasItsLength) {
    for (unsigned nType = 0; nType < 256; ++nType) {
        Start();
        const std::string strFrame = System(nType, U16(2) + U16(2) + Z("abc") + std::string(60, 1));
        const size_t nWanted = WantedLength(nType);
        if (nWanted == 0) {
            EXPECT_EQ(Walk(strFrame), strFrame.size()) << nType;
            EXPECT_EQ(pFrames->m_nUnusable, 1u) << nType;
            continue;
        }
        const std::string strNext = Change(0, 3, U32(nType));
        EXPECT_EQ(Walk(strFrame.substr(0, nWanted) + strNext), nWanted + 8) << nType;
        const Texts told = Told();
        ASSERT_FALSE(told.empty()) << nType;
        EXPECT_EQ(told.back(), "3=" + std::to_string(nType));
        EXPECT_EQ(told.size(), nType == 1 || nType == 3 ? 2u : 1u) << nType;
    }
}

TEST_F(ClientFrames, EachShorterSystemFrameWaitsForTheRest) {
    for (unsigned nType = 0; nType < 256; ++nType) {
        const std::string strFrame = System(nType, U16(2) + U16(2) + Z("abc") + std::string(60, 1));
        for (size_t n = 1; n < WantedLength(nType); ++n) {
            Start();
            EXPECT_EQ(Walk(strFrame.substr(0, n)), 0u) << nType << " " << n;
            EXPECT_EQ(Told(), Texts{});
            EXPECT_EQ(pFrames->m_nUnusable, 0u);
        }
    }
}

TEST_F(ClientFrames, TypesThatNameATagNeedIt) {
    for (unsigned nType = 9; nType <= 22; ++nType) {
        const std::string strRest = std::string(20, '\0');
        for (const std::string& strName :
             {U16(1) + U16(0), U16(3) + U16(0), U16(0xFFFF) + U16(0), U16(2) + U16(3)}) {
            Start();
            EXPECT_EQ(Walk(System(nType, strName + strRest)), 27u);
            EXPECT_EQ(pFrames->m_nUnusable, 1u) << nType;
        }
        Start();
        EXPECT_EQ(Walk(System(nType, U16(2) + U16(2) + strRest).substr(0, 8)),
                  nType >= 10 && nType <= 13 ? 0u : 8u);
        EXPECT_EQ(pFrames->m_nUnusable, 0u) << nType;
    }
}

TEST_F(ClientFrames, AlarmIsToldWithAllItsFields) {
    for (const unsigned nType : {1u, 3u}) {
        EXPECT_EQ(Walk(System(nType, AlarmRecord(12))), 35u);
        std::vector<SEvent> events;
        pFeed->Take(events, 10);
        ASSERT_EQ(events.size(), 1u);
        const S2RtAlarm2& alarm = events[0].pMore->alarm;
        EXPECT_EQ(alarm.almtm, 1700000000u);
        EXPECT_EQ(alarm.evttm, 1700000001u);
        EXPECT_EQ(alarm.tid, 12);
        EXPECT_EQ(alarm.type, 1);
        EXPECT_EQ(alarm.grp, 2);
        EXPECT_EQ(alarm.level, 3);
        EXPECT_EQ(alarm.status, 4);
        EXPECT_EQ(alarm.value, 10.7);
        EXPECT_EQ(alarm.limit, 10.5);
    }
    EXPECT_EQ(pFrames->m_nAlarms, 2u);
}

TEST_F(ClientFrames, AlarmThatNobodyWatchesIsCountedAndSteppedOver) {
    routes.m_alarmRoutes.clear();
    EXPECT_EQ(Walk(System(1, AlarmRecord(12)) + Change(0, 17, Hex("06"))), 40u);
    EXPECT_EQ(Told(), Texts{"17=6"});
    EXPECT_EQ(pFrames->m_nAlarms, 1u);
}

// ---- Pieces -------------------------------------------------------------------------------------

// Every type of frame that can be used, one after the other.
std::string AllFrames() {
    std::string str = Change(0, 3, Hex("2A 00 00 00"));
    for (unsigned nType = 1; nType < 256; ++nType) {
        const std::string strRest = U16(2) + U16(2) + Z("abc") + std::string(60, 1);
        if (nType == 1 || nType == 3) {
            str += System(nType, AlarmRecord(nType));
        } else {
            str += System(nType, strRest).substr(0, WantedLength(nType));
        }
    }
    for (unsigned nType = 2; nType < 24; ++nType) {
        const size_t nWidth = XVariant::GetVTSize(static_cast<VARTYPE>(nType));
        if (nWidth) str += Change(0, nType, std::string(nWidth, static_cast<char>(nType)));
    }
    return str + Change(2, 0, Z("")) + Change(2, 0, Z("text")) + System(255);
}

TEST_F(ClientFrames, CutAtAnyByteTheyTellTheSame) {
    const std::string strAll = AllFrames();
    EXPECT_EQ(Walk(strAll), strAll.size());
    const Texts told = Told();
    EXPECT_EQ(told.size(), 1u + 2 + 14 - 1 + 2);
    EXPECT_EQ(pFrames->m_nUnusable, 0u);
    for (size_t n = 0; n <= strAll.size(); ++n) {
        Start();
        EXPECT_EQ(WalkPieces({strAll.substr(0, n), strAll.substr(n)}), "") << n;
        EXPECT_EQ(Told(), told) << n;
        EXPECT_EQ(pFrames->m_nUnusable, 0u) << n;
    }
}

TEST_F(ClientFrames, ByteByByteTheyTellTheSame) {
    const std::string strAll = AllFrames();
    Walk(strAll);
    const Texts told = Told();
    Start();
    Texts pieces;
    for (const char c : strAll) pieces.emplace_back(1, c);
    EXPECT_EQ(WalkPieces(pieces), "");
    EXPECT_EQ(Told(), told);
}

TEST_F(ClientFrames, StartOfAFrameIsKeptToTheByte) {
    const std::string strWhole = Change(0, 17, Hex("06"));
    EXPECT_EQ(Walk(strWhole + Hex("00")), 5u);
    EXPECT_EQ(Walk(strWhole + Hex("00 00 03 00 2A 00 00")), 5u);
    EXPECT_EQ(Walk(""), 0u);
    EXPECT_EQ(pFrames->m_nUnusable, 0u);
}

TEST_F(ClientFrames, BytesBehindAnUnusableFrameAreLostUpToTheEndOfTheirPiece) {
    const std::string strGood = Change(0, 17, Hex("06"));
    EXPECT_EQ(WalkPieces({strGood + System(0) + strGood, strGood}), "");
    EXPECT_EQ(Told(), (Texts{"17=6", "17=6"}));
    EXPECT_EQ(pFrames->m_nUnusable, 1u);
}

// ---- Length -------------------------------------------------------------------------------------

TEST_F(ClientFrames, LongestFrameIsToldAndOneMoreByteIsNot) {
    const std::string strLongest = Change(2, 0, Z(std::string(2043, 'x')));
    ASSERT_EQ(strLongest.size(), 2048u);
    EXPECT_EQ(Walk(strLongest + Change(0, 17, Hex("06"))), 2048u + 5);
    EXPECT_EQ(Told(), (Texts{"200=" + std::string(2043, 'x'), "17=6"}));
    const std::string strLonger = Change(2, 0, Z(std::string(2044, 'x')));
    EXPECT_EQ(Walk(strLonger), 2049u);
    EXPECT_EQ(Told(), Texts{});
    EXPECT_EQ(pFrames->m_nUnusable, 1u);
}

TEST_F(ClientFrames, LongestSystemFrameIsSteppedOverAndOneMoreByteIsUnusable) {
    const std::string strLongest = System(16, U16(2) + U16(2) + Z(std::string(2040, 'x')));
    ASSERT_EQ(strLongest.size(), 2048u);
    EXPECT_EQ(Walk(strLongest + Change(0, 17, Hex("06"))), 2048u + 5);
    EXPECT_EQ(pFrames->m_nUnusable, 0u);
    EXPECT_EQ(Walk(System(16, U16(2) + U16(2) + Z(std::string(2041, 'x')))), 2049u);
    EXPECT_EQ(pFrames->m_nUnusable, 1u);
}

TEST_F(ClientFrames, FrameThatIsTooLongIsSoHoweverItIsCut) {
    for (const std::string& strFrame : {Change(2, 0, Z(std::string(2500, 'x'))),
                                        System(16, U16(2) + U16(2) + Z(std::string(2500, 'x')))}) {
        for (const size_t n : {1u, 1000u, 2047u, 2048u, 2049u, 2400u}) {
            Start();
            WalkPieces({strFrame.substr(0, n), strFrame.substr(n)});
            EXPECT_EQ(Told(), Texts{}) << n;
            EXPECT_GE(pFrames->m_nUnusable, 1u) << n;
        }
    }
}

TEST_F(ClientFrames, LongestFrameMayComeInTwoPieces) {
    const std::string strLongest = Change(2, 0, Z(std::string(2043, 'x')));
    EXPECT_EQ(WalkPieces({strLongest.substr(0, 2047), strLongest.substr(2047)}), "");
    EXPECT_EQ(Told(), Texts{"200=" + std::string(2043, 'x')});
    EXPECT_EQ(pFrames->m_nUnusable, 0u);
}

}  // namespace
