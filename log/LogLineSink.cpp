#include "log/LogLineSink.h"

namespace VEXIL {

u32 LogLineSink::CapLineCount(i64 requested) {
    const u64 count = u64(requested);
    return count > kMaxLines ? kMaxLines : u32(count);
}

void LogLineSink::AddLine(i64 time, const char* text, size_t length, bool printable) {
    m_Records.push_back(LogRecordEntry{time, m_Text.size(), length});
    m_Text.append(text, length);
    m_Text.push_back('\n');
    m_AllPrintable = m_AllPrintable && printable;
}

}  // namespace VEXIL
