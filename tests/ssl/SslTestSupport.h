// Test material of the SSL key service: key files and ciphertexts made by the
// openssl command line, request headers, and the driver stand-in's controls.
#pragma once

#include <stdlib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "driver/standin/NorviControl.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "host/norvi.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCredential.h"
#include "tests/TempFolder.h"

namespace ssltest {

// Chosen before any test makes the first norvi call, which loads the library.
const int kLibraryChosen = setenv("NORVI_LIBRARY", NORVI_STANDIN_LIBRARY, 0);

template <typename Function>
Function Control(const char* name) {
    return reinterpret_cast<Function>(NorvCore::NorviSymbol(name));
}
#define SSL_CONTROL(name) ssltest::Control<decltype(&name)>(#name)

typedef std::vector<unsigned char> Bytes;

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// RSA keys of 1024 bits (small, so that tests stay quick) in every form the
// service reads, and ciphertexts of one known secret, made once per program.
class KeyMaterial {
public:
    static const KeyMaterial& Get() {
        static const KeyMaterial material;
        return material;
    }

    std::string Path(const std::string& name) const { return m_Folder.Path() + "/" + name; }
    bool Ok() const { return m_Ok; }
    const std::string& Secret() const { return m_Secret; }
    // The PKCS#1 v1.5 ciphertext of Secret() under "key" or "key2".
    std::string Cipher(const std::string& key) const { return ReadFile(Path(key + ".ct")); }
    // key.pem or legacy.p12 as base64 on one line.
    std::string Base64(const std::string& name) const { return ReadFile(Path(name + ".b64")); }

private:
    KeyMaterial() : m_Secret(48, '\0') {
        for (size_t index = 0; index < m_Secret.size(); ++index) {
            m_Secret[index] = static_cast<char>(0x03 + index * 7);
        }
        std::ofstream(Path("secret.bin"), std::ios::binary) << m_Secret;
        const char* const steps[] = {
            "openssl genrsa -out key.pem 1024",
            "openssl genrsa -out key2.pem 1024",
            "openssl req -x509 -new -key key.pem -subj /CN=vexil -days 2 -out cert.pem",
            "openssl req -x509 -new -key key.pem -subj /CN=vexil -days 2 "
            "-addext keyUsage=digitalSignature -out signcert.pem",
            "cat key.pem cert.pem > keycert.pem",
            "cat signcert.pem key.pem > signonly.pem",
            "openssl rsa -in key.pem -aes128 -traditional -passout pass:s3cret -out trad.pem",
            "openssl pkcs8 -topk8 -in key.pem -passout pass:s3cret -out pkcs8.pem",
            "openssl pkcs12 -export -in cert.pem -inkey key.pem -passout pass:s3cret "
            "-out modern.p12",
            "openssl pkcs12 -export -legacy -in cert.pem -inkey key.pem -passout pass:s3cret "
            "-out legacy.p12",
            "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.pem",
            "for k in key key2; do openssl rsa -in $k.pem -pubout -out $k.pub && "
            "openssl pkeyutl -encrypt -pubin -inkey $k.pub -in secret.bin -out $k.ct; done",
            "for f in key.pem legacy.p12; do base64 -w0 $f > $f.b64; done",
        };
        m_Ok = !m_Folder.Path().empty();
        for (const char* step : steps) {
            const std::string command =
                "(cd '" + m_Folder.Path() + "' && " + step + ") >/dev/null 2>&1";
            m_Ok = m_Ok && std::system(command.c_str()) == 0;
        }
    }

    TempFolder m_Folder;
    std::string m_Secret;
    bool m_Ok = false;
};

// The key of a credential, and the reason stored (0 when none was).
inline std::unique_ptr<VEXIL::CRSAKey> LoadKey(const char* type, const std::string& identifier,
                                               const std::string& passphrase, int& reason,
                                               const std::string& blob = "") {
    VEXIL::CSSLCredential credential;
    credential.m_CredentialType = type;
    credential.m_Identifier = wxString::FromUTF8(identifier.c_str());
    credential.m_Passphrase = wxString::FromUTF8(passphrase.c_str());
    credential.m_Credential = wxString::FromUTF8(blob.c_str());
    VEXIL::CRSAKey::FailureReason failure = static_cast<VEXIL::CRSAKey::FailureReason>(0);
    std::unique_ptr<VEXIL::CRSAKey> key(VEXIL::CRSAKey::Create(credential, &failure));
    reason = failure;
    return key;
}

// The plain text of cipher, or "<failed>" (with no length) when the key
// refuses it.
inline std::string Decrypt(VEXIL::CRSAKey& key, const std::string& cipher, size_t capacity = 1024) {
    unsigned char plain[1024];
    size_t length = 99;
    if (!key.Decrypt(cipher.size(), cipher.data(), plain, capacity, &length)) {
        EXPECT_EQ(0u, length);
        return "<failed>";
    }
    return std::string(reinterpret_cast<char*>(plain), length);
}

// A security configuration whose host configuration 9 has the PEM key (the
// file webKey, or key.pem as a blob), 10 the legacy PKCS#12 file (or blob),
// 11 a key file that doesn't exist, and 12 a credential that doesn't exist.
inline wxString Configuration(bool blob = false,
                              const std::string& webKey = KeyMaterial::Get().Path("key.pem")) {
    const KeyMaterial& keys = KeyMaterial::Get();
    const auto source = [&](const std::string& file, const std::string& name) {
        return blob ? wxString::Format("credential=\"%s\"", keys.Base64(name))
                    : wxString::Format("identifier=\"%s\"", file);
    };
    return wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"PEM\" %s/>"
        "<SSLCredential id=\"2\" credentialType=\"P12\" passphrase=\"s3cret\" %s/>"
        "<SSLCredential id=\"3\" credentialType=\"PEM\" identifier=\"%s\"/>"
        "</SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"9\" name=\"web\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"10\" name=\"mail\" sslCredentialId=\"2\"/>"
        "<SSLHostConfiguration id=\"11\" name=\"broken\" sslCredentialId=\"3\"/>"
        "<SSLHostConfiguration id=\"12\" name=\"orphan\" sslCredentialId=\"42\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        source(webKey, "key.pem"), source(keys.Path("legacy.p12"), "legacy.p12"),
        keys.Path("missing.pem"));
}

