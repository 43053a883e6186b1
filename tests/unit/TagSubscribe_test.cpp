#include "ScriptedSession.h"

namespace {

std::string Chunk(const std::string& strBody) {
    return "b" + U16(static_cast<unsigned>(strBody.size())) + strBody;
}

std::string Int(uint32_t n) { return Hex("03 00") + U32(n); }

class TagSubscribe : public CDriverTest {
  protected:
    void SetUp() override {
        CDriverTest::SetUp();
        Resolve(4);
    }
    static std::string Request(unsigned nTags) {
        std::string str = "b" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) str += U16(0) + U16(i) + U8(0);
        return str;
    }
    // Which of the first four tags are subscribed.
    std::string Subscribed() const {
        std::string str;
        for (size_t i = 0; i < 4; ++i) str += drv->m_tags[i].bSubscribe ? "x" : "-";
        return str;
    }
};

TEST_F(TagSubscribe, OneTagIsAskedAndStored) {
    OnRequest(Hex("62 01 00 00 00 02 00 00"), Hex("62 06 00 03 00 2A 00 00 00"));
    EXPECT_TRUE(drv->_ConnectTag("T2"));
    EXPECT_EQ(Value(2), "42");
    EXPECT_EQ(Subscribed(), "--x-");
}

TEST_F(TagSubscribe, RequestNamesTheDriver) {
    drv->m_drvId = 0x1234;
    OnRequest(Hex("62 01 00 34 12 02 00 00"), Chunk(Int(1)));
    EXPECT_TRUE(drv->_ConnectTag("T2"));
}

TEST_F(TagSubscribe, ValuesComeInTheOrderAsked) {
    OnRequest(Request(3), Chunk(Int(1) + Hex("08 00") + Z("two") + Hex("0B 00 01")));
    EXPECT_TRUE(drv->_ConnectTag("T0,T1,T2"));
    EXPECT_EQ(Value(0) + Value(1) + Value(2), "1'two'True");
}

TEST_F(TagSubscribe, SubscribedTagsAreNotAskedAgain) {
    Subscribe("T0", 1, Int(1));
    EXPECT_TRUE(drv->_ConnectTag("T0"));
    OnRequest(Hex("62 01 00 00 00 01 00 00"), Chunk(Int(2)));
    EXPECT_TRUE(drv->_ConnectTag("T0,T1"));
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagSubscribe, UnknownNamesAloneSucceedWithoutARequest) {
    OnLookup({"X"}, {0xFFFF});
    EXPECT_TRUE(drv->_ConnectTag("X"));
    EXPECT_TRUE(drv->_ConnectTag(""));
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(TagSubscribe, UnknownNamesAreLeftOut) {
    OnLookup({"X"}, {0xFFFF});
    OnRequest(Request(1), Chunk(Int(1)));
    EXPECT_TRUE(drv->_ConnectTag("X,T0"));
    EXPECT_EQ(Subscribed(), "x---");
}

TEST_F(TagSubscribe, ResolvingThatFailsIsAFailure) {
    OnRequest(Lookup({"X"}), Hex("30 00 00 00 00"));
    EXPECT_FALSE(drv->_ConnectTag("X"));
}

TEST_F(TagSubscribe, ChunksAreReadUntilAllValuesCame) {
    OnRequest(Request(3), Chunk(Int(1)) + Chunk(Int(2) + Int(3)));
    EXPECT_TRUE(drv->_ConnectTag("T0,T1,T2"));
    EXPECT_EQ(Value(2), "3");
}

TEST_F(TagSubscribe, ChunkAfterTheLastValueStaysUnread) {
    OnRequest(Request(1), Chunk(Int(1)) + Chunk(Int(9)));
    EXPECT_TRUE(drv->_ConnectTag("T0"));
    server.Expect(0, Hex("62 01 00 00 00 01 00 00"));
    EXPECT_TRUE(drv->_ConnectTag("T1"));  // it is the reply of the next request
    EXPECT_EQ(Value(1), "9");
}

TEST_F(TagSubscribe, CodeAndLengthMayComeInTwoReceives) {
    server.Expect(0, Request(1));
    server.Send(0, "b");
    server.UntilTaken(0, core->m_reqSock);
    server.Send(0, U16(6));
    server.UntilTaken(0, core->m_reqSock);
    server.Drip(0, Int(42));
    EXPECT_TRUE(drv->_ConnectTag("T0"));
    EXPECT_EQ(Value(0), "42");
    EXPECT_TRUE(server.Done());  // the session ends only then
}

TEST_F(TagSubscribe, LengthInTwoReceivesFails) {
    server.Expect(0, Request(1));
    server.Send(0, "b" + U8(6));
    server.UntilTaken(0, core->m_reqSock);
    server.Send(0, U8(0) + Int(42));
    EXPECT_FALSE(drv->_ConnectTag("T0"));
    EXPECT_EQ(Subscribed(), "----");
    EXPECT_TRUE(server.Done());  // the session ends only then
}

TEST_F(TagSubscribe, OtherCodeFails) {
    OnRequest(Request(1), "0" + Chunk(Int(1)).substr(1));
    EXPECT_FALSE(drv->_ConnectTag("T0"));
    EXPECT_EQ(Subscribed(), "----");
}

TEST_F(TagSubscribe, OtherCodeInASecondChunkFailsAndTheFirstStays) {
    OnRequest(Request(2), Chunk(Int(1)) + "x");
    EXPECT_FALSE(drv->_ConnectTag("T0,T1"));
    EXPECT_EQ(Subscribed(), "x---");
    EXPECT_EQ(Value(0), "1");
}

TEST_F(TagSubscribe, FifteenEmptyChunksAreLetPass) {
    OnRequest(Request(1), Repeat(Chunk(""), 15) + Chunk(Int(1)));
    EXPECT_TRUE(drv->_ConnectTag("T0"));
}

TEST_F(TagSubscribe, SixteenEmptyChunksFail) {
    OnRequest(Request(1), Repeat(Chunk(""), 16) + Chunk(Int(1)));
    EXPECT_FALSE(drv->_ConnectTag("T0"));
}

TEST_F(TagSubscribe, ChunkOf4096BytesIsTaken) {
    OnRequest(Request(1), Chunk(Hex("08 00") + Z(std::string(4093, 'x'))));
    EXPECT_TRUE(drv->_ConnectTag("T0"));
}

TEST_F(TagSubscribe, ChunkOf4097BytesFails) {
    OnRequest(Request(1), Chunk(Hex("08 00") + Z(std::string(4094, 'x'))));
    EXPECT_FALSE(drv->_ConnectTag("T0"));
    EXPECT_EQ(Subscribed(), "----");
}

TEST_F(TagSubscribe, MoreValuesThanAskedFail) {
    OnRequest(Request(1), Chunk(Int(1) + Int(2)));
    EXPECT_FALSE(drv->_ConnectTag("T0"));
    EXPECT_EQ(Subscribed(), "x---");
}

TEST_F(TagSubscribe, ValueCutByItsChunksEndFailsAndIsNotSubscribed) {
    OnRequest(Request(2), Chunk(Int(1) + Int(2).substr(0, 5)));
    EXPECT_FALSE(drv->_ConnectTag("T0,T1"));
    EXPECT_EQ(Subscribed(), "x---");
    EXPECT_EQ(Value(1), "NULL");
}

TEST_F(TagSubscribe, ArrayEndsItsChunk) {
    OnRequest(Request(2), Chunk(Hex("00 20 01 00 11 00 01") + "junk") + Chunk(Int(9)));
    EXPECT_TRUE(drv->_ConnectTag("T0,T1"));
    EXPECT_EQ(Value(1), "9");
    EXPECT_EQ(Subscribed(), "xx--");
}

TEST_F(TagSubscribe, EveryShorterReplyFails) {
    const std::string strReply = Chunk(Int(1)) + Chunk(Int(2));
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
        OnRequest(Request(2), strReply.substr(0, n));
        server.Close(nReq);
        EXPECT_FALSE(drv->_ConnectTag("T0,T1")) << n;
        EXPECT_EQ(drv->m_tags[0].bSubscribe, n >= 9) << n;
    }
}

