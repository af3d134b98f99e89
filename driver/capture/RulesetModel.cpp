#include "driver/capture/RulesetModel.h"

#include <arpa/inet.h>
#include <string.h>

namespace NORVI {

namespace {

constexpr uint8_t kFin = 0x01;
constexpr uint8_t kSyn = 0x02;
constexpr uint8_t kRst = 0x04;
constexpr uint8_t kPsh = 0x08;
constexpr uint8_t kAck = 0x10;
constexpr uint8_t kUrg = 0x20;

constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmpv6 = 58;

// Connections the model remembers at most; beyond, a new one is not tracked.
constexpr size_t kMaxConnections = 65536;

constexpr uint64_t kSecond = 1000000;
// Idle times after which connection tracking forgets an entry.
constexpr uint64_t kTcpUnrepliedTimeout = 120 * kSecond;
constexpr uint64_t kTcpEstablishedTimeout = 432000 * kSecond;
constexpr uint64_t kTcpClosingTimeout = 120 * kSecond;
constexpr uint64_t kUdpUnrepliedTimeout = 30 * kSecond;
constexpr uint64_t kUdpRepliedTimeout = 180 * kSecond;
constexpr uint64_t kIcmpTimeout = 30 * kSecond;
constexpr uint64_t kOtherTimeout = 600 * kSecond;

const RuleVerdict* Verdict(RuleId id) {
    return FindRuleVerdict(id);
}

// The verdict of a TCP flag combination that the ruleset refuses outright,
// in the order of its rules; null for an acceptable one.
const RuleVerdict* FlagVerdict(uint8_t flags) {
    if ((flags & (kFin | kSyn | kRst | kPsh | kAck | kUrg)) == 0) {
        return Verdict(kRuleTcpNull);
    }
    if ((flags & (kFin | kPsh | kUrg)) == (kFin | kPsh | kUrg)) {
        return Verdict(kRuleTcpXmas);
    }
    if ((flags & (kSyn | kFin)) == (kSyn | kFin)) {
        return Verdict(kRuleTcpSynFin);
    }
    if ((flags & (kSyn | kRst)) == (kSyn | kRst)) {
        return Verdict(kRuleTcpSynRst);
    }
    if ((flags & (kFin | kAck)) == kFin) {
        return Verdict(kRuleTcpFinNoAck);
    }
    if ((flags & (kPsh | kAck)) == kPsh) {
        return Verdict(kRuleTcpPshNoAck);
    }
    if ((flags & (kUrg | kAck)) == kUrg) {
        return Verdict(kRuleTcpUrgNoAck);
    }
    return nullptr;
}

bool IsPlainSyn(uint8_t flags) {
    return (flags & (kFin | kSyn | kRst | kAck)) == kSyn;
}

// ICMP types that open a connection (requests) and their answers.
bool IsIcmpRequest(uint8_t protocol, uint8_t type) {
    return protocol == kIcmp ? (type == 8 || type == 13 || type == 15 || type == 17)
                             : (type == 128 || type == 139);
}

bool IsIcmpReply(uint8_t protocol, uint8_t type) {
    return protocol == kIcmp ? (type == 0 || type == 14 || type == 16 || type == 18)
                             : (type == 129 || type == 140);
}

bool IsIcmpError(uint8_t protocol, uint8_t type) {
    return protocol == kIcmp ? (type == 3 || type == 4 || type == 5 || type == 11 || type == 12)
                             : (type >= 1 && type <= 4);
}

bool IsNeighbourDiscovery(uint8_t type) {
    return type >= 133 && type <= 136;
}

}  // namespace

bool CRulesetModel::Configure(const std::vector<std::string>& hostAddresses,
                              const CServiceList& services, std::string& error) {
    std::vector<std::array<uint8_t, 16>> ipv4;
    std::vector<std::array<uint8_t, 16>> ipv6;
    for (const std::string& text : hostAddresses) {
        std::array<uint8_t, 16> address{};
        if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
            ipv4.push_back(address);
        } else if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) {
            ipv6.push_back(address);
        } else {
            error = "host address \"" + text.substr(0, 64) + "\" is no IPv4 or IPv6 address";
            return false;
        }
    }
    m_Ipv4Hosts.swap(ipv4);
    m_Ipv6Hosts.swap(ipv6);
    m_Services = services;
    m_Connections.clear();
    return true;
}

