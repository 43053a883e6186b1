#include "ScriptedSession.h"

namespace {

// The reply of a read: one chunk.
std::string Chunk(const std::string& strBody, bool bMore = false) {
    return "H" + U8(bMore ? 1 : 0) + U16(static_cast<unsigned>(strBody.size())) + strBody;
}

std::string Int(uint32_t n) { return Hex("03 00") + U32(n); }

class TagRead : public CDriverTest {
  protected:
    void SetUp() override {
        CDriverTest::SetUp();
        Resolve(4);
    }
    static std::string ReadRequest(unsigned nTags) {
        std::string str = "H" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) str += U16(0) + U16(i);
        return str;
    }
    std::string Read(const std::string& strTags) {
        return ReprOf(drv->GetTagValue(strTags.c_str()));
    }
    // What a single tag reads as when the server answers with strValue.
    std::string ReadAs(const std::string& strValue) {
        OnRequest(ReadRequest(1), Chunk(strValue));
        const std::string str = Read("T0");
        EXPECT_EQ(TakeError(), "");
        server.Done();
        return str;
    }
    bool ReadFails(unsigned nTags, const std::string& strReply, bool bClose = false) {
        OnRequest(ReadRequest(nTags), strReply);
        if (bClose) server.Close(0);
        std::string strTags = "T0";
        for (unsigned i = 1; i < nTags; ++i) strTags += ",T" + std::to_string(i);
        return Read(strTags) == "None";
    }
};

// ---- Requests and results -----------------------------------------------------------------------

TEST_F(TagRead, OneTagIsOneValue) {
    OnRequest(Hex("48 01 00 00 00 00 00"), Hex("48 00 06 00 03 00 2A 00 00 00"));
    EXPECT_EQ(Read("T0"), "42");
}

TEST_F(TagRead, TwoTagsAreAList) {
    OnRequest(Hex("48 02 00 00 00 00 00 00 00 01 00"), Chunk(Int(1) + Int(2)));
    EXPECT_EQ(Read("T0,T1"), "[1, 2]");
}

TEST_F(TagRead, RequestNamesTheDriver) {
    drv->m_drvId = 0x1234;
    OnRequest(Hex("48 01 00 34 12 02 00"), Chunk(Int(1)));
    EXPECT_EQ(Read("T2"), "1");
}

TEST_F(TagRead, SameTagTwiceIsAskedTwice) {
    OnRequest(Hex("48 02 00 00 00 00 00 00 00 00 00"), Chunk(Int(1) + Int(2)));
    EXPECT_EQ(Read("T0,T0"), "[2, 2]");
}

TEST_F(TagRead, UnknownNameAloneIsNone) {
    OnLookup({"X"}, {0xFFFF});
    EXPECT_EQ(Read("X"), "None");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagRead, NoNameIsNone) {
    EXPECT_EQ(Read(""), "None");
    EXPECT_EQ(Read(" "), "None");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagRead, SlotsOfUnknownNamesAreEmpty) {
    OnLookup({"X"}, {0xFFFF});
    Ids("X");
    OnRequest(ReadRequest(1), Chunk(Int(5)));
    CPyRef list(drv->GetTagValue("X,T0,X"));
    ASSERT_TRUE(PyList_CheckExact(list));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 3);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 0), nullptr);
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 1)), 5);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 2), nullptr);
    EXPECT_EQ(TakeError(), "");
}

TEST_F(TagRead, ListOfUnknownNamesHasEmptySlotsAndNoRequest) {
    OnLookup({"X", "Y"}, {0xFFFF, 8});
    CPyRef list(drv->GetTagValue("X,Y"));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 2);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 0), nullptr);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 1), nullptr);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagRead, SlotOfATypeWithoutAnObjectIsEmpty) {
    OnRequest(ReadRequest(2), Chunk(Hex("07 00") + std::string(8, '\0') + Int(5)));
    CPyRef list(drv->GetTagValue("T0,T1"));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 2);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 0), nullptr);
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 1)), 5);
    EXPECT_EQ(TakeError(), "");
}

TEST_F(TagRead, MixedListComesInTheOrderOfResolving) {
    OnLookup({"C"}, {6});
    OnRequest(Hex("48 02 00 00 00 00 00 00 00 06 00"), Chunk(Int(10) + Int(16)));
    EXPECT_EQ(Read("C,T0"), "[10, 16]");
}

