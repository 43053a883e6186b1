// Bytes that are taken ahead of their turn, and what other receives then see.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "LoopbackPair.h"
#include "SyncSocket.h"

namespace {

class TakeAhead : public ::testing::Test {
  protected:
    void Far(const std::string& str) { peer.Say(str); }
    // Waits until so many bytes are with the system, so that one receive gets them all.
    void Arrived(size_t n) {
        std::string strPeek(n, '\0');
        for (int i = 0; i < 20000; ++i) {
            if (recv(near, &strPeek[0], n, MSG_PEEK | MSG_DONTWAIT) == static_cast<ssize_t>(n)) {
                return;
            }
            usleep(1000);
        }
        FAIL() << "not " << n << " bytes in time";
    }
    static std::string Text(const BYTE* p, size_t n) {
        return p ? std::string(p, p + n) : std::string("null");
    }
    std::string Once(size_t n) { return Text(near.TakeOnce(n), n); }
    std::string All(size_t n) { return Text(near.TakeAll(n), n); }
    std::string Recv(int n) {
        std::string str(static_cast<size_t>(n), '\0');
        str.resize(static_cast<size_t>(std::max(near._Recv(&str[0], n, 0), 0)));
        return str;
    }

    CSyncSocket near;
    CLoopbackPeer peer{near};
};

TEST_F(TakeAhead, BytesComeInTheirOrder) {
    Far("headbodynext");
    Arrived(12);
    EXPECT_EQ(Once(4), "head");
    EXPECT_EQ(All(4), "body");
    EXPECT_EQ(Once(4), "next");
}

TEST_F(TakeAhead, OneReceiveTakesWhatHasCome) {
    Far("headbody");
    Arrived(8);
    EXPECT_EQ(Once(4), "head");
    char ch;
    EXPECT_EQ(recv(near, &ch, 1, MSG_DONTWAIT), -1);  // nothing is left with the system
    EXPECT_EQ(All(4), "body");
}

TEST_F(TakeAhead, WhatIsLeftGoesToTheNextReceive) {
    Far("head12345678");
    Arrived(12);
    EXPECT_EQ(Once(4), "head");
    EXPECT_EQ(Recv(2), "12");
    char buf[2];
    EXPECT_EQ(near.RecvTimeOut(buf, 2, 1), 2);
    EXPECT_EQ(std::string(buf, 2), "34");
    EXPECT_TRUE(near.RecvAll(buf, 2, 0));
    EXPECT_EQ(std::string(buf, 2), "56");
    EXPECT_EQ(All(2), "78");
}

TEST_F(TakeAhead, ReceiveGetsWhatIsLeftAndWhatHasComeSince) {
    Far("head12");
    Arrived(6);
    EXPECT_EQ(Once(4), "head");
    Far("34");
    Arrived(2);
    EXPECT_EQ(Recv(16), "1234");
}

TEST_F(TakeAhead, ReceiveDoesNotWaitForMoreThanWhatIsLeft) {
    Far("head12");
    Arrived(6);
    EXPECT_EQ(Once(4), "head");
    EXPECT_EQ(Recv(16), "12");
}

TEST_F(TakeAhead, RecvAllWaitsForTheRest) {
    Far("head12");
    Arrived(6);
    EXPECT_EQ(Once(4), "head");
    Far("34");
    char buf[4];
    EXPECT_TRUE(near.RecvAll(buf, 4, 0));
    EXPECT_EQ(std::string(buf, 4), "1234");
}

TEST_F(TakeAhead, TakeOnceFailsWhenOneReceiveIsNotEnough) {
    Far("he");
    Arrived(2);
    EXPECT_EQ(Once(4), "null");
    Far("next");  // what came is lost, what comes is not
    EXPECT_EQ(All(4), "next");
}

TEST_F(TakeAhead, TakeOnceAddsWhatHasComeSince) {
    Far("headne");
    Arrived(6);
    EXPECT_EQ(Once(4), "head");
    Far("xt");
    Arrived(2);
    EXPECT_EQ(Once(4), "next");
}

TEST_F(TakeAhead, TakeOnceDoesNotWaitForTheRest) {
    Far("headne");
    Arrived(6);
    EXPECT_EQ(Once(4), "head");
    EXPECT_EQ(Once(4), "null");
    Far("more");
    EXPECT_EQ(Once(4), "more");
}

TEST_F(TakeAhead, TakeAllPutsPiecesTogether) {
    std::thread far([this] {
        for (const char* sz : {"b", "od", "y"}) {
            Far(sz);
            usleep(5000);
        }
    });
    EXPECT_EQ(All(4), "body");
    far.join();
}

TEST_F(TakeAhead, TakeAllOfNothingNeedsNoBytes) {
    Far("head");
    EXPECT_EQ(Once(4), "head");
    EXPECT_NE(near.TakeAll(0), nullptr);
}

TEST_F(TakeAhead, EndOfTheConnectionFailsBoth) {
    Far("bo");
    peer.m_peer.Close();
    EXPECT_EQ(All(4), "null");
    EXPECT_EQ(Once(1), "null");
}

TEST_F(TakeAhead, BytesBeforeTheEndAreTaken) {
    Far("headbody");
    Arrived(8);
    peer.m_peer.Close();
    EXPECT_EQ(Once(4), "head");
    EXPECT_EQ(All(4), "body");
    EXPECT_EQ(Recv(1), "");
}

TEST_F(TakeAhead, TimeOutFailsAsOfAReceive) {
    ASSERT_TRUE(near.SetRecvTimeOut(50));
    EXPECT_EQ(Once(4), "null");
    Far("bo");
    EXPECT_EQ(All(4), "null");
    Far("next");
    EXPECT_EQ(All(4), "next");
}

TEST_F(TakeAhead, MostBytesAtOnce) {
    const std::string str(3 * CSyncSocket::kAheadBytes, 'x');
    Far("h" + str);
    EXPECT_EQ(Once(1), "h");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(All(CSyncSocket::kAheadBytes), std::string(CSyncSocket::kAheadBytes, 'x'));
    }
}

TEST_F(TakeAhead, CloseForgetsWhatIsLeft) {
    Far("headrest");
    Arrived(8);
    EXPECT_EQ(Once(4), "head");
    near.Close();
    EXPECT_EQ(Recv(4), "");
}

}  // namespace
