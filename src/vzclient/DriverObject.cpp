// The type Driver of the module _vzclient: the tags of one driver in one session.

#include "vzclient/Objects.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "vzclient/Values.h"

namespace {

// Lists of names that were read before, with their ids. A list is known by its name objects, which
// it holds: a program reads the same ones again and again.
struct SKnownList {
    PyObject* names = nullptr;  // tuple
    PyObject* blank = nullptr;  // dict of the names, to be copied and filled in
    std::vector<WORD> ids;
};
constexpr size_t kMaxKnown = 8;
constexpr Py_ssize_t kMinKnown = 4;  // names; fewer are looked up as fast

struct SDriverObject {
    PyObject_HEAD PyObject* session;  // owned
    SDriver* pDriver;                 // the session's
    PyObject* ids;                    // dict: name to id, of the names that resolved
    std::vector<SKnownList>* pKnown;
    size_t nNextKnown;
};

SDriverObject* Self(PyObject* self) {
    return static_cast<SDriverObject*>(static_cast<void*>(self));
}

// The bytes of a name as the wire has it; empty for a name that no tag can have. False with an
// error set.
bool NameBytes(PyObject* name, std::string& strBytes) {
    if (!PyUnicode_Check(name)) {
        PyErr_Format(PyExc_TypeError, "a tag's name is a str, not %.100s", Py_TYPE(name)->tp_name);
        return false;
    }
    PyObject* bytes = PyUnicode_AsEncodedString(name, "gb2312", "strict");
    if (!bytes) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) return false;
        PyErr_Clear();
        strBytes.clear();
        return true;
    }
    strBytes.assign(PyBytes_AS_STRING(bytes), static_cast<size_t>(PyBytes_GET_SIZE(bytes)));
    Py_DECREF(bytes);
    if (strBytes.find('\0') != std::string::npos) strBytes.clear();
    return true;
}

// What the names of a call resolve to.
struct SResolved {
    PyObject* blank = nullptr;  // of a known list, borrowed
    std::vector<WORD> ids;      // of each name, in order; kNoTag for one that no tag has
    bool bAll = true;           // every name has one
};

// Resolves nNames names: from those known, the others by the server, who is asked again for a name
// that it did not know before. False with an error set.
bool Resolve(SDriverObject* self, CSession& session, PyObject* const* names, Py_ssize_t nNames,
             int64_t nDeadlineNs, SResolved& resolved) {
    std::vector<std::string> asked;
    std::vector<size_t> places;
    resolved.ids.assign(static_cast<size_t>(nNames), kNoTag);
    for (Py_ssize_t i = 0; i < nNames; ++i) {
        PyObject* id = PyDict_GetItemWithError(self->ids, names[i]);
        if (id) {
            resolved.ids[static_cast<size_t>(i)] = static_cast<WORD>(PyLong_AsLong(id));
            continue;
        }
        if (PyErr_Occurred()) return false;
        std::string strBytes;
        if (!NameBytes(names[i], strBytes)) return false;
        asked.push_back(std::move(strBytes));
        places.push_back(static_cast<size_t>(i));
    }
    if (asked.empty()) return true;
    std::vector<WORD> ids;
    CPatience::EEnd eEnd;
    const CSession::EResult eResult = Operate(session, nDeadlineNs, eEnd, [&](CPatience& patience) {
        return session.LookUp(*self->pDriver, asked, ids, patience);
    });
    if (eResult != CSession::EResult::kDone) {
        FailOperation(eResult, eEnd);
        return false;
    }
    for (size_t i = 0; i < places.size(); ++i) {
        resolved.ids[places[i]] = ids[i];
        if (ids[i] == kNoTag) {
            resolved.bAll = false;
            continue;
        }
        PyObject* id = PyLong_FromLong(ids[i]);
        const bool bDone = id && PyDict_SetItem(self->ids, names[places[i]], id) == 0;
        Py_XDECREF(id);
        if (!bDone) return false;
    }
    return true;
}

// Raises Failure("unknown", tuple of the names that did not resolve). Always null.
PyObject* FailUnknown(PyObject* const* names, const std::vector<WORD>& ids) {
    PyObject* list = PyList_New(0);
    for (size_t i = 0; list && i < ids.size(); ++i) {
        if (ids[i] == kNoTag && PyList_Append(list, names[i]) != 0) Py_CLEAR(list);
    }
    PyObject* tuple = list ? PyList_AsTuple(list) : nullptr;
    Py_XDECREF(list);
    return tuple ? Fail("unknown", tuple) : nullptr;
}

