#include "log/LogLineSink.h"

#include <utility>

namespace VEXIL {

u32 LogLineSink::CapLineCount(i64 requested) {
    const u64 count = u64(requested);
    return count > kMaxLines ? kMaxLines : u32(count);
}

void LogLineSink::Reserve(size_t bytes) {
    if (bytes <= m_Capacity) {
        return;
    }
    const size_t capacity = bytes > 2 * m_Capacity ? bytes : 2 * m_Capacity;
    std::unique_ptr<char[]> text(new char[capacity]);
    if (m_Size != 0) {
        std::memcpy(text.get(), m_Text.get(), m_Size);
    }
    m_Text = std::move(text);
    m_Capacity = capacity;
}

}  // namespace VEXIL
