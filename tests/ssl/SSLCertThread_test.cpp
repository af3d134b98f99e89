// The SSL key service: its configuration records, the listener driven directly
// (queue, refusals, lookup, pool), then the whole service end to end with
// requests submitted as the driver would, and a process that exits with it running.
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/log.h>
#include <wx/thread.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using namespace ssltest;
using VEXIL::CSSLCertThread;

// Parses text into record; a copy of it must print text back unchanged.
template <typename Record>
void ExpectRoundTrip(Record& record, const wxString& text) {
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, record.FromXML(text, "test")) << text;
    Record copy;
    copy.CopyFrom(record);
    wxString printed;
    copy.ToXML(printed);
    EXPECT_EQ(text, printed);
}

TEST(SSLRecords, EveryRecordPrintsBackWhatItParsed) {
    VEXIL::CSSLCredential credential;
    ExpectRoundTrip(credential, wxString(L"<SSLCredential id=\"3\" name=\"Web &amp; mail\" "
                                         L"credentialType=\"P12\" identifier=\"/k\u00e9ys/a.p12\" "
                                         L"passphrase=\"a&quot;b&lt;c\" details=\"x\" "
                                         L"credential=\"QUJD\"/>"));
    EXPECT_EQ(wxS("a\"b<c"), credential.m_Passphrase);

    VEXIL::CSSLHostConfiguration host;
    ExpectRoundTrip(host,
                    L"<SSLHostConfiguration id=\"9\" name=\"intranet\" allInterfaces=\"true\" "
                    L"sslCredentialId=\"0\" specificIP=\"192.0.2.4\"><AddressInfo ipType=\"2\" "
                    L"ip=\"10.0.0.1\" ipMask=\"255.0.0.0\" ipFrom=\"10.0.0.5\" ipTo=\"10.0.0.9\" "
                    L"ipListId=\"-4\" ipNot=\"true\" mac=\"00:11:22:33:44:55\" macListId=\"7\" "
                    L"macNot=\"true\" macType=\"1\" portType=\"3\" ports=\"443,8443\" "
                    L"portListId=\"12\" portNot=\"true\"/></SSLHostConfiguration>");
    EXPECT_EQ(wxS("443,8443"), host.m_AddressInfo.m_Ports);
}

const VEXIL::SSLRequestHeader* AsRequest(const Bytes& header) {
    return reinterpret_cast<const VEXIL::SSLRequestHeader*>(header.data());
}

class SSLCertThreadTest : public DriverTest {
protected:
    // Hands one request to the listener's entry as the read loop does.
    bool Process(CSSLCertThread& thread, const Bytes& header, const std::string& data) {
        return thread.ProcessDriverData(m_Handle, AsRequest(header), data.data(),
                                        static_cast<u32>(data.size()));
    }
};

TEST_F(SSLCertThreadTest, QueueHoldsUpToItsLimitThenRefusesEachRequestOnce) {
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(2));
    // With the agent going down, workers end before they take anything, so
    // the queue only grows; the entry then asks the read loop to stop.
    m_Dom.RequestExit();
    {
        CSSLCertThread thread(m_Dom);
        // One byte more pre-master than data: dropped without any answer.
        EXPECT_FALSE(Process(thread, Header(5, 1, 3, 1), "abcd"));
        EXPECT_FALSE(Process(thread, Header(4, 1, 3, 1, 1), "abcd"));  // equal lengths
        EXPECT_FALSE(Process(thread, Header(0, 1, 3, 1, 2), ""));      // header only
        EXPECT_TRUE(TakeResponses().empty());

        // The full queue refuses at once, on the listener's handle, with a
        // bare failure carrying the request's context, even when the first
        // error line runs out of memory.
        struct CExhaustedLog : wxLog {
            void DoLogRecord(wxLogLevel level, const wxString&, const wxLogRecordInfo&) override {
                if (level <= wxLOG_Error && !m_Thrown) {
                    m_Thrown = true;
                    throw std::bad_alloc();
                }
            }
            bool m_Thrown = false;
        } exhausted;
        wxLog* const previous = wxLog::SetActiveTarget(&exhausted);
        const Bytes header = Header(4, 1, 3, 1, 0xA1B2C3D4);
        EXPECT_FALSE(Process(thread, header, "abcd"));
        wxLog::SetActiveTarget(previous);
        EXPECT_TRUE(exhausted.m_Thrown);
        const std::vector<Response> responses = TakeResponses();
        ASSERT_EQ(1u, responses.size());
        EXPECT_EQ(m_Handle, responses[0].sender);
        EXPECT_EQ(Answer(header, ""), responses[0].bytes);
        EXPECT_EQ(2u, thread.QueuedRequests());
        EXPECT_EQ(0u, HandlesOnceAt(0));  // no worker stays
        // Nor is there an answer without a handle to send it on.
        EXPECT_FALSE(thread.SendSSLCertResponse(nullptr, AsRequest(header), "secret", 6));
    }
    EXPECT_TRUE(TakeResponses().empty());
}

