// Records that the session and the project files share. All are held in host byte order.
#pragma once

#include "VzDefine.h"

class CDBDriver;

// The server's facts about one project file.
struct SNFileInfo {
    UINT time;  // modification time, seconds since 1970
    UINT size;  // bytes
};

// A driver of the project as its file record gives it: two little-endian 16-bit fields.
struct SNDrvInfo {
    WORD id = 0;      // identifier on the wire, and index into the driver table
    WORD tagNum = 0;  // number of tags
};
static_assert(sizeof(SNDrvInfo) == 4);

// A driver table entry: the file's facts and the driver object made of them on demand.
struct SNDrvInfoEx : SNDrvInfo {
    CDBDriver* pDriver = nullptr;  // owned by the map of this entry, which frees it in ClearDrivers
};
