// Records of the wire. Their layout is the wire's; integers are little-endian unless a comment says
// otherwise. Fields are taken apart and put together byte by byte, except the login record, which
// is copied whole. The sizes and offsets are asserted so that the records document the bytes truly.
#pragma once

#include <cstddef>

#include "VzDefine.h"

#pragma pack(push, 1)

// The server's login record. The client reads `dif_time` and `dif_size` only.
struct SNAckRegReq {
    BYTE data[42];    // server data, not interpreted
    UINT fif_time;    // big-endian; not read
    UINT fif_size;    // big-endian; not read
    UINT dif_time;    // big-endian: seconds since 1970 of the server's RecData/drvinfo.dat
    UINT dif_size;    // big-endian: its size in bytes
    char prjName[1];  // first byte of the project name, which goes on behind the record
};

// One tag of a subscription request.
struct STagItem {
    WORD drvId;
    WORD dpos;  // tag id
    BYTE item;  // always 0
};

#pragma pack(pop)

static_assert(sizeof(SNAckRegReq) == 59);
static_assert(offsetof(SNAckRegReq, fif_time) == 42);
static_assert(offsetof(SNAckRegReq, fif_size) == 46);
static_assert(offsetof(SNAckRegReq, dif_time) == 50);
static_assert(offsetof(SNAckRegReq, dif_size) == 54);
static_assert(offsetof(SNAckRegReq, prjName) == 58);

static_assert(sizeof(STagItem) == 5);
static_assert(offsetof(STagItem, dpos) == 2);
static_assert(offsetof(STagItem, item) == 4);

// A real-time alarm, 32 bytes on the wire. Times are seconds since 1970-01-01 UTC, unsigned.
struct S2RtAlarm2 {
    UINT almtm;  // alarm time
    UINT evttm;  // event time, 0 when there is none
    WORD tid;    // index into the alarm tag list
    WORD type;   // index into the alarm text list: kind
    WORD grp;    // index into the alarm text list: group
    BYTE level;
    BYTE status;
    double value;  // value at alarm time
    double limit;  // the limit that was crossed
};

static_assert(sizeof(S2RtAlarm2) == 32);
static_assert(offsetof(S2RtAlarm2, evttm) == 4);
static_assert(offsetof(S2RtAlarm2, tid) == 8);
static_assert(offsetof(S2RtAlarm2, type) == 10);
static_assert(offsetof(S2RtAlarm2, grp) == 12);
static_assert(offsetof(S2RtAlarm2, level) == 14);
static_assert(offsetof(S2RtAlarm2, status) == 15);
static_assert(offsetof(S2RtAlarm2, value) == 16);
static_assert(offsetof(S2RtAlarm2, limit) == 24);

// Request codes on the request socket (and kReqOpenNotify on the notification socket).
constexpr char kReqHello = '7';
constexpr char kReqOpenNotify = '8';
constexpr char kReqLogin = '9';
constexpr char kReqPaths = '3';
constexpr char kReqFile = '4';
constexpr char kReqTagId = 'L';
constexpr char kReqUnadvise = 'd';
constexpr char kReqSubscribe = 'b';
constexpr char kReqRead = 'H';
constexpr char kReqWrite = 'g';
constexpr char kReqAlarms = 'n';
constexpr char kRefused = '0';
