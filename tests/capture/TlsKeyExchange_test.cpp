// RSA key exchanges of the sample capture's TLS 1.2 session become SSL
// requests on the request socket (served here by a thread that decrypts with
// the sample's throwaway key) and key log lines; tshark, when present,
// decrypts the session with the line. The session is also replayed cut into
// small, reordered and repeated segments.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <pcap/pcap.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driver/capture/CaptureSource.h"
#include "driver/linux/SslSocketServer.h"
#include "tests/TempFolder.h"

namespace {

using NORVI::SourceOptions;

const std::string kExamples = std::string(VEXIL_SOURCE_DIR) + "/examples/capture/";

// The key service's part: takes requests from the socket and answers each
// with the secret decrypted by the sample's key; configuration 99 fails.
class KeyService {
public:
    explicit KeyService(const std::string& path) {
        std::string error;
        m_Server = NORVI::CSslSocketServer::Listen(path, error);
        EXPECT_NE(nullptr, m_Server) << error;
        FILE* const file = fopen((kExamples + "server-key.pem").c_str(), "r");
        EXPECT_NE(nullptr, file);
        m_Key = file != nullptr ? PEM_read_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
        if (file != nullptr) {
            fclose(file);
        }
        if (m_Server != nullptr) {
            m_Thread = std::thread([this] { Serve(); });
        }
    }
    ~KeyService() {
        if (m_Server != nullptr) {
            m_Server->Stop();
            m_Thread.join();
        }
        EVP_PKEY_free(m_Key);
    }
    // The headers of the requests served, in order.
    std::vector<std::vector<uint8_t>> m_Headers;
    std::vector<std::vector<uint8_t>> m_Data;

private:
    void Serve() {
        uint8_t header[80];
        std::vector<uint8_t> data;
        while (m_Server->Take(header, data, -1) == NORVI::CSslSocketServer::TakeResult::Request) {
            m_Headers.emplace_back(header, header + 80);
            m_Data.push_back(data);
            uint8_t response[72 + 512] = {};
            memcpy(response + 8, header + 8, 56);
            size_t length = sizeof response - 64;
            EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(m_Key, nullptr);
            const bool tls = header[69] != 0;
            const bool ok =
                header[4] != 99 && data.size() > 2 && EVP_PKEY_decrypt_init(context) == 1 &&
                EVP_PKEY_decrypt(context, response + 64, &length, data.data() + (tls ? 2 : 0),
                                 data.size() - (tls ? 2 : 0)) == 1;
            EVP_PKEY_CTX_free(context);
            length = ok ? length : 0;
            memcpy(response, &length, 4);
            std::string error;
            m_Server->Respond(response, 72 + length, error);
        }
    }

