// A loopback server that answers everything, and once breaks off in the middle as it was told.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "WireBytes.h"

// What a server may do behind some bytes of a reply, or of a request that it has read.
enum class EBreak {
    kNone,
    kClose,  // an orderly end of the connection
    kReset,  // a reset
    kStall,  // nothing more is sent or read, the connection stays
    kSplit,  // the rest follows after a pause
    kDrip,   // the rest follows byte by byte
};

struct SBreak {
    EBreak eHow = EBreak::kNone;
    std::string strAt;      // the first bytes of the request whose reply, or which itself, is cut
    size_t nAfter = 0;      // so many bytes go through before
    bool bRequest = false;  // the request is cut and not its reply
};

// One driver, "Boiler", id 0, with 8 tags; a tag's name is "T" and its id, its value an I4 of
// 10 * id + 7. Each value of a read or subscription comes in a chunk of its own. Two active alarms,
// two alarm texts and one alarm tag. The order to break is carried out once.
//
// Ownership: owns its sockets and its thread, which are gone when the destructor returns.
// Threads:   Push: thread-safe; the rest: one thread at a time. Python: none.
class CBreakingServer {
  public:
    // strHelloReply: what the first hello is answered with.
    explicit CBreakingServer(const SBreak& brk, const std::string& strIp = "127.0.0.1",
                             uint16_t nPort = 0, const std::string& strHelloReply = "7")
        : m_strHelloReply(strHelloReply), m_break(brk) {
        m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int nOn = 1;
        setsockopt(m_hListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = inet_addr(strIp.c_str());
        addr.sin_port = htons(nPort);
        socklen_t nLen = sizeof addr;
        auto* pRaw = static_cast<sockaddr*>(static_cast<void*>(&addr));
        EXPECT_EQ(::bind(m_hListen, pRaw, nLen), 0);
        EXPECT_EQ(::listen(m_hListen, 16), 0);
        getsockname(m_hListen, pRaw, &nLen);
        m_nPort = ntohs(addr.sin_port);
        m_strHost = strIp + ":" + std::to_string(m_nPort);
        EXPECT_EQ(::pipe(m_hStop), 0);
        m_thread = std::thread([this] { Run(); });
    }
    ~CBreakingServer() {
        ::close(m_hStop[1]);
        m_thread.join();
        for (const int h : m_conns) ::close(h);
        for (const int h : m_stalled) ::close(h);
        ::close(m_hListen);
        ::close(m_hStop[0]);
    }
    CBreakingServer(const CBreakingServer&) = delete;
    CBreakingServer& operator=(const CBreakingServer&) = delete;

    const std::string& Host() const { return m_strHost; }
    uint16_t Port() const { return m_nPort; }

    // ---- Replies ----

    static std::string DrvInfo() { return Z("Boiler") + U16(0) + U16(8); }
    static std::string NotifyReply() {
        return "8" + std::string(42, 'x') + U32Big(1) + U32Big(2) + U32Big(0x5F5E1000) +
               U32Big(static_cast<uint32_t>(DrvInfo().size())) + Z("Unit") + Z("Plant");
    }
    static std::string LoginReply() { return "9" + U32(0) + U32(8); }
    static std::string FileHeader(const std::string& strBody) {
        return "Size:" + Upper(static_cast<unsigned>(strBody.size())) +
               "\r\nFileTime:5F5E1000\r\n\r\n";
    }
    static std::string File(const std::string& strRequest) {
        std::string strBody = DrvInfo();
        if (strRequest.compare(0, 17, "4RecData/textlist") == 0) strBody = kTexts;
        if (strRequest.compare(0, 16, "4RecData/taglist") == 0) strBody = kTags;
        return FileHeader(strBody) + strBody;
    }
    static std::string Alarms() { return "n" + U16(2) + std::string(64, '\1'); }

    static constexpr char kTexts[] = "High\r\nLow low\r\n";
    static constexpr char kTags[] = "Level\r\n";

    // ---- The notification stream ----

    // Sends bytes on the latest notification connection, then breaks off when told to.
    void Push(const std::string& strBytes, EBreak eHow = EBreak::kNone) {
        std::lock_guard<std::mutex> guard(m_lock);
        Send(m_hNotify, strBytes);
        if (eHow != EBreak::kNone) End(m_hNotify, eHow);
    }

  private:
    void Run() {
        for (;;) {
            std::vector<pollfd> fds = {{m_hStop[0], POLLIN, 0}, {m_hListen, POLLIN, 0}};
            {
                std::lock_guard<std::mutex> guard(m_lock);
                for (const int h : m_conns) fds.push_back({h, POLLIN, 0});
            }
            // Now and then: a connection that was ended by Push is no longer asked for.
            ::poll(fds.data(), static_cast<nfds_t>(fds.size()), 100);
            if (fds[0].revents) return;
            std::lock_guard<std::mutex> guard(m_lock);
            if (fds[1].revents)
                m_conns.push_back(::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC));
            for (size_t i = 2; i < fds.size(); ++i) {
                const bool bThere = std::count(m_conns.begin(), m_conns.end(), fds[i].fd);
                if (fds[i].revents && bThere) Serve(fds[i].fd);
            }
        }
    }

