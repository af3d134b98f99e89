// The SSL key service end to end: requests submitted as the driver would,
// served by the listener and its workers with keys from the configuration,
// answered on the driver channel.
#include <errno.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/Dom.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Bytes;
using ssltest::CountContaining;
using ssltest::Header;
using ssltest::KeyMaterial;
using ssltest::Response;
using ssltest::Submit;
using ssltest::Tls;
using VEXIL::CSSLCertThread;

// The configuration: host configuration 9 uses the PEM key (or, with key2,
// the second key), 10 the legacy PKCS#12 file, 11 a key file that doesn't
// exist, 12 a credential that doesn't exist.
wxString Configuration(const std::string& webKey = "key.pem") {
    const KeyMaterial& keys = KeyMaterial::Get();
    return wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" name=\"web key\" credentialType=\"PEM\" identifier=\"%s\"/>"
        "<SSLCredential id=\"2\" name=\"mail key\" credentialType=\"P12\" identifier=\"%s\" "
        "passphrase=\"s3cret\"/>"
        "<SSLCredential id=\"3\" name=\"lost key\" credentialType=\"PEM\" identifier=\"%s\"/>"
        "</SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"9\" name=\"web\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"10\" name=\"mail\" sslCredentialId=\"2\"/>"
        "<SSLHostConfiguration id=\"11\" name=\"broken\" sslCredentialId=\"3\"/>"
        "<SSLHostConfiguration id=\"12\" name=\"orphan\" sslCredentialId=\"42\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        keys.Path(webKey), keys.Path("legacy.p12"), keys.Path("missing.pem"));
}

class SSLServiceTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, ssltest::kLibraryChosen);
        ASSERT_TRUE(KeyMaterial::Get().Ok());
        ASSERT_NE(nullptr, SSL_CONTROL(norvi_test_reset));
        SSL_CONTROL(norvi_test_reset)();
        m_HandlesBefore = SSL_CONTROL(norvi_test_open_handles)();
        NorvCore::SetTraceCategories("norvp.vexil.SSLCertThread");
        NorvCore::TakeTraceLines();
        NorvCore::TakeOperatorLogLines();
        ASSERT_TRUE(m_Dom.SetConfigXml(Configuration()));
    }
    void TearDown() override {
        if (m_Service != nullptr) {
            m_Service->StopThread(L"ssl");
            EXPECT_FALSE(m_Service->isRunning());
            m_Service.reset();
        }
        EXPECT_EQ(m_HandlesBefore, SSL_CONTROL(norvi_test_open_handles)());
        SSL_CONTROL(norvi_test_reset)();
        NorvCore::UseRealTicks();
        NorvCore::SetTraceCategories("");
    }

    void Start() {
        m_Service.reset(new CSSLCertThread(m_Dom));
        m_Service->start(50, true, 0);
        ASSERT_TRUE(m_Service->isRunning());
    }

    // Submits one request and waits for its answers.
    std::vector<Response> Serve(const Bytes& header, const std::string& data, size_t answers = 1) {
        Submit(header, data);
        std::vector<Response> responses;
        ssltest::AwaitResponses(responses, answers);
        return responses;
    }

    // Collects trace lines until one contains text, or the time runs out.
    bool AwaitTrace(const std::string& text, std::vector<std::string>& seen) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            for (std::string& line : NorvCore::TakeTraceLines()) {
                seen.push_back(std::move(line));
            }
            if (CountContaining(seen, text) > 0) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    NorvCore::CDom m_Dom{":memory:"};
    std::unique_ptr<CSSLCertThread> m_Service;
    size_t m_HandlesBefore = 0;
};

TEST_F(SSLServiceTest, DecryptsSsl3AndTlsPreMasterSecrets) {
    Start();
    const KeyMaterial& keys = KeyMaterial::Get();
    const std::string cipher = keys.Cipher("key");
    ASSERT_EQ(128u, cipher.size());
    Submit(Header(128, 9, 3, 0, 1), cipher);
    Submit(Header(130, 9, 3, 1, 2), Tls(cipher));
    Submit(Header(130, 9, 3, 3, 3), Tls(cipher) + "trailing bytes beyond the field");
    Submit(Header(130, 9, 4, 0, 4), Tls(cipher));  // a later major version is TLS too
    Submit(Header(128, 10, 3, 0, 5), cipher);      // from the legacy PKCS#12 file
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, 5);
    ASSERT_EQ(5u, responses.size());
    std::vector<bool> seen(6, false);
    for (const Response& response : responses) {
        ASSERT_GE(response.Tag(), 1u);
        ASSERT_LE(response.Tag(), 5u);
        EXPECT_FALSE(seen[response.Tag()]) << "answered twice: " << response.Tag();
        seen[response.Tag()] = true;
        EXPECT_EQ(120u, response.bytes.size()) << response.Tag();
        EXPECT_EQ(48u, response.DecryptedLen());
        EXPECT_EQ(keys.Secret(), response.Secret()) << response.Tag();
        EXPECT_NE(nullptr, response.sender);
    }
    EXPECT_TRUE(NorvCore::TakeOperatorLogLines().empty());
}

