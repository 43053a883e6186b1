#include "XFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "nonwin/cstring.h"

static_assert(sizeof(off_t) == 8, "files are addressed with 64 bits on every host");

namespace {

constexpr mode_t kNewFileMode = 0600;

}  // namespace

bool XFile::OpenA(LPCSTR szFile, int flags, bool /*bWriteDirect*/) {
    if (IsOpen()) return true;
    m_fh = open(szFile, flags | O_CLOEXEC, flags & O_CREAT ? kNewFileMode : 0);
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

int XFile::Read(void* buffer, unsigned int count) {
    return static_cast<int>(read(m_fh, buffer, count));
}

int XFile::Write(const void* buffer, unsigned int count) {
    return static_cast<int>(write(m_fh, buffer, count));
}

UINT XFile::GetFileSize() const { return static_cast<UINT>(GetFileSize64()); }

__int64 XFile::GetFileSize64() const {
    struct stat st {};
    return fstat(m_fh, &st) == 0 ? st.st_size : 0;
}

void XFile::SetFileSize(UINT dwSize) { SetFileSize64(dwSize); }

void XFile::SetFileSize64(__int64 nSize) {
    if (ftruncate(m_fh, nSize) != 0) return;  // the caller is not told
}

bool XFile::Seek(int offset, int origin) { return Seek64(offset, origin); }

bool XFile::Seek64(__int64 offset, int origin) { return lseek(m_fh, offset, origin) >= 0; }

UINT XFile::GetCurPos() const { return static_cast<UINT>(lseek(m_fh, 0, SEEK_CUR)); }
