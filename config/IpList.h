// IpList: an ordered list of IPv4 address entries, as the configuration's
// address lists ("10.1.*.*, 192.168.0.0/24, 1.2.3.4-1.2.3.9") are parsed.
//
// A list is a plain value with no lock of its own: whoever holds the pointer
// to it guards it (the log object keeps one lock per list).
#pragma once

#include <vector>

#include "host/Types.h"

namespace VEXIL {

// One entry of an address list. Both addresses are in network byte order.
struct IpListEntry {
    bool isRange;  // true: first..second is an inclusive address range
    u32 first;     // first address of the range, or the base address
    u32 second;    // last address of the range, or the mask of the base address
};

typedef std::vector<IpListEntry> IpList;

// Whether the address (network byte order) matches an entry of the list, the
// entries tried in list order. A missing or empty list matches nothing. A range
// matches when the address lies between its bounds, both included, compared in
// host byte order; any other entry when (address & mask) == (base & mask).
bool IpInList(u32 addressNetworkOrder, const IpList* list);

}  // namespace VEXIL
