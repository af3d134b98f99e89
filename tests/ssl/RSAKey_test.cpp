// RSA private keys from credentials: the forms that the openssl command line
// makes, the failure reasons and their order, and decryption; then keys of
// the store kind ("CAPI") held by a SoftHSM token made in a temporary folder,
// decrypting inside the token.
#include <stdlib.h>

#include <gtest/gtest.h>

#include <openssl/err.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/Dom.h"
#include "ssl/Pkcs11Module.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCredential.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::KeyMaterial;
using VEXIL::CRSAKey;

// The key of a credential, or none and the reason stored (0 when none was).
std::pair<std::unique_ptr<CRSAKey>, int> LoadKey(const char* type, const std::string& identifier,
                                                 const std::string& passphrase,
                                                 const std::string& blob = "") {
    VEXIL::CSSLCredential credential;
    credential.m_CredentialType = type;
    credential.m_Identifier = wxString::FromUTF8(identifier.c_str());
    credential.m_Passphrase = wxString::FromUTF8(passphrase.c_str());
    credential.m_Credential = wxString::FromUTF8(blob.c_str());
    CRSAKey::FailureReason failure = static_cast<CRSAKey::FailureReason>(0);
    std::unique_ptr<CRSAKey> key(CRSAKey::Create(credential, &failure));
    return {std::move(key), failure};
}

// The plain text of cipher, or "<failed>" (with no length) when the key
// refuses it.
std::string Decrypt(CRSAKey& key, const std::string& cipher, size_t capacity = 1024) {
    unsigned char plain[1024];
    size_t length = 99;
    if (!key.Decrypt(cipher.size(), cipher.data(), plain, capacity, &length)) {
        EXPECT_EQ(0u, length);
        return "<failed>";
    }
    return std::string(reinterpret_cast<char*>(plain), length);
}

// Takes the trace and operator log lines so far: the traced step is there,
// and no secret is.
void ExpectLogWithout(const std::string& traced, const std::vector<std::string>& secrets) {
    std::string text;
    for (const auto& lines : {NorvCore::TakeTraceLines(), NorvCore::TakeOperatorLogLines()}) {
        for (const std::string& line : lines) {
            text += line + "\n";
        }
    }
    EXPECT_NE(std::string::npos, text.find(traced));
    for (const std::string& secret : secrets) {
        EXPECT_EQ(std::string::npos, text.find(secret)) << secret;
    }
}

class RSAKeyTest : public ssltest::DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_TRUE(Keys().Ok());
        NorvCore::SetTraceCategories("norv.vexil.RSAKey");
    }
    void TearDown() override {
        // Whatever happened, no OpenSSL error is left for the next load.
        EXPECT_EQ(0u, ERR_peek_error());
        NorvCore::SetTraceCategories("");
        DriverTest::TearDown();
    }

    static const KeyMaterial& Keys() { return KeyMaterial::Get(); }
};

