// RecordCopy: the private working copy of one driver record.
//
// The 192 bytes of the record come first and the trailing data block right
// behind them, so that readers find the block at offset 192. The copy is a
// plain buffer meant for the caller's stack: a record costs no heap memory.
#pragma once

#include <cstddef>

#include "host/Types.h"
#include "log/DriverLogEntry.h"

namespace VEXIL {

class RecordCopy {
public:
    RecordCopy() = default;
    RecordCopy(const RecordCopy&) = delete;
    RecordCopy& operator=(const RecordCopy&) = delete;

    // Copies the record and its trailing block. False, with nothing read,
    // when the block does not fit the working copy. Where the record's
    // data_len announces more than arrived, the rest is zeros, so that no
    // reader ever sees stale memory.
    bool Fill(const void* record, const void* data, size_t dataLen);

    DriverLogEntry* Entry() { return reinterpret_cast<DriverLogEntry*>(m_Bytes); }

private:
    alignas(8) u8 m_Bytes[DriverLogEntry::kWorkingCopySize];
};

}  // namespace VEXIL