    std::unique_ptr<NORVI::CSslSocketServer> m_Server;
    EVP_PKEY* m_Key = nullptr;
    std::thread m_Thread;
};

struct KeyLog {
    std::vector<std::string> m_Lines;
    uint64_t m_Failed = 0;
    size_t m_Records = 0;
};

KeyLog Replay(const std::string& capture, const std::string& socket,
              const std::vector<NORVI::SslHost>& hosts) {
    SourceOptions options;
    options.m_CapturePath = capture;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    options.m_SslSocketPath = socket;
    options.m_SslHosts = hosts;
    std::string error;
    auto source = NORVI::CreateCaptureSource(options, error);
    EXPECT_NE(nullptr, source) << error;
    KeyLog log;
    NORVI::SourceRecord record;
    while (source != nullptr &&
           source->Next(record, 0) == NORVI::CRecordSource::ReadResult::Record) {
        ++log.m_Records;
    }
    if (source != nullptr) {
        log.m_Lines = source->TakeKeyLog(log.m_Failed);
    }
    return log;
}

// The sample with every TCP segment to or from port 443 cut into pieces of
// 7 bytes, each second pair of pieces swapped and every fifth sent twice.
void Resegment(const std::string& path) {
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const in = pcap_open_offline((kExamples + "sample.pcapng").c_str(), reason);
    ASSERT_NE(nullptr, in) << reason;
    pcap_t* const dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* const out = pcap_dump_open(dead, path.c_str());
    pcap_pkthdr* header;
    const u_char* bytes;
    while (pcap_next_ex(in, &header, &bytes) == 1) {
        const size_t ip = 14;
        const bool ipv4Tcp = header->caplen > ip + 40 && bytes[12] == 0x08 && bytes[ip + 9] == 6;
        const bool tls = ipv4Tcp && ((bytes[ip + 20] << 8 | bytes[ip + 21]) == 443 ||
                                     (bytes[ip + 22] << 8 | bytes[ip + 23]) == 443);
        const size_t tcp = ip + (bytes[ip] & 0x0F) * 4;
        const size_t payload = tls ? tcp + (bytes[tcp + 12] >> 4) * 4 : 0;
        if (!tls || payload >= header->caplen) {
            pcap_dump(reinterpret_cast<u_char*>(out), header, bytes);
            continue;
        }
        const uint32_t seq = uint32_t(bytes[tcp + 4]) << 24 | bytes[tcp + 5] << 16 |
                             bytes[tcp + 6] << 8 | bytes[tcp + 7];
        std::vector<std::vector<uint8_t>> pieces;
        for (size_t at = payload; at < header->caplen; at += 7) {
            const size_t length = std::min<size_t>(7, header->caplen - at);
            std::vector<uint8_t> frame(bytes, bytes + payload);
            frame.insert(frame.end(), bytes + at, bytes + at + length);
            const size_t total = frame.size() - ip;
            frame[ip + 2] = uint8_t(total >> 8);
            frame[ip + 3] = uint8_t(total);
            const uint32_t pieceSeq = seq + uint32_t(at - payload);
            for (int byte = 0; byte < 4; ++byte) {
                frame[tcp + 4 + byte] = uint8_t(pieceSeq >> (24 - 8 * byte));
            }
            pieces.push_back(frame);
        }
        for (size_t index = 0; index + 1 < pieces.size(); index += 4) {
            std::swap(pieces[index], pieces[index + 1]);
        }
        for (size_t index = 0; index < pieces.size(); ++index) {
            pcap_pkthdr piece = *header;
            piece.caplen = piece.len = bpf_u_int32(pieces[index].size());
            for (int copies = index % 5 == 0 ? 2 : 1; copies > 0; --copies) {
                pcap_dump(reinterpret_cast<u_char*>(out), &piece, pieces[index].data());
            }
        }
    }
    pcap_dump_close(out);
    pcap_close(dead);
    pcap_close(in);
}

TEST(TlsKeyExchange, TheSessionsRsaExchangeBecomesARequestAndAKeyLogLine) {
    TempFolder folder;
    const std::string socket = folder.Path() + "/ssl.sock";
    KeyService service(socket);
    const KeyLog log = Replay(kExamples + "sample.pcapng", socket, {{"10.77.0.1", 7}});
    EXPECT_EQ(0u, log.m_Failed);
    ASSERT_EQ(1u, log.m_Lines.size());
    // "RSA", 8 bytes of cipher text, the 48-byte secret (TLS 1.2's version first).
    const std::string& line = log.m_Lines[0];
    EXPECT_EQ(4u + 16 + 1 + 96, line.size()) << line;
    EXPECT_EQ("RSA ", line.substr(0, 4));
    EXPECT_EQ(" 0303", line.substr(20, 5));
    EXPECT_EQ(std::string::npos, line.substr(4, 16).find_first_not_of("0123456789abcdef"));
    EXPECT_EQ(std::string::npos, line.substr(21).find_first_not_of("0123456789abcdef"));
    ASSERT_EQ(1u, service.m_Headers.size());
    const std::vector<uint8_t>& header = service.m_Headers[0];
    const std::vector<uint8_t>& data = service.m_Data[0];
    // A 2048-bit key: 256 bytes behind TLS's prefix; configuration 7, RSA, TLS 1.2.
    EXPECT_EQ(258u, data.size());
    EXPECT_EQ((std::vector<uint8_t>{2, 1, 0, 0, 7, 0, 0, 0}),
              std::vector<uint8_t>(header.begin(), header.begin() + 8));
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 3, 3}),
              std::vector<uint8_t>(header.begin() + 64, header.begin() + 70));
    EXPECT_EQ(1u, data[0]);  // the prefix says 256
    EXPECT_EQ(0u, data[1]);
    char first[17];
    for (int byte = 0; byte < 8; ++byte) {
        snprintf(first + 2 * byte, 3, "%02x", data[2 + byte]);
    }
    EXPECT_EQ(std::string("RSA ") + first, log.m_Lines[0].substr(0, 20));

    // A packet analyser decrypts the session with the line.
    if (system("command -v tshark >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "tshark is not installed: the key log line is not tried on the session";
    }
    const std::string keylog = folder.Path() + "/keys.log";
    FILE* const file = fopen(keylog.c_str(), "w");
    ASSERT_NE(nullptr, file);
    fprintf(file, "%s\n", log.m_Lines[0].c_str());
    fclose(file);
    const std::string command =
        "tshark -r " + kExamples + "sample.pcapng -o tls.keylog_file:" + keylog +
        " -Y http.request -T fields -e http.request.method " + "-e tcp.dstport 2>/dev/null";
    FILE* const pipe = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, pipe);
    std::string output;
    char chunk[256];
    while (fgets(chunk, sizeof chunk, pipe) != nullptr) {
        output += chunk;
    }
    pclose(pipe);
    EXPECT_NE(std::string::npos, output.find("GET\t443")) << output;
}

