// A server to measure clients against: it answers from bytes laid out beforehand, with as little
// work as it can. It shares nothing with the library.
//
//   replay_server       prints the port it listens on (loopback only), ends when stdin closes
//
// It has one driver, "bench", with 65,535 tags, which is as many as there can be. The number in a
// tag's name is its id: "t000123" is tag 123, and so is the name of the same length in Chinese
// characters, the one for "mark" and six numerals. Every connection has a thread and may send any
// request at any time, also before or without a login. A request that is not one of these ends its
// connection:
//   '7' '8' '9'  login hello, notification hello, user login: always accepted, with all rights
//   '4'          file transfer: every file is the driver file
//   'L'          tag lookup
//   'H' 'b'      read, subscribe: the values depend on a tag's place in the request only; those of
//                a subscription are integers all
//   'g'          write: stepped over, but for orders
//
// An order is a write of an integer to one of two tags. "t064001" sets how many tags take turns to
// change, from tag 0 on; it is 1 at first. "t064000" sends that many changes on the notification
// channel that was opened last: frames of 8 bytes with the values 1, 2, 3, ..., 256 in one go,
// which fill a client's receive. The connection that gave the order is served again when all is
// sent.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kTags = 65535;
constexpr unsigned kNoTag = 0xFFFF;
constexpr unsigned kMaxRead = 1023;       // tags in one read request
constexpr unsigned kMaxSubscribed = 519;  // tags in one subscription request
constexpr size_t kMaxChunk = 4096;        // bytes of values in one chunk of a reply
constexpr size_t kBufferBytes = 65536;    // of requests that came in one go

constexpr unsigned kPushTag = 64000;   // a write of N sends N changes
constexpr unsigned kTurnsTag = 64001;  // a write of N has N tags take turns
constexpr uint32_t kFrames = 256;      // sent in one go

constexpr unsigned kCodeI4 = 3;
constexpr unsigned kCodeR8 = 5;
constexpr unsigned kCodeText = 8;

// ---- Bytes --------------------------------------------------------------------------------------

void PutU8(Bytes& to, unsigned n) { to.push_back(static_cast<uint8_t>(n)); }

void PutU16(Bytes& to, unsigned n) {
    PutU8(to, n);
    PutU8(to, n >> 8);
}

void PutU32(Bytes& to, uint32_t n) {
    PutU16(to, n);
    PutU16(to, n >> 16);
}

void PutU32Big(Bytes& to, uint32_t n) {
    for (unsigned nShift = 32; nShift > 0; nShift -= 8) PutU8(to, n >> (nShift - 8));
}

void PutF64(Bytes& to, double d) {
    uint64_t n;
    std::memcpy(&n, &d, sizeof n);
    PutU32(to, static_cast<uint32_t>(n));
    PutU32(to, static_cast<uint32_t>(n >> 32));
}

void PutBytes(Bytes& to, const Bytes& from) { to.insert(to.end(), from.begin(), from.end()); }

// A text and its zero byte.
void PutText(Bytes& to, std::string_view text) {
    to.insert(to.end(), text.begin(), text.end());
    PutU8(to, 0);
}

// Reads a request as far as it has come. Once the bytes are not enough everything reads as zero or
// empty and IsShort() tells.
class CRequest {
  public:
    CRequest(const uint8_t* p, size_t nSize) : m_pStart(p), m_p(p), m_nLeft(nSize) {}

    bool IsShort() const { return m_bShort; }
    size_t Left() const { return m_nLeft; }
    size_t Used() const { return static_cast<size_t>(m_p - m_pStart); }

    unsigned U8() {
        const uint8_t* p = Take(1);
        return p ? p[0] : 0;
    }
    unsigned U16() {
        const uint8_t* p = Take(2);
        return p ? p[0] | static_cast<unsigned>(p[1]) << 8 : 0;
    }
    uint32_t U32() {
        const uint32_t nLow = U16();
        return nLow | static_cast<uint32_t>(U16()) << 16;
    }
    void Skip(size_t nSize) { Take(nSize); }
    // The bytes before the next end, which is stepped over.
    std::string_view Until(std::string_view end) {
        const std::string_view all(static_cast<const char*>(static_cast<const void*>(m_p)),
                                   m_nLeft);
        const size_t nAt = all.find(end);
        if (nAt == std::string_view::npos) m_bShort = true;
        if (m_bShort) return {};
        Take(nAt + end.size());
        return all.substr(0, nAt);
    }
    std::string_view Text() { return Until(std::string_view("", 1)); }

  private:
    const uint8_t* Take(size_t nSize) {
        if (nSize > m_nLeft) m_bShort = true;
        if (m_bShort) return nullptr;
        const uint8_t* p = m_p;
        m_p += nSize;
        m_nLeft -= nSize;
        return p;
    }

