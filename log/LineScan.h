// LineScan: the byte work of the read-back, which looks at every byte of a
// family of log files and so must go as fast as memory delivers them.
//
// Searches take many bytes at once where the processor has vector
// instructions (32 with AVX2, 16 with the SSE2 of every x86-64), and one at a
// time elsewhere; the answer is the same either way. Pure functions, safe on
// any thread.
#pragma once

#include <cstddef>

#include "host/Types.h"

namespace VEXIL {

// The position of the first byte of text[0, length) outside 0x20 to 0x7E,
// or length when every byte is printable.
size_t FindUnprintable(const char* text, size_t length);

// The first time of a log line in microseconds (column 31), when its role
// (column 3) is roleCharacter; 0 for a line of another role or without a
// time. The columns are told by the commas in line[0, scanned), scanned
// being the first byte that is not printable; the time is read as strtoll
// reads it, up to line[length].
i64 LineFirstTime(const char* line, size_t scanned, size_t length, char roleCharacter);

}  // namespace VEXIL
