// One read of the NFLOG socket through the message parser: every NFLOG
// packet message becomes a record or a counted drop, and every record is
// consistent (FuzzCheckDriverRecord) and names a known interface's address.
//
// Input: the bytes of the read, netlink messages back to back.
#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "driver/linux/NflogParser.h"
#include "fuzz/FuzzDriverRecord.h"
#include "fuzz/FuzzSupport.h"
#include "host/NorviRecord.h"

namespace {

// Interface 3 has a six-byte address, interface 9 claims twelve; others none.
u32 LookUp(u32 interfaceIndex, u8* mac) {
    static const u8 kMac[8] = {2, 0, 0, 0, 0, 3, 0, 0};
    std::memcpy(mac, kMac, sizeof kMac);
    return interfaceIndex == 3 ? 6 : interfaceIndex == 9 ? 12 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    // Netlink messages are read in place: the buffer is aligned as a read's is.
    std::vector<u32> aligned((size + 3) / 4 + 1);
    std::memcpy(aligned.data(), data, size);
    NORVI::CNflogParser parser(LookUp, 2048);
    std::deque<NORVI::SourceRecord> records;
    parser.Feed(aligned.data(), size, timeval{1700000000, 5}, records);

    const NORVI::SourceCounters counters = parser.Counters();
    VEXIL::FuzzCheck(counters.m_Records == records.size(), "records miscounted",
                     std::to_string(records.size()));
    VEXIL::FuzzCheck((counters.m_Dropped == 0) == parser.LastDrop().empty(),
                     "a drop without a reason, or a reason without a drop", parser.LastDrop());
    for (const NORVI::SourceRecord& record : records) {
        VEXIL::FuzzCheckDriverRecord(record);
        u32 macLength;
        std::memcpy(&macLength, record.m_Record + NORVI::Record::kInterfaceMacLen.m_Offset,
                    sizeof macLength);
        VEXIL::FuzzCheck(macLength <= NORVI::Record::kInterfaceMac.m_Width,
                         "an interface address over its field", std::to_string(macLength));
        VEXIL::FuzzCheck(record.m_Data.size() <= 2048, "a packet over the bound",
                         std::to_string(record.m_Data.size()));
    }
    return 0;
}
