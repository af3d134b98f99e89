// Test material of the SSL key service: key files and ciphertexts made by the
// openssl command line, request headers, and the driver stand-in's controls.
#pragma once

#include <stdlib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "driver/standin/NorviControl.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "host/norvi.h"
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
    KeyMaterial() : m_Secret("a pre-master secret of 48 bytes, 0123456789abcde") {
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
        std::memcpy(&header[word[0]], &word[1],
                    4);  // the wire and this host are little-endian
    }
    header[68] = major;
    header[69] = minor;
    return header;
}

// The answer to a request with header: the secret's length, the request's
// context, the secret and an empty trailer.
inline Bytes Answer(const Bytes& header, const std::string& secret) {
    Bytes answer(72 + secret.size(), 0);
    answer[0] = static_cast<unsigned char>(secret.size());
    std::copy(header.begin() + 8, header.begin() + 64, answer.begin() + 8);
    std::copy(secret.begin(), secret.end(), answer.begin() + 64);
    return answer;
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

    // The first word of the request's context.
    uint32_t Tag() const {
        uint32_t tag = 0;
        if (bytes.size() >= 12) {
            std::memcpy(&tag, &bytes[8], 4);
        }
        return tag;
    }
};

// The responses sent so far, oldest first, once they number count or 20
// seconds have passed.
inline std::vector<Response> TakeResponses(size_t count = 0) {
    std::vector<Response> taken;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (;;) {
        Response response{Bytes(2048), nullptr};
        const long size = SSL_CONTROL(norvi_test_take_ssl_response)(
            response.bytes.data(), response.bytes.size(), &response.sender);
        if (size >= 0) {
            response.bytes.resize(static_cast<size_t>(size));
            taken.push_back(response);
        } else if (taken.size() >= count || std::chrono::steady_clock::now() > deadline) {
            return taken;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
}

// A fresh driver stand-in for each test, with a handle of the test's own;
// every handle that the test opened must be closed again at its end.
class DriverTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        ASSERT_NE(nullptr, SSL_CONTROL(norvi_test_reset));
        SSL_CONTROL(norvi_test_reset)();
        m_Handle = norvi_open();
        ASSERT_NE(nullptr, m_Handle);
        m_HandlesBefore = OpenHandles();
        NorvCore::TakeOperatorLogLines();
    }
    void TearDown() override {
        EXPECT_EQ(m_HandlesBefore, OpenHandles());
        norvi_close(m_Handle);
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
    norvi_handle_t m_Handle = nullptr;
    size_t m_HandlesBefore = 0;
};

}  // namespace ssltest
