// A session with a scripted server: the fixture under the tests of the session and its drivers.
#pragma once

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProcessState.h"
#include "ScriptedServer.h"
#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"
#include "VzDBAccess/Registry.h"
#include "WireBytes.h"

// What a scripted plant says while a session logs in. Times are seconds since 1970.
struct SPlant {
    std::string strProject = "Unit";
    std::string strTitle = "Plant";
    std::string strUser = "u";
    std::string strPassword = "p";
    std::string strLoginReply = "9" + Hex("00 00 00 00") + U32(8);  // 8: the right to write
    // Two drivers: Boiler, id 0, 8 tags; Mill, id 1, 3 tags.
    std::string strDrvInfo = Z("Boiler") + U16(0) + U16(8) + Z("Mill") + U16(1) + U16(3);
    uint32_t nDrvTime = 1600000000;

    std::string NotifyReply() const {
        return "8" + std::string(42, 'x') + U32Big(1) + U32Big(2) + U32Big(nDrvTime) +
               U32Big(static_cast<uint32_t>(strDrvInfo.size())) + Z(strProject) + Z(strTitle);
    }
    std::string LoginRequest() const { return "9" + Z(strUser) + Z(strPassword); }
    std::string DrvInfoReply() const {
        return "Size:" + Upper(static_cast<unsigned>(strDrvInfo.size())) +
               "\r\nFileTime:" + Upper(nDrvTime) + "\r\n\r\n" + strDrvInfo;
    }
};

constexpr char kFirstDrvInfoRequest[] = "4RecData/drvinfo.dat\r\nHello:Yes\r\n\r\n";

class CScriptedSession : public ::testing::Test {
  protected:
    CScriptedSession() : core(new CDBCore) {
        RegisterCore(core);
        RemoveTree(CacheFolder());
        m_nThreads = CountThreads();
    }
    ~CScriptedSession() override {
        if (core) {
            core->_Disconnect();
            // A thread that made calls takes the interpreter lock once more before it ends.
            EXPECT_TRUE(WaitFor([this] { return CountThreads() <= m_nThreads; }))
                << "a thread outlived its session";
            Drop();
        }
        RemoveTree(CacheFolder());
    }

    std::string CacheFolder() const {
        return "/tmp/vzbrowser/127.0.0.1_" + std::to_string(server.Port());
    }
    std::string ProjectFolder() const { return CacheFolder() + "/" + plant.strProject + "/"; }

    // The orders of the login's steps. nFirst: the number of the request connection.
    void OrderHellos(size_t nFirst = 0) {
        server.Accept();
        server.Take(nFirst, &strHello);
        server.Send(nFirst, "7");
        server.Accept();
        server.Take(nFirst + 1, &strNotifyHello);
        server.Send(nFirst + 1, Scramble(plant.NotifyReply()));
    }
    void OrderUser(size_t nFirst = 0) {
        server.Expect(nFirst, plant.LoginRequest());
        server.Send(nFirst, plant.strLoginReply);
    }
    void OrderLogin(size_t nFirst = 0) {
        OrderHellos(nFirst);
        OrderUser(nFirst);
        // A session that logs in again finds its file current and does not ask.
        if (nFirst != 0) return;
        server.Expect(nFirst, kFirstDrvInfoRequest);
        server.Send(nFirst, plant.DrvInfoReply());
    }
    int Connect() {
        return core->_Connect(server.Host().c_str(), plant.strUser.c_str(),
                              plant.strPassword.c_str());
    }
    void LogIn() {
        OrderLogin();
        ASSERT_EQ(Connect(), kConnected);
        ASSERT_TRUE(server.Done());
        nReq = 0;
        nNotify = 1;
    }
    // The next request must be strRequest; it is answered with strReply.
    void OnRequest(const std::string& strRequest, const std::string& strReply) {
        server.Expect(nReq, strRequest);
        if (!strReply.empty()) server.Send(nReq, strReply);
    }
    void Push(const std::string& strBytes) { server.Send(nNotify, strBytes); }

    void Drop() {
        UnregisterCore(core);
        core->LetGo();
        core = nullptr;
    }

    SPlant plant;
    std::string strHello;
    std::string strNotifyHello;
    CScriptedServer server;
    CDBCore* core;
    size_t nReq = 0;
    size_t nNotify = 1;

    int m_nThreads;  // of this process, before any session
};

// A logged-in session and its driver Boiler (id 0, 8 tags).
class CDriverTest : public CScriptedSession {
  protected:
    void SetUp() override {
        LogIn();
        ASSERT_NE(core->_GetDriver("Boiler"), nullptr);
        drv = core->_GetDriver("Boiler");
    }

    // A lookup of names and its reply.
    static std::string Lookup(const std::vector<std::string>& names) {
        std::string str = "L";
        for (const std::string& strName : names) str += U16(0) + Z(strName);
        return str;
    }
    static std::string LookupReply(const std::vector<unsigned>& ids) {
        std::string str = "L";
        for (const unsigned nId : ids) str += U16(nId) + Hex("EE EE");
        return str;
    }
    void OnLookup(const std::vector<std::string>& names, const std::vector<unsigned>& ids) {
        OnRequest(Lookup(names), LookupReply(ids));
    }
    // Resolves T0, T1, ... to the ids 0, 1, ... without any other effect.
    void Resolve(unsigned nTags) {
        std::vector<std::string> names;
        std::vector<unsigned> ids;
        std::string strList;
        for (unsigned i = 0; i < nTags; ++i) {
            names.push_back("T" + std::to_string(i));
            ids.push_back(i);
            strList += (i ? "," : "") + names.back();
        }
        OnLookup(names, ids);
        std::vector<CDBDriver::STag*> tags;
        ASSERT_TRUE(drv->CheckTagId(strList.c_str(), tags));
        ASSERT_TRUE(server.Done());
    }
    // Subscribes resolved tags: strValues are their values with type codes, of ids 0, 1, ...
    void Subscribe(const std::string& strTags, unsigned nTags, const std::string& strValues) {
        std::string strRequest = "b" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) strRequest += U16(0) + U16(i) + U8(0);
        OnRequest(strRequest, "b" + U16(static_cast<unsigned>(strValues.size())) + strValues);
        ASSERT_TRUE(drv->_ConnectTag(strTags.c_str()));
        ASSERT_TRUE(server.Done());
    }
    // Ids of the entries that a list resolves to; -1 for a null entry.
    std::vector<int> Ids(const std::string& strTags, bool bResult = true) {
        std::vector<CDBDriver::STag*> tags;
        EXPECT_EQ(drv->CheckTagId(strTags.c_str(), tags), bResult);
        std::vector<int> ids;
        for (const CDBDriver::STag* pTag : tags) ids.push_back(pTag ? pTag->id : -1);
        return ids;
    }
    // A tag's value as a script would see it, from memory.
    std::string Value(size_t nTag) {
        return ReprOf(CDBDriver::ValueToObj(&drv->m_tags[nTag].value));
    }

    CDBDriver* drv = nullptr;
};
