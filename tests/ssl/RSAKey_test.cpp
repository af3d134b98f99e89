// RSA private keys from credentials: every form that the openssl command line
// makes, the failure reasons and their order, and decryption.
#include <gtest/gtest.h>

#include <openssl/err.h>

#include <memory>
#include <string>

#include "ssl/RSAKey.h"
#include "ssl/SSLCredential.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::CountContaining;
using ssltest::KeyMaterial;
using VEXIL::CRSAKey;

struct Case {
    const char* type;
    std::string identifier;  // a file of the key material; a CAPI identifier as it stands
    const char* passphrase;
    std::string blob;
    int reason;  // 0 for a key
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

    // The key, and the reason stored (0 when none was).
    static std::unique_ptr<CRSAKey> Load(const Case& c, int& reason) {
        VEXIL::CSSLCredential credential;
        credential.m_CredentialType = c.type;
        credential.m_Identifier = c.identifier.empty() || credential.m_CredentialType == "CAPI"
                                      ? wxString(c.identifier)
                                      : wxString(Keys().Path(c.identifier));
        credential.m_Passphrase = c.passphrase;
        credential.m_Credential = wxString::FromUTF8(c.blob.c_str());
        CRSAKey::FailureReason failure = static_cast<CRSAKey::FailureReason>(0);
        std::unique_ptr<CRSAKey> key(CRSAKey::Create(credential, &failure));
        reason = failure;
        return key;
    }

    static std::string Decrypt(CRSAKey& key, const std::string& cipher) {
        unsigned char plain[1024];
        size_t length = 99;
        if (!key.Decrypt(cipher.size(), cipher.data(), plain, sizeof plain, &length)) {
            EXPECT_EQ(0u, length);
            return "<failed>";
        }
        return std::string(reinterpret_cast<char*>(plain), length);
    }
};

