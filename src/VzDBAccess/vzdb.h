// The binding layer: the one place where the module meets the system's classes. Thin functions that
// convert script arguments and call the session.
#pragma once

#include <Python.h>

#include "VzDefine.h"

class CDBCore;

// A script's handle of a driver. Outlives the driver and its session; using it then is an error
// that the script is told, never a crash, and never reaches another driver.
struct SDriverRef;

// All functions: interpreter lock held, and never released, but by _DBEndAll. Names of drivers and
// tags arrive in UTF-8. Exceptions: std::bad_alloc only; StaleDriver from those that take a driver.

// Thrown when the session of a driver has ended, or when there is no driver.
struct StaleDriver {};

// A new, unconnected core with one share.
CDBCore* _DBCoreNew();
// Ends the core's session and gives its share back. Null is let pass.
void _DBCoreDelete(CDBCore* pDB);
// Connects: 0, -1 user refused, -2 transport or file failure, -3 protocol failure. The three texts
// are not converted.
int _DBConnect(CDBCore* pDB, const char* szHost, const char* szUserName, const char* szPassword);
// A handle of the driver, to be given back to _DrvRelease; null when there is no such driver.
SDriverRef* _DBGetDriver(CDBCore* pDB, const char* szDriver);
// Subscribes to alarms; what becomes of it is not told.
void _DBSetRtAlarmNotify(CDBCore* pDB, PyObject* fn, int notifyExisting);

PyObject* _DrvGetTagValue(const SDriverRef* pDrv, const char* szTag);
int _DrvSetTagValue(const SDriverRef* pDrv, const char* szTag, PyObject* objValues);
// 1 when the tags are subscribed, else 0.
int _DrvConnectTag(const SDriverRef* pDrv, const char* szTag);
void _DrvSetTagNotify(const SDriverRef* pDrv, PyObject* fn);
// Null is let pass.
void _DrvRelease(SDriverRef* pDrv);

// For the interpreter's exit: ends all sessions, refuses new ones, and waits at most half a second
// for the receive threads, giving the interpreter lock up for that wait alone.
void _DBEndAll();
