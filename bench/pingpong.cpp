// The least that a client can do: sends the bytes of one read or write and receives the bytes of
// the reply, with the calls the library makes and nothing around them.
//
//   pingpong PORT read TAGS COUNT     COUNT reads of the tags 0 to TAGS - 1
//   pingpong PORT write COUNT         COUNT writes of tag 0, then a read: that all have arrived
//
// Prints CPU time (user and system) and wall time of the COUNT operations, in seconds, as JSON.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kMaxRequest = 4096;
constexpr size_t kMaxChunk = 4096;
constexpr long kWarmUps = 100;
constexpr unsigned kMaxTags = (kMaxRequest - 3) / 4;

[[noreturn]] void Fail(const char* szWhat) {
    std::perror(szWhat);
    std::exit(1);
}

int Connect(long nPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const sockaddr* pAddr = static_cast<const sockaddr*>(static_cast<const void*>(&addr));
    const int hSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (hSocket < 0 || connect(hSocket, pAddr, sizeof addr) != 0) Fail("pingpong: connect");
    const int nOn = 1;  // as the module: each request goes out at once
    setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
    // The library's time-outs: a socket with and one without take different ways in the kernel.
    const timeval tv{8, 0};
    setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(hSocket, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return hSocket;
}

// 'H', count (2), then for each tag driver id (2), tag id (2). Returns the length.
size_t BuildRead(unsigned nTags, uint8_t (&request)[kMaxRequest]) {
    size_t nLen = 0;
    request[nLen++] = 'H';
    request[nLen++] = static_cast<uint8_t>(nTags);
    request[nLen++] = static_cast<uint8_t>(nTags >> 8);
    for (unsigned i = 0; i < nTags; ++i) {
        request[nLen++] = 0;
        request[nLen++] = 0;
        request[nLen++] = static_cast<uint8_t>(i);
        request[nLen++] = static_cast<uint8_t>(i >> 8);
    }
    return nLen;
}

void SendAll(int hSocket, const uint8_t* p, size_t nLen) {
    if (send(hSocket, p, nLen, MSG_NOSIGNAL) != static_cast<ssize_t>(nLen)) Fail("pingpong: send");
}

// One read: one send, then for each chunk its 4 bytes in one receive and its body.
void Read(int hSocket, const uint8_t* request, size_t nLen) {
    SendAll(hSocket, request, nLen);
    uint8_t header[4];
    uint8_t body[kMaxChunk];
    do {
        if (recv(hSocket, header, sizeof header, 0) != 4 || header[0] != 'H')
            Fail("pingpong: recv");
        size_t nLeft = header[2] | static_cast<size_t>(header[3]) << 8;
        if (nLeft > kMaxChunk) Fail("pingpong: chunk");
        while (nLeft) {
            const ssize_t n = recv(hSocket, body, nLeft, 0);
            if (n <= 0) Fail("pingpong: recv");
            nLeft -= static_cast<size_t>(n);
        }
    } while (header[1] == 1);
}

double Seconds(const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + 1e-6 * static_cast<double>(tv.tv_usec);
}

double CpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

double WallSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

template <class TOperations>
void Measure(TOperations operations, long nCount) {
    operations(kWarmUps);
    const double dCpu = CpuSeconds();
    const double dWall = WallSeconds();
    operations(nCount);
    const double dCpuUsed = CpuSeconds() - dCpu;
    const double dWallUsed = WallSeconds() - dWall;
    std::printf("{\"cpu\": %.6f, \"wall\": %.6f}\n", dCpuUsed, dWallUsed);
}

int Usage() {
    std::fputs("usage: pingpong PORT read TAGS COUNT | pingpong PORT write COUNT\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const bool bRead = argc == 5 && std::strcmp(argv[2], "read") == 0;
    const bool bWrite = argc == 4 && std::strcmp(argv[2], "write") == 0;
    if (!bRead && !bWrite) return Usage();
    const long nPort = std::atol(argv[1]);
    const long nTags = bRead ? std::atol(argv[3]) : 1;
    const long nCount = std::atol(argv[argc - 1]);
    if (nTags < 1 || nTags > static_cast<long>(kMaxTags) || nCount < 1) return Usage();

    const int hSocket = Connect(nPort);
    uint8_t request[kMaxRequest];
    const size_t nLen = BuildRead(static_cast<unsigned>(nTags), request);
    // 'g', count (2), driver id (2), tag id (2), type code (2), value (4).
    static const uint8_t kWrite[] = {'g', 1, 0, 0, 0, 0, 0, 3, 0, 5, 0, 0, 0};
    if (bRead) {
        Measure(
            [&](long n) {
                while (n--) Read(hSocket, request, nLen);
            },
            nCount);
    } else {
        Measure(
            [&](long n) {
                while (n--) SendAll(hSocket, kWrite, sizeof kWrite);
            },
            nCount);
        Read(hSocket, request, nLen);
    }
    close(hSocket);
    return 0;
}
