#include "CacheFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ProcessState.h"
#include "TempFolder.h"

namespace {

constexpr uid_t kStranger = 65534;

// Folders a/b/c below a folder of the test's own, and a place elsewhere that nothing may reach.
class CacheTree : public ::testing::Test {
  protected:
    CacheTree() {
        for (const char* sz : {"a", "a/b", "a/b/c"}) Make(m_tree.Path(sz));
        for (const char* sz : {"b", "b/c", "c"}) Make(m_elsewhere.Path(sz));
    }
    static void Make(const std::string& strPath) { ASSERT_EQ(mkdir(strPath.c_str(), 0700), 0); }
    static void Link(const std::string& strTo, const std::string& strPath) {
        ASSERT_EQ(symlink(strTo.c_str(), strPath.c_str()), 0);
    }
    static void GiveAway(const std::string& strPath) {
        ASSERT_EQ(lchown(strPath.c_str(), kStranger, kStranger), 0);
    }
    // Puts a link to a folder elsewhere in place of one of the tree's.
    void Replace(const std::string& strName, const std::string& strTo) {
        RemoveTree(m_tree.Path(strName));
        Link(m_elsewhere.Path(strTo), m_tree.Path(strName));
    }
    bool Opens(const std::string& strName) { return CCacheFolder(m_tree.Path(strName)).IsOpen(); }
    std::string RefusalOf(const std::string& strName, bool bMake = false) {
        const CCacheFolder folder(m_tree.Path(strName), bMake);
        EXPECT_EQ(folder.IsOpen(), folder.Refusal().empty());
        return folder.Refusal();
    }
    std::string Belongs(const std::string& strName) {
        return "VzDBAccess: cache folder " + m_tree.Path(strName) + " belongs to user 65534";
    }

    CTempFolder m_tree;
    CTempFolder m_elsewhere;
};

// ---- Folders ------------------------------------------------------------------------------------

TEST_F(CacheTree, FolderIsEnteredNameByName) {
    for (const char* sz : {"", "a", "a/b", "a/b/c", "a/b/c/", "a//b", "a/./b"})
        EXPECT_TRUE(Opens(sz)) << sz;
    for (const char* sz : {"x", "a/x", "a/b/../b", ".."}) EXPECT_FALSE(Opens(sz)) << sz;
    m_tree.Put("file", "");
    EXPECT_FALSE(Opens("file"));
    EXPECT_FALSE(CCacheFolder("").IsOpen());
    EXPECT_FALSE(CCacheFolder("tmp").IsOpen());
    EXPECT_TRUE(CCacheFolder("/").IsOpen());
}

TEST_F(CacheTree, FolderIsNotReachedThroughALinkAnywhere) {
    Replace("a/b/c", "c");
    EXPECT_TRUE(Opens("a/b"));
    EXPECT_FALSE(Opens("a/b/c"));
    EXPECT_EQ(CCacheFolder(m_tree.Path("a/b/c")).Refusal(), "");
    Replace("a/b", "b");
    EXPECT_FALSE(Opens("a/b/c"));
    Replace("a", "");
    EXPECT_FALSE(Opens("a/b/c"));
    EXPECT_FALSE(Opens("a"));
}

// A link that root made, as /tmp may be one. Every machine has a link in its top folder.
TEST(CacheTop, FirstFolderMayBeALink) {
    struct stat st {};
    if (lstat("/bin", &st) != 0 || !S_ISLNK(st.st_mode)) GTEST_SKIP() << "/bin is no link here";
    EXPECT_TRUE(CCacheFolder("/bin").IsOpen());
    EXPECT_TRUE(CCacheFolder("/bin/").IsOpen());
}

TEST_F(CacheTree, FolderIsMadeForItsOwnerAlone) {
    const mode_t nMask = umask(0);
    EXPECT_TRUE(CCacheFolder(m_tree.Path("new/"), true).IsOpen());
    umask(nMask);
    EXPECT_EQ(m_tree.Stat("new").st_mode & 07777, 0700u);
    EXPECT_FALSE(CCacheFolder(m_tree.Path("x/y"), true).IsOpen());
    EXPECT_FALSE(m_tree.Has("x"));
}

TEST_F(CacheTree, FolderIsNotMadeThroughALink) {
    Link(m_elsewhere.Path("new"), m_tree.Path("a/new"));
    EXPECT_FALSE(CCacheFolder(m_tree.Path("a/new"), true).IsOpen());
    Replace("a/b", "b");
    EXPECT_FALSE(CCacheFolder(m_tree.Path("a/b/new"), true).IsOpen());
    EXPECT_FALSE(m_elsewhere.Has("new"));
    EXPECT_FALSE(m_elsewhere.Has("b/new"));
}

TEST_F(CacheTree, ModeIsForcedOnTheFolderThatWasOpened) {
    ASSERT_EQ(chmod(m_tree.Path("a/b").c_str(), 0100), 0);
    const CCacheFolder folder(m_tree.Path("a/b"));
    ASSERT_TRUE(folder.IsOpen());
    ASSERT_EQ(chmod(m_elsewhere.Path("b").c_str(), 0755), 0);
    ASSERT_EQ(rename(m_tree.Path("a/b").c_str(), m_tree.Path("moved").c_str()), 0);
    Link(m_elsewhere.Path("b"), m_tree.Path("a/b"));
    folder.ForceOwnerOnly();
    EXPECT_EQ(m_tree.Stat("moved").st_mode & 07777, 0700u);
    EXPECT_EQ(m_elsewhere.Stat("b").st_mode & 07777, 0755u);
    CCacheFolder(m_tree.Path("none")).ForceOwnerOnly();
}

TEST_F(CacheTree, StrangersFolderIsRefusedAnywhere) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give folders away";
    for (const char* sz : {"a/b/c", "a/b", "a"}) {
        GiveAway(m_tree.Path(sz));
        EXPECT_EQ(RefusalOf("a/b/c"), Belongs(sz));
        EXPECT_EQ(RefusalOf("a/b/c", true), Belongs(sz));
    }
}

