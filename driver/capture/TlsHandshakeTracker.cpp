#include "driver/capture/TlsHandshakeTracker.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>

namespace NORVI {

namespace {

constexpr uint8_t kSyn = 0x02;
constexpr uint8_t kRst = 0x04;
constexpr uint8_t kAck = 0x10;

// Connections followed at once, and the idle time after which one is
// forgotten when room is needed.
constexpr size_t kMaxConnections = 1024;
constexpr uint64_t kIdleUsec = 120 * 1000000ull;
// Bytes a stream holds in order, ahead of order, and of handshake messages.
constexpr size_t kMaxBuffered = 65536;
constexpr size_t kMaxEarlySegments = 32;
// The largest record that TLS allows (plain text and its expansion).
constexpr size_t kMaxRecord = 16384 + 2048;

constexpr uint8_t kChangeCipherSpec = 20;
constexpr uint8_t kAlert = 21;
constexpr uint8_t kHandshake = 22;
constexpr uint8_t kApplicationData = 23;
constexpr uint8_t kServerHello = 2;
constexpr uint8_t kClientKeyExchange = 16;

// Cipher suites whose key exchange is RSA (the client encrypts the
// pre-master secret with the server's key), in ascending order.
constexpr uint16_t kRsaSuites[] = {
    0x0001, 0x0002, 0x0003, 0x0004, 0x0005, 0x0006, 0x0007, 0x0008, 0x0009, 0x000A, 0x002F, 0x0035,
    0x003B, 0x003C, 0x003D, 0x0041, 0x0060, 0x0061, 0x0062, 0x0064, 0x0084, 0x0096, 0x009C, 0x009D,
    0x00BA, 0x00C0, 0xC03C, 0xC03D, 0xC050, 0xC051, 0xC07A, 0xC07B, 0xC09C, 0xC09D, 0xC0A0, 0xC0A1,
};

bool IsRsaSuite(uint16_t suite) {
    return std::binary_search(std::begin(kRsaSuites), std::end(kRsaSuites), suite);
}

uint16_t Read16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

uint32_t Read32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// Appends what of a segment at seq lies at or beyond next, and moves next.
void AppendFrom(std::vector<uint8_t>& bytes, uint32_t& next, uint32_t seq, const uint8_t* payload,
                size_t length) {
    const uint32_t behind = next - seq;  // how much of the segment was had before
    if (behind >= length) {
        return;
    }
    bytes.insert(bytes.end(), payload + behind, payload + length);
    next += static_cast<uint32_t>(length - behind);
}

}  // namespace

bool CTlsHandshakeTracker::Configure(const std::vector<SslHost>& hosts, std::string& error) {
    std::vector<Host> parsed;
    for (const SslHost& host : hosts) {
        Host entry;
        entry.m_ConfigurationId = host.m_ConfigurationId;
        if (host.m_Address.empty()) {
            entry.m_AllInterfaces = true;
        } else if (inet_pton(AF_INET, host.m_Address.c_str(), entry.m_Address.data()) == 1) {
            entry.m_Ipv6 = false;
        } else if (inet_pton(AF_INET6, host.m_Address.c_str(), entry.m_Address.data()) == 1) {
            entry.m_Ipv6 = true;
        } else {
            error = "SSL host address \"" + host.m_Address.substr(0, 64) +
                    "\" is no IPv4 or IPv6 address";
            return false;
        }
        parsed.push_back(entry);
    }
    m_Hosts.swap(parsed);
    m_Connections.clear();
    return true;
}

const CTlsHandshakeTracker::Host* CTlsHandshakeTracker::MatchServer(
    const CPacketView& packet) const {
    for (const Host& host : m_Hosts) {
        if (host.m_AllInterfaces ||
            (host.m_Ipv6 == packet.IsIpv6() &&
             memcmp(host.m_Address.data(), packet.Destination(), packet.AddressLength()) == 0)) {
            return &host;
        }
    }
    return nullptr;
}

std::string CTlsHandshakeTracker::Key(const CPacketView& packet, bool reversed) {
    const size_t length = packet.AddressLength();
    const uint8_t* const ports = packet.Transport();
    std::string key;
    key.append(reinterpret_cast<const char*>(reversed ? packet.Destination() : packet.Source()),
               length);
    key.append(reinterpret_cast<const char*>(reversed ? packet.Source() : packet.Destination()),
               length);
    key.append(reinterpret_cast<const char*>(reversed ? ports + 2 : ports), 2);
    key.append(reinterpret_cast<const char*>(reversed ? ports : ports + 2), 2);
    return key;
}

bool CTlsHandshakeTracker::Accept(Stream& stream, uint32_t seq, const uint8_t* payload,
                                  size_t length) {
    if (length == 0) {
        return true;
    }
    if (static_cast<int32_t>(seq - stream.m_NextSeq) > 0) {
        // Ahead of what was had: keep it until the gap is filled.
        if (stream.m_Early.size() >= kMaxEarlySegments ||
            stream.m_EarlyBytes + length > kMaxBuffered) {
            return false;
        }
        auto& early = stream.m_Early[seq];
        if (early.size() < length) {
            stream.m_EarlyBytes += length - early.size();
            early.assign(payload, payload + length);
        }
        return true;
    }
    AppendFrom(stream.m_Bytes, stream.m_NextSeq, seq, payload, length);
    for (bool moved = true; moved;) {
        moved = false;
        for (auto early = stream.m_Early.begin(); early != stream.m_Early.end(); ++early) {
            if (static_cast<int32_t>(early->first - stream.m_NextSeq) <= 0) {
                AppendFrom(stream.m_Bytes, stream.m_NextSeq, early->first, early->second.data(),
                           early->second.size());
                stream.m_EarlyBytes -= early->second.size();
                stream.m_Early.erase(early);
                moved = true;
                break;
            }
        }
    }
    return stream.m_Bytes.size() <= kMaxBuffered;
}

CTlsHandshakeTracker::Step CTlsHandshakeTracker::TakeRecords(Stream& stream) {
    std::vector<uint8_t>& bytes = stream.m_Bytes;
    size_t position = 0;
    Step step = Step::More;
    while (bytes.size() - position >= 5) {
        const uint8_t* const record = bytes.data() + position;
        const size_t length = Read16(record + 3);
        if (record[0] < kChangeCipherSpec || record[0] > kApplicationData || record[1] != 3 ||
            length > kMaxRecord) {
            step = Step::GiveUp;  // not TLS (or SSL 3.0) records
            break;
        }
        if (bytes.size() - position < 5 + length) {
            break;  // the rest of the record is still to come
        }
        position += 5 + length;
        if (record[0] == kHandshake) {
            if (stream.m_Handshake.size() + length > kMaxBuffered) {
                step = Step::GiveUp;
                break;
            }
            stream.m_Handshake.insert(stream.m_Handshake.end(), record + 5, record + 5 + length);
        } else if (record[0] != kAlert) {
            step = Step::Done;  // from here on the records are encrypted
            break;
        }
    }
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(position));
    return step;
}

