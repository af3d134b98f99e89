// CRSAKey: one loaded RSA private key, whose one job is to decrypt a block
// that was encrypted with the matching public key (the pre-master secret of
// an SSL handshake). Create builds a key from a CSSLCredential:
//
// - CRSAOpenSSLKey: the key comes from a PEM or PKCS#12 file or base64 blob
//   and is used through OpenSSL.
// - CRSACryptoAPIKey: the key stays inside a store that never gives it out:
//   on this platform a PKCS#11 token (an HSM, a smart card, SoftHSM), reached
//   through the module that the host setting norvp.vexil.SSL.pkcs11Module
//   names (p11-kit's proxy by default). The key decrypts inside the token.
//
// Thread safety: a key is immutable after Create and belongs to one thread at
// a time (a worker's cache, or a script), so no kind locks. Create itself may
// run on any thread: OpenSSL's error queue, which it reads, is per thread.
#pragma once

#include <cstddef>
#include <memory>

#include <openssl/types.h>
#include <wx/string.h>

#include "ssl/Pkcs11Session.h"

namespace VEXIL {

class CSSLCredential;

class CRSAKey {
public:
    // Trace category of the keys and of the PKCS#11 plumbing below them.
    static constexpr const wchar_t* kTraceCategory = L"norv.vexil.RSAKey";

    // Why Create gave no key; scripts see the same numbers.
    enum FailureReason {
        BadIdentifierFormat = 580,        // store identifier without "store;" in front
        IdentifierNotFound = 581,         // no certificate with that thumbprint
        ImproperKeyUsage = 582,           // the certificate forbids key exchange
        IncorrectPassphrase = 583,        // wrong passphrase or PIN, failed PKCS#12 check
        KeyNotFound = 584,                // no usable RSA private key in the credential
        UnableToLoadCredentials = 585,    // the blob or file can't be parsed
        UnableToOpenContainer = 586,      // the store (token or its module) can't be opened
        UnableToOpenFile = 587,           // the key file can't be opened
        UnsupportedCredentialType = 588,  // credentialType is not PEM, P12 or CAPI
    };

    virtual ~CRSAKey();
    CRSAKey(const CRSAKey&) = delete;
    CRSAKey& operator=(const CRSAKey&) = delete;

    // A new key that the caller owns, or null. With a key nothing is stored
    // in failure; without one the reason is, when failure is not null.
    // credentialType is compared case-sensitively.
    static CRSAKey* Create(const CSSLCredential& credential, FailureReason* failure);
    // The enumerator's name ("BadIdentifierFormat"...); "Unknown", with a
    // failed assertion, for any other value.
    static wxString toString(FailureReason reason);

    // Decrypts inLength bytes of in (PKCS#1 v1.5 padding) into out, and sets
    // outLength to the size of the plain text (0 on failure).
    virtual bool Decrypt(size_t inLength, const void* in, void* out, size_t outCapacity,
                         size_t* outLength) = 0;

protected:
    CRSAKey() = default;
};

class CRSAOpenSSLKey : public CRSAKey {
public:
    // Loads the key from credentialBlob (base64 on one line) when it is not
    // empty, else from the file named by identifier. isPkcs12 selects PKCS#12
    // over PEM. An empty passphrase never leads to a prompt.
    static CRSAKey* Create(bool isPkcs12, const wxString& identifier,
                           const wxString& credentialBlob, const wxString& passphrase,
                           FailureReason* failure);

    ~CRSAOpenSSLKey() override;

    // outCapacity must be at least the key's modulus size.
    bool Decrypt(size_t inLength, const void* in, void* out, size_t outCapacity,
                 size_t* outLength) override;

private:
    explicit CRSAOpenSSLKey(EVP_PKEY_CTX* decryptContext);

    // Owned; holds a reference to the key, and is set up once for PKCS#1
    // v1.5 decryption so that Decrypt allocates nothing of its own.
    EVP_PKEY_CTX* m_DecryptContext;
};

class CRSACryptoAPIKey : public CRSAKey {
public:
    // identifier is "store name;SHA-1 thumbprint in hex": the label of the
    // token and the thumbprint of the DER of a certificate object on it; the
    // key is the private key object with the certificate's CKA_ID, reached by
    // logging in with passphrase as the user PIN. The checks, in order:
    // BadIdentifierFormat (separator missing or first), UnableToOpenContainer
    // (no module or no such token), IdentifierNotFound, ImproperKeyUsage (a
    // key usage extension without keyEncipherment), IncorrectPassphrase (the
    // token refuses the PIN), KeyNotFound.
    static CRSAKey* Create(const wxString& identifier, const wxString& passphrase,
                           FailureReason* failure);

    // The key's session closes with it.
    ~CRSACryptoAPIKey() override;

    // Decrypts inside the token; outCapacity must be at least inLength. The
    // cipher text is big-endian, as on the wire.
    bool Decrypt(size_t inLength, const void* in, void* out, size_t outCapacity,
                 size_t* outLength) override;

private:
    CRSACryptoAPIKey(std::unique_ptr<CPkcs11Session> session, CK_OBJECT_HANDLE key);

    std::unique_ptr<CPkcs11Session> m_Session;  // owned; this key's own session
    const CK_OBJECT_HANDLE m_Key;               // the private key object in m_Session
};

}  // namespace VEXIL
