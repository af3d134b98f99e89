#include "driver/capture/SslKeyRequester.h"

#include <string.h>

#include "driver/linux/SslSocketClient.h"
#include "driver/linux/SslSocketProtocol.h"

namespace NORVI {

namespace {

constexpr size_t kPreMasterSecret = 48;
constexpr uint32_t kRsaKeyExchange = 1;
// Offsets in the request header.
constexpr size_t kPreMasterLenOffset = 0;
constexpr size_t kConfigurationIdOffset = 4;
constexpr size_t kMethodOffset = 64;
constexpr size_t kMajorOffset = 68;
constexpr size_t kMinorOffset = 69;
constexpr size_t kResponseSecretOffset = 64;

void PutLe32(uint8_t* target, uint32_t value) {
    for (size_t byte = 0; byte < 4; ++byte) {
        target[byte] = static_cast<uint8_t>(value >> (8 * byte));
    }
}

void AppendHex(std::string& text, const uint8_t* bytes, size_t length) {
    static const char kDigits[] = "0123456789abcdef";
    for (size_t index = 0; index < length; ++index) {
        text.push_back(kDigits[bytes[index] >> 4]);
        text.push_back(kDigits[bytes[index] & 0x0F]);
    }
}

}  // namespace

CSslKeyRequester::CSslKeyRequester(std::string socketPath, int timeoutMs)
    : m_SocketPath(std::move(socketPath)), m_TimeoutMs(timeoutMs) {}

CSslKeyRequester::~CSslKeyRequester() = default;

bool CSslKeyRequester::Ask(const CTlsHandshakeTracker::KeyExchange& exchange,
                           std::vector<uint8_t>& secret) {
    if (m_SocketPath.empty()) {
        m_LastFailure = "no SSL socket given";
        return false;
    }
    if (exchange.m_Field.size() > kSslDataMax) {
        m_LastFailure = "encrypted pre-master field too long";
        return false;
    }
    if (m_Client == nullptr) {
        auto client = std::make_unique<CSslSocketClient>();
        if (!client->Connect(m_SocketPath, m_LastFailure)) {
            return false;
        }
        m_Client = std::move(client);
    }
    uint8_t header[kSslHeaderSize] = {};
    PutLe32(header + kPreMasterLenOffset, static_cast<uint32_t>(exchange.m_Field.size()));
    PutLe32(header + kConfigurationIdOffset, exchange.m_ConfigurationId);
    const uint64_t context = m_NextContext++;
    memcpy(header + kSslContextOffset, &context, sizeof context);
    PutLe32(header + kMethodOffset, kRsaKeyExchange);
    header[kMajorOffset] = exchange.m_Major;
    header[kMinorOffset] = exchange.m_Minor;
    if (!m_Client->Submit(header, exchange.m_Field.data(),
                          static_cast<uint32_t>(exchange.m_Field.size()), m_LastFailure)) {
        m_Client.reset();
        return false;
    }
    std::vector<uint8_t> response;
    // Answers carry their context back; one of an earlier request that timed
    // out is passed over.
    for (;;) {
        const auto result = m_Client->Receive(response, m_TimeoutMs, m_LastFailure);
        if (result != CSslSocketClient::ReceiveResult::Response) {
            if (result == CSslSocketClient::ReceiveResult::Timeout) {
                m_LastFailure = "the SSL service did not answer in time";
            } else if (result == CSslSocketClient::ReceiveResult::Closed) {
                m_LastFailure = "the SSL service closed the connection";
            }
            m_Client.reset();
            return false;
        }
        if (response.size() >= kSslResponseMin &&
            memcmp(response.data() + kSslContextOffset, header + kSslContextOffset,
                   kSslContextSize) == 0) {
            break;
        }
    }
    uint32_t decrypted = 0;
    for (size_t byte = 0; byte < 4; ++byte) {
        decrypted |= static_cast<uint32_t>(response[byte]) << (8 * byte);
    }
    if (decrypted != kPreMasterSecret || response.size() < kResponseSecretOffset + decrypted) {
        m_LastFailure = decrypted == 0 ? "the SSL service could not decrypt the secret"
                                       : "the SSL service answered a secret of unusual length";
        return false;
    }
    secret.assign(response.begin() + kResponseSecretOffset,
                  response.begin() + kResponseSecretOffset + decrypted);
    return true;
}

void CSslKeyRequester::Request(const CTlsHandshakeTracker::KeyExchange& exchange) {
    std::vector<uint8_t> secret;
    if (!Ask(exchange, secret)) {
        ++m_Failed;
        return;
    }
    // The key log names the exchange by the cipher text, past TLS's prefix.
    const size_t prefix = exchange.m_Minor == 0 ? 0 : 2;
    std::string line = "RSA ";
    AppendHex(line, exchange.m_Field.data() + prefix, 8);
    line.push_back(' ');
    AppendHex(line, secret.data(), secret.size());
    m_Lines.push_back(std::move(line));
}

std::vector<std::string> CSslKeyRequester::TakeLines() {
    std::vector<std::string> lines;
    lines.swap(m_Lines);
    return lines;
}

}  // namespace NORVI
