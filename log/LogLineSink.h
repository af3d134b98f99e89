// LogLineSink: where a read-back delivers its lines.
//
// It collects each qualifying line with its time, in the order of delivery,
// for the script entry to join into one text. The line cap that the script
// asks for is kept with it, but deliberately applied by nobody: every
// qualifying line is delivered. A sink belongs to the one call that made it
// and is used on that call's thread only, so it has no lock.
#pragma once

#include <string>
#include <vector>

#include "host/Types.h"

namespace VEXIL {

// One delivered line: the time of its first event in seconds since 1970 and
// columns 3 to 31 of the log line, without the line end.
struct LogRecordEntry {
    i64 time;
    std::string line;
};

typedef std::vector<LogRecordEntry> LogRecordList;

class LogLineSink {
public:
    // The largest cap a script may ask for.
    static constexpr u32 kMaxLines = 5000;

    explicit LogLineSink(u32 maxLines) : m_MaxLines(maxLines) {}

    // The cap of a script's request: the count taken as unsigned, so that a
    // negative one counts as huge, and held to kMaxLines.
    static u32 CapLineCount(i64 requested);

    // The read-back's callback: one qualifying line.
    void AddLine(i64 time, const char* text, size_t length);

    const LogRecordList& Records() const { return m_Records; }
    u32 MaxLines() const { return m_MaxLines; }

private:
    const u32 m_MaxLines;
    LogRecordList m_Records;
};

}  // namespace VEXIL
