// An interpreter for the whole test program, and short words for what tests do with it.
#pragma once

#include <Python.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>

// Starts the interpreter once. The test thread holds its lock, as a script would; threads of the
// library get it while the test is in WaitFor or Unlocked. It is never finalized.
class CPythonEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (Py_IsInitialized()) return;
        Py_InitializeEx(0);
        ASSERT_EQ(PyRun_SimpleString("import sys, datetime\n"), 0);
    }
};

inline ::testing::Environment* const kPythonEnvironment =
    ::testing::AddGlobalTestEnvironment(new CPythonEnvironment);

// An owned reference.
class CPyRef {
  public:
    explicit CPyRef(PyObject* p) : m_p(p) {}
    ~CPyRef() { Py_XDECREF(m_p); }
    CPyRef(const CPyRef&) = delete;
    CPyRef& operator=(const CPyRef&) = delete;
    operator PyObject*() const { return m_p; }
    PyObject* Get() const { return m_p; }

  private:
    PyObject* m_p;
};

inline PyObject* ScriptGlobals() { return PyModule_GetDict(PyImport_AddModule("__main__")); }

// Runs lines of a script.
inline void RunScript(const char* szLines) { ASSERT_EQ(PyRun_SimpleString(szLines), 0); }

// The object of an expression; a new reference.
inline PyObject* Eval(const std::string& strExpression) {
    PyObject* obj =
        PyRun_String(strExpression.c_str(), Py_eval_input, ScriptGlobals(), ScriptGlobals());
    if (!obj) PyErr_Print();
    EXPECT_NE(obj, nullptr) << strExpression;
    return obj;
}

// repr() of an object; "NULL" for none. Takes the reference over.
inline std::string ReprOf(PyObject* obj) {
    CPyRef ref(obj);
    if (!obj) return "NULL";
    CPyRef repr(PyObject_Repr(obj));
    const char* sz = repr ? PyUnicode_AsUTF8(repr) : nullptr;
    if (sz) return sz;
    PyErr_Clear();
    return "(no repr)";
}

inline std::string Repr(const std::string& strExpression) { return ReprOf(Eval(strExpression)); }

// The name of the error that is set, which is cleared; "" when there is none.
inline std::string TakeError() {
    PyObject* type = PyErr_Occurred();
    if (!type) return "";
    const std::string strName = static_cast<PyTypeObject*>(static_cast<void*>(type))->tp_name;
    PyErr_Clear();
    return strName;
}

// Calls fn with the interpreter lock given up.
template <class TFunction>
void Unlocked(TFunction fn) {
    PyThreadState* state = PyEval_SaveThread();
    fn();
    PyEval_RestoreThread(state);
}

// Waits, with the interpreter lock given up, until fn, which is called with the lock, says true.
template <class TCondition>
bool WaitFor(TCondition fn, int nMs = 20000) {
    for (int i = 0; i < nMs; ++i) {
        if (fn()) return true;
        Unlocked([] { usleep(1000); });
    }
    return fn();
}

// A script function that notes its calls in the list `calls`.
inline PyObject* NotingFunction() {
    RunScript("calls = []\ndef note(*args): calls.append(args)\n");
    return PyDict_GetItemString(ScriptGlobals(), "note");
}
