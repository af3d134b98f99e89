#include "driver/capture/CaptureSource.h"

#include "driver/linux/ServiceList.h"
#include "driver/record/PacketView.h"
#include "driver/record/RecordBuilder.h"

namespace NORVI {

namespace {

constexpr size_t kEthernetHeader = 14;
constexpr size_t kVlanTag = 4;
constexpr int kMaxVlanTags = 2;
constexpr size_t kSllHeader = 16;
constexpr size_t kSll2Header = 20;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr uint16_t kEtherTypeVlan = 0x8100;
constexpr uint16_t kEtherTypeQinQ = 0x88A8;

uint16_t Read16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

bool IsIpType(uint16_t type) {
    return type == kEtherTypeIpv4 || type == kEtherTypeIpv6;
}

}  // namespace

CCaptureSource::CCaptureSource(const SourceOptions& options)
    : m_InterfaceIndex(options.m_InterfaceIndex), m_Keys(options.m_SslSocketPath) {}

CCaptureSource::~CCaptureSource() {
    if (m_Pcap != nullptr) {
        pcap_close(m_Pcap);
    }
}

std::unique_ptr<CCaptureSource> CCaptureSource::Open(const SourceOptions& options,
                                                     std::string& error) {
    std::unique_ptr<CCaptureSource> source(new CCaptureSource(options));
    CServiceList services;
    if (!services.Parse(options.m_Services, error) ||
        !source->m_Model.Configure(options.m_HostAddresses, services, error) ||
        !source->m_Tls.Configure(options.m_SslHosts, error)) {
        return nullptr;
    }
    if (options.m_HostAddresses.empty()) {
        error = "no host address given: the capture's traffic cannot be told inbound or outbound";
        return nullptr;
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    source->m_Pcap = pcap_open_offline_with_tstamp_precision(options.m_CapturePath.c_str(),
                                                             PCAP_TSTAMP_PRECISION_MICRO, reason);
    if (source->m_Pcap == nullptr) {
        error =
            "capture \"" + options.m_CapturePath.substr(0, 128) + "\" cannot be read: " + reason;
        return nullptr;
    }
    source->m_LinkType = pcap_datalink(source->m_Pcap);
    switch (source->m_LinkType) {
        case DLT_EN10MB:
        case DLT_LINUX_SLL:
        case DLT_LINUX_SLL2:
        case DLT_RAW:
        case DLT_IPV4:
        case DLT_IPV6:
            break;
        default:
            error = "capture \"" + options.m_CapturePath.substr(0, 128) + "\" has link type " +
                    std::to_string(source->m_LinkType) + ", not Ethernet, Linux cooked or raw IP";
            return nullptr;
    }
    return source;
}

CCaptureSource::Frame CCaptureSource::Unwrap(const uint8_t* bytes, size_t length,
                                             const uint8_t*& ethernet, const uint8_t*& packet,
                                             size_t& packetLength) const {
    ethernet = nullptr;
    size_t offset = 0;
    switch (m_LinkType) {
        case DLT_EN10MB: {
            if (length < kEthernetHeader) {
                return Frame::Truncated;
            }
            offset = kEthernetHeader;
            uint16_t type = Read16(bytes + 12);
            for (int tags = 0; (type == kEtherTypeVlan || type == kEtherTypeQinQ); ++tags) {
                if (tags == kMaxVlanTags) {
                    return Frame::NotIp;
                }
                if (length < offset + kVlanTag) {
                    return Frame::Truncated;
                }
                type = Read16(bytes + offset + 2);
                offset += kVlanTag;
            }
            if (!IsIpType(type)) {
                return Frame::NotIp;
            }
            ethernet = bytes;
            break;
        }
        case DLT_LINUX_SLL:
            if (length < kSllHeader) {
                return Frame::Truncated;
            }
            if (!IsIpType(Read16(bytes + 14))) {
                return Frame::NotIp;
            }
            offset = kSllHeader;
            break;
        case DLT_LINUX_SLL2:
            if (length < kSll2Header) {
                return Frame::Truncated;
            }
            if (!IsIpType(Read16(bytes))) {
                return Frame::NotIp;
            }
            offset = kSll2Header;
            break;
        default:  // raw IP
            break;
    }
    packet = bytes + offset;
    packetLength = length - offset;
    return Frame::Ip;
}

void CCaptureSource::Drop(const std::string& reason) {
    ++m_Counters.m_Dropped;
    m_LastDrop = reason;
}

bool CCaptureSource::Judge(const pcap_pkthdr& header, const uint8_t* bytes, SourceRecord& out) {
    const uint8_t* ethernet = nullptr;
    const uint8_t* packet = nullptr;
    size_t packetLength = 0;
    switch (Unwrap(bytes, header.caplen, ethernet, packet, packetLength)) {
        case Frame::NotIp:
            return false;
        case Frame::Truncated:
            Drop("frame shorter than its link header");
            return false;
        case Frame::Ip:
            break;
    }
    CPacketView view;
    switch (view.Read(packet, packetLength)) {
        case CPacketView::Parse::Truncated:
            Drop("packet cut short inside its IP header");
            return false;
        case CPacketView::Parse::Malformed:
            Drop("packet with a malformed IP header");
            return false;
        case CPacketView::Parse::Ok:
            break;
    }
    const uint64_t timeUsec = static_cast<uint64_t>(header.ts.tv_sec) * 1000000u +
                              static_cast<uint64_t>(header.ts.tv_usec);
    if (m_Tls.Enabled()) {
        std::vector<CTlsHandshakeTracker::KeyExchange> exchanges;
        m_Tls.Feed(view, timeUsec, exchanges);
        for (const auto& exchange : exchanges) {
            m_Keys.Request(exchange);
        }
    }
    const RuleVerdict* verdict = nullptr;
    switch (m_Model.Judge(view, timeUsec, verdict)) {
        case CRulesetModel::Decision::Pass:
        case CRulesetModel::Decision::Fragment:
            return false;
        case CRulesetModel::Decision::Drop:
            Drop("packet cut short inside its transport header");
            return false;
        case CRulesetModel::Decision::Record:
            break;
    }
    PacketEvent event;
    event.m_TimeSec = static_cast<uint32_t>(header.ts.tv_sec);
    event.m_TimeUsec = static_cast<uint32_t>(header.ts.tv_usec);
    event.m_InterfaceIndex = m_InterfaceIndex;
    event.m_Ethernet = ethernet;
    event.m_Packet = packet;
    event.m_CapturedLength = packetLength;
    event.m_Action = verdict->m_Action;
    event.m_Reason = verdict->m_Reason;
    event.m_RuleId = verdict->m_Id;
    return BuildPacketRecord(event, out);
}

CRecordSource::ReadResult CCaptureSource::Next(SourceRecord& out, int /*timeoutMs*/) {
    while (!m_Ended) {
        pcap_pkthdr* header = nullptr;
        const u_char* bytes = nullptr;
        const int result = pcap_next_ex(m_Pcap, &header, &bytes);
        if (result == 1) {
            if (Judge(*header, bytes, out)) {
                ++m_Counters.m_Records;
                return ReadResult::Record;
            }
            continue;
        }
        m_Ended = true;
        if (result == PCAP_ERROR_BREAK) {
            return ReadResult::End;
        }
        m_Error = std::string("damaged capture file: ") + pcap_geterr(m_Pcap);
        return ReadResult::Error;
    }
    return ReadResult::End;
}

std::vector<std::string> CCaptureSource::TakeKeyLog(uint64_t& failed) {
    failed = m_Keys.Failed();
    return m_Keys.TakeLines();
}

std::unique_ptr<CRecordSource> CreateCaptureSource(const SourceOptions& options,
                                                   std::string& error) {
    return CCaptureSource::Open(options, error);
}

}  // namespace NORVI
