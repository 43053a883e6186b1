#include "DownFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "CacheFile.h"
#include "XFile.h"
#include "nonwin/cstring.h"

namespace {

constexpr int kChunkBytes = 2048;
constexpr int kMaxNameBytes = 63;
constexpr int kMaxValueBytes = 255;
constexpr int64_t kSameTimeSeconds = 3;
constexpr int kMaxEmptyReceives = 16;

// How many bytes go by between acknowledgements: directly and through a relay at first, and by how
// much that shrinks each time.
constexpr UINT kFirstSpan = 131072;
constexpr UINT kFirstSpanRelay = 38912;
constexpr UINT kSpanStep = 10240;
constexpr UINT kMinSpan = 8192;

char ToLowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Whether szText begins with the lower-case szPrefix, ASCII case set aside, whatever the locale.
bool BeginsWith(const char* szText, const char* szPrefix) {
    for (; *szPrefix; ++szText, ++szPrefix)
        if (ToLowerAscii(*szText) != *szPrefix) return false;
    return true;
}

bool IsName(const char* szName, const char* szWanted) {
    return std::strlen(szName) == std::strlen(szWanted) && BeginsWith(szName, szWanted);
}

bool IsYes(const char* szValue) { return BeginsWith(szValue, "yes"); }

void SetField(const char* szName, const char* szValue, SCFileInfo& fi) {
    if (IsName(szName, "size")) fi.dwSize = TextToU32(szValue, 16);
    if (IsName(szName, "filetime")) fi.tt = static_cast<time_t>(TextToU32(szValue, 16));
    if (IsName(szName, "uselast")) fi.bUseLast = IsYes(szValue);
    if (IsName(szName, "exist")) fi.bExist = IsYes(szValue);
    if (IsName(szName, "gz")) fi.bGZ = IsYes(szValue);
    if (IsName(szName, "append")) fi.bAppend = IsYes(szValue);
    if (IsName(szName, "hello")) fi.bHello = IsYes(szValue);
    if (IsName(szName, "filename")) fi.strName = szValue;
}

// One of the two texts of a header line while it is being read.
struct SField {
    char* sz;
    int nMax;
    int nLen;

    bool Add(char c) {
        if (nLen >= nMax) return false;
        sz[nLen++] = c;
        return true;
    }
};

// The low 32 bits: all that the protocol tells of times and sizes, on every host.
template <class TNumber>
DWORD Low32(TNumber n) {
    return static_cast<DWORD>(n);
}

bool IsCurrent(const struct stat& st, DWORD dwTime, DWORD dwSize) {
    const int64_t nApart = int64_t{Low32(st.st_mtime)} - int64_t{dwTime};
    return nApart <= kSameTimeSeconds && nApart >= -kSameTimeSeconds && st.st_size == dwSize &&
           !XFile::IsUnfinished(st);
}

// "<prefix>Time:%X\r\n<...>Size:%X\r\n" for a file that is held.
void AppendHeld(std::string& strSend, const char* szFormat, const struct stat& st) {
    char szLines[64];
    std::snprintf(szLines, sizeof szLines, szFormat, Low32(st.st_mtime), Low32(st.st_size));
    strSend += szLines;
}

// Receives the body of a reply into a file.
//
// Ownership: borrows everything it is given. Threads: one thread at a time. Python: none.
class CBodyReceiver {
  public:
    CBodyReceiver(CSyncSocket& sock, char nCode, const SCFileInfo& fi, IGetFileCB* pGetFileCB,
                  bool bRelay)
        : m_sock(sock),
          m_nCode(nCode),
          m_fi(fi),
          m_pGetFileCB(pGetFileCB),
          m_dwLeft(fi.dwSize),
          m_nMax(bRelay ? kFirstSpanRelay : kFirstSpan) {}

    // buf: kChunkBytes, of which nLen came with the header and those from nPos on are body bytes.
    EGetFile Receive(const CCacheFile& target, char* buf, int nLen, int nPos);

  private:
    bool Prepare();
    bool ReceiveAll(char* buf, int nLen, int nPos);
    void Acknowledge();
    int NextReceiveSize() const;
    bool Write(const char* p, DWORD nSize);