TEST(TlsKeyExchange, SegmentsCutSmallOutOfOrderAndRepeatedGiveTheSameLine) {
    TempFolder folder;
    const std::string socket = folder.Path() + "/ssl.sock";
    KeyService service(socket);
    const std::string resegmented = folder.Path() + "/resegmented.pcap";
    Resegment(resegmented);
    const KeyLog whole = Replay(kExamples + "sample.pcapng", socket, {{"", 9}});
    const KeyLog pieces = Replay(resegmented, socket, {{"", 9}});
    ASSERT_EQ(1u, whole.m_Lines.size());
    EXPECT_EQ(whole.m_Lines, pieces.m_Lines);
    EXPECT_EQ(0u, pieces.m_Failed);
    ASSERT_EQ(2u, service.m_Headers.size());
    EXPECT_EQ(9, service.m_Headers[1][4]);  // the all-interfaces configuration
}

TEST(TlsKeyExchange, OtherServersMakeNoRequestAndFailuresAreCounted) {
    TempFolder folder;
    const std::string socket = folder.Path() + "/ssl.sock";
    KeyService service(socket);
    struct Case {
        const char* m_Name;
        std::string m_Socket;
        std::vector<NORVI::SslHost> m_Hosts;
        size_t m_Lines;
        uint64_t m_Failed;
    };
    const Case cases[] = {
        {"another server address", socket, {{"10.77.0.9", 7}}, 0, 0},
        {"an IPv6 address", socket, {{"fd77::1", 7}}, 0, 0},
        {"a configuration the service cannot decrypt for", socket, {{"10.77.0.1", 99}}, 0, 1},
        {"no socket", "", {{"10.77.0.1", 7}}, 0, 1},
        {"no service at the socket", folder.Path() + "/none.sock", {{"10.77.0.1", 7}}, 0, 1},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const KeyLog log = Replay(kExamples + "sample.pcapng", test.m_Socket, test.m_Hosts);
        EXPECT_EQ(test.m_Lines, log.m_Lines.size());
        EXPECT_EQ(test.m_Failed, log.m_Failed);
        EXPECT_GT(log.m_Records, 0u);
    }
}

