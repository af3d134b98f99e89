// RSA key exchanges in captures become SSL requests on the request socket
// (served here with the sample's throwaway key) and key log lines (which
// tshark decrypts with, in agent_replay_spec): the sample's TLS 1.2 session,
// and an SSL 3.0 session cut small, reordered, repeated or behind a SYN flood.
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "driver/linux/SslSocketServer.h"
#include "tests/TempFolder.h"
#include "tests/capture/CaptureFiles.h"
#include "tests/capture/Packets.h"

namespace {

using namespace capturetest;
using Bytes = std::vector<uint8_t>;

// The key service's part, at a socket in its own folder: takes requests and
// answers each with the secret decrypted by the sample's key; configuration
// 99 fails.
class KeyService {
public:
    KeyService() : m_Socket(m_Folder.Path() + "/ssl.sock") {
        BIO* const file = BIO_new_file((kExamples + "server-key.pem").c_str(), "r");
        m_Key = file ? PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
        BIO_free(file);
        std::string error;
        m_Server = NORVI::CSslSocketServer::Listen(m_Socket, error);
        EXPECT_NE(nullptr, m_Server) << error;
        EXPECT_NE(nullptr, m_Key);
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

    // The capture replayed with its key exchanges sent here (or to socket).
    capturetest::Replay Replay(const std::string& capture, std::vector<NORVI::SslHost> hosts,
                               const std::string* socket = nullptr) {
        NORVI::SourceOptions options = capturetest::SampleOptions(capture);
        options.m_SslSocketPath = socket != nullptr ? *socket : m_Socket;
        options.m_SslHosts = std::move(hosts);
        return capturetest::ReplayCapture(options);
    }

    // The bytes encrypted or decrypted with the sample's key; none when that fails.
    Bytes Crypt(bool encrypt, const uint8_t* bytes, size_t count) {
        EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(m_Key, nullptr);
        Bytes out(512);
        size_t length = out.size();
        const bool ok = encrypt
                            ? EVP_PKEY_encrypt_init(context) == 1 &&
                                  EVP_PKEY_encrypt(context, out.data(), &length, bytes, count) == 1
                            : EVP_PKEY_decrypt_init(context) == 1 &&
                                  EVP_PKEY_decrypt(context, out.data(), &length, bytes, count) == 1;
        EVP_PKEY_CTX_free(context);
        out.resize(ok ? length : 0);
        return out;
    }

    TempFolder m_Folder;
    const std::string m_Socket;
    // The headers and data of the requests served, in order.
    std::vector<Bytes> m_Headers;
    std::vector<Bytes> m_Data;

private:
    void Serve() {
        uint8_t header[80];
        Bytes data;
        while (m_Server->Take(header, data, -1) == NORVI::CSslSocketServer::TakeResult::Request) {
            m_Headers.emplace_back(header, header + 80);
            m_Data.push_back(data);
            const size_t prefix = header[69] != 0 ? 2 : 0;  // TLS's length prefix
            const Bytes secret = header[4] != 99 && data.size() > 2
                                     ? Crypt(false, data.data() + prefix, data.size() - prefix)
                                     : Bytes();
            Bytes response(72 + secret.size());
            const uint32_t length = uint32_t(secret.size());
            memcpy(response.data(), &length, 4);
            memcpy(response.data() + 8, header + 8, 56);
            std::copy(secret.begin(), secret.end(), response.begin() + 64);
            std::string error;
            m_Server->Respond(response.data(), response.size(), error);
        }
    }

    std::unique_ptr<NORVI::CSslSocketServer> m_Server;
    EVP_PKEY* m_Key = nullptr;
    std::thread m_Thread;
};

TEST(TlsKeyExchange, TheSessionsRsaExchangeBecomesARequestAndAKeyLogLine) {
    KeyService service;
    const capturetest::Replay replay = service.Replay(kSample, {{"10.77.0.1", 7}});
    EXPECT_EQ(0u, replay.m_KeyLogFailed);
    ASSERT_EQ(1u, service.m_Headers.size());
    const Bytes& header = service.m_Headers[0];
    const Bytes& data = service.m_Data[0];
    // A 2048-bit key: 256 bytes behind TLS's prefix; configuration 7, RSA, TLS 1.2.
    ASSERT_EQ(258u, data.size());
    EXPECT_EQ((Bytes{1, 0}), Bytes(data.begin(), data.begin() + 2));
    EXPECT_EQ((Bytes{2, 1, 0, 0, 7, 0, 0, 0}), Bytes(header.begin(), header.begin() + 8));
    EXPECT_EQ((Bytes{1, 0, 0, 0, 3, 3}), Bytes(header.begin() + 64, header.begin() + 70));
    // "RSA", 8 bytes of cipher text, the 48-byte secret (TLS 1.2's version first).
    const Bytes secret = service.Crypt(false, data.data() + 2, 256);
    EXPECT_EQ((std::vector<std::string>{"RSA " + Hex(data.data() + 2, 8) + " 0303" +
                                        Hex(secret.data() + 2, 46)}),
              replay.m_KeyLog);
}

// One IPv4 TCP segment, raw, from the client 10.77.0.3:port or the server
// 10.77.0.1:443.
Bytes Segment(bool fromClient, uint8_t flags, uint32_t seq, const Bytes& payload = {},
              uint16_t clientPort = 40000) {
    return fromClient
               ? packettest::Tcp("10.77.0.3", "10.77.0.1", clientPort, 443, flags, seq, payload)
               : packettest::Tcp("10.77.0.1", "10.77.0.3", 443, clientPort, flags, seq, payload);
}

TEST(TlsKeyExchange, OtherServersMakeNoRequestAndFailuresAreCounted) {
    KeyService service;
    const std::string none = "", absent = service.m_Folder.Path() + "/none.sock";
    struct Case {
        const char* m_Name;
        const std::string* m_Socket;
        std::vector<NORVI::SslHost> m_Hosts;
        uint64_t m_Failed;
    };
    const Case cases[] = {
        {"another server address", nullptr, {{"10.77.0.9", 7}}, 0},
        {"an IPv6 address", nullptr, {{"fd77::1", 7}}, 0},
        {"a configuration the service cannot decrypt for", nullptr, {{"10.77.0.1", 99}}, 1},
        {"no socket", &none, {{"10.77.0.1", 7}}, 1},
        {"no service at the socket", &absent, {{"10.77.0.1", 7}}, 1},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const capturetest::Replay replay = service.Replay(kSample, test.m_Hosts, test.m_Socket);
        EXPECT_EQ(0u, replay.m_KeyLog.size());
        EXPECT_EQ(test.m_Failed, replay.m_KeyLogFailed);
        EXPECT_GT(replay.m_Records.size(), 0u);
    }
}

Bytes Framed(const Bytes& prefix, const Bytes& body) {
    Bytes framed = prefix;
    framed.insert(framed.end(), {uint8_t(body.size() >> 8), uint8_t(body.size())});
    framed.insert(framed.end(), body.begin(), body.end());
    return framed;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// An SSL 3.0 session whose client sends cipher as its key exchange. Server:
// hello (RSA with 3DES), certificate and hello done in one record. Client:
// hello, then the key exchange split over two records, then the change of
// cipher spec. With piece, each flight goes in segments of that many bytes,
// each second pair swapped and every fifth sent twice.
Frames Ssl3Session(const Bytes& cipher, size_t piece = 0) {
    // A record of type with the body, SSL 3.0; a handshake message of type.
    const auto record = [](uint8_t type, const Bytes& body) { return Framed({type, 3, 0}, body); };
    const auto message = [](uint8_t type, const Bytes& body) { return Framed({type, 0}, body); };
    Bytes hello = {3, 0};
    hello.resize(2 + 32, 0x11);
    hello.insert(hello.end(), {0, 0x00, 0x0A, 0});
    const Bytes serverFlight =
        record(22, message(2, hello) + message(11, Bytes(300, 0x22)) + message(14, {}));
    const Bytes exchange = message(16, cipher);
    const size_t half = exchange.size() / 2;
    const Bytes clientFlight = record(22, Bytes(exchange.begin(), exchange.begin() + half)) +
                               record(22, Bytes(exchange.begin() + half, exchange.end())) +
                               record(20, {1});
    const Bytes clientHello = record(22, message(1, Bytes(40, 1)));
    const uint32_t client = 1000, server = 5000;
    Frames frames = {{Segment(true, 0x02, client)},
                     {Segment(false, 0x12, server)},
                     {Segment(true, 0x10, client + 1)}};
    const std::tuple<bool, uint32_t, const Bytes&> flights[] = {
        {true, client + 1, clientHello},
        {false, server + 1, serverFlight},
        {true, client + 1 + uint32_t(clientHello.size()), clientFlight}};
    for (const auto& [fromClient, seq, payload] : flights) {
        Frames pieces;
        const size_t size = piece != 0 ? piece : payload.size();
        for (size_t at = 0; at < payload.size(); at += size) {
            const Bytes part(payload.begin() + at,
                             payload.begin() + std::min(at + size, payload.size()));
            pieces.push_back({Segment(fromClient, 0x18, seq + uint32_t(at), part)});
        }
        for (size_t index = 0; index < pieces.size(); ++index) {
            const size_t from = index % 4 < 2 && (index ^ 1) < pieces.size() ? index ^ 1 : index;
            frames.insert(frames.end(), piece != 0 && index % 5 == 0 ? 2 : 1, pieces[from]);
        }
    }
    return frames;
}

// The session whole, cut small out of order and repeated, and after 1500
// unanswered SYNs to the server in the second before it: the same line.
TEST(TlsKeyExchange, Ssl3ExchangeWholeCutSmallOrBehindAFloodGivesTheLine) {
    KeyService service;
    // The client's secret, encrypted with the sample's key.
    Bytes secret = {3, 0};
    secret.resize(48, 0x5a);
    const Bytes cipher = service.Crypt(true, secret.data(), secret.size());
    ASSERT_EQ(256u, cipher.size());

    Frames flood;
    for (int syn = 0; syn < 1500; ++syn) {
        flood.push_back({Segment(true, 0x02, 1, {}, uint16_t(10000 + syn)), {1699999999, syn}});
    }
    const Frames whole = Ssl3Session(cipher);
    flood.insert(flood.end(), whole.begin(), whole.end());
    const std::string path = service.m_Folder.Path() + "/ssl3.pcap";
    for (const Frames& frames : {whole, Ssl3Session(cipher, 7), flood}) {
        capturetest::WriteCapture(path, DLT_RAW, frames);
        // The all-interfaces configuration; no length prefix in SSL 3.0.
        const capturetest::Replay replay = service.Replay(path, {{"", 3}});
        EXPECT_EQ((std::vector<std::string>{"RSA " + Hex(cipher.data(), 8) + " " +
                                            Hex(secret.data(), 48)}),
                  replay.m_KeyLog);
    }
    ASSERT_EQ(3u, service.m_Headers.size());
    EXPECT_EQ(cipher, service.m_Data[0]);
    // preMasterLen 256 (the field alone, no prefix), configuration 3, SSL 3.0.
    const Bytes& header = service.m_Headers[0];
    EXPECT_EQ((Bytes{0, 1, 0, 0, 3, 0, 0, 0}), Bytes(header.begin(), header.begin() + 8));
    EXPECT_EQ((Bytes{1, 0, 0, 0, 3, 0}), Bytes(header.begin() + 64, header.begin() + 70));
}

}  // namespace
