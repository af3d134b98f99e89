// CNflogSource: the live record source. It listens to one NFLOG group of the
// packet filter in the network namespace of the thread that opened it, and
// may install the project's ruleset there for as long as it lives. The
// ruleset is one table per namespace: a second source that installs it
// replaces the first one's, and the first to close removes it.
//
// The socket is set up for records that arrive soon and whole: the kernel
// flushes its batch after 256 packets or 10 ms, puts a sequence number on
// every message (holes are counted as gaps), and time-stamps packets while
// SO_TIMESTAMP is on (kernels before 6.6 add the stamp only then). The receive
// buffer is enlarged; an overrun (ENOBUFS) is counted as lost, never ignored.
//
// Threads: used by one thread at a time, like every CRecordSource.
#pragma once

#include <stdint.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "driver/linux/NflogParser.h"
#include "driver/linux/NftRuleset.h"
#include "driver/linux/RecordSource.h"

struct mnl_socket;

namespace NORVI {

class CNflogSource : public CRecordSource {
public:
    // A source bound to options.m_NflogGroup, with the ruleset installed when
    // options.m_InstallRuleset; null with the reason in error.
    static std::unique_ptr<CNflogSource> Open(const SourceOptions& options, std::string& error);
    ~CNflogSource() override;

    ReadResult Next(SourceRecord& out, int timeoutMs) override;
    SourceCounters Counters() const override;
    std::string LastError() const override { return m_LastError; }

private:
    struct MacEntry {
        uint8_t m_Mac[8];
        uint32_t m_Length;
        int64_t m_LookedUpMs;
    };

    CNflogSource();
    // Binds the group and sets copy mode, batching, sequence numbers and
    // buffers in one configuration message. False with the reason in error.
    bool Bind(int group, int receiveBufferBytes, std::string& error);
    // Reads one batch of messages into m_Pending. False on a socket error.
    bool Receive();
    uint32_t LookupMac(uint32_t interfaceIndex, uint8_t* mac);

    mnl_socket* m_Socket = nullptr;
    int m_IoctlFd = -1;                      // for interface lookups in the source's namespace
    std::unique_ptr<CNftRuleset> m_Ruleset;  // set while the ruleset is installed by us
    CNflogParser m_Parser;
    std::deque<SourceRecord> m_Pending;
    std::vector<uint8_t> m_Buffer;
    uint64_t m_Lost = 0;
    std::string m_LastError;
    std::map<uint32_t, MacEntry> m_Macs;
};

}  // namespace NORVI
