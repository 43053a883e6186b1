// The types Feed and Routes of the module _vzclient.

#include "vzclient/Objects.h"

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "vzclient/Values.h"

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kSliceNs = 500 * kNsPerMs;  // signals that come between two waits are seen then

PyObject* g_changeType = nullptr;  // the named tuple that scripts see
constexpr Py_ssize_t kChangeFields = 5;

// Makes items of events. Keeps the last time: events that came together have the same.
class CItems {
  public:
    ~CItems() { Py_XDECREF(m_time); }

    // (token, item). New reference; null with an error set.
    PyObject* Item(const SEvent& event) {
        PyObject* item = nullptr;
        switch (event.eKind) {
            case SEvent::EKind::kChange:
                item = Change(event);
                break;
            case SEvent::EKind::kAlarm:
                item = Alarm(event);
                break;
            case SEvent::EKind::kNews:
                item = PyUnicode_FromString(event.pMore->strText.c_str());
                break;
            case SEvent::EKind::kBytes:
                item = Py_BuildValue("(dOOy#)", static_cast<double>(event.nTimeUs) / 1e6,
                                     event.bNotify ? Py_True : Py_False,
                                     event.bSent ? Py_True : Py_False, event.pMore->strText.data(),
                                     static_cast<Py_ssize_t>(event.pMore->strText.size()));
                break;
        }
        if (!item) return nullptr;
        PyObject* token = PyLong_FromUnsignedLong(event.nToken);
        PyObject* pair = token ? PyTuple_New(2) : nullptr;
        if (!pair) {
            Py_XDECREF(token);
            Py_DECREF(item);
            return nullptr;
        }
        PyTuple_SET_ITEM(pair, 0, token);
        PyTuple_SET_ITEM(pair, 1, item);
        return pair;
    }

  private:
    PyObject* Change(const SEvent& event) {
        if (!m_time || m_nTimeUs != event.nTimeUs) {
            Py_XDECREF(m_time);
            m_time = TimeToPy(event.nTimeUs);
            m_nTimeUs = event.nTimeUs;
            if (!m_time) return nullptr;
        }
        PyObject* value = ValueToPy(event.value);
        if (!value) return nullptr;
        if (!g_changeType) {
            Py_DECREF(value);
            PyErr_SetString(PyExc_RuntimeError, "no type of changes: import vzclient first");
            return nullptr;
        }
        auto* type = static_cast<PyTypeObject*>(static_cast<void*>(g_changeType));
        PyObject* change = type->tp_alloc(type, kChangeFields);
        if (!change) {
            Py_DECREF(value);
            return nullptr;
        }
        PyObject* fields[kChangeFields] = {event.pTag->driver, event.pTag->tag, value, m_time,
                                           event.bResynced ? Py_True : Py_False};
        for (Py_ssize_t i = 0; i < kChangeFields; ++i) {
            Py_INCREF(fields[i]);
            PyTuple_SET_ITEM(change, i, fields[i]);
        }
        Py_DECREF(value);
        return change;
    }

    static PyObject* Alarm(const SEvent& event) {
        const S2RtAlarm2& alarm = event.pMore->alarm;
        return Py_BuildValue("(IIHHHBBddO)", alarm.almtm, alarm.evttm, alarm.tid, alarm.type,
                             alarm.grp, alarm.level, alarm.status, alarm.value, alarm.limit,
                             event.bResynced ? Py_True : Py_False);
    }

    PyObject* m_time = nullptr;
    int64_t m_nTimeUs = 0;
};

// Waits until the feed's descriptor is readable. False when the deadline passed, or with an error
// set when a signal's handler raised. nDeadlineNs: -1 for none.
bool WaitForFeed(const CFeed& feed, int64_t nDeadlineNs) {
    for (;;) {
        int64_t nSliceNs = kSliceNs;
        if (nDeadlineNs >= 0) nSliceNs = std::min(nSliceNs, nDeadlineNs - MonotonicNs());
        const int nMs =
            static_cast<int>((std::max<int64_t>(nSliceNs, 0) + kNsPerMs - 1) / kNsPerMs);
        pollfd fd{feed.Descriptor(), POLLIN, 0};
        PyThreadState* state = PyEval_SaveThread();
        const int nReady = poll(&fd, 1, nMs);
        PyEval_RestoreThread(state);
        if (nReady > 0) return true;
        if (PyErr_CheckSignals() != 0) return false;
        if (nSliceNs <= 0) return false;
    }
}

// ---- Feed ---------------------------------------------------------------------------------------

