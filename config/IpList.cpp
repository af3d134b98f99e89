#include "config/IpList.h"

#include <arpa/inet.h>

namespace VEXIL {

bool IpInList(u32 addressNetworkOrder, const IpList* list) {
    if (list == nullptr) {
        return false;
    }
    const u32 addressHostOrder = ntohl(addressNetworkOrder);
    for (const IpListEntry& entry : *list) {
        if (entry.isRange) {
            if (addressHostOrder >= ntohl(entry.first) && addressHostOrder <= ntohl(entry.second)) {
                return true;
            }
        } else if ((addressNetworkOrder & entry.second) == (entry.first & entry.second)) {
            return true;
        }
    }
    return false;
}

}  // namespace VEXIL
