// Keys of the store kind ("CAPI") held by a PKCS#11 token: a SoftHSM token
// made in a temporary folder, reached directly and through p11-kit's proxy,
// with the failure reasons in the order of the checks, decryption inside the
// token, and the whole service answering with such a key.
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <openssl/err.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "host/Dom.h"
#include "ssl/Pkcs11Module.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::CountContaining;
using ssltest::KeyMaterial;
using VEXIL::CRSAKey;

const char kSoftHsm[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kPin[] = "token-pin-5521";
const char kWrongPin[] = "wrong-pin-7734";

// A SoftHSM token "vexil" whose store lives in a temporary folder, made
// once per program before any module loads (SoftHSM reads SOFTHSM2_CONF at
// its initialization). It holds the private key of the key material under
// id 01 and three certificates: "enc" (id 01, keyEncipherment), "sign"
// (id 02, digitalSignature only) and "plain" (id 03, no key usage extension,
// no private key).
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
        if (std::system("command -v softhsm2-util pkcs11-tool >/dev/null 2>&1") != 0 ||
            access(kSoftHsm, R_OK) != 0) {
            m_Missing = "SoftHSM (softhsm2-util, libsofthsm2.so) or OpenSC's pkcs11-tool missing";
            return;
        }
        const KeyMaterial& keys = KeyMaterial::Get();
        const std::string conf = m_Folder.Path() + "/softhsm2.conf";
        std::ofstream(conf) << "directories.tokendir = " << m_Folder.Path() << "/tokens\n"
                            << "objectstore.backend = file\nlog.level = ERROR\n";
        setenv("SOFTHSM2_CONF", conf.c_str(), 1);
        const std::string tool = std::string("pkcs11-tool --module ") + kSoftHsm +
                                 " --token-label vexil --login --pin " + kPin;
        const std::string steps[] = {
            "mkdir tokens",
            std::string("softhsm2-util --init-token --free --label vexil --so-pin so-pin-0000 "
                        "--pin ") +
                kPin,
            "openssl pkcs8 -topk8 -nocrypt -in '" + keys.Path("key.pem") + "' -out key.p8",
            std::string("softhsm2-util --import key.p8 --token vexil --label web --id 01 --pin ") +
                kPin,
            "openssl req -x509 -new -key '" + keys.Path("key.pem") +
                "' -subj /CN=vexil -days 2 -addext keyUsage=keyEncipherment -outform DER "
                "-out enc.der",
            "openssl x509 -in '" + keys.Path("signcert.pem") + "' -outform DER -out sign.der",
            "openssl x509 -in '" + keys.Path("cert.pem") + "' -outform DER -out plain.der",
            "for c in enc:01 sign:02 plain:03; do " + tool +
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
            m_Missing = "the SoftHSM token could not be made";
        }
    }

    TempFolder m_Folder;
    std::string m_Missing;
};

class Pkcs11KeyTest : public ssltest::DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        if (!Token::Get().Missing().empty()) {
            GTEST_SKIP() << Token::Get().Missing();
        }
        // The module itself, apart from whatever else p11-kit has registered.
        ASSERT_TRUE(m_Dom.Set(VEXIL::CPkcs11Module::kModuleSetting, std::string(kSoftHsm)));
        NorvCore::SetTraceCategories("norv.vexil.RSAKey");
    }
    void TearDown() override {
        EXPECT_EQ(0u, ERR_peek_error());
        DriverTest::TearDown();
    }

    static std::unique_ptr<CRSAKey> Load(const std::string& identifier, const char* pin,
                                         int& reason) {
        VEXIL::CSSLCredential credential;
        credential.m_CredentialType = wxS("CAPI");
        credential.m_Identifier = identifier;
        credential.m_Passphrase = pin;
        CRSAKey::FailureReason failure = static_cast<CRSAKey::FailureReason>(0);
        std::unique_ptr<CRSAKey> key(CRSAKey::Create(credential, &failure));
        reason = failure;
        return key;
    }

    static std::string Decrypt(CRSAKey& key, const std::string& cipher, size_t capacity) {
        unsigned char plain[1024];
        size_t length = 99;
        if (!key.Decrypt(cipher.size(), cipher.data(), plain, capacity, &length)) {
            EXPECT_EQ(0u, length);
            return "<failed>";
        }
        return std::string(reinterpret_cast<char*>(plain), length);
    }
};

