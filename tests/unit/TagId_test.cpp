#include "ScriptedSession.h"

namespace {

using CIds = std::vector<int>;
using CNames = std::vector<std::string>;

class TagId : public CDriverTest {};

// ---- Lists --------------------------------------------------------------------------------------

TEST_F(TagId, OneNameIsAskedWithItsDriversId) {
    OnRequest(Hex("4C 00 00 41 00"), Hex("4C 03 00 EE EE"));
    EXPECT_EQ(Ids("A"), CIds{3});
}

TEST_F(TagId, DriverIdGoesOutInLittleEndian) {
    drv->m_drvId = 0x1234;
    OnRequest(Hex("4C 34 12 41 00"), Hex("4C 03 00 EE EE"));
    EXPECT_EQ(Ids("A"), CIds{3});
}

TEST_F(TagId, SeveralNamesAreOneRequest) {
    OnRequest(Hex("4C 00 00 41 00 00 00 42 42 00"), Hex("4C 03 00 EE EE 01 00 EE EE"));
    EXPECT_EQ(Ids("A,BB"), (CIds{3, 1}));
}

TEST_F(TagId, NameIsKeptInItsRecord) {
    OnLookup({"A"}, {3});
    Ids("A");
    EXPECT_EQ(drv->m_tags[3].strTag, "A");
}

TEST_F(TagId, LaterNameOfTheSameTagReplacesTheEarlier) {
    OnLookup({"A", "B"}, {3, 3});
    EXPECT_EQ(Ids("A,B"), (CIds{3, 3}));
    EXPECT_EQ(drv->m_tags[3].strTag, "B");
}

TEST_F(TagId, CachedNameIsNotAskedAgainAndNamesNothing) {
    OnLookup({"A", "B"}, {3, 3});
    Ids("A,B");
    EXPECT_EQ(Ids("A"), CIds{3});
    EXPECT_EQ(drv->m_tags[3].strTag, "B");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, RunsOfCommasAndSpacesAroundNamesAreSteppedOver) {
    OnLookup({"A", "B", "C"}, {0, 1, 2});
    EXPECT_EQ(Ids("A, B ,,C"), (CIds{0, 1, 2}));
}

TEST_F(TagId, OnlySpacesAreTrimmed) {
    OnLookup({"\tA\t"}, {0});
    EXPECT_EQ(Ids(" \tA\t "), CIds{0});
}

TEST_F(TagId, SpacesInsideANameStay) {
    OnLookup({"A B"}, {0});
    EXPECT_EQ(Ids(" A B "), CIds{0});
}

TEST_F(TagId, LeadingAndTrailingCommasAreNothing) {
    OnLookup({"A"}, {0});
    EXPECT_EQ(Ids(",,A,,"), CIds{0});
}

TEST_F(TagId, EmptyListsHaveNoEntriesAndNoRequest) {
    EXPECT_EQ(Ids(""), CIds{});
    EXPECT_EQ(Ids(","), CIds{});
    EXPECT_EQ(Ids(",,,"), CIds{});
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, NameOfSpacesIsANullEntryWithoutARequest) {
    EXPECT_EQ(Ids(" "), CIds{-1});
    EXPECT_EQ(Ids("  ,   "), (CIds{-1, -1}));
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, NameOfSpacesComesBeforeNamesThatAreAsked) {
    OnLookup({"A", "B"}, {0, 1});
    EXPECT_EQ(Ids("A, ,B"), (CIds{-1, 0, 1}));
}

TEST_F(TagId, NameOfSpacesKeepsItsPlaceAmongCachedNames) {
    OnLookup({"A", "B"}, {0, 1});
    Ids("A,B");
    EXPECT_EQ(Ids("A, ,B"), (CIds{0, -1, 1}));
}

TEST_F(TagId, CachedNamesComeBeforeNamesThatAreAsked) {
    OnLookup({"A"}, {1});
    Ids("A");
    OnLookup({"C", "D"}, {2, 3});
    EXPECT_EQ(Ids("C,A,D"), (CIds{1, 2, 3}));
}

TEST_F(TagId, SameUnknownNameTwiceIsAskedTwice) {
    OnLookup({"A", "A"}, {1, 1});
    EXPECT_EQ(Ids("A,A"), (CIds{1, 1}));
}

TEST_F(TagId, NamesCountByteForByte) {
    OnLookup({"a", "A"}, {1, 2});
    EXPECT_EQ(Ids("a,A"), (CIds{1, 2}));
}

TEST_F(TagId, Gb2312NamesGoOutAsTheyAre) {
    OnLookup({"\xD6\xD0"}, {1});
    EXPECT_EQ(Ids("\xD6\xD0"), CIds{1});
}

// ---- Unknown names ------------------------------------------------------------------------------

TEST_F(TagId, UnknownNameIsANullEntryAndIsNotAskedAgain) {
    OnLookup({"A"}, {0xFFFF});
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, LastIdOfTheTableResolves) {
    OnLookup({"A"}, {7});
    EXPECT_EQ(Ids("A"), CIds{7});
}

TEST_F(TagId, IdAtTheTagCountDoesNotResolve) {
    OnLookup({"A"}, {8});
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(drv->m_mapTagToId.at(CString("A")), 8);
}

TEST_F(TagId, DriverWithoutTagsAsksOnceAndResolvesNothing) {
    drv->SetTagCount(0);
    OnLookup({"A"}, {0});
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(server.Unread(0), "");
}

// ---- Batches ------------------------------------------------------------------------------------

CNames TenByteNames(int nFrom, int nTo) {
    CNames names;
    for (int i = nFrom; i < nTo; ++i) names.push_back("name" + std::to_string(100000 + i));
    return names;
}

std::string Joined(const CNames& names) {
    std::string str;
    for (const std::string& strName : names) str += (str.empty() ? "" : ",") + strName;
    return str;
}

TEST_F(TagId, FiftyNineTenByteNamesAreOneRequestOf768Bytes) {
    const CNames names = TenByteNames(0, 59);
    ASSERT_EQ(Lookup(names).size(), 768u);
    ASSERT_EQ(LookupReply(std::vector<unsigned>(59, 1)).size(), 237u);
    OnLookup(names, std::vector<unsigned>(59, 1));
    EXPECT_EQ(Ids(Joined(names)), CIds(59, 1));
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, SixtiethTenByteNameStartsTheSecondRequest) {
    OnLookup(TenByteNames(0, 59), std::vector<unsigned>(59, 1));
    OnLookup(TenByteNames(59, 60), {2});
    CIds wanted(59, 1);
    wanted.push_back(2);
    EXPECT_EQ(Ids(Joined(TenByteNames(0, 60))), wanted);
}

TEST_F(TagId, TwoHundredTenByteNamesAreFourRequests) {
    OnLookup(TenByteNames(0, 59), std::vector<unsigned>(59, 0));
    OnLookup(TenByteNames(59, 118), std::vector<unsigned>(59, 1));
    OnLookup(TenByteNames(118, 177), std::vector<unsigned>(59, 2));
    OnLookup(TenByteNames(177, 200), std::vector<unsigned>(23, 3));
    const CIds ids = Ids(Joined(TenByteNames(0, 200)));
    ASSERT_EQ(ids.size(), 200u);
    EXPECT_EQ(ids[58], 0);
    EXPECT_EQ(ids[59], 1);
    EXPECT_EQ(ids[199], 3);
}

TEST_F(TagId, OneByteNamesFillARequestWith191) {
    // 1 + 191 x 4 = 765 bytes; the next would make 769.
    CNames names;
    for (int i = 0; i < 191; ++i) names.push_back(std::string(1, static_cast<char>('A' + i % 26)));
    OnLookup(names, std::vector<unsigned>(191, 1));
    OnLookup({"A"}, {2});
    CNames all = names;
    all.push_back("A");
    EXPECT_EQ(Ids(Joined(all)).size(), 192u);
}

TEST_F(TagId, NameOf764BytesFillsARequest) {
    const std::string strName(764, 'n');
    ASSERT_EQ(Lookup({strName}).size(), 768u);
    OnLookup({strName}, {1});
    EXPECT_EQ(Ids(strName), CIds{1});
}

TEST_F(TagId, NameOf764BytesBehindAnotherStartsARequestOfItsOwn) {
    const std::string strName(764, 'n');
    OnLookup({"A"}, {0});
    OnLookup({strName}, {1});
    EXPECT_EQ(Ids("A," + strName), (CIds{0, 1}));
}

TEST_F(TagId, NameOf765BytesIsANullEntryAndTheRestGoesOn) {
    OnLookup({"A", "B"}, {0, 1});
    EXPECT_EQ(Ids("A," + std::string(765, 'n') + ",B"), (CIds{-1, 0, 1}));
    EXPECT_EQ(drv->m_mapTagToId.count(CString(std::string(765, 'n'))), 0u);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(TagId, ReplyWithAnotherCodeFails) {
    OnRequest(Lookup({"A"}), Hex("30 03 00 EE EE"));
    EXPECT_EQ(Ids("A", false), CIds{});
    EXPECT_TRUE(drv->m_mapTagToId.empty());
}

TEST_F(TagId, EveryShorterReplyFails) {
    const std::string strReply = LookupReply({3, 1});
    for (size_t n = 0; n < strReply.size(); ++n) {
        if (n > 0) {
            core->_Disconnect();
            const size_t nFirst = 2 * n;
            OrderHellos(nFirst);
            OrderUser(nFirst);
            ASSERT_EQ(Connect(), kConnected);
            drv = core->_GetDriver("Boiler");
            nReq = nFirst;
        }
        OnRequest(Lookup({"A", "B"}), strReply.substr(0, n));
        server.Close(nReq);
        EXPECT_EQ(Ids("A,B", false), CIds{}) << n;
    }
}

TEST_F(TagId, ReplyInPiecesIsPutTogether) {
    server.Expect(0, Lookup({"A", "B"}));
    server.Drip(0, LookupReply({3, 1}));
    EXPECT_EQ(Ids("A,B"), (CIds{3, 1}));
}

TEST_F(TagId, WhatWasResolvedBeforeAFailureStays) {
    OnLookup(TenByteNames(0, 59), std::vector<unsigned>(59, 1));
    OnRequest(Lookup(TenByteNames(59, 60)), Hex("30 00 00 00 00"));
    EXPECT_EQ(Ids(Joined(TenByteNames(0, 60)), false), CIds(59, 1));
    EXPECT_EQ(drv->m_mapTagToId.size(), 59u);
}

TEST_F(TagId, FirstOfTwoRequestsThatFailsIsTheLast) {
    OnRequest(Lookup(TenByteNames(0, 59)),
              "0" + LookupReply(std::vector<unsigned>(59, 1)).substr(1));
    EXPECT_EQ(Ids(Joined(TenByteNames(0, 60)), false), CIds{});
    EXPECT_TRUE(drv->m_mapTagToId.empty());
    EXPECT_EQ(server.Unread(0), "");
}

// ---- Single lookups -----------------------------------------------------------------------------

TEST_F(TagId, SingleLookupAsksForOneName) {
    OnRequest(Hex("4C 00 00 41 00"), Hex("4C 05 00"));
    EXPECT_EQ(drv->GetTagId("A"), 5);
    EXPECT_EQ(drv->m_tags[5].strTag, "A");
}

TEST_F(TagId, SingleLookupIsCachedForListsToo) {
    OnRequest(Hex("4C 00 00 41 00"), Hex("4C 05 00 EE EE"));
    EXPECT_EQ(drv->GetTagId("A"), 5);
    EXPECT_EQ(drv->GetTagId("A"), 5);
    EXPECT_EQ(Ids("A"), CIds{5});
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, SingleLookupOfNothingAsksNothing) {
    EXPECT_EQ(drv->GetTagId(nullptr), 0xFFFF);
    EXPECT_EQ(drv->GetTagId(""), 0xFFFF);
    drv->SetTagCount(0);
    EXPECT_EQ(drv->GetTagId("A"), 0xFFFF);
    EXPECT_TRUE(drv->m_mapTagToId.empty());
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, SingleLookupCachesAnIdOutOfRange) {
    OnRequest(Lookup({"A"}), Hex("4C 08 00"));
    EXPECT_EQ(drv->GetTagId("A"), 8);
    EXPECT_EQ(drv->GetTagId("A"), 8);
}

TEST_F(TagId, SingleLookupThatFailsIsCachedAsUnknown) {
    OnRequest(Lookup({"A"}), Hex("30 05 00"));
    EXPECT_EQ(drv->GetTagId("A"), 0xFFFF);
    EXPECT_EQ(Ids("A"), CIds{-1});
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, SingleLookupWithoutASessionIsCachedAsUnknown) {
    std::shared_ptr<CDBSession> pSession;
    core->_GetDriver("Boiler", &pSession);
    core->_Disconnect();
    EXPECT_EQ(drv->GetTagId("A"), 0xFFFF);
    EXPECT_EQ(drv->m_mapTagToId.at(CString("A")), 0xFFFF);
}

TEST_F(TagId, CoresLookupHasNoCache) {
    WORD nId = 0;
    OnRequest(Hex("4C 02 01 41 00"), Hex("4C 05 00"));
    EXPECT_TRUE(core->GetTagId(0x0102, "A", &nId));
    EXPECT_EQ(nId, 5);
    OnRequest(Hex("4C 02 01 41 00"), Hex("4C 06 00"));
    EXPECT_TRUE(core->GetTagId(0x0102, "A", &nId));
    EXPECT_EQ(nId, 6);
}

TEST_F(TagId, CoresLookupTakesAtMost16Bytes) {
    WORD nId = 0;
    OnRequest(Lookup({"A"}), Hex("4C 05 00") + std::string(13, 'x') + Hex("4C 07 00"));
    EXPECT_TRUE(core->GetTagId(0, "A", &nId));
    EXPECT_EQ(nId, 5);
    server.Expect(0, Lookup({"B"}));
    EXPECT_TRUE(core->GetTagId(0, "B", &nId));  // what was left is the next reply
    EXPECT_EQ(nId, 7);
}

TEST_F(TagId, CoresLookupWithAShortReplyFails) {
    WORD nId = 77;
    for (const char* szReply : {"4C", "4C 05"}) {
        OnRequest(Lookup({"A"}), Hex(szReply));
        EXPECT_FALSE(core->GetTagId(0, "A", &nId)) << szReply;
    }
    EXPECT_EQ(nId, 77);
}

TEST_F(TagId, CoresLookupOf252BytesIsSent) {
    WORD nId = 77;
    const std::string strName(252, 'n');
    OnRequest(Lookup({strName}), Hex("4C 05 00"));
    EXPECT_TRUE(core->GetTagId(0, strName.c_str(), &nId));
}

TEST_F(TagId, CoresLookupOf253BytesIsNot) {
    WORD nId = 77;
    EXPECT_FALSE(core->GetTagId(0, std::string(253, 'n').c_str(), &nId));
    EXPECT_EQ(drv->GetTagId(std::string(253, 'n').c_str()), 0xFFFF);
    EXPECT_EQ(nId, 77);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagId, CoresLookupWithoutASessionFails) {
    WORD nId = 77;
    core->_Disconnect();
    EXPECT_FALSE(core->GetTagId(0, "A", &nId));
    EXPECT_EQ(nId, 77);
}

// ---- Unadvise -----------------------------------------------------------------------------------

TEST_F(TagId, UnadviseSendsTheIdInLittleEndian) {
    OnRequest(Hex("64 78 56 34 12"), "d");
    EXPECT_TRUE(core->UnadviseTag(0x12345678));
}

TEST_F(TagId, UnadviseAnsweredOtherwiseFails) {
    OnRequest(Hex("64 01 00 00 00"), "0d");
    EXPECT_FALSE(core->UnadviseTag(1));
}

TEST_F(TagId, UnadviseNotAnsweredFails) {
    server.Expect(0, Hex("64 FF FF FF FF"));
    server.Close(0);
    EXPECT_FALSE(core->UnadviseTag(-1));
}

TEST_F(TagId, UnadviseWithoutASessionFails) {
    core->_Disconnect();
    EXPECT_FALSE(core->UnadviseTag(1));
}

}  // namespace