PyObject* FeedNew(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    static const char* kNames[] = {"routes", "capacity", "overflow", nullptr};
    PyObject* routes;
    Py_ssize_t nCapacity = 0;
    const char* szOverflow = "latest";
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O!n|s", const_cast<char**>(kNames), &RoutesType,
                                     &routes, &nCapacity, &szOverflow)) {
        return nullptr;
    }
    const bool bLatest = std::strcmp(szOverflow, "latest") == 0;
    if (nCapacity < 1 || (!bLatest && std::strcmp(szOverflow, "oldest") != 0)) {
        PyErr_SetString(PyExc_ValueError, nCapacity < 1 ? "a queue holds at least one event"
                                                        : "overflow is \"latest\" or \"oldest\"");
        return nullptr;
    }
    PyObject* self = type->tp_alloc(type, 0);
    if (!self) return nullptr;
    PyObject* result = Guarded([&] {
        Hold(self, std::make_shared<CFeed>(
                       static_cast<size_t>(nCapacity),
                       bLatest ? CFeed::EOverflow::kLatest : CFeed::EOverflow::kOldest));
        Py_INCREF(routes);
        static_cast<SFeedObject*>(static_cast<void*>(self))->routes = routes;
        return self;
    });
    if (!result) Py_DECREF(self);
    return result;
}

template <typename T>
void Dealloc(PyObject* self) {
    auto* object = static_cast<SObject<T>*>(static_cast<void*>(self));
    if (object->nForks == Forks()) delete object->pHeld;
    Py_TYPE(self)->tp_free(self);
}

void FeedDealloc(PyObject* self) {
    PyObject* routes = static_cast<SFeedObject*>(static_cast<void*>(self))->routes;
    Dealloc<CFeed>(self);
    Py_XDECREF(routes);
}

PyObject* FeedTake(PyObject* self, PyObject* args) {
    PyObject* timeout;
    Py_ssize_t nMax = 0;
    if (!PyArg_ParseTuple(args, "On", &timeout, &nMax)) return nullptr;
    int64_t nDeadlineNs = -1;
    if (timeout != Py_None) {
        const double fSeconds = PyFloat_AsDouble(timeout);
        if (fSeconds == -1.0 && PyErr_Occurred()) return nullptr;
        nDeadlineNs = DeadlineNs(fSeconds);
    }
    CFeed* pFeed = Held<CFeed>(self);
    if (!pFeed) return nullptr;
    return Guarded([&]() -> PyObject* {
        std::vector<SEvent> events;
        bool bOpen = pFeed->Take(events, static_cast<size_t>(std::max<Py_ssize_t>(nMax, 1)));
        while (bOpen && events.empty() && WaitForFeed(*pFeed, nDeadlineNs)) {
            bOpen = pFeed->Take(events, static_cast<size_t>(std::max<Py_ssize_t>(nMax, 1)));
        }
        if (PyErr_Occurred()) return nullptr;
        if (!bOpen) Py_RETURN_NONE;
        PyObject* list = PyList_New(static_cast<Py_ssize_t>(events.size()));
        CItems items;
        for (size_t i = 0; list && i < events.size(); ++i) {
            PyObject* item = items.Item(events[i]);
            if (item) {
                PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), item);
            } else {
                Py_CLEAR(list);
            }
        }
        return list;
    });
}

PyObject* FeedFileno(PyObject* self, PyObject* /*args*/) {
    CFeed* pFeed = Held<CFeed>(self);
    return pFeed ? PyLong_FromLong(pFeed->Descriptor()) : nullptr;
}

PyObject* FeedClose(PyObject* self, PyObject* /*args*/) {
    CFeed* pFeed = Held<CFeed>(self);
    if (!pFeed) return nullptr;
    pFeed->Close();
    Py_RETURN_NONE;
}

PyObject* FeedForget(PyObject* self, PyObject* args) {
    unsigned int nToken = 0;
    if (!PyArg_ParseTuple(args, "I", &nToken)) return nullptr;
    CFeed* pFeed = Held<CFeed>(self);
    if (!pFeed) return nullptr;
    pFeed->Forget(nToken);
    Py_RETURN_NONE;
}

PyObject* FeedNews(PyObject* self, PyObject* args) {
    const char* szNews;
    unsigned int nToken = 0;
    if (!PyArg_ParseTuple(args, "s|I", &szNews, &nToken)) return nullptr;
    CFeed* pFeed = Held<CFeed>(self);
    if (!pFeed) return nullptr;
    pFeed->PushNews(szNews, nToken);
    Py_RETURN_NONE;
}

PyObject* FeedDropped(PyObject* self, void* /*closure*/) {
    CFeed* pFeed = Held<CFeed>(self);
    return pFeed ? PyLong_FromUnsignedLongLong(pFeed->Dropped()) : nullptr;
}

Py_ssize_t FeedLength(PyObject* self) {
    CFeed* pFeed = Held<CFeed>(self);
    return pFeed ? static_cast<Py_ssize_t>(pFeed->Size()) : -1;
}

