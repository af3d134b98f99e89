// Captures for the replay tests: the bundled sample (replayed to the end or
// read as frames), pcap files written from frames, and hex text.
#pragma once

#include <pcap/pcap.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/capture/CaptureSource.h"

namespace capturetest {

const std::string kExamples = std::string(VEXIL_SOURCE_DIR) + "/examples/capture/";
const std::string kSample = kExamples + "sample.pcapng";

struct Frame {
    std::vector<uint8_t> m_Bytes;
    timeval m_Time = {0, 0};  // zero: a second after the frame before
};
using Frames = std::vector<Frame>;

inline NORVI::SourceOptions SampleOptions(const std::string& path = kSample) {
    NORVI::SourceOptions options;
    options.m_CapturePath = path;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    options.m_InterfaceIndex = 4;
    return options;
}

struct Replay {
    std::vector<NORVI::SourceRecord> m_Records;
    NORVI::SourceCounters m_Counters;
    std::string m_Error;  // of opening, or of the read that ended the replay
    bool m_Ended = false;
    std::vector<std::string> m_KeyLog;
    uint64_t m_KeyLogFailed = 0;
};

inline Replay ReplayCapture(const NORVI::SourceOptions& options) {
    Replay replay;
    auto source = NORVI::CreateCaptureSource(options, replay.m_Error);
    if (source == nullptr) {
        return replay;
    }
    NORVI::CRecordSource::ReadResult result;
    NORVI::SourceRecord record;
    while ((result = source->Next(record, 0)) == NORVI::CRecordSource::ReadResult::Record) {
        replay.m_Records.push_back(record);
    }
    replay.m_Ended = result == NORVI::CRecordSource::ReadResult::End;
    replay.m_Error = replay.m_Ended ? "" : source->LastError();
    replay.m_Counters = source->Counters();
    replay.m_KeyLog = source->TakeKeyLog(replay.m_KeyLogFailed);
    return replay;
}

inline void WriteCapture(const std::string& path, int linkType, const Frames& frames) {
    pcap_t* const dead = pcap_open_dead(linkType, 65535);
    pcap_dumper_t* const dumper = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(nullptr, dumper) << pcap_geterr(dead);
    timeval time = {1700000000, 0};
    for (const Frame& frame : frames) {
        time = frame.m_Time.tv_sec != 0 ? frame.m_Time : timeval{time.tv_sec + 1, 0};
        pcap_pkthdr header{};
        header.ts = time;
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.m_Bytes.size());
        pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.m_Bytes.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
}

inline void ReadFrames(Frames& frames) {
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const pcap = pcap_open_offline(kSample.c_str(), reason);
    ASSERT_NE(nullptr, pcap) << reason;
    pcap_pkthdr* header;
    const u_char* bytes;
    while (pcap_next_ex(pcap, &header, &bytes) == 1) {
        frames.push_back({{bytes, bytes + header->caplen}, header->ts});
    }
    pcap_close(pcap);
}

inline std::string Hex(const uint8_t* bytes, size_t count) {
    std::string text;
    for (size_t index = 0; index < count; ++index) {
        text += "0123456789abcdef"[bytes[index] >> 4];
        text += "0123456789abcdef"[bytes[index] & 15];
    }
    return text;
}

}  // namespace capturetest
