#include "VzDBAccess/DBCore.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "ByteCursor.h"
#include "VzDBAccess/DBDriver.h"
#include "VzDBAccess/Registry.h"

namespace {

constexpr size_t kMaxSingleName = 252;  // bytes of a name in a single lookup
constexpr size_t kShortReply = 16;      // room for the reply of a single-tag request

// What a receive thread is given, and owns until it ends: its shares of core and session.
struct SReceiveThread {
    CDBCore* pCore;
    std::shared_ptr<CDBSession> pSession;
};

void* RecvThread(void* pParam) {
    ReceiveThreadRuns();
    // What the thread has is given back also when the interpreter ends it inside a call, by
    // unwinding its stack. Its shares go first: it may have to wait for the interpreter lock.
    struct SEnd {
        ~SEnd() { ReceiveThreadEnds(); }
    } end;
    CNotifyCall call;
    {
        struct SLeave {
            SReceiveThread* pThread;
            ~SLeave() {
                CDBCore* pCore = pThread->pCore;
                delete pThread;
                pCore->LetGo();
            }
        } leave{static_cast<SReceiveThread*>(pParam)};
        leave.pThread->pCore->DoRecv(leave.pThread->pSession, call);
    }
    // A process that ends wants nobody to ask for the lock any more: what the interpreter has for
    // this thread goes with the interpreter.
    if (call.InInterpreter() && !ProcessIsEnding()) call.LeaveInterpreter();
    return nullptr;
}

}  // namespace

CDBCore::~CDBCore() {
    // No thread and no script object is left. Drivers of a core that never got a session go here;
    // those of a session went with it.
    ClearDrivers();
}

void CDBCore::LetGo() {
    if (--m_nShares == 0) delete this;
}

// ---- Connect ------------------------------------------------------------------------------------

int CDBCore::_Connect(LPCTSTR szHost, const char* szUserName, const char* szPassword) {
    if (ProcessIsEnding()) return kConnectFailed;
    std::lock_guard<std::mutex> op(m_opLock);
    EndSession(true);
    int nResult = kConnectFailed;
    try {
        CString strPrjName;
        nResult = Login(szHost, szUserName, szPassword, strPrjName);
        if (nResult == kConnected && !StartSession()) nResult = kConnectFailed;
    } catch (...) {
        AbandonConnect();
        throw;
    }
    if (nResult != kConnected) AbandonConnect();
    return nResult;
}

void CDBCore::AbandonConnect() {
    CloseSockets();
    m_mapDrvInfos.clear();  // as before the connect: no driver has been made yet
}

bool CDBCore::StartSession() {
    std::shared_ptr<CDBSession> pSession = std::make_shared<CDBSession>();
    if (!pSession->Duplicate(m_rcvSock)) return false;
    size_t nDrivers = m_mapDrvInfos.size();
    for (const auto& entry : m_mapDrvInfos)
        nDrivers = std::max(nDrivers, entry.second.id + size_t{1});
    std::unique_ptr<SReceiveThread> pThread(new SReceiveThread{this, pSession});
    {
        std::lock_guard<std::mutex> data(m_dataLock);
        m_pDrivers.resize(nDrivers);
        if (!m_exitThreadEvent.Create()) return false;
        m_pSession = pSession;
        m_bConnect = true;
    }
    Hold();
    ReceiveThreadStarts();
    if (vzthread_create(RecvThread, pThread.get()) == 0) {
        (void)pThread.release();  // the thread's from here on
        return true;
    }
    ReceiveThreadEnds();
    --m_nShares;
    pSession->End();
    TearDown(pSession);
    return false;
}

// ---- Endings ------------------------------------------------------------------------------------

void CDBCore::_Disconnect() {
    std::lock_guard<std::mutex> op(m_opLock);
    EndSession(true);
}

void CDBCore::EndWithoutWaiting() {
    std::lock_guard<std::mutex> op(m_opLock);
    EndSession(false);
}

void CDBCore::EndSession(bool bWait) {
    const std::shared_ptr<CDBSession> pSession = m_pSession;
    if (!pSession) return;
    const bool bMine = pSession->End();
    m_rcvSock.ShutDown();  // makes the thread's receive return; it reads a descriptor of its own
    CloseSockets();
    // A thread that found the connection lost needs no waiting for, one that is parked may be
    // waiting for the interpreter lock that we hold, or be running the very callback that ends the
    // session.
    if (bMine && bWait && !pSession->Parked()) m_exitThreadEvent.Wait(kEndWaitMs);
    TearDown(pSession);
}

