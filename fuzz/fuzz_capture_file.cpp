// Whole files through the capture replay's pcap and pcapng reader: a file
// that does not open is refused with a reason; one that opens gives
// consistent records (FuzzCheckDriverRecord) until it ends, or ends with an
// error that says why.
#include <cstdio>
#include <string>

#include "driver/capture/CaptureSource.h"
#include "fuzz/FuzzDriverRecord.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    NORVI::SourceOptions options;
    options.m_CapturePath = VEXIL::FuzzFolder() + "/file.pcap";
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    options.m_SslHosts = {{"", 1}};
    FILE* const out = std::fopen(options.m_CapturePath.c_str(), "wb");
    VEXIL::FuzzCheck(
        out != nullptr && std::fwrite(data, 1, size, out) == size && std::fclose(out) == 0,
        "cannot write the capture", options.m_CapturePath);
    std::string error;
    const auto source = NORVI::CreateCaptureSource(options, error);
    if (source == nullptr) {
        VEXIL::FuzzCheck(!error.empty(), "a capture refused without a reason", "");
        return 0;
    }
    NORVI::SourceRecord record;
    NORVI::CRecordSource::ReadResult result;
    u64 records = 0;
    while ((result = source->Next(record, 0)) == NORVI::CRecordSource::ReadResult::Record) {
        VEXIL::FuzzCheckDriverRecord(record);
        ++records;
    }
    VEXIL::FuzzCheck(source->Counters().m_Records == records, "records miscounted",
                     std::to_string(records));
    VEXIL::FuzzCheck(
        (result == NORVI::CRecordSource::ReadResult::Error) == !source->LastError().empty(),
        "an error without a reason, or a reason without an error", source->LastError());
    return 0;
}
