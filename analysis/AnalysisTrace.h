// Trace helpers of the traffic analysis: its lines go to the category
// "LogScan", and an address is printed byte by byte in memory order.
#pragma once

#include <cstring>

#include "host/Trace.h"
#include "host/Types.h"

// A line of the analysis, built only when the category is enabled.
#define SCAN_TRACE(message) NORV_TRACE(L"LogScan", message)

// A line of the busy record path: also gated by the state of the category
// when the log object was made (m_ScanTraceEnabled of the calling object).
#define SCAN_TRACE_BUSY(message)  \
    do {                          \
        if (m_ScanTraceEnabled) { \
            SCAN_TRACE(message);  \
        }                         \
    } while (0)

namespace VEXIL {

// The four bytes of an address in network order, first byte first.
struct AddressBytes {
    explicit AddressBytes(u32 address) { std::memcpy(b, &address, sizeof b); }
    u8 b[4];
};

}  // namespace VEXIL
