// A small plant for one client after the other: answers what is whole, hangs up on what is not.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "WireBytes.h"

// Project and driver "\xCB\xAE" (id 0) with the tags "a" (i32 7), "the_flow_of_a_pump" (f64
// 2.5) and "\xCB\xAE" (a text), and a second driver "mill" (id 1) without any.
//
// Ownership: owns its sockets and its thread. Threads: thread-safe. Python: none.
class CPlantServer {
  public:
    CPlantServer() {
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
        m_thread = std::thread([this] { Run(); });
    }
    ~CPlantServer() {
        m_bStop = true;
        m_thread.join();
        for (const auto& conn : m_conns) ::close(conn.first);
        ::close(m_hListen);
    }
    CPlantServer(const CPlantServer&) = delete;
    CPlantServer& operator=(const CPlantServer&) = delete;

    const std::string& Host() const { return m_strHost; }
    // How the driver file is answered: whole, as what follows its first half, or as not there.
    enum class EFile { kWhole, kRest, kGone };
    void AnswerFile(EFile eFile) { m_eFile = eFile; }
    static std::string FirstHalf() { return Z("\xCB\xAE") + U16(0) + U16(3); }
    size_t Connections() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_conns.size();
    }
    // To the notification channel that came last.
    void Push(const std::string& strFrames) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_conns.count(m_hNotify)) Send(m_hNotify, strFrames);
    }
    void HangUp() {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_conns.count(m_hNotify)) ::shutdown(m_hNotify, SHUT_RDWR);
    }

  private:
    static constexpr int kPatienceMs = 100;  // with a request that is not whole

    static void Send(int h, const std::string& str) {
        if (::send(h, str.data(), str.size(), MSG_NOSIGNAL) < 0) return;  // the client is gone
    }
    void Run() {
        while (!m_bStop) {
            std::vector<pollfd> fds{{m_hListen, POLLIN, 0}};
            for (const auto& conn : m_conns) fds.push_back({conn.first, POLLIN, 0});
            const int nReady = ::poll(fds.data(), fds.size(), kPatienceMs);
            std::lock_guard<std::mutex> guard(m_lock);
            for (const pollfd& fd : fds) {
                if (fd.fd == m_hListen || !fd.revents) continue;
                if (!Serve(fd.fd)) HangUp(fd.fd);
            }
            if (fds[0].revents) {
                const int h = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC);
                if (h >= 0) m_conns[h];
            }
            if (nReady != 0) continue;
            for (const pollfd& fd : fds)
                if (m_conns.count(fd.fd) && !m_conns[fd.fd].empty()) HangUp(fd.fd);
        }
    }
    void HangUp(int h) {
        ::close(h);
        m_conns.erase(h);
    }
    bool Serve(int h) {
        char buf[4096];
        const ssize_t n = ::recv(h, buf, sizeof buf, 0);
        if (n <= 0) return false;
        std::string& str = m_conns[h];
        str.append(buf, static_cast<size_t>(n));
        while (!str.empty()) {
            const size_t nWhole = WholeRequest(str);
            if (nWhole == std::string::npos) return false;
            if (nWhole == 0) return true;  // more may come
            if (str[0] == '8') m_hNotify = h;
            Send(h, Answer(str.substr(0, nWhole)));
            str.erase(0, nWhole);
        }
        return true;
    }

    static unsigned At16(const std::string& str, size_t nAt) {
        return static_cast<unsigned char>(str[nAt]) +
               256u * static_cast<unsigned char>(str[nAt + 1]);
    }
    // Length of the request at the start of what came; 0 when it is not whole, npos for nonsense.
    static size_t WholeRequest(const std::string& str) {
        const size_t n = str.size();
        size_t nNeed = 1;
        switch (str[0]) {
            case '7':
                nNeed = 23;
                break;
            case '8': {
                const std::string strPlain = Unscramble(str.substr(1));
                const size_t nName = strPlain.find('\0', 16);
                return nName != std::string::npos && strPlain.size() >= nName + 3 ? n : 0;
            }
            case '9': {
                const size_t nUser = str.find('\0');
                const size_t nEnd = nUser == std::string::npos ? nUser : str.find('\0', nUser + 1);
                return nEnd == std::string::npos ? 0 : nEnd + 1;
            }
            case '4':
                return str.find("\r\n\r\n") == std::string::npos ? 0 : str.find("\r\n\r\n") + 4;
            case 'L':
                return n >= 4 && str.back() == '\0' && NamesOf(str).back() != "" ? n : 0;
            case 'H':
            case 'b':
                if (n < 3) return 0;
                nNeed = 3 + At16(str, 1) * (str[0] == 'H' ? 4u : 5u);
                break;
            case 'g': {
                nNeed = 3;
                for (unsigned i = 0; n >= 3 && i < At16(str, 1); ++i) {
                    if (n < nNeed + 6) return 0;
                    const unsigned nType = At16(str, nNeed + 4);
                    nNeed += 6;
                    const size_t nText = str.find('\0', nNeed);
                    if (nType == 8 && nText == std::string::npos) return 0;
                    nNeed += nType == 8 ? nText + 1 - nNeed : nType == 11 ? 1 : nType == 3 ? 4 : 8;
                }
                break;
            }
            case 'n':
                break;
            default:
                return std::string::npos;
        }
        return n >= nNeed ? nNeed : 0;
    }
    static std::vector<std::string> NamesOf(const std::string& str) {
        std::vector<std::string> names;
        for (size_t nAt = 3; nAt < str.size(); nAt += names.back().size() + 3)
            names.push_back(str.c_str() + nAt);
        return names;
    }
    std::string DrvInfoFile() const {
        if (m_eFile == EFile::kGone) return "Exist:No\r\n\r\n";
        if (m_eFile == EFile::kWhole) return File(DrvInfo());
        return "Append:Yes\r\n" + File(DrvInfo().substr(FirstHalf().size()));
    }
    std::string Answer(const std::string& str) {
        switch (str[0]) {
            case '7':
                return "7";
            case '8':
                return Scramble(
                    "8" + std::string(42, 'x') + U32Big(0) + U32Big(0) + U32Big(0x5F5E1000) +
                    U32Big(static_cast<uint32_t>(DrvInfo().size())) + Z("\xCB\xAE") + Z(""));
            case '9':
                return "9" + U32(0) + U32(8);
            case '4':
                if (str.find("drvinfo") != std::string::npos) return DrvInfoFile();
                return File(str.find("textlist") != std::string::npos ? "high\n\xCB\xAE\n"
                                                                      : "T0\nT1\n");
            case 'L':
                return Lookup(str);
            case 'H':
                return Values(str, "H"s + '\0', 4);
            case 'b':
                return Values(str, "b", 5);
            case 'n':
                return "n" + U16(1) + Alarm();
            default:
                return "";
        }
    }
    static std::string DrvInfo() { return FirstHalf() + Z("mill") + U16(1) + U16(0); }
    static std::string File(const std::string& strBytes) {
        return "Size:" + Upper(static_cast<unsigned>(strBytes.size())) +
               "\r\nFileTime:5F5E1000\r\n\r\n" + strBytes;
    }
    static std::string Lookup(const std::string& str) {
        std::string strReply = "L";
        for (const std::string& strName : NamesOf(str)) {
            const unsigned nId = strName == "a"                    ? 0
                                 : strName == "the_flow_of_a_pump" ? 1
                                 : strName == "\xCB\xAE"           ? 2
                                                                   : 0xFFFF;
            strReply += U16(nId) + U16(0);
        }
        return strReply;
    }
    static std::string Values(const std::string& str, const std::string& strStart, size_t nEach) {
        std::string strValues;
        for (size_t nAt = 3; nAt + nEach <= str.size(); nAt += nEach) {
            const unsigned nTag = At16(str, nAt + 2);
            if (nTag == 0) strValues += U16(3) + U32(7);
            if (nTag == 1) strValues += U16(5) + Hex("00 00 00 00 00 00 04 40");
            if (nTag == 2) strValues += U16(8) + Z("a text of more than fifteen bytes");
        }
        return strStart + U16(static_cast<unsigned>(strValues.size())) + strValues;
    }

  public:
    // An alarm of tag 1, kind 1, group 0.
    static std::string Alarm() {
        return U32(1700000000) + U32(0) + U16(1) + U16(1) + U16(0) + U8(3) + U8(1) +
               Hex("66 66 66 66 66 66 25 40") + Hex("00 00 00 00 00 00 25 40");
    }

  private:
    std::string m_strHost;
    int m_hListen = -1;
    std::atomic<bool> m_bStop{false};
    std::atomic<EFile> m_eFile{EFile::kWhole};
    std::mutex m_lock;  // guards the two below; the server's thread alone changes them
    std::map<int, std::string> m_conns;  // and what came that is not answered yet
    int m_hNotify = -1;
    std::thread m_thread;
};
