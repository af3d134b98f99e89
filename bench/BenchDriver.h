// What the SSL benchmarks share: the stand-in driver's controls, reached
// through the host core's loader, whole files read into memory, and batches
// of TLS requests answered through the stand-in.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "driver/standin/NorviControl.h"
#include "host/NorviLoader.h"

template <typename Function>
Function Control(const char* name) {
    return reinterpret_cast<Function>(NorvCore::NorviSymbol(name));
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The request of a TLS 1.2 RSA key exchange for host configuration id: the
// header, and the data (the two length bytes, then the 256 bytes of cipher).
struct TlsRequest {
    std::vector<unsigned char> header;
    std::string data;
};

inline TlsRequest MakeTlsRequest(uint32_t id, const std::string& cipher) {
    TlsRequest request{std::vector<unsigned char>(NORVI_SSL_HEADER_SIZE, 0),
                       std::string("\x01\x00", 2) + cipher};
    const uint32_t preMasterLen = 2 + 256;
    request.header[0] = preMasterLen & 0xFF;
    request.header[1] = preMasterLen >> 8;
    request.header[4] = static_cast<unsigned char>(id);
    request.header[64] = 1;  // RSA key exchange
    request.header[68] = 3;  // TLS 1.2
    request.header[69] = 3;
    return request;
}

// Submits batch copies of request at once and waits for every answer; the
// number of failure answers, or -1 without the stand-in's controls.
inline int64_t AnswerBatch(const TlsRequest& request, int batch) {
    static const auto submit =
        Control<decltype(&norvi_test_submit_ssl_request)>("norvi_test_submit_ssl_request");
    static const auto take =
        Control<decltype(&norvi_test_take_ssl_response)>("norvi_test_take_ssl_response");
    if (submit == nullptr || take == nullptr) {
        return -1;
    }
    std::vector<unsigned char> response(1024);
    for (int index = 0; index < batch; ++index) {
        submit(request.header.data(), request.data.data(),
               static_cast<uint32_t>(request.data.size()));
    }
    int64_t failures = 0;
    for (int answered = 0; answered < batch;) {
        const long size = take(response.data(), response.size(), nullptr);
        if (size < 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        failures += size == 72 ? 1 : 0;  // a failure answer carries no secret
        ++answered;
    }
    return failures;
}