// One IPv4 TCP segment, raw, from the client 10.77.0.3:40000 or the server
// 10.77.0.1:443.
std::vector<uint8_t> Segment(bool fromClient, uint8_t flags, uint32_t seq,
                             const std::vector<uint8_t>& payload, uint16_t clientPort = 40000) {
    std::vector<uint8_t> packet = {0x45, 0, 0, 0, 0, 0, 0x40, 0, 64, 6, 0, 0};
    const uint8_t client[4] = {10, 77, 0, 3};
    const uint8_t server[4] = {10, 77, 0, 1};
    packet.insert(packet.end(), fromClient ? client : server, (fromClient ? client : server) + 4);
    packet.insert(packet.end(), fromClient ? server : client, (fromClient ? server : client) + 4);
    const uint16_t sport = fromClient ? clientPort : 443;
    const uint16_t dport = fromClient ? 443 : clientPort;
    const std::vector<uint8_t> tcp = {uint8_t(sport >> 8),
                                      uint8_t(sport),
                                      uint8_t(dport >> 8),
                                      uint8_t(dport),
                                      uint8_t(seq >> 24),
                                      uint8_t(seq >> 16),
                                      uint8_t(seq >> 8),
                                      uint8_t(seq),
                                      0,
                                      0,
                                      0,
                                      1,
                                      0x50,
                                      flags,
                                      0xFF,
                                      0xFF,
                                      0,
                                      0,
                                      0,
                                      0};
    packet.insert(packet.end(), tcp.begin(), tcp.end());
    packet.insert(packet.end(), payload.begin(), payload.end());
    packet[2] = uint8_t(packet.size() >> 8);
    packet[3] = uint8_t(packet.size());
    return packet;
}

// A record of type with the body, SSL 3.0.
std::vector<uint8_t> TlsRecord(uint8_t type, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> record = {type, 3, 0, uint8_t(body.size() >> 8), uint8_t(body.size())};
    record.insert(record.end(), body.begin(), body.end());
    return record;
}

std::vector<uint8_t> Message(uint8_t type, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> message = {type, 0, uint8_t(body.size() >> 8), uint8_t(body.size())};
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

TEST(TlsKeyExchange, Ssl3ExchangeWithMessagesSharingAndSpanningRecords) {
    TempFolder folder;
    const std::string socket = folder.Path() + "/ssl.sock";
    KeyService service(socket);
    // The client's secret, encrypted with the sample's key.
    std::vector<uint8_t> secret(48);
    secret[0] = 3;
    for (size_t index = 2; index < secret.size(); ++index) {
        secret[index] = uint8_t(index * 7);
    }
    FILE* const file = fopen((kExamples + "server-key.pem").c_str(), "r");
    ASSERT_NE(nullptr, file);
    EVP_PKEY* const key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    fclose(file);
    EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(key, nullptr);
    std::vector<uint8_t> cipher(512);
    size_t cipherLength = cipher.size();
    ASSERT_EQ(1, EVP_PKEY_encrypt_init(context));
    ASSERT_EQ(1, EVP_PKEY_encrypt(context, cipher.data(), &cipherLength, secret.data(), 48));
    cipher.resize(cipherLength);
    EVP_PKEY_CTX_free(context);
    EVP_PKEY_free(key);

    // Server: hello (SSL 3.0, RSA with 3DES), certificate and hello done in
    // one record. Client: hello, then the key exchange split over two
    // records, then the change of cipher spec.
    std::vector<uint8_t> hello = {3, 0};
    hello.resize(2 + 32, 0x11);
    hello.insert(hello.end(), {0, 0x00, 0x0A, 0});
    std::vector<uint8_t> flight = Message(2, hello);
    const std::vector<uint8_t> certificate = Message(11, std::vector<uint8_t>(300, 0x22));
    flight.insert(flight.end(), certificate.begin(), certificate.end());
    const std::vector<uint8_t> done = Message(14, {});
    flight.insert(flight.end(), done.begin(), done.end());
    const std::vector<uint8_t> exchange = Message(16, cipher);
    const size_t half = exchange.size() / 2;
    std::vector<uint8_t> clientFlight =
        TlsRecord(22, std::vector<uint8_t>(exchange.begin(), exchange.begin() + half));
    const std::vector<uint8_t> rest =
        TlsRecord(22, std::vector<uint8_t>(exchange.begin() + half, exchange.end()));
    clientFlight.insert(clientFlight.end(), rest.begin(), rest.end());
    const std::vector<uint8_t> change = TlsRecord(20, {1});
    clientFlight.insert(clientFlight.end(), change.begin(), change.end());
    const std::vector<uint8_t> clientHello = TlsRecord(22, Message(1, std::vector<uint8_t>(40, 1)));
    const std::vector<uint8_t> serverFlight = TlsRecord(22, flight);

    const std::string path = folder.Path() + "/ssl3.pcap";
    pcap_t* const dead = pcap_open_dead(DLT_RAW, 65535);
    pcap_dumper_t* const out = pcap_dump_open(dead, path.c_str());
    uint32_t second = 1700000000;
    const uint32_t client = 1000, server = 5000;
    for (const auto& packet :
         {Segment(true, 0x02, client, {}), Segment(false, 0x12, server, {}),
          Segment(true, 0x10, client + 1, {}), Segment(true, 0x18, client + 1, clientHello),
          Segment(false, 0x18, server + 1, serverFlight),
          Segment(true, 0x18, client + 1 + uint32_t(clientHello.size()), clientFlight)}) {
        pcap_pkthdr header{};
        header.ts.tv_sec = second++;
        header.caplen = header.len = bpf_u_int32(packet.size());
        pcap_dump(reinterpret_cast<u_char*>(out), &header, packet.data());
    }
    pcap_dump_close(out);
    pcap_close(dead);

    const KeyLog log = Replay(path, socket, {{"10.77.0.1", 3}});
    ASSERT_EQ(1u, log.m_Lines.size());
    std::string expected = "RSA ";
    for (size_t index = 0; index < 8; ++index) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", cipher[index]);  // no prefix in SSL 3.0
        expected += digits;
    }
    expected += " ";
    for (uint8_t byte : secret) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        expected += digits;
    }
    EXPECT_EQ(expected, log.m_Lines[0]);
    ASSERT_EQ(1u, service.m_Headers.size());
    EXPECT_EQ(cipher, service.m_Data[0]);
    // preMasterLen 256 (the field alone, no prefix), configuration 3, SSL 3.0.
    const std::vector<uint8_t>& header = service.m_Headers[0];
    EXPECT_EQ((std::vector<uint8_t>{0, 1, 0, 0, 3, 0, 0, 0}),
              std::vector<uint8_t>(header.begin(), header.begin() + 8));
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 3, 0}),
              std::vector<uint8_t>(header.begin() + 64, header.begin() + 70));
}

