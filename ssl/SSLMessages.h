// The SSL messages between the driver and the key service.
//
// A request is an 80-byte header and a data block whose start holds the
// client's encrypted pre-master secret. The service queues it as one byte
// string: the header followed at once by the data. A response is a 64-byte
// head, the plain pre-master secret, and 8 zero bytes; a failure is the same
// with no secret. All integers are little-endian on the wire.
#pragma once

#include <endian.h>

#include <cstring>

#include "host/Types.h"

namespace VEXIL {

// The fixed request header, as the driver interface fills it.
struct SSLRequestHeader {
    u32 preMasterLen;        // bytes of the encrypted pre-master field (TLS: with its prefix)
    u32 sslConfigurationId;  // id of the SSL host configuration whose key is wanted
    u8 requestContext[56];   // the driver's own; copied unchanged into the response
    u32 keyExchangeMethod;   // 1 is RSA key exchange, the only method served
    u8 protocolMajor;        // SSL/TLS version as on the wire: 3 for SSL 3.0 and TLS
    u8 protocolMinor;        // 0 for SSL 3.0
    u8 unused[10];           // carried, never read

    // Field values in host byte order.
    u32 PreMasterLen() const { return le32toh(preMasterLen); }
    u32 SslConfigurationId() const { return le32toh(sslConfigurationId); }
    u32 KeyExchangeMethod() const { return le32toh(keyExchangeMethod); }

    // The header at the start of bytes, which hold at least its size.
    static SSLRequestHeader From(const void* bytes) {
        SSLRequestHeader header;
        std::memcpy(&header, bytes, sizeof header);
        return header;
    }
};
static_assert(sizeof(SSLRequestHeader) == 80, "the driver's request header has 80 bytes");

// The head of a response; the secret follows it, then kSSLResponseTrailer
// zero bytes.
struct SSLResponse {
    u32 decryptedLen;       // bytes of the plain secret, 0 for a failure
    u32 reserved;           // zero
    u8 requestContext[56];  // from the request
};
static_assert(sizeof(SSLResponse) == 64, "the response head has 64 bytes");

// Zero bytes after the secret.
constexpr size_t kSSLResponseTrailer = 8;
// Size of a response without a secret.
constexpr size_t kSSLResponseOverhead = sizeof(SSLResponse) + kSSLResponseTrailer;
// The only key exchange method served: RSA.
constexpr u32 kKeyExchangeRsa = 1;

}  // namespace VEXIL