TEST_F(SSLCertThreadTest, LookupTakesTheFirstHostConfigurationWhoseCredentialExists) {
    ASSERT_TRUE(m_Dom.SetConfigXml(
        L"<SecurityConfiguration><SSLCredentials>"
        L"<SSLCredential id=\"0\" name=\"zero\" credentialType=\"PEM\"/>"
        L"<SSLCredential id=\"1\" name=\"one\" credentialType=\"P12\"/>"
        L"<SSLCredential id=\"1\" name=\"one again\"/>"
        L"</SSLCredentials><SSLHostConfigurations>"
        L"<SSLHostConfiguration id=\"4\" name=\"orphan\" sslCredentialId=\"99\"/>"
        L"<SSLHostConfiguration id=\"4\" name=\"second\" sslCredentialId=\"1\"/>"
        L"<SSLHostConfiguration id=\"5\" name=\"unset\"/>"
        L"<SSLHostConfiguration id=\"6\" name=\"lost\" sslCredentialId=\"7\"/>"
        L"</SSLHostConfigurations></SecurityConfiguration>"));
    CSSLCertThread thread(m_Dom);
    thread.OnSecurityConfigurationChanged();
    VEXIL::CSSLHostConfiguration host;
    VEXIL::CSSLCredential credential;
    const struct {
        u32 id;
        bool found;
        const char* host;  // names of the records in the output
        const char* credential;
    } cases[] = {
        {4, true, "second", "one"},
        {5, true, "unset", "zero"},  // no credential id is 0, not absence
        {6, false, "lost", ""},      // the configuration stays in the output
        {8, false, "", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.found, thread.FindSSLConfiguration(c.id, host, credential)) << c.id;
        EXPECT_EQ(wxString(c.host), host.GetName()) << c.id;
        EXPECT_EQ(wxString(c.credential), credential.GetName()) << c.id;
    }

    // A configuration that can't be read leaves the records as they were.
    ASSERT_TRUE(m_Dom.SetConfigXml(L"<SecurityConfiguration/>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_TRUE(thread.FindSSLConfiguration(4, host, credential));
    ASSERT_TRUE(m_Dom.SetConfigXml(
        L"<SecurityConfiguration><SSLHostConfigurations/></SecurityConfiguration>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_FALSE(thread.FindSSLConfiguration(4, host, credential));
}

// Each worker holds a driver handle of its own, so the handles opened count
// the workers.
TEST_F(SSLCertThreadTest, PoolStartsOneWorkerPerEightItemsUpToItsSize) {
    const size_t cpus = std::max(1, wxThread::GetCPUCount());
    const struct {
        i64 threadsPerCpu;  // -1: not set, which is 2
        size_t queueSize;
        size_t workers;  // running after the pass, earlier passes' included
    } steps[] = {{4, 0, 0},
                 {4, 1, 1},
                 {4, 8, 1},
                 {4, 9, 2},
                 {4, 100, std::min<size_t>(13, 4 * cpus)},
                 {-1, 1000, 2 * cpus},
                 {0, 1000, 1}};
    std::unique_ptr<NorvCore::CDom> dom;
    std::unique_ptr<CSSLCertThread> thread;
    for (size_t index = 0; index < sizeof steps / sizeof steps[0]; ++index) {
        const auto& step = steps[index];
        if (index == 0 || step.threadsPerCpu != steps[index - 1].threadsPerCpu) {
            thread.reset();
            dom.reset(new NorvCore::CDom(":memory:"));
            if (step.threadsPerCpu >= 0) {
                dom->Set("norvp.vexil.SSL.ThreadsPerCpu", step.threadsPerCpu);
            }
            thread.reset(new CSSLCertThread(*dom));
        }
        thread->ManageWorkerThreads(step.queueSize);
        EXPECT_EQ(step.workers, HandlesOnceAt(step.workers)) << index;
    }
    // A shutdown ends them all; a second finds nothing to do.
    thread->ShutdownWorkerThreads();
    EXPECT_EQ(m_HandlesBefore, OpenHandles());
    thread->ShutdownWorkerThreads();
}

// The service runs from the start of each test, with one worker at most, on
// a manual clock that wraps on the way.
class SSLServiceTest : public DriverTest {
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

    // Whether one request for configuration 9 under SSL 3.0 gets the secret.
    bool Serves(u32 tag, const std::string& cipher) {
        const Bytes header = Header(128, 9, 3, 0, tag);
        Submit(header, cipher);
        const std::vector<Response> responses = TakeResponses(1);
        return responses.size() == 1 &&
               responses[0].bytes == Answer(header, KeyMaterial::Get().Secret());
    }

    // Set before the service reads its settings.
    const bool m_OneWorker = m_Dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(0));
    CSSLCertThread m_Service{m_Dom};
};

TEST_F(SSLServiceTest, EachRequestGetsOneAnswerAndEachFailureItsReason) {
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    ASSERT_EQ(128u, cipher.size());
    const struct {
        Bytes header;  // tagged with its position from 1
        std::string data;
        bool decrypts;
    } requests[] = {
        {Header(128, 9, 3, 0, 1), cipher, true},
        {Header(130, 9, 3, 1, 2), Tls(cipher), true},
        {Header(130, 9, 3, 3, 3), Tls(cipher) + "trailing bytes beyond the field", true},
        {Header(130, 9, 4, 0, 4), Tls(cipher), true},  // a later major version is TLS too
        {Header(128, 10, 3, 0, 5), cipher, true},      // from the legacy PKCS#12 file
        {Header(128, 12, 2, 0, 6), cipher, false},     // no credential, bad version
        {Header(128, 77, 3, 0, 7), cipher, false},     // no such configuration
        {Header(128, 11, 3, 0, 8), cipher, false},     // key file missing
        {Header(128, 9, 3, 0, 9, 2), cipher, false},   // not an RSA key exchange
        {Header(130, 9, 2, 9, 10), Tls(cipher), false},
        {Header(1, 9, 3, 1, 11), "x", false},
        {Header(0, 9, 3, 2, 12), "", false},
        {Header(1027, 9, 3, 1, 13), std::string(1027, '\0'), false},
        {Header(1026, 9, 3, 1, 14), std::string(1026, '\0'), false},  // 1024 bytes: tried
    };
    for (const auto& request : requests) {
        Submit(request.header, request.data);
    }
    const std::vector<Response> responses = TakeResponses(14);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(TakeResponses().empty());
    ASSERT_EQ(14u, responses.size());
    std::set<u32> tags;
    for (const Response& response : responses) {
        const u32 tag = response.Tag();
        ASSERT_TRUE(tag >= 1 && tag <= 14 && tags.insert(tag).second) << "tag " << tag;
        const auto& request = requests[tag - 1];
        const std::string secret = request.decrypts ? KeyMaterial::Get().Secret() : "";
        EXPECT_EQ(Answer(request.header, secret), response.bytes) << tag;
    }
}

// A cached key hides a change of its file until it has gone unused for
// more than a minute, or until the configuration changes.
TEST_F(SSLServiceTest, KeysStayCachedUntilAMinuteUnusedOrAConfigurationChange) {
    const KeyMaterial& keys = KeyMaterial::Get();
    TempFolder folder;
    const std::string web = folder.Path() + "/web.pem";
    const auto install = [&](const char* key) { std::ofstream(web) << ReadFile(keys.Path(key)); };
    install("key.pem");
    ASSERT_TRUE(m_Dom.SetConfigXml(Configuration(false, web)));
    m_Service.OnSecurityConfigurationChanged();
    EXPECT_TRUE(Serves(1, keys.Cipher("key")));
    install("key2.pem");
    NorvCore::AdvanceManualTicks(60000);
    EXPECT_TRUE(Serves(2, keys.Cipher("key")));
    NorvCore::AdvanceManualTicks(60001);
    EXPECT_TRUE(Serves(3, keys.Cipher("key2")));
    install("key.pem");
    m_Service.OnSecurityConfigurationChanged();
    EXPECT_TRUE(Serves(4, keys.Cipher("key")));
}

TEST_F(SSLServiceTest, IdleWorkerEndsAndANewOneTakesItsSlot) {
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    EXPECT_TRUE(Serves(1, cipher));

    // After five idle minutes the wake-up for the next request ends the
    // worker instead, which closes its handle; the request waits in the queue.
    NorvCore::AdvanceManualTicks(300001);
    Submit(Header(128, 9, 3, 0, 2), cipher);
    EXPECT_EQ(1u, HandlesOnceAt(1));
    EXPECT_TRUE(TakeResponses().empty());

    // The next request reaps the pool's one slot and starts a worker there,
    // which serves both.
    Submit(Header(128, 9, 3, 0, 3), cipher);
    const std::vector<Response> responses = TakeResponses(2);
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(Answer(Header(128, 9, 3, 0, 2), KeyMaterial::Get().Secret()), responses[0].bytes);
    EXPECT_EQ(Answer(Header(128, 9, 3, 0, 3), KeyMaterial::Get().Secret()), responses[1].bytes);
}

TEST_F(SSLServiceTest, RefusedSecretIsFollowedByOneFailureResponse) {
    SSL_CONTROL(norvi_test_set_ssl_response_result)(EIO);
    const Bytes header = Header(128, 9, 3, 0, 5);
    Submit(header, KeyMaterial::Get().Cipher("key"));
    const std::vector<Response> responses = TakeResponses(2);
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(Answer(header, KeyMaterial::Get().Secret()), responses[0].bytes);
    EXPECT_EQ(Answer(header, ""), responses[1].bytes);
    EXPECT_EQ(responses[0].sender, responses[1].sender);
    // A refusal by the driver is agent event 1001 (the second one's may
    // still be on its way).
    const std::vector<NorvCore::AgentEvent> events = m_Dom.AgentEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(1001, events[0].number);
    EXPECT_TRUE(events[0].detail.StartsWith(
        wxString::Format("SSL_RESPONSE|%d|norvi_ssl_response: refused by the driver", EIO)))
        << events[0].detail;
}

// A process that exits with the service still running, busy decrypting, ends
// with its own exit status: nothing at exit is torn down beneath the service's
// threads. Each round is a child process; the race needs a few rounds to show.
TEST(SSLServiceExit, AProcessLeftRunningTheServiceExitsCleanly) {
    ASSERT_TRUE(KeyMaterial::Get().Ok());
    // Read here: the first child's exit removes the key material's folder.
    const wxString configuration = Configuration(true);
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    for (int round = 0; round < 8; ++round) {
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            // Left alive on purpose, tracing and logging every worker step:
            // the most use of shared state at exit.
            auto* dom = new NorvCore::CDom(":memory:");
            dom->SetConfigXml(configuration);
            NorvCore::SetTraceCategories("*");
            (new CSSLCertThread(*dom))->start(50, true, 0);
            for (u32 i = 0; i < 2000; ++i) {
                Submit(Header(u32(cipher.size()), 9, 3, 0, i), cipher);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            exit(3);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(W_EXITCODE(3, 0), status) << "round " << round;  // not ended by a signal
    }
}

}  // namespace
