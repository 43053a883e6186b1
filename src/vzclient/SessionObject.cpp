// The type Session of the module _vzclient.

#include "vzclient/Objects.h"

#include <arpa/inet.h>

#include <string>
#include <vector>

#include "vzclient/Values.h"

namespace {

// A str of GB2312 text; what is none becomes replacement characters.
PyObject* NameToPy(const std::string& strGb) {
    return PyUnicode_Decode(strGb.data(), static_cast<Py_ssize_t>(strGb.size()), "gb2312",
                            "replace");
}

PyObject* SessionNew(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    static const char* kNames[] = {"routes", "news", "trace", nullptr};
    PyObject* routes;
    PyObject* news;
    PyObject* trace = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O!O!|O", const_cast<char**>(kNames),
                                     &RoutesType, &routes, &FeedType, &news, &trace)) {
        return nullptr;
    }
    return Guarded([&]() -> PyObject* {
        std::shared_ptr<CRoutes> pRoutes = Shared<CRoutes>(routes);
        std::shared_ptr<CFeed> pNews = pRoutes ? Shared<CFeed>(news) : nullptr;
        if (!pNews) return nullptr;
        std::shared_ptr<CFeed> pTrace;
        if (!FeedOrNone(trace, pTrace)) return nullptr;
        PyObject* self = type->tp_alloc(type, 0);
        if (!self) return nullptr;
        try {
            Hold(self, std::make_shared<CSession>(pRoutes, pNews, pTrace));
        } catch (...) {
            Py_DECREF(self);
            throw;
        }
        return self;
    });
}

// Waits for the receive thread, which never waits for the interpreter lock.
void SessionDealloc(PyObject* self) {
    auto* object = static_cast<SSessionObject*>(static_cast<void*>(self));
    if (object->nForks == Forks() && object->pHeld) {
        // May be the last to hold the routes, whose names are script objects.
        const std::shared_ptr<CRoutes> pRoutes = (*object->pHeld)->Routes();
        PyThreadState* state = PyEval_SaveThread();
        delete object->pHeld;
        PyEval_RestoreThread(state);
    }
    Py_TYPE(self)->tp_free(self);
}

PyObject* SessionConnect(PyObject* self, PyObject* args) {
    const char* szHost;
    const char* szAddress;  // dotted quad, or empty
    const char* szUser;
    const char* szPassword;
    double fTimeout;
    if (!PyArg_ParseTuple(args, "ssssd", &szHost, &szAddress, &szUser, &szPassword, &fTimeout)) {
        return nullptr;
    }
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    return Guarded([&]() -> PyObject* {
        int nResult = kConnectFailed;
        CPatience::EEnd eEnd;
        in_addr addr = {};
        if (*szAddress && !inet_aton(szAddress, &addr)) {
            PyErr_SetString(PyExc_ValueError, "not an IPv4 address");
            return nullptr;
        }
        (void)Operate(*pSession, DeadlineNs(fTimeout), eEnd, [&](CPatience& patience) {
            nResult = pSession->Connect(szHost, addr.s_addr, szUser, szPassword, patience);
            return CSession::EResult::kDone;
        });
        if (PyErr_Occurred()) return nullptr;
        if (nResult != kConnected && eEnd == CPatience::EEnd::kTimedOut) return Fail("timeout");
        return Py_BuildValue("(iI)", nResult, static_cast<unsigned int>(pSession->HelloResult()));
    });
}

PyObject* SessionDriver(PyObject* self, PyObject* args) {
    unsigned short nId;
    if (!PyArg_ParseTuple(args, "H", &nId)) return nullptr;
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    SDriver* pDriver = pSession->Driver(nId);
    if (!pDriver) return Fail("unknown");
    return NewDriver(self, *pDriver);
}

PyObject* SessionDrivers(PyObject* self, PyObject* /*args*/) {
    CSession* pSession = Held<CSession>(self);
    PyObject* dict = pSession ? PyDict_New() : nullptr;
    if (!dict) return nullptr;
    for (const auto& entry : pSession->m_mapDrvInfos) {
        PyObject* name = NameToPy(entry.first);
        PyObject* facts =
            name ? Py_BuildValue("(ii)", entry.second.id, entry.second.tagNum) : nullptr;
        const bool bDone = facts && PyDict_SetItem(dict, name, facts) == 0;
        Py_XDECREF(name);
        Py_XDECREF(facts);
        if (!bDone) {
            Py_DECREF(dict);
            return nullptr;
        }
    }
    return dict;
}

PyObject* SessionWatchAlarms(PyObject* self, PyObject* args) {
    PyObject* feed;
    unsigned int nToken;
    int bExisting;
    double fTimeout;
    if (!PyArg_ParseTuple(args, "OIpd", &feed, &nToken, &bExisting, &fTimeout)) return nullptr;
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    return Guarded([&]() -> PyObject* {
        SRoute route{nullptr, nToken};
        if (!FeedOrNone(feed, route.pFeed)) return nullptr;
        CPatience::EEnd eEnd;
        const CSession::EResult eResult =
            Operate(*pSession, DeadlineNs(fTimeout), eEnd, [&](CPatience& patience) {
                return pSession->WatchAlarms(route.pFeed ? &route : nullptr, bExisting != 0,
                                             patience);
            });
        if (eResult != CSession::EResult::kDone) return FailOperation(eResult, eEnd);
        Py_RETURN_NONE;
    });
}

PyObject* TextList(const std::vector<CString>& texts) {
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(texts.size()));
    for (size_t i = 0; list && i < texts.size(); ++i) {
        PyObject* text = PyUnicode_DecodeUTF8(texts[i].data(),
                                              static_cast<Py_ssize_t>(texts[i].size()), "replace");
        if (text) {
            PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), text);
        } else {
            Py_CLEAR(list);
        }
    }
    return list;
}

