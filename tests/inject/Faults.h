// Faults on order: the n-th call of a function that the library uses fails.
#pragma once

#include <cstddef>

// The functions that can fail, each in one way. The names are those of kFaultNames.
enum class EFault {
    kNew,
    kSocket,
    kSetsockopt,
    kConnect,
    kSend,
    kSendInterrupted,
    kSendShort,
    kRecv,
    kRecvInterrupted,
    kRecvShort,
    kRecvNothing,
    kOpen,
    kOpenat,
    kMkdirat,
    kChmod,
    kFchmod,
    kFstat,
    kFstatat,
    kFtruncate,
    kFutimens,
    kFlock,
    kLseek,
    kUnlinkat,
    kRead,
    kReadShort,
    kWrite,
    kWriteShort,
    kWriteInterrupted,
    kFcntl,
    kPthreadCreate,
    kPthreadAttrInit,
    kSemInit,
    kIconvOpen,
    kIconv,
    kGethostname,
    kCount
};

constexpr const char* kFaultNames[] = {"operator new",
                                       "socket",
                                       "setsockopt",
                                       "connect",
                                       "send",
                                       "send EINTR",
                                       "send short",
                                       "recv",
                                       "recv EINTR",
                                       "recv short",
                                       "recv nothing",
                                       "open",
                                       "openat",
                                       "mkdirat",
                                       "chmod",
                                       "fchmod",
                                       "fstat",
                                       "fstatat",
                                       "ftruncate",
                                       "futimens",
                                       "flock",
                                       "lseek",
                                       "unlinkat",
                                       "read",
                                       "read short",
                                       "write",
                                       "write short",
                                       "write EINTR",
                                       "fcntl",
                                       "pthread_create",
                                       "pthread_attr_init",
                                       "sem_init",
                                       "iconv_open",
                                       "iconv",
                                       "gethostname"};
static_assert(sizeof kFaultNames / sizeof *kFaultNames == static_cast<size_t>(EFault::kCount));

// Whose calls count: those of the thread that calls the library, or of threads that the library
// starts. No other thread's ever do.
enum class EWho { kNobody, kCaller, kReceiver };

// While it lives, this thread is the one that calls the library.
class CCalling {
  public:
    CCalling();
    ~CCalling();
    CCalling(const CCalling&) = delete;
    CCalling& operator=(const CCalling&) = delete;
};
// The nth call (from 1) of a function by eWho fails, once. Disarm tells whether it came to that.
void Arm(EFault eFault, int nth, EWho eWho);
bool Disarm();