    // Small requests of a client that waits for each reply come in one piece on loopback.
    void Serve(int h) {
        std::string str(4096, '\0');
        ssize_t n = ::recv(h, &str[0], str.size(), MSG_PEEK | MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) return;
        if (n <= 0) return End(h, EBreak::kClose);
        str.resize(static_cast<size_t>(n));
        const bool bBreak = m_break.eHow != EBreak::kNone &&
                            str.compare(0, m_break.strAt.size(), m_break.strAt) == 0;
        if (bBreak && m_break.bRequest) {
            const EBreak eHow = std::exchange(m_break.eHow, EBreak::kNone);
            if (m_break.nAfter) (void)!::recv(h, &str[0], m_break.nAfter, 0);
            return End(h, eHow);
        }
        (void)!::recv(h, &str[0], str.size(), 0);
        if (str[0] == '8') m_hNotify = h;
        const std::string strReply = Answer(str);
        if (!bBreak) return Send(h, strReply);
        const EBreak eHow = std::exchange(m_break.eHow, EBreak::kNone);
        const size_t nAfter = std::min(m_break.nAfter, strReply.size());
        Send(h, strReply.substr(0, nAfter));
        if (eHow != EBreak::kSplit && eHow != EBreak::kDrip) return End(h, eHow);
        const size_t nPiece = eHow == EBreak::kSplit ? strReply.size() : 1;
        for (size_t nAt = nAfter; nAt < strReply.size(); nAt += nPiece) {
            std::this_thread::sleep_for(std::chrono::milliseconds(nPiece == 1 ? 1 : 10));
            Send(h, strReply.substr(nAt, nPiece));
        }
    }

    std::string Answer(const std::string& str) const {
        const size_t nCount = str.size() > 2 ? static_cast<unsigned char>(str[1]) : 0;
        std::string strReply;
        switch (str[0]) {
            case '7':
                return m_strHelloReply;
            case '8':
                return Scramble(NotifyReply());
            case '9':
                return LoginReply();
            case '4':
                return File(str);
            case 'L':
                return Lookup(str);
            case 'H':
                for (size_t i = 0; i < nCount; ++i) {
                    strReply += "H" + U8(i + 1 < nCount ? 1 : 0) + Chunk(str, 5 + 4 * i);
                }
                return strReply;
            case 'b':
                for (size_t i = 0; i < nCount; ++i) strReply += "b" + Chunk(str, 5 + 5 * i);
                return strReply;
            case 'd':
                return "d";
            case 'n':
                return Alarms();
            default:
                return "";
        }
    }
    // Length and value of the tag whose id stands at nAt of a request.
    static std::string Chunk(const std::string& str, size_t nAt) {
        return U16(6) + U16(3) + U32(10 * static_cast<unsigned char>(str[nAt]) + 7u);
    }
    static std::string Lookup(const std::string& str) {
        std::string strReply = "L";
        for (size_t nAt = 1; nAt + 3 < str.size();) {
            const std::string strName = str.c_str() + nAt + 2;
            strReply += U16(static_cast<unsigned>(strName[1] - '0')) + Hex("EE EE");
            nAt += 2 + strName.size() + 1;
        }
        return strReply;
    }
    static void Send(int h, const std::string& str) {
        if (!str.empty()) (void)!::send(h, str.data(), str.size(), MSG_NOSIGNAL);
    }
    void End(int h, EBreak eHow) {
        m_conns.erase(std::remove(m_conns.begin(), m_conns.end(), h), m_conns.end());
        if (eHow == EBreak::kStall) {
            m_stalled.push_back(h);
            return;
        }
        const linger now{1, 0};
        if (eHow == EBreak::kReset) setsockopt(h, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        ::close(h);
    }

    const std::string m_strHelloReply;
    std::string m_strHost;
    uint16_t m_nPort = 0;
    int m_hListen = -1;
    int m_hStop[2] = {-1, -1};
    std::mutex m_lock;  // guards everything below
    SBreak m_break;
    std::vector<int> m_conns;
    std::vector<int> m_stalled;
    int m_hNotify = -1;
    std::thread m_thread;
};
