// CRecordSource: where the Linux driver interface's log records come from.
//
// Two sources stand behind one handle type: the live receiver of the packet
// filter's NFLOG messages and the replay of a capture file through a model of
// the same ruleset. Both hand out records exactly as the driver would: the
// 192-byte record, its trailing data block and the packet bytes that
// WriteLogData takes as its last argument.
//
// Threads: a source belongs to the handle that made it and is used by one
// thread at a time; it takes no lock of its own.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace NORVI {

// One record as a source delivers it.
struct SourceRecord {
    uint8_t m_Record[192];
    std::vector<uint8_t> m_Data;    // the trailing data block (data_len bytes)
    std::vector<uint8_t> m_Packet;  // the packet bytes, from the network header on
};

// What a source has counted since it was opened.
struct SourceCounters {
    uint64_t m_Records = 0;  // records delivered
    uint64_t m_Lost = 0;     // records the source knows it lost (socket overruns)
    uint64_t m_Gaps = 0;     // holes in the sequence numbers of the messages
    uint64_t m_Dropped = 0;  // input it refused: malformed, truncated or oversized
};

// An SSL host configuration as the capture replay matches it: a server
// address (empty for all interfaces) and the configuration's id.
struct SslHost {
    std::string m_Address;
    uint32_t m_ConfigurationId = 0;
};

// The parameters of either source; each takes the ones that concern it.
struct SourceOptions {
    // Live: the NFLOG group to read, and whether the handle installs the
    // project's ruleset (and removes it when it closes).
    int m_NflogGroup = -1;
    bool m_InstallRuleset = false;
    // Live: the receive buffer of the NFLOG socket in bytes; 0 for the
    // library's default (a few megabytes).
    int m_ReceiveBufferBytes = 0;
    // Replay: the capture file, the host's own addresses, the interface index
    // that the records carry (a capture has none).
    std::string m_CapturePath;
    std::vector<std::string> m_HostAddresses;
    uint32_t m_InterfaceIndex = 1;
    // Both: the allowed inbound services, such as "tcp:22,tcp:80,udp:53".
    std::string m_Services;
    // SSL: the socket where requests are submitted, and (replay) the servers
    // whose RSA key exchanges become requests.
    std::string m_SslSocketPath;
    std::vector<SslHost> m_SslHosts;
};

class CRecordSource {
public:
    enum class ReadResult { Record, Timeout, End, Error };

    virtual ~CRecordSource() = default;
    // The next record into out. Timeout when none came within timeoutMs
    // (live only), End when a capture is exhausted, Error with LastError().
    virtual ReadResult Next(SourceRecord& out, int timeoutMs) = 0;
    virtual SourceCounters Counters() const = 0;
    virtual std::string LastError() const = 0;
    // Replay: the key log lines made since the last call (NSS key log form,
    // "RSA <8 bytes hex> <pre-master hex>"), and into failed the number of
    // SSL requests that failed so far. A live source makes none.
    virtual std::vector<std::string> TakeKeyLog(uint64_t& failed) {
        failed = 0;
        return {};
    }
};

// The two sources; null with the reason in error when they cannot start.
std::unique_ptr<CRecordSource> CreateNflogSource(const SourceOptions& options, std::string& error);
std::unique_ptr<CRecordSource> CreateCaptureSource(const SourceOptions& options,
                                                   std::string& error);

}  // namespace NORVI
