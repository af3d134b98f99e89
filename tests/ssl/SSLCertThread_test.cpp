// The listener side of the SSL key service, driven directly: settings, the
// queue, refusals, the lookup of a configuration, and the worker pool.
#include <errno.h>

#include <gtest/gtest.h>

#include <wx/log.h>
#include <wx/thread.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"
#include "ssl/SSLRequestHandler.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Bytes;
using ssltest::CountContaining;
using ssltest::Header;
using ssltest::Response;
using VEXIL::CSSLCertThread;
using VEXIL::SSLRequestHeader;

const SSLRequestHeader* AsRequest(const Bytes& header) {
    return reinterpret_cast<const SSLRequestHeader*>(header.data());
}

class SSLCertThreadTest : public ssltest::DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        m_Handle = norvi_open();
        ASSERT_NE(nullptr, m_Handle);
    }
    void TearDown() override {
        norvi_close(m_Handle);
        DriverTest::TearDown();
    }

    // Hands one request to the listener's entry as the read loop does.
    bool Process(CSSLCertThread& thread, const Bytes& header, const std::string& data) {
        return thread.ProcessDriverData(m_Handle, AsRequest(header), data.data(),
                                        static_cast<u32>(data.size()));
    }

    norvi_handle_t m_Handle = nullptr;
};

TEST_F(SSLCertThreadTest, SettingsSizeThePoolAndTheQueue) {
    const unsigned cpus = std::max(1, wxThread::GetCPUCount());
    const struct {
        i64 threadsPerCpu;  // -1: not set
        i64 queueSizeMax;
        wxString expected;
    } cases[] = {
        {-1, -1, wxString::Format("TPC=2 MaxWorkers=%u QMax=%u", 2 * cpus, 256 * cpus)},
        {0, -1, "TPC=0 MaxWorkers=1 QMax=128"},
        {3, 7, wxString::Format("TPC=3 MaxWorkers=%u QMax=7", 3 * cpus)},
    };
    for (const auto& c : cases) {
        NorvCore::CDom dom(":memory:");
        if (c.threadsPerCpu >= 0) {
            dom.Set("norvp.vexil.SSL.ThreadsPerCpu", c.threadsPerCpu);
        }
        if (c.queueSizeMax >= 0) {
            dom.Set("norvp.vexil.SSL.QueueSizeMax", c.queueSizeMax);
        }
        { CSSLCertThread thread(dom); }
        const wxString line = wxString::Format("Settings Cpu=%u ", cpus) + c.expected;
        EXPECT_EQ(1u, CountContaining(NorvCore::TakeTraceLines(), line.ToStdString())) << line;
    }
}

TEST_F(SSLCertThreadTest, QueueHoldsUpToItsLimitThenRefusesEachRequestOnce) {
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(2));
    // With the agent going down, workers end before they take anything, so
    // the queue only grows; the entry then asks the read loop to stop.
    m_Dom.RequestExit();
    {
        CSSLCertThread thread(m_Dom);
        NorvCore::TakeTraceLines();
        // One byte more pre-master than data: dropped without any answer.
        EXPECT_FALSE(Process(thread, Header(5, 1, 3, 1), "abcd"));
        EXPECT_EQ(1u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                      "Warning: SSL decryption request contained bad data: "
                                      "preMasterLen=5, dataLen=4"));
        EXPECT_FALSE(Process(thread, Header(4, 1, 3, 1, 1), "abcd"));  // equal lengths
        EXPECT_FALSE(Process(thread, Header(0, 1, 3, 1, 2), ""));      // header only
        EXPECT_TRUE(ssltest::TakeResponses().empty());

        // The full queue refuses at once, on the listener's handle, with a
        // bare failure carrying the request's context.
        const Bytes header = Header(4, 1, 3, 1, 0xA1B2C3D4);
        EXPECT_FALSE(Process(thread, header, "abcd"));
        const std::vector<Response> responses = ssltest::TakeResponses();
        ASSERT_EQ(1u, responses.size());
        EXPECT_EQ(m_Handle, responses[0].sender);
        Bytes expected(72, 0);
        std::copy(header.begin() + 8, header.begin() + 64, expected.begin() + 8);
        EXPECT_EQ(expected, responses[0].bytes);
        EXPECT_EQ(1u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                      "CSSLCertThread::ProcessDriverData() - SSL decryption "
                                      "queue size exceeded."));
        const std::vector<std::string> lines = NorvCore::TakeTraceLines();
        for (const char* added : {"1 items to the queue.  Queue size is currently 1",
                                  "1 items to the queue.  Queue size is currently 2",
                                  "0 items to the queue.  Queue size is currently 2"}) {
            EXPECT_EQ(1u, CountContaining(lines, std::string("Added ") + added)) << added;
        }
        EXPECT_EQ(2u, CountContaining(lines, "Managing"));

        // Still one answer when the first error line runs out of memory.
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
        Process(thread, Header(4, 1, 3, 1, 0x5151), "abcd");
        wxLog::SetActiveTarget(previous);
        const std::vector<Response> again = ssltest::TakeResponses();
        ASSERT_EQ(1u, again.size());
        EXPECT_EQ(0x5151u, again[0].Tag());
    }
    EXPECT_TRUE(ssltest::TakeResponses().empty());
    EXPECT_EQ(0u, CountContaining(NorvCore::TakeTraceLines(), "pulled an item"));

    // A limit of 0 refuses every request.
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(0));
    CSSLCertThread refusing(m_Dom);
    Process(refusing, Header(4, 1, 3, 1, 9), "abcd");
    EXPECT_EQ(1u, ssltest::TakeResponses().size());
    NorvCore::TakeOperatorLogLines();
}

