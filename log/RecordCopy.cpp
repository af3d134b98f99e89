#include "log/RecordCopy.h"

#include <cstring>

namespace VEXIL {

bool RecordCopy::Fill(const void* record, const void* data, size_t dataLen) {
    constexpr size_t kRoom = DriverLogEntry::kWorkingCopySize - DriverLogEntry::kSize;
    if (record == nullptr || dataLen > kRoom || (dataLen > 0 && data == nullptr)) {
        return false;
    }
    std::memcpy(m_Bytes, record, DriverLogEntry::kSize);
    if (dataLen > 0) {
        std::memcpy(m_Bytes + DriverLogEntry::kSize, data, dataLen);
    }
    const size_t announced = Entry()->boundedDataLen();
    if (announced > dataLen) {
        std::memset(m_Bytes + DriverLogEntry::kSize + dataLen, 0, announced - dataLen);
    }
    return true;
}

}  // namespace VEXIL