TEST_F(TagRead, SubscribedTagsAreNotAsked) {
    Subscribe("T0", 1, Int(7));
    EXPECT_EQ(Read("T0"), "7");
    OnRequest(Hex("48 01 00 00 00 01 00"), Chunk(Int(8)));
    EXPECT_EQ(Read("T0,T1"), "[7, 8]");
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagRead, ResolvingThatFailsIsNone) {
    OnRequest(Lookup({"X"}), Hex("30 00 00 00 00"));
    EXPECT_EQ(Read("X"), "None");
}

// ---- Types --------------------------------------------------------------------------------------

TEST_F(TagRead, I2) {
    EXPECT_EQ(ReadAs(Hex("02 00 FE FF")), "-2");
    EXPECT_EQ(ReadAs(Hex("02 00 FF 7F")), "32767");
}
TEST_F(TagRead, I4) {
    EXPECT_EQ(ReadAs(Hex("03 00 FF FF FF 7F")), "2147483647");
    EXPECT_EQ(ReadAs(Hex("03 00 00 00 00 80")), "-2147483648");
}
TEST_F(TagRead, R4IsWidened) { EXPECT_EQ(ReadAs(Hex("04 00 CD CC CC 3D")), "0.10000000149011612"); }
TEST_F(TagRead, R8) { EXPECT_EQ(ReadAs(Hex("05 00 9A 99 99 99 99 99 B9 3F")), "0.1"); }
TEST_F(TagRead, StrIsReadAsUtf8) {
    EXPECT_EQ(ReadAs(Hex("08 00") + Z("\xE4\xB8\xAD")), "'\xE4\xB8\xAD'");
}
TEST_F(TagRead, EmptyStr) { EXPECT_EQ(ReadAs(Hex("08 00 00")), "''"); }
TEST_F(TagRead, StrThatIsNoUtf8GetsReplacementCharacters) {
    EXPECT_EQ(ReadAs(Hex("08 00") + Z("a\xD6\xD0")), "'a\xEF\xBF\xBD\xEF\xBF\xBD'");
}
TEST_F(TagRead, BoolIsTrueForEveryOtherByteThan0) {
    EXPECT_EQ(ReadAs(Hex("0B 00 00")), "False");
    EXPECT_EQ(ReadAs(Hex("0B 00 01")), "True");
    EXPECT_EQ(ReadAs(Hex("0B 00 02")), "True");
    EXPECT_EQ(ReadAs(Hex("0B 00 FF")), "True");
}
TEST_F(TagRead, I1IsUnsigned) { EXPECT_EQ(ReadAs(Hex("10 00 FF")), "255"); }
TEST_F(TagRead, UI1) { EXPECT_EQ(ReadAs(Hex("11 00 FF")), "255"); }
TEST_F(TagRead, UI2) { EXPECT_EQ(ReadAs(Hex("12 00 FF FF")), "65535"); }
TEST_F(TagRead, UI4IsReadAsSigned) { EXPECT_EQ(ReadAs(Hex("13 00 FF FF FF FF")), "-1"); }
TEST_F(TagRead, Int) { EXPECT_EQ(ReadAs(Hex("16 00 FE FF FF FF")), "-2"); }
TEST_F(TagRead, UIntIsReadAsSigned) { EXPECT_EQ(ReadAs(Hex("17 00 FE FF FF FF")), "-2"); }

TEST_F(TagRead, DateAndI8AreNullWithoutAnError) {
    EXPECT_EQ(ReadAs(Hex("07 00 00 00 00 00 00 00 00 00")), "NULL");
    EXPECT_EQ(ReadAs(Hex("14 00 01 00 00 00 00 00 00 00")), "NULL");
}

TEST_F(TagRead, EveryTypeWithoutAPayloadIsNullWithoutAnError) {
    for (const unsigned nType :
         {0u, 1u, 6u, 9u, 10u, 12u, 13u, 14u, 15u, 21u, 24u, 255u, 0x2003u}) {
        EXPECT_EQ(ReadAs(U16(nType)), "NULL") << nType;
    }
}