    const uint8_t* m_pStart;
    const uint8_t* m_p;
    size_t m_nLeft;
    bool m_bShort = false;
};

// ---- Replies ------------------------------------------------------------------------------------

// Groups of three bytes become four, a last one of one or two bytes two or three: a key, and the
// bytes combined with it. Any keys will do.
Bytes Scramble(const Bytes& plain) {
    Bytes out;
    unsigned nKey = 0;
    for (size_t i = 0; i < plain.size(); ++i) {
        if (i % 3 == 0) {
            nKey = nKey * 5 + 113;
            PutU8(out, nKey);
        }
        if (i % 3 == 0) PutU8(out, plain[i] + nKey);
        if (i % 3 == 1) PutU8(out, plain[i] - nKey);
        if (i % 3 == 2) PutU8(out, plain[i] ^ nKey);
    }
    return out;
}

// Record: name and zero byte, id (2), number of tags (2).
Bytes DriverFile() {
    Bytes file;
    PutText(file, "bench");
    PutU16(file, 0);
    PutU16(file, kTags);
    return file;
}

// The value of the tag at a place of a request, with its type code: integers and reals in turn, or
// integers only.
Bytes ValueAt(unsigned nPlace, bool bReals) {
    Bytes value;
    if (nPlace % 2 == 0 || !bReals) {
        PutU16(value, kCodeI4);
        PutU32(value, 100000 + nPlace);
    } else {
        PutU16(value, kCodeR8);
        PutF64(value, 0.5 * nPlace);
    }
    return value;
}

// The values of nCount tags, cut into chunks between values.
std::vector<Bytes> ValueChunks(unsigned nCount, bool bReals) {
    std::vector<Bytes> chunks(1);
    for (unsigned i = 0; i < nCount; ++i) {
        const Bytes value = ValueAt(i, bReals);
        if (chunks.back().size() + value.size() > kMaxChunk) chunks.emplace_back();
        PutBytes(chunks.back(), value);
    }
    return chunks;
}

// Chunks of 'H', 1 when another one follows, length (2), values.
Bytes ReadReply(unsigned nCount) {
    Bytes reply;
    const std::vector<Bytes> chunks = ValueChunks(nCount, true);
    for (size_t i = 0; i < chunks.size(); ++i) {
        PutU8(reply, 'H');
        PutU8(reply, i + 1 < chunks.size());
        PutU16(reply, static_cast<unsigned>(chunks[i].size()));
        PutBytes(reply, chunks[i]);
    }
    return reply;
}

// Chunks of 'b', length (2), values.
Bytes SubscribeReply(unsigned nCount) {
    Bytes reply;
    for (const Bytes& chunk : ValueChunks(nCount, false)) {
        PutU8(reply, 'b');
        PutU16(reply, static_cast<unsigned>(chunk.size()));
        PutBytes(reply, chunk);
    }
    return reply;
}

// '8', server data (42), two unused words, time and size of the driver file (big-endian), project
// name, title; scrambled as a whole.
Bytes NotifyHelloReply(uint32_t nFileTime) {
    Bytes plain;
    PutU8(plain, '8');
    plain.resize(1 + 42 + 4 + 4);
    PutU32Big(plain, nFileTime);
    PutU32Big(plain, static_cast<uint32_t>(DriverFile().size()));
    PutText(plain, "bench");
    PutText(plain, "Benchmark");
    return Scramble(plain);
}

// Header lines, a blank line, the file.
Bytes FileReply(uint32_t nFileTime) {
    const Bytes file = DriverFile();
    char szHeader[64];
    const int nLen = std::snprintf(szHeader, sizeof szHeader, "Size:%zX\r\nFileTime:%X\r\n\r\n",
                                   file.size(), static_cast<unsigned>(nFileTime));
    Bytes reply(szHeader, szHeader + nLen);
    PutBytes(reply, file);
    return reply;
}

// The replies to reads and subscriptions, by number of tags. Made once, then only read.
struct SReplies {
    SReplies() {
        for (unsigned n = 1; n <= kMaxRead; ++n) read[n] = ReadReply(n);
        for (unsigned n = 1; n <= kMaxSubscribed; ++n) subscribe[n] = SubscribeReply(n);
    }
    std::array<Bytes, kMaxRead + 1> read;
    std::array<Bytes, kMaxSubscribed + 1> subscribe;
};

// ---- Changes ------------------------------------------------------------------------------------

