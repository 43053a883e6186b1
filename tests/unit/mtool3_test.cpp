#include "mtool3.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr BYTE kUntouched = 0xEE;

using Bytes = std::vector<BYTE>;

// The lengths as the rule states them, worked out the slow way.
size_t ScrambledLen(size_t nPlain) {
    return nPlain % 3 ? nPlain / 3 * 4 + nPlain % 3 + 1 : nPlain / 3 * 4;
}

Bytes Plain(size_t nSize) {
    Bytes plain(nSize);
    for (size_t i = 0; i < nSize; ++i) plain[i] = static_cast<BYTE>(0xF0 + 7 * i);
    return plain;
}

// Scrambles with nRoom bytes of room; the vector is as long as the result.
Bytes Scramble(const Bytes& plain, size_t nRoom = 512) {
    Bytes out(nRoom, kUntouched);
    const int n = EncryptPacket(static_cast<UINT>(plain.size()), plain.data(),
                                static_cast<UINT>(nRoom), out.data());
    EXPECT_GE(n, 0);
    out.resize(static_cast<size_t>(n));
    return out;
}

Bytes Unscramble(const Bytes& in, size_t nRoom = 512) {
    Bytes out(nRoom, kUntouched);
    const int n = DecryptPacket(static_cast<UINT>(in.size()), in.data(), static_cast<UINT>(nRoom),
                                out.data());
    EXPECT_GE(n, 0);
    out.resize(static_cast<size_t>(n));
    return out;
}

// --- unscrambling literal bytes

TEST(Unscramble, FullGroup) {
    // k = 0x10: 0x51 - k, 0x32 + k, 0x53 ^ k
    EXPECT_EQ(Unscramble({0x10, 0x51, 0x32, 0x53}), (Bytes{0x41, 0x42, 0x43}));
}

TEST(Unscramble, SumsWrapAround) {
    EXPECT_EQ(Unscramble({0xFF, 0x00, 0x00, 0x0F}), (Bytes{0x01, 0xFF, 0xF0}));
}

TEST(Unscramble, EachGroupHasItsOwnKey) {
    EXPECT_EQ(Unscramble({0x00, 'a', 'b', 'c', 0x01, 'e', 'd', 'g'}),
              (Bytes{'a', 'b', 'c', 'd', 'e', 'f'}));
}

TEST(Unscramble, TailOfOnePlainByte) {
    EXPECT_EQ(Unscramble({0x10, 0x51, 0x32, 0x53, 0x05, 0x49}), (Bytes{0x41, 0x42, 0x43, 0x44}));
}

TEST(Unscramble, TailOfTwoPlainBytes) {
    EXPECT_EQ(Unscramble({0x10, 0x51, 0x32, 0x53, 0x05, 0x49, 0x40}),
              (Bytes{0x41, 0x42, 0x43, 0x44, 0x45}));
    EXPECT_EQ(Unscramble({0xF0, 0x20, 0x20}), (Bytes{0x30, 0x10}));
}

TEST(Unscramble, TailOfASingleByteGivesNothingButTheGroupsAreWritten) {
    const BYTE in[] = {0x10, 0x51, 0x32, 0x53, 0x05};
    BYTE out[8];
    std::memset(out, kUntouched, sizeof out);
    EXPECT_EQ(DecryptPacket(5, in, 8, out), 0);
    EXPECT_EQ(std::memcmp(out, "\x41\x42\x43\xEE\xEE", 5), 0);
    EXPECT_EQ(DecryptPacket(1, in, 8, out), 0);
}

TEST(Unscramble, LengthsByTheRule) {
    const int expected[] = {0, 0, 1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9};
    const Bytes in(12, 0);
    for (UINT n = 0; n <= 12; ++n) {
        BYTE out[16];
        EXPECT_EQ(DecryptPacket(n, in.data(), 16, out), expected[n]) << n;
    }
}

