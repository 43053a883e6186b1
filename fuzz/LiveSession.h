// One logged-in session with the whole library behind it, made at the first use and kept.
#pragma once

#include <Python.h>

#include <string>

#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"

// Starts the interpreter once, its memory under the sanitizer's eyes. The calling thread holds the
// interpreter lock from then on.
void StartInterpreter();

// A script function that counts its calls; borrowed.
PyObject* CountingFunction();
// Calls made since the last question.
unsigned TakeCalls();

// A host text of this process's own, and the cache folder of a host text.
std::string FuzzHost();
std::string FuzzCacheFolder(std::string strHost);

// A session by way of a whole connect. Its drivers: "Types", id 0, 40 tags; "Never", id 1, which
// nobody has asked for; "\xB9\xF8\xC2\xAF", id 3, 6 tags.
class CLiveSession {
  public:
    static CLiveSession& Get();

    CDBCore* core;
    CDBDriver* types;
    CDBDriver* boiler;

    // Both drivers as they were at first: nothing resolved, subscribed or known.
    void Forget();

  private:
    CLiveSession();
};