TEST_F(TagRead, TagNeverReadIsNullWithoutAnError) {
    EXPECT_EQ(Value(3), "NULL");
    EXPECT_EQ(TakeError(), "");
}

TEST_F(TagRead, ArrayEndsItsChunk) {
    // What follows an array in its chunk is not looked at; the next chunk goes on.
    OnRequest(ReadRequest(2),
              Chunk(Hex("00 20 02 00") + Hex("11 00 01 11 00 02") + "junk", true) + Chunk(Int(9)));
    CPyRef list(drv->GetTagValue("T0,T1"));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 2);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 0), nullptr);
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 1)), 9);
    EXPECT_EQ(drv->m_tags[0].value.vt, 8204);
}

TEST_F(TagRead, CutArrayFails) {
    EXPECT_TRUE(ReadFails(1, Chunk(Hex("00 20 02 00 11 00 01 11 00"))));
}

// ---- Chunks -------------------------------------------------------------------------------------

TEST_F(TagRead, TwoChunksFillAllRecords) {
    OnRequest(ReadRequest(3), Chunk(Int(1) + Int(2), true) + Chunk(Int(3)));
    EXPECT_EQ(Read("T0,T1,T2"), "[1, 2, 3]");
}

TEST_F(TagRead, LastChunkEndsTheReadAlsoWhenValuesAreMissing) {
    OnRequest(ReadRequest(2), Chunk(Int(1)));
    CPyRef list(drv->GetTagValue("T0,T1"));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 2);
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 0)), 1);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 1), nullptr);
}

TEST_F(TagRead, OnlyFlag1MeansAnotherChunk) {
    for (const unsigned nFlag : {0u, 2u, 255u}) {
        OnRequest(ReadRequest(2), "H" + U8(nFlag) + U16(6) + Int(1));
        CPyRef list(drv->GetTagValue("T0,T1"));
        EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 0)), 1) << nFlag;
        EXPECT_TRUE(server.Done());
    }
}

TEST_F(TagRead, ReadEndsWithItsLastRecordWhateverTheFlag) {
    OnRequest(ReadRequest(1), Chunk(Int(1), true));
    EXPECT_EQ(Read("T0"), "1");
}

TEST_F(TagRead, EmptyLastChunkIsASuccessThatChangesNothing) {
    drv->m_tags[0].value = 77;
    OnRequest(ReadRequest(1), Chunk(""));
    EXPECT_EQ(Read("T0"), "77");
}

TEST_F(TagRead, FifteenEmptyChunksAreLetPass) {
    OnRequest(ReadRequest(1), Repeat(Chunk("", true), 15) + Chunk(Int(1)));
    EXPECT_EQ(Read("T0"), "1");
}

TEST_F(TagRead, SixteenEmptyChunksFail) { EXPECT_TRUE(ReadFails(1, Repeat(Chunk("", true), 16))); }

TEST_F(TagRead, OnlyEmptyChunksInARowCount) {
    OnRequest(ReadRequest(2), Repeat(Chunk("", true), 15) + Chunk(Int(1), true) +
                                  Repeat(Chunk("", true), 15) + Chunk(Int(2)));
    EXPECT_EQ(Read("T0,T1"), "[1, 2]");
}

TEST_F(TagRead, ChunkOf4096BytesIsTaken) {
    OnRequest(ReadRequest(1), Chunk(Hex("08 00") + Z(std::string(4093, 'x'))));
    EXPECT_EQ(Read("T0").size(), 4093u + 2);
}

TEST_F(TagRead, ChunkOf4097BytesFails) {
    EXPECT_TRUE(ReadFails(1, Chunk(Hex("08 00") + Z(std::string(4094, 'x')))));
    EXPECT_EQ(drv->m_tags[0].value.vt, VT_EMPTY);
}

TEST_F(TagRead, BodyInPiecesIsPutTogether) {
    server.Expect(0, ReadRequest(1));
    server.Send(0, Chunk(Int(42)).substr(0, 4));
    server.UntilTaken(0, core->m_reqSock);
    server.Drip(0, Int(42));
    EXPECT_EQ(Read("T0"), "42");
    EXPECT_TRUE(server.Done());  // the session ends only then
}