// Sends changes on one connection, which another thread owns. Thread-safe.
class CPusher {
  public:
    void Open(int hSocket) {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_hSocket = hSocket;
    }
    // The descriptor is about to be closed; a push that is under way ends first.
    void Close(int hSocket) {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_hSocket == hSocket) m_hSocket = -1;
    }

    // Sends changes of nTags tags in turn to the values 1 to nChanges, or as many as the client
    // takes before it ends the connection.
    void Push(uint32_t nChanges, uint32_t nTags) {
        const std::lock_guard<std::mutex> guard(m_lock);
        Bytes frames;
        for (uint32_t nSent = 0; nSent < nChanges;) {
            frames.clear();
            const uint32_t nEnd = nSent + std::min(kFrames, nChanges - nSent);
            for (; nSent < nEnd; ++nSent) PutChange(frames, nSent % nTags, nSent + 1);
            const ssize_t n = send(m_hSocket, frames.data(), frames.size(), MSG_NOSIGNAL);
            if (n != static_cast<ssize_t>(frames.size())) return;
        }
    }

  private:
    // Driver id (2), tag id (2), value (4).
    static void PutChange(Bytes& to, uint32_t nTag, uint32_t nValue) {
        PutU16(to, 0);
        PutU16(to, nTag);
        PutU32(to, nValue);
    }

    std::mutex m_lock;
    int m_hSocket = -1;  // guarded by m_lock
};

// ---- Connections --------------------------------------------------------------------------------

enum class [[nodiscard]] EServed{
    kDone,
    kShort,   // the rest of the request has not come yet
    kRefused  // no request: the connection ends
};

// One connection.
//
// Ownership: owns its descriptor. Threads: one thread at a time.
class CConnection {
  public:
    CConnection(int hSocket, const SReplies& replies) : m_hSocket(hSocket), m_replies(replies) {}
    ~CConnection() {
        s_pusher.Close(m_hSocket);
        close(m_hSocket);
    }
    CConnection(const CConnection&) = delete;
    CConnection& operator=(const CConnection&) = delete;

    // Answers requests until the client ends the connection or sends none.
    void Serve() {
        Bytes buf(kBufferBytes);
        size_t nHave = 0;
        for (;;) {
            const ssize_t n = recv(m_hSocket, buf.data() + nHave, buf.size() - nHave, 0);
            if (n <= 0) return;
            nHave += static_cast<size_t>(n);
            size_t nUsed = 0;
            EServed eServed = EServed::kDone;
            while (eServed == EServed::kDone && nUsed < nHave) {
                CRequest request(buf.data() + nUsed, nHave - nUsed);
                eServed = Answer(request);
                if (eServed == EServed::kDone) nUsed += request.Used();
            }
            if (eServed == EServed::kRefused) return;
            nHave -= nUsed;
            if (nHave && nUsed) std::memmove(buf.data(), buf.data() + nUsed, nHave);
        }
    }

  private:
    EServed Answer(CRequest& request) {
        switch (request.U8()) {
            case 'H':
                return AnswerCounted(request, 4, m_replies.read);
            case 'b':
                return AnswerCounted(request, 5, m_replies.subscribe);
            case 'g':
                return TakeWrite(request);
            case 'L':
                return LookUp(request);
            case '7':
                request.Skip(22);
                return Send(request, Bytes{'7'});
            case '8':  // no length: it is what has come
                request.Skip(request.Left());
                s_pusher.Open(m_hSocket);
                // Later with each one, so that every login has a file to fetch.
                return Send(request, NotifyHelloReply(s_nFileTime += 10));
            case '9':
                request.Text();
                request.Text();
                return Send(request, Bytes{'9', 0, 0, 0, 0, 0xFF, 0, 0, 0});
            case '4':
                request.Until("\r\n\r\n");
                return Send(request, FileReply(s_nFileTime));
            default:
                return EServed::kRefused;
        }
    }

    // Number of tags (2), then nItem bytes for each.
    template <size_t nReplies>
    EServed AnswerCounted(CRequest& request, size_t nItem,
                          const std::array<Bytes, nReplies>& replies) {
        const size_t nCount = request.U16();
        if (nCount >= nReplies) return EServed::kRefused;
        request.Skip(nItem * nCount);
        return Send(request, replies[nCount]);
    }

    // Driver id (2) and name of each, no count: they are what has come. Reply: 'L', then tag id (2)
    // and two bytes for each.
    EServed LookUp(CRequest& request) {
        Bytes reply{'L'};
        while (request.Left() && !request.IsShort()) {
            request.U16();
            PutU16(reply, TagOf(request.Text()));
            PutU16(reply, 0);
        }
        return Send(request, reply);
    }

