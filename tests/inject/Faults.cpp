#include "Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <iconv.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>

namespace {

std::atomic<EWho> g_eWho{EWho::kNobody};
std::atomic<EFault> g_eFault{EFault::kCount};
std::atomic<int> g_nLeft{0};
thread_local EWho t_eWho = EWho::kNobody;

// Whether this call is the one to fail. nErrno is then the reason.
bool Fails(EFault eFault, int nErrno = 0) {
    if (t_eWho == EWho::kNobody || g_eWho != t_eWho || g_eFault != eFault) return false;
    if (--g_nLeft != 0) return false;
    if (nErrno) errno = nErrno;
    return true;
}

struct SStart {
    void* (*fn)(void*);
    void* arg;
};

void* RunReceiver(void* p) {
    const SStart start = *static_cast<SStart*>(p);
    std::free(p);
    t_eWho = EWho::kReceiver;
    return start.fn(start.arg);
}

}  // namespace

CCalling::CCalling() { t_eWho = EWho::kCaller; }
CCalling::~CCalling() { t_eWho = EWho::kNobody; }

void Arm(EFault eFault, int nth, EWho eWho) {
    g_eFault = eFault;
    g_nLeft = nth;
    g_eWho = eWho;
}

bool Disarm() {
    g_eWho = EWho::kNobody;
    return g_nLeft <= 0;
}

// ---- Memory -------------------------------------------------------------------------------------

