// Read-back (GetLogData) over arbitrary file contents and spans: a live file
// and up to three old copies. No line handed over may hold a line feed.
//
// Input: a mode byte (bits 0-1: the role; bit 2: no sink, the scan stops at
// the first line; bits 3-4: old copies), the span's start and end (eight
// bytes each), the script's line count (two bytes), then for each old copy a length
// (two bytes) and its bytes, and the live file's bytes.
#include <algorithm>
#include <fstream>
#include <string>

#include <unistd.h>

#include "fuzz/FuzzSupport.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"

namespace {

const char kName[] = "fuzz_read_back";

void Put(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), std::streamsize(bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    static VEXIL::LogData* const log = [] {
        auto* made = new VEXIL::LogData(VEXIL::FuzzDom());
        made->SetLogFilePath(wxString::FromUTF8(VEXIL::FuzzFolder().c_str()));
        made->SetLogFileName(kName);
        return made;
    }();
    VEXIL::CFuzzReader input(data, size);
    const u8 mode = input.Byte();
    const i64 start = i64(input.Long());
    const i64 end = i64(input.Long());
    const u32 cap = VEXIL::LogLineSink::CapLineCount(input.Short());
    const int copies = (mode >> 3) & 3;
    const std::string base = VEXIL::FuzzFolder() + "/" + kName;
    std::string paths[4] = {base, base + ".1", base + ".2", base + ".3"};
    for (int copy = 1; copy <= copies; ++copy) {
        Put(paths[copy], input.Bytes(input.Short()));
    }
    Put(base, input.Rest());

    VEXIL::LogLineSink sink(cap);
    const bool noSink = (mode & 4) != 0;
    log->GetLogData(mode & 3, start, end, "fuzz-uuid", noSink ? nullptr : &sink);
    const std::string_view text = sink.JoinedText();
    VEXIL::FuzzCheck(
        std::count(text.begin(), text.end(), '\n') == static_cast<std::ptrdiff_t>(sink.LineCount()),
        "a line feed inside a line read back", std::string(text.substr(0, 256)));
    for (const std::string& path : paths) {
        unlink(path.c_str());
    }
    VEXIL::FuzzDropLogLines();
    return 0;
}
