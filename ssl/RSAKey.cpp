#include "ssl/RSAKey.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/proverr.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <wx/debug.h>
#include <wx/log.h>

#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "ssl/Pkcs11Module.h"
#include "ssl/SSLCredential.h"

namespace VEXIL {

namespace {

const wchar_t* const kKeyTrace = CRSAKey::kTraceCategory;

OSSL_PROVIDER* g_DefaultProvider = nullptr;  // written once under the once flag below
OSSL_PROVIDER* g_LegacyProvider = nullptr;   // likewise

// Makes the algorithms of PKCS#12 files from older tools (RC2-40 certificate
// bags, 3DES key bags) available next to the standard ones, once per process.
// Loading any provider explicitly switches the implicit default off, so the
// default provider is loaded first; the legacy one only where it is installed.
void LoadProviders() {
    static std::once_flag loaded;
    std::call_once(loaded, [] {
        g_DefaultProvider = OSSL_PROVIDER_load(nullptr, "default");
        if (g_DefaultProvider == nullptr) {
            wxLogError("CRSAOpenSSLKey: the OpenSSL default provider can't be loaded");
        }
        g_LegacyProvider = OSSL_PROVIDER_load(nullptr, "legacy");
        if (g_LegacyProvider == nullptr) {
            NORV_TRACE(kKeyTrace, "OpenSSL legacy provider not available");
        }
        ERR_clear_error();
        // The providers stay loaded for the life of the process: SSL workers
        // may still be decrypting when it exits, and nothing at exit may pull
        // the algorithms from under them.
    });
}

// A PEM passphrase callback that has none to give, so that OpenSSL never
// prompts on a console for an encrypted key.
int NoPassphrase(char*, int, int, void*) {
    return 0;
}

// Whether the error says that the passphrase was wrong or missing. Beside the
// PEM and PKCS#12 codes for it, an encrypted PKCS#8 key read through
// OpenSSL's decoders reports a failed decryption of its content.
bool IsPassphraseError(unsigned long error) {
    const int library = ERR_GET_LIB(error);
    const int reason = ERR_GET_REASON(error);
    switch (library) {
        case ERR_LIB_PEM:
            return reason == PEM_R_BAD_DECRYPT || reason == PEM_R_BAD_PASSWORD_READ;
        case ERR_LIB_PKCS12:
            // 112 is what older releases called a failed MAC check.
            return reason == 112 || reason == PKCS12_R_MAC_VERIFY_FAILURE ||
                   reason == PKCS12_R_PKCS12_CIPHERFINAL_ERROR;
        case ERR_LIB_PROV:
            return reason == PROV_R_BAD_DECRYPT;
        case ERR_LIB_EVP:
            return reason == EVP_R_BAD_DECRYPT;
        default:
            return false;
    }
}

// The reason of a failed load. Once the passphrase is known to be wrong that
// stays the reason, whatever later errors say.
class CLoadFailure {
public:
    // function: the signature of the loading function, which the per-error
    // trace lines name as theirs.
    explicit CLoadFailure(const char* function) : m_Function(function) {}

    void Set(CRSAKey::FailureReason reason) {
        if (m_Reason != CRSAKey::IncorrectPassphrase) {
            m_Reason = reason;
        }
    }
    bool Failed() const { return m_Failed; }
    void Fail(CRSAKey::FailureReason reason) {
        m_Failed = true;
        Set(reason);
    }
    CRSAKey::FailureReason Reason() const { return m_Reason; }

