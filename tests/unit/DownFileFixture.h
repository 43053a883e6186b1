// What the tests of the file transfer share.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "DownFile.h"
#include "TempFolder.h"

// The time of files that are held.
constexpr time_t kTime = 0x5F5E1000;

// A socket whose receives give what was written down before, and whose sends are kept.
class CScriptedSocket : public CSyncSocket {
  public:
    int _Send(const void* lpBuf, int nBufLen, int nFlags) override {
        EXPECT_EQ(nFlags, 0);
        m_sent.emplace_back(static_cast<const char*>(lpBuf), static_cast<size_t>(nBufLen));
        if (m_sendResults.empty()) return nBufLen;
        const int nResult = m_sendResults.front();
        m_sendResults.pop_front();
        return nResult;
    }
    // One entry of the script at the most; the rest of it stays for the next receive. An empty
    // entry is a receive of 0 bytes. -1 when the script is at its end.
    int _Recv(void* lpBuf, int nBufLen, int nFlags) override {
        EXPECT_EQ(nFlags, 0);
        m_asked.push_back(nBufLen);
        if (m_script.empty()) return -1;
        std::string& strNext = m_script.front();
        const size_t n = std::min(strNext.size(), static_cast<size_t>(nBufLen));
        std::memcpy(lpBuf, strNext.data(), n);
        strNext.erase(0, n);
        if (strNext.empty()) m_script.pop_front();
        return static_cast<int>(n);
    }

    std::deque<std::string> m_script;
    std::deque<int> m_sendResults;    // given back by the next sends
    std::vector<std::string> m_sent;  // one entry a send
    std::vector<int> m_asked;         // the room of each receive
};

class CProgress : public IGetFileCB {
  public:
    void OnProgress(int nBytes, bool bFinish) override {
        m_calls += std::to_string(nBytes) + (bFinish ? "! " : " ");
    }
    std::string m_calls;
};

// Bytes that differ wherever they are cut.
inline std::string Pattern(size_t nSize) {
    std::string str(nSize, 0);
    for (size_t i = 0; i < nSize; ++i) str[i] = static_cast<char>(i * 31 + i / 251);
    return str;
}

// A transfer of "f.dat" into a folder of its own, over a scripted socket.
class CDownFileTest : public ::testing::Test {
  protected:
    EGetFile Transfer(const char* szName = "f.dat", unsigned long mtime = 0,
                      unsigned long size = 0) {
        return TransferFile(szName, m_sock, '4', m_folder.Path(), mtime, size, &m_progress, nullptr,
                            m_bJoinHeader);
    }
    // With these receives.
    EGetFile TransferOf(std::deque<std::string> script) {
        m_sock.m_script = std::move(script);
        return Transfer();
    }
    void PutAged(const std::string& strName, const std::string& strBytes, time_t tt = kTime) {
        m_folder.Put(strName, strBytes);
        m_folder.SetTime(strName, tt);
    }
    void ExpectStamp(const std::string& strName, time_t tt) {
        EXPECT_EQ(m_folder.Stat(strName).st_mtime, tt) << strName;
        EXPECT_EQ(m_folder.Stat(strName).st_atime, tt) << strName;
    }
    std::string Request() {
        EXPECT_EQ(m_sock.m_sent.size(), 1u);
        return m_sock.m_sent.empty() ? "" : m_sock.m_sent[0];
    }

    CTempFolder m_folder;
    CScriptedSocket m_sock;
    CProgress m_progress;
    bool m_bJoinHeader = false;
};

// The counts that the acknowledgements carry; their form is checked on the way.
inline std::vector<unsigned long> AckCounts(const CScriptedSocket& sock, char nCode) {
    std::vector<unsigned long> counts;
    const std::string strPrefix = std::string(1, nCode) + "Hello";
    for (size_t i = 1; i < sock.m_sent.size(); ++i) {
        const std::string& str = sock.m_sent[i];
        EXPECT_EQ(str.substr(0, 6), strPrefix);
        EXPECT_EQ(str.find('\0'), str.size() - 1);  // its zero byte ends it
        counts.push_back(strtoul(str.c_str() + 6, nullptr, 16));
    }
    return counts;
}
