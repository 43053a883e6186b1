#include "CacheFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "VzDefine.h"

namespace {

constexpr mode_t kOwnerOnly = 0700;

// What root or this user owns, nobody else can have planted.
bool IsTrusted(const struct stat& st) { return st.st_uid == 0 || st.st_uid == geteuid(); }

// A second name would make a write one to another place too.
bool IsCacheFile(const struct stat& st) {
    return S_ISREG(st.st_mode) && st.st_nlink <= 1 && IsTrusted(st);
}

// Names come from the server and from other users: they may hold line ends and worse.
std::string RefusalLine(std::string strPath, uid_t nOwner) {
    for (char& c : strPath) {
        if (static_cast<BYTE>(c) < 0x20 || c == 0x7F) c = '?';
    }
    return "VzDBAccess: cache folder " + strPath + " belongs to user " + std::to_string(nOwner);
}

}  // namespace

// Delegates, so that the destructor runs when the constructor's body throws.
CCacheFolder::CCacheFolder(const std::string& strPath, bool bMake) : CCacheFolder() {
    if (strPath.empty() || strPath[0] != '/') return;
    const size_t nLength = strPath.find_last_not_of('/') + 1;
    m_hFolder = open("/", O_PATH | O_CLOEXEC);
    for (size_t nBegin = 1; nBegin < nLength && IsOpen();) {
        const size_t nEnd = std::min(strPath.find('/', nBegin), nLength);
        if (nEnd > nBegin) Enter(strPath, nBegin, nEnd, bMake && nEnd == nLength);
        nBegin = nEnd + 1;
    }
}

// Goes on into the name from nBegin to nEnd. O_PATH: to pass through a folder takes no right to
// list it, and what stands there, a link or a device too, can be judged without being opened.
void CCacheFolder::Enter(const std::string& strPath, size_t nBegin, size_t nEnd, bool bMake) {
    const bool bTop = nBegin == 1;
    // The first name keeps its "/", which leads from the root whatever the descriptor says: an
    // emulator may have a root of its own, from which not everything is reached.
    const size_t nName = bTop ? 0 : nBegin;
    const std::string strName = strPath.substr(nName, nEnd - nName);
    if (bMake) mkdirat(m_hFolder, strName.c_str(), kOwnerOnly);
    const int hNext =
        strPath.compare(nBegin, nEnd - nBegin, "..") == 0
            ? -1
            : openat(m_hFolder, strName.c_str(), O_PATH | O_CLOEXEC | (bTop ? 0 : O_NOFOLLOW));
    Close();
    m_hFolder = hNext;
    struct stat st;
    if (!IsOpen()) return;
    const bool bKnown = fstat(m_hFolder, &st) == 0;
    if (bKnown && !bTop && !IsTrusted(st)) {
        m_strRefusal = RefusalLine(strPath.substr(0, nEnd), st.st_uid);
    }
    if (!bKnown || !S_ISDIR(st.st_mode) || !m_strRefusal.empty()) Close();
}

void CCacheFolder::Close() {
    if (IsOpen()) close(m_hFolder);
    m_hFolder = -1;
}

// A descriptor that only stands for a place has no fchmod, but a name by which chmod meets it.
void CCacheFolder::ForceOwnerOnly() const {
    if (!IsOpen()) return;
    char szName[32];
    std::snprintf(szName, sizeof szName, "/proc/self/fd/%d", m_hFolder);
    if (chmod(szName, kOwnerOnly) != 0) return;  // the caller is not told
}

CCacheFile::CCacheFile(const std::string& strPath) : CCacheFile(Split(FileSystemPath(strPath))) {}

CCacheFile::SParts CCacheFile::Split(const std::string& strPathUtf8) {
    const size_t nName = strPathUtf8.rfind('/') + 1;  // 0 when there is no "/"
    return {strPathUtf8.substr(0, nName), strPathUtf8.substr(nName)};
}

bool CCacheFile::Stat(struct stat& st) const {
    return fstatat(m_folder.Descriptor(), m_strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           IsCacheFile(st);
}

bool CCacheFile::Open(XFile& file, int flags) const {
    if (!file.OpenAt(m_folder.Descriptor(), m_strName.c_str(), flags)) return false;
    struct stat st;
    if (file.Stat(st) && IsCacheFile(st)) return true;
    file.Close();
    return false;
}

void CCacheFile::Remove() const { unlinkat(m_folder.Descriptor(), m_strName.c_str(), 0); }
