// The list files of alarm texts and alarm tag names.
#pragma once

#include <vector>

#include "nonwin/cstring.h"

// Bytes of a list file's line; what a longer one has beyond them is dropped.
constexpr size_t kMaxListLine = 255;
// Lines that an index of 16 bits can name; what follows them is not read.
constexpr size_t kMaxListLines = 65536;

// Fills an empty list with the lines of a list file, as UTF-8. szStrListPath: path, GB2312. Lines
// end with LF, one CR before it is dropped; the last line may lack its LF. Empty lines take no
// index. A line is cut at kMaxListLine bytes, at a character's end. A list that is not empty, or a
// file that cannot be opened, changes nothing.
void InitStringList(const char* szStrListPath, std::vector<CString>& strList);
