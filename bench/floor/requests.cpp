// The least that an extension can do to have a script read and write: the same bytes as the module,
// the same objects, and nothing kept.
//
//   use(socket, request)    what the methods below send, and where; a descriptor and bytes
//   read(text)              sends it, receives a reply to a read, gives its value or list of values
//   read_kept(text)         the same of tags 0, 1, 2, ... when their values are kept, see below
//   write(text, value)      sends it, gives 0
//   parse(text)             gives an int
//   build(count)            gives a list of ints
//   exchange(requests, lengths)
//                           sends each request, and receives so many bytes after each
//
// Methods that take a text have it parsed as the module has, and do not look at it. A module of its
// own.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

constexpr size_t kMaxRequest = 4096;
constexpr size_t kMaxReply = 65536;
constexpr size_t kHeader = 4;
constexpr unsigned kCodeI4 = 3;
constexpr long kFirstInt = 100000;  // the least of the integers that the server has

// Of the script's thread.
struct SUse {
    int hSocket = -1;
    char request[kMaxRequest];
    size_t nRequest = 0;
};

SUse s_use;
uint8_t s_reply[kMaxReply];

PyObject* Failed(const char* szWhat) {
    PyErr_SetString(PyExc_OSError, szWhat);
    return nullptr;
}

unsigned ReadU16(const uint8_t* p) { return p[0] | static_cast<unsigned>(p[1]) << 8; }

bool SendRequest() {
    return send(s_use.hSocket, s_use.request, s_use.nRequest, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(s_use.nRequest);
}

// Receives a reply with as few calls as its bytes allow: chunks of 'H', 1 when another one follows,
// length (2), values. Gives its length, 0 on failure.
size_t ReceiveReply() {
    size_t nHave = 0;
    size_t nChunk = 0;  // where the last chunk that was met begins
    for (;;) {
        const ssize_t n = recv(s_use.hSocket, s_reply + nHave, sizeof s_reply - nHave, 0);
        if (n <= 0) return 0;
        nHave += static_cast<size_t>(n);
        while (nHave >= nChunk + kHeader) {
            const size_t nEnd = nChunk + kHeader + ReadU16(s_reply + nChunk + 2);
            if (nHave < nEnd) break;
            if (s_reply[nChunk + 1] != 1) return nEnd;
            nChunk = nEnd;
        }
    }
}

// The object of a value with its type code, and how many bytes it took.
PyObject* ValueAt(const uint8_t* p, size_t& nUsed) {
    if (ReadU16(p) == kCodeI4) {
        int32_t n;
        std::memcpy(&n, p + 2, sizeof n);
        nUsed = 2 + sizeof n;
        return PyLong_FromLong(n);
    }
    double d;
    std::memcpy(&d, p + 2, sizeof d);
    nUsed = 2 + sizeof d;
    return PyFloat_FromDouble(d);
}

PyObject* ListOfReply(Py_ssize_t nValues, size_t nReply) {
    PyObject* list = PyList_New(nValues);
    Py_ssize_t nDone = 0;
    for (size_t nAt = 0; list && nAt < nReply;) {
        const size_t nEnd = nAt + kHeader + ReadU16(s_reply + nAt + 2);
        for (nAt += kHeader; nAt < nEnd && nDone < nValues;) {
            size_t nUsed;
            PyObject* value = ValueAt(s_reply + nAt, nUsed);
            if (!value) {
                Py_DECREF(list);
                return nullptr;
            }
            PyList_SET_ITEM(list, nDone++, value);
            nAt += nUsed;
        }
    }
    return list;
}

// What has to be kept of a tag, as its last value is read from memory and its type is needed for
// its changes: as large as the module's record, whose name and text are not used here.
struct SRecord {
    uint16_t nCode = 0;
    uint64_t nPayload = 0;
    char szName[32] = "";
    uint16_t nId = 0;
    bool bSubscribed = false;  // then the server is not asked
};
static_assert(sizeof(SRecord) == 56, "as large as the module's");

std::vector<SRecord> s_records;
std::mutex s_recordsLock;  // a receive thread writes them too

// The request of the first nTags tags that are not subscribed.
void BuildRequest(size_t nTags) {
    size_t nAt = 3;
    for (size_t i = 0; i < nTags; ++i) {
        if (s_records[i].bSubscribed) continue;
        const uint16_t item[2] = {0, s_records[i].nId};
        std::memcpy(s_use.request + nAt, item, sizeof item);
        nAt += sizeof item;
    }
    s_use.nRequest = nAt;
}

// Puts the values of a reply into the records.
void KeepReply(size_t nTags, size_t nReply) {
    std::lock_guard<std::mutex> guard(s_recordsLock);
    size_t nTag = 0;
    for (size_t nAt = 0; nAt < nReply;) {
        const size_t nEnd = nAt + kHeader + ReadU16(s_reply + nAt + 2);
        for (nAt += kHeader; nAt < nEnd && nTag < nTags; ++nTag) {
            SRecord& record = s_records[nTag];
            record.nCode = static_cast<uint16_t>(ReadU16(s_reply + nAt));
            const size_t nSize = record.nCode == kCodeI4 ? 4 : 8;
            record.nPayload = 0;
            std::memcpy(&record.nPayload, s_reply + nAt + 2, nSize);
            nAt += 2 + nSize;
        }
    }
}

PyObject* ObjectOf(unsigned nCode, uint64_t nPayload) {
    if (nCode == kCodeI4) return PyLong_FromLong(static_cast<int32_t>(nPayload));
    double d;
    std::memcpy(&d, &nPayload, sizeof d);
    return PyFloat_FromDouble(d);
}

// Reads, keeps, and makes a list of what is kept. Objects are made of copies: the lock of the
// records must not be held while one is made, which may run any code of the script.
PyObject* ReadKept(PyObject* /*self*/, PyObject* args) {
    const char* szText;
    if (!PyArg_ParseTuple(args, "s", &szText)) return nullptr;
    const size_t nTags = ReadU16(reinterpret_cast<const uint8_t*>(s_use.request) + 1);
    while (s_records.size() < nTags) {
        s_records.emplace_back();
        s_records.back().nId = static_cast<uint16_t>(s_records.size() - 1);
    }
    BuildRequest(nTags);
    if (!SendRequest()) return Failed("send");
    const size_t nReply = ReceiveReply();
    if (!nReply) return Failed("recv");
    KeepReply(nTags, nReply);
    struct SCopy {
        unsigned nCode;
        uint64_t nPayload;
    };
    std::vector<SCopy> copies;
    copies.reserve(nTags);
    {
        std::lock_guard<std::mutex> guard(s_recordsLock);
        for (size_t i = 0; i < nTags; ++i) {
            copies.push_back({s_records[i].nCode, s_records[i].nPayload});
        }
    }
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(nTags));
    for (size_t i = 0; list && i < nTags; ++i) {
        PyObject* value = ObjectOf(copies[i].nCode, copies[i].nPayload);
        if (!value) {
            Py_CLEAR(list);
            break;
        }
        PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), value);
    }
    return list;
}

