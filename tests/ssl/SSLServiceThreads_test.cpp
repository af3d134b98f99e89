// The SSL key service under load from several threads: thousands of requests
// through a full pool while the configuration changes, then a stop in the
// middle of the traffic. Every request gets exactly one right answer while the
// service runs, and nothing is left running or open after the stop.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Header;
using ssltest::KeyMaterial;
using ssltest::Response;

// The same keys from files or from blobs, so that answers don't depend on
// which form a worker sees.
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

// Tags first..first+count-1, submitted in bursts from a thread of their own.
// Tag % 5 picks the kind: SSL 3.0, TLS 1.0 from PKCS#12, TLS 1.2 decrypt;
// no credential and bad version fail.
std::thread Submitter(u32 first, u32 count) {
    return std::thread([first, count] {
        const std::string& cipher = KeyMaterial::Get().Cipher("key");
        const std::string tls = ssltest::Tls(cipher);
        for (u32 tag = first; tag < first + count; ++tag) {
            const struct {
                u32 preMasterLen, id;
                u8 major, minor;
                const std::string& data;
            } kinds[] = {{128, 9, 3, 0, cipher},
                         {130, 10, 3, 1, tls},
                         {130, 9, 3, 3, tls},
                         {128, 11, 3, 0, cipher},
                         {128, 9, 1, 0, cipher}};
            const auto& kind = kinds[tag % 5];
            ssltest::Submit(Header(kind.preMasterLen, kind.id, kind.major, kind.minor, tag),
                            kind.data);
            if (tag % 64 == 63) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
}

// Collects what is still coming, checks each response against its request and
// that no tag was answered twice; the tags answered.
std::map<u32, int> Check(std::vector<Response>& responses) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (Response& response : ssltest::TakeResponses()) {
        responses.push_back(response);
    }
    std::map<u32, int> answers;
    for (const Response& response : responses) {
        const u32 tag = response.Tag();
        EXPECT_EQ(1, ++answers[tag]) << "request " << tag;
        if (tag % 5 < 3) {
            EXPECT_EQ(KeyMaterial::Get().Secret(), response.Secret()) << "request " << tag;
        } else {
            EXPECT_EQ(72u, response.bytes.size()) << "request " << tag;
            EXPECT_EQ(0u, response.DecryptedLen()) << "request " << tag;
        }
    }
    return answers;
}

TEST(SSLServiceThreads, EveryRequestIsAnsweredOnceThroughChangesAndAStop) {
    ASSERT_EQ(0, ssltest::kLibraryChosen);
    ASSERT_TRUE(KeyMaterial::Get().Ok());
    SSL_CONTROL(norvi_test_reset)();
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
    EXPECT_EQ(kFirstWave, Check(responses).size());
    EXPECT_EQ(kFirstWave, responses.size());
    // Several workers shared the load, each on its own handle.
    EXPECT_GT(SSL_CONTROL(norvi_test_open_handles)(), handlesBefore + 2);

    // A second wave, stopped in its middle: nothing is answered twice, and
    // the stop closes every handle.
    const u32 kSecondWave = 1500;
    submitter = Submitter(kFirstWave, kSecondWave);
    responses.clear();
    ssltest::AwaitResponses(responses, kSecondWave / 3, std::chrono::seconds(60));
    service.StopThread(L"ssl");
    EXPECT_FALSE(service.isRunning());
    EXPECT_EQ(handlesBefore, SSL_CONTROL(norvi_test_open_handles)());
    submitter.join();
    const std::map<u32, int> answers = Check(responses);
    EXPECT_LE(responses.size(), kSecondWave);
    ASSERT_GE(responses.size(), kSecondWave / 3);
    EXPECT_GE(answers.begin()->first, kFirstWave);
    SSL_CONTROL(norvi_test_reset)();
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