TEST_F(TagRead, HeaderInPiecesFails) {
    server.Expect(0, ReadRequest(1));
    server.Send(0, Chunk(Int(42)).substr(0, 2));
    server.UntilTaken(0, core->m_reqSock);
    server.Send(0, Chunk(Int(42)).substr(2));
    EXPECT_EQ(Read("T0"), "None");
    EXPECT_TRUE(server.Done());  // the session ends only then
}

TEST_F(TagRead, OtherCodeFails) { EXPECT_TRUE(ReadFails(1, "h" + Chunk(Int(1)).substr(1))); }

TEST_F(TagRead, OtherCodeInASecondChunkFailsAndTheFirstStays) {
    EXPECT_TRUE(ReadFails(2, Chunk(Int(1), true) + "x" + Chunk(Int(2)).substr(1)));
    EXPECT_EQ(Value(0), "1");
    EXPECT_EQ(Value(1), "NULL");
}

TEST_F(TagRead, MoreValuesThanAskedFail) {
    EXPECT_TRUE(ReadFails(1, Chunk(Int(1) + Int(2))));
    EXPECT_EQ(Value(0), "1");
}

TEST_F(TagRead, ValueCutByItsChunksEndFailsAndIsNotStored) {
    for (const char* sz : {"03", "03 00", "03 00 01 02 03", "08 00", "08 00 41", "05 00 00"}) {
        const std::string strCut = Hex(sz);
        drv->m_tags[0].value = 77;
        EXPECT_TRUE(ReadFails(1, Chunk(strCut))) << sz;
        EXPECT_EQ(Value(0), "77") << sz;
        EXPECT_TRUE(server.Done());
    }
}

TEST_F(TagRead, EveryShorterReplyFails) {
    const std::string strReply = Chunk(Int(1) + Int(2));
    for (size_t n = 0; n < strReply.size(); ++n) {
        if (n > 0) {
            core->_Disconnect();
            OrderHellos(2 * n);
            OrderUser(2 * n);
            ASSERT_EQ(Connect(), kConnected);
            drv = core->_GetDriver("Boiler");
            nReq = 2 * n;
            Resolve(2);
        }
        OnRequest(ReadRequest(2), strReply.substr(0, n));
        server.Close(nReq);
        EXPECT_EQ(Read("T0,T1"), "None") << n;
    }
}

// ---- The limit ----------------------------------------------------------------------------------

class ManyTagsRead : public CDriverTest {
  protected:
    ManyTagsRead() { plant.strDrvInfo = Z("Boiler") + U16(0) + U16(1100); }
    // Resolves without the wire: ids are known.
    std::string Known(unsigned nTags) {
        std::string strList;
        for (unsigned i = 0; i < nTags; ++i) {
            drv->m_mapTagToId[CString(std::to_string(i))] = static_cast<WORD>(i);
            strList += std::to_string(i) + ",";
        }
        return strList;
    }
    static std::string Request(unsigned nTags) {
        std::string str = "H" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) str += U16(0) + U16(i);
        return str;
    }
    std::string Replies(unsigned nTags) {
        std::string str;
        for (unsigned i = 0; i < nTags; i += 100) {
            std::string strBody;
            for (unsigned n = i; n < nTags && n < i + 100; ++n) strBody += Int(n);
            str += Chunk(strBody, i + 100 < nTags);
        }
        return str;
    }
};

TEST_F(ManyTagsRead, ThousandAndTwentyThreeAreAskedAtOnce) {
    const std::string strTags = Known(1023);
    ASSERT_EQ(Request(1023).size(), 4095u);
    OnRequest(Request(1023), Replies(1023));
    CPyRef list(drv->GetTagValue(strTags.c_str()));
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 1022)), 1022);
}

TEST_F(ManyTagsRead, TagsBeyondAreNotAsked) {
    const std::string strTags = Known(1030);
    OnRequest(Request(1023), Replies(1023));
    CPyRef list(drv->GetTagValue(strTags.c_str()));
    ASSERT_EQ(PyList_GET_SIZE(list.Get()), 1030);
    EXPECT_EQ(PyLong_AsLong(PyList_GET_ITEM(list.Get(), 1022)), 1022);
    EXPECT_EQ(PyList_GET_ITEM(list.Get(), 1023), nullptr);
    EXPECT_EQ(server.Unread(0), "");
}

}  // namespace