// Keeps a list of names in place of the oldest one. False with an error set. A list that is kept is
// whole, whatever fails.
bool Know(SDriverObject* self, PyObject* names, const std::vector<WORD>& ids) {
    SKnownList known;
    known.ids = ids;
    if (!self->pKnown) self->pKnown = new std::vector<SKnownList>;
    self->pKnown->reserve(kMaxKnown);
    known.blank = PyDict_New();
    for (Py_ssize_t i = 0; known.blank && i < PyTuple_GET_SIZE(names); ++i) {
        if (PyDict_SetItem(known.blank, PyTuple_GET_ITEM(names, i), Py_None) != 0) {
            Py_CLEAR(known.blank);
        }
    }
    if (!known.blank) return false;
    Py_INCREF(names);
    known.names = names;
    if (self->pKnown->size() < kMaxKnown) {
        self->pKnown->push_back(std::move(known));
        return true;
    }
    std::swap(known, (*self->pKnown)[self->nNextKnown]);
    self->nNextKnown = (self->nNextKnown + 1) % kMaxKnown;
    Py_DECREF(known.names);
    Py_DECREF(known.blank);
    return true;
}

// The ids of a tuple of names: of a known list, or resolved. Null with an error set. With bSkip
// names that no tag has are no error.
const std::vector<WORD>* IdsOf(SDriverObject* self, CSession& session, PyObject* names,
                               int64_t nDeadlineNs, bool bSkip, SResolved& resolved) {
    PyObject** items = &PyTuple_GET_ITEM(names, 0);
    const Py_ssize_t nNames = PyTuple_GET_SIZE(names);
    const size_t nBytes = static_cast<size_t>(nNames) * sizeof(void*);
    if (nNames >= kMinKnown && self->pKnown) {
        for (const SKnownList& known : *self->pKnown) {
            if (PyTuple_GET_SIZE(known.names) == nNames &&
                std::memcmp(&PyTuple_GET_ITEM(known.names, 0), items, nBytes) == 0) {
                resolved.blank = known.blank;
                return &known.ids;
            }
        }
    }
    if (!Resolve(self, session, items, nNames, nDeadlineNs, resolved)) return nullptr;
    if (!resolved.bAll && !bSkip) {
        FailUnknown(items, resolved.ids);
        return nullptr;
    }
    if (nNames < kMinKnown || !resolved.bAll) return &resolved.ids;
    return Know(self, names, resolved.ids) ? &resolved.ids : nullptr;
}

CSession* SessionOf(SDriverObject* self) { return Held<CSession>(self->session); }

// ---- Reads --------------------------------------------------------------------------------------

// Reads the tags of ids. strValues gets what came. False with an error set.
bool ReadIds(SDriverObject* self, CSession& session, const WORD* pIds, size_t nCount,
             int64_t nDeadlineNs, std::string& strValues) {
    CPatience::EEnd eEnd;
    const CSession::EResult eResult = Operate(session, nDeadlineNs, eEnd, [&](CPatience& patience) {
        return session.Read(*self->pDriver, pIds, nCount, strValues, patience);
    });
    if (eResult == CSession::EResult::kDone) return true;
    FailOperation(eResult, eEnd);
    return false;
}

CByteReader ReaderOf(const std::string& strValues) {
    return CByteReader(static_cast<const BYTE*>(static_cast<const void*>(strValues.data())),
                       strValues.size());
}

PyObject* DriverReadOne(PyObject* obj, PyObject* const* args, Py_ssize_t nArgs) {
    if (nArgs != 2) {
        PyErr_SetString(PyExc_TypeError, "read_one(name, timeout)");
        return nullptr;
    }
    const double fTimeout = PyFloat_AsDouble(args[1]);
    if (fTimeout == -1.0 && PyErr_Occurred()) return nullptr;
    SDriverObject* self = Self(obj);
    CSession* pSession = SessionOf(self);
    if (!pSession) return nullptr;
    return Guarded([&]() -> PyObject* {
        const int64_t nDeadlineNs = DeadlineNs(fTimeout);
        WORD nId = kNoTag;
        PyObject* id = PyDict_GetItemWithError(self->ids, args[0]);
        if (id) {
            nId = static_cast<WORD>(PyLong_AsLong(id));
        } else {
            SResolved resolved;
            if (PyErr_Occurred() || !Resolve(self, *pSession, args, 1, nDeadlineNs, resolved)) {
                return nullptr;
            }
            if (!resolved.bAll) return FailUnknown(args, resolved.ids);
            nId = resolved.ids[0];
        }
        std::string strValues;
        if (!ReadIds(self, *pSession, &nId, 1, nDeadlineNs, strValues)) return nullptr;
        CByteReader reader = ReaderOf(strValues);
        return TakeValue(reader);
    });
}

