// The server's end of the library's connections, played on the thread that calls the library.
//
// The programs here are linked so that the library's connect(), recv() and poll() come by Peer.cpp
// first (--wrap). A connect gives the library's descriptor one end of a pair of real sockets.
// Whenever the library receives, or waits to, and nothing is there, the peer first sends its next
// segment. So every
// receive meets just the bytes that the script lets arrive together, and no thread is needed.
// Pauses (usleep) take no time, conversions that fail print nothing (perror), and a peer can say
// that no thread is to be had (pthread_create).
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// Ends what arrives together; it is not sent itself.
constexpr char kCut[] = "\xFE\xED";

// What the server says on one connection.
struct SScript {
    std::string strBytes;  // with kCut wherever the client is to find no more for now
    size_t nSegment = 0;   // not more than that arrives together; 0: as strBytes is cut
    bool bSilent = false;  // afterwards nothing comes any more; else the connection ends
    bool bCuts = true;     // whether kCut has its meaning

    // nHow: bSilent in the highest bit, nSegment in the others.
    explicit SScript(std::string strSaid, unsigned nHow = 0)
        : strBytes(std::move(strSaid)), nSegment(nHow & 0x7F), bSilent((nHow & 0x80) != 0) {}
};

// The connections of one run. Only one object at a time; it belongs to the thread that made it, and
// other threads' calls go straight to the system.
class CPeer {
  public:
    // The n-th connect meets the n-th script; one too many is refused.
    explicit CPeer(std::vector<SScript> scripts);
    ~CPeer();
    CPeer(const CPeer&) = delete;
    CPeer& operator=(const CPeer&) = delete;

    // Plays the next script on a descriptor that is open already, in place of what it was.
    bool Attach(int fd);
    // What the library has sent on the n-th connection, up to what a socket holds.
    std::string Sent(size_t nConnection);
    // The server's descriptor of the n-th connection is the caller's from now on.
    int Keep(size_t nConnection);

    // Whether threads can be started; true at first.
    bool m_bThreads = true;

    // Of the wrapped recv() and poll().
    void BeforeReceive(int fd);
    // Whether a receive would wait for the peer that stays silent.
    bool IsSilent(int fd) const;

  private:
    struct SConnection {
        int nNear;
        int nFar;
        size_t nSaid;
    };
    const SConnection* Find(int fd) const;

    std::vector<SScript> m_scripts;
    std::vector<SConnection> m_connections;
};
