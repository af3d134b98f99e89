// CCaptureSource: the records that the project's ruleset would have logged
// for the packets of a capture file (pcap or pcapng).
//
// Frames of Ethernet (with up to two VLAN tags), Linux cooked (SLL, SLL2) and
// raw IP captures are read; other frames are passed over. Each IP packet goes
// to the ruleset model (CRulesetModel) with the capture's time stamp, and
// each packet that the model says the ruleset logs becomes a record built as
// the live receiver builds it (BuildPacketRecord), with the interface index
// of the options. A packet whose headers are cut short or malformed is a
// counted drop; a damaged file ends the replay with an error that says so.
// TCP packets also pass the TLS handshake tracker, whose RSA key exchanges
// become SSL requests and key log lines (CSslKeyRequester).
//
// Threads: one object is used by one thread at a time.
#pragma once

#include <pcap/pcap.h>

#include <memory>
#include <string>
#include <vector>

#include "driver/capture/RulesetModel.h"
#include "driver/capture/SslKeyRequester.h"
#include "driver/capture/TlsHandshakeTracker.h"
#include "driver/linux/RecordSource.h"

namespace NORVI {

class CCaptureSource : public CRecordSource {
public:
    static std::unique_ptr<CCaptureSource> Open(const SourceOptions& options, std::string& error);
    ~CCaptureSource() override;

    ReadResult Next(SourceRecord& out, int timeoutMs) override;
    SourceCounters Counters() const override { return m_Counters; }
    std::string LastError() const override { return m_Error; }
    std::vector<std::string> TakeKeyLog(uint64_t& failed) override;

    // Why the last packet was dropped.
    const std::string& LastDrop() const { return m_LastDrop; }

private:
    explicit CCaptureSource(const SourceOptions& options);

    // The IP packet of a frame and its Ethernet header (or null); false
    // when the frame carries no IP packet.
    enum class Frame { Ip, NotIp, Truncated };
    Frame Unwrap(const uint8_t* bytes, size_t length, const uint8_t*& ethernet,
                 const uint8_t*& packet, size_t& packetLength) const;
    // One frame: true with a record in out.
    bool Judge(const pcap_pkthdr& header, const uint8_t* bytes, SourceRecord& out);
    void Drop(const std::string& reason);

    pcap_t* m_Pcap = nullptr;
    int m_LinkType = 0;
    uint32_t m_InterfaceIndex;
    CRulesetModel m_Model;
    CTlsHandshakeTracker m_Tls;
    CSslKeyRequester m_Keys;
    SourceCounters m_Counters;
    std::string m_Error;
    std::string m_LastDrop;
    bool m_Ended = false;
};

}  // namespace NORVI
