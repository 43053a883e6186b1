// Values as scripts of the package vzclient see them, and as a write sends them.
#pragma once

#include <Python.h>

#include <cstdint>
#include <string>

#include "ByteCursor.h"
#include "nonwin/XVariant.h"

// All of them need the interpreter lock. New references; null with an error set.

// Loads the interpreter's datetime interface; false with an error set. Before all others.
bool LoadDateTimes();

// The aware datetime, in local time, of microseconds since 1970 UTC.
PyObject* TimeToPy(int64_t nTimeUs);

// A value of the wire: whole numbers as int, by their width and sign; reals as float; bool; str of
// text that is UTF-8 or else GB2312 (what is neither gets replacement characters); an aware
// datetime in local time of a date (a float, its days, when no datetime can hold it); None for a
// tag without a value and for types that carry none.
PyObject* ValueToPy(const XVariant& value);
// The same of the value with type code that the reader is at. The reader has been checked.
PyObject* TakeValue(CByteReader& reader);

// Encodes obj, with type code, for a tag of type vt, at the end of strBytes. True when done. False
// with an error set when something failed, and without one when the tag cannot take the value:
// szWhy then says why. Only the codes 3, 5, 8 and 11 are sent, and only what they hold exactly. For
// a tag whose type tells nothing, obj's own type chooses.
bool EncodeFor(VARTYPE vt, PyObject* obj, std::string& strBytes, const char*& szWhy);
