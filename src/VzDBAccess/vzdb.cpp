#include "VzDBAccess/vzdb.h"

#include <unistd.h>

#include <memory>

#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"
#include "VzDBAccess/Registry.h"

struct SDriverRef {
    std::weak_ptr<CDBSession> pSession;
    CDBDriver* pDriver;
};

namespace {

constexpr useconds_t kExitPollUs = 1000;
constexpr int kExitPolls = 500;

// Keeps a driver and its core in memory for one call: script code that a collection of garbage runs
// in the middle of it may drop the script's last reference to either.
class CDriverUse {
  public:
    explicit CDriverUse(const SDriverRef* pRef)
        : m_pSession(pRef ? pRef->pSession.lock() : nullptr),
          m_pDriver(pRef ? pRef->pDriver : nullptr) {
        // A core ends its session before it goes, so now a session that lives has its core.
        if (!m_pSession || m_pSession->Ended()) throw StaleDriver();
        m_pDriver->m_pDBCore->Hold();
    }
    ~CDriverUse() { m_pDriver->m_pDBCore->LetGo(); }
    CDriverUse(const CDriverUse&) = delete;
    CDriverUse& operator=(const CDriverUse&) = delete;
    CDBDriver* operator->() const { return m_pDriver; }

  private:
    std::shared_ptr<CDBSession> m_pSession;
    CDBDriver* m_pDriver;
};

}  // namespace

CDBCore* _DBCoreNew() {
    std::unique_ptr<CDBCore, void (*)(CDBCore*)> pDB(new CDBCore, [](CDBCore* p) { p->LetGo(); });
    RegisterCore(pDB.get());
    return pDB.release();
}

void _DBCoreDelete(CDBCore* pDB) {
    if (!pDB) return;
    pDB->_Disconnect();
    UnregisterCore(pDB);
    pDB->LetGo();
}

int _DBConnect(CDBCore* pDB, const char* szHost, const char* szUserName, const char* szPassword) {
    const CString strHost(szHost);
    return pDB->_Connect(strHost, szUserName, szPassword);
}

SDriverRef* _DBGetDriver(CDBCore* pDB, const char* szDriver) {
    std::shared_ptr<CDBSession> pSession;
    CDBDriver* pDriver = pDB->_GetDriver(CUTF82T(szDriver), &pSession);
    return pDriver ? new SDriverRef{pSession, pDriver} : nullptr;
}

void _DBSetRtAlarmNotify(CDBCore* pDB, PyObject* fn, int notifyExisting) {
    pDB->_SetRtAlarmNotify(fn, notifyExisting != 0);
}

PyObject* _DrvGetTagValue(const SDriverRef* pDrv, const char* szTag) {
    return CDriverUse(pDrv)->GetTagValue(STagNames::OfScript(szTag));
}

int _DrvSetTagValue(const SDriverRef* pDrv, const char* szTag, PyObject* objValues) {
    return CDriverUse(pDrv)->SetTagValue(STagNames::OfScript(szTag), objValues);
}

int _DrvConnectTag(const SDriverRef* pDrv, const char* szTag) {
    return CDriverUse(pDrv)->_ConnectTag(STagNames::OfScript(szTag)) ? 1 : 0;
}

void _DrvSetTagNotify(const SDriverRef* pDrv, PyObject* fn) { CDriverUse(pDrv)->SetCBFunc(fn); }

void _DrvRelease(SDriverRef* pDrv) { delete pDrv; }

void _DBEndAll() {
    EndAllSessions();
    if (ReceiveThreads() == 0) return;
    Py_BEGIN_ALLOW_THREADS for (int i = 0; i < kExitPolls && ReceiveThreads() > 0; ++i)
        usleep(kExitPollUs);
    Py_END_ALLOW_THREADS
}