TEST_F(SSLCertThreadTest, ResponsesNeedAHandleAndReportRefusals) {
    CSSLCertThread thread(m_Dom);
    const Bytes header = Header(50, 1, 3, 1, 77);
    EXPECT_FALSE(thread.SendSSLCertResponse(nullptr, AsRequest(header), "secret", 6));
    EXPECT_TRUE(ssltest::TakeResponses().empty());

    // A refusal by the driver is an error line and agent event 1001.
    SSL_CONTROL(norvi_test_set_ssl_response_result)(EIO);
    EXPECT_FALSE(thread.SendSSLCertResponse(m_Handle, AsRequest(header), nullptr, 0));
    EXPECT_EQ(1u, ssltest::TakeResponses().size());
    const std::vector<NorvCore::AgentEvent> events = m_Dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(1001, events[0].number);
    EXPECT_TRUE(events[0].detail.StartsWith(
        wxString::Format("SSL_RESPONSE|%d|norvi_ssl_response: refused by the driver", EIO)))
        << events[0].detail;
    EXPECT_EQ(1u,
              CountContaining(NorvCore::TakeOperatorLogLines(), "Error: norvi_ssl_response(): "));
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
    EXPECT_EQ(0, host.GetId());

    // A configuration that can't be read leaves the records as they were.
    ASSERT_TRUE(m_Dom.SetConfigXml(L"<SecurityConfiguration/>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_TRUE(thread.FindSSLConfiguration(4, host, credential));
    EXPECT_EQ(wxS("P12"), credential.m_CredentialType);
    ASSERT_TRUE(m_Dom.SetConfigXml(
        L"<SecurityConfiguration><SSLHostConfigurations/></SecurityConfiguration>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_FALSE(thread.FindSSLConfiguration(4, host, credential));
}

TEST_F(SSLCertThreadTest, PoolStartsOneWorkerPerEightItemsUpToItsSize) {
    const unsigned maxWorkers = 4 * std::max(1, wxThread::GetCPUCount());
    m_Dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(4));
    CSSLCertThread thread(m_Dom);
    NorvCore::TakeTraceLines();

    const unsigned full = std::min(13u, maxWorkers);
    const struct {
        size_t queueSize;
        unsigned running;
    } steps[] = {{0, 0}, {1, 1}, {8, 1}, {9, 2}, {100, full}};
    for (const auto& step : steps) {
        thread.ManageWorkerThreads(step.queueSize);
        // Workers trace their start on their own threads, so the pass's
        // line need not be the last.
        std::string running;
        for (const std::string& line : NorvCore::TakeTraceLines()) {
            if (line.find("CSSLCertThread::Managing runningWorkers=") != std::string::npos) {
                running += line.substr(line.rfind('=') + 1) + ";";
            }
        }
        EXPECT_EQ(std::to_string(step.running) + ";", running) << "queue " << step.queueSize;
    }
    // Each worker opens its own handle once its thread is under way.
    for (int wait = 0; wait < 1000 && OpenHandles() < m_HandlesBefore + 1 + full; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(m_HandlesBefore + 1 + full, OpenHandles());

    thread.ShutdownWorkerThreads();
    std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u,
              CountContaining(
                  lines, wxString::Format("Waiting for %u worker threads to shut down.", maxWorkers)
                             .ToStdString()));
    // Workers are named by slot, the lowest slots filled first.
    for (unsigned index = 0; index < full; ++index) {
        const std::string name = "CSSLCertThreadWorker" + std::to_string(index);
        EXPECT_EQ(1u, CountContaining(lines, name + "::OnExit()")) << name;
    }
    EXPECT_EQ(0u, CountContaining(lines, "CSSLCertThreadWorker" + std::to_string(full) + "::"));
    EXPECT_EQ(m_HandlesBefore + 1, OpenHandles());

    // A second shutdown finds no table; a later pass makes a fresh one.
    thread.ShutdownWorkerThreads();
    EXPECT_EQ(0u, CountContaining(NorvCore::TakeTraceLines(), "Waiting for"));
    thread.ManageWorkerThreads(3);
    thread.ShutdownWorkerThreads();
    lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThreadWorker0::OnRun()"));
    EXPECT_EQ(0u, CountContaining(lines, "CSSLCertThreadWorker1::OnRun()"));
}

TEST_F(SSLCertThreadTest, LoadTestModeNeverTalksToTheDriver) {
    m_Dom.Set("norv.mode.loadtest", true);
    CSSLCertThread thread(m_Dom);
    thread.start(50, true, 0);
    for (int wait = 0; wait < 500 && thread.isRunning(); ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_FALSE(thread.isRunning());
    thread.StopThread(L"ssl");
    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThread::OnRun()"));
    EXPECT_EQ(1u, CountContaining(lines, "CSSLCertThread::OnExit()"));
    EXPECT_EQ(0u, CountContaining(lines, "Managing"));
    EXPECT_EQ(0u, CountContaining(lines, "OnSecurityConfigurationChanged"));
    EXPECT_EQ(m_HandlesBefore + 1, OpenHandles());
}

// One request served at once on the caller's thread: refused unanswered
// where the listener refuses, answered exactly once otherwise.
TEST_F(SSLCertThreadTest, HandlerServesOneRequestAtOnce) {
    const ssltest::KeyMaterial& keys = ssltest::KeyMaterial::Get();
    ASSERT_TRUE(keys.Ok());
    NorvCore::CDom dom(":memory:");
    ASSERT_TRUE(dom.SetConfigXml(wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"PEM\" identifier=\"%s\"/></SSLCredentials>"
        "<SSLHostConfigurations><SSLHostConfiguration id=\"9\" sslCredentialId=\"1\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        keys.Path("key.pem"))));
    CSSLCertThread thread(dom);
    thread.OnSecurityConfigurationChanged();
    VEXIL::CSSLRequestHandler handler(thread, "now");
    const std::string cipher = keys.Cipher("key");
    struct Case {
        Bytes header;
        std::string data;
        bool answered;
        std::string secret;  // of the answer
    } cases[] = {
        {Header(u32(cipher.size()), 9, 3, 0, 1), cipher, true, keys.Secret()},
        {Header(u32(cipher.size()) + 2, 9, 3, 1, 2), ssltest::Tls(cipher), true, keys.Secret()},
        {Header(u32(cipher.size()), 8, 3, 0, 3), cipher, true, ""},       // no configuration
        {Header(u32(cipher.size()) + 1, 9, 3, 0, 4), cipher, false, ""},  // beyond its data
        {Header(u32(cipher.size()), 9, 3, 0, 5, 2), cipher, true, ""},    // not RSA
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.answered, handler.ServeNow(m_Handle, *AsRequest(c.header), c.data.data(),
                                               u32(c.data.size())));
        const std::vector<Response> responses = ssltest::TakeResponses();
        ASSERT_EQ(c.answered ? 1u : 0u, responses.size());
        if (c.answered) {
            EXPECT_EQ(c.secret, responses[0].Secret());
        }
    }
}

}  // namespace