PyObject* SessionAlarmTexts(PyObject* self, PyObject* /*args*/) {
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    std::vector<CString> textList;
    std::vector<CString> tagList;
    pSession->AlarmTexts(textList, tagList);
    PyObject* texts = TextList(textList);
    PyObject* tags = texts ? TextList(tagList) : nullptr;
    if (!tags) {
        Py_XDECREF(texts);
        return nullptr;
    }
    return Py_BuildValue("(NN)", texts, tags);
}

PyObject* SessionProbe(PyObject* self, PyObject* args) {
    double fTimeout;
    if (!PyArg_ParseTuple(args, "d", &fTimeout)) return nullptr;
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    return Guarded([&]() -> PyObject* {
        CPatience::EEnd eEnd;
        const CSession::EResult eResult =
            Operate(*pSession, DeadlineNs(fTimeout), eEnd,
                    [&](CPatience& patience) { return pSession->Probe(patience); });
        if (eResult != CSession::EResult::kDone) return FailOperation(eResult, eEnd);
        Py_RETURN_NONE;
    });
}

PyObject* SessionEnd(PyObject* self, PyObject* args) {
    const char* szNews;
    if (!PyArg_ParseTuple(args, "s", &szNews)) return nullptr;
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    pSession->End(szNews);
    Py_RETURN_NONE;
}

PyObject* SessionJoin(PyObject* self, PyObject* /*args*/) {
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    PyThreadState* state = PyEval_SaveThread();
    pSession->Join();
    PyEval_RestoreThread(state);
    Py_RETURN_NONE;
}

PyObject* SessionProject(PyObject* self, void* /*closure*/) {
    CSession* pSession = Held<CSession>(self);
    return pSession ? NameToPy(pSession->m_strProject) : nullptr;
}

PyObject* SessionRights(PyObject* self, void* /*closure*/) {
    CSession* pSession = Held<CSession>(self);
    return pSession ? PyLong_FromUnsignedLong(pSession->m_nRights) : nullptr;
}

PyObject* SessionOver(PyObject* self, void* /*closure*/) {
    CSession* pSession = Held<CSession>(self);
    return pSession ? PyBool_FromLong(pSession->Over()) : nullptr;
}

PyObject* SessionHeard(PyObject* self, void* /*closure*/) {
    CSession* pSession = Held<CSession>(self);
    return pSession ? PyFloat_FromDouble(static_cast<double>(pSession->m_nHeardUs) / 1e6) : nullptr;
}

PyObject* SessionCounts(PyObject* self, PyObject* /*args*/) {
    CSession* pSession = Held<CSession>(self);
    if (!pSession) return nullptr;
    const CFrames& frames = pSession->Frames();
    return Py_BuildValue("{sKsKsKsKsK}", "requests",
                         static_cast<unsigned long long>(pSession->m_nRequests), "changes",
                         static_cast<unsigned long long>(frames.m_nChanges), "alarms",
                         static_cast<unsigned long long>(frames.m_nAlarms), "unusable_frames",
                         static_cast<unsigned long long>(frames.m_nUnusable), "bytes_received",
                         static_cast<unsigned long long>(pSession->m_nBytes));
}

PyMethodDef kSessionMethods[] = {
    {"connect", SessionConnect, METH_VARARGS,
     "connect(host, address, user, password, timeout): result of the login, and what the server "
     "said to the hello. Once. Raises Failure(\"timeout\")"},
    {"drivers", SessionDrivers, METH_NOARGS, "driver name to (id, number of tags)"},
    {"driver", SessionDriver, METH_VARARGS, "driver(id): its Driver"},
    {"watch_alarms", SessionWatchAlarms, METH_VARARGS,
     "watch_alarms(feed, token, existing, timeout): tell that feed alarms, those that are active "
     "first; with None for the feed tell all who were told before, as resynced"},
    {"alarm_texts", SessionAlarmTexts, METH_NOARGS, "lists of alarm texts and of alarm tag names"},
    {"probe", SessionProbe, METH_VARARGS, "probe(timeout): ask the server for a sign of life"},
    {"end", SessionEnd, METH_VARARGS, "end(news): end the session; who waits in it stops waiting"},
    {"join", SessionJoin, METH_NOARGS,
     "after end: wait for the receive thread, and close the connection"},
    {"counts", SessionCounts, METH_NOARGS, "what happened so far"},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef kSessionAttributes[] = {
    {"project", SessionProject, nullptr, "name of the project", nullptr},
    {"rights", SessionRights, nullptr, "rights word of the user", nullptr},
    {"over", SessionOver, nullptr, "whether the session has ended", nullptr},
    {"heard", SessionHeard, nullptr, "when the server was last heard, seconds since 1970", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

PyTypeObject SessionType = {PyVarObject_HEAD_INIT(nullptr, 0)};

bool ReadySession(PyObject* module) {
    SessionType.tp_name = "_vzclient.Session";
    SessionType.tp_doc = "Session(routes, news, trace=None): one connection to a server";
    SessionType.tp_basicsize = sizeof(SSessionObject);
    SessionType.tp_flags = Py_TPFLAGS_DEFAULT;
    SessionType.tp_methods = kSessionMethods;
    SessionType.tp_getset = kSessionAttributes;
    SessionType.tp_new = SessionNew;
    SessionType.tp_dealloc = SessionDealloc;
    return PyType_Ready(&SessionType) == 0 &&
           AddObject(module, "Session", static_cast<PyObject*>(static_cast<void*>(&SessionType)));
}
