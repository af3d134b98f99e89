// CSslKeyRequester: turns the RSA key exchanges that the replay finds into
// SSL requests to the key service's socket, and its answers into key log
// lines in the form that packet analysers read:
//   RSA <first 8 bytes of the encrypted pre-master, hex> <pre-master, hex>
//
// The socket is connected on the first request. A request fails (and is
// counted) when there is no socket, the service cannot be reached, does not
// answer in time, or answers with no secret or one that is not 48 bytes.
//
// Threads: one object is used by one thread at a time.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "driver/capture/TlsHandshakeTracker.h"

namespace NORVI {

class CSslSocketClient;

class CSslKeyRequester {
public:
    explicit CSslKeyRequester(std::string socketPath, int timeoutMs = 5000);
    ~CSslKeyRequester();

    // Asks for the secret of one exchange; a line or a failure is kept.
    void Request(const CTlsHandshakeTracker::KeyExchange& exchange);

    std::vector<std::string> TakeLines();
    uint64_t Failed() const { return m_Failed; }
    // Why the last request failed.
    const std::string& LastFailure() const { return m_LastFailure; }

private:
    bool Ask(const CTlsHandshakeTracker::KeyExchange& exchange, std::vector<uint8_t>& secret);

    std::string m_SocketPath;
    int m_TimeoutMs;
    std::unique_ptr<CSslSocketClient> m_Client;
    uint64_t m_NextContext = 1;
    std::vector<std::string> m_Lines;
    uint64_t m_Failed = 0;
    std::string m_LastFailure;
};

}  // namespace NORVI
