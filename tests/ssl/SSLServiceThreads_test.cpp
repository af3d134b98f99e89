// The SSL key service under load from several threads: thousands of requests
// through a full pool while the configuration changes, then a stop in the
// middle of the traffic. Every accepted request gets exactly one right answer
// while the service runs, none is answered twice, and nothing is left running
// or open after the stop. Built to run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "host/Dom.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Header;
using ssltest::KeyMaterial;
using ssltest::Response;
using ssltest::Tls;

// Two forms of the same configuration: the same keys from files in one and
// from blobs in the other, so that answers don't depend on which one a
// worker sees.
wxString Configuration(bool blobs) {
    const KeyMaterial& keys = KeyMaterial::Get();
    const wxString web = blobs ? wxString::Format("credential=\"%s\"", keys.Base64("key.pem"))
                               : wxString::Format("identifier=\"%s\"", keys.Path("key.pem"));
    const wxString mail = blobs ? wxString::Format("credential=\"%s\"", keys.Base64("legacy.p12"))
                                : wxString::Format("identifier=\"%s\"", keys.Path("modern.p12"));
    return wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"PEM\" %s/>"
        "<SSLCredential id=\"2\" credentialType=\"P12\" passphrase=\"s3cret\" %s/>"
        "</SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"9\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"10\" sslCredentialId=\"2\"/>"
        "<SSLHostConfiguration id=\"11\" sslCredentialId=\"3\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        web, mail);
}

// Request number tag, of one of five kinds: three that decrypt, two that
// fail (no credential, bad version).
void SubmitNumbered(u32 tag) {
    const std::string& cipher = KeyMaterial::Get().Cipher("key");
    switch (tag % 5) {
        case 0:
            ssltest::Submit(Header(128, 9, 3, 0, tag), cipher);
            break;
        case 1:
            ssltest::Submit(Header(130, 10, 3, 1, tag), Tls(cipher));
            break;
        case 2:
            ssltest::Submit(Header(130, 9, 3, 3, tag), Tls(cipher));
            break;
        case 3:
            ssltest::Submit(Header(128, 11, 3, 0, tag), cipher);
            break;
        default:
            ssltest::Submit(Header(128, 9, 1, 0, tag), cipher);
            break;
    }
}

bool Succeeds(u32 tag) {
    return tag % 5 < 3;
}

// Checks each response against its request; counts answers per tag.
void Check(const std::vector<Response>& responses, std::map<u32, int>& answers) {
    for (const Response& response : responses) {
        const u32 tag = response.Tag();
        ++answers[tag];
        if (Succeeds(tag)) {
            EXPECT_EQ(KeyMaterial::Get().Secret(), response.Secret()) << "request " << tag;
        } else {
            EXPECT_EQ(72u, response.bytes.size()) << "request " << tag;
            EXPECT_EQ(0u, response.DecryptedLen()) << "request " << tag;
        }
    }
}

// Submits tags first..first+count-1 in bursts, from its own thread.
std::thread Submitter(u32 first, u32 count) {
    return std::thread([first, count] {
        for (u32 tag = first; tag < first + count; ++tag) {
            SubmitNumbered(tag);
            if (tag % 64 == 63) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
}

TEST(SSLServiceThreads, EveryRequestIsAnsweredOnceThroughChangesAndAStop) {
    ASSERT_EQ(0, ssltest::kLibraryChosen);
    ASSERT_TRUE(KeyMaterial::Get().Ok());
    SSL_CONTROL(norvi_test_reset)();
    NorvCore::SetTraceCategories("");
    const size_t handlesBefore = SSL_CONTROL(norvi_test_open_handles)();
    NorvCore::CDom dom(":memory:");
    dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(4));
    dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(1000000));
    ASSERT_TRUE(dom.SetConfigXml(Configuration(false)));
    VEXIL::CSSLCertThread service(dom);
    service.start(50, true, 0);

    // While requests flow, the configuration flips between its two forms and
    // every worker's cache is dropped again and again.
    const u32 kFirstWave = 3000;
    std::thread submitter = Submitter(0, kFirstWave);
    std::atomic<bool> changing{true};
    std::thread changer([&] {
        for (bool blobs = true; changing; blobs = !blobs) {
            dom.SetConfigXml(Configuration(blobs));
            service.OnSecurityConfigurationChanged();
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    std::vector<Response> responses;
    ssltest::AwaitResponses(responses, kFirstWave, std::chrono::seconds(120));
    submitter.join();
    changing = false;
    changer.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (Response& response : ssltest::TakeResponses()) {
        responses.push_back(response);
    }
    std::map<u32, int> answers;
    Check(responses, answers);
    EXPECT_EQ(kFirstWave, responses.size());
    EXPECT_EQ(kFirstWave, answers.size());
    for (const auto& answer : answers) {
        EXPECT_EQ(1, answer.second) << "request " << answer.first;
    }
    // Several workers shared the load, each on its own handle.
    EXPECT_GT(SSL_CONTROL(norvi_test_open_handles)(), handlesBefore + 2);

    // A second wave, stopped in its middle.
    const u32 kSecondWave = 1500;
    submitter = Submitter(kFirstWave, kSecondWave);
    responses.clear();
    ssltest::AwaitResponses(responses, kSecondWave / 3, std::chrono::seconds(60));
    service.StopThread(L"ssl");
    EXPECT_FALSE(service.isRunning());
    EXPECT_EQ(handlesBefore, SSL_CONTROL(norvi_test_open_handles)());
    submitter.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (Response& response : ssltest::TakeResponses()) {
        responses.push_back(response);
    }
    answers.clear();
    Check(responses, answers);
    EXPECT_LE(responses.size(), kSecondWave);
    EXPECT_GE(responses.size(), kSecondWave / 3);
    for (const auto& answer : answers) {
        EXPECT_GE(answer.first, kFirstWave);
        EXPECT_EQ(1, answer.second) << "request " << answer.first;
    }
    SSL_CONTROL(norvi_test_reset)();
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