bool CRulesetModel::IsHostAddress(const uint8_t* address, bool ipv6) const {
    for (const auto& host : ipv6 ? m_Ipv6Hosts : m_Ipv4Hosts) {
        if (memcmp(host.data(), address, ipv6 ? 16 : 4) == 0) {
            return true;
        }
    }
    return false;
}

bool CRulesetModel::MakeKey(const CPacketView& packet, bool reversed, Key& key) {
    const uint8_t protocol = packet.Protocol();
    const uint8_t* const transport = packet.Transport();
    const size_t available = packet.HasTransportHeader() ? packet.TransportLength() : 0;
    uint8_t ports[4] = {};
    if (protocol == kTcp || protocol == kUdp) {
        if (available < 4) {
            return false;
        }
        memcpy(ports, transport, 4);
        if (reversed) {
            memcpy(ports, transport + 2, 2);
            memcpy(ports + 2, transport, 2);
        }
    } else if (protocol == kIcmp || protocol == kIcmpv6) {
        // Requests and their answers share the identifier.
        if (available < 6 ||
            !(IsIcmpRequest(protocol, transport[0]) || IsIcmpReply(protocol, transport[0]))) {
            return false;
        }
        memcpy(ports, transport + 4, 2);
        memcpy(ports + 2, transport + 4, 2);
    }
    const size_t length = packet.AddressLength();
    const uint8_t* const first = reversed ? packet.Destination() : packet.Source();
    const uint8_t* const second = reversed ? packet.Source() : packet.Destination();
    key.assign(1, static_cast<char>(protocol));
    key.append(reinterpret_cast<const char*>(first), length);
    key.append(reinterpret_cast<const char*>(second), length);
    key.append(reinterpret_cast<const char*>(ports), sizeof ports);
    return true;
}

uint64_t CRulesetModel::TimeoutUsec(const Connection& connection) {
    switch (connection.m_Protocol) {
        case kTcp:
            if (connection.m_FinOriginal && connection.m_FinReply) {
                return kTcpClosingTimeout;
            }
            return connection.m_Replied ? kTcpEstablishedTimeout : kTcpUnrepliedTimeout;
        case kUdp:
            return connection.m_Replied ? kUdpRepliedTimeout : kUdpUnrepliedTimeout;
        case kIcmp:
        case kIcmpv6:
            return kIcmpTimeout;
        default:
            return kOtherTimeout;
    }
}

CRulesetModel::Connection* CRulesetModel::Find(const CPacketView& packet, bool& reply) {
    Key key;
    for (int direction = 0; direction < 2; ++direction) {
        if (!MakeKey(packet, direction == 1, key)) {
            return nullptr;
        }
        const auto found = m_Connections.find(key);
        if (found != m_Connections.end()) {
            reply = direction == 1;
            return &found->second;
        }
    }
    return nullptr;
}

CRulesetModel::Connection* CRulesetModel::Open(const CPacketView& packet, uint64_t timeUsec) {
    Key key;
    if (!MakeKey(packet, false, key)) {
        return nullptr;
    }
    if (m_Connections.size() >= kMaxConnections) {
        Expire(timeUsec);
        if (m_Connections.size() >= kMaxConnections) {
            return nullptr;
        }
    }
    Connection& connection = m_Connections[key];
    connection = Connection();
    connection.m_Protocol = packet.Protocol();
    connection.m_LastUsec = timeUsec;
    return &connection;
}