void* operator new(size_t n) {
    void* p = Fails(EFault::kNew) ? nullptr : std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

// ---- The system ---------------------------------------------------------------------------------

extern "C" {

// WRAP(fault, errno, result, name, parameters, arguments): a function that fails with -1.
#define WRAP(eFault, nErrno, TResult, Name, params, args) \
    TResult __real_##Name params;                         \
    TResult __wrap_##Name params { return Fails(EFault::eFault, nErrno) ? -1 : __real_##Name args; }

WRAP(kSocket, EMFILE, int, socket, (int a, int b, int c), (a, b, c))
WRAP(kConnect, ECONNREFUSED, int, connect, (int h, const sockaddr* p, socklen_t n), (h, p, n))
WRAP(kMkdirat, ENOSPC, int, mkdirat, (int h, const char* sz, mode_t n), (h, sz, n))
WRAP(kChmod, EPERM, int, chmod, (const char* sz, mode_t n), (sz, n))
WRAP(kFchmod, EPERM, int, fchmod, (int h, mode_t n), (h, n))
WRAP(kFstat, EIO, int, fstat64, (int h, struct stat* p), (h, p))
WRAP(kFstatat, EIO, int, fstatat64, (int h, const char* sz, struct stat* p, int n), (h, sz, p, n))
WRAP(kFtruncate, EIO, int, ftruncate64, (int h, off_t n), (h, n))
WRAP(kFutimens, EPERM, int, futimens, (int h, const timespec* p), (h, p))
WRAP(kFlock, ENOLCK, int, flock, (int h, int n), (h, n))
WRAP(kLseek, EIO, off_t, lseek64, (int h, off_t n, int nFrom), (h, n, nFrom))
WRAP(kUnlinkat, EROFS, int, unlinkat, (int h, const char* sz, int n), (h, sz, n))
WRAP(kSemInit, ENOSYS, int, sem_init, (sem_t * p, int n, unsigned nValue), (p, n, nValue))
WRAP(kGethostname, ENAMETOOLONG, int, gethostname, (char* sz, size_t n), (sz, n))

// Time limits of whole seconds become one second: some faults leave the library waiting for bytes
// that a server cannot know of.
int __real_setsockopt(int h, int nLevel, int nOption, const void* p, socklen_t n);
int __wrap_setsockopt(int h, int nLevel, int nOption, const void* p, socklen_t n) {
    if (Fails(EFault::kSetsockopt, ENOMEM)) return -1;
    if (nLevel == SOL_SOCKET && nOption == SO_RCVTIMEO && n == sizeof(timeval)) {
        timeval tv = *static_cast<const timeval*>(p);
        if (tv.tv_sec > 1 && tv.tv_sec < 60) tv.tv_sec = 1;
        return __real_setsockopt(h, nLevel, nOption, &tv, n);
    }
    return __real_setsockopt(h, nLevel, nOption, p, n);
}

ssize_t __real_send(int h, const void* p, size_t n, int nFlags);
ssize_t __wrap_send(int h, const void* p, size_t n, int nFlags) {
    if (Fails(EFault::kSend, ECONNRESET) || Fails(EFault::kSendInterrupted, EINTR)) return -1;
    return __real_send(h, p, Fails(EFault::kSendShort) ? (n + 1) / 2 : n, nFlags);
}

ssize_t __real_recv(int h, void* p, size_t n, int nFlags);
ssize_t __wrap_recv(int h, void* p, size_t n, int nFlags) {
    if (Fails(EFault::kRecv, ECONNRESET) || Fails(EFault::kRecvInterrupted, EINTR)) return -1;
    if (Fails(EFault::kRecvNothing)) return 0;
    return __real_recv(h, p, Fails(EFault::kRecvShort) ? 1 : n, nFlags);
}

ssize_t __real_read(int h, void* p, size_t n);
ssize_t __wrap_read(int h, void* p, size_t n) {
    if (Fails(EFault::kRead, EIO)) return -1;
    return __real_read(h, p, Fails(EFault::kReadShort) ? (n + 1) / 2 : n);
}

ssize_t __real_write(int h, const void* p, size_t n);
ssize_t __wrap_write(int h, const void* p, size_t n) {
    if (Fails(EFault::kWrite, ENOSPC) || Fails(EFault::kWriteInterrupted, EINTR)) return -1;
    return __real_write(h, p, Fails(EFault::kWriteShort) ? (n + 1) / 2 : n);
}

int __real_open64(const char* sz, int nFlags, ...);
int __wrap_open64(const char* sz, int nFlags, ...) {
    va_list list;
    va_start(list, nFlags);
    const mode_t nMode = nFlags & O_CREAT ? va_arg(list, mode_t) : 0;
    va_end(list);
    return Fails(EFault::kOpen, EMFILE) ? -1 : __real_open64(sz, nFlags, nMode);
}

int __real_openat64(int h, const char* sz, int nFlags, ...);
int __wrap_openat64(int h, const char* sz, int nFlags, ...) {
    va_list list;
    va_start(list, nFlags);
    const mode_t nMode = nFlags & O_CREAT ? va_arg(list, mode_t) : 0;
    va_end(list);
    return Fails(EFault::kOpenat, EMFILE) ? -1 : __real_openat64(h, sz, nFlags, nMode);
}

int __real_fcntl64(int h, int nCommand, ...);
int __wrap_fcntl64(int h, int nCommand, ...) {
    va_list list;
    va_start(list, nCommand);
    const int n = va_arg(list, int);
    va_end(list);
    return Fails(EFault::kFcntl, EMFILE) ? -1 : __real_fcntl64(h, nCommand, n);
}

// By its own name and not by the linker: threads that the standard library starts come here too.
int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*fn)(void*),
                   void* arg) noexcept {
    using FCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto fnReal = reinterpret_cast<FCreate>(dlsym(RTLD_NEXT, "pthread_create"));
    if (Fails(EFault::kPthreadCreate)) return EAGAIN;
    if (t_eWho == EWho::kNobody) return fnReal(pThread, pAttr, fn, arg);
    SStart* pStart = static_cast<SStart*>(std::malloc(sizeof(SStart)));
    *pStart = {fn, arg};
    const int nError = fnReal(pThread, pAttr, RunReceiver, pStart);
    if (nError != 0) std::free(pStart);
    return nError;
}

int __real_pthread_attr_init(pthread_attr_t* p);
int __wrap_pthread_attr_init(pthread_attr_t* p) {
    return Fails(EFault::kPthreadAttrInit) ? ENOMEM : __real_pthread_attr_init(p);
}

iconv_t __real_iconv_open(const char* szTo, const char* szFrom);
iconv_t __wrap_iconv_open(const char* szTo, const char* szFrom) {
    if (Fails(EFault::kIconvOpen, EMFILE)) return reinterpret_cast<iconv_t>(-1);
    return __real_iconv_open(szTo, szFrom);
}

size_t __real_iconv(iconv_t cd, char** pIn, size_t* nIn, char** pOut, size_t* nOut);
size_t __wrap_iconv(iconv_t cd, char** pIn, size_t* nIn, char** pOut, size_t* nOut) {
    if (Fails(EFault::kIconv, EILSEQ)) return static_cast<size_t>(-1);
    return __real_iconv(cd, pIn, nIn, pOut, nOut);
}

// The library's fixed pauses, which only cost time here, are cut.
int __real_usleep(useconds_t n);
int __wrap_usleep(useconds_t n) { return __real_usleep(n > 5000 ? n / 20 : n); }

// The lines that failed conversions print would bury everything else.
void __wrap_perror(const char*) {}

}  // extern "C"