// An 80-byte request header. The context holds numbered bytes with the tag
// in front, so that each request can be told apart in its response.
inline Bytes Header(uint32_t preMasterLen, uint32_t configurationId, uint8_t major, uint8_t minor,
                    uint32_t tag = 0, uint32_t keyExchange = 1) {
    Bytes header(NORVI_SSL_HEADER_SIZE, 0xEE);
    for (size_t index = 8; index < 64; ++index) {
        header[index] = static_cast<unsigned char>(index);
    }
    const uint32_t words[][2] = {
        {0, preMasterLen}, {4, configurationId}, {8, tag}, {64, keyExchange}};
    for (const auto& word : words) {
        std::memcpy(&header[word[0]], &word[1], 4);  // the wire and this host are little-endian
    }
    header[68] = major;
    header[69] = minor;
    return header;
}

// The TLS form of a ciphertext: two length bytes in front.
inline std::string Tls(const std::string& cipher) {
    return std::string{char(cipher.size() >> 8), char(cipher.size() & 0xFF)} + cipher;
}

inline void Submit(const Bytes& header, const std::string& data) {
    ASSERT_EQ(0, SSL_CONTROL(norvi_test_submit_ssl_request)(header.data(), data.data(),
                                                            static_cast<uint32_t>(data.size())));
}

// One response as the driver saw it.
struct Response {
    Bytes bytes;
    norvi_handle_t sender;

    uint32_t Word(size_t offset) const {
        uint32_t value = 0;
        if (offset + 4 <= bytes.size()) {
            std::memcpy(&value, &bytes[offset], 4);
        }
        return value;
    }
    uint32_t DecryptedLen() const { return Word(0); }
    uint32_t Tag() const { return Word(8); }
    std::string Secret() const {
        return bytes.size() < 72 ? std::string() : std::string(bytes.begin() + 64, bytes.end() - 8);
    }
};

// Appends the responses sent so far to collected, oldest first, and waits
// for more until it holds count or the time runs out.
inline std::vector<Response>& AwaitResponses(
    std::vector<Response>& collected, size_t count = 0,
    std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        Response response{Bytes(2048), nullptr};
        const long size = SSL_CONTROL(norvi_test_take_ssl_response)(
            response.bytes.data(), response.bytes.size(), &response.sender);
        if (size >= 0) {
            response.bytes.resize(static_cast<size_t>(size));
            collected.push_back(response);
        } else if (collected.size() >= count || std::chrono::steady_clock::now() > deadline) {
            return collected;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
}

inline std::vector<Response> TakeResponses() {
    std::vector<Response> responses;
    return AwaitResponses(responses);
}

// Every trace and operator log line so far, taken, as one text.
inline std::string TakeLogText() {
    std::string text;
    for (const auto& lines : {NorvCore::TakeTraceLines(), NorvCore::TakeOperatorLogLines()}) {
        for (const std::string& line : lines) {
            text += line + "\n";
        }
    }
    return text;
}

// A fresh driver stand-in for each test; every handle that the test opened
// must be closed again at its end.
class DriverTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        ASSERT_NE(nullptr, SSL_CONTROL(norvi_test_reset));
        SSL_CONTROL(norvi_test_reset)();
        m_HandlesBefore = OpenHandles();
        NorvCore::TakeOperatorLogLines();
    }
    void TearDown() override {
        EXPECT_EQ(m_HandlesBefore, OpenHandles());
        SSL_CONTROL(norvi_test_reset)();
        NorvCore::UseRealTicks();
    }
    static size_t OpenHandles() { return SSL_CONTROL(norvi_test_open_handles)(); }
    // The handles opened since the test began, once they number count (or
    // five seconds have passed) and a moment more, so that late ones show.
    size_t HandlesOnceAt(size_t count) const {
        for (int wait = 0; wait < 1000 && OpenHandles() != m_HandlesBefore + count; ++wait) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return OpenHandles() - m_HandlesBefore;
    }

    NorvCore::CDom m_Dom{":memory:"};
    size_t m_HandlesBefore = 0;
};

}  // namespace ssltest
