// XFile: an unbuffered file on a descriptor.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>

#include "VzDefine.h"
#include "nonwin/cstring.h"

class CSocketGuard;

// How long a file of the cache is waited for while another process has it locked.
constexpr long kFileLockMs = 8000;

// The file system's form (UTF-8) of a GB2312 path. Empty, so that no file is met by it, when the
// path is no GB2312 text: the conversion stops there, and what is left would be another path.
CString FileSystemPath(const std::string& strPath);

// One open file, or none. Every read and write is one system call.
//
// Files opened here are not inherited by programs the process starts.
//
// Ownership: owns its descriptor and closes it when destroyed. Never copied.
// Threads:   one thread at a time.
// Python:    none; what a guard does is its own affair.
class XFile {
  public:
    XFile() = default;
    ~XFile() { Close(); }
    XFile(const XFile&) = delete;
    XFile& operator=(const XFile&) = delete;

    // Opens szFile, a path in the file system's encoding (UTF-8), with the POSIX open flags; a file
    // that O_CREAT makes gets mode 0600, less the umask. Never waits, as opening a named pipe
    // might. bWriteDirect is of no effect. False when the system refuses. True at once when a file
    // is open already: that one stays open, whatever szFile says.
    bool OpenA(LPCSTR szFile, int flags, bool bWriteDirect = false);
    // The same for a path in GB2312.
    bool OpenT(LPCSTR szFile, int flags, bool bWriteDirect = false);
    // The same as OpenA.
    bool Open(LPCTSTR szFile, int flags, bool bWriteDirect = false) {
        return OpenA(szFile, flags, bWriteDirect);
    }
    // The same for the name szFile (UTF-8) in a folder that hFolder is a descriptor of. A link is
    // not followed: it cannot be opened.
    bool OpenAt(int hFolder, LPCSTR szFile, int flags);
    bool IsOpen() const { return m_fh >= 0; }

    // Locks the open file against other processes that lock it, until it is closed: bAlone to
    // write, else to read beside others. Waits at most nTimeOutMs milliseconds, or until a signal
    // comes; with a guard as long as that one says, and no shorter. False when the lock was not to
    // be had. True too on a file system that knows no locks.
    bool Lock(bool bAlone, long nTimeOutMs, CSocketGuard* pGuard = nullptr);

    // Marks the open file as one whose content has not come to its end, or takes the mark away. The
    // mark is the file's sticky bit, which means nothing else on a file, and outlives the process.
    // False when the system refuses.
    bool MarkUnfinished(bool bUnfinished);
    bool IsUnfinished() const;
    static bool IsUnfinished(const struct stat& st) { return (st.st_mode & S_ISVTX) != 0; }
    // Nothing when no file is open.
    void Close();

    // One read or write of at most count bytes. Returns the bytes moved, which may be fewer; 0 at
    // the end of the file; -1 on error, reason in errno.
    int Read(void* buffer, unsigned int count);
    int Write(const void* buffer, unsigned int count);

    // The size in bytes, cut to 32 bits and in full. 0 when the system has no answer.
    UINT GetFileSize() const;
    __int64 GetFileSize64() const;
    // What the system knows of the file. False when it has no answer.
    bool Stat(struct stat& st) const;
    // Sets the times of last access and change to tt, seconds since 1970. Whether it worked is not
    // told.
    void SetTime(time_t tt);
    // Cuts the file to a size, or fills it up with zeros. Whether it worked is not told.
    void SetFileSize(UINT dwSize);
    void SetFileSize64(__int64 nSize);

    // Moves the position by offset bytes from SEEK_SET, SEEK_CUR or SEEK_END. False when the system
    // refuses; the position is then unchanged.
    bool Seek(int offset, int origin);
    bool Seek64(__int64 offset, int origin);
    // The position, cut to 32 bits.
    UINT GetCurPos() const;
    // There is nothing to flush.
    void Flush() {}

  private:
    int m_fh = -1;
};
