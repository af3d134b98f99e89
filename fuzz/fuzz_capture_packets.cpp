// Link-layer packets through the capture replay: the ruleset model and the
// TLS handshake tracker, with one SSL host configured for all interfaces and
// no key service to ask. Every packet is a record or is passed over or
// counted as dropped; every record is consistent (FuzzCheckDriverRecord).
//
// Input: one byte that chooses the link type (Ethernet, Linux cooked, Linux
// cooked v2, raw IP), then packets, each a two-byte little-endian length and
// that many bytes. They are replayed as a capture file, one millisecond apart.
#include <cstdio>
#include <string>

#include "driver/capture/CaptureSource.h"
#include "fuzz/FuzzDriverRecord.h"
#include "fuzz/FuzzSupport.h"

namespace {

void Put32(std::string& file, u32 value) {
    for (int shift = 0; shift < 32; shift += 8) {
        file.push_back(static_cast<char>(value >> shift));
    }
}

// The input as a classic pcap file (micro-second time stamps).
std::string CaptureFile(VEXIL::CFuzzReader& input) {
    static const u32 kLinkTypes[] = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW};
    std::string file;
    for (const u32 word : {0xa1b2c3d4u, 0x00040002u, 0u, 0u, 65535u}) {
        Put32(file, word);
    }
    Put32(file, kLinkTypes[input.Byte() % 4]);
    for (u32 millisecond = 0; input.Left() > 0; ++millisecond) {
        const std::string packet = input.Bytes(input.Short());
        Put32(file, 1700000000 + millisecond / 1000);
        Put32(file, millisecond % 1000 * 1000);
        Put32(file, static_cast<u32>(packet.size()));
        Put32(file, static_cast<u32>(packet.size()));
        file += packet;
    }
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    VEXIL::CFuzzReader input(data, size);
    NORVI::SourceOptions options;
    options.m_CapturePath = VEXIL::FuzzFolder() + "/packets.pcap";
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    options.m_SslHosts = {{"", 1}};
    {
        const std::string file = CaptureFile(input);
        FILE* const out = std::fopen(options.m_CapturePath.c_str(), "wb");
        VEXIL::FuzzCheck(out != nullptr &&
                             std::fwrite(file.data(), 1, file.size(), out) == file.size() &&
                             std::fclose(out) == 0,
                         "cannot write the capture", options.m_CapturePath);
    }
    std::string error;
    const auto source = NORVI::CreateCaptureSource(options, error);
    VEXIL::FuzzCheck(source != nullptr, "the capture does not open", error);
    NORVI::SourceRecord record;
    u64 records = 0;
    for (NORVI::CRecordSource::ReadResult result;
         (result = source->Next(record, 0)) == NORVI::CRecordSource::ReadResult::Record;) {
        VEXIL::FuzzCheckDriverRecord(record);
        ++records;
    }
    VEXIL::FuzzCheck(source->Counters().m_Records == records, "records miscounted",
                     std::to_string(records));
    // The file is well formed: reading it ends, never with an error.
    VEXIL::FuzzCheck(source->LastError().empty(), "the capture failed", source->LastError());
    return 0;
}