TEST_F(RSAKeyTest, EachCredentialGivesAWorkingKeyOrItsReason) {
    // The filter expects one line: a blob broken into lines doesn't parse.
    std::string wrapped = Keys().Base64("key.pem");
    for (size_t at = 64; at < wrapped.size(); at += 65) {
        wrapped.insert(at, "\n");
    }
    // With a blob the identifier is never opened, whatever it names.
    const struct {
        const char* type;
        std::string identifier;  // a file of the key material
        const char* passphrase;
        std::string blob;
        int reason;  // 0 for a key
    } cases[] = {
        {"PEM", "key.pem", "", "", 0},
        {"PEM", "keycert.pem", "", "", 0},  // the key before the certificate
        {"PEM", "trad.pem", "s3cret", "", 0},
        {"PEM", "pkcs8.pem", "s3cret", "", 0},
        {"P12", "modern.p12", "s3cret", "", 0},
        {"P12", "legacy.p12", "s3cret", "", 0},
        {"PEM", "key.pem", "unused for a clear key", "", 0},
        {"PEM", "no-such-file", "", Keys().Base64("key.pem"), 0},
        {"P12", "", "s3cret", Keys().Base64("legacy.p12"), 0},
        {"PEM", "trad.pem", "wrong", "", CRSAKey::IncorrectPassphrase},
        {"PEM", "trad.pem", "", "", CRSAKey::IncorrectPassphrase},  // and no prompt
        {"PEM", "pkcs8.pem", "wrong", "", CRSAKey::IncorrectPassphrase},
        {"P12", "modern.p12", "x", "", CRSAKey::IncorrectPassphrase},
        {"PEM", "missing.pem", "", "", CRSAKey::UnableToOpenFile},
        {"PEM", "cert.pem", "", "", CRSAKey::UnableToLoadCredentials},  // no key
        {"P12", "key.pem", "", "", CRSAKey::UnableToLoadCredentials},
        {"PEM", "", "", wrapped, CRSAKey::UnableToLoadCredentials},
        // A certificate that forbids key encipherment, before the key is looked at.
        {"PEM", "signonly.pem", "", "", CRSAKey::ImproperKeyUsage},
        {"PEM", "ec.pem", "", "", CRSAKey::KeyNotFound},
        {"pem", "key.pem", "", "", CRSAKey::UnsupportedCredentialType},
        // The store kind (Pkcs11KeyTest below) checks the identifier's form first.
        {"CAPI", "MY", "s3cret", "", CRSAKey::BadIdentifierFormat},
    };
    const auto load = [](const char* type, const std::string& file, const std::string& passphrase,
                         const std::string& blob = "") {
        return LoadKey(type, file.empty() ? file : Keys().Path(file), passphrase, blob);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.identifier + " '" + c.passphrase + "' " +
                     c.blob.substr(0, 20));
        auto [key, reason] = load(c.type, c.identifier, c.passphrase, c.blob);
        EXPECT_EQ(c.reason, reason);
        ASSERT_EQ(c.reason == 0, key != nullptr);
        if (key != nullptr) {
            // Another key's cipher text fails, and the key works on.
            EXPECT_EQ("<failed>", Decrypt(*key, Keys().Cipher("key2")));
            EXPECT_EQ(Keys().Secret(), Decrypt(*key, Keys().Cipher("key")));
        }
    }
    // Without a place for the reason the call still fails cleanly.
    VEXIL::CSSLCredential capi;
    capi.m_CredentialType = wxS("CAPI");
    EXPECT_EQ(nullptr, CRSAKey::Create(capi, nullptr));
    ExpectLogWithout("Create() - ", {"s3cret"});

    // About one wrong passphrase in 256 decrypts to valid padding and fails
    // only when the key is decoded: still a wrong passphrase.
    int others = 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        others += load("PEM", "trad.pem", "guess" + std::to_string(attempt)).second !=
                  CRSAKey::IncorrectPassphrase;
    }
    EXPECT_EQ(0, others);
}

