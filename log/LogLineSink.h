// LogLineSink: where a read-back delivers its lines.
//
// It collects each qualifying line with its time, in the order of delivery.
// The texts are kept joined in one buffer, each line followed by a line
// feed, which is the form the script entry hands over; the list says where
// each line lies in it. The line cap that the script asks for is kept with
// it, but deliberately applied by nobody: every qualifying line is
// delivered. A sink belongs to the one call that made it and is used on that
// call's thread only, so it has no lock.
#pragma once

#include <string>
#include <vector>

#include "host/Types.h"

namespace VEXIL {

// One delivered line: the time of its first event in seconds since 1970 and
// where columns 3 to 31 of the log line, without the line end, lie in the
// sink's joined text.
struct LogRecordEntry {
    i64 time;
    size_t offset;
    size_t length;
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

    // The read-back's callback: one qualifying line. printable says that
    // every byte of it lies in 0x20 to 0x7E.
    void AddLine(i64 time, const char* text, size_t length, bool printable);

    // Makes room for bytes of joined text at once, so that a large
    // read-back neither copies its text as it grows nor touches fresh memory
    // more than once.
    void Reserve(size_t bytes) { m_Text.reserve(bytes); }

    const LogRecordList& Records() const { return m_Records; }
    // Every line followed by a line feed.
    const std::string& JoinedText() const { return m_Text; }
    // True when every line delivered was printable ASCII.
    bool AllPrintable() const { return m_AllPrintable; }
    u32 MaxLines() const { return m_MaxLines; }

private:
    const u32 m_MaxLines;
    LogRecordList m_Records;
    std::string m_Text;
    bool m_AllPrintable = true;
};

}  // namespace VEXIL
