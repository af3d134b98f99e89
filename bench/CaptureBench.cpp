// Packets per second through the capture replay (the ruleset model, the
// record builder, the TLS tracker following port 443), beside libpcap
// reading the same file alone: the bundled sample capture, once per
// iteration.
#include <pcap/pcap.h>

#include <string>

#include <benchmark/benchmark.h>

#include "driver/capture/CaptureSource.h"

namespace {

const std::string kSample = std::string(VEXIL_SOURCE_DIR) + "/examples/capture/sample.pcapng";

// Reads every frame of the sample; gives their number.
int64_t ReadAll() {
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const pcap = pcap_open_offline(kSample.c_str(), reason);
    pcap_pkthdr* header;
    const u_char* bytes;
    int64_t frames = 0;
    while (pcap != nullptr && pcap_next_ex(pcap, &header, &bytes) == 1) {
        benchmark::DoNotOptimize(bytes);
        ++frames;
    }
    if (pcap != nullptr) {
        pcap_close(pcap);
    }
    return frames;
}

// The reference: every frame read, nothing judged.
void BM_PcapReadOnly(benchmark::State& state) {
    int64_t frames = 0;
    for (auto _ : state) {
        frames += ReadAll();
    }
    state.SetItemsProcessed(frames);
}
BENCHMARK(BM_PcapReadOnly);

void BM_CaptureReplay(benchmark::State& state) {
    NORVI::SourceOptions options;
    options.m_CapturePath = kSample;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    // A configuration whose requests fail at once (no socket): the tracker
    // runs, the key service does not.
    options.m_SslHosts = {{"10.77.0.1", 7}};
    const int64_t perReplay = ReadAll();
    int64_t frames = 0;
    int64_t records = 0;
    for (auto _ : state) {
        std::string error;
        auto source = NORVI::CreateCaptureSource(options, error);
        NORVI::SourceRecord record;
        while (source->Next(record, 0) == NORVI::CRecordSource::ReadResult::Record) {
            ++records;
        }
        frames += perReplay;
    }
    state.SetItemsProcessed(frames);
    state.counters["records"] = benchmark::Counter(double(records), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CaptureReplay);

}  // namespace