TEST(TlsKeyExchange, ASynFloodBeforeTheSessionDoesNotKeepItFromBeingFollowed) {
    TempFolder folder;
    const std::string socket = folder.Path() + "/ssl.sock";
    KeyService service(socket);
    // 1500 unanswered SYNs to the server a second before the sample begins.
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const in = pcap_open_offline((kExamples + "sample.pcapng").c_str(), reason);
    ASSERT_NE(nullptr, in) << reason;
    const std::string path = folder.Path() + "/flood.pcap";
    pcap_t* const dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* const out = pcap_dump_open(dead, path.c_str());
    pcap_pkthdr* header;
    const u_char* bytes;
    for (bool first = true; pcap_next_ex(in, &header, &bytes) == 1; first = false) {
        for (int flood = 0; first && flood < 1500; ++flood) {
            std::vector<uint8_t> frame(bytes, bytes + 14);
            frame[12] = 0x08;
            frame[13] = 0x00;
            const std::vector<uint8_t> syn = Segment(true, 0x02, 1, {}, uint16_t(10000 + flood));
            frame.insert(frame.end(), syn.begin(), syn.end());
            pcap_pkthdr synHeader = *header;
            synHeader.ts.tv_sec -= 1;
            synHeader.caplen = synHeader.len = bpf_u_int32(frame.size());
            pcap_dump(reinterpret_cast<u_char*>(out), &synHeader, frame.data());
        }
        pcap_dump(reinterpret_cast<u_char*>(out), header, bytes);
    }
    pcap_dump_close(out);
    pcap_close(dead);
    pcap_close(in);
    const KeyLog log = Replay(path, socket, {{"10.77.0.1", 7}});
    EXPECT_EQ(1u, log.m_Lines.size());
    EXPECT_EQ(0u, log.m_Failed);
}

}  // namespace
