// A loopback server that does exactly what a test orders, byte for byte.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "WireBytes.h"

// Orders are carried out one after the other by a thread of the server's own, each within thirty
// seconds. Connections are numbered as they come. An order that fails is a failure of the test; the
// orders after it are dropped and all connections closed, so that no client waits for them.
//
// Ownership: owns its sockets and its thread, which are gone when the destructor returns.
// Threads:   one thread at a time. Python: none.
class CScriptedServer {
  public:
    explicit CScriptedServer(const char* szIp = "127.0.0.1", uint16_t nPort = 0) : m_strIp(szIp) {
        m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int nOn = 1;
        setsockopt(m_hListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = inet_addr(szIp);
        addr.sin_port = htons(nPort);
        m_bListens = ::bind(m_hListen, Raw(addr), sizeof addr) == 0 && ::listen(m_hListen, 16) == 0;
        socklen_t nLen = sizeof addr;
        getsockname(m_hListen, Raw(addr), &nLen);
        m_nPort = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Run(); });
    }
    ~CScriptedServer() {
        Done();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_bStop = true;
        }
        m_changed.notify_all();
        m_thread.join();
        CloseAll();
        ::close(m_hListen);
    }
    CScriptedServer(const CScriptedServer&) = delete;
    CScriptedServer& operator=(const CScriptedServer&) = delete;

    bool Listens() const { return m_bListens; }
    uint16_t Port() const { return m_nPort; }
    std::string Host() const { return m_strIp + ":" + std::to_string(m_nPort); }

    // ---- Orders ----

    void Accept() {
        Order("accept", [this] {
            if (!Ready(m_hListen)) return false;
            const int h = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC);
            std::lock_guard<std::mutex> guard(m_lock);
            m_conns.push_back(h);
            return h >= 0;
        });
    }
    // Exactly these bytes come on a connection.
    void Expect(size_t nConn, const std::string& strBytes) {
        Order("expect", [=] {
            std::string str;
            while (str.size() < strBytes.size()) {
                if (!Receive(nConn, strBytes.size() - str.size(), str)) break;
            }
            if (str == strBytes) return true;
            m_strWhy = "got  " + Show(str) + "\nwant " + Show(strBytes);
            return false;
        });
    }
    // Whatever one receive gives is kept in *pInto, which lives until Done().
    void Take(size_t nConn, std::string* pInto) {
        Order("take", [=] { return Receive(nConn, 65536, *pInto); });
    }
    void Send(size_t nConn, const std::string& strBytes) {
        Order("send", [=] {
            const ssize_t n = ::send(Conn(nConn), strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
            return n == static_cast<ssize_t>(strBytes.size());
        });
    }
    // The same to a peer that may be gone already.
    void SendAnyway(size_t nConn, const std::string& strBytes) {
        Order("send anyway", [=] {
            (void)!::send(Conn(nConn), strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
            return true;
        });
    }
    // Waits until the peer has received all that was sent to it. hPeer: its end of the connection.
    void UntilTaken(size_t nConn, int hPeer) {
        Order("until taken", [=] {
            for (int i = 0; i < kPatienceMs; ++i) {
                int nOnTheWay = 1;
                int nWaiting = 1;
                ioctl(Conn(nConn), TIOCOUTQ, &nOnTheWay);
                if (nOnTheWay == 0) ioctl(hPeer, FIONREAD, &nWaiting);
                if (nWaiting == 0) return true;
                ::usleep(1000);
            }
            return false;
        });
    }
    // Sends of one byte each, which the peer may well receive one by one.
    void Drip(size_t nConn, const std::string& strBytes) {
        for (const char c : strBytes) {
            Send(nConn, std::string(1, c));
            Order("pause", [] { return ::usleep(2000) == 0; });
        }
    }
    // The same to a peer that may not listen to the end.
    void DripAnyway(size_t nConn, const std::string& strBytes) {
        Order("drip anyway", [=] {
            for (const char c : strBytes) {
                if (::send(Conn(nConn), &c, 1, MSG_NOSIGNAL) != 1) break;
                ::usleep(2000);
            }
            return true;
        });
    }
    // The same bytes again and again, until the peer is gone.
    void Flood(size_t nConn, const std::string& strBytes) {
        Order("flood", [=] {
            while (::send(Conn(nConn), strBytes.data(), strBytes.size(), MSG_NOSIGNAL) > 0) {
            }
            return true;
        });
    }
    // Waits until a descriptor of this process is readable.
    void Until(int hReadable) {
        Order("until", [=] { return Ready(hReadable); });
    }
    // Takes and drops this many bytes.
    void Skip(size_t nConn, size_t nBytes) {
        Order("skip", [=] {
            std::string str;
            for (size_t nLeft = nBytes; nLeft > 0; nLeft -= str.size()) {
                str.clear();
                if (!Receive(nConn, std::min<size_t>(nLeft, 65536), str)) return false;
            }
            return true;
        });
    }
    void Close(size_t nConn) {
        Order("close", [=] {
            std::lock_guard<std::mutex> guard(m_lock);
            ::close(std::exchange(m_conns[nConn], -1));
            return true;
        });
    }
    // The peer ends the connection without having sent anything more.
    void ExpectEnd(size_t nConn) {
        Order("expect end", [=] {
            std::string str;
            if (!Ready(Conn(nConn))) return false;
            char c;
            const ssize_t n = ::recv(Conn(nConn), &c, 1, 0);
            return n == 0 || (n < 0 && errno == ECONNRESET);
        });
    }

    // ---- Asking ----

    // Waits until all orders are carried out. True when they were.
    bool Done() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [this] { return m_orders.empty() && !m_bBusy; });
        if (!m_strFailed.empty()) ADD_FAILURE() << "server: " << m_strFailed;
        const bool bGood = m_strFailed.empty();
        m_strFailed.clear();
        return bGood;
    }
    // What the peer sent and no order has taken.
    std::string Unread(size_t nConn) {
        Done();
        std::string str(65536, '\0');
        const ssize_t n = ::recv(Conn(nConn), &str[0], str.size(), MSG_DONTWAIT | MSG_PEEK);
        str.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return str;
    }
    // Connections that came and were not accepted.
    bool Knocked() {
        pollfd fd{m_hListen, POLLIN, 0};
        return ::poll(&fd, 1, 0) == 1;
    }
    size_t Accepted() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_conns.size();
    }

  private:
    using FOrder = std::function<bool()>;
    static constexpr int kPatienceMs = 30000;

    static sockaddr* Raw(sockaddr_in& addr) {
        return static_cast<sockaddr*>(static_cast<void*>(&addr));
    }
    static std::string Show(const std::string& str) {
        std::string strShown = std::to_string(str.size()) + " bytes:";
        for (const char c : str.substr(0, 400)) {
            char sz[8];
            const unsigned n = static_cast<unsigned char>(c);
            std::snprintf(sz, sizeof sz, n > 0x20 && n < 0x7F ? " %c" : " %02X", n);
            strShown += sz;
        }
        return strShown;
    }
    static bool Ready(int h) {
        pollfd fd{h, POLLIN, 0};
        return ::poll(&fd, 1, kPatienceMs) == 1;
    }
    int Conn(size_t n) {
        std::lock_guard<std::mutex> guard(m_lock);
        return n < m_conns.size() ? m_conns[n] : -1;
    }
    bool Receive(size_t nConn, size_t nMax, std::string& str) {
        const int h = Conn(nConn);
        if (h < 0 || !Ready(h)) return false;
        std::string strPart(nMax, '\0');
        const ssize_t n = ::recv(h, &strPart[0], nMax, 0);
        if (n <= 0) return false;
        str.append(strPart, 0, static_cast<size_t>(n));
        return true;
    }
    void Order(const char* szWhat, FOrder fn) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_orders.emplace_back(szWhat, std::move(fn));
        m_changed.notify_all();
    }
    void CloseAll() {
        for (int& h : m_conns) {
            if (h >= 0) ::close(h);
            h = -1;
        }
    }
    void Run() {
        std::unique_lock<std::mutex> lock(m_lock);
        for (;;) {
            m_changed.wait(lock, [this] { return m_bStop || !m_orders.empty(); });
            if (m_bStop) return;
            const auto order = m_orders.front();
            m_orders.pop_front();
            m_bBusy = true;
            lock.unlock();
            m_strWhy.clear();
            const bool bGood = order.second();
            lock.lock();
            if (!bGood) {
                m_strFailed = std::string(order.first) + " failed\n" + m_strWhy;
                m_orders.clear();
                CloseAll();
            }
            m_bBusy = false;
            m_changed.notify_all();
        }
    }

    const std::string m_strIp;
    int m_hListen;
    bool m_bListens = false;
    uint16_t m_nPort = 0;
    std::mutex m_lock;  // guards everything below but m_strWhy, which is the thread's
    std::condition_variable m_changed;
    std::deque<std::pair<std::string, FOrder>> m_orders;
    std::vector<int> m_conns;
    bool m_bBusy = false;
    bool m_bStop = false;
    std::string m_strFailed;
    std::string m_strWhy;
    std::thread m_thread;
};