CTlsHandshakeTracker::Step CTlsHandshakeTracker::ReadServer(Connection& connection) {
    const Step records = TakeRecords(connection.m_Server);
    std::vector<uint8_t>& messages = connection.m_Server.m_Handshake;
    while (messages.size() >= 4) {
        const size_t length = static_cast<size_t>(messages[1]) << 16 | Read16(&messages[2]);
        if (messages.size() - 4 < length) {
            break;
        }
        if (messages[0] == kServerHello) {
            const uint8_t* const body = messages.data() + 4;
            // version (2), random (32), session id (1 + n), cipher suite (2)
            if (length < 35 || length < 35 + static_cast<size_t>(body[34]) + 2 || body[0] != 3) {
                return Step::GiveUp;
            }
            connection.m_Major = body[0];
            connection.m_Minor = body[1];
            connection.m_Rsa = IsRsaSuite(Read16(body + 35 + body[34]));
            connection.m_ServerHelloSeen = true;
            // Only the hello was wanted from the server.
            return connection.m_Rsa ? Step::More : Step::GiveUp;
        }
        messages.erase(messages.begin(),
                       messages.begin() + static_cast<std::ptrdiff_t>(4 + length));
    }
    return records == Step::More ? Step::More : Step::GiveUp;
}

CTlsHandshakeTracker::Step CTlsHandshakeTracker::ReadClient(Connection& connection,
                                                            std::vector<KeyExchange>& found) {
    const Step records = TakeRecords(connection.m_Client);
    std::vector<uint8_t>& messages = connection.m_Client.m_Handshake;
    while (messages.size() >= 4) {
        const size_t length = static_cast<size_t>(messages[1]) << 16 | Read16(&messages[2]);
        if (messages.size() - 4 < length) {
            break;
        }
        if (messages[0] == kClientKeyExchange) {
            if (!connection.m_ServerHelloSeen) {
                return Step::GiveUp;
            }
            const uint8_t* const body = messages.data() + 4;
            const bool ssl3 = connection.m_Minor == 0;
            // The secret itself must have the 8 bytes that the key log names.
            const size_t prefix = ssl3 ? 0 : 2;
            if (length < prefix + 8 || (!ssl3 && Read16(body) != length - 2)) {
                return Step::GiveUp;
            }
            KeyExchange exchange;
            exchange.m_ConfigurationId = connection.m_ConfigurationId;
            exchange.m_Major = connection.m_Major;
            exchange.m_Minor = connection.m_Minor;
            exchange.m_Field.assign(body, body + length);
            found.push_back(std::move(exchange));
            return Step::Done;
        }
        messages.erase(messages.begin(),
                       messages.begin() + static_cast<std::ptrdiff_t>(4 + length));
    }
    return records == Step::More ? Step::More : Step::GiveUp;
}