PyObject* DriverRead(PyObject* obj, PyObject* args) {
    PyObject* names;
    double fTimeout;
    int bSkip;
    if (!PyArg_ParseTuple(args, "O!dp", &PyTuple_Type, &names, &fTimeout, &bSkip)) return nullptr;
    SDriverObject* self = Self(obj);
    CSession* pSession = SessionOf(self);
    if (!pSession) return nullptr;
    return Guarded([&]() -> PyObject* {
        const int64_t nDeadlineNs = DeadlineNs(fTimeout);
        SResolved resolved;
        const std::vector<WORD>* pIds =
            IdsOf(self, *pSession, names, nDeadlineNs, bSkip != 0, resolved);
        if (!pIds) return nullptr;
        // Copies: while the interpreter lock is given up the list may make room for another.
        const std::vector<WORD> ids(*pIds);
        PyObject* blank = resolved.blank;
        Py_XINCREF(blank);
        std::vector<WORD> asked;
        if (!resolved.bAll) {
            for (const WORD nId : ids) {
                if (nId != kNoTag) asked.push_back(nId);
            }
        }
        const std::vector<WORD>& wanted = resolved.bAll ? ids : asked;
        std::string strValues;
        if (!wanted.empty() &&
            !ReadIds(self, *pSession, wanted.data(), wanted.size(), nDeadlineNs, strValues)) {
            Py_XDECREF(blank);
            return nullptr;
        }
        CByteReader reader = ReaderOf(strValues);
        PyObject* dict = blank ? PyDict_Copy(blank) : PyDict_New();
        Py_XDECREF(blank);
        for (size_t i = 0; dict && i < ids.size(); ++i) {
            if (ids[i] == kNoTag) continue;
            PyObject* value = TakeValue(reader);
            if (!value || PyDict_SetItem(dict, PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(i)),
                                         value) != 0) {
                Py_CLEAR(dict);
            }
            Py_XDECREF(value);
        }
        return dict;
    });
}

// ---- Writes -------------------------------------------------------------------------------------

// Reads the tags whose types are not known. False with an error set.
bool LearnTypes(SDriverObject* self, CSession& session, const std::vector<WORD>& ids,
                int64_t nDeadlineNs) {
    std::vector<WORD> unknown;
    for (const WORD nId : ids) {
        if (self->pDriver->types[nId] == VT_EMPTY) unknown.push_back(nId);
    }
    std::string strValues;
    return unknown.empty() ||
           ReadIds(self, session, unknown.data(), unknown.size(), nDeadlineNs, strValues);
}

PyObject* DriverWrite(PyObject* obj, PyObject* args) {
    PyObject* names;
    PyObject* values;
    double fTimeout;
    int bSend = 1;
    if (!PyArg_ParseTuple(args, "O!O!d|p", &PyTuple_Type, &names, &PyTuple_Type, &values, &fTimeout,
                          &bSend)) {
        return nullptr;
    }
    const Py_ssize_t nNames = PyTuple_GET_SIZE(names);
    if (nNames != PyTuple_GET_SIZE(values)) {
        PyErr_SetString(PyExc_ValueError, "as many values as names");
        return nullptr;
    }
    SDriverObject* self = Self(obj);
    CSession* pSession = SessionOf(self);
    if (!pSession) return nullptr;
    if (nNames == 0) Py_RETURN_NONE;
    return Guarded([&]() -> PyObject* {
        const int64_t nDeadlineNs = DeadlineNs(fTimeout);
        SResolved resolved;
        const std::vector<WORD>* pIds = IdsOf(self, *pSession, names, nDeadlineNs, false, resolved);
        if (!pIds) return nullptr;
        const std::vector<WORD> ids(*pIds);
        if (!LearnTypes(self, *pSession, ids, nDeadlineNs)) return nullptr;
        std::vector<CSession::SWrite> writes(ids.size());
        for (size_t i = 0; i < ids.size(); ++i) {
            const char* szWhy = nullptr;
            writes[i].nTag = ids[i];
            const auto nPlace = static_cast<Py_ssize_t>(i);
            if (!EncodeFor(self->pDriver->types[ids[i]], PyTuple_GET_ITEM(values, nPlace),
                           writes[i].strValue, szWhy)) {
                if (PyErr_Occurred()) return nullptr;
                return Fail("rejected",
                            Py_BuildValue("(Os)", PyTuple_GET_ITEM(names, nPlace), szWhy));
            }
        }
        if (!bSend) Py_RETURN_NONE;
        CPatience::EEnd eEnd;
        const CSession::EResult eResult = Operate(
            *pSession, nDeadlineNs, eEnd,
            [&](CPatience& patience) { return pSession->Write(*self->pDriver, writes, patience); });
        if (eResult != CSession::EResult::kDone) return FailOperation(eResult, eEnd);
        Py_RETURN_NONE;
    });
}

// ---- Watches ------------------------------------------------------------------------------------

