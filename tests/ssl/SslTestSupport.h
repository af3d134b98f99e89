// Test material of the SSL key service: key files made by the openssl
// command line in a temporary folder, ciphertexts made the same way, request
// headers, and the driver stand-in's controls (libnorvi.so of this build).
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/NorviLoader.h"
#include "host/norvi.h"
#include "host/norvi/driver/NorviControl.h"
#include "tests/TempFolder.h"

namespace ssltest {

// Chosen before any test makes the first norvi call, which loads the library.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

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

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
}

// Runs a shell command quietly; true when it succeeded.
inline bool Run(const std::string& command) {
    return std::system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0;
}

// The key material of a test program, made once in a folder of its own:
// RSA keys of 1024 bits (small, so that tests stay quick) in every form the
// service reads, and ciphertexts of known secrets under them.
class KeyMaterial {
public:
    static const KeyMaterial& Get() {
        static const KeyMaterial material;
        return material;
    }

    std::string Path(const std::string& name) const { return m_Folder.Path() + "/" + name; }
    bool Ok() const { return m_Ok; }

    // The secret and its PKCS#1 v1.5 ciphertext under key "key" or "key2".
    const std::string& Secret() const { return m_Secret; }
    std::string Cipher(const std::string& key) const { return ReadFile(Path(key + ".ct")); }
    // The whole file (key.pem, keycert.pem, pkcs8.pem, modern.p12 or
    // legacy.p12) as base64 on one line, as a credential blob.
    std::string Base64(const std::string& name) const { return ReadFile(Path(name + ".b64")); }

private:
    KeyMaterial() : m_Secret(48, '\0') {
        for (size_t index = 0; index < m_Secret.size(); ++index) {
            m_Secret[index] = static_cast<char>(0x03 + index * 7);
        }
        WriteFile(Path("secret.bin"), m_Secret);
        const std::string in = "cd '" + m_Folder.Path() + "' && ";
        const char* const steps[] = {
            "openssl genrsa -out key.pem 1024",
            "openssl genrsa -out key2.pem 1024",
            "openssl req -x509 -new -key key.pem -subj /CN=vexil -days 2 -out cert.pem",
            "openssl req -x509 -new -key key.pem -subj /CN=vexil -days 2 "
            "-addext keyUsage=digitalSignature -out signcert.pem",
            "cat key.pem cert.pem > keycert.pem",
            "cat cert.pem key.pem > certkey.pem",
            "cat signcert.pem key.pem > signonly.pem",
            "openssl rsa -in key.pem -aes128 -traditional -passout pass:s3cret -out trad.pem",
            "openssl pkcs8 -topk8 -in key.pem -passout pass:s3cret -out pkcs8.pem",
            "openssl pkcs12 -export -in cert.pem -inkey key.pem -passout pass:s3cret "
            "-out modern.p12",
            "openssl pkcs12 -export -legacy -in cert.pem -inkey key.pem -passout pass:s3cret "
            "-out legacy.p12",
            "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.pem",
            "head -c 600 modern.p12 > corrupt.p12",
            "for k in key key2; do openssl rsa -in $k.pem -pubout -out $k.pub && "
            "openssl pkeyutl -encrypt -pubin -inkey $k.pub -in secret.bin -out $k.ct; done",
            "for f in key.pem keycert.pem pkcs8.pem modern.p12 legacy.p12; do "
            "base64 -w0 $f > $f.b64; done",
        };
        m_Ok = !m_Folder.Path().empty();
        for (const char* step : steps) {
            m_Ok = m_Ok && Run(in + step);
        }
    }

    TempFolder m_Folder;
    std::string m_Secret;
    bool m_Ok = false;
};

// An 80-byte request header; the context is filled with tag and numbered
// bytes, so that each request can be told apart in its response.
inline Bytes Header(uint32_t preMasterLen, uint32_t configurationId, uint8_t major, uint8_t minor,
                    uint32_t tag = 0, uint32_t keyExchange = 1) {
    Bytes header(NORVI_SSL_HEADER_SIZE, 0xEE);
    auto put32 = [&header](size_t offset, uint32_t value) {
        for (size_t index = 0; index < 4; ++index) {
            header[offset + index] = static_cast<unsigned char>(value >> (8 * index));
        }
    };
    put32(0, preMasterLen);
    put32(4, configurationId);
    for (size_t index = 8; index < 64; ++index) {
        header[index] = static_cast<unsigned char>(index);
    }
    put32(8, tag);
    put32(64, keyExchange);
    header[68] = major;
    header[69] = minor;
    return header;
}

// The TLS form of a ciphertext: two length bytes in front.
inline std::string Tls(const std::string& cipher) {
    std::string field(2, '\0');
    field[0] = static_cast<char>(cipher.size() >> 8);
    field[1] = static_cast<char>(cipher.size() & 0xFF);
    return field + cipher;
}

inline void Submit(const Bytes& header, const std::string& data) {
    ASSERT_EQ(0, SSL_CONTROL(norvi_test_submit_ssl_request)(header.data(), data.data(),
                                                            static_cast<uint32_t>(data.size())));
}

// One response as the driver saw it.
struct Response {
    Bytes bytes;
    norvi_handle_t sender;

    uint32_t DecryptedLen() const {
        return bytes.size() < 4 ? 0
                                : bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                                      static_cast<uint32_t>(bytes[3]) << 24;
    }
    uint32_t Tag() const {
        return bytes.size() < 12 ? 0
                                 : bytes[8] | bytes[9] << 8 | bytes[10] << 16 |
                                       static_cast<uint32_t>(bytes[11]) << 24;
    }
    std::string Secret() const {
        return bytes.size() < 72 ? std::string() : std::string(bytes.begin() + 64, bytes.end() - 8);
    }
};

// The responses sent so far, oldest first.
inline std::vector<Response> TakeResponses() {
    std::vector<Response> responses;
    for (;;) {
        Response response{Bytes(2048), nullptr};
        const long size = SSL_CONTROL(norvi_test_take_ssl_response)(
            response.bytes.data(), response.bytes.size(), &response.sender);
        if (size < 0) {
            return responses;
        }
        response.bytes.resize(static_cast<size_t>(size));
        responses.push_back(response);
    }
}

// Waits until at least count responses (counting those in collected) have
// come, or until the time runs out; what came is appended to collected.
inline void AwaitResponses(std::vector<Response>& collected, size_t count,
                           std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        for (Response& response : TakeResponses()) {
            collected.push_back(std::move(response));
        }
        if (collected.size() >= count || std::chrono::steady_clock::now() > deadline) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// Lines of lines that contain text.
inline size_t CountContaining(const std::vector<std::string>& lines, const std::string& text) {
    size_t count = 0;
    for (const std::string& line : lines) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

}  // namespace ssltest
