// The least that a thread can do to have a script function called as changes of a tag have it. A
// module of its own.
//
//   floor.start(function, driver, tag, count, chunk, socket)
//       starts a thread that calls function(driver, tag, value) for the values 1 to count, and
//       takes the interpreter lock once for each chunk of calls; one thread at a time. When socket,
//       a descriptor, is not -1 the values are those of changes that it receives from there, at
//       most a chunk in one receive.
//   floor.join()
//       waits until the thread is done, and gives its CPU time (user and system) in seconds

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <string>
#include <thread>

namespace {

constexpr long kFrameBytes = 8;  // driver id (2), tag id (2), value (4)
constexpr long kMaxChunk = 256;

// Owned by the script's thread between start and join, but for what Run() writes.
struct SFloor {
    PyObject* fn = nullptr;  // owned
    std::string strDriver;
    std::string strTag;
    long nCount = 0;
    long nChunk = 0;
    int hSocket = -1;
    double dCpu = 0;
    std::thread thread;
};

SFloor& Floor() {
    static SFloor& floor = *new SFloor;  // never destroyed: its thread may outlive the script
    return floor;
}

double ThreadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

void Call(const SFloor& floor, long nValue) {
    PyObject* value = PyLong_FromLong(nValue);
    PyObject* args =
        value ? Py_BuildValue("(ssO)", floor.strDriver.c_str(), floor.strTag.c_str(), value)
              : nullptr;
    Py_XDECREF(value);
    PyObject* result = args ? PyObject_CallObject(floor.fn, args) : nullptr;
    Py_XDECREF(args);
    if (!result) PyErr_WriteUnraisable(floor.fn);
    Py_XDECREF(result);
}

// Receives values; gives how many, 0 or less when the connection ended.
long ReceiveValues(const SFloor& floor, long (&values)[kMaxChunk]) {
    uint8_t chunk[kMaxChunk * kFrameBytes];
    const size_t nRoom = static_cast<size_t>(floor.nChunk * kFrameBytes);
    const long nValues = static_cast<long>(recv(floor.hSocket, chunk, nRoom, 0)) / kFrameBytes;
    for (long i = 0; i < nValues; ++i) {
        int32_t nValue;
        std::memcpy(&nValue, chunk + kFrameBytes * i + 4, sizeof nValue);
        values[i] = nValue;
    }
    return nValues;
}

// The values after nDone; gives how many, 0 when there are no more.
long MakeValues(const SFloor& floor, long nDone, long (&values)[kMaxChunk]) {
    const long nValues = std::min(floor.nChunk, floor.nCount - nDone);
    for (long i = 0; i < nValues; ++i) values[i] = nDone + i + 1;
    return nValues;
}

void Run(SFloor& floor, PyInterpreterState* interpreter) {
    PyThreadState* state = PyThreadState_New(interpreter);
    const double dCpu = ThreadCpuSeconds();
    long values[kMaxChunk];
    for (long nDone = 0; nDone < floor.nCount;) {
        const long nValues =
            floor.hSocket < 0 ? MakeValues(floor, nDone, values) : ReceiveValues(floor, values);
        if (nValues <= 0) break;
        PyEval_RestoreThread(state);
        for (long i = 0; i < nValues; ++i) Call(floor, values[i]);
        PyEval_SaveThread();
        nDone += nValues;
    }
    floor.dCpu = ThreadCpuSeconds() - dCpu;
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
    long nChunk;
    int hSocket;
    if (!PyArg_ParseTuple(args, "Osslli", &fn, &szDriver, &szTag, &nCount, &nChunk, &hSocket)) {
        return nullptr;
    }
    if (floor.fn || !PyCallable_Check(fn) || nChunk < 1 || nChunk > kMaxChunk) {
        PyErr_SetString(PyExc_ValueError, "no callable, no such chunk, or no join before");
        return nullptr;
    }
    try {
        floor.strDriver = szDriver;
        floor.strTag = szTag;
        floor.nCount = nCount;
        floor.nChunk = nChunk;
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
    return PyFloat_FromDouble(floor.dCpu);
}

PyMethodDef methods[] = {
    {"start", Start, METH_VARARGS, "start(function, driver, tag, count, chunk, socket)"},
    {"join", Join, METH_NOARGS, "join() -> CPU seconds of the thread"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module = {PyModuleDef_HEAD_INIT, "floor", nullptr, -1, methods};

}  // namespace

PyMODINIT_FUNC PyInit_floor() { return PyModule_Create(&module); }