const char kSoftHsm[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kPin[] = "token-pin-5521";
const char kWrongPin[] = "wrong-pin-7734";

// A SoftHSM token "vexil", made once per program before any module loads
// (SoftHSM reads SOFTHSM2_CONF as it starts): the key material's key (id 01)
// and certificates "enc" (01), "sign" (02) and "plain" (03, without a key).
class Token {
public:
    static const Token& Get() {
        static const Token token;
        return token;
    }

    // Why the token can't be had; empty when it can.
    const std::string& Missing() const { return m_Missing; }
    // "vexil;" and the SHA-1 thumbprint of the certificate name.
    std::string Identifier(const std::string& name) const {
        return "vexil;" + ssltest::ReadFile(m_Folder.Path() + "/" + name + ".sha1").substr(0, 40);
    }

private:
    Token() {
        const KeyMaterial& keys = KeyMaterial::Get();
        setenv("SOFTHSM2_CONF", (m_Folder.Path() + "/softhsm2.conf").c_str(), 1);
        const std::string pin = std::string(" --pin ") + kPin;
        const std::string steps[] = {
            "command -v softhsm2-util pkcs11-tool && test -r " + std::string(kSoftHsm),
            "mkdir tokens && printf 'directories.tokendir = %s/tokens\\nlog.level = ERROR\\n' "
            "\"$PWD\" > softhsm2.conf",
            "softhsm2-util --init-token --free --label vexil --so-pin so-pin-0000" + pin,
            "openssl pkcs8 -topk8 -nocrypt -in '" + keys.Path("key.pem") + "' -out key.p8",
            "softhsm2-util --import key.p8 --token vexil --label web --id 01" + pin,
            "openssl req -x509 -new -key '" + keys.Path("key.pem") +
                "' -subj /CN=vexil -days 2 -addext keyUsage=keyEncipherment -out enc.pem",
            "cp '" + keys.Path("signcert.pem") + "' sign.pem && cp '" + keys.Path("cert.pem") +
                "' plain.pem",
            "for c in enc:01 sign:02 plain:03; do openssl x509 -in ${c%:*}.pem -outform DER "
            "-out ${c%:*}.der && pkcs11-tool --module " +
                std::string(kSoftHsm) + " --token-label vexil --login" + pin +
                " --write-object ${c%:*}.der --type cert --id ${c#*:} --label ${c%:*} && "
                "openssl dgst -sha1 -r ${c%:*}.der > ${c%:*}.sha1 || exit 1; done",
        };
        bool ok = keys.Ok() && !m_Folder.Path().empty();
        for (const std::string& step : steps) {
            const std::string command =
                "(cd '" + m_Folder.Path() + "' && " + step + ") >/dev/null 2>&1";
            ok = ok && std::system(command.c_str()) == 0;
        }
        if (!ok) {
            m_Missing =
                "SoftHSM (softhsm2-util, libsofthsm2.so) or OpenSC's pkcs11-tool is "
                "missing, or the token could not be made";
        }
    }

    TempFolder m_Folder;
    std::string m_Missing;
};

using Pkcs11KeyTest = RSAKeyTest;

TEST_F(Pkcs11KeyTest, ChecksRunInOrderWhetherOrNotTheTokenIsLoggedIn) {
    const Token& token = Token::Get();
    if (!token.Missing().empty()) {
        GTEST_SKIP() << token.Missing();
    }
    const std::string enc = token.Identifier("enc");
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    const struct {
        std::string module;  // empty: the SoftHSM module
        std::string identifier;
        const char* pin;
        int reason;
    } cases[] = {
        {"", enc, kPin, 0},
        {"", ";" + enc.substr(6), kPin, CRSAKey::BadIdentifierFormat},
        {"/nonexistent/libpkcs11.so", enc, kPin, CRSAKey::UnableToOpenContainer},
        {"", "other" + enc.substr(5), kPin, CRSAKey::UnableToOpenContainer},
        {"", "vexil;", kPin, CRSAKey::IdentifierNotFound},
        {"", "vexil;" + std::string(40, '0'), kWrongPin, CRSAKey::IdentifierNotFound},
        {"", token.Identifier("sign"), kWrongPin, CRSAKey::ImproperKeyUsage},
        {"", enc, kWrongPin, CRSAKey::IncorrectPassphrase},
        {"", token.Identifier("plain"), kWrongPin, CRSAKey::IncorrectPassphrase},
        {"", token.Identifier("plain"), kPin, CRSAKey::KeyNotFound},
    };
    // The token's login belongs to the process: a later login while a key
    // is alive meets a logged-in token, and must still refuse a wrong PIN.
    NorvCore::TakeTraceLines();
    std::unique_ptr<CRSAKey> alive;
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(pass) + " " + c.module + " " + c.identifier + " " + c.pin);
            ASSERT_TRUE(m_Dom.Set(VEXIL::CPkcs11Module::kModuleSetting,
                                  c.module.empty() ? std::string(kSoftHsm) : c.module));
            auto [key, reason] = LoadKey("CAPI", c.identifier, c.pin);
            EXPECT_EQ(c.reason, reason);
            ASSERT_EQ(c.reason == 0, key != nullptr);
            if (key != nullptr) {
                // Too little room, another key's cipher text and one too short
                // for the modulus (for which the module first asks for more
                // room) fail inside the token, and the key works on.
                EXPECT_EQ("<failed>", Decrypt(*key, cipher, cipher.size() - 1));
                EXPECT_EQ("<failed>", Decrypt(*key, KeyMaterial::Get().Cipher("key2")));
                EXPECT_EQ("<failed>", Decrypt(*key, cipher.substr(1), cipher.size() - 1));
                EXPECT_EQ(KeyMaterial::Get().Secret(), Decrypt(*key, cipher, cipher.size()));
            }
        }
        alive = LoadKey("CAPI", enc, kPin).first;
        ASSERT_NE(nullptr, alive);
    }
    ExpectLogWithout("CRSACryptoAPIKey::Create() - ", {kPin, kWrongPin});
}

}  // namespace