void CRulesetModel::Expire(uint64_t timeUsec) {
    for (auto entry = m_Connections.begin(); entry != m_Connections.end();) {
        const Connection& connection = entry->second;
        const bool idle = timeUsec > connection.m_LastUsec &&
                          timeUsec - connection.m_LastUsec > TimeoutUsec(connection);
        entry = idle ? m_Connections.erase(entry) : std::next(entry);
    }
    m_LastExpiryUsec = timeUsec;
}

CRulesetModel::Decision CRulesetModel::Judge(const CPacketView& packet, uint64_t timeUsec,
                                             const RuleVerdict*& verdict) {
    verdict = nullptr;
    if (timeUsec > m_LastExpiryUsec + kSecond) {
        Expire(timeUsec);
    }
    const bool ipv6 = packet.IsIpv6();
    const bool toHost = IsHostAddress(packet.Destination(), ipv6);
    const bool fromHost = IsHostAddress(packet.Source(), ipv6);
    if (toHost == fromHost) {
        return Decision::Pass;  // not the host's traffic, or its loopback
    }
    if (!packet.HasTransportHeader()) {
        return Decision::Fragment;
    }
    const uint8_t protocol = packet.Protocol();
    const bool known =
        protocol == kTcp || protocol == kUdp || protocol == kIcmp || protocol == kIcmpv6;
    if (known && !packet.TransportComplete()) {
        return Decision::Drop;
    }
    if (fromHost) {
        return Outbound(packet, timeUsec);
    }
    switch (protocol) {
        case kTcp:
            return InboundTcp(packet, timeUsec, verdict);
        case kUdp:
            return InboundUdp(packet, timeUsec, verdict);
        case kIcmp:
        case kIcmpv6:
            return InboundIcmp(packet, timeUsec, verdict);
        default: {
            bool reply = false;
            Connection* const connection = Find(packet, reply);
            if (connection != nullptr && (reply || connection->m_Replied)) {
                connection->m_Replied = true;
                connection->m_LastUsec = timeUsec;
                return Decision::Pass;
            }
            verdict = Verdict(kRuleDenyOther);
            return Decision::Record;
        }
    }
}

CRulesetModel::Decision CRulesetModel::Outbound(const CPacketView& packet, uint64_t timeUsec) {
    bool reply = false;
    Connection* connection = Find(packet, reply);
    const uint8_t protocol = packet.Protocol();
    const uint8_t flags = protocol == kTcp ? packet.Transport()[13] : 0;
    if (connection == nullptr) {
        bool opens = true;
        if (protocol == kTcp) {
            // A plain SYN opens, and so does a bare ACK (a connection picked
            // up in the middle); anything else is invalid and opens nothing.
            opens = IsPlainSyn(flags) || (flags & (kSyn | kFin | kRst | kAck)) == kAck;
        } else if (protocol == kIcmp || protocol == kIcmpv6) {
            opens = IsIcmpRequest(protocol, packet.Transport()[0]);
        }
        if (opens) {
            Open(packet, timeUsec);
        }
        return Decision::Pass;
    }
    connection->m_LastUsec = timeUsec;
    if (reply) {
        connection->m_Replied = true;
    }
    if (protocol == kTcp) {
        NoteTcpEnd(packet, *connection, reply, flags);
    }
    return Decision::Pass;
}

void CRulesetModel::NoteTcpEnd(const CPacketView& packet, Connection& connection, bool reply,
                               uint8_t flags) {
    if (flags & kRst) {
        Key key;
        MakeKey(packet, reply, key);
        m_Connections.erase(key);
    } else if (flags & kFin) {
        (reply ? connection.m_FinReply : connection.m_FinOriginal) = true;
    }
}