TEST_F(SSLServiceTest, EveryFailureIsOneEmptyAnswerWithItsReasonInTheLog) {
    Start();
    const std::string zeros1026(1026, '\0');
    Submit(Header(128, 12, 2, 0, 1), std::string(128, 'x'));  // no credential, bad version
    Submit(Header(128, 77, 3, 0, 2), std::string(128, 'x'));  // no such configuration
    Submit(Header(128, 11, 3, 0, 3), std::string(128, 'x'));  // key file missing
    Submit(Header(128, 9, 3, 0, 4, 2), std::string(128, 'x'));
    Submit(Header(128, 9, 2, 9, 5), std::string(128, 'x'));
    Submit(Header(1, 9, 3, 1, 6), "x");
    Submit(Header(0, 9, 3, 2, 7), "");
    Submit(Header(1027, 9, 3, 1, 8), std::string(1027, '\0'));
    Submit(Header(1025, 9, 3, 0, 9), std::string(1025, '\0'));
    Submit(Header(1026, 9, 3, 1, 10), zeros1026);  // 1024 bytes: tried, and refused by RSA
    Submit(Header(1024, 9, 3, 0, 11), zeros1026);
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, 11);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ssltest::AwaitResponses(responses, 12, std::chrono::milliseconds(0));
    ASSERT_EQ(11u, responses.size());
    std::vector<bool> seen(12, false);
    for (const Response& response : responses) {
        ASSERT_LE(response.Tag(), 11u);
        EXPECT_FALSE(seen[response.Tag()]) << "answered twice: " << response.Tag();
        seen[response.Tag()] = true;
        EXPECT_EQ(72u, response.bytes.size()) << response.Tag();
        EXPECT_EQ(0u, response.DecryptedLen());
    }
    const std::vector<std::string> log = NorvCore::TakeOperatorLogLines();
    // The key is looked up first: the bad version of request 1 goes unseen.
    EXPECT_EQ(1u, CountContaining(log,
                                  "::GetKey() - unable to locate SSL credential for SSL "
                                  "host configuration 'orphan' with ID 12"));
    EXPECT_EQ(1u, CountContaining(log, "configuration '<Not Found>' with ID 77"));
    EXPECT_EQ(2u, CountContaining(log, "::GetKey() - "));
    EXPECT_EQ(1u, CountContaining(log,
                                  "::ProcessSSLCertRequest() - Unsupported key exchange "
                                  "method = 2"));
    EXPECT_EQ(1u, CountContaining(log,
                                  "::ProcessSSLCertRequest() - Unsupported Protocol "
                                  "version"));
    EXPECT_EQ(4u, CountContaining(log, "::ProcessSSLCertRequest() - premaster key too large"));
    EXPECT_GE(CountContaining(log, "CRSAOpenSSLKey::Decrypt() RSA_private_decrypt: "), 2u);
}

TEST_F(SSLServiceTest, ConfigurationChangeReplacesCachedKeys) {
    Start();
    const KeyMaterial& keys = KeyMaterial::Get();
    std::vector<Response> responses = Serve(Header(128, 9, 3, 0, 1), keys.Cipher("key"));
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(keys.Secret(), responses[0].Secret());

    ASSERT_TRUE(m_Dom.SetConfigXml(Configuration("key2.pem")));
    m_Service->OnSecurityConfigurationChanged();
    responses = Serve(Header(128, 9, 3, 0, 2), keys.Cipher("key2"));
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(keys.Secret(), responses[0].Secret());
    responses = Serve(Header(128, 9, 3, 0, 3), keys.Cipher("key"));
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(0u, responses[0].DecryptedLen());

    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::InvalidateKeyCache()"));
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::ClearKeyCache()"));
    EXPECT_EQ(2u, CountContaining(lines,
                                  "adding key for SSL configuration 9 to my private key "
                                  "cache"));
    EXPECT_EQ(1u, CountContaining(lines, "found existing key for SSL configuration 9"));
    NorvCore::TakeOperatorLogLines();
}

