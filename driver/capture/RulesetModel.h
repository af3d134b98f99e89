// CRulesetModel: what the project's ruleset (driver/linux/vexil.nft) would do
// with each packet of a capture, seen from a host with the given addresses
// and allowed services.
//
// It follows the input chain rule by rule: invalid TCP flag combinations,
// neighbour discovery, connection tracking's invalid, established and related
// states, new connections whose first packet is no plain SYN, allowed
// services, and the denials by protocol. Connections are tracked as
// connection tracking does it in the large: a connection is new until its
// first reply, then established, and ends on RST (or on FIN from both
// sides, after which a new SYN opens it again); the host's own outbound
// packets open connections too. A denied packet opens nothing. Entries that
// stay idle past a timeout of their kind are forgotten, and the table is
// bounded.
//
// Threads: one object is used by one thread at a time.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "driver/linux/RulesetVerdicts.h"
#include "driver/linux/ServiceList.h"
#include "driver/record/PacketView.h"

namespace NORVI {

class CRulesetModel {
public:
    enum class Decision {
        Pass,      // no record: not the host's, outbound, established or related
        Record,    // the ruleset logs the packet with the verdict given
        Fragment,  // a later fragment, judged with its first one
        Drop,      // no complete transport header: the input is refused
    };

    // Addresses are IPv4 or IPv6 texts; false with the reason in error when
    // one is not an address.
    bool Configure(const std::vector<std::string>& hostAddresses, const CServiceList& services,
                   std::string& error);

    // Judges one inbound or outbound packet at the capture time timeUsec.
    // With Record, verdict is the rule that logs it.
    Decision Judge(const CPacketView& packet, uint64_t timeUsec, const RuleVerdict*& verdict);

    bool IsHostAddress(const uint8_t* address, bool ipv6) const;
    size_t ConnectionCount() const { return m_Connections.size(); }

private:
    struct Connection {
        uint8_t m_Protocol = 0;
        bool m_Replied = false;
        bool m_FinOriginal = false;
        bool m_FinReply = false;
        uint64_t m_LastUsec = 0;
    };
    using Key = std::string;

    // The key of a packet in its own direction (source first) and reversed.
    static bool MakeKey(const CPacketView& packet, bool reversed, Key& key);
    // The connection of the key in either direction; reply says which.
    Connection* Find(const CPacketView& packet, bool& reply);
    Connection* Open(const CPacketView& packet, uint64_t timeUsec);
    // What a TCP packet of a known connection ends: an RST forgets the
    // connection, a FIN marks its direction as finished.
    void NoteTcpEnd(const CPacketView& packet, Connection& connection, bool reply, uint8_t flags);
    void Expire(uint64_t timeUsec);
    static uint64_t TimeoutUsec(const Connection& connection);

    Decision Outbound(const CPacketView& packet, uint64_t timeUsec);
    Decision InboundTcp(const CPacketView& packet, uint64_t timeUsec, const RuleVerdict*& verdict);
    Decision InboundUdp(const CPacketView& packet, uint64_t timeUsec, const RuleVerdict*& verdict);
    Decision InboundIcmp(const CPacketView& packet, uint64_t timeUsec, const RuleVerdict*& verdict);
    // Whether an ICMP error's quoted packet belongs to a known connection.
    bool Related(const CPacketView& packet);

    std::vector<std::array<uint8_t, 16>> m_Ipv4Hosts;  // first 4 bytes used
    std::vector<std::array<uint8_t, 16>> m_Ipv6Hosts;
    CServiceList m_Services;
    std::map<Key, Connection> m_Connections;
    uint64_t m_LastExpiryUsec = 0;
};

}  // namespace NORVI
