// The body of a file transfer: what is written, stamped, told and acknowledged.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "DownFileFixture.h"
#include "ProcessState.h"
#include "XFile.h"

namespace {

using DownFileBody = CDownFileTest;

// --- the body

TEST_F(DownFileBody, BodyThatComesWithTheHeaderNeedsNoFurtherReceive) {
    EXPECT_EQ(TransferOf({"Size:A\r\nFileTime:5F5E1000\r\n\r\n0123456789"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "0123456789");
    ExpectStamp("f.dat", kTime);
    EXPECT_EQ(m_sock.m_asked, (std::vector<int>{2048}));
}

TEST_F(DownFileBody, BodyBytesBehindTheAnnouncedOnesAreNotWritten) {
    EXPECT_EQ(TransferOf({"Size:4\r\nFileTime:5F5E1000\r\n\r\n0123456789"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "0123");
    ExpectStamp("f.dat", kTime);
    EXPECT_EQ(m_sock.m_asked.size(), 1u);
}

TEST_F(DownFileBody, BodyOfNoBytesEmptiesTheFile) {
    PutAged("f.dat", "mine");
    EXPECT_EQ(TransferOf({"Size:0\r\nFileTime:10\r\n\r\n"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "");
    ExpectStamp("f.dat", 16);
    EXPECT_EQ(TransferOf({"\r\nsurplus"}), EGetFile::kWritten);  // no size is size 0
    EXPECT_EQ(m_folder.Get("f.dat"), "");
}

TEST_F(DownFileBody, BodyInManyReceives) {
    PutAged("f.dat", "longer than the new one");
    EXPECT_EQ(TransferOf({"Size:9\r\nFileTime:5F5E1000\r\n\r\nab", "cde", "f", "ghi"}),
              EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "abcdefghi");
    ExpectStamp("f.dat", kTime);
    EXPECT_EQ(m_sock.m_asked, (std::vector<int>{2048, 2048, 2048, 2048}));
}

TEST_F(DownFileBody, AllBytesOfALaterReceiveAreWritten) {
    EXPECT_EQ(TransferOf({"Size:4\r\n\r\nab", "cdEFG"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "abcdEFG");
}

TEST_F(DownFileBody, HeaderCutBeforeItsBlankLineIsFollowedByTheBody) {
    EXPECT_EQ(TransferOf({"Size:4\r\nFileTime:10\r\nGZ:Y", "abcd"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "abcd");
    ExpectStamp("f.dat", 16);
}

TEST_F(DownFileBody, HeaderThatIsCutAnywhereIsPutTogetherOnWish) {
    m_bJoinHeader = true;
    const std::string strReply = "Size:4\r\nFileTime:10\r\n\r\nabcd";
    for (size_t n = 1; n < strReply.size(); ++n) {
        EXPECT_EQ(TransferOf({strReply.substr(0, n), strReply.substr(n)}), EGetFile::kWritten) << n;
        EXPECT_EQ(m_folder.Get("f.dat"), "abcd") << n;
        ExpectStamp("f.dat", 16);
        EXPECT_TRUE(m_sock.m_script.empty()) << n;
        m_folder.Put("f.dat", "old");
    }
}

TEST_F(DownFileBody, HeaderOfSingleBytesIsPutTogetherOnWish) {
    m_bJoinHeader = true;
    std::deque<std::string> script;
    for (const char c : std::string("UseLast:Yes\r\n\r\n")) script.emplace_back(1, c);
    m_folder.Put("f.dat", "held");
    EXPECT_EQ(TransferOf(script), EGetFile::kKept);
    EXPECT_EQ(m_sock.m_asked.front(), 2048);
    EXPECT_EQ(m_sock.m_asked.back(), 2048 - 14);
    EXPECT_EQ(m_folder.Get("f.dat"), "held");
}

TEST_F(DownFileBody, HeaderWithoutItsEndFailsOnWishAndTouchesNothing) {
    m_bJoinHeader = true;
    m_folder.Put("f.dat", "held");
    for (const std::string strHeader :
         {"Size:4\r\nFileTime:10\r\n", "Exist:No\r\n", "Size:4\r\n\r"}) {
        EXPECT_EQ(TransferOf({strHeader}), EGetFile::kFailed);           // an error
        EXPECT_EQ(TransferOf({strHeader, "", "x"}), EGetFile::kFailed);  // the connection's end
    }
    EXPECT_EQ(m_folder.Get("f.dat"), "held");
}

TEST_F(DownFileBody, HeaderIsPutTogetherUpTo2048Bytes) {
    m_bJoinHeader = true;
    const std::string strBlanks = "Size:2\r\n" + std::string(2048 - 8 - 2, ' ');
    EXPECT_EQ(TransferOf({strBlanks.substr(0, 1000), strBlanks.substr(1000) + "\r\n", "ab"}),
              EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "ab");
    m_sock.m_asked.clear();
    EXPECT_EQ(TransferOf({strBlanks.substr(0, 1000), strBlanks.substr(1000) + " \r", "\nab"}),
              EGetFile::kFailed);
    EXPECT_EQ(m_sock.m_asked, (std::vector<int>{2048, 1048}));
    EXPECT_EQ(m_folder.Get("f.dat"), "ab");
}

TEST_F(DownFileBody, HeaderWithALineThatIsTooLongFailsOnWishAtOnce) {
    m_bJoinHeader = true;
    m_folder.Put("f.dat", "held");
    EXPECT_EQ(TransferOf({std::string(65, 'n'), "\n\n"}), EGetFile::kFailed);
    EXPECT_EQ(m_sock.m_asked.size(), 1u);
    EXPECT_EQ(m_folder.Get("f.dat"), "held");
}

TEST_F(DownFileBody, PiecesOfAHeaderCountForTheAcknowledgement) {
    m_bJoinHeader = true;
    const std::string strHeader = "Size:30000\r\nHello:Yes\r\n\r\n";
    const std::string strBody = Pattern(0x30000);
    EXPECT_EQ(TransferOf({strHeader.substr(0, 3), strHeader.substr(3), strBody}),
              EGetFile::kWritten);
    EXPECT_EQ(AckCounts(m_sock, '4'), (std::vector<unsigned long>{131072}));
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
}

TEST_F(DownFileBody, TimesFrom2038OnAreStamped) {
    PutAged("probe", "", static_cast<time_t>(0x90000000u));
    if (m_folder.Stat("probe").st_mtime != static_cast<time_t>(0x90000000u))
        GTEST_SKIP() << "this file system keeps no such time";
    EXPECT_EQ(TransferOf({"Size:1\r\nFileTime:90000000\r\n\r\nx"}), EGetFile::kWritten);
    ExpectStamp("f.dat", static_cast<time_t>(0x90000000u));
    EXPECT_EQ(Transfer("f.dat", 0x90000000ul, 1), EGetFile::kCurrent);
}

TEST_F(DownFileBody, AppendedBodyGoesToTheEnd) {
    PutAged("f.dat", "first");
    EXPECT_EQ(TransferOf({"Size:6\r\nFileTime:10\r\nAppend:Yes\r\n\r\n, ", "then"}),
              EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "first, then");
    ExpectStamp("f.dat", 16);
}

TEST_F(DownFileBody, AppendMakesAFileThatIsNotThere) {
    EXPECT_EQ(TransferOf({"Size:3\r\nAppend:Yes\r\n\r\nnew"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "new");
    EXPECT_EQ(m_folder.Stat("f.dat").st_mode & 0777, 0600u);
}

TEST_F(DownFileBody, CompressedBodyGoesToTheSibling) {
    PutAged("f.dat", "plain");
    EXPECT_EQ(TransferOf({"GZ:Yes\r\nSize:3\r\nFileTime:10\r\n\r\n\x1F\x8B\x08"}),
              EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat.gz"), "\x1F\x8B\x08");  // as it came
    ExpectStamp("f.dat.gz", 16);
    EXPECT_EQ(m_folder.Get("f.dat"), "plain");
    EXPECT_EQ(m_folder.Stat("f.dat").st_mtime, kTime);
}

TEST_F(DownFileBody, CompressedBodyCanBeAppended) {
    PutAged("f.dat", "plain");
    PutAged("f.dat.gz", "zip");
    EXPECT_EQ(TransferOf({"GZ:Yes\r\nAppend:Yes\r\nSize:3\r\n\r\nped"}), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat.gz"), "zipped");
    EXPECT_EQ(m_folder.Get("f.dat"), "plain");
}

TEST_F(DownFileBody, SixteenReceivesWithoutBytesInARowFail) {
    std::deque<std::string> script = {"Size:3\r\nFileTime:10\r\n\r\na"};
    script.insert(script.end(), 15, "");
    script.push_back("b");
    script.insert(script.end(), 15, "");
    script.push_back("c");
    EXPECT_EQ(TransferOf(script), EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "abc");

    m_sock.m_asked.clear();
    script = {"Size:3\r\nFileTime:10\r\n\r\na"};
    script.insert(script.end(), 16, "");
    script.push_back("bc");
    EXPECT_EQ(TransferOf(script), EGetFile::kFailed);
    EXPECT_EQ(m_sock.m_asked.size(), 17u);
    EXPECT_EQ(m_folder.Get("f.dat"), "a");
    ExpectStamp("f.dat", 16);
}

TEST_F(DownFileBody, BrokenConnectionKeepsThePartAndStampsIt) {
    PutAged("f.dat", "mine");
    EXPECT_EQ(TransferOf({"Size:FFFFFFFF\r\nFileTime:10\r\n\r\nab", "cd"}), EGetFile::kFailed);
    EXPECT_EQ(m_folder.Get("f.dat"), "abcd");
    ExpectStamp("f.dat", 16);
    EXPECT_EQ(m_progress.m_calls, "2 ");
}

// --- a cache that cannot be written

// No file of this process grows beyond a size while one of these exists.
class CFileSizeLimit {
  public:
    explicit CFileSizeLimit(rlim_t nBytes) {
        m_oldHandler = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limit = m_old;
        limit.rlim_cur = nBytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~CFileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_old);
        signal(SIGXFSZ, m_oldHandler);
    }

  private:
    rlimit m_old;
    sighandler_t m_oldHandler;
};

TEST_F(DownFileBody, ShortWriteFailsAndLeavesAnEmptyFileWithoutTheServersTime) {
    EGetFile eResult;
    {
        CFileSizeLimit limit(1000);
        eResult = TransferOf({"Size:5DC\r\nFileTime:10\r\n\r\n", Pattern(600), Pattern(900)});
    }
    EXPECT_EQ(eResult, EGetFile::kFailed);
    EXPECT_EQ(m_folder.Get("f.dat"), "");
    EXPECT_NE(m_folder.Stat("f.dat").st_mtime, 16);
    EXPECT_EQ(m_progress.m_calls, "600 ");
}

TEST_F(DownFileBody, ShortWriteOfTheFirstBytesFailsToo) {
    EGetFile eResult;
    {
        CFileSizeLimit limit(4);
        eResult = TransferOf({"Size:A\r\nFileTime:10\r\n\r\n0123456789"});
    }
    EXPECT_EQ(eResult, EGetFile::kFailed);
    EXPECT_EQ(m_folder.Get("f.dat"), "");
    EXPECT_NE(m_folder.Stat("f.dat").st_mtime, 16);
}

TEST_F(DownFileBody, ShortWriteOfAnAppendedBodyEmptiesTheWholeFile) {
    PutAged("f.dat", "12345678");
    EGetFile eResult;
    {
        CFileSizeLimit limit(10);
        eResult = TransferOf({"Size:4\r\nAppend:Yes\r\nFileTime:10\r\n\r\n", "9abc"});
    }
    EXPECT_EQ(eResult, EGetFile::kFailed);
    EXPECT_EQ(m_folder.Get("f.dat"), "");
}

// --- progress

TEST_F(DownFileBody, ProgressTellsEachReceiveOfTheBodyAndTheEnd) {
    EXPECT_EQ(TransferOf({"Size:9\r\n\r\nab", "cde", "f", "", "ghi"}), EGetFile::kWritten);
    EXPECT_EQ(m_progress.m_calls, "3 1 0 3! ");
}

TEST_F(DownFileBody, ProgressOfASingleReceiveIsItsEnd) {
    EXPECT_EQ(TransferOf({"Size:2\r\n\r\nab"}), EGetFile::kWritten);
    EXPECT_EQ(m_progress.m_calls, "12! ");  // the header counts
}

TEST_F(DownFileBody, ProgressSeesTheFileFinished) {
    class CLooker : public IGetFileCB {
      public:
        explicit CLooker(const CTempFolder& folder) : m_folder(folder) {}
        void OnProgress(int, bool bFinish) override {
            if (!bFinish) return;
            m_strSeen = m_folder.Get("f.dat");
            m_tSeen = m_folder.Stat("f.dat").st_mtime;
        }
        const CTempFolder& m_folder;
        std::string m_strSeen;
        time_t m_tSeen = 0;
    } looker(m_folder);
    m_sock.m_script = {"Size:2\r\nFileTime:10\r\n\r\na", "b"};
    EXPECT_EQ(TransferFile("f.dat", m_sock, '4', m_folder.Path(), 0, 0, &looker, nullptr),
              EGetFile::kWritten);
    EXPECT_EQ(looker.m_strSeen, "ab");
    EXPECT_EQ(looker.m_tSeen, 16);
}

TEST_F(DownFileBody, NobodyNeedsToBeTold) {
    m_sock.m_script = {"Size:2\r\n\r\na", "b"};
    EXPECT_EQ(TransferFile("f.dat", m_sock, '4', m_folder.Path(), 0, 0, nullptr, nullptr),
              EGetFile::kWritten);
}

// --- acknowledgements

TEST_F(DownFileBody, FirstAcknowledgementComesAfter131072BytesOfTheReply) {
    const std::string strBody = Pattern(200000);
    const std::string strHeader = "Size:30D40\r\nHello:Yes\r\n\r\n";
    EXPECT_EQ(TransferOf({strHeader + strBody.substr(0, 100), strBody.substr(100)}),
              EGetFile::kWritten);
    ASSERT_EQ(m_sock.m_sent.size(), 2u);
    EXPECT_EQ(m_sock.m_sent[1], std::string("4Hello20000\0", 12));
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
    // The receive before the acknowledgement ends exactly at the span.
    const size_t nWhole = (131072 - strHeader.size() - 100) / 2048;
    const size_t nRest = (131072 - strHeader.size() - 100) % 2048;
    ASSERT_GT(m_sock.m_asked.size(), nWhole + 2);
    EXPECT_EQ(m_sock.m_asked[nWhole], 2048);
    EXPECT_EQ(m_sock.m_asked[nWhole + 1], static_cast<int>(nRest));
    EXPECT_EQ(m_sock.m_asked[nWhole + 2], 2048);
}

TEST_F(DownFileBody, SpansShrinkToAFloor) {
    const std::string strBody = Pattern(920000);
    EXPECT_EQ(TransferOf({"Size:E09C0\r\nHello:Yes\r\n\r\n", strBody}), EGetFile::kWritten);
    EXPECT_EQ(AckCounts(m_sock, '4'),
              (std::vector<unsigned long>{131072, 120832, 110592, 100352, 90112, 79872, 69632,
                                          59392, 49152, 38912, 28672, 18432, 8192, 8192}));
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
}

TEST_F(DownFileBody, SpansThroughARelayAreShorter) {
    const std::string strBody = Pattern(110000);
    m_sock.m_script = {"Size:1ADB0\r\nHello:Yes\r\n\r\n", strBody};
    EXPECT_EQ(TransferFile("f.dat", m_sock, 'Z', m_folder.Path(), 0, 0, nullptr, ""),
              EGetFile::kWritten);
    EXPECT_EQ(AckCounts(m_sock, 'Z'),
              (std::vector<unsigned long>{38912, 28672, 18432, 8192, 8192}));
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
}

TEST_F(DownFileBody, NoAcknowledgementBehindTheLastByte) {
    const std::string strHeader = "Size:1FFE7\r\nHello:Yes\r\n\r\n";
    ASSERT_EQ(strHeader.size() + 0x1FFE7, 131072u);
    EXPECT_EQ(TransferOf({strHeader, Pattern(0x1FFE7)}), EGetFile::kWritten);
    EXPECT_EQ(m_sock.m_sent.size(), 1u);
    EXPECT_EQ(m_folder.Get("f.dat").size(), 0x1FFE7u);
    // One byte more, and it is due.
    m_sock.m_sent.clear();
    m_folder.Put("f.dat", "");
    EXPECT_EQ(TransferOf({"Size:1FFE8\r\nHello:Yes\r\n\r\n", Pattern(0x1FFE8)}),
              EGetFile::kWritten);
    EXPECT_EQ(m_sock.m_sent.size(), 2u);
}

TEST_F(DownFileBody, NoAcknowledgementsUnlessTheServerWantsThem) {
    const std::string strBody = Pattern(200000);
    EXPECT_EQ(TransferOf({"Size:30D40\r\n\r\n", strBody}), EGetFile::kWritten);
    EXPECT_EQ(m_sock.m_sent.size(), 1u);
    for (int nAsked : m_sock.m_asked) EXPECT_EQ(nAsked, 2048);
    EXPECT_EQ(m_folder.Get("f.dat"), strBody);
}

TEST_F(DownFileBody, AcknowledgementThatCannotBeSentIsLeftToTheNextReceive) {
    m_sock.m_sendResults = {1, -1};
    EXPECT_EQ(TransferOf({"Size:30D40\r\nHello:Yes\r\n\r\n", Pattern(200000)}), EGetFile::kWritten);
    EXPECT_EQ(m_sock.m_sent.size(), 2u);
}

TEST_F(DownFileBody, BrokenOffTransferLeavesTheFileMarkedUntilOneIsComplete) {
    EXPECT_EQ(TransferOf({"Size:6\r\nFileTime:10\r\n\r\nabc"}), EGetFile::kFailed);
    EXPECT_TRUE(XFile::IsUnfinished(m_folder.Stat("f.dat")));
    EXPECT_EQ(TransferOf({"Size:6\r\nFileTime:10\r\n\r\nabcdef"}), EGetFile::kWritten);
    EXPECT_FALSE(XFile::IsUnfinished(m_folder.Stat("f.dat")));
}

TEST_F(DownFileBody, UnfinishedFileIsNeverCurrent) {
    EXPECT_EQ(TransferOf({"Size:6\r\nFileTime:10\r\n\r\nabc"}), EGetFile::kFailed);
    m_sock.m_script = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Transfer("f.dat", 16, 3), EGetFile::kKept);
}

TEST_F(DownFileBody, FileThatAnotherProcessReadsIsNotTouchedUntilItLetsGo) {
    m_folder.Put("f.dat", "held");
    XFile reader;
    ASSERT_TRUE(reader.OpenA(m_folder.Path("f.dat").c_str(), O_RDONLY));
    ASSERT_TRUE(reader.Lock(false, 0));
    EGetFile eResult = EGetFile::kFailed;
    std::thread transfer([&] { eResult = TransferOf({"Size:3\r\nFileTime:10\r\n\r\nnew"}); });
    EXPECT_TRUE(IsOpenedTimes(m_folder.Path("f.dat"), 2));
    EXPECT_EQ(m_folder.Get("f.dat"), "held");
    reader.Close();
    transfer.join();
    EXPECT_EQ(eResult, EGetFile::kWritten);
    EXPECT_EQ(m_folder.Get("f.dat"), "new");
}

}  // namespace