TEST_F(Pkcs11KeyTest, ChecksRunInOrderWhetherOrNotTheTokenIsLoggedIn) {
    const Token& token = Token::Get();
    const std::string enc = token.Identifier("enc");
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
        {"", enc, "", CRSAKey::IncorrectPassphrase},
        {"", token.Identifier("plain"), kWrongPin, CRSAKey::IncorrectPassphrase},
        {"", token.Identifier("plain"), kPin, CRSAKey::KeyNotFound},
    };
    // The token's login belongs to the process: a later login while a key
    // is alive meets a logged-in token, and must still refuse a wrong PIN.
    std::unique_ptr<CRSAKey> alive;
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(pass) + " " + c.module + " " + c.identifier + " " + c.pin);
            ASSERT_TRUE(m_Dom.Set(VEXIL::CPkcs11Module::kModuleSetting,
                                  c.module.empty() ? std::string(kSoftHsm) : c.module));
            int reason = -1;
            std::unique_ptr<CRSAKey> key = Load(c.identifier, c.pin, reason);
            EXPECT_EQ(c.reason, reason);
            ASSERT_EQ(c.reason == 0, key != nullptr);
            if (key != nullptr) {
                EXPECT_EQ(KeyMaterial::Get().Secret(),
                          Decrypt(*key, KeyMaterial::Get().Cipher("key"), 128));
            }
        }
        int reason = -1;
        alive = Load(enc, kPin, reason);
        ASSERT_NE(nullptr, alive);
    }
    std::vector<std::string> lines = NorvCore::TakeTraceLines();
    const std::vector<std::string> log = NorvCore::TakeOperatorLogLines();
    lines.insert(lines.end(), log.begin(), log.end());
    EXPECT_EQ(2u, CountContaining(lines, "key usage bits that do not allow key exchange (80:00)"));
    EXPECT_EQ(0u, CountContaining(lines, kPin));
    EXPECT_EQ(0u, CountContaining(lines, kWrongPin));
}

TEST_F(Pkcs11KeyTest, DecryptRunsInTheTokenAndAFailureLeavesTheKeyUsable) {
    int reason = 0;
    std::unique_ptr<CRSAKey> key = Load(Token::Get().Identifier("enc"), kPin, reason);
    ASSERT_NE(nullptr, key);
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    const std::string secret = KeyMaterial::Get().Secret();
    EXPECT_EQ("<failed>", Decrypt(*key, cipher, cipher.size() - 1));
    EXPECT_EQ(1u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                  "output buffer needs to be at least as big as input buffer"));
    EXPECT_EQ(secret, Decrypt(*key, cipher, cipher.size()));
    // Another key's cipher text, and one too short for the modulus (for which
    // the module first asks for more room).
    EXPECT_EQ("<failed>", Decrypt(*key, KeyMaterial::Get().Cipher("key2"), 1024));
    EXPECT_EQ("<failed>", Decrypt(*key, cipher.substr(1), cipher.size() - 1));
    EXPECT_EQ(2u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                  "CRSACryptoAPIKey::Decrypt() - C_Decrypt() failed"));
    EXPECT_EQ(secret, Decrypt(*key, cipher, 1024));
}

TEST_F(Pkcs11KeyTest, TheServiceAnswersWithATokenKey) {
    ASSERT_TRUE(m_Dom.SetConfigXml(wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"CAPI\" identifier=\"%s\" passphrase=\"%s\"/>"
        "<SSLCredential id=\"2\" credentialType=\"CAPI\" identifier=\"%s\" passphrase=\"%s\"/>"
        "</SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"9\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"10\" sslCredentialId=\"2\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        Token::Get().Identifier("enc"), kPin, Token::Get().Identifier("enc"), kWrongPin)));
    VEXIL::CSSLCertThread service(m_Dom);
    service.start(50, true, 0);
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ssltest::Submit(ssltest::Header(130, 9, 3, 3, 1), ssltest::Tls(cipher));
    ssltest::Submit(ssltest::Header(128, 10, 3, 0, 2), cipher);
    ssltest::Submit(ssltest::Header(128, 9, 3, 0, 3), cipher);
    std::vector<ssltest::Response> responses;
    ssltest::AwaitResponses(responses, 3);
    service.StopThread(L"ssl");
    ASSERT_EQ(3u, responses.size());
    for (const ssltest::Response& response : responses) {
        EXPECT_EQ(response.Tag() == 2 ? "" : KeyMaterial::Get().Secret(), response.Secret())
            << response.Tag();
    }
}

TEST_F(Pkcs11KeyTest, P11KitProxyIsTheDefaultModule) {
    ASSERT_TRUE(m_Dom.Set(VEXIL::CPkcs11Module::kModuleSetting, std::string()));
    std::string name;
    if (VEXIL::CPkcs11Module::Configured(name) == nullptr) {
        GTEST_SKIP() << "p11-kit's proxy module (p11-kit-modules) can't be loaded";
    }
    int reason = 0;
    std::unique_ptr<CRSAKey> key = Load(Token::Get().Identifier("enc"), kPin, reason);
    ASSERT_NE(nullptr, key) << reason;
    EXPECT_EQ(KeyMaterial::Get().Secret(), Decrypt(*key, KeyMaterial::Get().Cipher("key"), 1024));
    EXPECT_EQ(nullptr, Load(Token::Get().Identifier("enc"), kWrongPin, reason));
    EXPECT_EQ(CRSAKey::IncorrectPassphrase, reason);
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
