#include "VzDBAccess/DBSession.h"

#include <fcntl.h>
#include <unistd.h>

#include "VzDBAccess/DBDriver.h"

CDBSession::~CDBSession() {
    if (m_hReceive >= 0) ::close(m_hReceive);
    for (auto& entry : m_retired) delete entry.second.pDriver;
}

bool CDBSession::Duplicate(SOCKET hNotify) {
    m_hReceive = fcntl(hNotify, F_DUPFD_CLOEXEC, 0);
    return m_hReceive >= 0;
}

void CDBSession::ForkedChild() {
    End();
    Unpark();
    if (m_hReceive >= 0) ::close(m_hReceive);
    m_hReceive = -1;
}
