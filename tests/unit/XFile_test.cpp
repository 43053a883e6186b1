#include "XFile.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <type_traits>

#include "SyncSocket.h"
#include "TempFolder.h"

namespace {

// The descriptor that the next open will get.
int NextFd() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

class XFileTest : public ::testing::Test {
  protected:
    std::string Path(const char* szName) const { return m_folder.Path(szName); }
    bool Open(const char* szName, int flags) { return m_file.OpenA(Path(szName).c_str(), flags); }

    CTempFolder m_folder;
    XFile m_file;
};

TEST_F(XFileTest, StartsClosed) {
    EXPECT_FALSE(m_file.IsOpen());
    char c = 0;
    EXPECT_EQ(m_file.Read(&c, 1), -1);
    EXPECT_EQ(m_file.Write(&c, 1), -1);
    EXPECT_FALSE(m_file.Seek(0, SEEK_SET));
    EXPECT_FALSE(m_file.Seek64(0, SEEK_SET));
    EXPECT_EQ(m_file.GetFileSize64(), 0);
    m_file.SetFileSize(0);
    m_file.Flush();
    m_file.Close();
    EXPECT_FALSE(m_file.IsOpen());
}

TEST_F(XFileTest, OpenFailsForAMissingFileAndCanBeTriedAgain) {
    EXPECT_FALSE(Open("a", O_RDONLY));
    EXPECT_FALSE(m_file.IsOpen());
    m_folder.Put("a", "abc");
    EXPECT_TRUE(Open("a", O_RDONLY));
    EXPECT_TRUE(m_file.IsOpen());
}

TEST_F(XFileTest, OpenOfAnOpenObjectKeepsTheFirstFile) {
    m_folder.Put("a", "first");
    m_folder.Put("b", "second");
    ASSERT_TRUE(Open("a", O_RDONLY));
    EXPECT_TRUE(Open("b", O_RDONLY));
    EXPECT_TRUE(Open("missing", O_RDONLY));
    EXPECT_TRUE(Open("new", O_WRONLY | O_CREAT));
    EXPECT_TRUE(m_file.OpenT(Path("b").c_str(), O_RDONLY));
    char buf[16] = {};
    EXPECT_EQ(m_file.Read(buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "first");
    EXPECT_FALSE(m_folder.Has("new"));
}

TEST_F(XFileTest, NewFilesBelongToTheOwnerAlone) {
    const mode_t old = umask(0);
    EXPECT_TRUE(Open("a", O_WRONLY | O_CREAT));
    umask(0400);
    EXPECT_TRUE(XFile().OpenA(Path("b").c_str(), O_WRONLY | O_CREAT));
    umask(old);
    EXPECT_EQ(m_folder.Stat("a").st_mode & 07777, 0600u);
    EXPECT_EQ(m_folder.Stat("b").st_mode & 07777, 0200u);
}

TEST_F(XFileTest, IsNotInheritedByPrograms) {
    const int fd = NextFd();
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(XFileTest, PassesItsFlagsOn) {
    m_folder.Put("a", "abc");
    EXPECT_FALSE(Open("a", O_WRONLY | O_CREAT | O_EXCL));
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    char c;
    EXPECT_EQ(m_file.Read(&c, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(m_folder.Get("a"), "abc");
    m_file.Close();
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT | O_TRUNC));
    EXPECT_EQ(m_folder.Get("a"), "");
}

TEST_F(XFileTest, AllFormsOpenAlikeAndWriteDirectIsOfNoEffect) {
    m_folder.Put("a", "abc");
    XFile a, b, c;
    EXPECT_TRUE(a.OpenA(Path("a").c_str(), O_RDONLY, true));
    EXPECT_TRUE(b.Open(Path("a").c_str(), O_RDONLY, true));
    EXPECT_TRUE(c.OpenT(Path("a").c_str(), O_RDONLY, true));
    EXPECT_TRUE(a.IsOpen() && b.IsOpen() && c.IsOpen());
}

TEST_F(XFileTest, OpenTTakesGb2312) {
    ASSERT_TRUE(m_file.OpenT(Path("\xD6\xD0\xCE\xC4.dat").c_str(), O_WRONLY | O_CREAT));
    EXPECT_TRUE(m_folder.Has("\xE4\xB8\xAD\xE6\x96\x87.dat"));
}

TEST_F(XFileTest, OpenAndOpenATakeThePathAsItIs) {
    ASSERT_TRUE(m_file.Open(Path("\xE4\xB8\xAD.dat").c_str(), O_WRONLY | O_CREAT));
    ASSERT_TRUE(XFile().OpenA(Path("\xE6\x96\x87.dat").c_str(), O_WRONLY | O_CREAT));
    EXPECT_TRUE(m_folder.Has("\xE4\xB8\xAD.dat"));
    EXPECT_TRUE(m_folder.Has("\xE6\x96\x87.dat"));
}

TEST_F(XFileTest, CloseGivesTheDescriptorBack) {
    const int fd = NextFd();
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    m_file.Close();
    EXPECT_FALSE(m_file.IsOpen());
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    m_file.Close();
}

TEST_F(XFileTest, DestructorCloses) {
    const int fd = NextFd();
    {
        XFile file;
        ASSERT_TRUE(file.OpenA(Path("a").c_str(), O_WRONLY | O_CREAT));
        EXPECT_NE(fcntl(fd, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(XFileTest, DescriptorZeroIsAnOpenFile) {
    const int fdSaved = dup(0);
    close(0);
    {
        XFile file;
        EXPECT_TRUE(file.OpenA("/dev/null", O_RDONLY));
        EXPECT_TRUE(file.IsOpen());
    }
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    if (fdSaved == -1) return;
    dup2(fdSaved, 0);
    close(fdSaved);
}

TEST_F(XFileTest, ReadsAndWritesGiveTheBytesMoved) {
    ASSERT_TRUE(Open("a", O_RDWR | O_CREAT));
    EXPECT_EQ(m_file.Write("abcdef", 6), 6);
    EXPECT_EQ(m_folder.Get("a"), "abcdef");  // nothing is held back
    EXPECT_TRUE(m_file.Seek(4, SEEK_SET));
    char buf[16] = {};
    EXPECT_EQ(m_file.Read(buf, sizeof buf), 2);
    EXPECT_STREQ(buf, "ef");
    EXPECT_EQ(m_file.Read(buf, sizeof buf), 0);
    EXPECT_EQ(m_file.Write("x", 0), 0);
}

TEST_F(XFileTest, WriteToAFullDeviceIsAnError) {
    ASSERT_TRUE(m_file.OpenA("/dev/full", O_WRONLY));
    EXPECT_EQ(m_file.Write("x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(XFileTest, SeeksFromAllOrigins) {
    m_folder.Put("a", "0123456789");
    ASSERT_TRUE(Open("a", O_RDONLY));
    EXPECT_TRUE(m_file.Seek(3, SEEK_SET));
    EXPECT_EQ(m_file.GetCurPos(), 3u);
    EXPECT_TRUE(m_file.Seek(-1, SEEK_CUR));
    EXPECT_EQ(m_file.GetCurPos(), 2u);
    EXPECT_TRUE(m_file.Seek64(-4, SEEK_END));
    EXPECT_EQ(m_file.GetCurPos(), 6u);
    char c = 0;
    EXPECT_EQ(m_file.Read(&c, 1), 1);
    EXPECT_EQ(c, '6');
    EXPECT_TRUE(m_file.Seek(0, SEEK_SET));
    EXPECT_EQ(m_file.GetCurPos(), 0u);
}

TEST_F(XFileTest, SeekBeforeTheStartFailsAndMovesNothing) {
    m_folder.Put("a", "0123456789");
    ASSERT_TRUE(Open("a", O_RDONLY));
    EXPECT_TRUE(m_file.Seek(5, SEEK_SET));
    EXPECT_FALSE(m_file.Seek(-1, SEEK_SET));
    EXPECT_FALSE(m_file.Seek64(-6, SEEK_CUR));
    EXPECT_FALSE(m_file.Seek(0, 99));
    EXPECT_EQ(m_file.GetCurPos(), 5u);
}

TEST_F(XFileTest, SetFileSizeCutsAndFillsUp) {
    m_folder.Put("a", "0123456789");
    ASSERT_TRUE(Open("a", O_RDWR));
    m_file.SetFileSize(4);
    EXPECT_EQ(m_folder.Get("a"), "0123");
    EXPECT_EQ(m_file.GetFileSize(), 4u);
    m_file.SetFileSize64(6);
    EXPECT_EQ(m_folder.Get("a"), std::string("0123\0\0", 6));
    EXPECT_EQ(m_file.GetFileSize64(), 6);
}

TEST_F(XFileTest, SetFileSizeOfAReadOnlyFileIsIgnored) {
    m_folder.Put("a", "0123");
    ASSERT_TRUE(Open("a", O_RDONLY));
    m_file.SetFileSize(0);
    m_file.SetFileSize64(-1);
    EXPECT_EQ(m_folder.Get("a"), "0123");
}

TEST_F(XFileTest, FilesBeyondFourGigabytes) {
    constexpr __int64 kBig = 0x100000005;
    ASSERT_TRUE(Open("a", O_RDWR | O_CREAT));
    m_file.SetFileSize64(kBig);  // takes no space
    EXPECT_EQ(m_file.GetFileSize64(), kBig);
    EXPECT_EQ(m_file.GetFileSize(), 5u);
    EXPECT_TRUE(m_file.Seek64(kBig - 1, SEEK_SET));
    EXPECT_EQ(m_file.GetCurPos(), 4u);
    char c = 'x';
    EXPECT_EQ(m_file.Read(&c, 1), 1);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(m_file.Read(&c, 1), 0);
    m_file.SetFileSize(0xFFFFFFFF);
    EXPECT_EQ(m_file.GetFileSize64(), 0xFFFFFFFFLL);
}

TEST_F(XFileTest, IsNeverCopied) {
    EXPECT_FALSE(std::is_copy_constructible<XFile>::value);
    EXPECT_FALSE(std::is_copy_assignable<XFile>::value);
}

TEST_F(XFileTest, OpeningANamedPipeDoesNotWaitForItsOtherEnd) {
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(Open("pipe", O_WRONLY | O_CREAT));
    EXPECT_TRUE(Open("pipe", O_RDONLY));
    char c;
    EXPECT_EQ(m_file.Read(&c, 1), 0);
}

TEST_F(XFileTest, ALockKeepsOthersOutUntilTheFileIsClosed) {
    XFile other;
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    ASSERT_TRUE(other.OpenA(Path("a").c_str(), O_RDONLY));
    EXPECT_TRUE(m_file.Lock(true, 0));
    EXPECT_FALSE(other.Lock(true, 0));
    EXPECT_FALSE(other.Lock(false, 20));
    m_file.Close();
    EXPECT_TRUE(other.Lock(true, 0));
}

TEST_F(XFileTest, ReadersShareALock) {
    XFile other;
    m_folder.Put("a", "abc");
    ASSERT_TRUE(Open("a", O_RDONLY));
    ASSERT_TRUE(other.OpenA(Path("a").c_str(), O_RDONLY));
    EXPECT_TRUE(m_file.Lock(false, 0));
    EXPECT_TRUE(other.Lock(false, 0));
    EXPECT_FALSE(other.Lock(true, 0));
}

// Lets a wait go on a number of times.
class CCountingGuard final : public CSocketGuard {
  public:
    explicit CCountingGuard(int nTimes) : nLeft(nTimes) {}
    bool MayWait() override { return false; }
    bool Await(SOCKET, short) override { return false; }
    bool WaitOn() override { return nLeft-- > 0; }
    void Passed(bool, const void*, size_t) override {}

    int nLeft;
};

TEST_F(XFileTest, AGuardDecidesHowLongALockIsWaitedFor) {
    XFile other;
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    ASSERT_TRUE(other.OpenA(Path("a").c_str(), O_RDONLY));
    CCountingGuard guard(3);
    EXPECT_TRUE(m_file.Lock(true, 0, &guard));
    EXPECT_EQ(guard.nLeft, 3) << "asked without a wait";
    EXPECT_FALSE(other.Lock(false, 0, &guard));
    EXPECT_EQ(guard.nLeft, -1);
    EXPECT_FALSE(other.Lock(false, 1000000, &guard));
    EXPECT_EQ(guard.nLeft, -2);
    m_file.Close();
    EXPECT_TRUE(other.Lock(false, 0, &guard));
    EXPECT_EQ(guard.nLeft, -2);
}

TEST_F(XFileTest, AnUnfinishedFileIsKnownByItsMark) {
    ASSERT_TRUE(Open("a", O_WRONLY | O_CREAT));
    EXPECT_FALSE(m_file.IsUnfinished());
    m_file.MarkUnfinished(true);
    m_file.Close();
    ASSERT_TRUE(Open("a", O_RDWR));
    EXPECT_TRUE(m_file.IsUnfinished());
    m_file.MarkUnfinished(false);
    EXPECT_FALSE(m_file.IsUnfinished());
    EXPECT_EQ(m_folder.Stat("a").st_mode & 07777, 0600u);
}

TEST(FileSystemPath, IsUtf8) { EXPECT_EQ(FileSystemPath("/a/\xCB\xAE"), "/a/\xE6\xB0\xB4"); }

TEST(FileSystemPath, IsEmptyForWhatIsNoGb2312) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(FileSystemPath("/a/x\xFF\xFE.cfg"), "");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
