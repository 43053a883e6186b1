// The extension module VzDBAccess: its two types, their methods and its initialisation. Argument
// parsing, results and errors; everything else is the binding layer's.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <exception>
#include <new>

#include "VzDBAccess/vzdb.h"

#ifdef Py_GIL_DISABLED
#error "VzDBAccess relies on the interpreter lock; free-threaded interpreters are not supported."
#endif

namespace {

struct DBCoreObj {
    PyObject_HEAD CDBCore* pDB;  // owned
};

struct DriverObj {
    PyObject_HEAD SDriverRef* pDrv;  // owned handle; the driver belongs to its session
};

static_assert(sizeof(DBCoreObj) == sizeof(PyObject) + sizeof(void*));
static_assert(sizeof(DriverObj) == sizeof(PyObject) + sizeof(void*));

extern PyTypeObject DriverType;

// Runs a method's body; what it throws becomes a script error and a null result.
template <typename TBody>
PyObject* Guarded(TBody body) {
    try {
        return body();
    } catch (const StaleDriver&) {
        PyErr_SetString(PyExc_RuntimeError, "driver has no session: get it anew after Connect");
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

CDBCore* CoreOf(PyObject* self) { return static_cast<DBCoreObj*>(static_cast<void*>(self))->pDB; }

SDriverRef*& DriverOf(PyObject* self) {
    return static_cast<DriverObj*>(static_cast<void*>(self))->pDrv;
}

bool CheckCallable(PyObject* fn) {
    if (PyCallable_Check(fn)) return true;
    PyErr_SetString(PyExc_TypeError, "parameter must be callable");
    return false;
}

// The int result of a call that may have set an error besides.
PyObject* IntResult(int n) { return PyErr_Occurred() ? nullptr : PyLong_FromLong(n); }

// ---- DBCore -------------------------------------------------------------------------------------

PyObject* DBConnect(PyObject* self, PyObject* args) {
    const char* szHost;
    const char* szUserName;
    const char* szPassword;
    if (!PyArg_ParseTuple(args, "sss", &szHost, &szUserName, &szPassword)) return nullptr;
    return Guarded(
        [&] { return PyLong_FromLong(_DBConnect(CoreOf(self), szHost, szUserName, szPassword)); });
}

// Deliberate: an unknown name gives a null result without an error of its own, which the
// interpreter reports as a SystemError.
PyObject* DBGetDriver(PyObject* self, PyObject* args) {
    const char* szDriver;
    if (!PyArg_ParseTuple(args, "s", &szDriver)) return nullptr;
    return Guarded([&]() -> PyObject* {
        SDriverRef* pDrv = _DBGetDriver(CoreOf(self), szDriver);
        if (!pDrv) return nullptr;
        PyObject* obj = _PyObject_New(&DriverType);
        if (obj) {
            DriverOf(obj) = pDrv;
        } else {
            _DrvRelease(pDrv);
        }
        return obj;
    });
}

PyObject* DBSetRtAlarmNotify(PyObject* self, PyObject* args) {
    PyObject* fn;
    int notifyExisting;
    if (!PyArg_ParseTuple(args, "Oi:set_callback", &fn, &notifyExisting)) return nullptr;
    if (!CheckCallable(fn)) return nullptr;
    return Guarded([&]() -> PyObject* {
        _DBSetRtAlarmNotify(CoreOf(self), fn, notifyExisting);
        Py_RETURN_NONE;
    });
}

PyObject* DBCore_new(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwds*/) {
    PyObject* self = type->tp_alloc(type, 0);
    if (!self) return nullptr;
    return Guarded([&] {
        try {
            static_cast<DBCoreObj*>(static_cast<void*>(self))->pDB = _DBCoreNew();
        } catch (...) {
            Py_DECREF(self);
            throw;
        }
        return self;
    });
}

// May run in the middle of an exception, and on a receive thread.
void DBCore_dealloc(PyObject* self) {
    _DBCoreDelete(CoreOf(self));
    Py_TYPE(self)->tp_free(self);
}

PyMethodDef DBCore_methods[] = {
    {"Connect", DBConnect, METH_VARARGS, "Connect DB server"},
    {"GetDriver", DBGetDriver, METH_VARARGS, "Get DB Driver"},
    {"SetRtAlarmNotify", DBSetRtAlarmNotify, METH_VARARGS, "Set Realtime Alarm Notify"},
    {nullptr, nullptr, 0, nullptr},
};

// ---- Driver -------------------------------------------------------------------------------------

PyObject* DrvSetTagNotify(PyObject* self, PyObject* args) {
    PyObject* fn;
    if (!PyArg_ParseTuple(args, "O:set_callback", &fn)) return nullptr;
    if (!CheckCallable(fn)) return nullptr;
    return Guarded([&]() -> PyObject* {
        _DrvSetTagNotify(DriverOf(self), fn);
        Py_RETURN_NONE;
    });
}

PyObject* DrvConnectTag(PyObject* self, PyObject* args) {
    const char* szTag;
    if (!PyArg_ParseTuple(args, "s", &szTag)) return nullptr;
    return Guarded([&] { return PyLong_FromLong(_DrvConnectTag(DriverOf(self), szTag)); });
}

PyObject* DrvGetTagValue(PyObject* self, PyObject* args) {
    const char* szTag;
    if (!PyArg_ParseTuple(args, "s", &szTag)) return nullptr;
    return Guarded([&] { return _DrvGetTagValue(DriverOf(self), szTag); });
}

PyObject* DrvSetTagValue(PyObject* self, PyObject* args) {
    const char* szTag;
    PyObject* objValues;
    if (!PyArg_ParseTuple(args, "sO", &szTag, &objValues)) return nullptr;
    return Guarded([&] { return IntResult(_DrvSetTagValue(DriverOf(self), szTag, objValues)); });
}

// A driver made by calling the type has no session: every method raises.
PyObject* Driver_new(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwds*/) {
    return type->tp_alloc(type, 0);
}

void Driver_dealloc(PyObject* self) {
    _DrvRelease(DriverOf(self));
    Py_TYPE(self)->tp_free(self);
}

PyMethodDef drv_methods[] = {
    {"SetTagNotify", DrvSetTagNotify, METH_VARARGS, "Tag Value Change Notify Function"},
    {"ConnectTag", DrvConnectTag, METH_VARARGS, "Connect Tag"},
    {"GetTagValue", DrvGetTagValue, METH_VARARGS, "Get Tag Value"},
    {"SetTagValue", DrvSetTagValue, METH_VARARGS, "Set Tag Value"},
    {nullptr, nullptr, 0, nullptr},
};

// ---- Types and module ---------------------------------------------------------------------------

PyTypeObject MakeType(const char* szName, const char* szDoc, Py_ssize_t nSize, PyMethodDef* methods,
                      newfunc fnNew, destructor fnDealloc) {
    PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
    type.tp_name = szName;
    type.tp_doc = szDoc;
    type.tp_basicsize = nSize;
    type.tp_flags = Py_TPFLAGS_DEFAULT;
    type.tp_methods = methods;
    type.tp_new = fnNew;
    type.tp_dealloc = fnDealloc;
    return type;
}

PyTypeObject DBCoreType = MakeType("VzDBAccess.DBCore", "DBCore objects", sizeof(DBCoreObj),
                                   DBCore_methods, DBCore_new, DBCore_dealloc);
PyTypeObject DriverType = MakeType("VzDBAccess.Driver", "Driver objects", sizeof(DriverObj),
                                   drv_methods, Driver_new, Driver_dealloc);

// Deliberate: the module is imported as VzDBAccess and calls itself vzdb.
PyModuleDef dbcoremodule = {
    PyModuleDef_HEAD_INIT, "vzdb", "vzdb access.", -1, nullptr, nullptr, nullptr, nullptr, nullptr,
};

PyObject* EndAll(PyObject* /*self*/, PyObject* /*args*/) {
    return Guarded([]() -> PyObject* {
        _DBEndAll();
        Py_RETURN_NONE;
    });
}

PyMethodDef kEndAllDef = {"end_all", EndAll, METH_NOARGS, "End all sessions"};

// Has the interpreter end all sessions before it takes itself apart.
bool RegisterExitHook() {
    PyObject* atexit = PyImport_ImportModule("atexit");
    PyObject* hook = atexit ? PyCFunction_New(&kEndAllDef, nullptr) : nullptr;
    PyObject* result = hook ? PyObject_CallMethod(atexit, "register", "O", hook) : nullptr;
    const bool bDone = result != nullptr;
    Py_XDECREF(result);
    Py_XDECREF(hook);
    Py_XDECREF(atexit);
    return bDone;
}

bool AddType(PyObject* module, const char* szName, PyTypeObject* type) {
    PyObject* obj = static_cast<PyObject*>(static_cast<void*>(type));
    Py_INCREF(obj);
    if (PyModule_AddObject(module, szName, obj) == 0) return true;
    Py_DECREF(obj);
    Py_DECREF(module);
    return false;
}

}  // namespace

// Interpreters before 3.9 leave the entry point as hidden as everything else.
extern "C" __attribute__((visibility("default"))) PyObject* PyInit_VzDBAccess();

PyMODINIT_FUNC PyInit_VzDBAccess() {
    PyObject* module = PyModule_Create2(&dbcoremodule, PYTHON_API_VERSION);
    if (!module) return nullptr;
    if (PyType_Ready(&DBCoreType) < 0) return nullptr;
    if (!AddType(module, "DBCore", &DBCoreType)) return nullptr;
    if (PyType_Ready(&DriverType) < 0) return nullptr;
    if (!AddType(module, "Driver", &DriverType)) return nullptr;
    if (!RegisterExitHook()) {
        Py_DECREF(module);
        return nullptr;
    }
    return module;
}