TEST_F(TagSubscribe, NotificationKeepsTheValueCurrent) {
    Subscribe("T0", 1, Int(1));
    Push(U16(0) + U16(0) + U32(2));
    EXPECT_TRUE(WaitFor([&] { return ReprOf(drv->GetTagValue("T0")) == "2"; }));
    EXPECT_EQ(server.Unread(0), "");
}

class ManyTagsSubscribe : public CDriverTest {
  protected:
    ManyTagsSubscribe() { plant.strDrvInfo = Z("Boiler") + U16(0) + U16(600); }
    bool ConnectTags(unsigned nTags) {
        std::string strList;
        for (unsigned i = 0; i < nTags; ++i) {
            drv->m_mapTagToId[CString(std::to_string(i))] = static_cast<WORD>(i);
            strList += std::to_string(i) + ",";
        }
        return drv->_ConnectTag(strList.c_str());
    }
    void OrderItems(unsigned nFrom, unsigned nTo) {
        std::string strRequest = "b" + U16(nTo - nFrom);
        std::string strReply;
        for (unsigned i = nFrom; i < nTo; ++i) {
            strRequest += U16(0) + U16(i) + U8(0);
            strReply += Hex("11 00 01");
        }
        OnRequest(strRequest, Chunk(strReply));
    }
};

TEST_F(ManyTagsSubscribe, FirstFiveHundredAndNineteenOfSixHundred) {
    OrderItems(0, 519);
    EXPECT_TRUE(ConnectTags(600));
    EXPECT_TRUE(drv->m_tags[518].bSubscribe);
    EXPECT_FALSE(drv->m_tags[519].bSubscribe);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(ManyTagsSubscribe, RestWithASecondCall) {
    OrderItems(0, 519);
    EXPECT_TRUE(ConnectTags(600));
    OrderItems(519, 600);
    EXPECT_TRUE(ConnectTags(600));
    EXPECT_TRUE(drv->m_tags[599].bSubscribe);
}

TEST_F(ManyTagsSubscribe, FiveHundredAndEighteenAreNoLimit) {
    OrderItems(0, 518);
    EXPECT_TRUE(ConnectTags(518));
}

}  // namespace
