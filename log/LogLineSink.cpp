#include "log/LogLineSink.h"

namespace VEXIL {

u32 LogLineSink::CapLineCount(i64 requested) {
    const u64 count = u64(requested);
    return count > kMaxLines ? kMaxLines : u32(count);
}

void LogLineSink::AddLine(i64 time, const char* text, size_t length) {
    m_Records.push_back(LogRecordEntry{time, std::string(text, length)});
}

}  // namespace VEXIL