    CSyncSocket& m_sock;
    const char m_nCode;
    const SCFileInfo& m_fi;
    IGetFileCB* const m_pGetFileCB;
    XFile m_file;
    DWORD m_dwLeft;          // body bytes still to come
    UINT m_nMax;             // acknowledgement span
    UINT m_nTotal = 0;       // bytes received since the last acknowledgement
    int m_nLastLen = 0;      // bytes of the last receive
    bool m_bSpoilt = false;  // a write failed
};

EGetFile CBodyReceiver::Receive(const CCacheFile& target, char* buf, int nLen, int nPos) {
    if (!target.Open(m_file, O_WRONLY | O_CREAT)) return EGetFile::kNotWritten;
    // Another process may be filling or reading the same cache. Only what is ours is emptied.
    if (!m_file.Lock(true, kFileLockMs, m_sock.Guard())) return EGetFile::kFailed;
    // What cannot be marked could not be told from a whole file later.
    if (!m_file.MarkUnfinished(true)) return EGetFile::kNotWritten;
    bool bComplete = Prepare() && ReceiveAll(buf, nLen, nPos);
    // Not after a write that failed: the file must not pass for the server's by its time either.
    if (!m_bSpoilt) m_file.SetTime(m_fi.tt);
    if (bComplete) bComplete = m_file.MarkUnfinished(false);
    m_file.Close();
    if (!bComplete) return EGetFile::kFailed;
    if (m_pGetFileCB) m_pGetFileCB->OnProgress(m_nLastLen, true);
    return EGetFile::kWritten;
}

// Goes to where the body begins.
bool CBodyReceiver::Prepare() {
    if (m_fi.bAppend) return m_file.Seek(0, SEEK_END);
    m_file.SetFileSize(0);
    return m_file.GetFileSize64() == 0;
}

bool CBodyReceiver::ReceiveAll(char* buf, int nLen, int nPos) {
    // More than announced right behind the header is not part of the file.
    const DWORD nFirst = std::min(static_cast<DWORD>(nLen - nPos), m_dwLeft);
    if (!Write(buf + nPos, nFirst)) return false;
    m_dwLeft -= nFirst;
    m_nLastLen = nLen;
    m_nTotal = static_cast<UINT>(nLen);  // the header counts for the acknowledgement

    int nEmpty = 0;
    while (m_dwLeft) {
        if (m_fi.bHello && m_nTotal >= m_nMax) Acknowledge();
        const int nGot = m_sock._Recv(buf, NextReceiveSize(), 0);
        if (nGot < 0) return false;
        // Nothing is "no bytes yet", but so often in a row it is the end of the connection.
        nEmpty = nGot ? 0 : nEmpty + 1;
        if (nEmpty == kMaxEmptyReceives) return false;

        const DWORD nBytes = static_cast<DWORD>(nGot);
        if (!Write(buf, nBytes)) return false;
        m_nLastLen = nGot;
        if (nBytes >= m_dwLeft) return true;
        if (m_pGetFileCB) m_pGetFileCB->OnProgress(nGot, false);
        m_dwLeft -= nBytes;
        m_nTotal += nBytes;
    }
    return true;
}

// "<code>Hello<count>" with its zero byte: the bytes since the last one. The next span is shorter.
// Whether it could be sent shows in the receive that follows.
void CBodyReceiver::Acknowledge() {
    char szHello[32];
    const int nLen = std::snprintf(szHello, sizeof szHello, "%cHello%X", m_nCode, m_nTotal);
    m_sock._Send(szHello, nLen + 1, 0);
    m_nTotal = 0;
    if (m_nMax > kSpanStep) m_nMax -= kSpanStep;
    m_nMax = std::max(m_nMax, kMinSpan);
}

// A whole chunk, but with acknowledgements never across the end of the span.
int CBodyReceiver::NextReceiveSize() const {
    if (!m_fi.bHello) return kChunkBytes;
    return static_cast<int>(std::min<UINT>(kChunkBytes, m_nMax - m_nTotal));
}

// False when the bytes did not all reach the file, which is then emptied and counts as spoilt.
bool CBodyReceiver::Write(const char* p, DWORD nSize) {
    if (nSize == 0 || m_file.Write(p, nSize) == static_cast<int>(nSize)) return true;
    m_file.SetFileSize(0);
    m_bSpoilt = true;
    return false;
}

}  // namespace

