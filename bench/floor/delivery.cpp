// The least that a thread can do to have a script function called as changes of a tag come in: it
// receives a chunk of changes, takes the interpreter lock once for it, and calls. A module of its
// own.
//
//   start(function, driver, tag, count, bytes, socket, cached)
//       starts a thread that calls function(driver, tag, value) for so many changes, which it
//       receives from socket, a descriptor, at most so many bytes in one receive; one thread at a
//       time. When cached is true the names are made into strs once; otherwise the arguments are
//       built anew, "(ssO)", for each call.
//   join()
//       waits until the thread is done

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <thread>

namespace {

constexpr long kFrameBytes = 8;  // driver id (2), tag id (2), value (4)
constexpr long kMaxChunkBytes = 2048;

// Owned by the script's thread; between start and join the other one reads it.
struct SFloor {
    PyObject* fn = nullptr;   // owned
    PyObject* drv = nullptr;  // owned; the names as strs, when they are made once
    PyObject* tag = nullptr;  // owned
    std::string strDriver;
    std::string strTag;
    long nCount = 0;
    long nChunkBytes = 0;
    int hSocket = -1;
    std::thread thread;
};

SFloor& Floor() {
    static SFloor& floor = *new SFloor;  // never destroyed: its thread may outlive the script
    return floor;
}

PyObject* CallWithTuple(const SFloor& floor, PyObject* value) {
    PyObject* args = Py_BuildValue("(ssO)", floor.strDriver.c_str(), floor.strTag.c_str(), value);
    PyObject* result = args ? PyObject_CallObject(floor.fn, args) : nullptr;
    Py_XDECREF(args);
    return result;
}

PyObject* CallWithCached(const SFloor& floor, PyObject* value) {
#if PY_VERSION_HEX >= 0x03090000
    PyObject* args[] = {nullptr, floor.drv, floor.tag, value};
    return PyObject_Vectorcall(floor.fn, args + 1, 3 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
#else
    return PyObject_CallFunctionObjArgs(floor.fn, floor.drv, floor.tag, value, nullptr);
#endif
}

void Call(const SFloor& floor, const uint8_t* pFrame) {
    int32_t nValue;
    std::memcpy(&nValue, pFrame + 4, sizeof nValue);
    PyObject* value = PyLong_FromLong(nValue);
    PyObject* result = nullptr;
    if (value) result = floor.drv ? CallWithCached(floor, value) : CallWithTuple(floor, value);
    Py_XDECREF(value);
    if (!result) PyErr_WriteUnraisable(floor.fn);
    Py_XDECREF(result);
}

void Run(SFloor& floor, PyInterpreterState* interpreter) {
    PyThreadState* state = PyThreadState_New(interpreter);
    for (long nDone = 0; nDone < floor.nCount;) {
        uint8_t chunk[kMaxChunkBytes];
        const size_t nRoom = static_cast<size_t>(floor.nChunkBytes);
        const long nFrames = static_cast<long>(recv(floor.hSocket, chunk, nRoom, 0)) / kFrameBytes;
        if (nFrames <= 0) break;
        PyEval_RestoreThread(state);
        for (long i = 0; i < nFrames; ++i) Call(floor, chunk + kFrameBytes * i);
        PyEval_SaveThread();
        nDone += nFrames;
    }
    PyEval_RestoreThread(state);
    PyThreadState_Clear(state);
    PyThreadState_DeleteCurrent();
}

PyObject* Start(PyObject* /*self*/, PyObject* args) {
    SFloor& floor = Floor();
    PyObject* fn;
    const char* szDriver;
    const char* szTag;
    long nCount;
    long nBytes;
    int hSocket;
    int bCached;
    if (!PyArg_ParseTuple(args, "Ossllip", &fn, &szDriver, &szTag, &nCount, &nBytes, &hSocket,
                          &bCached)) {
        return nullptr;
    }
    if (floor.fn || !PyCallable_Check(fn) || nBytes < kFrameBytes || nBytes > kMaxChunkBytes) {
        PyErr_SetString(PyExc_ValueError, "no callable, no such chunk, or no join before");
        return nullptr;
    }
    if (bCached) {
        floor.drv = PyUnicode_FromString(szDriver);
        floor.tag = PyUnicode_FromString(szTag);
        if (!floor.drv || !floor.tag) return nullptr;
    }
    try {
        floor.strDriver = szDriver;
        floor.strTag = szTag;
        floor.nCount = nCount;
        floor.nChunkBytes = nBytes;
        floor.hSocket = hSocket;
        floor.thread = std::thread(Run, std::ref(floor), PyInterpreterState_Get());
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
        return nullptr;
    }
    Py_INCREF(fn);  // in time: the thread needs the lock that we hold before it calls
    floor.fn = fn;
    Py_RETURN_NONE;
}

PyObject* Join(PyObject* /*self*/, PyObject* /*args*/) {
    SFloor& floor = Floor();
    if (!floor.fn) {
        PyErr_SetString(PyExc_ValueError, "no thread was started");
        return nullptr;
    }
    Py_BEGIN_ALLOW_THREADS floor.thread.join();
    Py_END_ALLOW_THREADS Py_CLEAR(floor.fn);
    Py_CLEAR(floor.drv);
    Py_CLEAR(floor.tag);
    Py_RETURN_NONE;
}

PyMethodDef methods[] = {
    {"start", Start, METH_VARARGS, "start(function, driver, tag, count, bytes, socket, cached)"},
    {"join", Join, METH_NOARGS, "join()"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module = {PyModuleDef_HEAD_INIT, "delivery", nullptr, -1, methods};

}  // namespace

PyMODINIT_FUNC PyInit_delivery() { return PyModule_Create(&module); }
