// RSA private keys from credentials: every form that the openssl command line
// makes, the failure reasons and their order, and decryption of ciphertexts
// made by the command line.
#include <gtest/gtest.h>

#include <openssl/err.h>

#include <memory>
#include <string>

#include "host/Trace.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCredential.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::KeyMaterial;
using VEXIL::CRSAKey;
using VEXIL::CSSLCredential;

const int kNoReason = 0;

struct Outcome {
    std::unique_ptr<CRSAKey> key;
    int reason;
};

class RSAKeyTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(Keys().Ok());
        NorvCore::SetTraceCategories("norv.vexil.RSAKey");
        NorvCore::TakeTraceLines();
        NorvCore::TakeOperatorLogLines();
    }
    void TearDown() override {
        // Whatever happened, no OpenSSL error is left for the next load.
        EXPECT_EQ(0u, ERR_peek_error());
        NorvCore::SetTraceCategories("");
    }

    static const KeyMaterial& Keys() { return KeyMaterial::Get(); }

    static Outcome Load(const wxString& type, const std::string& file,
                        const wxString& passphrase = wxString(), const std::string& blob = "") {
        CSSLCredential credential;
        credential.m_CredentialType = type;
        credential.m_Identifier = file.empty() ? wxString() : wxString(Keys().Path(file));
        credential.m_Passphrase = passphrase;
        credential.m_Credential = wxString::FromUTF8(blob.c_str());
        CRSAKey::FailureReason reason = static_cast<CRSAKey::FailureReason>(kNoReason);
        Outcome outcome{std::unique_ptr<CRSAKey>(CRSAKey::Create(credential, &reason)), reason};
        return outcome;
    }

    // Decrypts the ciphertext made under key ("key" or "key2").
    static std::string Decrypt(CRSAKey& key, const std::string& cipherOf) {
        const std::string cipher = Keys().Cipher(cipherOf);
        unsigned char plain[1024];
        size_t length = 99;
        if (!key.Decrypt(cipher.size(), cipher.data(), plain, sizeof plain, &length)) {
            EXPECT_EQ(0u, length);
            return "<failed>";
        }
        return std::string(reinterpret_cast<char*>(plain), length);
    }
};

TEST_F(RSAKeyTest, EveryFileFormLoadsAndDecrypts) {
    struct Case {
        const char* type;
        const char* file;
        const char* passphrase;
    } cases[] = {
        {"PEM", "key.pem", ""},          {"PEM", "keycert.pem", ""},
        {"PEM", "certkey.pem", ""},      {"PEM", "trad.pem", "s3cret"},
        {"PEM", "pkcs8.pem", "s3cret"},  {"P12", "modern.p12", "s3cret"},
        {"P12", "legacy.p12", "s3cret"}, {"PEM", "key.pem", "unused for a clear key"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.file);
        Outcome outcome = Load(c.type, c.file, c.passphrase);
        ASSERT_NE(nullptr, outcome.key);
        EXPECT_EQ(kNoReason, outcome.reason) << "nothing is stored for a key";
        EXPECT_EQ(Keys().Secret(), Decrypt(*outcome.key, "key"));
    }
}

TEST_F(RSAKeyTest, Base64BlobsTakePrecedenceOverTheIdentifier) {
    // The identifier names a file that does not exist: with a blob it is
    // never opened.
    struct Case {
        const char* type;
        const char* blobOf;
        const char* passphrase;
    } cases[] = {
        {"PEM", "key.pem", ""},          {"PEM", "keycert.pem", ""},
        {"PEM", "pkcs8.pem", "s3cret"},  {"P12", "modern.p12", "s3cret"},
        {"P12", "legacy.p12", "s3cret"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blobOf);
        Outcome outcome = Load(c.type, "no-such-file", c.passphrase, Keys().Base64(c.blobOf));
        ASSERT_NE(nullptr, outcome.key);
        EXPECT_EQ(Keys().Secret(), Decrypt(*outcome.key, "key"));
    }
    Outcome empty = Load("PEM", "", "", Keys().Base64("key.pem"));
    EXPECT_NE(nullptr, empty.key);

    // The filter expects one line: a blob broken into lines doesn't parse.
    std::string wrapped = Keys().Base64("key.pem");
    for (size_t at = 64; at < wrapped.size(); at += 65) {
        wrapped.insert(at, "\n");
    }
    Outcome broken = Load("PEM", "", "", wrapped);
    EXPECT_EQ(nullptr, broken.key);
    EXPECT_EQ(CRSAKey::UnableToLoadCredentials, broken.reason);
    Outcome garbage = Load("P12", "", "", "bm90IGEga2V5");
    EXPECT_EQ(CRSAKey::UnableToLoadCredentials, garbage.reason);
}

