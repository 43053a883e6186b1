#include "ScnSocket.h"

void CScnSocket::Close() {
    m_nCenterIp = 0;
    CSyncSocket::Close();
}

BOOL CScnSocket::_Connect(const char* lpszHostAddress, UINT nHostPort) {
    if (m_nCenterIp) return CSyncSocket::_Connect(m_nCenterIp, nHostPort);
    return CSyncSocket::_Connect(lpszHostAddress, nHostPort);
}

int CReqTimeSock::_Send(const void* lpBuf, int nBufLen, int nFlags) {
    m_lastReqTime = time(nullptr);
    return CScnSocket::_Send(lpBuf, nBufLen, nFlags);
}
