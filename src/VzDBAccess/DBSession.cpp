#include "VzDBAccess/DBSession.h"

#include <unistd.h>

#include <utility>

#include "VzDBAccess/DBDriver.h"

CDBSession::CDBSession(SOCKET hReceive) : m_hReceive(hReceive) {}

CDBSession::~CDBSession() {
    if (m_hReceive >= 0) ::close(m_hReceive);
}

void CDBSession::Retire(std::vector<std::unique_ptr<CDBDriver>> drivers) {
    m_retired = std::move(drivers);
}

void CDBSession::ForkedChild() {
    End();
    Unpark();
    if (m_hReceive >= 0) ::close(m_hReceive);
    m_hReceive = -1;
}