CRulesetModel::Decision CRulesetModel::InboundTcp(const CPacketView& packet, uint64_t timeUsec,
                                                  const RuleVerdict*& verdict) {
    const uint8_t flags = packet.Transport()[13];
    verdict = FlagVerdict(flags);
    if (verdict != nullptr) {
        return Decision::Record;
    }
    bool reply = false;
    Connection* connection = Find(packet, reply);
    if (connection != nullptr && !reply && connection->m_FinOriginal && connection->m_FinReply &&
        IsPlainSyn(flags)) {
        Key key;
        MakeKey(packet, false, key);
        m_Connections.erase(key);  // a new SYN on a closed connection opens it again
        connection = nullptr;
    }
    if (connection != nullptr && (reply || connection->m_Replied)) {
        connection->m_Replied = true;
        connection->m_LastUsec = timeUsec;
        NoteTcpEnd(packet, *connection, reply, flags);
        return Decision::Pass;
    }
    if (connection == nullptr) {
        // Connection tracking opens an entry only for a plain SYN or a bare
        // ACK; a first SYN-ACK, FIN-ACK or RST is invalid.
        const bool opens = IsPlainSyn(flags) || (flags & (kSyn | kFin | kRst | kAck)) == kAck;
        if (!opens) {
            verdict = Verdict(kRuleConntrackInvalid);
            return Decision::Record;
        }
    }
    if (!IsPlainSyn(flags)) {
        verdict = Verdict(kRuleTcpNewNotSyn);
        return Decision::Record;
    }
    const uint16_t port = static_cast<uint16_t>(packet.Transport()[2] << 8 | packet.Transport()[3]);
    if (!m_Services.AllowsTcp(port)) {
        verdict = Verdict(kRuleDenyTcp);
        return Decision::Record;
    }
    if (connection == nullptr) {
        Open(packet, timeUsec);
    } else {
        connection->m_LastUsec = timeUsec;
    }
    verdict = Verdict(kRuleServiceAllowed);
    return Decision::Record;
}

CRulesetModel::Decision CRulesetModel::InboundUdp(const CPacketView& packet, uint64_t timeUsec,
                                                  const RuleVerdict*& verdict) {
    bool reply = false;
    Connection* const connection = Find(packet, reply);
    if (connection != nullptr) {
        connection->m_LastUsec = timeUsec;
        if (reply || connection->m_Replied) {
            connection->m_Replied = true;
            return Decision::Pass;
        }
    }
    const uint16_t port = static_cast<uint16_t>(packet.Transport()[2] << 8 | packet.Transport()[3]);
    if (!m_Services.AllowsUdp(port)) {
        verdict = Verdict(kRuleDenyUdp);
        return Decision::Record;
    }
    if (connection == nullptr) {
        Open(packet, timeUsec);
    }
    verdict = Verdict(kRuleServiceAllowed);
    return Decision::Record;
}

bool CRulesetModel::Related(const CPacketView& packet) {
    if (packet.TransportLength() <= 8) {
        return false;
    }
    CPacketView quoted;
    if (quoted.Read(packet.Transport() + 8, packet.TransportLength() - 8) !=
            CPacketView::Parse::Ok ||
        quoted.IsIpv6() != packet.IsIpv6()) {
        return false;
    }
    bool reply = false;
    return Find(quoted, reply) != nullptr;
}

CRulesetModel::Decision CRulesetModel::InboundIcmp(const CPacketView& packet, uint64_t timeUsec,
                                                   const RuleVerdict*& verdict) {
    const uint8_t protocol = packet.Protocol();
    const uint8_t type = packet.Transport()[0];
    if (protocol == kIcmpv6 && IsNeighbourDiscovery(type)) {
        return Decision::Pass;
    }
    if (IsIcmpError(protocol, type)) {
        if (Related(packet)) {
            return Decision::Pass;
        }
        verdict = Verdict(kRuleConntrackInvalid);
        return Decision::Record;
    }
    bool reply = false;
    Connection* const connection = Find(packet, reply);
    if (connection != nullptr && (reply || connection->m_Replied)) {
        connection->m_Replied = true;
        connection->m_LastUsec = timeUsec;
        return Decision::Pass;
    }
    // A request opens a new entry, which the ruleset then denies; any other
    // message out of a connection is invalid.
    verdict = Verdict(IsIcmpRequest(protocol, type) ? kRuleDenyIcmp : kRuleConntrackInvalid);
    return Decision::Record;
}

}  // namespace NORVI