int ReadHttpCont(const char* szHttpCont, int& nPos, int nLen, char* var, int varMax, char* prop,
                 int propMax) {
    SField name{var, varMax, 0};
    SField value{prop, propMax, 0};
    SField* pField = &name;
    bool bLine = false;
    while (nPos < nLen) {
        const char c = szHttpCont[nPos++];
        if (c == '\t' || c == '\r' || c == ' ') continue;
        if (c == '\n') {
            bLine = name.nLen > 0;
            break;
        }
        if (c == ':')
            pField = &value;
        else if (!pField->Add(c))
            break;
    }
    var[name.nLen] = 0;
    prop[value.nLen] = 0;
    return bLine;
}

int GetFileInfoByBuf(const char* buf, int nLen, SCFileInfo& fi, bool* pbWhole) {
    char szName[kMaxNameBytes + 1] = {};
    char szValue[kMaxValueBytes + 1] = {};
    int nPos = 0;
    int nLine = 0;  // where the last line begins
    while (ReadHttpCont(buf, nPos, nLen, szName, kMaxNameBytes, szValue, kMaxValueBytes)) {
        SetField(szName, szValue, fi);
        nLine = nPos;
    }
    if (pbWhole) *pbWhole = nPos > nLine && buf[nPos - 1] == '\n';
    return nPos;
}

EGetFile TransferFile(const char* szFileName, CSyncSocket& sock, char nCode, const char* szPath,
                      unsigned long mtime, unsigned long size, IGetFileCB* pGetFileCB,
                      const char* szAddP2p, bool bJoinHeader) {
    const std::string strFullPath = std::string(szPath) + szFileName;
    const CCacheFile target(strFullPath);
    const CCacheFile targetGz(strFullPath + ".gz");

    std::string strSend(1, nCode);
    if (szAddP2p) strSend += szAddP2p;
    strSend.append(szFileName).append("\r\n");
    struct stat st;
    if (target.Stat(st)) {
        if (IsCurrent(st, Low32(mtime), Low32(size))) return EGetFile::kCurrent;
        AppendHeld(strSend, "LastTime:%X\r\nSize:%X\r\n", st);
    }
    if (targetGz.Stat(st)) AppendHeld(strSend, "gzTime:%X\r\ngzSize:%X\r\n", st);
    strSend += "Hello:Yes\r\n\r\n";
    if (sock._Send(strSend.data(), static_cast<int>(strSend.size()), 0) < 1)
        return EGetFile::kFailed;

    char buf[kChunkBytes];
    int nLen = 0;
    int nPos = 0;
    SCFileInfo fi;
    for (bool bWhole = false; !bWhole;) {
        if (nPos < nLen || nLen == kChunkBytes) return EGetFile::kFailed;  // it has no end
        const int nGot = sock._Recv(buf + nLen, kChunkBytes - nLen, 0);
        if (nGot < 1) return EGetFile::kFailed;
        nLen += nGot;
        fi = SCFileInfo();
        nPos = GetFileInfoByBuf(buf, nLen, fi, &bWhole);
        if (!bJoinHeader) break;
    }
    if (!fi.bExist) {
        target.Remove();
        return EGetFile::kRemoved;
    }
    if (fi.bUseLast) return EGetFile::kKept;
    CBodyReceiver body(sock, nCode, fi, pGetFileCB, szAddP2p != nullptr);
    return body.Receive(fi.bGZ ? targetGz : target, buf, nLen, nPos);
}

int GetFile(const char* szFileName, CSyncSocket& sock, char nCode, const char* szPath,
            unsigned long mtime, unsigned long size, IGetFileCB* pGetFileCB, const char* szAddP2p) {
    return TransferFile(szFileName, sock, nCode, szPath, mtime, size, pGetFileCB, szAddP2p) !=
           EGetFile::kFailed;
}
