// The protocol of the SSL request socket, a Unix stream socket where other
// processes submit SSL requests for the key service and read its answers.
//
// Every message is framed by its length: four bytes, little-endian, then that
// many bytes. A client sends requests, each the 80-byte request header and
// its data block (at most 65456 bytes); it receives responses, each in the
// response format (72 bytes and the secret). A response carries the client's
// own requestContext back; answers may come in any order.
//
// A frame with a length outside those bounds ends the connection: the stream
// cannot be followed past it.
//
// Threads: constants and pure functions.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace NORVI {

constexpr size_t kSslFramePrefix = 4;
constexpr size_t kSslHeaderSize = 80;
constexpr size_t kSslDataMax = 65536 - kSslHeaderSize;
constexpr size_t kSslRequestMax = kSslHeaderSize + kSslDataMax;
constexpr size_t kSslContextOffset = 8;
constexpr size_t kSslContextSize = 56;
constexpr size_t kSslResponseMin = 72;  // a failure: no secret
constexpr size_t kSslResponseMax = kSslResponseMin + kSslDataMax;

inline void PutFrameLength(uint8_t* prefix, uint32_t length) {
    for (size_t index = 0; index < kSslFramePrefix; ++index) {
        prefix[index] = static_cast<uint8_t>(length >> (8 * index));
    }
}

inline uint32_t FrameLength(const uint8_t* prefix) {
    uint32_t length = 0;
    for (size_t index = 0; index < kSslFramePrefix; ++index) {
        length |= static_cast<uint32_t>(prefix[index]) << (8 * index);
    }
    return length;
}

}  // namespace NORVI