TEST_F(RSAKeyTest, EachCredentialGivesAWorkingKeyOrItsReason) {
    // The filter expects one line: a blob broken into lines doesn't parse.
    std::string wrapped = Keys().Base64("key.pem");
    for (size_t at = 64; at < wrapped.size(); at += 65) {
        wrapped.insert(at, "\n");
    }
    // With a blob the identifier is never opened, whatever it names.
    const Case cases[] = {
        {"PEM", "key.pem", "", "", 0},
        {"PEM", "keycert.pem", "", "", 0},  // the key before the certificate
        {"PEM", "trad.pem", "s3cret", "", 0},
        {"PEM", "pkcs8.pem", "s3cret", "", 0},
        {"P12", "modern.p12", "s3cret", "", 0},
        {"P12", "legacy.p12", "s3cret", "", 0},
        {"PEM", "key.pem", "unused for a clear key", "", 0},
        {"PEM", "no-such-file", "", Keys().Base64("key.pem"), 0},
        {"PEM", "no-such-file", "", Keys().Base64("keycert.pem"), 0},
        {"PEM", "", "s3cret", Keys().Base64("pkcs8.pem"), 0},
        {"P12", "no-such-file", "s3cret", Keys().Base64("modern.p12"), 0},
        {"P12", "", "s3cret", Keys().Base64("legacy.p12"), 0},
        {"PEM", "trad.pem", "wrong", "", CRSAKey::IncorrectPassphrase},
        {"PEM", "trad.pem", "", "", CRSAKey::IncorrectPassphrase},  // and no prompt
        {"PEM", "pkcs8.pem", "wrong", "", CRSAKey::IncorrectPassphrase},
        {"PEM", "pkcs8.pem", "", "", CRSAKey::IncorrectPassphrase},
        {"P12", "modern.p12", "x", "", CRSAKey::IncorrectPassphrase},
        {"P12", "legacy.p12", "", "", CRSAKey::IncorrectPassphrase},
        {"PEM", "", "wrong", Keys().Base64("pkcs8.pem"), CRSAKey::IncorrectPassphrase},
        {"PEM", "missing.pem", "", "", CRSAKey::UnableToOpenFile},
        {"P12", "missing.p12", "", "", CRSAKey::UnableToOpenFile},
        {"PEM", "cert.pem", "", "", CRSAKey::UnableToLoadCredentials},  // no key
        {"P12", "corrupt.p12", "s3cret", "", CRSAKey::UnableToLoadCredentials},
        {"P12", "key.pem", "", "", CRSAKey::UnableToLoadCredentials},
        {"PEM", "", "", wrapped, CRSAKey::UnableToLoadCredentials},
        {"P12", "", "", "bm90IGEga2V5", CRSAKey::UnableToLoadCredentials},
        // A certificate that forbids key encipherment, before the key is looked at.
        {"PEM", "signonly.pem", "", "", CRSAKey::ImproperKeyUsage},
        {"PEM", "ec.pem", "", "", CRSAKey::KeyNotFound},
        {"pem", "key.pem", "", "", CRSAKey::UnsupportedCredentialType},
        {"", "key.pem", "", "", CRSAKey::UnsupportedCredentialType},
        // The store kind checks the identifier's form, then finds no token named MY.
        {"CAPI", ";ab12", "", "", CRSAKey::BadIdentifierFormat},
        {"CAPI", "MY", "", "", CRSAKey::BadIdentifierFormat},
        {"CAPI", "", "", "", CRSAKey::BadIdentifierFormat},
        {"CAPI", "MY;", "", "", CRSAKey::UnableToOpenContainer},
        {"CAPI", "MY;00ff", "", "", CRSAKey::UnableToOpenContainer},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.identifier + " '" + c.passphrase + "' " +
                     c.blob.substr(0, 20));
        int reason = -1;
        std::unique_ptr<CRSAKey> key = Load(c, reason);
        EXPECT_EQ(c.reason, reason);
        ASSERT_EQ(c.reason == 0, key != nullptr);
        if (key != nullptr) {
            EXPECT_EQ(Keys().Secret(), Decrypt(*key, Keys().Cipher("key")));
        }
    }
    // Without a place for the reason the call still fails cleanly.
    VEXIL::CSSLCredential capi;
    capi.m_CredentialType = wxS("CAPI");
    EXPECT_EQ(nullptr, CRSAKey::Create(capi, nullptr));

    // About one wrong passphrase in 256 decrypts to valid padding and fails
    // only when the key is decoded: still a wrong passphrase.
    int others = 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const std::string guess = "guess" + std::to_string(attempt);
        int reason = 0;
        Load(Case{"PEM", "trad.pem", guess.c_str(), "", 0}, reason);
        others += reason != CRSAKey::IncorrectPassphrase ? 1 : 0;
    }
    EXPECT_EQ(0, others);
}

TEST_F(RSAKeyTest, TracesNeverThePassphrase) {
    int reason = 0;
    for (const Case& c : {Case{"PEM", "pkcs8.pem", "Do-Not-Log-Me", "", 0},
                          Case{"P12", "modern.p12", "Do-Not-Log-Me", "", 0},
                          Case{"CAPI", "", "Do-Not-Log-Me", "", 0}}) {
        Load(c, reason);
    }
    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_GT(CountContaining(lines, "Create() - "), 0u);
    EXPECT_EQ(0u, CountContaining(lines, "Do-Not-Log-Me"));
    EXPECT_EQ(0u, CountContaining(NorvCore::TakeOperatorLogLines(), "Do-Not-Log-Me"));
}

TEST_F(RSAKeyTest, DecryptRefusesCiphertextOfAnotherKeyAndWorksOn) {
    int reason = 0;
    std::unique_ptr<CRSAKey> key = Load(Case{"PEM", "key.pem", "", "", 0}, reason);
    ASSERT_NE(nullptr, key);
    EXPECT_EQ("<failed>", Decrypt(*key, Keys().Cipher("key2")));
    EXPECT_EQ("<failed>", Decrypt(*key, Keys().Cipher("key").substr(1)));
    EXPECT_LE(2u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                  "CRSAOpenSSLKey::Decrypt() RSA_private_decrypt: "));
    EXPECT_EQ(Keys().Secret(), Decrypt(*key, Keys().Cipher("key")));
}

}  // namespace
