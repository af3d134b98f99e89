// CSslFrameReader: splits the byte stream of one SSL socket client into its
// request frames (protocol in SslSocketProtocol.h), however the stream was
// cut into reads.
//
// Bytes of a frame that has not come whole are kept until the rest comes. A
// length outside 80 to kSslRequestMax makes the stream unreadable from there
// on: Feed says so, with the reason, and keeps nothing.
//
// Threads: belongs to the thread that reads the client; no lock.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace NORVI {

class CSslFrameReader {
public:
    // Called once per complete request frame with its bytes (header and data).
    using Deliver = std::function<void(const uint8_t* frame, size_t length)>;

    // Takes the next bytes of the stream and delivers every frame they
    // complete. False, with the reason in error, at a frame length outside
    // the bounds; the frames before it have been delivered.
    bool Feed(const uint8_t* bytes, size_t length, const Deliver& deliver, std::string& error);

    // Bytes of an incomplete frame held back.
    size_t Pending() const { return m_Input.size(); }

private:
    std::vector<uint8_t> m_Input;  // bytes of an incomplete frame
};

}  // namespace NORVI
