#include "ScriptedSession.h"

// The fixture comes first: it brings the interpreter's header.
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "TempFolder.h"

namespace {

using CFileInfos = std::map<CString, SNFileInfo>;

// A core with a request connection, a folder for its project, and nothing more.
class PrjFile : public ::testing::Test {
  protected:
    PrjFile() : core(new CDBCore) {
        for (const char* szSub : {"RecData", "Media", "SysCfg", "other"})
            mkdir((strFolder + szSub).c_str(), 0700);
        core->m_strPrjPath = CString(strFolder);
        server.Accept();
        EXPECT_TRUE(core->m_reqSock.Create(0, SOCK_STREAM, nullptr, FALSE));
        EXPECT_TRUE(core->m_reqSock._Connect("127.0.0.1", server.Port()));
        EXPECT_TRUE(server.Done());
    }
    ~PrjFile() override { core->LetGo(); }
    void Put(const std::string& strName, const std::string& strText) {
        std::ofstream(strFolder + strName, std::ios::binary) << strText;
    }
    std::string Get(const std::string& strName) {
        std::ifstream in(strFolder + strName, std::ios::binary);
        if (!in) return "(none)";
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    BOOL Sync(const char* szName) { return core->GetPrjFile(szName, infos); }
    void OrderFile(const std::string& strRequest) {
        server.Expect(0, strRequest);
        server.Send(0, "Size:3\r\nFileTime:5F5E1000\r\n\r\nnew");
    }
    void ExpectNothingSent() { EXPECT_EQ(server.Unread(0), ""); }

    CDBCore* core;
    const CTempFolder folder;
    const std::string strFolder = folder.Path();
    CFileInfos infos;
    CScriptedServer server;
};

TEST_F(PrjFile, OfALocalDatabaseStaysWhereItIs) {
    core->m_bLocalDB = true;
    Put("other/x.cfg", "old");
    EXPECT_TRUE(Sync("other/x.cfg"));
    EXPECT_TRUE(Sync("RecData/drvinfo.dat"));
    EXPECT_EQ(Get("other/x.cfg"), "old");
    ExpectNothingSent();
}

TEST_F(PrjFile, OtherFieldOfTheSameNameDoesNotCount) {
    core->CClientSock::m_bLocalDB = true;
    OrderFile("4Media/a\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("Media/a"));
    EXPECT_EQ(Get("Media/a"), "new");
}

TEST_F(PrjFile, OnTheListIsFoundInAnyCaseAndAskedForAsWritten) {
    infos[CString("recdata/drvinfo.dat")] = {1600000000, 3};
    OrderFile("4RecData/DrvInfo.dat\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("RecData/DrvInfo.dat"));
    EXPECT_EQ(Get("RecData/DrvInfo.dat"), "new");
}

TEST_F(PrjFile, OnTheListAndCurrentIsNotAskedFor) {
    infos[CString("other/a")] = {1600000000, 3};
    OrderFile("4other/a\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("other/a"));
    EXPECT_TRUE(server.Done());
    EXPECT_TRUE(Sync("other/a"));
    ExpectNothingSent();
}

TEST_F(PrjFile, OnTheListWithAnotherSizeIsAskedFor) {
    infos[CString("other/a")] = {1600000000, 3};
    OrderFile("4other/a\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("other/a"));
    infos[CString("other/a")].size = 4;
    OrderFile("4other/a\r\nLastTime:5F5E1000\r\nSize:3\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("other/a"));
}

TEST_F(PrjFile, NotOnTheListIsAlwaysAskedForInThreeFolders) {
    for (const std::string strName : {"Media/logo.png", "RecData/a", "SysCfg/b"}) {
        OrderFile("4" + strName + "\r\nHello:Yes\r\n\r\n");
        EXPECT_TRUE(Sync(strName.c_str()));
        EXPECT_EQ(Get(strName), "new");
        // Also when the copy that is held has the very time and size it came with.
        server.Expect(0, "4" + strName + "\r\nLastTime:5F5E1000\r\nSize:3\r\nHello:Yes\r\n\r\n");
        server.Send(0, "UseLast:Yes\r\n\r\n");
        EXPECT_TRUE(Sync(strName.c_str()));
        EXPECT_TRUE(server.Done());
    }
}

TEST_F(PrjFile, ThreeFoldersCountInAnyCase) {
    mkdir((strFolder + "MEDIA").c_str(), 0700);
    OrderFile("4MEDIA/a\r\nHello:Yes\r\n\r\n");
    EXPECT_TRUE(Sync("MEDIA/a"));
    EXPECT_EQ(Get("MEDIA/a"), "new");
}

TEST_F(PrjFile, NotOnTheListElsewhereIsDeletedWithoutARequest) {
    Put("other/x.cfg", "old");
    EXPECT_TRUE(Sync("other/x.cfg"));
    EXPECT_EQ(Get("other/x.cfg"), "(none)");
    ExpectNothingSent();
}

TEST_F(PrjFile, MissingOneToBeDeletedIsNoFailure) {
    EXPECT_TRUE(Sync("other/none"));
    ExpectNothingSent();
}

TEST_F(PrjFile, OfAFolderWhoseNameOnlyBeginsAlikeIsDeleted) {
    Put("Mediax", "old");
    EXPECT_TRUE(Sync("Mediax"));
    EXPECT_EQ(Get("Mediax"), "(none)");
}

TEST_F(PrjFile, ToBeDeletedIsFoundByItsUtf8Name) {
    Put("other/\xE4\xB8\xAD", "old");
    EXPECT_TRUE(Sync("other/\xD6\xD0"));
    EXPECT_EQ(Get("other/\xE4\xB8\xAD"), "(none)");
}

TEST_F(PrjFile, TransferThatFailsIsFalse) {
    infos[CString("other/a")] = {1600000000, 3};
    server.Expect(0, "4other/a\r\nHello:Yes\r\n\r\n");
    server.Close(0);
    EXPECT_FALSE(Sync("other/a"));
}

TEST_F(PrjFile, TransferThatBreaksOffIsFalse) {
    server.Expect(0, "4Media/a\r\nHello:Yes\r\n\r\n");
    server.Send(0, "Size:3\r\n\r\nne");
    server.Close(0);
    EXPECT_FALSE(Sync("Media/a"));
}

TEST_F(PrjFile, ThatTheServerDoesNotHaveIsTrueAndGone) {
    Put("Media/a", "old");
    struct stat st {};
    ASSERT_EQ(stat((strFolder + "Media/a").c_str(), &st), 0);
    server.Expect(0, "4Media/a\r\nLastTime:" + Upper(static_cast<unsigned>(st.st_mtime)) +
                         "\r\nSize:3\r\nHello:Yes\r\n\r\n");
    server.Send(0, "Exist:No\r\n\r\n");
    EXPECT_TRUE(Sync("Media/a"));
    EXPECT_EQ(Get("Media/a"), "(none)");
}

TEST_F(PrjFile, NameThatIsNoGb2312RemovesNoOtherFile) {
    Put("other/x", "kept");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Sync("other/x\xFF\xFE.cfg"));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(Get("other/x"), "kept");
}

}  // namespace
