// The SSL key service end to end: requests submitted as the driver would,
// served by the listener and its workers with keys from the configuration.
#include <errno.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::CountContaining;
using ssltest::Header;
using ssltest::KeyMaterial;
using ssltest::Response;
using ssltest::Submit;
using ssltest::Tls;

// Host configuration 9 uses the PEM key (or webKey), 10 the legacy PKCS#12
// file, 11 a key file that doesn't exist, 12 a credential that doesn't exist.
wxString Configuration(const std::string& webKey = "key.pem") {
    const KeyMaterial& keys = KeyMaterial::Get();
    return wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"PEM\" identifier=\"%s\"/>"
        "<SSLCredential id=\"2\" credentialType=\"P12\" identifier=\"%s\" passphrase=\"s3cret\"/>"
        "<SSLCredential id=\"3\" credentialType=\"PEM\" identifier=\"%s\"/>"
        "</SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"9\" name=\"web\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"10\" name=\"mail\" sslCredentialId=\"2\"/>"
        "<SSLHostConfiguration id=\"11\" name=\"broken\" sslCredentialId=\"3\"/>"
        "<SSLHostConfiguration id=\"12\" name=\"orphan\" sslCredentialId=\"42\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        keys.Path(webKey), keys.Path("legacy.p12"), keys.Path("missing.pem"));
}

// The service runs from the start of each test, on a manual clock that
// wraps on the way.
class SSLServiceTest : public ssltest::DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_TRUE(KeyMaterial::Get().Ok());
        ASSERT_TRUE(m_Dom.SetConfigXml(Configuration()));
        NorvCore::SetManualTicks(0xFFFF0000u);
        m_Service.start(50, true, 0);
        ASSERT_TRUE(m_Service.isRunning());
    }
    void TearDown() override {
        m_Service.StopThread(L"ssl");
        EXPECT_FALSE(m_Service.isRunning());
        DriverTest::TearDown();
    }

    // The secret answered to one request for configuration 9 under SSL 3.0.
    std::string ServeOne(u32 tag, const std::string& cipher) {
        Submit(Header(128, 9, 3, 0, tag), cipher);
        std::vector<Response> responses;
        ssltest::AwaitResponses(responses, 1);
        EXPECT_EQ(1u, responses.size());
        return responses.empty() ? "<none>" : responses[0].Secret();
    }

    VEXIL::CSSLCertThread m_Service{m_Dom};
};

TEST_F(SSLServiceTest, EachRequestGetsOneAnswerAndEachFailureItsReason) {
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ASSERT_EQ(128u, cipher.size());
    const std::string x128(128, 'x');
    const std::string zeros1026(1026, '\0');
    const struct {
        ssltest::Bytes header;  // tagged with its position from 1
        std::string data;
        bool decrypts;
    } requests[] = {
        {Header(128, 9, 3, 0, 1), cipher, true},
        {Header(130, 9, 3, 1, 2), Tls(cipher), true},
        {Header(130, 9, 3, 3, 3), Tls(cipher) + "trailing bytes beyond the field", true},
        {Header(130, 9, 4, 0, 4), Tls(cipher), true},  // a later major version is TLS too
        {Header(128, 10, 3, 0, 5), cipher, true},      // from the legacy PKCS#12 file
        {Header(128, 12, 2, 0, 6), x128, false},       // no credential, bad version
        {Header(128, 77, 3, 0, 7), x128, false},       // no such configuration
        {Header(128, 11, 3, 0, 8), x128, false},       // key file missing
        {Header(128, 9, 3, 0, 9, 2), x128, false},
        {Header(128, 9, 2, 9, 10), x128, false},
        {Header(1, 9, 3, 1, 11), "x", false},
        {Header(0, 9, 3, 2, 12), "", false},
        {Header(1027, 9, 3, 1, 13), std::string(1027, '\0'), false},
        {Header(1025, 9, 3, 0, 14), std::string(1025, '\0'), false},
        {Header(1026, 9, 3, 1, 15), zeros1026, false},  // 1024 bytes: tried, and refused by RSA
        {Header(1024, 9, 3, 0, 16), zeros1026, false},
    };
    for (const auto& request : requests) {
        Submit(request.header, request.data);
    }
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, 16);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(16u, ssltest::AwaitResponses(responses).size());
    std::set<u32> tags;
    for (const Response& response : responses) {
        const u32 tag = response.Tag();
        ASSERT_TRUE(tag >= 1 && tag <= 16 && tags.insert(tag).second) << "tag " << tag;
        const bool decrypts = requests[tag - 1].decrypts;
        ASSERT_EQ(decrypts ? 120u : 72u, response.bytes.size()) << tag;
        EXPECT_EQ(decrypts ? KeyMaterial::Get().Secret() : "", response.Secret()) << tag;
        EXPECT_EQ(ssltest::Bytes(8, 0),
                  ssltest::Bytes(response.bytes.end() - 8, response.bytes.end()));
        EXPECT_NE(nullptr, response.sender);
    }
    const std::vector<std::string> log = NorvCore::TakeOperatorLogLines();
    // The key is looked up first: the bad version of request 6 goes unseen.
    EXPECT_EQ(1u, CountContaining(log,
                                  "::GetKey() - unable to locate SSL credential for SSL "
                                  "host configuration 'orphan' with ID 12"));
    EXPECT_EQ(1u, CountContaining(log, "configuration '<Not Found>' with ID 77"));
    EXPECT_EQ(2u, CountContaining(log, "::GetKey() - "));
    EXPECT_EQ(1u, CountContaining(log,
                                  "::ProcessSSLCertRequest() - Unsupported key exchange "
                                  "method = 2"));
    EXPECT_EQ(1u, CountContaining(log, "::ProcessSSLCertRequest() - Unsupported Protocol version"));
    EXPECT_EQ(4u, CountContaining(log, "::ProcessSSLCertRequest() - premaster key too large"));
    EXPECT_GE(CountContaining(log, "CRSAOpenSSLKey::Decrypt() RSA_private_decrypt: "), 2u);
}

