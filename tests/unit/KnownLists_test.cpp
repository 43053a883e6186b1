// Lists that a driver knows: which are kept, by what, and how many.
#include "VzDBAccess/KnownLists.h"

#include "ScriptedSession.h"

namespace {

using Tags = std::vector<CDBDriver::STag*>;

// ---- What is kept -------------------------------------------------------------------------------

// The lists of a driver, seen from a script. A list that is kept is found without its names: so
// these are forgotten, and a list that asks for them again was not kept.
class KnownLists : public CDriverTest {
  protected:
    void SetUp() override {
        CDriverTest::SetUp();
        Resolve(4);
        for (unsigned i = 0; i < 4; ++i) {
            drv->m_tags[i].value = static_cast<int>(10 + i);
            drv->m_tags[i].bSubscribe = true;
        }
    }
    std::string Read(const std::string& strUtf8) {
        return ReprOf(drv->GetTagValue(STagNames::OfScript(strUtf8.c_str())));
    }
    // What a list reads as when its names are asked anew, one batch, or known.
    std::string ReadWithoutNames(const std::string& strUtf8) {
        drv->m_mapTagToId.clear();
        return Read(strUtf8);
    }
};

TEST_F(KnownLists, ListOfKnownNamesIsKept) {
    EXPECT_EQ(Read("T1,T0"), "[11, 10]");
    EXPECT_EQ(ReadWithoutNames("T1,T0"), "[11, 10]");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(KnownLists, SingleNameIsKept) {
    EXPECT_EQ(Read("T2"), "12");
    EXPECT_EQ(ReadWithoutNames("T2"), "12");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(KnownLists, ListIsKeptForEveryOperation) {
    EXPECT_EQ(Read("T1,T0"), "[11, 10]");
    drv->m_mapTagToId.clear();
    EXPECT_TRUE(drv->_ConnectTag(STagNames::OfScript("T1,T0")));
    server.Expect(nReq, Hex("67 02 00 00 00 01 00 0B 00 01 00 00 00 00 0B 00 00"));
    CPyRef values(Eval("[True, False]"));
    EXPECT_EQ(drv->SetTagValue(STagNames::OfScript("T1,T0"), values), kWriteDone);
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownLists, ListWithANewNameIsNotKeptAndChangesItsOrderOnce) {
    drv->m_tags[6].value = 16;
    drv->m_tags[6].bSubscribe = true;
    OnLookup({"C"}, {6});
    EXPECT_EQ(Read("C,T0"), "[10, 16]");
    EXPECT_EQ(Read("C,T0"), "[16, 10]");
    EXPECT_EQ(Read("C,T0"), "[16, 10]");
    EXPECT_EQ(ReadWithoutNames("C,T0"), "[16, 10]");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(KnownLists, ListWithANewNameIsAskedAgainWhenTheNameIsForgotten) {
    drv->m_tags[6].value = 16;
    drv->m_tags[6].bSubscribe = true;
    OnLookup({"C"}, {6});
    EXPECT_EQ(Read("C,T0"), "[10, 16]");
    drv->m_mapTagToId.erase(CString("C"));
    OnLookup({"C"}, {6});
    EXPECT_EQ(Read("C,T0"), "[10, 16]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownLists, UnknownNamesAndBlanksKeepTheirSlots) {
    OnLookup({"X"}, {0xFFFF});
    Ids("X");
    for (int i = 0; i < 3; ++i) {
        if (i == 2) drv->m_mapTagToId.clear();
        CPyRef list(drv->GetTagValue(STagNames::OfScript("T0, ,X,,T1")));
        ASSERT_EQ(PyList_GET_SIZE(list.Get()), 4);
        EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 0)), 10);
        EXPECT_EQ(PyList_GET_ITEM(list.Get(), 1), nullptr);
        EXPECT_EQ(PyList_GET_ITEM(list.Get(), 2), nullptr);
        EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 3)), 11);
    }
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(KnownLists, NameOfChineseCharactersIsKept) {
    drv->m_mapTagToId[CString("\xCB\xAE")] = 3;
    EXPECT_EQ(Read("\xE6\xB0\xB4,T0"), "[13, 10]");
    EXPECT_EQ(ReadWithoutNames("\xE6\xB0\xB4,T0"), "[13, 10]");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(KnownLists, TextWithoutAGb2312FormIsNotKept) {
    EXPECT_EQ(Read("T0,T1,\xE2\x82\xAC"), "[10, 11]");
    OnLookup({"T0", "T1"}, {0, 1});
    EXPECT_EQ(ReadWithoutNames("T0,T1,\xE2\x82\xAC"), "[10, 11]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownLists, Gb2312TextIsNotTakenForAScripts) {
    EXPECT_EQ(Read("T1,T0"), "[11, 10]");
    OnLookup({"T1", "T0"}, {1, 0});
    drv->m_mapTagToId.clear();
    EXPECT_EQ(ReprOf(drv->GetTagValue("T1,T0")), "[11, 10]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownLists, TagsOfAKnownListAreReadWhileTheyAreNotSubscribed) {
    drv->m_tags[0].bSubscribe = drv->m_tags[1].bSubscribe = false;
    for (unsigned n : {1u, 2u}) {
        OnRequest(Hex("48 02 00 00 00 00 00 00 00 01 00"),
                  "H" + U8(0) + U16(12) + Hex("03 00") + U32(n) + Hex("03 00") + U32(7));
        EXPECT_EQ(Read("T0,T1"), "[" + std::to_string(n) + ", 7]");
    }
    EXPECT_TRUE(server.Done());
}

// What a read of "T0,T1,T2" that is known asks for, and finds, after this has happened.
class KnownRead : public KnownLists {
  protected:
    void SetUp() override {
        KnownLists::SetUp();
        for (unsigned i = 0; i < 4; ++i) drv->m_tags[i].bSubscribe = false;
        for (int i = 0; i < 2; ++i) {
            OnRead({0, 1, 2});
            EXPECT_EQ(Read("T0,T1,T2"), "[100, 101, 102]");
        }
    }
    // A read of these tags is answered with 100 and the tag's id.
    void OnRead(const std::vector<unsigned>& ids) {
        std::string strRequest = "H" + U16(static_cast<unsigned>(ids.size()));
        std::string strValues;
        for (unsigned nId : ids) {
            strRequest += U16(0) + U16(nId);
            strValues += Hex("03 00") + U32(100 + nId);
        }
        OnRequest(strRequest,
                  "H" + U8(0) + U16(static_cast<unsigned>(strValues.size())) + strValues);
    }
};

TEST_F(KnownRead, AsksForTheSameAgain) {
    OnRead({0, 1, 2});
    EXPECT_EQ(Read("T0,T1,T2"), "[100, 101, 102]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, LeavesOutWhatWasSubscribedSince) {
    OnRequest(Hex("62 01 00 00 00 01 00 00"), "b" + U16(6) + Hex("03 00") + U32(7));
    EXPECT_TRUE(drv->_ConnectTag(STagNames::OfScript("T1")));
    for (int i = 0; i < 2; ++i) {
        OnRead({0, 2});
        EXPECT_EQ(Read("T0,T1,T2"), "[100, 7, 102]");
    }
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, LeavesOutWhatASubscriptionThatFailedHasReached) {
    OnRequest(Hex("62 02 00 00 00 02 00 00 00 00 00 00 00"),
              "b" + U16(7) + Hex("03 00") + U32(7) + Hex("03"));
    EXPECT_FALSE(drv->_ConnectTag(STagNames::OfScript("T2,T0")));
    OnRead({0, 1});
    EXPECT_EQ(Read("T0,T1,T2"), "[100, 101, 7]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, AsksForNothingWhenAllAreSubscribed) {
    OnRequest(
        Hex("62 03 00 00 00 00 00 00 00 00 01 00 00 00 00 02 00 00"),
        "b" + U16(18) + Hex("03 00") + U32(7) + Hex("03 00") + U32(8) + Hex("03 00") + U32(9));
    EXPECT_TRUE(drv->_ConnectTag(STagNames::OfScript("T0,T1,T2")));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Read("T0,T1,T2"), "[7, 8, 9]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, AsksTwiceForATagThatIsNamedTwice) {
    for (unsigned n = 1; n < 4; ++n) {
        OnRequest(Hex("48 03 00 00 00 03 00 00 00 00 00 00 00 03 00"),
                  "H" + U8(0) + U16(18) + Hex("03 00") + U32(n) + Hex("03 00") + U32(7) +
                      Hex("03 00") + U32(10 + n));
        const std::string strLast = std::to_string(10 + n);
        EXPECT_EQ(Read("T3,T0,T3"), "[" + strLast + ", 7, " + strLast + "]");
    }
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, KeepsTheFormerValueOfWhatTheReplyLeavesOut) {
    OnRequest(Hex("48 03 00 00 00 00 00 00 00 01 00 00 00 02 00"),
              "H" + U8(0) + U16(6) + Hex("03 00") + U32(5));
    EXPECT_EQ(Read("T0,T1,T2"), "[5, 101, 102]");
    EXPECT_TRUE(server.Done());
}

TEST_F(KnownRead, OfAnUnknownNameLeavesItsSlotEmptyEachTime) {
    drv->m_mapTagToId[CString("gone")] = 0xFFFF;
    for (int i = 0; i < 3; ++i) {
        OnRead({0, 1});
        EXPECT_EQ(Read("T0,gone,T1"), "[100, <NULL>, 101]");
    }
    EXPECT_TRUE(server.Done());
}

// ---- How many -----------------------------------------------------------------------------------

std::string Text(size_t n) { return "list " + std::to_string(n); }

size_t Found(CDBDriver::CKnownLists& lists, size_t nTexts) {
    size_t nFound = 0;
    for (size_t i = 0; i < nTexts; ++i) nFound += lists.Find(Text(i)) != nullptr;
    return nFound;
}

TEST(KnownListsBound, ListIsFoundByItsWholeText) {
    CDBDriver::CKnownLists lists(10);
    CDBDriver::STag tag;
    const std::string strEnd(40, 'x');
    lists.Add(strEnd + "a" + strEnd, Tags{&tag});
    ASSERT_NE(lists.Find(strEnd + "a" + strEnd), nullptr);
    EXPECT_EQ(lists.Find(strEnd + "a" + strEnd)->tags, Tags{&tag});
    EXPECT_EQ(lists.Find(strEnd + "b" + strEnd), nullptr);  // the same ends, the same place
    EXPECT_EQ(lists.Find(strEnd), nullptr);
}

TEST(KnownListsBound, NoMoreThan256AreKept) {
    CDBDriver::CKnownLists lists(1000);
    for (size_t i = 0; i < 5000; ++i) lists.Add(Text(i), Tags(1));
    EXPECT_GT(Found(lists, 5000), 128u);
    EXPECT_LE(Found(lists, 5000), 256u);
}

TEST(KnownListsBound, ListThatIsFoundOutlivesOneWantingItsPlaceAndNotTwo) {
    CDBDriver::CKnownLists lists(10);
    const std::string strEnd(40, 'x');
    const std::string a = strEnd + "a" + strEnd;
    const std::string b = strEnd + "b" + strEnd;
    lists.Add(a, Tags(1));
    for (int i = 0; i < 3; ++i) {
        lists.Add(b, Tags(2));
        EXPECT_EQ(lists.Find(b), nullptr);
        EXPECT_NE(lists.Find(a), nullptr);
    }
    lists.Add(b, Tags(2));
    lists.Add(b, Tags(2));
    EXPECT_EQ(lists.Find(a), nullptr);
    EXPECT_EQ(lists.Find(b)->tags, Tags(2));
}

TEST(KnownListsBound, BytesGrowWithTheTags) {
    for (const size_t nTags : {0u, 1000u, 65535u}) {
        const size_t nBytes = 32768 + 24 * nTags;
        CDBDriver::CKnownLists lists(nTags);
        const std::string strFits(nBytes - 200, 'f');
        const std::string strTooLong(nBytes, 't');
        lists.Add(strFits, Tags(1));
        EXPECT_NE(lists.Find(strFits), nullptr) << nTags;
        lists.Add(strTooLong, Tags(1));
        EXPECT_EQ(lists.Find(strTooLong), nullptr) << nTags;
        EXPECT_NE(lists.Find(strFits), nullptr) << nTags;
    }
}

TEST(KnownListsBound, RecordsCountToo) {
    CDBDriver::CKnownLists lists(0);
    // Besides the records there are those of a read, and its request: 1023 at most.
    const size_t nFit = (32768 - (3 + 4 * 1023)) / sizeof(void*) - 1023;
    lists.Add("many", Tags(nFit));
    EXPECT_EQ(lists.Find("many"), nullptr);
    lists.Add("fewer", Tags(nFit - 32));
    EXPECT_NE(lists.Find("fewer"), nullptr);
}

TEST(KnownListsBound, WhenTheBytesAreUsedUpAllOthersGo) {
    CDBDriver::CKnownLists lists(0);
    for (size_t i = 0; i < 50; ++i) lists.Add(Text(i) + std::string(3000, 'x'), Tags(1));
    size_t nFound = 0;
    for (size_t i = 0; i < 50; ++i) {
        nFound += lists.Find(Text(i) + std::string(3000, 'x')) != nullptr;
    }
    EXPECT_GE(nFound, 1u);
    EXPECT_LE(nFound, 10u);
}

TEST(KnownListsBound, AllTagsOfADriverWithShortNamesHaveRoom) {
    CDBDriver::CKnownLists lists(65535);
    const std::string strAll(65535 * 11, 'n');  // ten bytes and a comma each
    lists.Add(strAll, Tags(65535));
    EXPECT_NE(lists.Find(strAll), nullptr);
}

}  // namespace