    // Walks OpenSSL's error queue to its end, first (when not 0) included,
    // tracing one line per error for step; with passphraseErrors an error
    // that tells of a bad passphrase makes that the reason. The walk happens
    // whether tracing is on or not, so that no error is left behind for the
    // next load on this thread.
    void TakeErrors(const char* step, unsigned long first, bool passphraseErrors) {
        const bool trace = NorvCore::LogTraceIsEnabled(kKeyTrace);
        for (unsigned long error = first != 0 ? first : ERR_get_error(); error != 0;
             error = ERR_get_error()) {
            if (trace) {
                char text[256];
                ERR_error_string_n(error, text, sizeof text);
                NorvCore::LogTrace(kKeyTrace, NorvCore::ShortFileName(__FILE__), __LINE__,
                                   m_Function,
                                   wxString::Format("CRSAOpenSSLKey::Create() - %s: %.128s", step,
                                                    wxString::FromUTF8(text)));
            }
            if (passphraseErrors && IsPassphraseError(error)) {
                Set(CRSAKey::IncorrectPassphrase);
            }
        }
    }

private:
    const char* const m_Function;
    bool m_Failed = false;
    CRSAKey::FailureReason m_Reason = CRSAKey::UnableToLoadCredentials;
};

// Whether the PEM input holds an encrypted private key, in either the
// traditional or the PKCS#8 form. Leaves no error behind.
bool HoldsEncryptedKey(BIO* bio) {
    BIO_ctrl(bio, BIO_CTRL_RESET, 0, nullptr);
    bool encrypted = false;
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (!encrypted && PEM_read_bio(bio, &name, &header, &data, &length) == 1) {
        const std::string type = name;
        encrypted = type == PEM_STRING_PKCS8 ||
                    (type.size() >= 11 && type.compare(type.size() - 11, 11, "PRIVATE KEY") == 0 &&
                     std::strstr(header, "ENCRYPTED") != nullptr);
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    ERR_clear_error();
    return encrypted;
}

struct BioFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct Pkcs12Free {
    void operator()(PKCS12* p12) const { PKCS12_free(p12); }
};
struct CertFree {
    void operator()(X509* cert) const { X509_free(cert); }
};

// Opens the input of a credential: the base64 blob when there is one (with a
// buffer on top for PEM, whose reader needs whole lines), else the file.
// Null when it can't, with the failure set.
BIO* OpenInput(bool isPkcs12, const wxString& identifier, const wxScopedCharBuffer& blob,
               CLoadFailure& failure) {
    if (blob.length() == 0) {
        BIO* file = BIO_new_file(identifier.fn_str(), "rb");
        if (file == nullptr) {
            failure.Fail(CRSAKey::UnableToOpenFile);
            failure.TakeErrors("BIO_new_file", 0, false);
        }
        return file;
    }
    BIO* chain = BIO_new_mem_buf(blob.data(), -1);
    BIO* base64 = chain != nullptr ? BIO_new(BIO_f_base64()) : nullptr;
    if (base64 == nullptr) {
        BIO_free_all(chain);
        failure.Fail(CRSAKey::UnableToLoadCredentials);
        failure.TakeErrors("BIO_new", 0, false);
        return nullptr;
    }
    BIO_set_flags(base64, BIO_FLAGS_BASE64_NO_NL);
    chain = BIO_push(base64, chain);
    if (!isPkcs12) {
        BIO* buffer = BIO_new(BIO_f_buffer());
        if (buffer == nullptr) {
            BIO_free_all(chain);
            failure.Fail(CRSAKey::UnableToLoadCredentials);
            failure.TakeErrors("BIO_new", 0, false);
            return nullptr;
        }
        chain = BIO_push(buffer, chain);
    }
    return chain;
}

// Bounds on what a token may hand over, checked before anything is read.
const size_t kMaxCertificates = 4096;
const size_t kMaxCertificateSize = 65536;
const size_t kMaxKeyIdSize = 1024;

// The DER and CKA_ID of the first certificate object on the session's token
// whose DER has the SHA-1 thumbprint. False when there is none.
bool FindCertificate(CPkcs11Session& session, const std::string& thumbprint,
                     std::string& certificate, std::string& keyId) {
    if (thumbprint.size() != SHA_DIGEST_LENGTH) {
        return false;
    }
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE search[] = {{CKA_CLASS, &certificateClass, sizeof certificateClass}};
    std::vector<CK_OBJECT_HANDLE> found;
    session.FindObjects(search, 1, kMaxCertificates, found);
    for (CK_OBJECT_HANDLE object : found) {
        unsigned char digest[SHA_DIGEST_LENGTH];
        if (session.GetAttribute(object, CKA_VALUE, kMaxCertificateSize, certificate) == CKR_OK &&
            SHA1(reinterpret_cast<const unsigned char*>(certificate.data()), certificate.size(),
                 digest) != nullptr &&
            std::memcmp(digest, thumbprint.data(), sizeof digest) == 0) {
            return session.GetAttribute(object, CKA_ID, kMaxKeyIdSize, keyId) == CKR_OK;
        }
    }
    return false;
}

// Whether the certificate lets its key exchange keys: it has no key usage
// extension, or one with keyEncipherment. A DER that doesn't parse doesn't.
bool AllowsKeyExchange(const std::string& certificate) {
    const unsigned char* der = reinterpret_cast<const unsigned char*>(certificate.data());
    std::unique_ptr<X509, CertFree> cert(
        d2i_X509(nullptr, &der, static_cast<long>(certificate.size())));
    if (cert == nullptr) {
        ERR_clear_error();
        NORV_TRACE(kKeyTrace, "CRSACryptoAPIKey::Create() - the certificate can't be parsed");
        return false;
    }
    // The extension's bits as two bytes: the first eight uses, then
    // decipherOnly.
    const uint32_t usage = X509_get_key_usage(cert.get());
    const bool restricted = (X509_get_extension_flags(cert.get()) & EXFLAG_KUSAGE) != 0;
    ERR_clear_error();
    if (restricted && (usage & KU_KEY_ENCIPHERMENT) == 0) {
        NORV_TRACE(kKeyTrace,
                   wxString::Format("CRSACryptoAPIKey::Create() - cert has key usage bits that do "
                                    "not allow key exchange (%02X:%02X)",
                                    usage & 0xFF, (usage >> 8) & 0xFF));
        return false;
    }
    return true;
}

}  // namespace

CRSAKey::~CRSAKey() = default;

CRSAKey* CRSAKey::Create(const CSSLCredential& credential, FailureReason* failure) {
    const wxString& type = credential.m_CredentialType;
    if (type == wxS("PEM") || type == wxS("P12")) {
        return CRSAOpenSSLKey::Create(type == wxS("P12"), credential.m_Identifier,
                                      credential.m_Credential, credential.m_Passphrase, failure);
    }
    if (type == wxS("CAPI")) {
        return CRSACryptoAPIKey::Create(credential.m_Identifier, credential.m_Passphrase, failure);
    }
    NORV_TRACE(kKeyTrace,
               wxString::Format("CRSAKey::Create() - unsupported credential type '%.128s'", type));
    if (failure != nullptr) {
        *failure = UnsupportedCredentialType;
    }
    return nullptr;
}

wxString CRSAKey::toString(FailureReason reason) {
    switch (reason) {
        case BadIdentifierFormat:
            return wxS("BadIdentifierFormat");
        case IdentifierNotFound:
            return wxS("IdentifierNotFound");
        case ImproperKeyUsage:
            return wxS("ImproperKeyUsage");
        case IncorrectPassphrase:
            return wxS("IncorrectPassphrase");
        case KeyNotFound:
            return wxS("KeyNotFound");
        case UnableToLoadCredentials:
            return wxS("UnableToLoadCredentials");
        case UnableToOpenContainer:
            return wxS("UnableToOpenContainer");
        case UnableToOpenFile:
            return wxS("UnableToOpenFile");
        case UnsupportedCredentialType:
            return wxS("UnsupportedCredentialType");
    }
    wxASSERT(false);
    return wxS("Unknown");
}

CRSAKey* CRSAOpenSSLKey::Create(bool isPkcs12, const wxString& identifier,
                                const wxString& credentialBlob, const wxString& passphrase,
                                FailureReason* failure) {
    LoadProviders();
    // Errors left by an earlier caller on this thread must not be taken for
    // this load's.
    ERR_clear_error();

    // The passphrase lives in this buffer for this call only.
    wxScopedCharBuffer password = passphrase.utf8_str();
    const bool hasPassword = password.length() > 0;
    pem_password_cb* const callback = hasPassword ? nullptr : NoPassphrase;
    void* const callbackData = hasPassword ? static_cast<void*>(password.data()) : nullptr;

    CLoadFailure result(__PRETTY_FUNCTION__);
    const wxScopedCharBuffer blob = credentialBlob.utf8_str();
    std::unique_ptr<BIO, BioFree> bio(OpenInput(isPkcs12, identifier, blob, result));
    std::unique_ptr<EVP_PKEY, KeyFree> key;
    std::unique_ptr<PKCS12, Pkcs12Free> p12;
    std::unique_ptr<X509, CertFree> cert;

    if (bio != nullptr && !isPkcs12) {
        cert.reset(PEM_read_bio_X509(bio.get(), nullptr, callback, callbackData));
        const unsigned long error = ERR_get_error();
        if (cert == nullptr &&
            !(ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE)) {
            result.Fail(UnableToLoadCredentials);
            if (error != 0) {
                result.TakeErrors("PEM_read_bio_X509", error, true);
            }
        } else {
            // No certificate is fine; what the search left in the queue is not
            // an error of this load.
            ERR_clear_error();
            // Certificate and key may stand in either order.
            BIO_ctrl(bio.get(), BIO_CTRL_RESET, 0, nullptr);
            key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, callback, callbackData));
            if (key == nullptr) {
                result.Fail(UnableToLoadCredentials);
                result.TakeErrors("PEM_read_bio_PrivateKey", 0, true);
                // About one wrong passphrase in 256 leaves valid padding, and
                // then shows only as a key that doesn't decode.
                if (hasPassword && HoldsEncryptedKey(bio.get())) {
                    result.Set(IncorrectPassphrase);
                }
            }
        }
    } else if (bio != nullptr) {
        p12.reset(d2i_PKCS12_bio(bio.get(), nullptr));
        if (p12 == nullptr) {
            result.Fail(UnableToLoadCredentials);
            result.TakeErrors("d2i_PKCS12_bio", 0, false);
        } else {
            EVP_PKEY* parsedKey = nullptr;
            X509* parsedCert = nullptr;
            if (PKCS12_parse(p12.get(), hasPassword ? password.data() : nullptr, &parsedKey,
                             &parsedCert, nullptr) != 1) {
                result.Fail(UnableToLoadCredentials);
                result.TakeErrors("PKCS12_parse", 0, true);
            } else {
                key.reset(parsedKey);
                cert.reset(parsedCert);
            }
        }
    }