PyObject* DriverWatch(PyObject* obj, PyObject* args) {
    PyObject* routes;
    PyObject* driver;
    PyObject* names;
    PyObject* feed;
    unsigned int nToken;
    double fTimeout;
    if (!PyArg_ParseTuple(args, "O!UO!OId", &RoutesType, &routes, &driver, &PyTuple_Type, &names,
                          &feed, &nToken, &fTimeout)) {
        return nullptr;
    }
    SDriverObject* self = Self(obj);
    CSession* pSession = SessionOf(self);
    CRoutes* pRoutes = pSession ? Held<CRoutes>(routes) : nullptr;
    if (!pRoutes) return nullptr;
    return Guarded([&]() -> PyObject* {
        const bool bAnew = feed == Py_None;
        SRoute route{nullptr, nToken};
        if (!FeedOrNone(feed, route.pFeed)) return nullptr;
        const int64_t nDeadlineNs = DeadlineNs(fTimeout);
        PyObject** items = &PyTuple_GET_ITEM(names, 0);
        SResolved resolved;
        if (!Resolve(self, *pSession, items, PyTuple_GET_SIZE(names), nDeadlineNs, resolved)) {
            return nullptr;
        }
        if (!resolved.bAll && !bAnew) return FailUnknown(items, resolved.ids);
        std::vector<CWatchedTag*> tags;
        std::vector<WORD> ids;
        PyObject* gone = PyList_New(0);
        for (size_t i = 0; gone && i < resolved.ids.size(); ++i) {
            if (resolved.ids[i] == kNoTag) {
                if (PyList_Append(gone, items[i]) != 0) Py_CLEAR(gone);
                continue;
            }
            CWatchedTag* pTag = pRoutes->Tag(driver, items[i]);
            if (!pTag) Py_CLEAR(gone);
            tags.push_back(pTag);
            ids.push_back(resolved.ids[i]);
        }
        if (!gone) return nullptr;
        CPatience::EEnd eEnd;
        const CSession::EResult eResult =
            Operate(*pSession, nDeadlineNs, eEnd, [&](CPatience& patience) {
                return pSession->Watch(*self->pDriver, tags, ids, bAnew ? nullptr : &route,
                                       patience);
            });
        if (eResult == CSession::EResult::kDone) return gone;
        Py_DECREF(gone);
        return FailOperation(eResult, eEnd);
    });
}

void DriverDealloc(PyObject* obj) {
    SDriverObject* self = Self(obj);
    if (self->pKnown) {
        for (SKnownList& known : *self->pKnown) {
            Py_XDECREF(known.names);
            Py_XDECREF(known.blank);
        }
        delete self->pKnown;
    }
    Py_XDECREF(self->ids);
    Py_XDECREF(self->session);
    Py_TYPE(obj)->tp_free(obj);
}

// The interpreter's table has one type of function; its flags tell which it is.
PyCFunction AsMethod(PyObject* (*fn)(PyObject*, PyObject* const*, Py_ssize_t)) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fn));
}

PyMethodDef kDriverMethods[] = {
    {"read_one", AsMethod(DriverReadOne), METH_FASTCALL,
     "read_one(name, timeout): the tag's value"},
    {"read", DriverRead, METH_VARARGS,
     "read(names, timeout, skip): dict of name to value; with skip without unknown names"},
    {"write", DriverWrite, METH_VARARGS,
     "write(names, values, timeout): write each value to the tag of the same place"},
    {"watch", DriverWatch, METH_VARARGS,
     "watch(routes, driver, names, feed, token, timeout): tell that feed of these tags, their "
     "present values first; with None for the feed tell all who were told before, as resynced, and "
     "return the names that no tag has any more"},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyTypeObject DriverType = {PyVarObject_HEAD_INIT(nullptr, 0)};

bool ReadyDriver(PyObject* module) {
    DriverType.tp_name = "_vzclient.Driver";
    DriverType.tp_doc = "The tags of one driver in one session. Made by Session.driver";
    DriverType.tp_basicsize = sizeof(SDriverObject);
    DriverType.tp_flags = Py_TPFLAGS_DEFAULT;
    DriverType.tp_methods = kDriverMethods;
    DriverType.tp_dealloc = DriverDealloc;
    return PyType_Ready(&DriverType) == 0 &&
           AddObject(module, "Driver", static_cast<PyObject*>(static_cast<void*>(&DriverType)));
}

PyObject* NewDriver(PyObject* session, SDriver& driver) {
    PyObject* obj = DriverType.tp_alloc(&DriverType, 0);
    if (!obj) return nullptr;
    SDriverObject* self = Self(obj);
    Py_INCREF(session);
    self->session = session;
    self->pDriver = &driver;
    self->ids = PyDict_New();
    if (self->ids) return obj;
    Py_DECREF(obj);
    return nullptr;
}
