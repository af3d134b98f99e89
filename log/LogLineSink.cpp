#include "log/LogLineSink.h"

namespace VEXIL {

u32 LogLineSink::CapLineCount(i64 requested) {
    const u64 count = u64(requested);
    return count > kMaxLines ? kMaxLines : u32(count);
}

void LogLineSink::AddLine(const char* text, size_t length, bool printable) {
    ++m_LineCount;
    m_Text.append(text, length);
    m_Text.push_back('\n');
    m_AllPrintable = m_AllPrintable && printable;
}

}  // namespace VEXIL
