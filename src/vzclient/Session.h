// One connection of a plant, from its login to its end.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlantConnection.h"
#include "VzDefine.h"
#include "vzclient/Feed.h"
#include "vzclient/Patience.h"

// A tag id that no tag has: its name did not resolve.
constexpr WORD kNoTag = 0xFFFF;
// Bytes of a write request.
constexpr size_t kMaxWrite = 2048;

// A driver as a session sees it. Lives as long as the session.
struct SDriver {
    SDriver(WORD nDriver, WORD nTags)
        : nId(nDriver), nTagCount(nTags), types(nTags), watched(nTags) {}

    const WORD nId;
    const WORD nTagCount;
    // What the server last said of each tag's type. Read and written without a lock.
    std::vector<std::atomic<VARTYPE>> types;
    // By tag id, the first of the tag's watched names; guarded by the routes' lock.
    std::vector<CWatchedTag*> watched;
};

// Bytes of notifications in the order they came, of which frames are cut only by their end.
//
// Ownership: borrows drivers and routes. Threads: receive thread only, with the routes' lock held.
class CFrames {
  public:
    CFrames(const std::vector<std::unique_ptr<SDriver>>& drivers, CRoutes& routes)
        : m_drivers(drivers), m_routes(routes) {}

    // Tells what the whole frames at the start of the nLen bytes say. Returns how many bytes are
    // done with; the rest is the start of a frame that goes on in bytes still to come. Bytes behind
    // a frame that cannot be used, or is longer than 2048 bytes, are lost: nobody can say where the
    // next one starts.
    size_t Walk(const BYTE* pBytes, size_t nLen, int64_t nTimeUs);

    std::atomic<uint64_t> m_nChanges{0};
    std::atomic<uint64_t> m_nAlarms{0};
    std::atomic<uint64_t> m_nUnusable{0};  // times that bytes were lost

  private:
    // Bytes of the frame at pFrame; 0 when it is cut, kUnusable when it cannot be used.
    static constexpr size_t kUnusable = static_cast<size_t>(-1);
    size_t Frame(const BYTE* pFrame, size_t nLen, int64_t nTimeUs);
    size_t SystemFrame(const BYTE* pFrame, size_t nLen, int64_t nTimeUs);
    size_t ChangeFrame(SDriver& driver, const BYTE* pFrame, size_t nLen, int64_t nTimeUs);
    SDriver* Driver(WORD nId) const {
        return nId < m_drivers.size() ? m_drivers[nId].get() : nullptr;
    }

    const std::vector<std::unique_ptr<SDriver>>& m_drivers;
    CRoutes& m_routes;
};

// Connected once and never again. An exchange that fails ends the session: what may still come of
// its reply is never read. A child that is forked off closes its copies of the descriptors; a
// session of its parent must not be used there, nor destroyed.
//
// Ownership: shares routes and feeds. The destructor ends the session and waits for its thread.
// Threads:   the operations are thread-safe and take turns. End: thread-safe.
// Python:    operations are called without the interpreter lock and may take it while they wait
//            (see CPatience). The receive thread never does.
class CSession final : public CPlantConnection {
  public:
    // pNews is told how the session fares; pTrace, unless null, gets all bytes.
    CSession(std::shared_ptr<CRoutes> pRoutes, std::shared_ptr<CFeed> pNews,
             std::shared_ptr<CFeed> pTrace);
    ~CSession();

    // How an operation went. After kFailed the patience says why, and the session has ended but for
    // a turn that never came.
    enum class [[nodiscard]] EResult{
        kDone, kFailed,
        kShort,     // the server sent fewer values than asked for
        kReentered  // the calling thread is in an operation already, below a signal's handler
    };

    // Connects, logs in and starts to receive. nIp: the host's address, network byte order; 0: the
    // host text has none to look up. Returns kConnected or why not (see PlantConnection.h). Once.
    int Connect(const char* szHost, ULONG nIp, const char* szUser, const char* szPassword,
                CPatience& patience);
    // What the server said to the hello of the last connect.
    HRESULT HelloResult() const { return m_hrConnect; }

