// The work whose instructions are counted: the module reads, writes and is told of changes, driven
// as a script drives it, but without a script. budget.py runs it under callgrind.
//
//   budget PORT      PORT: where a replay server listens
//
// Prints what the counts depend on besides the code: compiler and its options, C library,
// interpreter, and what the processor can do. Then, for each job, "JOB / RUNS" in a line, when its
// counts are dumped.

#include <Python.h>
#include <arpa/inet.h>
#include <gnu/libc-version.h>
#include <netinet/in.h>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" PyObject* PyInit_VzDBAccess();

namespace {

constexpr int kWarmUps = 20;  // caches are filled, the allocator has what it needs
constexpr int kRuns = 200;

[[noreturn]] void Fail(const char* szWhat) {
    std::fprintf(stderr, "budget: %s\n", szWhat);
    if (PyErr_Occurred()) PyErr_Print();
    std::exit(1);
}

PyObject* Must(PyObject* obj, const char* szWhat) {
    if (!obj) Fail(szWhat);
    return obj;
}

// What the processor can do, as far as compilers and the C library choose their code by it. Under
// valgrind this is what valgrind lets a program see.
std::string Features() {
    std::string strFeatures;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("sse4.2")) strFeatures += " sse4.2";
    if (__builtin_cpu_supports("avx")) strFeatures += " avx";
    if (__builtin_cpu_supports("avx2")) strFeatures += " avx2";
    if (__builtin_cpu_supports("bmi2")) strFeatures += " bmi2";
    if (__builtin_cpu_supports("avx512f")) strFeatures += " avx512f";
#else
    char szBits[64];
    std::snprintf(szBits, sizeof szBits, " %lx %lx", getauxval(AT_HWCAP), getauxval(AT_HWCAP2));
    strFeatures = szBits;
#endif
    return VZ_BUDGET_CPU + strFeatures;
}

void PrintKey() {
#ifdef __clang__
    const char* szCompiler = "";  // its version says its name
#else
    const char* szCompiler = "gcc ";
#endif
    std::printf("%s%s %s, glibc %s, python %d.%d.%d, %s\n", szCompiler, __VERSION__,
                VZ_BUDGET_OPTIONS, gnu_get_libc_version(), PY_MAJOR_VERSION, PY_MINOR_VERSION,
                PY_MICRO_VERSION, Features().c_str());
}

template <class TOperation>
void Count(const char* szJob, TOperation operation) {
    for (int i = 0; i < kWarmUps; ++i) operation();
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kRuns; ++i) operation();
    CALLGRIND_DUMP_STATS;
    std::printf("%s / %d\n", szJob, kRuns);
}

// Calls a method again and again with the same arguments, a new reference to a tuple.
void CountCalls(const char* szJob, PyObject* obj, const char* szMethod, PyObject* args) {
    PyObject* method = Must(PyObject_GetAttrString(obj, szMethod), szMethod);
    Must(args, "arguments");
    Count(szJob, [&] { Py_DECREF(Must(PyObject_CallObject(method, args), szJob)); });
    Py_DECREF(method);
    Py_DECREF(args);
}

// ---- Changes ------------------------------------------------------------------------------------

int s_told[2];  // a pipe: a byte for each change that a callable was told of

PyObject* OnChange(PyObject* /*self*/, PyObject* /*args*/) {
    if (write(s_told[1], "", 1) != 1) Fail("pipe");
    Py_RETURN_NONE;
}

PyMethodDef kOnChange = {"on_change", OnChange, METH_VARARGS, nullptr};

// A connection that orders changes from the server.
int OpenOrders(long nPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const sockaddr* pAddr = static_cast<const sockaddr*>(static_cast<const void*>(&addr));
    const int hSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (hSocket < 0 || connect(hSocket, pAddr, sizeof addr) != 0) Fail("connect");
    return hSocket;
}

// One change at a time: the next one is ordered when the callable was told of this one. So each
// comes in a chunk of its own, and nothing else of the module runs.
void CountDelivery(PyObject* driver, long nPort) {
    const int hOrders = OpenOrders(nPort);
    PyObject* fn = Must(PyCFunction_New(&kOnChange, nullptr), "callable");
    if (pipe(s_told) != 0) Fail("pipe");
    Py_DECREF(Must(PyObject_CallMethod(driver, "SetTagNotify", "O", fn), "SetTagNotify"));
    Py_DECREF(Must(PyObject_CallMethod(driver, "ConnectTag", "s", "t000000"), "ConnectTag"));
    // 'g', number of values (2), driver id (2), tag id (2), type code (2), value (4): one change.
    static const uint8_t kOrder[] = {'g', 1, 0, 0, 0, 0x00, 0xFA, 3, 0, 1, 0, 0, 0};
    Py_BEGIN_ALLOW_THREADS;
    Count("deliver 1 change", [&] {
        char c;
        if (send(hOrders, kOrder, sizeof kOrder, 0) != sizeof kOrder) Fail("order");
        if (read(s_told[0], &c, 1) != 1) Fail("pipe");
    });
    Py_END_ALLOW_THREADS;
    close(hOrders);  // the callable stays: the module has borrowed it
}

std::string Names(int nTags) {
    std::string strNames;
    char szName[16];
    for (int i = 0; i < nTags; ++i) {
        std::snprintf(szName, sizeof szName, "%st%06d", i ? "," : "", i);
        strNames += szName;
    }
    return strNames;
}

}  // namespace

int main(int argc, char** argv) {
    const long nPort = argc == 2 ? std::atol(argv[1]) : 0;
    if (nPort <= 0) Fail("usage: budget PORT");
    PyImport_AppendInittab("VzDBAccess", PyInit_VzDBAccess);
    Py_InitializeEx(0);
    PyRun_SimpleString("import gc\ngc.disable()\n");  // its turns would fall to any job
    PrintKey();

    PyObject* module = Must(PyImport_ImportModule("VzDBAccess"), "import");
    PyObject* db = Must(PyObject_CallMethod(module, "DBCore", nullptr), "DBCore");
    const std::string strHost = "127.0.0.1:" + std::to_string(nPort);
    PyObject* result =
        Must(PyObject_CallMethod(db, "Connect", "sss", strHost.c_str(), "user", "password"), "");
    if (PyLong_AsLong(result) != 0) Fail("Connect");
    PyObject* driver = Must(PyObject_CallMethod(db, "GetDriver", "s", "bench"), "GetDriver");

    CALLGRIND_START_INSTRUMENTATION;
    CountCalls("read 1 tag", driver, "GetTagValue", Py_BuildValue("(s)", Names(1).c_str()));
    CountCalls("read 100 tags", driver, "GetTagValue", Py_BuildValue("(s)", Names(100).c_str()));
    CountCalls("write 1 tag", driver, "SetTagValue", Py_BuildValue("(si)", Names(1).c_str(), 5));
    CountDelivery(driver, nPort);
    CALLGRIND_STOP_INSTRUMENTATION;

    Py_DECREF(driver);
    Py_DECREF(db);
    return Py_FinalizeEx() == 0 ? 0 : 1;
}