TEST(Unscramble, NothingOfNothing) { EXPECT_EQ(DecryptPacket(0, nullptr, 0, nullptr), 0); }

TEST(Unscramble, NegativeReceiveResultGivesNothing) {
    const BYTE in[4] = {};
    BYTE out[512];
    std::memset(out, kUntouched, sizeof out);
    for (int nReceived : {-1, -2, -3, INT_MIN})
        EXPECT_EQ(DecryptPacket(static_cast<UINT>(nReceived), in, 512, out), 0);
    EXPECT_EQ(out[0], kUntouched);
}

TEST(Unscramble, RoomOnBothSidesOfTheLimit) {
    for (size_t n = 1; n <= 40; ++n) {
        const Bytes plain = Plain(n);
        const Bytes in = Scramble(plain);
        EXPECT_EQ(Unscramble(in, n), plain) << n;
        Bytes out(n + 1, kUntouched);
        EXPECT_EQ(DecryptPacket(static_cast<UINT>(in.size()), in.data(), static_cast<UINT>(n - 1),
                                out.data()),
                  0)
            << n;
        EXPECT_EQ(out[n - 1], kUntouched) << n;  // not a byte beyond the room
    }
}

TEST(Unscramble, GroupsThatDoNotFitAreNotWritten) {
    const Bytes in(8, 0);
    BYTE out[6];
    std::memset(out, kUntouched, sizeof out);
    EXPECT_EQ(DecryptPacket(8, in.data(), 5, out), 0);
    EXPECT_EQ(out[0], kUntouched);
}

// --- scrambling

TEST(Scramble, CombinesEachByteWithTheKeyOfItsGroup) {
    const Bytes plain = {0x00, 0x01, 0xFF, 0x80, 0xFE};
    for (int i = 0; i < 300; ++i) {  // many keys
        const Bytes out = Scramble(plain);
        ASSERT_EQ(out.size(), 7u);
        const int k = out[0], k2 = out[4];
        EXPECT_EQ(out[1], static_cast<BYTE>(0x00 + k));
        EXPECT_EQ(out[2], static_cast<BYTE>(0x01 - k));
        EXPECT_EQ(out[3], static_cast<BYTE>(0xFF ^ k));
        EXPECT_EQ(out[5], static_cast<BYTE>(0x80 + k2));
        EXPECT_EQ(out[6], static_cast<BYTE>(0xFE - k2));
    }
}

TEST(Scramble, DrawsAKeyForEachGroup) {
    std::set<BYTE> keys;
    const Bytes out = Scramble(Bytes(300, 0));
    for (size_t i = 0; i < out.size(); i += 4) keys.insert(out[i]);
    EXPECT_GT(keys.size(), 40u);  // of 100 draws
}

TEST(Scramble, LoginBodyOfSixteenBytesBecomesTwentyTwo) {
    EXPECT_EQ(Scramble(Plain(16), 511).size(), 22u);
}

TEST(Scramble, EveryLengthComesBack) {
    for (size_t n = 0; n <= 40; ++n) {
        const Bytes out = Scramble(Plain(n));
        EXPECT_EQ(out.size(), ScrambledLen(n)) << n;
        EXPECT_EQ(Unscramble(out), Plain(n)) << n;
    }
}

TEST(Scramble, WantsRoomForOneGroupMoreThanTheFullOnes) {
    for (UINT n = 0; n <= 40; ++n) {
        const UINT nRoom = 4 * (n / 3 + 1);
        const Bytes plain = Plain(n + 1);
        Bytes out(nRoom, kUntouched);
        EXPECT_EQ(EncryptPacket(n, plain.data(), nRoom - 1, out.data()), 0) << n;
        EXPECT_EQ(out, Bytes(nRoom, kUntouched)) << n;  // nothing written
        EXPECT_EQ(EncryptPacket(n, plain.data(), nRoom, out.data()),
                  static_cast<int>(ScrambledLen(n)))
            << n;
    }
}