TEST_F(SSLServiceTest, KeysStayCachedUntilAMinuteUnusedOrAConfigurationChange) {
    const KeyMaterial& keys = KeyMaterial::Get();
    ServeOne(1, keys.Cipher("key"));
    NorvCore::AdvanceManualTicks(60000);
    ServeOne(2, keys.Cipher("key"));
    std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(0u, CountContaining(lines, "removing key"));
    EXPECT_EQ(1u, CountContaining(lines, "found existing key for SSL configuration 9"));

    NorvCore::AdvanceManualTicks(60001);
    EXPECT_EQ(keys.Secret(), ServeOne(3, keys.Cipher("key")));
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines,
                                  "CSSLCertThreadWorker0: removing key for SSL configuration 9 "
                                  "from my private key cache due to inactivity"));
    EXPECT_EQ(1u, CountContaining(lines, "adding key for SSL configuration 9 to my private key"));

    // A change drops the cache at the next lookup, and the key is loaded anew.
    ASSERT_TRUE(m_Dom.SetConfigXml(Configuration("key2.pem")));
    m_Service.OnSecurityConfigurationChanged();
    EXPECT_EQ(keys.Secret(), ServeOne(4, keys.Cipher("key2")));
    EXPECT_EQ("", ServeOne(5, keys.Cipher("key")));
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::InvalidateKeyCache()"));
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::ClearKeyCache()"));
    EXPECT_EQ(1u, CountContaining(lines, "adding key for SSL configuration 9"));
    NorvCore::TakeOperatorLogLines();
}

TEST_F(SSLServiceTest, IdleWorkerEndsAndANewOneTakesItsSlot) {
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ServeOne(1, cipher);

    // After five idle minutes the wake-up for the next request ends the
    // worker instead; the request waits in the queue.
    NorvCore::AdvanceManualTicks(300001);
    Submit(Header(128, 9, 3, 0, 2), cipher);
    std::vector<std::string> lines;
    for (int wait = 0; wait < 2000 && CountContaining(lines, "Worker0::OnExit()") == 0; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        for (std::string& line : NorvCore::TakeTraceLines()) {
            lines.push_back(std::move(line));
        }
    }
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::OnExit()"));
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0: shutting down since we're idle"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(ssltest::TakeResponses().empty());

    // The next request reaps the slot and starts a worker there, which
    // serves both.
    Submit(Header(128, 9, 3, 0, 3), cipher);
    std::vector<Response> responses;
    ASSERT_EQ(2u, ssltest::AwaitResponses(responses, 2).size());
    for (const Response& response : responses) {
        EXPECT_EQ(KeyMaterial::Get().Secret(), response.Secret());
    }
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::OnRun()"));
    EXPECT_EQ(0u, CountContaining(lines, "CSSLCertThreadWorker1"));
}

TEST_F(SSLServiceTest, RefusedSecretIsFollowedByOneFailureResponse) {
    SSL_CONTROL(norvi_test_set_ssl_response_result)(EIO);
    std::vector<Response> responses;
    Submit(Header(128, 9, 3, 0, 5), KeyMaterial::Get().Cipher("key"));
    ssltest::AwaitResponses(responses, 2);
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(120u, responses[0].bytes.size());
    EXPECT_EQ(72u, responses[1].bytes.size());
    EXPECT_EQ(5u, responses[1].Tag());
    EXPECT_EQ(responses[0].sender, responses[1].sender);
    // Each refusal's event is written after the driver saw the response.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_Dom.AgentEvents().size() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(2u, m_Dom.AgentEvents().size());
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