    if (!result.Failed() && cert != nullptr &&
        X509_check_purpose(cert.get(), X509_PURPOSE_NS_SSL_SERVER, 0) == 0) {
        result.Fail(ImproperKeyUsage);
        ERR_clear_error();
    }

    EVP_PKEY_CTX* context = nullptr;
    if (!result.Failed()) {
        if (key == nullptr || !EVP_PKEY_is_a(key.get(), "RSA")) {
            result.Fail(KeyNotFound);
            result.TakeErrors("EVP_PKEY_get1_RSA", 0, false);
        } else {
            context = EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr);
            // Newer OpenSSL releases answer a bad padding with a random secret
            // instead of an error unless told otherwise; the driver must learn
            // that the request failed.
            unsigned int implicitRejection = 0;
            const OSSL_PARAM params[] = {
                OSSL_PARAM_construct_uint("rsa_pkcs1_implicit_rejection", &implicitRejection),
                OSSL_PARAM_construct_end()};
            if (context == nullptr || EVP_PKEY_decrypt_init(context) <= 0 ||
                EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) <= 0 ||
                EVP_PKEY_CTX_set_params(context, params) <= 0) {
                EVP_PKEY_CTX_free(context);
                context = nullptr;
                result.Fail(KeyNotFound);
                result.TakeErrors("EVP_PKEY_decrypt_init", 0, false);
            }
        }
    }

    if (context == nullptr) {
        if (failure != nullptr) {
            *failure = result.Reason();
        }
        return nullptr;
    }
    CRSAKey* made = new (std::nothrow) CRSAOpenSSLKey(context);
    if (made == nullptr) {
        EVP_PKEY_CTX_free(context);
        if (failure != nullptr) {
            *failure = KeyNotFound;
        }
    }
    return made;
}

