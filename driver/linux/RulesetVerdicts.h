// The verdicts of the project's nftables ruleset (vexil.nft): for every rule
// that logs, the rule id, the record's action and reason, and the name that
// the ruleset template uses for it. The live receiver reads these three
// numbers back from the NFLOG prefix "vx:<action>:<reason>:<id>"; the capture
// model gives the same numbers to the packets that it judges alike. This
// table is the one place where they are written down.
//
// Actions and reasons are the record's codes. The action of a packet record
// says what became of the packet: 1 is a dropped packet, which the syslog text
// calls "Deny"; any other non-zero value a packet let through and logged
// ("Log"). (The words "Allow" and "Deny" of the vocabulary's 1 and 2 belong to
// a rule's filterAction, a different scale.) Reasons 101 "Invalid Flags", 100 "Out Of Connection",
// 119 "Invalid Packet Info", 121 "Unsolicited UDP", 122 "Unsolicited ICMP", 123 "Out Of Allowed
// Policy", 142 "New Connection". Reason 0 (no word) leaves the rule id to
// speak: a blocked address.
//
// Threads: constant data, read from any thread.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace NORVI {

enum RuleId : uint32_t {
    kRuleBlockedSource4 = 1,     // inbound from an address in the IPv4 block set
    kRuleBlockedSource6 = 2,     // inbound from an address in the IPv6 block set
    kRuleBlockedDest4 = 3,       // outbound to an address in the IPv4 block set
    kRuleBlockedDest6 = 4,       // outbound to an address in the IPv6 block set
    kRuleTcpNull = 11,           // no flag at all
    kRuleTcpXmas = 12,           // FIN, PSH and URG
    kRuleTcpSynFin = 13,         // SYN with FIN
    kRuleTcpSynRst = 14,         // SYN with RST
    kRuleTcpFinNoAck = 15,       // FIN without ACK
    kRuleTcpPshNoAck = 16,       // PSH without ACK
    kRuleTcpUrgNoAck = 17,       // URG without ACK
    kRuleConntrackInvalid = 20,  // conntrack calls the packet invalid
    kRuleTcpNewNotSyn = 21,      // a new connection whose first packet is no plain SYN
    kRuleServiceAllowed = 30,    // a new inbound connection to an allowed service
    kRuleDenyTcp = 40,           // any other inbound TCP
    kRuleDenyUdp = 41,           // any other inbound UDP
    kRuleDenyIcmp = 42,          // any other inbound ICMP or ICMPv6
    kRuleDenyOther = 43,         // any other inbound protocol
};

constexpr int16_t kActionDeny = 1;
constexpr int16_t kActionAllow = 2;

struct RuleVerdict {
    const char* m_Name;  // the placeholder name in the ruleset template
    uint32_t m_Id;
    int16_t m_Action;
    int16_t m_Reason;
};

constexpr RuleVerdict kRuleVerdicts[] = {
    {"blocked_source4", kRuleBlockedSource4, kActionDeny, 0},
    {"blocked_source6", kRuleBlockedSource6, kActionDeny, 0},
    {"blocked_dest4", kRuleBlockedDest4, kActionDeny, 0},
    {"blocked_dest6", kRuleBlockedDest6, kActionDeny, 0},
    {"tcp_null", kRuleTcpNull, kActionDeny, 101},
    {"tcp_xmas", kRuleTcpXmas, kActionDeny, 101},
    {"tcp_syn_fin", kRuleTcpSynFin, kActionDeny, 101},
    {"tcp_syn_rst", kRuleTcpSynRst, kActionDeny, 101},
    {"tcp_fin_no_ack", kRuleTcpFinNoAck, kActionDeny, 101},
    {"tcp_psh_no_ack", kRuleTcpPshNoAck, kActionDeny, 101},
    {"tcp_urg_no_ack", kRuleTcpUrgNoAck, kActionDeny, 101},
    {"ct_invalid", kRuleConntrackInvalid, kActionDeny, 119},
    {"tcp_new_not_syn", kRuleTcpNewNotSyn, kActionDeny, 100},
    {"service_allowed", kRuleServiceAllowed, kActionAllow, 142},
    {"deny_tcp", kRuleDenyTcp, kActionDeny, 123},
    {"deny_udp", kRuleDenyUdp, kActionDeny, 121},
    {"deny_icmp", kRuleDenyIcmp, kActionDeny, 122},
    {"deny_other", kRuleDenyOther, kActionDeny, 123},
};

// The verdict of a rule id, or null.
inline const RuleVerdict* FindRuleVerdict(uint32_t id) {
    for (const RuleVerdict& verdict : kRuleVerdicts) {
        if (verdict.m_Id == id) {
            return &verdict;
        }
    }
    return nullptr;
}

// The verdict named in the ruleset template, or null.
inline const RuleVerdict* FindRuleVerdict(const char* name, size_t length) {
    for (const RuleVerdict& verdict : kRuleVerdicts) {
        if (strlen(verdict.m_Name) == length && memcmp(verdict.m_Name, name, length) == 0) {
            return &verdict;
        }
    }
    return nullptr;
}

// The NFLOG prefix of a verdict, "vx:<action>:<reason>:<id>", into buffer.
inline void FormatVerdictPrefix(const RuleVerdict& verdict, char* buffer, size_t size) {
    snprintf(buffer, size, "vx:%d:%d:%u", verdict.m_Action, verdict.m_Reason, verdict.m_Id);
}

// Reads a prefix back: true with the three numbers when text (length bytes,
// not necessarily terminated) is "vx:<action>:<reason>:<id>" with decimal
// numbers that fit their fields; false for any other text.
inline bool ParseVerdictPrefix(const char* text, size_t length, int16_t& action, int16_t& reason,
                               uint32_t& id) {
    if (length < 3 || memcmp(text, "vx:", 3) != 0) {
        return false;
    }
    uint64_t values[3] = {0, 0, 0};
    size_t position = 3;
    for (int field = 0; field < 3; ++field) {
        const size_t start = position;
        while (position < length && text[position] >= '0' && text[position] <= '9' &&
               position - start < 10) {
            values[field] = values[field] * 10 + static_cast<uint64_t>(text[position] - '0');
            ++position;
        }
        if (position == start) {
            return false;
        }
        const bool last = field == 2;
        if (last ? position != length : (position >= length || text[position] != ':')) {
            return false;
        }
        ++position;
    }
    if (values[0] > 0x7f || values[1] > 0x7fff || values[2] > 0xffffffffu) {
        return false;
    }
    action = static_cast<int16_t>(values[0]);
    reason = static_cast<int16_t>(values[1]);
    id = static_cast<uint32_t>(values[2]);
    return true;
}

}  // namespace NORVI
