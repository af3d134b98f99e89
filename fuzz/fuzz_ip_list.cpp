// Address lists and the IgnoreTcpFlags setting, as the configuration gives
// them. The base address of every masked entry and the bounds of every
// ordered range must match the list they stand in; every flag byte kept must
// be one that the text named.
//
// Input: a selector byte (bit 0: the IgnoreTcpFlags text), then the text.
#include <arpa/inet.h>

#include <string>

#include "config/ConfigUtils.h"
#include "config/TcpFlagList.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    VEXIL::FuzzDom();  // bad entries become agent events of this store
    VEXIL::CFuzzReader input(data, size);
    const bool flags = (input.Byte() & 1) != 0;
    const std::string text = input.Rest();
    if (flags) {
        for (const u8 flag : VEXIL::ParseTcpFlagList(text)) {
            // A byte in the set is the value of some token: its digits are
            // in the text.
            VEXIL::FuzzCheck(
                flag == 0 || text.find_first_of("123456789abcdefABCDEF") != std::string::npos,
                "a flag byte from nowhere", text);
        }
        VEXIL::FuzzDropLogLines();
        return 0;
    }
    VEXIL::IpList list;
    VEXIL::ConfigUtils::ParseIpList(wxString::FromUTF8(text.data(), text.size()), "fuzz", L"ipList",
                                    &list);
    for (const VEXIL::IpListEntry& entry : list) {
        if (!entry.isRange) {
            VEXIL::FuzzCheck(VEXIL::IpInList(entry.first, &list), "a base outside its list", text);
        } else if (ntohl(entry.first) <= ntohl(entry.second)) {
            VEXIL::FuzzCheck(
                VEXIL::IpInList(entry.first, &list) && VEXIL::IpInList(entry.second, &list),
                "a range bound outside its list", text);
        }
    }
    VEXIL::FuzzDropLogLines();
    return 0;
}
