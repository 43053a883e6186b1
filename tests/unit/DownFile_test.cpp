#include "DownFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "DownFileFixture.h"
#include "LoopbackPair.h"
#include "ScnSocket.h"

namespace {

using DownFile = CDownFileTest;

// --- is the copy current?

TEST_F(DownFile, CopyOfTheSameSizeWithinThreeSecondsIsCurrent) {
    PutAged("f.dat", "0123456789");
    for (long n : {-3L, 0L, 3L})
        EXPECT_EQ(Transfer("f.dat", static_cast<unsigned long>(kTime + n), 10), EGetFile::kCurrent)
            << n;
    EXPECT_TRUE(m_sock.m_sent.empty());
    EXPECT_TRUE(m_sock.m_asked.empty());
    EXPECT_EQ(m_progress.m_calls, "");
}

TEST_F(DownFile, CopyFourSecondsOffIsAskedForWithItsTimeAndSize) {
    PutAged("f.dat", "0123456789");
    for (long n : {-4L, 4L}) {
        m_sock.m_sent.clear();
        EXPECT_EQ(Transfer("f.dat", static_cast<unsigned long>(kTime + n), 10), EGetFile::kFailed);
        EXPECT_EQ(Request(), "4f.dat\r\nLastTime:5F5E1000\r\nSize:A\r\nHello:Yes\r\n\r\n");
    }
}

TEST_F(DownFile, CopyOfAnotherSizeIsAskedFor) {
    PutAged("f.dat", "0123456789");
    EXPECT_EQ(Transfer("f.dat", kTime, 11), EGetFile::kFailed);
    EXPECT_EQ(m_sock.m_sent.size(), 1u);
}

TEST_F(DownFile, TimesAreComparedAsUnsigned32Bits) {
    PutAged("f.dat", "x", static_cast<time_t>(0x80000001u));
    if (static_cast<DWORD>(m_folder.Stat("f.dat").st_mtime) != 0x80000001u)
        GTEST_SKIP() << "this file system keeps no such time";
    EXPECT_EQ(Transfer("f.dat", 0x7FFFFFFFul, 1), EGetFile::kCurrent);
    EXPECT_EQ(Transfer("f.dat", 0x80000004ul, 1), EGetFile::kCurrent);
    EXPECT_EQ(Transfer("f.dat", 0x80000005ul, 1), EGetFile::kFailed);
    // No way round the end of the range.
    m_folder.SetTime("f.dat", 1);
    EXPECT_EQ(Transfer("f.dat", 0xFFFFFFFFul, 1), EGetFile::kFailed);
}

TEST_F(DownFile, OnlyTheLow32BitsOfWhatTheCallerKnowsCount) {
    if (sizeof(unsigned long) == 4) GTEST_SKIP() << "a long has no high bits here";
    PutAged("f.dat", "x");
    const unsigned long nHigh = static_cast<unsigned long>(0x700000000ull);
    EXPECT_EQ(Transfer("f.dat", nHigh + kTime, nHigh + 1), EGetFile::kCurrent);
}

TEST_F(DownFile, CopyBeyondFourGigabytesIsNotTakenForASmallOne) {
    m_folder.Put("f.dat", "");
    ASSERT_EQ(truncate(m_folder.Path("f.dat").c_str(), 0x100000005), 0);  // takes no space
    m_folder.SetTime("f.dat", kTime);
    EXPECT_EQ(Transfer("f.dat", kTime, 5), EGetFile::kFailed);
    EXPECT_EQ(Request(), "4f.dat\r\nLastTime:5F5E1000\r\nSize:5\r\nHello:Yes\r\n\r\n");
}

// --- the request

TEST_F(DownFile, RequestForAFileThatIsNotHeld) {
    EXPECT_EQ(Transfer("RecData/drvinfo.dat"), EGetFile::kFailed);
    EXPECT_EQ(Request(), "4RecData/drvinfo.dat\r\nHello:Yes\r\n\r\n");
}

TEST_F(DownFile, RequestTellsOfTheCompressedSibling) {
    PutAged("f.dat.gz", std::string(0x1BC, 'z'), 0x6000ABCD);
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    EXPECT_EQ(Request(), "4f.dat\r\ngzTime:6000ABCD\r\ngzSize:1BC\r\nHello:Yes\r\n\r\n");
}

TEST_F(DownFile, RequestTellsOfBothInThatOrder) {
    PutAged("f.dat", "0123456789");
    PutAged("f.dat.gz", "", 16);
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    EXPECT_EQ(Request(),
              "4f.dat\r\nLastTime:5F5E1000\r\nSize:A\r\ngzTime:10\r\ngzSize:0\r\n"
              "Hello:Yes\r\n\r\n");
}

TEST_F(DownFile, RequestPrintsTimesAs32Bits) {
    PutAged("f.dat", "x", static_cast<time_t>(0x90000000u));
    if (static_cast<DWORD>(m_folder.Stat("f.dat").st_mtime) != 0x90000000u)
        GTEST_SKIP() << "this file system keeps no such time";
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    EXPECT_EQ(Request(), "4f.dat\r\nLastTime:90000000\r\nSize:1\r\nHello:Yes\r\n\r\n");
}

TEST_F(DownFile, RequestCarriesCodeAndRelayPrefix) {
    EXPECT_EQ(TransferFile("f.dat", m_sock, 'Z', m_folder.Path(), 0, 0, nullptr, "Plant|"),
              EGetFile::kFailed);
    EXPECT_EQ(Request(), "ZPlant|f.dat\r\nHello:Yes\r\n\r\n");
}

TEST_F(DownFile, NameTravelsInGb2312AndTheFileIsNamedInUtf8) {
    m_sock.m_script = {"Size:1\r\n\r\nx"};
    EXPECT_EQ(Transfer("\xD6\xD0.dat"), EGetFile::kWritten);
    EXPECT_EQ(Request(), "4\xD6\xD0.dat\r\nHello:Yes\r\n\r\n");
    EXPECT_EQ(m_folder.Get("\xE4\xB8\xAD.dat"), "x");
    // Found again, the compressed one too.
    PutAged("\xE4\xB8\xAD.dat", "x");
    PutAged("\xE4\xB8\xAD.dat.gz", "zz");
    EXPECT_EQ(Transfer("\xD6\xD0.dat", kTime, 1), EGetFile::kCurrent);
    m_sock.m_sent.clear();
    EXPECT_EQ(Transfer("\xD6\xD0.dat", kTime, 2), EGetFile::kFailed);
    EXPECT_EQ(Request(),
              "4\xD6\xD0.dat\r\nLastTime:5F5E1000\r\nSize:1\r\n"
              "gzTime:5F5E1000\r\ngzSize:2\r\nHello:Yes\r\n\r\n");
}

TEST_F(DownFile, PathAndNameAreJoinedAsTheyAre) {
    m_sock.m_script = {"Size:1\r\n\r\nx"};
    const std::string strPrefix = m_folder.Path("pre");
    EXPECT_EQ(TransferFile("fix", m_sock, '4', strPrefix.c_str(), 0, 0, nullptr, nullptr),
              EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("prefix"), "x");
}

TEST_F(DownFile, NameThatIsNoGb2312MeetsNoFile) {
    // Cut where its conversion stops, it would be the name of this one.
    PutAged("f", "mine");
    PutAged("f.gz", "mine");
    m_sock.m_script = {"Size:1\r\n\r\nx"};
    EXPECT_EQ(Transfer("f\xFFoo", kTime, 4), EGetFile::kNotWritten);
    EXPECT_EQ(Request(), "4f\xFFoo\r\nHello:Yes\r\n\r\n");
    m_sock.m_script = {"Exist:No\r\n\r\n"};
    EXPECT_EQ(Transfer("f\xFFoo"), EGetFile::kRemoved);
    EXPECT_EQ(m_folder.Get("f"), "mine");
    EXPECT_EQ(m_folder.Get("f.gz"), "mine");
}

TEST_F(DownFile, RequestThatCannotBeSentFails) {
    for (int nResult : {0, -1}) {
        m_sock.m_sendResults = {nResult};
        EXPECT_EQ(Transfer(), EGetFile::kFailed);
    }
    EXPECT_EQ(m_sock.m_sent.size(), 2u);
    EXPECT_TRUE(m_sock.m_asked.empty());
}

// --- the reply and what it decides

TEST_F(DownFile, FirstReceiveWithoutBytesFails) {
    PutAged("f.dat", "mine");
    EXPECT_EQ(TransferOf({""}), EGetFile::kFailed);
    EXPECT_EQ(TransferOf({}), EGetFile::kFailed);
    EXPECT_EQ(m_sock.m_asked, (std::vector<int>{2048, 2048}));
    EXPECT_EQ(m_folder.Get("f.dat"), "mine");
}

TEST_F(DownFile, FileThatTheServerDoesNotHaveIsRemoved) {
    PutAged("f.dat", "mine");
    PutAged("f.dat.gz", "zipped");
    EXPECT_EQ(TransferOf({"Exist:No\r\nUseLast:Yes\r\nSize:5\r\n\r\n"}), EGetFile::kRemoved);
    EXPECT_FALSE(m_folder.Has("f.dat"));
    EXPECT_EQ(m_folder.Get("f.dat.gz"), "zipped");
    EXPECT_EQ(m_sock.m_asked.size(), 1u);
    EXPECT_EQ(TransferOf({"Exist:No\r\n\r\n"}), EGetFile::kRemoved);  // and once more
    EXPECT_EQ(m_progress.m_calls, "");
}

TEST_F(DownFile, CopyThatTheServerCallsCurrentIsKept) {
    PutAged("f.dat", "mine");
    EXPECT_EQ(TransferOf({"UseLast:Yes\r\nFileTime:10\r\nSize:5\r\n\r\n"}), EGetFile::kKept);
    EXPECT_EQ(m_folder.Get("f.dat"), "mine");
    EXPECT_EQ(m_folder.Stat("f.dat").st_mtime, kTime);
    EXPECT_EQ(m_sock.m_asked.size(), 1u);
    EXPECT_EQ(m_progress.m_calls, "");
}

TEST_F(DownFile, TargetThatCannotBeOpenedIsNotReceived) {
    ASSERT_EQ(mkdir(m_folder.Path("f.dat").c_str(), 0700), 0);
    EXPECT_EQ(TransferOf({"Size:5\r\nFileTime:10\r\n\r\n", "01234"}), EGetFile::kNotWritten);
    EXPECT_EQ(m_sock.m_asked.size(), 1u);  // the body stays on the socket
    EXPECT_NE(m_folder.Stat("f.dat").st_mtime, 16);
    EXPECT_EQ(Transfer("missing/f.dat"), EGetFile::kNotWritten);
    EXPECT_EQ(m_progress.m_calls, "");
}

TEST_F(DownFile, LinkInPlaceOfTheFileIsNeitherToldNorFollowed) {
    CTempFolder elsewhere;
    elsewhere.Put("victim", "theirs");
    elsewhere.SetTime("victim", kTime);
    for (const char* szName : {"f.dat", "f.dat.gz"})
        ASSERT_EQ(symlink(elsewhere.Path("victim").c_str(), m_folder.Path(szName).c_str()), 0);
    EXPECT_EQ(TransferOf({"Size:2\r\nFileTime:10\r\n\r\nab"}), EGetFile::kNotWritten);
    EXPECT_EQ(Request(), "4f.dat\r\nHello:Yes\r\n\r\n");
    EXPECT_EQ(TransferOf({"Size:2\r\nFileTime:10\r\nGZ:Yes\r\n\r\nab"}), EGetFile::kNotWritten);
    EXPECT_EQ(Transfer("f.dat", kTime, 6), EGetFile::kFailed);  // not held, so asked for
    EXPECT_EQ(TransferOf({"Exist:No\r\n\r\n"}), EGetFile::kRemoved);
    EXPECT_FALSE(m_folder.Has("f.dat"));  // the link is gone, and nothing else
    EXPECT_EQ(elsewhere.Get("victim"), "theirs");
    EXPECT_EQ(elsewhere.Stat("victim").st_mtime, kTime);
}

// --- the plain face

TEST_F(DownFile, GetFileIsZeroForAFailureAlone) {
    const auto get = [&](const char* szReply) {
        m_sock.m_script = {szReply};
        return GetFile("f.dat", m_sock, '4', m_folder.Path(), kTime, 2, nullptr, nullptr);
    };
    EXPECT_EQ(get("Size:3\r\n\r\nab"), 0);                       // broken
    EXPECT_EQ(get("Size:2\r\nFileTime:5F5E1000\r\n\r\nab"), 1);  // written
    EXPECT_EQ(get("unread"), 1);                                 // current
    m_folder.Put("f.dat", "other");
    EXPECT_EQ(get("UseLast:Yes\r\n\r\n"), 1);  // kept
    EXPECT_EQ(get("Exist:No\r\n\r\n"), 1);     // removed
    ASSERT_EQ(mkdir(m_folder.Path("f.dat").c_str(), 0700), 0);
    EXPECT_EQ(get("Size:3\r\n\r\nab"), 1);  // not written
}

TEST_F(DownFile, GetFilePassesEverythingOn) {
    const std::string strBody = Pattern(40000);
    m_sock.m_script = {"Size:9C40\r\nHello:Yes\r\n\r\n" + strBody.substr(0, 10),
                       strBody.substr(10)};
    EXPECT_EQ(GetFile("f.dat", m_sock, 'Q', m_folder.Path(), 0, 0, &m_progress, "relay/"), 1);
    EXPECT_EQ(m_sock.m_sent[0], "Qrelay/f.dat\r\nHello:Yes\r\n\r\n");
    EXPECT_EQ(AckCounts(m_sock, 'Q'), (std::vector<unsigned long>{38912}));
    EXPECT_NE(m_progress.m_calls, "");
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
}

// --- over a connection

class DownFileOverTcp : public ::testing::Test {
  protected:
    EGetFile Transfer() {
        return TransferFile("f.dat", m_sock, '4', m_folder.Path(), 0, 0, nullptr, nullptr);
    }

