// A loopback server for many sessions that answers everything and streams changes all the time.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "WireBytes.h"

// One driver, "Boiler", id 0, with 8 tags of type I4; a tag's name is its id. Every notification
// connection gets changes of tag 0, whole frames of 8 bytes, from its hello on.
//
// Ownership: owns its sockets and threads, which are gone when the destructor returns.
// Threads:   thread-safe. Python: none.
class CStreamingServer {
  public:
    CStreamingServer() {
        m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nLen = sizeof addr;
        auto* pRaw = static_cast<sockaddr*>(static_cast<void*>(&addr));
        EXPECT_EQ(::bind(m_hListen, pRaw, nLen), 0);
        EXPECT_EQ(::listen(m_hListen, 64), 0);
        getsockname(m_hListen, pRaw, &nLen);
        m_strHost = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
        m_listener = std::thread([this] { Listen(); });
    }
    ~CStreamingServer() {
        m_bStop = true;
        ::shutdown(m_hListen, SHUT_RDWR);
        m_listener.join();
        DropNotify();
        for (const int h : m_conns) ::shutdown(h, SHUT_RDWR);
        for (std::thread& thread : m_threads) thread.join();
        for (const int h : m_conns) ::close(h);
        ::close(m_hListen);
    }
    CStreamingServer(const CStreamingServer&) = delete;
    CStreamingServer& operator=(const CStreamingServer&) = delete;

    const std::string& Host() const { return m_strHost; }

    // Ends all notification connections.
    void DropNotify() {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const int h : m_notify) ::shutdown(h, SHUT_RDWR);
        m_notify.clear();
    }

  private:
    void Listen() {
        while (!m_bStop) {
            const int h = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC);
            if (h < 0) continue;
            std::lock_guard<std::mutex> guard(m_lock);
            m_conns.push_back(h);
            m_threads.emplace_back([this, h] { Serve(h); });
        }
    }
    void Serve(int h) {
        std::string str(4096, '\0');
        for (;;) {
            const ssize_t n = ::recv(h, &str[0], str.size(), 0);
            if (n <= 0) return;
            if (str[0] == '8') return Stream(h);
            // A write has no reply, so the next request may have come together with it.
            size_t nAt = 0;
            while (nAt < static_cast<size_t>(n) && str[nAt] == 'g') nAt += kWriteBytes;
            if (nAt >= static_cast<size_t>(n)) continue;
            const std::string strReply = Answer(str.substr(nAt, static_cast<size_t>(n) - nAt));
            if (!strReply.empty()) Send(h, strReply);
        }
    }
    static constexpr size_t kWriteBytes = 13;  // of one tag: code, count, ids, type and an I4

    // Small requests of a client that waits for each reply come in one piece on loopback.
    static std::string Answer(const std::string& str) {
        const size_t nCount = str.size() > 2 ? static_cast<unsigned char>(str[1]) : 0;
        std::string strValues;
        for (size_t i = 0; i < nCount; ++i) strValues += U16(3) + U32(static_cast<uint32_t>(i));
        switch (str[0]) {
            case '7':
                return "7";
            case '9':
                return "9" + U32(0) + U32(8);
            case '4':
                return "Size:" + Upper(static_cast<unsigned>(DrvInfo().size())) +
                       "\r\nFileTime:5F5E1000\r\n\r\n" + DrvInfo();
            case 'L':
                return Lookup(str);
            case 'H':
                return "H" + U8(0) + U16(static_cast<unsigned>(strValues.size())) + strValues;
            case 'b':
                return "b" + U16(static_cast<unsigned>(strValues.size())) + strValues;
            default:
                return "";
        }
    }
    static std::string DrvInfo() { return Z("Boiler") + U16(0) + U16(8); }
    static std::string Lookup(const std::string& str) {
        std::string strReply = "L";
        for (size_t nAt = 1; nAt + 2 < str.size();) {
            const std::string strName = str.c_str() + nAt + 2;
            strReply += U16(static_cast<unsigned>(strName[0] - '0')) + U16(0);
            nAt += 2 + strName.size() + 1;
        }
        return strReply;
    }
    void Stream(int h) {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_notify.push_back(h);
        }
        Send(h, Scramble("8" + std::string(42, 'x') + U32Big(0) + U32Big(0) + U32Big(0x5F5E1000) +
                         U32Big(static_cast<uint32_t>(DrvInfo().size())) + Z("Stream") + Z("")));
        const std::string strFrames = Repeat(U16(0) + U16(0) + U32(7), 32);
        while (!m_bStop && Send(h, strFrames)) ::usleep(500);
    }
    static bool Send(int h, const std::string& str) {
        return ::send(h, str.data(), str.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(str.size());
    }

    std::string m_strHost;
    int m_hListen = -1;
    std::atomic<bool> m_bStop{false};
    std::thread m_listener;
    std::mutex m_lock;  // guards the three below
    std::vector<std::thread> m_threads;
    std::vector<int> m_conns;  // closed at the end, so that no number is used twice
    std::vector<int> m_notify;
};