TEST(Scramble, ThreeBytesNeedEightBytesOfRoom) {
    BYTE out[8];
    const BYTE in[3] = {1, 2, 3};
    EXPECT_EQ(EncryptPacket(3, in, 4, out), 0);
    EXPECT_EQ(EncryptPacket(3, in, 7, out), 0);
    EXPECT_EQ(EncryptPacket(3, in, 8, out), 4);
}

TEST(Scramble, WritesNoByteBeyondItsResult) {
    for (UINT n = 0; n <= 40; ++n) {
        Bytes out(64, kUntouched);
        const Bytes plain = Plain(n + 1);
        const int nLen = EncryptPacket(n, plain.data(), 64, out.data());
        for (size_t i = static_cast<size_t>(nLen); i < out.size(); ++i)
            EXPECT_EQ(out[i], kUntouched) << n;
    }
}

TEST(Scramble, HugeLengthsNeverFit) {
    BYTE out[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    const BYTE in[4] = {};
    // 4 x (q + 1) passes 2^32 for the first two.
    for (UINT n : {0xFFFFFFFFu, 0xC0000000u, 0xBFFFFFFFu, 0x80000000u})
        EXPECT_EQ(EncryptPacket(n, in, 4, out), 0);
    EXPECT_EQ(EncryptPacket(0xFFFFFFFFu, in, 0xFFFFFFFFu, out), 0);
    EXPECT_EQ(EncryptPacket(0x70000000u, in, 0xFFFFFFFFu, out), 0);  // no int for the result
    EXPECT_EQ(DecryptPacket(0xFFFFFFFFu, in, 0xFFFFFFFFu, out), 0);
    EXPECT_EQ(out[0], kUntouched);
}

TEST(Scramble, MaxEncryptLenIsTheLargestThatFits) {
    EXPECT_EQ(MaxEncryptLen(511), 380);
    for (UINT nRoom = 4; nRoom <= 64; ++nRoom) {
        const UINT nMax = static_cast<UINT>(MaxEncryptLen(nRoom));
        const Bytes plain = Plain(nMax + 1);
        Bytes out(nRoom);
        EXPECT_GT(EncryptPacket(nMax, plain.data(), nRoom, out.data()), 0) << nRoom;
        EXPECT_EQ(EncryptPacket(nMax + 1, plain.data(), nRoom, out.data()), 0) << nRoom;
    }
    for (UINT nRoom = 0; nRoom < 4; ++nRoom) EXPECT_EQ(MaxEncryptLen(nRoom), -1);
    EXPECT_EQ(MaxEncryptLen(0x80000000u), 0x5FFFFFFF);
}

// --- the generator

TEST(ScramblerRandom, LeavesTheRandomStateOfTheProcessAlone) {
    srand(12345);
    const int nFirst = rand(), nSecond = rand();
    srand(12345);
    EXPECT_EQ(rand(), nFirst);
    Scramble(Plain(40));
    ScramblerRandom();
    EXPECT_EQ(rand(), nSecond);
}

TEST(ScramblerRandom, IsNotSteeredByTheRandomStateOfTheProcess) {
    srand(1);
    const DWORD a = ScramblerRandom(), b = ScramblerRandom(), c = ScramblerRandom();
    srand(1);
    EXPECT_FALSE(ScramblerRandom() == a && ScramblerRandom() == b && ScramblerRandom() == c);
}

TEST(ScramblerRandom, EachThreadDrawsItsOwnNumbers) {
    DWORD a[3], b[3];
    std::thread([&] {
        for (DWORD& n : a) n = ScramblerRandom();
    }).join();
    std::thread([&] {
        for (DWORD& n : b) n = ScramblerRandom();
    }).join();
    EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
}

TEST(ScramblerRandom, LowByteTakesEveryValue) {
    std::set<BYTE> seen;
    for (int i = 0; i < 20000; ++i) seen.insert(static_cast<BYTE>(ScramblerRandom()));
    EXPECT_EQ(seen.size(), 256u);
}

}  // namespace
