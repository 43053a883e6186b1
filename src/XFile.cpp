#include "XFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SyncSocket.h"
#include "nonwin/cstring.h"

static_assert(sizeof(off_t) == 8, "files are addressed with 64 bits on every host");

namespace {

constexpr mode_t kNewFileMode = 0600;
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK;
constexpr long kLockPollMs = 10;

}  // namespace

CString FileSystemPath(const std::string& strPath) {
    CT2UTF8 strUtf8(strPath);
    if (CUTF82T(strUtf8) != strPath) return CString();
    return strUtf8;
}

bool XFile::OpenA(LPCSTR szFile, int flags, bool /*bWriteDirect*/) {
    if (IsOpen()) return true;
    m_fh = open(szFile, flags | kOpenFlags, flags & O_CREAT ? kNewFileMode : 0);
    return IsOpen();
}

bool XFile::OpenAt(int hFolder, LPCSTR szFile, int flags) {
    if (IsOpen()) return true;
    m_fh = openat(hFolder, szFile, flags | kOpenFlags | O_NOFOLLOW,
                  flags & O_CREAT ? kNewFileMode : 0);
    return IsOpen();
}

bool XFile::OpenT(LPCSTR szFile, int flags, bool bWriteDirect) {
    CString strFileUtf8;
    ToUtf8(szFile, strFileUtf8, std::strlen(szFile));
    return Open(strFileUtf8, flags, bWriteDirect);
}

void XFile::Close() {
    if (!IsOpen()) return;
    close(m_fh);
    m_fh = -1;
}

bool XFile::Lock(bool bAlone, long nTimeOutMs, CSocketGuard* pGuard) {
    for (long nWaited = 0;; nWaited += kLockPollMs) {
        if (flock(m_fh, (bAlone ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK) return true;
        if (!pGuard && nWaited >= nTimeOutMs) return false;
        const bool bWaited = usleep(kLockPollMs * 1000) == 0;
        if (pGuard ? !pGuard->WaitOn() : !bWaited) return false;
    }
}

bool XFile::MarkUnfinished(bool bUnfinished) {
    struct stat st;
    if (!Stat(st)) return false;
    const mode_t nMode = st.st_mode & 07777 & ~static_cast<mode_t>(S_ISVTX);
    return fchmod(m_fh, bUnfinished ? nMode | S_ISVTX : nMode) == 0;
}

bool XFile::IsUnfinished() const {
    struct stat st;
    return Stat(st) && IsUnfinished(st);
}

int XFile::Read(void* buffer, unsigned int count) {
    return static_cast<int>(read(m_fh, buffer, count));
}

int XFile::Write(const void* buffer, unsigned int count) {
    return static_cast<int>(write(m_fh, buffer, count));
}

UINT XFile::GetFileSize() const { return static_cast<UINT>(GetFileSize64()); }

__int64 XFile::GetFileSize64() const {
    struct stat st;
    return Stat(st) ? st.st_size : 0;
}

bool XFile::Stat(struct stat& st) const { return fstat(m_fh, &st) == 0; }

void XFile::SetTime(time_t tt) {
    const timespec times[2] = {{tt, 0}, {tt, 0}};
    futimens(m_fh, times);
}

void XFile::SetFileSize(UINT dwSize) { SetFileSize64(dwSize); }

void XFile::SetFileSize64(__int64 nSize) {
    if (ftruncate(m_fh, nSize) != 0) return;  // the caller is not told
}

bool XFile::Seek(int offset, int origin) { return Seek64(offset, origin); }

bool XFile::Seek64(__int64 offset, int origin) { return lseek(m_fh, offset, origin) >= 0; }

UINT XFile::GetCurPos() const { return static_cast<UINT>(lseek(m_fh, 0, SEEK_CUR)); }