void CDBCore::CloseSockets() {
    m_rcvSock.Close();
    m_reqSock.Close();
}

void CDBCore::TearDown(const std::shared_ptr<CDBSession>& pSession) {
    if (m_pSession != pSession) return;  // whoever came first did it
    CloseSockets();
    ClearDrivers();
    std::lock_guard<std::mutex> data(m_dataLock);
    m_bConnect = false;
    m_exitThreadEvent.Close();
    m_pSession.reset();
}

void CDBCore::ClearDrivers() {
    std::map<CString, SNDrvInfoEx> drivers;
    drivers.swap(m_mapDrvInfos);
    {
        std::lock_guard<std::mutex> data(m_dataLock);
        std::fill(m_pDrivers.begin(), m_pDrivers.end(), nullptr);
        // The receive thread may be using one of them: they live as long as it knows the session.
        if (m_pSession) m_pSession->Retire(drivers);
    }
    for (auto& entry : drivers) delete entry.second.pDriver;
}

void CDBCore::SignalExit(const CDBSession* pSession) {
    std::lock_guard<std::mutex> data(m_dataLock);
    if (m_pSession.get() == pSession) m_exitThreadEvent.Signal();
}

void CDBCore::LockForFork() {
    m_opLock.lock();
    m_dataLock.lock();
}

void CDBCore::UnlockAfterFork() {
    m_dataLock.unlock();
    m_opLock.unlock();
}

void CDBCore::ForkedChild() {
    if (!m_pSession) return;
    m_pSession->ForkedChild();
    m_bConnect = false;
    CloseSockets();
}

// ---- Drivers ------------------------------------------------------------------------------------

CDBDriver* CDBCore::_GetDriver(LPCTSTR szDrvName, std::shared_ptr<CDBSession>* pSession) {
    std::lock_guard<std::mutex> op(m_opLock);
    if (!Serves(m_pSession.get())) return nullptr;
    const auto it = m_mapDrvInfos.find(CString(szDrvName));
    if (it == m_mapDrvInfos.end()) return nullptr;
    SNDrvInfoEx& info = it->second;
    if (!info.pDriver) {
        auto pDriver = std::make_unique<CDBDriver>(this, m_pSession.get(), info.id, it->first);
        pDriver->SetTagCount(info.tagNum);
        std::lock_guard<std::mutex> data(m_dataLock);
        m_pDrivers[info.id] = pDriver.get();
        info.pDriver = pDriver.release();
    }
    if (pSession) *pSession = m_pSession;
    return info.pDriver;
}

// ---- Requests -----------------------------------------------------------------------------------

// Single lookup: 'L', driver id (2), name and zero byte. Reply: 'L', tag id (2), more is not read.
BOOL CDBCore::GetTagId(WORD drvId, LPCTSTR tagName, WORD* pTagId) {
    const size_t nName = std::strlen(tagName);
    std::lock_guard<std::mutex> op(m_opLock);
    if (!m_bConnect || nName > kMaxSingleName) return FALSE;
    BYTE request[1 + 2 + kMaxSingleName + 1];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqTagId);
    writer.WriteU16(drvId);
    writer.WriteText(tagName, nName);
    if (m_reqSock._Send(request, static_cast<int>(writer.Size()), 0) <= 0) return FALSE;

    BYTE reply[kShortReply];
    const int nReply = m_reqSock._Recv(reply, sizeof reply, 0);
    if (nReply < 3 || reply[0] != kReqTagId) return FALSE;
    CByteReader reader(reply, static_cast<size_t>(nReply));
    reader.Take(1);
    *pTagId = reader.ReadU16();
    return TRUE;
}

// Unadvise: 'd', id (4). Reply: 'd' when it was done.
BOOL CDBCore::UnadviseTag(long id) {
    std::lock_guard<std::mutex> op(m_opLock);
    BYTE request[5];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqUnadvise);
    writer.WriteU32(static_cast<DWORD>(id));
    if (m_reqSock._Send(request, sizeof request, 0) <= 0) return FALSE;
    BYTE reply[kShortReply];
    return m_reqSock._Recv(reply, sizeof reply, 0) > 0 && reply[0] == kReqUnadvise;
}