TEST_F(RSAKeyTest, WrongOrMissingPassphrasesAreReportedAsSuch) {
    struct Case {
        const char* type;
        const char* file;
        const char* passphrase;
    } cases[] = {
        {"PEM", "trad.pem", "wrong"}, {"PEM", "trad.pem", ""},    {"PEM", "pkcs8.pem", "wrong"},
        {"PEM", "pkcs8.pem", ""},     {"P12", "modern.p12", "x"}, {"P12", "legacy.p12", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " with '" + c.passphrase + "'");
        Outcome outcome = Load(c.type, c.file, c.passphrase);
        EXPECT_EQ(nullptr, outcome.key);
        EXPECT_EQ(CRSAKey::IncorrectPassphrase, outcome.reason);
    }
    Outcome blob = Load("PEM", "", "wrong", Keys().Base64("pkcs8.pem"));
    EXPECT_EQ(CRSAKey::IncorrectPassphrase, blob.reason);

    // About one wrong passphrase in 256 decrypts to valid padding and fails
    // only when the key is decoded: still a wrong passphrase.
    int others = 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const Outcome outcome = Load("PEM", "trad.pem", wxString::Format("guess%d", attempt));
        others += outcome.reason != CRSAKey::IncorrectPassphrase ? 1 : 0;
    }
    EXPECT_EQ(0, others);
}

TEST_F(RSAKeyTest, FailureReasonsFollowTheOrderOfTheChecks) {
    EXPECT_EQ(CRSAKey::UnableToOpenFile, Load("PEM", "missing.pem").reason);
    EXPECT_EQ(CRSAKey::UnableToOpenFile, Load("P12", "missing.p12").reason);
    // A certificate alone: the key is what is missing, at parse level.
    EXPECT_EQ(CRSAKey::UnableToLoadCredentials, Load("PEM", "cert.pem").reason);
    EXPECT_EQ(CRSAKey::UnableToLoadCredentials, Load("P12", "corrupt.p12", "s3cret").reason);
    EXPECT_EQ(CRSAKey::UnableToLoadCredentials, Load("P12", "key.pem").reason);
    // A certificate that forbids key encipherment, before the key is looked at.
    EXPECT_EQ(CRSAKey::ImproperKeyUsage, Load("PEM", "signonly.pem").reason);
    EXPECT_EQ(CRSAKey::KeyNotFound, Load("PEM", "ec.pem").reason);

    // Types are compared exactly; an absent type is unsupported too.
    EXPECT_EQ(CRSAKey::UnsupportedCredentialType, Load("pem", "key.pem").reason);
    EXPECT_EQ(CRSAKey::UnsupportedCredentialType, Load("", "key.pem").reason);

    // The store kind checks the identifier's form, then finds no store here.
    CSSLCredential capi;
    capi.m_CredentialType = wxS("CAPI");
    CRSAKey::FailureReason reason = CRSAKey::KeyNotFound;
    for (const wchar_t* identifier : {L";ab12", L"MY", L""}) {
        capi.m_Identifier = identifier;
        EXPECT_EQ(nullptr, CRSAKey::Create(capi, &reason));
        EXPECT_EQ(CRSAKey::BadIdentifierFormat, reason) << identifier;
    }
    for (const wchar_t* identifier : {L"MY;", L"MY;00ff"}) {
        capi.m_Identifier = identifier;
        EXPECT_EQ(nullptr, CRSAKey::Create(capi, &reason));
        EXPECT_EQ(CRSAKey::UnableToOpenContainer, reason) << identifier;
    }
    // Without a place for the reason the call still fails cleanly.
    EXPECT_EQ(nullptr, CRSAKey::Create(capi, nullptr));
}

