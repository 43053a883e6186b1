// All cores that script objects own: what has to be reached when the process forks or exits.
#pragma once

class CDBCore;

// Enters a core when its script object is made, and takes it out when that object goes.
// Thread-safe.
void RegisterCore(CDBCore* pCore);
void UnregisterCore(CDBCore* pCore);

// Ends every session and refuses new ones from now on. Waits for no thread.
// Threads: script thread, with the interpreter lock.
void EndAllSessions();
// Whether EndAllSessions has run. Thread-safe.
bool ProcessIsEnding();

// Receive threads alive in this process: counted from before one is created until it ends, and
// marked on the thread itself, so that a child that it forks counts right. Thread-safe.
void ReceiveThreadStarts();
void ReceiveThreadRuns();
void ReceiveThreadEnds();
int ReceiveThreads();
