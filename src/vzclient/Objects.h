// The objects of the extension module _vzclient.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <exception>
#include <memory>
#include <new>

#include "vzclient/Feed.h"
#include "vzclient/Session.h"

#ifdef Py_GIL_DISABLED
#error "_vzclient relies on the interpreter lock; free-threaded interpreters are not supported."
#endif

// What every object starts with. An object made before a fork is of no use in the child: the
// threads that might hold its locks do not exist there.
template <typename T>
struct SObject {
    PyObject_HEAD std::shared_ptr<T>* pHeld;  // owned; null for an object that is not made yet
    int nForks;                               // as many as there had been when it was made
};
struct SFeedObject : SObject<CFeed> {
    PyObject* routes;  // owned: the events' tags are theirs
};
using SRoutesObject = SObject<CRoutes>;
using SSessionObject = SObject<CSession>;

// How often this process has been forked off.
int Forks();

// Raises Failure(kind, detail); steals detail, null for None. Always null.
PyObject* Fail(const char* szKind, PyObject* detail = nullptr);

// Runs a method's body; what it throws becomes a script error and a null result.
template <typename TBody>
PyObject* Guarded(TBody body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

// What an object holds. Null with an error set when it must not be used.
template <typename T>
T* Held(PyObject* self) {
    auto* object = static_cast<SObject<T>*>(static_cast<void*>(self));
    if (object->nForks != Forks()) {
        Fail("forked");
    } else if (!object->pHeld) {
        PyErr_SetString(PyExc_RuntimeError, "object was not initialised");
    } else {
        return object->pHeld->get();
    }
    return nullptr;
}
template <typename T>
std::shared_ptr<T> Shared(PyObject* self) {
    return Held<T>(self) ? *static_cast<SObject<T>*>(static_cast<void*>(self))->pHeld : nullptr;
}

// Gives an object what it holds.
template <typename T>
void Hold(PyObject* self, std::shared_ptr<T> pHeld) {
    auto* object = static_cast<SObject<T>*>(static_cast<void*>(self));
    object->pHeld = new std::shared_ptr<T>(std::move(pHeld));
    object->nForks = Forks();
}

// What obj holds, which is a Feed, or null when it is None. False with an error set.
bool FeedOrNone(PyObject* obj, std::shared_ptr<CFeed>& pFeed);

extern PyTypeObject FeedType;
extern PyTypeObject RoutesType;
extern PyTypeObject SessionType;
extern PyTypeObject DriverType;

// Fill the types in; false with an error set.
bool ReadyFeed(PyObject* module);
bool ReadySession(PyObject* module);
bool ReadyDriver(PyObject* module);

// A new Driver of a session's driver.
PyObject* NewDriver(PyObject* session, SDriver& driver);

bool AddObject(PyObject* module, const char* szName, PyObject* obj);

// How an operation of a session ended, as an error; null. patience: the operation's.
PyObject* FailOperation(CSession::EResult eResult, CPatience::EEnd eEnd);

// Runs an operation without the interpreter lock. Returns how it went; eEnd tells what its patience
// says. Throws std::bad_alloc, the session having ended.
template <typename TBody>
CSession::EResult Operate(CSession& session, int64_t nDeadlineNs, CPatience::EEnd& eEnd,
                          TBody body) {
    CSession::EResult eResult = CSession::EResult::kFailed;
    bool bMemory = true;
    PyThreadState* state = PyEval_SaveThread();
    CPatience patience(nDeadlineNs, state, session.Over(), session.Trace());
    try {
        eResult = body(patience);
    } catch (const std::bad_alloc&) {
        bMemory = false;
        session.End("no memory");
    }
    PyEval_RestoreThread(state);
    if (!bMemory) throw std::bad_alloc();
    eEnd = patience.End();
    return eResult;
}