PyMethodDef kFeedMethods[] = {
    {"take", FeedTake, METH_VARARGS,
     "take(timeout, limit): up to limit pairs of token and item, oldest first; an empty list after "
     "timeout seconds (None: never), None when the feed is closed and empty"},
    {"fileno", FeedFileno, METH_NOARGS, "descriptor that is readable while there is something"},
    {"close", FeedClose, METH_NOARGS, "take no more events"},
    {"forget", FeedForget, METH_VARARGS, "forget(token): remove what waits for a token"},
    {"news", FeedNews, METH_VARARGS, "news(text, token=0): put a text in"},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef kFeedAttributes[] = {
    {"dropped", FeedDropped, nullptr, "how many events were displaced", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PySequenceMethods kFeedSequence = {};

// ---- Routes -------------------------------------------------------------------------------------

PyObject* RoutesNew(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwargs*/) {
    PyObject* self = type->tp_alloc(type, 0);
    if (!self) return nullptr;
    PyObject* result = Guarded([&] {
        Hold(self, std::make_shared<CRoutes>());
        return self;
    });
    if (!result) Py_DECREF(self);
    return result;
}

PyObject* RoutesWatched(PyObject* self, PyObject* /*args*/) {
    CRoutes* pRoutes = Held<CRoutes>(self);
    return pRoutes ? Guarded([&] { return pRoutes->Watched(); }) : nullptr;
}

PyObject* RoutesAlarmsWatched(PyObject* self, PyObject* /*args*/) {
    CRoutes* pRoutes = Held<CRoutes>(self);
    return pRoutes ? PyBool_FromLong(pRoutes->AlarmsWatched()) : nullptr;
}

PyObject* RoutesDrop(PyObject* self, PyObject* args) {
    PyObject* feed;
    unsigned int nToken = 0;
    if (!PyArg_ParseTuple(args, "O!I", &FeedType, &feed, &nToken)) return nullptr;
    CRoutes* pRoutes = Held<CRoutes>(self);
    CFeed* pFeed = pRoutes ? Held<CFeed>(feed) : nullptr;
    if (!pFeed) return nullptr;
    pRoutes->Drop(pFeed, nToken);
    pFeed->Forget(nToken);
    Py_RETURN_NONE;
}

PyMethodDef kRoutesMethods[] = {
    {"watched", RoutesWatched, METH_NOARGS, "driver name to list of the tag names that are wanted"},
    {"alarms_watched", RoutesAlarmsWatched, METH_NOARGS, "whether alarms are wanted"},
    {"drop", RoutesDrop, METH_VARARGS, "drop(feed, token): tell that feed's token nothing more"},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* UseChange(PyObject* /*self*/, PyObject* type) {
    if (!PyType_Check(type) ||
        !PyType_IsSubtype(static_cast<PyTypeObject*>(static_cast<void*>(type)), &PyTuple_Type)) {
        PyErr_SetString(PyExc_TypeError, "changes are tuples");
        return nullptr;
    }
    Py_INCREF(type);
    PyObject* before = g_changeType;
    g_changeType = type;
    Py_XDECREF(before);
    Py_RETURN_NONE;
}

PyMethodDef kFeedFunctions[] = {
    {"use_change", UseChange, METH_O,
     "use_change(type): make changes of this type, a tuple of driver, tag, value, time, resynced"},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

bool FeedOrNone(PyObject* obj, std::shared_ptr<CFeed>& pFeed) {
    if (obj == Py_None) return true;
    if (!PyObject_TypeCheck(obj, &FeedType)) {
        PyErr_SetString(PyExc_TypeError, "a feed is a Feed or None");
        return false;
    }
    pFeed = Shared<CFeed>(obj);
    return pFeed != nullptr;
}

PyTypeObject FeedType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject RoutesType = {PyVarObject_HEAD_INIT(nullptr, 0)};

bool ReadyFeed(PyObject* module) {
    kFeedSequence.sq_length = FeedLength;
    FeedType.tp_name = "_vzclient.Feed";
    FeedType.tp_doc =
        "Feed(routes, capacity, overflow=\"latest\"): bounded queue of what a plant tells";
    FeedType.tp_basicsize = sizeof(SFeedObject);
    FeedType.tp_flags = Py_TPFLAGS_DEFAULT;
    FeedType.tp_methods = kFeedMethods;
    FeedType.tp_getset = kFeedAttributes;
    FeedType.tp_as_sequence = &kFeedSequence;
    FeedType.tp_new = FeedNew;
    FeedType.tp_dealloc = FeedDealloc;
    RoutesType.tp_name = "_vzclient.Routes";
    RoutesType.tp_doc = "Routes(): which feeds are told of which tags, from session to session";
    RoutesType.tp_basicsize = sizeof(SRoutesObject);
    RoutesType.tp_flags = Py_TPFLAGS_DEFAULT;
    RoutesType.tp_methods = kRoutesMethods;
    RoutesType.tp_new = RoutesNew;
    RoutesType.tp_dealloc = Dealloc<CRoutes>;
    if (PyType_Ready(&FeedType) < 0 || PyType_Ready(&RoutesType) < 0) return false;
    return PyModule_AddFunctions(module, kFeedFunctions) == 0 &&
           AddObject(module, "Feed", static_cast<PyObject*>(static_cast<void*>(&FeedType))) &&
           AddObject(module, "Routes", static_cast<PyObject*>(static_cast<void*>(&RoutesType)));
}