TEST_F(RSAKeyTest, TracesNameTheFailingStepButNeverThePassphrase) {
    const wxString passphrase = wxS("Do-Not-Log-Me");
    Load("PEM", "pkcs8.pem", passphrase);
    Load("P12", "modern.p12", passphrase);
    Load("CAPI", "", passphrase);
    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    // Each per-error line names the loading function itself, not a helper.
    const size_t pemLines = ssltest::CountContaining(lines, "PEM_read_bio_PrivateKey: ");
    const size_t p12Lines = ssltest::CountContaining(lines, "PKCS12_parse: ");
    EXPECT_GT(pemLines, 0u);
    EXPECT_GT(p12Lines, 0u);
    EXPECT_EQ(pemLines, ssltest::CountContaining(lines,
                                                 " VEXIL::CRSAOpenSSLKey::Create: CRSAOpenSSLKey::"
                                                 "Create() - PEM_read_bio_PrivateKey: "));
    EXPECT_EQ(p12Lines, ssltest::CountContaining(lines,
                                                 " VEXIL::CRSAOpenSSLKey::Create: CRSAOpenSSLKey::"
                                                 "Create() - PKCS12_parse: "));
    EXPECT_EQ(1u, ssltest::CountContaining(lines, "CRSACryptoAPIKey::Create() - bad identifier"));
    EXPECT_EQ(0u, ssltest::CountContaining(lines, "Do-Not-Log-Me"));
    EXPECT_EQ(0u, ssltest::CountContaining(NorvCore::TakeOperatorLogLines(), "Do-Not-Log-Me"));

    Load("rsa", "key.pem");
    EXPECT_EQ(1u,
              ssltest::CountContaining(NorvCore::TakeTraceLines(),
                                       "CRSAKey::Create() - unsupported credential type 'rsa'"));
}

TEST_F(RSAKeyTest, DecryptRefusesCiphertextOfAnotherKey) {
    Outcome outcome = Load("PEM", "key.pem");
    ASSERT_NE(nullptr, outcome.key);
    EXPECT_EQ("<failed>", Decrypt(*outcome.key, "key2"));
    // One error line per error that OpenSSL queued.
    EXPECT_GT(ssltest::CountContaining(NorvCore::TakeOperatorLogLines(),
                                       "CRSAOpenSSLKey::Decrypt() RSA_private_decrypt: "),
              0u);
    // The key works on after a failure, and a second key is independent.
    EXPECT_EQ(Keys().Secret(), Decrypt(*outcome.key, "key"));
    Outcome second = Load("PEM", "key2.pem");
    ASSERT_NE(nullptr, second.key);
    EXPECT_EQ(Keys().Secret(), Decrypt(*second.key, "key2"));

    unsigned char plain[1024];
    size_t length = 5;
    const std::string cipher = Keys().Cipher("key");
    EXPECT_FALSE(
        outcome.key->Decrypt(cipher.size() - 1, cipher.data(), plain, sizeof plain, &length));
    EXPECT_EQ(0u, length);
    NorvCore::TakeOperatorLogLines();
}

TEST(RSAKeyNames, EveryReasonHasItsName) {
    const char* names[] = {
        "BadIdentifierFormat",   "IdentifierNotFound", "ImproperKeyUsage",
        "IncorrectPassphrase",   "KeyNotFound",        "UnableToLoadCredentials",
        "UnableToOpenContainer", "UnableToOpenFile",   "UnsupportedCredentialType"};
    for (int value = 580; value <= 588; ++value) {
        EXPECT_EQ(names[value - 580],
                  CRSAKey::toString(static_cast<CRSAKey::FailureReason>(value)));
    }
    NorvCore::TakeOperatorLogLines();
    EXPECT_EQ("Unknown", CRSAKey::toString(static_cast<CRSAKey::FailureReason>(579)));
    EXPECT_EQ(1u, ssltest::CountContaining(NorvCore::TakeOperatorLogLines(), "Assertion"));
}

}  // namespace
