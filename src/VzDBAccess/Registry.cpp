#include "VzDBAccess/Registry.h"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <set>

#include "VzDBAccess/DBCore.h"

namespace {

struct SRegistry {
    std::mutex lock;  // guards cores; taken before the locks of any core
    std::set<CDBCore*> cores;
    std::atomic<bool> bEnding{false};
    std::atomic<int> nThreads{0};
};

thread_local bool t_bReceiveThread = false;

// Never destroyed: receive threads may outlive the destruction of statics.
SRegistry& Registry() {
    static SRegistry& registry = *new SRegistry;
    return registry;
}

// A fork copies the locks of all threads but only the forking thread. So it waits until no thread
// is inside a lock of ours, and the child finds everything whole and free.
void BeforeFork() {
    Registry().lock.lock();
    for (CDBCore* pCore : Registry().cores) pCore->LockForFork();
}

void AfterForkInParent() {
    for (CDBCore* pCore : Registry().cores) pCore->UnlockAfterFork();
    Registry().lock.unlock();
}

void AfterForkInChild() {
    Registry().nThreads = t_bReceiveThread ? 1 : 0;  // only the forking thread is left
    for (CDBCore* pCore : Registry().cores) {
        pCore->ForkedChild();
        pCore->UnlockAfterFork();
    }
    Registry().lock.unlock();
}

}  // namespace

void RegisterCore(CDBCore* pCore) {
    static const int nHandlers = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
    (void)nHandlers;
    std::lock_guard<std::mutex> guard(Registry().lock);
    Registry().cores.insert(pCore);
}

void UnregisterCore(CDBCore* pCore) {
    std::lock_guard<std::mutex> guard(Registry().lock);
    Registry().cores.erase(pCore);
}

void EndAllSessions() {
    Registry().bEnding = true;
    std::lock_guard<std::mutex> guard(Registry().lock);
    for (CDBCore* pCore : Registry().cores) pCore->EndWithoutWaiting();
}

bool ProcessIsEnding() { return Registry().bEnding; }

void ReceiveThreadStarts() { ++Registry().nThreads; }
void ReceiveThreadRuns() { t_bReceiveThread = true; }
void ReceiveThreadEnds() { --Registry().nThreads; }
int ReceiveThreads() { return Registry().nThreads; }
