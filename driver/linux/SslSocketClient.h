// CSslSocketClient: submits SSL requests to the key service's socket and
// reads its answers (protocol in SslSocketProtocol.h). The capture replay and
// the tests use it; a TLS-terminating component would do the same.
//
// Threads: one object is used by one thread at a time.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace NORVI {

class CSslSocketClient {
public:
    enum class ReceiveResult { Response, Timeout, Closed, Error };

    CSslSocketClient() = default;
    ~CSslSocketClient();
    CSslSocketClient(const CSslSocketClient&) = delete;
    CSslSocketClient& operator=(const CSslSocketClient&) = delete;

    // Connects to the server at path; false with the reason in error.
    bool Connect(const std::string& path, std::string& error);
    // Sends one request: the 80-byte header and dataLen bytes of data (at
    // most 65456). False with the reason in error.
    bool Submit(const void* header, const void* data, uint32_t dataLen, std::string& error);
    // Waits up to timeoutMs for one response into response. Closed when the
    // server ended the connection; Error (with the reason) for a frame that
    // breaks the protocol.
    ReceiveResult Receive(std::vector<uint8_t>& response, int timeoutMs, std::string& error);

private:
    // Reads exactly length bytes before the deadline (steady milliseconds).
    ReceiveResult ReadExactly(uint8_t* target, size_t length, int64_t deadline, std::string& error);

    int m_Fd = -1;
};

}  // namespace NORVI