    // The driver of that id; null beyond the driver table.
    SDriver* Driver(WORD nId) const {
        return nId < m_drivers.size() ? m_drivers[nId].get() : nullptr;
    }

    // The ids of names (GB2312, without zero bytes), kNoTag for those that do not resolve.
    EResult LookUp(const SDriver& driver, const std::vector<std::string>& names,
                   std::vector<WORD>& ids, CPatience& patience);
    // Reads nCount tags. strValues gets their values one after the other, with type codes; an
    // array is its type code alone.
    EResult Read(SDriver& driver, const WORD* pIds, size_t nCount, std::string& strValues,
                 CPatience& patience);
    // Sends writes: values are tag id and encoded value, in this order.
    struct SWrite {
        WORD nTag;
        std::string strValue;  // with type code
    };
    EResult Write(const SDriver& driver, const std::vector<SWrite>& writes, CPatience& patience);
    // Has tags told from now on, beginning with their present value: to pRoute, which is added to
    // their routes, or when that is null to all their routes, as resynced. A tag that is not
    // subscribed in this session is now; one that is already is read anew when pRoute is null.
    EResult Watch(SDriver& driver, const std::vector<CWatchedTag*>& tags,
                  const std::vector<WORD>& ids, const SRoute* pRoute, CPatience& patience);
    // The same for alarms, beginning with those that are active when bExisting.
    EResult WatchAlarms(const SRoute* pRoute, bool bExisting, CPatience& patience);
    // Asks the server for a sign of life.
    EResult Probe(CPatience& patience);

    // Waits for the receive thread, after End, and closes the connection.
    void Join();

    // Ends the session: whoever waits in it stops waiting. szNews is told unless it had ended.
    void End(const char* szNews);
    const std::atomic<bool>& Over() const { return m_bOver; }
    // The lists of alarm texts, UTF-8. Takes the routes' lock.
    void AlarmTexts(std::vector<CString>& texts, std::vector<CString>& tags) const;

    CString m_strProject;                  // GB2312; set by Connect
    std::atomic<int64_t> m_nHeardUs{0};    // when bytes last came
    std::atomic<uint64_t> m_nRequests{0};  // exchanges begun
    std::atomic<uint64_t> m_nBytes{0};     // of notifications
    const CFrames& Frames() const { return m_frames; }
    CFeed* Trace() const { return m_pTrace.get(); }
    CFeed* News() const { return m_pNews.get(); }
    const std::shared_ptr<CRoutes>& Routes() const { return m_pRoutes; }

  private:
    class CTurn;
    class CHold;
    struct SAll;

    void ForkedChild();
    // Takes the turn when it is free or becomes so within nWaitNs nanoseconds.
    bool TakeTurn(int64_t nWaitNs);
    void GiveTurn();
    EResult Ended(CPatience& patience, bool bDone);
    bool SendRead(const SDriver& driver, const WORD* pIds, size_t nCount);
    bool StartReceiving();
    void CloseSockets();
    void Receive();
    void TraceReceived(const BYTE* pBytes, size_t nLen);

    const std::shared_ptr<CRoutes> m_pRoutes;
    const std::shared_ptr<CFeed> m_pNews;
    const std::shared_ptr<CFeed> m_pTrace;
    std::vector<std::unique_ptr<SDriver>> m_drivers;  // by id; complete once connected
    CFrames m_frames;
    std::thread m_receiver;

    std::mutex m_turnLock;
    std::condition_variable m_turnGiven;
    // Whose turn it is; none when nobody's. Written with m_turnLock held.
    std::atomic<std::thread::id> m_turnOf{std::thread::id()};
    std::mutex m_joinLock;
    std::mutex m_endLock;  // guards the shutting down of the sockets against their closing
    std::atomic<bool> m_bOver{false};
    std::vector<CString> m_alarmTexts;  // guarded by the routes' lock
    std::vector<CString> m_alarmTags;
    std::atomic<bool> m_bLossTold{false};  // that notifications were lost, and not renewed since
    bool m_bOpen = false;                  // guarded by m_endLock: the sockets may be shut down
    bool m_bHold = false;                  // guarded by the routes' lock: frames wait
};