void CTlsHandshakeTracker::MakeRoom(uint64_t timeUsec) {
    auto oldest = m_Connections.end();
    for (auto entry = m_Connections.begin(); entry != m_Connections.end();) {
        if (timeUsec > entry->second.m_LastUsec + kIdleUsec) {
            entry = m_Connections.erase(entry);
            continue;
        }
        if (oldest == m_Connections.end() || entry->second.m_LastUsec < oldest->second.m_LastUsec) {
            oldest = entry;
        }
        ++entry;
    }
    if (m_Connections.size() >= kMaxConnections && oldest != m_Connections.end()) {
        m_Connections.erase(oldest);
    }
}

void CTlsHandshakeTracker::Feed(const CPacketView& packet, uint64_t timeUsec,
                                std::vector<KeyExchange>& found) {
    if (m_Hosts.empty() || packet.Protocol() != 6 || !packet.TransportComplete()) {
        return;
    }
    const uint8_t* const tcp = packet.Transport();
    const size_t headerLength = static_cast<size_t>(tcp[12] >> 4) * 4;
    if (headerLength < 20 || headerLength > packet.TransportLength()) {
        return;
    }
    const uint8_t flags = tcp[13];
    const uint32_t seq = Read32(tcp + 4);
    if ((flags & (kSyn | kAck | kRst)) == kSyn) {
        const Host* const host = MatchServer(packet);
        if (host != nullptr) {
            if (m_Connections.size() >= kMaxConnections) {
                MakeRoom(timeUsec);
            }
            Connection& connection = m_Connections[Key(packet, false)];
            connection = Connection();
            connection.m_LastUsec = timeUsec;
            connection.m_ConfigurationId = host->m_ConfigurationId;
            connection.m_Client.m_Started = true;
            connection.m_Client.m_NextSeq = seq + 1;
        }
        return;
    }
    bool fromServer = false;
    auto entry = m_Connections.find(Key(packet, false));
    if (entry == m_Connections.end()) {
        entry = m_Connections.find(Key(packet, true));
        fromServer = true;
        if (entry == m_Connections.end()) {
            return;
        }
    }
    Connection& connection = entry->second;
    connection.m_LastUsec = timeUsec;
    if (flags & kRst) {
        m_Connections.erase(entry);
        return;
    }
    Stream& stream = fromServer ? connection.m_Server : connection.m_Client;
    if (fromServer && (flags & kSyn)) {
        stream.m_Started = true;
        stream.m_NextSeq = seq + 1;
        return;
    }
    if (!stream.m_Started || (fromServer && connection.m_ServerHelloSeen)) {
        return;
    }
    if (!Accept(stream, seq, tcp + headerLength, packet.TransportLength() - headerLength)) {
        m_Connections.erase(entry);
        return;
    }
    const Step step = fromServer ? ReadServer(connection) : ReadClient(connection, found);
    if (step != Step::More) {
        m_Connections.erase(entry);
    }
}

}  // namespace NORVI
