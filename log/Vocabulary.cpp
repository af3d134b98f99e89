#include "log/Vocabulary.h"

#include <algorithm>
#include <iterator>

#include <wx/translation.h>

#include "host/TextHelpers.h"

namespace VEXIL {

namespace {

// The catalogue's text for an English word in UTF-8, or the word itself.
// Without a translations object the toolkit's lookup gives the word back as
// it stands, so that case, the usual one, is answered without it. With one,
// every word is looked up: catalogues can be added to it and its language
// changed at any time, with no notice that a cache could follow.
std::string Translated(const char* english) {
    if (wxTranslations::Get() == nullptr) {
        return english;
    }
    return wxGetTranslation(wxString::FromAscii(english)).utf8_string();
}

// A number by a printf format of one conversion that takes value's type.
template <typename Value>
std::string Number(const char* format, Value value) {
    char text[16];
    snprintf_safe(text, sizeof text, format, value);
    return text;
}

const char* const kPacketActions[] = {"Log", "Allow", "Deny", "Force Allow", "Bypass"};

const char* const kPayloadActions[] = {nullptr,  "Block",   "Reset", "Insert",
                                       "Delete", "Replace", "Log"};

// Reasons 100 to 152 in order; the gaps have no word.
constexpr i32 kFirstPacketReason = 100;
const char* const kPacketReasons[] = {
    "Out Of Connection",                  // 100
    "Invalid Flags",                      // 101
    "Invalid Sequence",                   // 102
    "Invalid Ack",                        // 103
    "Internal Error",                     // 104
    "CE Flags",                           // 105
    "Invalid IP",                         // 106
    "Invalid IP Datagram Length",         // 107
    "Fragmented",                         // 108
    "Invalid Frament Offsets",            // 109
    "First Fragment Too Small",           // 110
    "Fragment Out Of Bounds",             // 111
    "Fragment Offset Too Small",          // 112
    "IPv6 Packet",                        // 113
    "Max Incoming Connections",           // 114
    "Max Outgoing Connections",           // 115
    "Max Half Open Connections",          // 116
    nullptr,                              // 117
    "Invalid IP Header Length",           // 118
    "Invalid Packet Info",                // 119
    "Internal Engine Error",              // 120
    "Unsolicited UDP",                    // 121
    "Unsolicited ICMP",                   // 122
    "Out Of Allowed Policy",              // 123
    "Invalid Port Command",               // 124
    "SYN Cookie Error",                   // 125
    "Invalid Data Offset",                // 126
    "No IP Header",                       // 127
    "Unreadable Ethernet Header",         // 128
    nullptr,                              // 129
    "Same Source and Destination IP",     // 130
    "Invalid TCP Header Length",          // 131
    "Unreadable Protocol Header",         // 132
    "Unreadable IPv4 Header",             // 133
    "Unknown IP Version",                 // 134
    "Invalid Adapter Configuration",      // 135
    "Overlapping Fragment",               // 136
    "Maximum ACK Retransmit",             // 137
    "Packet on Closed Connection",        // 138
    "Dropped Retransmit",                 // 139
    nullptr,                              // 140
    "Out Of Allowed Policy (Open Port)",  // 141
    "New Connection",                     // 142
    "Invalid Checksum",                   // 143
    "Invalid Hook Used",                  // 144
    "IP Zero Payload",                    // 145
    "IPv6 Source Is Multicast",           // 146
    "Invalid IPv6 Address",               // 147
    "IPv6 Fragment Too Small",            // 148
    "Invalid Transport Header Length",    // 149
    "Driver Memory Failure",              // 150
    "Max TCP Connections",                // 151
    "Max UDP Connections",                // 152
};

struct ReasonWord {
    i32 code;
    const char* text;
};

// Sorted by code, for a binary search. The engines report negative codes in
// groups; the connection close pair is the only positive one.
const ReasonWord kPayloadReasons[] = {
    {-806, "Infinite Data Loop Error"},
    {-805, "Protocol Decoding Stack Error"},
    {-804, "Protocol Decoding Structure Too Deep"},
    {-803, "Protocol Decoding Engine Internal Error"},
    {-802, "Protocol Decoding Constraint Error"},
    {-801, "Protocol Decoding Search Limit Exceeded"},
    {-714, "Unsupported GZIP Header Format/Method"},
    {-713, "Unsupported Deflate/GZIP Dictionary"},
    {-712, "Deflate/GZIP Checksum Error"},
    {-711, "Incomplete Deflate/GZIP Content"},
    {-710, "Corrupted Deflate/GZIP Content"},
    {-700, "Invalid Base64 Content"},
    {-508, "Double Decoding Exploit"},
    {-507, "Invalid Use of Character"},
    {-506, "URI Path Length Too Long"},
    {-505, "Invalid Hex Encoding"},
    {-504, "Invalid UTF8 Encoding"},
    {-503, "Incomplete UTF8 Sequence"},
    {-502, "Illegal Character in URI"},
    {-501, "Invalid Traversal"},
    {-500, "URI Path Depth Exceeded"},
    {-315, "Compression Method Unsupported"},
    {-314, "Number of Available Sessions Exceeded"},
    {-313, "Invalid Parameters In Handshake"},
    {-312, "Key Too Large"},
    {-311, "Error Generating Pre-Master Request"},
    {-310, "Key Exchange Error"},
    {-309, "Renewal Error"},
    {-308, "Client Attempted to Rollback"},
    {-307, "Error Decrypting Pre-master Key"},
    {-306, "Unsupported SSL Version"},
    {-305, "Memory Allocation Error"},
    {-304, "Out Of Order Handshake Message"},
    {-303, "Handshake Message (not ready)"},
    {-302, "Record Layer Message (not ready)"},
    {-301, "Error Generating Master Key(s)"},
    {-300, "Unsupported Cipher"},
    {-207, "Packet Read Error"},
    {-206, "Runtime Error"},
    {-205, "Engine Call Stack Too Deep"},
    {-204, "Max Matches in Packet Exceeded"},
    {-203, "Edit Too Large"},
    {-202, "Maximum Edits Exceeded"},
    {-201, "Out of Bounds"},
    {-200, "Region Too Big"},
    {-103, "Debug Connection State Dump"},
    {-102, "Debug Packet Dump"},
    {-101, "Debug Trace"},
    {-1, "Payload filter action"},
    {10000, "Connection Close Notification"},
    {10001, "Connection Close Notification"},
};

}  // namespace

std::string PacketActionText(u32 action) {
    if (action < std::size(kPacketActions)) {
        return Translated(kPacketActions[action]);
    }
    return Number("%u", action);
}

std::string PacketReasonText(i32 reason) {
    const i64 index = i64(reason) - kFirstPacketReason;
    if (index >= 0 && index < i64(std::size(kPacketReasons)) && kPacketReasons[index] != nullptr) {
        return Translated(kPacketReasons[index]);
    }
    return Number("%#x", unsigned(reason));
}

std::string PayloadActionText(i32 action) {
    const i32 word = action & ~0x80;
    std::string text;
    if (action & 0x80) {
        text = Translated("Detect Only: ");
    }
    if (word >= 0 && word < i32(std::size(kPayloadActions)) && kPayloadActions[word] != nullptr) {
        text += Translated(kPayloadActions[word]);
    } else {
        text += Number("%d", word);
    }
    return text;
}

std::string PayloadReasonText(i32 reason) {
    const ReasonWord* end = std::end(kPayloadReasons);
    const ReasonWord* found =
        std::lower_bound(std::begin(kPayloadReasons), end, reason,
                         [](const ReasonWord& entry, i32 code) { return entry.code < code; });
    if (found != end && found->code == reason) {
        return Translated(found->text);
    }
    return Translated("Error: ") + Number("%d", reason);
}

}  // namespace VEXIL
