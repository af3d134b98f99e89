// A client's byte stream on the SSL request socket through the frame reader,
// cut into reads where the input says. Every request frame that the stream
// holds whole is delivered exactly once with its bytes, in order; the rest is
// held back as an incomplete frame, or the stream is refused at a length
// outside the bounds.
//
// Input: one byte, the size of the reads (1 to 256 bytes, 0 for one read of
// everything), then the stream.
#include <algorithm>
#include <string>

#include "driver/linux/SslFrameReader.h"
#include "driver/linux/SslSocketProtocol.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::CFuzzReader input(data, size);
    const size_t step = input.Byte();
    const std::string stream = input.Rest();

    NORVI::CSslFrameReader reader;
    std::string delivered;  // the frames given, framed again
    std::string error;
    bool refused = false;
    const auto deliver = [&delivered](const u8* frame, size_t length) {
        u8 prefix[NORVI::kSslFramePrefix];
        NORVI::PutFrameLength(prefix, static_cast<u32>(length));
        delivered.append(reinterpret_cast<const char*>(prefix), sizeof prefix);
        delivered.append(reinterpret_cast<const char*>(frame), length);
    };
    for (size_t offset = 0; offset < stream.size() && !refused;) {
        const size_t length = step == 0 ? stream.size() : std::min(step, stream.size() - offset);
        refused = !reader.Feed(reinterpret_cast<const u8*>(stream.data()) + offset, length, deliver,
                               error);
        offset += length;
    }

    // What was delivered is the stream's beginning, frame by frame.
    VEXIL::FuzzCheck(stream.compare(0, delivered.size(), delivered) == 0,
                     "frames that the stream does not hold", std::to_string(delivered.size()));
    const std::string rest = stream.substr(delivered.size());
    u32 next = 0;
    if (rest.size() >= NORVI::kSslFramePrefix) {
        next = NORVI::FrameLength(reinterpret_cast<const u8*>(rest.data()));
    }
    const bool outOfBounds = rest.size() >= NORVI::kSslFramePrefix &&
                             (next < NORVI::kSslHeaderSize || next > NORVI::kSslRequestMax);
    VEXIL::FuzzCheck(refused == outOfBounds, "a refusal that the stream does not call for", error);
    VEXIL::FuzzCheck(refused != error.empty(), "a refusal without a reason", error);
    if (refused) {
        VEXIL::FuzzCheck(reader.Pending() == 0, "bytes kept after a refusal", error);
    } else {
        // Whatever follows the last frame is one frame short of its end.
        VEXIL::FuzzCheck(
            reader.Pending() == rest.size() && rest.size() < NORVI::kSslFramePrefix + next,
            "a whole frame held back, or bytes lost", std::to_string(rest.size()));
    }
    return 0;
}