PyObject* Use(PyObject* /*self*/, PyObject* args) {
    const char* szRequest;
    Py_ssize_t nRequest;
    if (!PyArg_ParseTuple(args, "iy#", &s_use.hSocket, &szRequest, &nRequest)) return nullptr;
    if (static_cast<size_t>(nRequest) > kMaxRequest) return Failed("request too long");
    std::memcpy(s_use.request, szRequest, static_cast<size_t>(nRequest));
    s_use.nRequest = static_cast<size_t>(nRequest);
    Py_RETURN_NONE;
}

PyObject* Read(PyObject* /*self*/, PyObject* args) {
    const char* szText;
    if (!PyArg_ParseTuple(args, "s", &szText)) return nullptr;
    if (!SendRequest()) return Failed("send");
    const size_t nReply = ReceiveReply();
    if (!nReply) return Failed("recv");
    const unsigned nValues = ReadU16(reinterpret_cast<const uint8_t*>(s_use.request) + 1);
    size_t nUsed;
    if (nValues == 1) return ValueAt(s_reply + kHeader, nUsed);
    return ListOfReply(static_cast<Py_ssize_t>(nValues), nReply);
}

PyObject* Write(PyObject* /*self*/, PyObject* args) {
    const char* szText;
    PyObject* value;
    if (!PyArg_ParseTuple(args, "sO", &szText, &value)) return nullptr;
    if (!SendRequest()) return Failed("send");
    return PyLong_FromLong(0);
}

PyObject* Parse(PyObject* /*self*/, PyObject* args) {
    const char* szText;
    if (!PyArg_ParseTuple(args, "s", &szText)) return nullptr;
    return PyLong_FromLong(kFirstInt);
}

PyObject* Build(PyObject* /*self*/, PyObject* args) {
    Py_ssize_t nCount;
    if (!PyArg_ParseTuple(args, "n", &nCount)) return nullptr;
    PyObject* list = PyList_New(nCount);
    for (Py_ssize_t i = 0; list && i < nCount; ++i) {
        PyObject* value = PyLong_FromLong(kFirstInt + static_cast<long>(i));
        if (!value) {
            Py_DECREF(list);
            return nullptr;
        }
        PyList_SET_ITEM(list, i, value);
    }
    return list;
}

bool ReceiveAll(size_t nReply) {
    if (nReply > sizeof s_reply) return false;
    for (size_t nHave = 0; nHave < nReply;) {
        const ssize_t n = recv(s_use.hSocket, s_reply + nHave, nReply - nHave, 0);
        if (n <= 0) return false;
        nHave += static_cast<size_t>(n);
    }
    return true;
}

PyObject* Exchange(PyObject* /*self*/, PyObject* args) {
    PyObject* requests;
    PyObject* lengths;
    if (!PyArg_ParseTuple(args, "O!O!", &PyList_Type, &requests, &PyList_Type, &lengths)) {
        return nullptr;
    }
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(requests) && i < PyList_GET_SIZE(lengths); ++i) {
        char* sz;
        Py_ssize_t n;
        if (PyBytes_AsStringAndSize(PyList_GET_ITEM(requests, i), &sz, &n) != 0) return nullptr;
        const size_t nReply = PyLong_AsSize_t(PyList_GET_ITEM(lengths, i));
        if (PyErr_Occurred()) return nullptr;
        if (send(s_use.hSocket, sz, static_cast<size_t>(n), MSG_NOSIGNAL) != n)
            return Failed("send");
        if (!ReceiveAll(nReply)) return Failed("recv");
    }
    Py_RETURN_NONE;
}

PyMethodDef methods[] = {
    {"use", Use, METH_VARARGS, "use(socket, request)"},
    {"read", Read, METH_VARARGS, "read(text) -> value or list of values"},
    {"read_kept", ReadKept, METH_VARARGS, "read_kept(text) -> list of values"},
    {"write", Write, METH_VARARGS, "write(text, value) -> 0"},
    {"parse", Parse, METH_VARARGS, "parse(text) -> int"},
    {"build", Build, METH_VARARGS, "build(count) -> list of ints"},
    {"exchange", Exchange, METH_VARARGS, "exchange(requests, lengths)"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module = {PyModuleDef_HEAD_INIT, "requests", nullptr, -1, methods};

}  // namespace

PyMODINIT_FUNC PyInit_requests() { return PyModule_Create(&module); }