TEST_F(CacheTree, WhatAStrangerPutInPlaceOfAFolderIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    Replace("a/b", "b");
    GiveAway(m_tree.Path("a/b"));
    m_tree.Put("file", "");
    GiveAway(m_tree.Path("file"));
    EXPECT_EQ(RefusalOf("a/b/c"), Belongs("a/b"));
    EXPECT_EQ(RefusalOf("a/b", true), Belongs("a/b"));
    EXPECT_EQ(RefusalOf("file", true), Belongs("file"));
}

TEST_F(CacheTree, RefusalIsOneLineWhateverTheName) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give folders away";
    Make(m_tree.Path("x\n\033[2J\x7F"));
    GiveAway(m_tree.Path("x\n\033[2J\x7F"));
    EXPECT_EQ(RefusalOf("x\n\033[2J\x7F"), Belongs("x??[2J?"));
}

TEST_F(CacheTree, RootsFolderIsNot) { EXPECT_TRUE(CCacheFolder("/usr/lib").IsOpen()); }

// ---- Files --------------------------------------------------------------------------------------

class CacheFile : public CacheTree {
  protected:
    bool OpensFile(const std::string& strName, int flags) {
        XFile file;
        const bool bOpens = CCacheFile(m_tree.Path(strName)).Open(file, flags);
        EXPECT_EQ(file.IsOpen(), bOpens);
        return bOpens;
    }
    bool Stands(const std::string& strName) {
        struct stat st;
        return CCacheFile(m_tree.Path(strName)).Stat(st);
    }
    void ExpectNoFile(const std::string& strName) {
        EXPECT_FALSE(Stands(strName));
        for (int flags : {O_RDONLY, O_WRONLY, O_WRONLY | O_CREAT, O_RDWR | O_CREAT})
            EXPECT_FALSE(OpensFile(strName, flags)) << flags;
    }
};

TEST_F(CacheFile, IsMadeOpenedAndToldOf) {
    EXPECT_FALSE(Stands("a/f"));
    EXPECT_FALSE(OpensFile("a/f", O_WRONLY));
    EXPECT_TRUE(OpensFile("a/f", O_WRONLY | O_CREAT));
    EXPECT_TRUE(OpensFile("a/f", O_RDONLY));
    EXPECT_EQ(m_tree.Stat("a/f").st_mode & 07777, 0600u);
    m_tree.Put("a/f", "123");
    struct stat st;
    ASSERT_TRUE(CCacheFile(m_tree.Path("a/f")).Stat(st));
    EXPECT_EQ(st.st_size, 3);
}

TEST_F(CacheFile, IsNamedInGb2312) {
    m_tree.Put("a/\xE4\xB8\xAD", "");
    EXPECT_TRUE(Stands("a/\xD6\xD0"));
    ExpectNoFile("a/\xFF\xFE");
    EXPECT_EQ(CountEntries(m_tree.Path("a").c_str()), 2 + 2);
}

TEST_F(CacheFile, IsNeverALink) {
    m_elsewhere.Put("victim", "theirs");
    Link(m_elsewhere.Path("victim"), m_tree.Path("a/f"));
    ExpectNoFile("a/f");
    Link(m_elsewhere.Path("new"), m_tree.Path("a/g"));
    ExpectNoFile("a/g");
    EXPECT_FALSE(m_elsewhere.Has("new"));
    EXPECT_EQ(m_elsewhere.Get("victim"), "theirs");
}

