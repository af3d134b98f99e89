// Private keys from PEM and PKCS#12 material with a passphrase, given as a
// base64 blob (encoded here, or taken as it stands) or as a key file. A key
// that loads decrypts a block into the buffer size the key service uses.
//
// Input: a mode byte (bit 0: PKCS#12; bits 1-2: 0 a blob encoded here, 1 the
// blob text as it stands, 2 a key file), the passphrase's length (one byte)
// and bytes, then the key material.
#include <fstream>
#include <memory>
#include <string>

#include <wx/base64.h>

#include "fuzz/FuzzSupport.h"
#include "ssl/RSAKey.h"

namespace {

// The key service's plain-text buffer.
const size_t kSecretBufferSize = 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    VEXIL::CFuzzReader input(data, size);
    const u8 mode = input.Byte();
    const std::string passphrase = input.Bytes(input.Byte());
    const std::string material = input.Rest();
    const bool pkcs12 = (mode & 1) != 0;
    const int source = (mode >> 1) & 3;
    wxString identifier;
    wxString blob;
    if (source == 0) {
        blob = wxBase64Encode(material.data(), material.size());
    } else if (source == 1) {
        blob = wxString::FromUTF8(material.data(), material.size());
    } else {
        const std::string path = VEXIL::FuzzFolder() + "/fuzz_rsa_key";
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(material.data(), std::streamsize(material.size()));
        identifier = wxString::FromUTF8(path.c_str());
    }
    VEXIL::CRSAKey::FailureReason failure = VEXIL::CRSAKey::UnsupportedCredentialType;
    std::unique_ptr<VEXIL::CRSAKey> key(VEXIL::CRSAOpenSSLKey::Create(
        pkcs12, identifier, blob, wxString::FromUTF8(passphrase.data(), passphrase.size()),
        &failure));
    if (key == nullptr) {
        VEXIL::FuzzCheck(failure >= VEXIL::CRSAKey::BadIdentifierFormat &&
                             failure <= VEXIL::CRSAKey::UnsupportedCredentialType,
                         "a failure without a reason", material);
    } else {
        u8 secret[kSecretBufferSize];
        size_t secretSize = 0;
        key->Decrypt(passphrase.size(), passphrase.data(), secret, sizeof secret, &secretSize);
        VEXIL::FuzzCheck(secretSize <= sizeof secret, "a secret beyond its buffer", material);
    }
    VEXIL::FuzzDropLogLines();
    return 0;
}
