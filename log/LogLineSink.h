// LogLineSink: where a read-back delivers its lines.
//
// It collects each qualifying line, in the order of delivery, joined in one
// text with a line feed after each: the form the script entry hands over. A
// delivered line holds no line feed, so the text splits back into its lines.
// The line cap that the script asks for is kept with it, but deliberately
// applied by nobody: every qualifying line is delivered. A sink belongs to
// the one call that made it and is used on that call's thread only, so it
// has no lock.
#pragma once

#include <cstring>
#include <memory>
#include <string_view>

#include "host/Types.h"

namespace VEXIL {

class LogLineSink {
public:
    // The largest cap a script may ask for.
    static constexpr u32 kMaxLines = 5000;

    explicit LogLineSink(u32 maxLines) : m_MaxLines(maxLines) {}

    // The cap of a script's request: the count taken as unsigned, so that a
    // negative one counts as huge, and held to kMaxLines.
    static u32 CapLineCount(i64 requested);

    // The read-back's callback: one qualifying line, columns 3 to 31 of the
    // log line without the line end. printable says that every byte of it
    // lies in 0x20 to 0x7E. Called for every line delivered, so it is kept
    // to a copy and a line feed.
    void AddLine(const char* text, size_t length, bool printable) {
        if (m_Capacity - m_Size <= length) {
            Reserve(m_Size + length + 1);
        }
        char* end = m_Text.get() + m_Size;
        std::memcpy(end, text, length);
        end[length] = '\n';
        m_Size += length + 1;
        ++m_LineCount;
        m_AllPrintable = m_AllPrintable && printable;
    }

    // Makes room for bytes of joined text in all, so that a large read-back
    // neither copies its text as it grows nor touches fresh memory more than
    // once. Beyond that, room grows by doubling.
    void Reserve(size_t bytes);

    size_t LineCount() const { return m_LineCount; }
    // Every line followed by a line feed; valid until the next AddLine.
    std::string_view JoinedText() const { return std::string_view(m_Text.get(), m_Size); }
    // True when every line delivered was printable ASCII.
    bool AllPrintable() const { return m_AllPrintable; }
    u32 MaxLines() const { return m_MaxLines; }

private:
    const u32 m_MaxLines;
    size_t m_LineCount = 0;
    // Not cleared: only the first m_Size bytes are ever read.
    std::unique_ptr<char[]> m_Text;
    size_t m_Size = 0;
    size_t m_Capacity = 0;
    bool m_AllPrintable = true;
};

}  // namespace VEXIL
