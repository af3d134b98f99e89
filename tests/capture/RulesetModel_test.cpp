// The ruleset model on packet sequences that the sample capture lacks: each
// case is a short exchange between the host (10.0.0.1, fd00::1, services
// tcp:22 and udp:53) and a peer, with the verdict of each packet.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/capture/RulesetModel.h"
#include "tests/capture/Packets.h"

namespace {

using NORVI::CPacketView;
using NORVI::CRulesetModel;
using namespace packettest;

constexpr uint8_t FIN = 0x01, SYN = 0x02, RST = 0x04, PSH = 0x08, ACK = 0x10, URG = 0x20;
const char* const kHost = "10.0.0.1";
const char* const kPeer = "10.0.0.2";

struct Step {
    std::vector<uint8_t> m_Packet;
    uint32_t m_Rule;  // 0: no record
    uint64_t m_Second = 0;
};

void Expect(const char* name, const std::vector<Step>& steps) {
    SCOPED_TRACE(name);
    CRulesetModel model;
    NORVI::CServiceList services;
    std::string error;
    ASSERT_TRUE(services.Parse("tcp:22, udp:53", error)) << error;
    ASSERT_TRUE(model.Configure({kHost, "fd00::1"}, services, error)) << error;
    for (size_t index = 0; index < steps.size(); ++index) {
        CPacketView view;
        ASSERT_EQ(CPacketView::Parse::Ok,
                  view.Read(steps[index].m_Packet.data(), steps[index].m_Packet.size()));
        const NORVI::RuleVerdict* verdict = nullptr;
        const auto decision = model.Judge(view, steps[index].m_Second * 1000000, verdict);
        const uint32_t rule = decision == CRulesetModel::Decision::Record ? verdict->m_Id : 0;
        EXPECT_EQ(steps[index].m_Rule, rule) << "step " << index;
    }
}

TEST(RulesetModel, VerdictsOfShortExchanges) {
    Expect("flag rules come first in their order",
           {{Tcp(kPeer, kHost, 1000, 22, 0), NORVI::kRuleTcpNull},
            {Tcp(kPeer, kHost, 1000, 22, FIN | PSH | URG | SYN), NORVI::kRuleTcpXmas},
            {Tcp(kPeer, kHost, 1000, 22, SYN | FIN), NORVI::kRuleTcpSynFin},
            {Tcp(kPeer, kHost, 1000, 22, SYN | RST), NORVI::kRuleTcpSynRst},
            {Tcp(kPeer, kHost, 1000, 22, FIN), NORVI::kRuleTcpFinNoAck},
            {Tcp(kPeer, kHost, 1000, 22, PSH), NORVI::kRuleTcpPshNoAck},
            {Tcp(kPeer, kHost, 1000, 22, URG), NORVI::kRuleTcpUrgNoAck},
            // Even inside an established connection.
            {Tcp(kPeer, kHost, 1001, 22, SYN), NORVI::kRuleServiceAllowed},
            {Tcp(kHost, kPeer, 22, 1001, SYN | ACK), 0},
            {Tcp(kPeer, kHost, 1001, 22, PSH), NORVI::kRuleTcpPshNoAck},
            {Tcp(kPeer, kHost, 1001, 22, PSH | ACK), 0}});
    Expect("stray TCP is invalid or new but not SYN, as connection tracking sees it",
           {{Tcp(kPeer, kHost, 1000, 22, SYN | ACK), NORVI::kRuleConntrackInvalid},
            {Tcp(kPeer, kHost, 1000, 22, RST), NORVI::kRuleConntrackInvalid},
            {Tcp(kPeer, kHost, 1000, 22, FIN | ACK), NORVI::kRuleConntrackInvalid},
            {Tcp(kPeer, kHost, 1000, 22, ACK), NORVI::kRuleTcpNewNotSyn},
            {Tcp(kPeer, kHost, 1000, 22, PSH | ACK), NORVI::kRuleTcpNewNotSyn},
            {Tcp(kPeer, kHost, 1000, 23, SYN), NORVI::kRuleDenyTcp},
            // A denied SYN opens nothing.
            {Tcp(kPeer, kHost, 1000, 23, ACK), NORVI::kRuleTcpNewNotSyn}});
    Expect("connections are new until the first reply and end on RST or FIN",
           {{Tcp(kPeer, kHost, 1000, 22, SYN), NORVI::kRuleServiceAllowed},
            {Tcp(kPeer, kHost, 1000, 22, SYN), NORVI::kRuleServiceAllowed},  // no reply yet
            {Tcp(kPeer, kHost, 1000, 22, ACK), NORVI::kRuleTcpNewNotSyn},
            {Tcp(kHost, kPeer, 22, 1000, SYN | ACK), 0},
            {Tcp(kPeer, kHost, 1000, 22, ACK), 0},
            {Tcp(kPeer, kHost, 1000, 22, RST | ACK), 0},
            {Tcp(kPeer, kHost, 1000, 22, ACK), NORVI::kRuleTcpNewNotSyn},  // ended by RST
            {Tcp(kPeer, kHost, 2000, 22, SYN), NORVI::kRuleServiceAllowed},
            {Tcp(kHost, kPeer, 22, 2000, SYN | ACK), 0},
            {Tcp(kPeer, kHost, 2000, 22, FIN | ACK), 0},
            {Tcp(kHost, kPeer, 22, 2000, FIN | ACK), 0},
            {Tcp(kPeer, kHost, 2000, 22, ACK), 0},                           // the last ACK
            {Tcp(kPeer, kHost, 2000, 22, SYN), NORVI::kRuleServiceAllowed},  // opened again
            // The host's own connections: answers are established.
            {Tcp(kHost, kPeer, 3000, 80, SYN), 0},
            {Tcp(kPeer, kHost, 80, 3000, SYN | ACK), 0},
            {Tcp(kPeer, kHost, 80, 3000, PSH | ACK), 0}});
    const std::vector<uint8_t> query = Udp(kHost, kPeer, 5000, 53);
    Expect("UDP, ICMP, other protocols and idle entries",
           {{Udp(kPeer, kHost, 4000, 53), NORVI::kRuleServiceAllowed},
            {Udp(kPeer, kHost, 4000, 53), NORVI::kRuleServiceAllowed},
            {Udp(kHost, kPeer, 53, 4000), 0},
            {Udp(kPeer, kHost, 4000, 53), 0},
            {Udp(kPeer, kHost, 4000, 54), NORVI::kRuleDenyUdp},
            {query, 0},
            {Icmp(kPeer, kHost, 3, query), 0},  // related to the host's query
            {Icmp(kPeer, kHost, 3, Udp(kHost, kPeer, 5001, 53)), NORVI::kRuleConntrackInvalid},
            {Icmp(kPeer, kHost, 11, {0x45, 0}), NORVI::kRuleConntrackInvalid},  // quote cut short
            {Icmp(kPeer, kHost, 8), NORVI::kRuleDenyIcmp},
            {Icmp(kPeer, kHost, 0), NORVI::kRuleConntrackInvalid},
            {Icmp(kHost, kPeer, 8), 0},
            {Icmp(kPeer, kHost, 0), 0},
            {Ip(kPeer, kHost, 47, {0, 0, 0, 0}), NORVI::kRuleDenyOther},
            // Idle past connection tracking's timeout, the UDP entry is gone.
            {Udp(kPeer, kHost, 4000, 53), NORVI::kRuleServiceAllowed, 400},
            // Not the host's: neither to nor from it.
            {Tcp(kPeer, "10.0.0.3", 1000, 22, 0), 0}});
    Expect("IPv6 follows the same rules and lets neighbour discovery pass",
           {{Icmp("fd00::2", "fd00::1", 135), 0},
            {Icmp("fd00::2", "fd00::1", 128), NORVI::kRuleDenyIcmp},
            {Icmp("fd00::2", "fd00::1", 130), NORVI::kRuleConntrackInvalid},
            {Tcp("fd00::2", "fd00::1", 1000, 22, SYN), NORVI::kRuleServiceAllowed},
            {Tcp("fd00::1", "fd00::2", 22, 1000, SYN | ACK), 0},
            {Tcp("fd00::2", "fd00::1", 1000, 22, ACK), 0},
            {Tcp("fd00::2", "fd00::1", 1000, 23, FIN | PSH | URG), NORVI::kRuleTcpXmas},
            {Udp("fd00::2", "fd00::1", 1000, 54), NORVI::kRuleDenyUdp}});
}

}  // namespace