    static unsigned TagOf(std::string_view name) {
        // In GB2312: the first character of Chinese names, and the numerals 0 to 9.
        static const std::string_view kFirst = "\xB1\xEA";
        static const std::string_view kNumerals =
            "\xC1\xE3\xD2\xBB\xB6\xFE\xC8\xFD\xCB\xC4\xCE\xE5\xC1\xF9\xC6\xDF\xB0\xCB\xBE\xC5";
        unsigned nTag = 0;
        if (name.substr(0, 2) == kFirst) {
            for (name.remove_prefix(2); !name.empty() && nTag < kTags; name.remove_prefix(2)) {
                size_t nAt = 0;
                while (nAt < kNumerals.size() && kNumerals.substr(nAt, 2) != name.substr(0, 2))
                    nAt += 2;
                if (nAt == kNumerals.size() || name.size() < 2) return kNoTag;
                nTag = nTag * 10 + static_cast<unsigned>(nAt / 2);
            }
            return nTag < kTags ? nTag : kNoTag;
        }
        if (name.size() < 2 || name[0] != 't') return kNoTag;
        for (const char c : name.substr(1)) {
            if (c < '0' || c > '9') return kNoTag;
            nTag = nTag * 10 + static_cast<unsigned>(c - '0');
            if (nTag >= kTags) return kNoTag;
        }
        return nTag;
    }

    // Number of values (2), then for each driver id (2), tag id (2), type code (2), value. There is
    // no reply.
    EServed TakeWrite(CRequest& request) {
        uint32_t nChanges = 0;
        for (unsigned nLeft = request.U16(); nLeft && !request.IsShort(); --nLeft) {
            request.Skip(2);
            const unsigned nTag = request.U16();
            const uint32_t nValue = TakeValue(request);
            if (nTag == kTurnsTag) m_nTurns = std::clamp(nValue, uint32_t{1}, kTags);
            if (nTag == kPushTag) nChanges = nValue;
        }
        if (request.IsShort()) return EServed::kShort;
        if (nChanges) s_pusher.Push(nChanges, m_nTurns);
        return EServed::kDone;
    }

    // The value when it is an integer, else 0.
    static uint32_t TakeValue(CRequest& request) {
        switch (request.U16()) {
            case kCodeI4:
                return request.U32();
            case kCodeR8:
                request.Skip(8);
                return 0;
            case kCodeText:
                request.Text();
                return 0;
            default:  // a boolean
                request.Skip(1);
                return 0;
        }
    }

    EServed Send(const CRequest& request, const Bytes& reply) {
        if (request.IsShort()) return EServed::kShort;
        for (size_t nSent = 0; nSent < reply.size();) {
            const ssize_t n =
                send(m_hSocket, reply.data() + nSent, reply.size() - nSent, MSG_NOSIGNAL);
            if (n <= 0) return EServed::kRefused;
            nSent += static_cast<size_t>(n);
        }
        return EServed::kDone;
    }

    static std::atomic<uint32_t> s_nFileTime;
    static CPusher s_pusher;  // of the notification channel that was opened last

    const int m_hSocket;
    const SReplies& m_replies;
    uint32_t m_nTurns = 1;
};

std::atomic<uint32_t> CConnection::s_nFileTime{1600000000};
CPusher CConnection::s_pusher;

// ---- Listening ----------------------------------------------------------------------------------

// Listens on a free port of the loopback, which nPort gets. -1 on failure.
int Listen(unsigned& nPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr* pAddr = static_cast<sockaddr*>(static_cast<void*>(&addr));
    socklen_t nLen = sizeof addr;
    const int hSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // For accepted connections: segments have 2048 bytes besides 12 of options. Windows are given
    // out in steps of 128 here, so no segment's end ever cuts a frame of 8 bytes.
    const int nSegment = 2060;
    if (hSocket >= 0) setsockopt(hSocket, IPPROTO_TCP, TCP_MAXSEG, &nSegment, sizeof nSegment);
    if (hSocket < 0 || bind(hSocket, pAddr, nLen) != 0 || listen(hSocket, 64) != 0) return -1;
    if (getsockname(hSocket, pAddr, &nLen) != 0) return -1;
    nPort = ntohs(addr.sin_port);
    return hSocket;
}

void StartConnection(int hSocket, const SReplies& replies) {
    const int nOn = 1;
    setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
    try {
        std::thread([hSocket, &replies] { CConnection(hSocket, replies).Serve(); }).detach();
    } catch (const std::system_error&) {
        close(hSocket);
    }
}

// True when stdin was closed; what is written to it is dropped.
bool StdinClosed() {
    char drop[256];
    return read(STDIN_FILENO, drop, sizeof drop) <= 0;
}

}  // namespace

int main() {
    static const SReplies replies;
    unsigned nPort = 0;
    const int hListen = Listen(nPort);
    if (hListen < 0) {
        std::perror("replay_server");
        return 1;
    }
    std::printf("%u\n", nPort);
    std::fflush(stdout);

    for (;;) {
        pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {hListen, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) continue;
        // Not a return: connections may be running, and nothing of theirs may be destroyed.
        if (fds[0].revents && StdinClosed()) std::_Exit(0);
        if (!fds[1].revents) continue;
        const int hSocket = accept4(hListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (hSocket >= 0) StartConnection(hSocket, replies);
    }
}
