// The file transfer: brings one project file from the server into the local cache.
//
// The request is text: the code byte, the file's name, CR LF, what is held already
// ("LastTime:%X", "Size:%X" for the file, "gzTime:%X", "gzSize:%X" for its ".gz" sibling),
// "Hello:Yes", and an empty line; every line ends with CR LF, numbers are upper-case hexadecimal.
// The reply is lines of "name:value" up to an empty line, then the bytes of the file.
#pragma once

#include <ctime>
#include <string>

#include "SyncSocket.h"
#include "VzDefine.h"

// What the header of a reply says.
struct SCFileInfo {
    bool bUseLast = false;  // "UseLast": the copy that the request told of is current
    bool bExist = true;     // "Exist": the server has the file
    bool bGZ = false;       // "GZ": the body is the compressed form, kept as the ".gz" sibling
    bool bAppend = false;   // "Append": the body continues the copy that the request told of
    bool bHello = false;    // "Hello": the server wants acknowledgements during the body
    time_t tt = 0;     // "FileTime": seconds since 1970 from 0 to 2^32 - 1, as far as time_t goes
    DWORD dwSize = 0;  // "Size": number of body bytes
    std::string strName;  // "FileName": the server's name of the file; not used further
};

// Gets told how a transfer goes on. Called on the transferring thread; must not throw.
//
// Ownership: the caller's, for the length of the transfer. Python: none.
class IGetFileCB {
  public:
    // nBytes is what one receive of the body gave; bFinish tells that the transfer is complete and
    // the file closed (nBytes is then that of the last receive, header included if it was the
    // first). A transfer without a body, and one that fails, ends without a call.
    virtual void OnProgress(int nBytes, bool bFinish) = 0;

  protected:
    ~IGetFileCB() = default;
};

// How a transfer ended.
enum class [[nodiscard]] EGetFile{
    kFailed,      // the connection broke or the cache could not be written to the end
    kCurrent,     // the cached copy has the time and size given: nothing was sent
    kRemoved,     // the server does not have the file: the cached copy is gone
    kKept,        // the server says that the cached copy is current
    kNotWritten,  // the cached file cannot be opened for writing: the body was not read and is
                  // still to come on the socket
    kWritten,     // the file was received and has the server's time
};

// A time and size that no cached copy has: the server is always asked.
constexpr unsigned long kNeverCurrent = 0xFFFFFFFF;

// Brings the file szFileName (GB2312, relative to the project, may contain "/") to
// szPath + szFileName; szPath is a local directory with its "/" at the end (GB2312).
//
// sock: a logged-in request socket, used by nobody else meanwhile; its time-outs, or its guard,
// bound each wait, and a guard that for the file's lock too.
// nCode: the request code. mtime (seconds since 1970) and size (bytes): what the caller knows of
// the server's copy, 0 when unknown; their low 32 bits count. A cached copy of that size whose time
// is at most 3 seconds off is current. pGetFileCB: may be null. szAddP2p: a relay prefix that goes
// between code and name; may be null.
//
// While a file is being filled it is locked and marked as unfinished (see XFile). After kFailed a
// partial file stays so, stamped with the server's time: its size tells the server's from it. When
// it was the cache that could not be written, the file is cut to 0 bytes and not stamped. After
// kWritten the socket is at the end of the reply; after kNotWritten the body is still to come.
//
// bJoinHeader: a header that comes in pieces is put together, and one that is not whole within 2048
// bytes is a failure that leaves the cache as it was. Else what the first receive gives of the
// header is all of it, and the body is what follows.
EGetFile TransferFile(const char* szFileName, CSyncSocket& sock, char nCode, const char* szPath,
                      unsigned long mtime, unsigned long size, IGetFileCB* pGetFileCB,
                      const char* szAddP2p, bool bJoinHeader = false);

// The same; 0 for kFailed and 1 for all other results. Deliberate: also for a file that cannot be
// written, which is treated as not needed.
int GetFile(const char* szFileName, CSyncSocket& sock, char nCode, const char* szPath,
            unsigned long mtime, unsigned long size, IGetFileCB* pGetFileCB, const char* szAddP2p);

// Reads the header lines at the start of the nLen bytes at buf into fi; what they do not name stays
// as it is. Names count in any case; unknown ones are passed over. Returns the offset at which
// reading stopped: the start of the body, or nLen when the header has no empty line. pbWhole,
// unless null, gets whether it was the empty line that ended the header.
int GetFileInfoByBuf(const char* buf, int nLen, SCFileInfo& fi, bool* pbWhole = nullptr);

// Reads one header line from offset nPos of the nLen bytes at szHttpCont and moves nPos behind it.
// Blanks (space, tab) and CR are dropped wherever they stand; the first ":" ends the name, further
// ones are dropped. var gets the name, at most varMax bytes and a terminating zero; prop the value,
// at most propMax bytes and a terminating zero.
// Returns 1 for a line with a name. 0 for one without (the empty line that ends a header), at the
// end of the bytes, and as soon as a name or a value is too long, nPos then being behind the byte
// that did not fit; var and prop hold what was read until then.
int ReadHttpCont(const char* szHttpCont, int& nPos, int nLen, char* var, int varMax, char* prop,
                 int propMax);
