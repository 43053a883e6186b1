// The cache's folders and files, in a place that other users of the machine can write to.
//
// Paths are absolute. Their first folder (/tmp) may be a link, for only root can have made it.
// Below it no link is followed, and nothing that belongs to another ordinary user is entered or
// opened. Each name is looked up in a folder that is held by its descriptor, and judged by what was
// opened and not by its path: a name that is replaced meanwhile leads nowhere else.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "XFile.h"

// One folder of the cache, or none.
//
// Ownership: owns its descriptor and closes it when destroyed. Never copied.
// Threads:   one thread at a time.
// Python:    none.
class CCacheFolder {
  public:
    // Opens the folder at strPath (UTF-8). With bMake its last name is made when it is not there,
    // with mode 0700 less the umask.
    explicit CCacheFolder(const std::string& strPath, bool bMake = false);
    ~CCacheFolder() { Close(); }
    CCacheFolder(const CCacheFolder&) = delete;
    CCacheFolder& operator=(const CCacheFolder&) = delete;

    // False when a name of the path is missing, is no folder, or is refused.
    bool IsOpen() const { return m_hFolder >= 0; }
    // Whose folder was met, and where, as one line of text: when another ordinary user owns a name
    // of the path. Empty else.
    const std::string& Refusal() const { return m_strRefusal; }
    // Gives the folder mode 0700. Whether it worked is not told.
    void ForceOwnerOnly() const;
    // The descriptor, for functions that take a name in a folder; -1 when there is none.
    int Descriptor() const { return m_hFolder; }

  private:
    CCacheFolder() = default;
    void Close();
    void Enter(const std::string& strPath, size_t nBegin, size_t nEnd, bool bMake);

    int m_hFolder = -1;
    std::string m_strRefusal;
};

// One name in a folder of the cache. A file stands there only when it is a regular one, has no
// other name, and belongs to root or to this user: everything else counts as no file that could be
// read or written.
//
// Ownership: owns the folder's descriptor. Never copied.
// Threads:   one thread at a time.
// Python:    none.
class CCacheFile {
  public:
    // strPath: GB2312. One that is no GB2312 text names no file.
    explicit CCacheFile(const std::string& strPath);

    // False, with st meaning nothing, when no such file stands there.
    bool Stat(struct stat& st) const;
    // Opens it in file, which is closed, with the POSIX open flags. Never O_TRUNC: what is opened
    // is judged afterwards. False when the system refuses, and for everything but such a file.
    bool Open(XFile& file, int flags) const;
    // Removes the name, whatever stands there; folders stay. Whether it worked is not told.
    void Remove() const;

  private:
    struct SParts {
        std::string strFolder;
        std::string strName;
    };
    explicit CCacheFile(const SParts& parts)
        : m_folder(parts.strFolder), m_strName(parts.strName) {}
    static SParts Split(const std::string& strPathUtf8);

    CCacheFolder m_folder;
    std::string m_strName;
};