CRSAOpenSSLKey::CRSAOpenSSLKey(EVP_PKEY_CTX* decryptContext) : m_DecryptContext(decryptContext) {}

CRSAOpenSSLKey::~CRSAOpenSSLKey() {
    EVP_PKEY_CTX_free(m_DecryptContext);
}

bool CRSAOpenSSLKey::Decrypt(size_t inLength, const void* in, void* out, size_t outCapacity,
                             size_t* outLength) {
    *outLength = 0;
    size_t length = outCapacity;
    if (EVP_PKEY_decrypt(m_DecryptContext, static_cast<unsigned char*>(out), &length,
                         static_cast<const unsigned char*>(in), inLength) > 0) {
        *outLength = length;
        return true;
    }
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(error, text, sizeof text);
        wxLogError("CRSAOpenSSLKey::Decrypt() RSA_private_decrypt: %.128s",
                   wxString::FromUTF8(text));
    }
    return false;
}

CRSAKey* CRSACryptoAPIKey::Create(const wxString& identifier, const wxString& passphrase,
                                  FailureReason* failure) {
    auto fail = [failure](FailureReason reason) -> CRSAKey* {
        if (failure != nullptr) {
            *failure = reason;
        }
        return nullptr;
    };
    const int separator = identifier.Find(wxS(';'));
    if (separator == wxNOT_FOUND || separator == 0) {
        NORV_TRACE(kKeyTrace,
                   wxString::Format("CRSACryptoAPIKey::Create() - bad identifier format '%.128s'",
                                    identifier));
        return fail(BadIdentifierFormat);
    }
    const wxString storeName = identifier.Left(separator);
    const std::string thumbprint = NorvCore::fromHexString(identifier.Mid(separator + 1));

    // The store: the token that has the store's name as its label.
    std::string moduleName;
    CPkcs11Module* module = CPkcs11Module::Configured(moduleName);
    CK_SLOT_ID slot = 0;
    CK_FLAGS tokenFlags = 0;
    std::unique_ptr<CPkcs11Session> session;
    if (module != nullptr &&
        module->FindToken(storeName.ToStdString(wxConvUTF8), slot, tokenFlags)) {
        session.reset(new (std::nothrow) CPkcs11Session(*module, slot));
    }
    if (session == nullptr || session->Opened() != CKR_OK) {
        wxLogError("CRSACryptoAPIKey::Create() - no token '%.128s' through PKCS#11 module '%.128s'",
                   storeName, moduleName);
        return fail(UnableToOpenContainer);
    }

    std::string certificate;
    std::string keyId;
    if (!FindCertificate(*session, thumbprint, certificate, keyId)) {
        wxLogError("CRSACryptoAPIKey::Create() - no certificate for '%.128s' on the token",
                   identifier);
        return fail(IdentifierNotFound);
    }
    if (!AllowsKeyExchange(certificate)) {
        return fail(ImproperKeyUsage);
    }

    // Private objects are visible only to a logged-in user, on a token that
    // has users at all.
    if ((tokenFlags & CKF_LOGIN_REQUIRED) != 0) {
        const CK_RV rv = session->Login(passphrase.ToStdString(wxConvUTF8));
        if (rv != CKR_OK) {
            wxLogError("CRSACryptoAPIKey::Create() - C_Login on token '%.128s' failed: CKR 0x%lX",
                       storeName, rv);
            return fail(IncorrectPassphrase);
        }
    }

    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE keyType = CKK_RSA;
    CK_BBOOL decrypts = CK_TRUE;
    CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof keyClass},
                             {CKA_KEY_TYPE, &keyType, sizeof keyType},
                             {CKA_DECRYPT, &decrypts, sizeof decrypts},
                             {CKA_ID, &keyId[0], keyId.size()}};
    std::vector<CK_OBJECT_HANDLE> keys;
    session->FindObjects(search, sizeof search / sizeof search[0], 1, keys);
    CRSAKey* made =
        keys.empty() ? nullptr : new (std::nothrow) CRSACryptoAPIKey(std::move(session), keys[0]);
    if (made == nullptr) {
        wxLogError("CRSACryptoAPIKey::Create() - no RSA private key for '%.128s' on the token",
                   identifier);
        return fail(KeyNotFound);
    }
    return made;
}

CRSACryptoAPIKey::CRSACryptoAPIKey(std::unique_ptr<CPkcs11Session> session, CK_OBJECT_HANDLE key)
    : m_Session(std::move(session)), m_Key(key) {}

CRSACryptoAPIKey::~CRSACryptoAPIKey() = default;

bool CRSACryptoAPIKey::Decrypt(size_t inLength, const void* in, void* out, size_t outCapacity,
                               size_t* outLength) {
    *outLength = 0;
    if (outCapacity < inLength) {
        wxLogError(
            "CRSACryptoAPIKey::Decrypt() - output buffer needs to be at least as big as input "
            "buffer");
        return false;
    }
    // PKCS#11 takes the cipher text big-endian, as it came on the wire.
    const CK_RV rv = m_Session->Decrypt(m_Key, in, inLength, out, outCapacity, *outLength);
    if (rv != CKR_OK) {
        // A module built on OpenSSL, as SoftHSM is, leaves its reasons in
        // this thread's error queue, where the next key load would find them.
        ERR_clear_error();
        wxLogError("CRSACryptoAPIKey::Decrypt() - C_Decrypt() failed: CKR 0x%lX", rv);
        return false;
    }
    return true;
}

}  // namespace VEXIL
