// The extension module _vzclient: native half of the package vzclient.

#include <pthread.h>

#include <atomic>
#include <cmath>
#include <mutex>

#include "vzclient/Objects.h"
#include "vzclient/Values.h"

namespace {

std::atomic<int> g_nForks{0};
PyObject* g_failure = nullptr;

PyObject* LocalTime(PyObject* /*self*/, PyObject* seconds) {
    const double fSeconds = PyFloat_AsDouble(seconds);
    if (fSeconds == -1.0 && PyErr_Occurred()) return nullptr;
    return TimeToPy(std::llround(fSeconds * 1e6));
}

PyMethodDef kFunctions[] = {
    {"local_time", LocalTime, METH_O,
     "local_time(seconds): aware datetime, in local time, of seconds since 1970 UTC"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule = {
    PyModuleDef_HEAD_INIT,
    "_vzclient",
    "Native half of the package vzclient. Not for direct use.",
    -1,
    kFunctions,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

int Forks() { return g_nForks; }

PyObject* Fail(const char* szKind, PyObject* detail) {
    PyObject* args =
        detail ? Py_BuildValue("(sN)", szKind, detail) : Py_BuildValue("(sO)", szKind, Py_None);
    if (args) PyErr_SetObject(g_failure, args);
    Py_XDECREF(args);
    return nullptr;
}

PyObject* FailOperation(CSession::EResult eResult, CPatience::EEnd eEnd) {
    if (PyErr_Occurred()) return nullptr;  // a signal's handler raised
    if (eResult == CSession::EResult::kReentered) return Fail("reentered");
    if (eResult == CSession::EResult::kShort) return Fail("short");
    return Fail(eEnd == CPatience::EEnd::kTimedOut ? "timeout" : "lost");
}

bool AddObject(PyObject* module, const char* szName, PyObject* obj) {
    Py_XINCREF(obj);
    if (obj && PyModule_AddObject(module, szName, obj) == 0) return true;
    Py_XDECREF(obj);
    return false;
}

// Interpreters before 3.9 leave the entry point as hidden as everything else.
extern "C" __attribute__((visibility("default"))) PyObject* PyInit__vzclient();

PyMODINIT_FUNC PyInit__vzclient() {
    static const int nHandler = pthread_atfork(nullptr, nullptr, [] { ++g_nForks; });
    (void)nHandler;
    PyObject* module = PyModule_Create2(&kModule, PYTHON_API_VERSION);
    if (!module) return nullptr;
    if (!g_failure) g_failure = PyErr_NewException("_vzclient.Failure", nullptr, nullptr);
    if (LoadDateTimes() && PyModule_AddStringConstant(module, "__version__", VZ_VERSION) == 0 &&
        AddObject(module, "Failure", g_failure) && ReadyFeed(module) && ReadySession(module) &&
        ReadyDriver(module)) {
        return module;
    }
    Py_DECREF(module);
    return nullptr;
}