TEST_F(SSLServiceTest, KeysUnusedForMoreThanAMinuteAreDropped) {
    NorvCore::SetManualTicks(0xFFFF0000u);  // the counter wraps on the way
    Start();
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ASSERT_EQ(1u, Serve(Header(128, 9, 3, 0, 1), cipher).size());
    NorvCore::AdvanceManualTicks(60000);
    ASSERT_EQ(1u, Serve(Header(128, 9, 3, 0, 2), cipher).size());
    std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(0u, CountContaining(lines, "removing key"));
    EXPECT_EQ(1u, CountContaining(lines, "found existing key for SSL configuration 9"));

    NorvCore::AdvanceManualTicks(60001);
    const std::vector<Response> responses = Serve(Header(128, 9, 3, 0, 3), cipher);
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(KeyMaterial::Get().Secret(), responses[0].Secret());
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines,
                                  "CSSLCertThreadWorker0: removing key for SSL "
                                  "configuration 9 from my private key cache due to "
                                  "inactivity"));
    EXPECT_EQ(1u, CountContaining(lines, "adding key for SSL configuration 9"));
}

TEST_F(SSLServiceTest, IdleWorkerEndsAndANewOneTakesItsSlot) {
    NorvCore::SetManualTicks(1000);
    Start();
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ASSERT_EQ(1u, Serve(Header(128, 9, 3, 0, 1), cipher).size());

    // After five idle minutes the wake-up for the next request ends the
    // worker instead; the request waits in the queue.
    NorvCore::AdvanceManualTicks(300001);
    Submit(Header(128, 9, 3, 0, 2), cipher);
    std::vector<std::string> lines;
    ASSERT_TRUE(AwaitTrace("CSSLCertThreadWorker0::OnExit()", lines));
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0: shutting down since we're idle"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(ssltest::TakeResponses().empty());

    // The next request reaps the slot and starts a worker there, which
    // serves both.
    Submit(Header(128, 9, 3, 0, 3), cipher);
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, 2);
    ASSERT_EQ(2u, responses.size());
    for (const Response& response : responses) {
        EXPECT_EQ(KeyMaterial::Get().Secret(), response.Secret());
    }
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::OnRun()"));
    EXPECT_EQ(0u, CountContaining(lines, "CSSLCertThreadWorker1"));
}

TEST_F(SSLServiceTest, RefusedSecretIsFollowedByOneFailureResponse) {
    Start();
    SSL_CONTROL(norvi_test_set_ssl_response_result)(EIO);
    const std::vector<Response> responses =
        Serve(Header(128, 9, 3, 0, 5), KeyMaterial::Get().Cipher("key"), 2);
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(120u, responses[0].bytes.size());
    EXPECT_EQ(72u, responses[1].bytes.size());
    EXPECT_EQ(5u, responses[1].Tag());
    EXPECT_EQ(responses[0].sender, responses[1].sender);
    EXPECT_EQ(2u, m_Dom.AgentEvents().size());
    NorvCore::TakeOperatorLogLines();
}

TEST_F(SSLServiceTest, StopEndsEveryThreadAndClosesEveryHandle) {
    m_Dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(8));
    Start();
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    for (u32 tag = 0; tag < 40; ++tag) {
        Submit(Header(128, 9, 3, 0, tag), cipher);
    }
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, 40);
    EXPECT_EQ(40u, responses.size());
    EXPECT_GT(SSL_CONTROL(norvi_test_open_handles)(), m_HandlesBefore + 1);

    m_Service->StopThread(L"ssl");
    EXPECT_FALSE(m_Service->isRunning());
    EXPECT_EQ(m_HandlesBefore, SSL_CONTROL(norvi_test_open_handles)());
    // Every worker that ran has ended.
    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    ASSERT_EQ(1u, CountContaining(lines, "CSSLCertThread::OnRun()"));
    ASSERT_EQ(1u, CountContaining(lines, "CSSLCertThread::OnExit()"));
    const size_t workers = CountContaining(lines, "::OnRun()") - 1;
    EXPECT_GT(workers, 1u);
    EXPECT_EQ(workers, CountContaining(lines, "::OnExit()") - 1);
    // Nothing listens any more.
    Submit(Header(128, 9, 3, 0, 99), cipher);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(ssltest::TakeResponses().empty());
}

}  // namespace
