// CTlsHandshakeTracker: finds the RSA key exchanges of TLS and SSL 3.0
// handshakes in the TCP packets of a capture.
//
// A connection is followed from its SYN when its server address matches an
// SSL host configuration (by address, or one for all interfaces). Both
// directions are put back in sequence order, with a bounded buffer for
// segments that come early; records are taken apart even when they are
// split across segments, and several handshake messages in one record (or
// one message over several records) are found. The server's hello says the
// protocol version and whether the cipher suite exchanges its key by RSA;
// the client's key exchange message then gives the encrypted pre-master
// secret. Following ends at the key exchange, at a change of cipher spec,
// at anything that is not TLS, when a buffer would overflow, or when the
// table is full and the connection has been idle longest.
//
// Threads: one object is used by one thread at a time.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "driver/linux/RecordSource.h"
#include "driver/record/PacketView.h"

namespace NORVI {

class CTlsHandshakeTracker {
public:
    // One RSA key exchange found.
    struct KeyExchange {
        uint32_t m_ConfigurationId = 0;
        uint8_t m_Major = 0;
        uint8_t m_Minor = 0;
        // The encrypted pre-master field as the message holds it: for TLS
        // with its two-byte length prefix, for SSL 3.0 without one.
        std::vector<uint8_t> m_Field;
    };

    // False with the reason in error when an address is not one.
    bool Configure(const std::vector<SslHost>& hosts, std::string& error);
    bool Enabled() const { return !m_Hosts.empty(); }

    // Follows one TCP packet (a packet with a complete TCP header) seen at
    // the capture time timeUsec; the key exchange it completes, if any, is
    // appended to found.
    void Feed(const CPacketView& packet, uint64_t timeUsec, std::vector<KeyExchange>& found);

    size_t FollowedCount() const { return m_Connections.size(); }

private:
    struct Host {
        bool m_AllInterfaces = false;
        bool m_Ipv6 = false;
        std::array<uint8_t, 16> m_Address{};
        uint32_t m_ConfigurationId = 0;
    };

    // One direction of a connection, in sequence order.
    struct Stream {
        bool m_Started = false;
        uint32_t m_NextSeq = 0;
        std::vector<uint8_t> m_Bytes;                      // received, not yet taken apart
        std::map<uint32_t, std::vector<uint8_t>> m_Early;  // segments ahead of m_NextSeq
        size_t m_EarlyBytes = 0;
        std::vector<uint8_t> m_Handshake;  // handshake bytes of the records so far
    };

    struct Connection {
        uint32_t m_ConfigurationId = 0;
        Stream m_Client;
        Stream m_Server;
        bool m_ServerHelloSeen = false;
        bool m_Rsa = false;
        uint8_t m_Major = 0;
        uint8_t m_Minor = 0;
        uint64_t m_LastUsec = 0;
    };

    enum class Step { More, Done, GiveUp };

    const Host* MatchServer(const CPacketView& packet) const;
    // Makes room for a new connection: forgets the idle ones, or else the
    // one idle longest.
    void MakeRoom(uint64_t timeUsec);
    static std::string Key(const CPacketView& packet, bool reversed);
    // Adds a segment's payload; false when the stream cannot be followed.
    static bool Accept(Stream& stream, uint32_t seq, const uint8_t* payload, size_t length);
    // Takes records and handshake messages apart.
    Step ReadServer(Connection& connection);
    Step ReadClient(Connection& connection, std::vector<KeyExchange>& found);
    static Step TakeRecords(Stream& stream);

    std::vector<Host> m_Hosts;
    std::map<std::string, Connection> m_Connections;
};

}  // namespace NORVI