TEST_F(CacheFile, IsNotReachedThroughALink) {
    m_elsewhere.Put("c/f", "theirs");
    Replace("a/b/c", "c");
    ExpectNoFile("a/b/c/f");
    ExpectNoFile("a/b/c/new");
    CCacheFile(m_tree.Path("a/b/c/f")).Remove();
    EXPECT_EQ(m_elsewhere.Get("c/f"), "theirs");
    EXPECT_FALSE(m_elsewhere.Has("c/new"));
}

TEST_F(CacheFile, IsNothingThatHasAnotherName) {
    m_elsewhere.Put("victim", "theirs");
    ASSERT_EQ(link(m_elsewhere.Path("victim").c_str(), m_tree.Path("a/f").c_str()), 0);
    ExpectNoFile("a/f");
    CCacheFile(m_tree.Path("a/f")).Remove();
    EXPECT_EQ(m_elsewhere.Get("victim"), "theirs");
    EXPECT_FALSE(m_tree.Has("a/f"));
}

TEST_F(CacheFile, IsNoPipeAndNoFolder) {
    ASSERT_EQ(mkfifo(m_tree.Path("a/f").c_str(), 0600), 0);
    const int h = open(m_tree.Path("a/f").c_str(), O_RDWR | O_CLOEXEC);  // so that writers may come
    ExpectNoFile("a/f");
    close(h);
    ExpectNoFile("a/f");
    ExpectNoFile("a/b");
    ExpectNoFile("a/");
    ExpectNoFile("a/..");
}

TEST_F(CacheFile, IsNoDevice) {
    if (mknod(m_tree.Path("a/f").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
        GTEST_SKIP() << "only root can make devices";
    ExpectNoFile("a/f");
}

TEST_F(CacheFile, IsNotAStrangers) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    m_tree.Put("a/f", "theirs");
    GiveAway(m_tree.Path("a/f"));
    ExpectNoFile("a/f");
    GiveAway(m_tree.Path("a/b"));
    ExpectNoFile("a/b/c/new");
    CCacheFile(m_tree.Path("a/b/c")).Remove();
    EXPECT_TRUE(m_tree.Has("a/b/c"));
    EXPECT_FALSE(m_tree.Has("a/b/c/new"));
}

TEST_F(CacheFile, RemovalTakesTheNameAndNoFolder) {
    m_tree.Put("a/f", "");
    Link(m_elsewhere.Path("b"), m_tree.Path("a/l"));
    CCacheFile(m_tree.Path("a/f")).Remove();
    CCacheFile(m_tree.Path("a/l")).Remove();
    CCacheFile(m_tree.Path("a/b/c")).Remove();
    CCacheFile(m_tree.Path("a/none")).Remove();
    EXPECT_FALSE(m_tree.Has("a/f") || m_tree.Has("a/l"));
    EXPECT_TRUE(m_tree.Has("a/b/c") && m_elsewhere.Has("b"));
}

TEST_F(CacheFile, GivesItsDescriptorsBack) {
    const int nBefore = CountDescriptors();
    OpensFile("a/b/c/f", O_WRONLY | O_CREAT);
    OpensFile("a/b/c", O_RDONLY);
    Replace("a/b/c", "c");
    OpensFile("a/b/c/f", O_RDONLY);
    EXPECT_EQ(CountDescriptors(), nBefore);
}

// A folder is a link half of the time, and a file another one: nothing arrives elsewhere.
TEST_F(CacheFile, WritesNothingElsewhereWhileNamesAreReplaced) {
    m_elsewhere.Put("c/f", "theirs");
    m_tree.Put("a/b/c/f", "");
    Link(m_elsewhere.Path("c"), m_tree.Path("a/b/d"));
    const std::string strOne = m_tree.Path("a/b/c");
    const std::string strTwo = m_tree.Path("a/b/d");
    std::atomic<bool> bStop{false};
    std::atomic<int> nSwaps{0};
    std::thread attacker([&] {
        for (; !bStop; ++nSwaps)
            renameat2(AT_FDCWD, strOne.c_str(), AT_FDCWD, strTwo.c_str(), RENAME_EXCHANGE);
    });
    int nWritten = 0;
    for (int i = 0; i < 100000 && (i < 2000 || nSwaps < 200 || nWritten == 0); ++i) {
        XFile file;
        if (CCacheFile(m_tree.Path("a/b/c/f")).Open(file, O_WRONLY | O_CREAT)) {
            nWritten += file.Write("ours", 4) == 4;
        }
        CCacheFile(m_tree.Path("a/b/c/f")).Remove();
        CCacheFolder(m_tree.Path("a/b/c/new"), true).ForceOwnerOnly();
    }
    bStop = true;
    attacker.join();
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(m_elsewhere.Get("c/f"), "theirs");
    EXPECT_FALSE(m_elsewhere.Has("c/new"));
}

}  // namespace