    CTempFolder m_folder;
    CReqTimeSock m_sock;
    CLoopbackPeer m_server{m_sock};
    const std::string m_strRequest = "4f.dat\r\nHello:Yes\r\n\r\n";
};

TEST_F(DownFileOverTcp, ServerThatWaitsForAcknowledgementsGetsThem) {
    const std::string strReply = "Size:61A80\r\nHello:Yes\r\nFileTime:5F5E1000\r\n\r\n";
    const std::string strBody = Pattern(400000);
    std::thread server([&] {
        EXPECT_EQ(m_server.Hear(m_strRequest.size()), m_strRequest);
        const std::string strAll = strReply + strBody;
        m_server.Say(strAll.substr(0, 131072));
        EXPECT_EQ(m_server.Hear(12), std::string("4Hello20000\0", 12));
        m_server.Say(strAll.substr(131072, 120832));
        EXPECT_EQ(m_server.Hear(12), std::string("4Hello1D800\0", 12));
        m_server.Say(strAll.substr(131072 + 120832, 110592));
        EXPECT_EQ(m_server.Hear(12), std::string("4Hello1B000\0", 12));
        m_server.Say(strAll.substr(131072 + 120832 + 110592));
    });
    EXPECT_EQ(Transfer(), EGetFile::kWritten);
    server.join();
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
    EXPECT_EQ(m_folder.Stat("f.dat").st_mtime, kTime);
}

TEST_F(DownFileOverTcp, ConnectionThatEndsInTheBodyFails) {
    std::thread server([&] {
        m_server.Hear(m_strRequest.size());
        m_server.Say("Size:A\r\nFileTime:10\r\n\r\n0123");
        m_server.m_peer.Close();
    });
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    server.join();
    EXPECT_EQ(m_folder.Get("f.dat"), "0123");
    EXPECT_EQ(m_folder.Stat("f.dat").st_mtime, 16);
}

TEST_F(DownFileOverTcp, SilentServerFailsAfterTheTimeOut) {
    ASSERT_TRUE(m_sock.SetTimeOut(50));
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    m_server.Say("Size:A\r\n\r\n0123");
    while (!BytesWaiting(m_sock)) std::this_thread::yield();
    EXPECT_EQ(Transfer(), EGetFile::kFailed);
    EXPECT_EQ(m_folder.Get("f.dat"), "0123");
}

}  // namespace
