// The session with one database server.
#pragma once

// The interpreter's header comes first, as it asks for.
#include <Python.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "PlantConnection.h"
#include "ThreadHelp.h"
#include "VzDBAccess/DBSession.h"
#include "VzDBAccess/NotifyCall.h"
#include "VzDefine.h"
#include "nonwin/XVariant.h"
#include "nonwin/cstring.h"
#include "vzcommondef.h"

class CDBDriver;

// Results of _SetRtAlarmNotify.
constexpr int kAlarmsSubscribed = 0;
constexpr int kAlarmsAlreadySet = -1;
constexpr int kAlarmsFailed = -2;

// Length of a notification frame that cannot be used: it ends the walk over its chunk.
constexpr int kUnusableFrame = 0xFFFF;
// Bytes of one receive from the notification socket.
constexpr size_t kMaxChunkBytes = 2048;
// How long an ending waits for the receive thread.
constexpr DWORD kEndWaitMs = 16000;

// A session: connects, owns the drivers, sends their requests and runs the receive thread.
//
// The base's driver map is guarded by m_opLock.
//
// Ownership: counted. One share belongs to the script object, one to each receive thread; the last
//            one that lets go destroys the core. Owns its drivers through m_mapDrvInfos.
// Threads:   the underscore operations, OnDBNotify's callers aside, belong to the script's threads,
//            one at a time. An operation holds m_opLock from its first look at the session to its
//            end, so the receive thread cannot tear the session down under it. m_opLock is never
//            held while script code can run: neither around a callback nor while an interpreter
//            object is made. m_dataLock is short and guards what both kinds of thread touch.
//            Order: interpreter lock, m_opLock, m_dataLock. The receive thread never takes the
//            interpreter lock while it holds one of the others.
// Python:    methods are called with the interpreter lock held and never release it. Callables are
//            borrowed: the script keeps them alive.
class CDBCore : public CPlantConnection {
  public:
    CDBCore() = default;  // with one share

    void Hold() { ++m_nShares; }
    // Gives a share back; destroys the core with the last one.
    void LetGo();

    // Ends the old session if there is one, connects, logs in, brings the driver file into the
    // cache and starts the receive thread. szHost: a host text, never null; user and password as
    // the script gave them. Returns kConnected or one of the failures, with both sockets closed.
    int _Connect(LPCTSTR szHost, const char* szUserName, const char* szPassword);

    // Ends the session: closes both sockets, waits at most kEndWaitMs for a receive thread that is
    // on its way out (never for one that waits for the interpreter lock), retires the drivers. Does
    // nothing on an unconnected core.
    void _Disconnect();
    // The same for a process that exits: waits for nothing.
    void EndWithoutWaiting();

    // The driver of that name (GB2312, exact bytes), made on first use. Null when the project has
    // no such driver or there is no session. pSession gets the session that the driver belongs to.
    CDBDriver* _GetDriver(LPCTSTR szDrvName, std::shared_ptr<CDBSession>* pSession = nullptr);

    // Subscribes to real-time alarms, once per core. Returns 0, -1 when a callback is set already,
    // -2 when the exchange failed.
    int _SetRtAlarmNotify(PyObject* rtAlarmNotifyFn, bool notifyExisting);

    // Retires all drivers and empties the driver map. The driver table keeps its length, its
    // entries become null. m_opLock held, or no other thread about.
    void ClearDrivers();

    // Asks the server for one tag's id, past the drivers' caches. tagName: GB2312, at most 252
    // bytes. FALSE, with pTagId untouched, when there is no session, no answer or no such form.
    BOOL GetTagId(WORD drvId, LPCTSTR tagName, WORD* pTagId);
    // Cancels a subscription on the server. TRUE when the server said so.
    BOOL UnadviseTag(long id);

    // The receive thread: reads chunks and walks their frames until the session ends. When the
    // server closed the connection it takes the session down itself. call is what it calls the
    // script by. Receive thread only.
    void DoRecv(const std::shared_ptr<CDBSession>& pSession, CNotifyCall& call);

    // Takes in the frame at pBuf, of which nLen bytes were received: stores a changed value, and
    // fills call with what the script is to be called for. Returns the frame's length, or
    // kUnusableFrame or more for one that cannot be used. Receive thread only, without the
    // interpreter lock.
    int OnDBNotify(const CDBSession& session, const BYTE* pBuf, size_t nLen, CNotifyCall& call);

    // Whether an operation of this session may go on. m_opLock held.
    bool Serves(const CDBSession* pSession) const {
        return pSession && m_pSession.get() == pSession && !pSession->Ended();
    }

    void LockForFork();
    void UnlockAfterFork();
    void ForkedChild();

    // The driver table by driver id; an entry is null until _GetDriver makes that driver. Does not
    // own. Guarded by m_dataLock.
    std::vector<CDBDriver*> m_pDrivers;
    XTEvent m_exitThreadEvent;  // signalled, made and closed under m_dataLock
    std::atomic<bool> m_bConnect{false};
    std::atomic<PyObject*> m_rtAlarmNotifyFn{nullptr};  // borrowed

    std::mutex m_opLock;
    std::mutex m_dataLock;

  private:
    ~CDBCore();

    bool StartSession();
    void AbandonConnect();
    void CloseSockets();
    // Takes the session down when it is still the core's. m_opLock held.
    void TearDown(const std::shared_ptr<CDBSession>& pSession);
    void EndSession(bool bWait);
    void WalkChunk(CDBSession& session, const BYTE* pChunk, size_t nChunk, CNotifyCall& call);
    int OnSystemFrame(const BYTE* pBuf, size_t nLen, CNotifyCall& call);
    void SignalExit(const CDBSession* pSession);

    std::shared_ptr<CDBSession> m_pSession;  // written under both locks
    std::atomic<int> m_nShares{1};
};
