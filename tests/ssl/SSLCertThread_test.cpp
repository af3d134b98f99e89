// The listener side of the SSL key service, driven directly: settings, the
// checks and the queue of ProcessDriverData, the response format, the lookup
// of a configuration, and the sizing and shutdown of the worker pool.
#include <errno.h>

#include <gtest/gtest.h>

#include <wx/log.h>
#include <wx/thread.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "host/Dom.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Bytes;
using ssltest::CountContaining;
using ssltest::Header;
using ssltest::Response;
using VEXIL::CSSLCertThread;
using VEXIL::SSLRequestHeader;

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class SSLCertThreadTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, ssltest::kLibraryChosen);
        ASSERT_NE(nullptr, SSL_CONTROL(norvi_test_reset));
        SSL_CONTROL(norvi_test_reset)();
        m_HandlesBefore = SSL_CONTROL(norvi_test_open_handles)();
        NorvCore::SetTraceCategories("norvp.vexil.SSLCertThread");
        NorvCore::TakeTraceLines();
        NorvCore::TakeOperatorLogLines();
        m_Handle = norvi_open();
        ASSERT_NE(nullptr, m_Handle);
    }
    void TearDown() override {
        norvi_close(m_Handle);
        EXPECT_EQ(m_HandlesBefore, SSL_CONTROL(norvi_test_open_handles)());
        SSL_CONTROL(norvi_test_reset)();
        NorvCore::SetTraceCategories("");
    }

    // Hands one request to the listener's entry as the read loop does.
    bool Process(CSSLCertThread& thread, const Bytes& header, const std::string& data) {
        return thread.ProcessDriverData(m_Handle,
                                        reinterpret_cast<const SSLRequestHeader*>(header.data()),
                                        data.data(), static_cast<u32>(data.size()));
    }

    NorvCore::CDom m_Dom{":memory:"};
    norvi_handle_t m_Handle = nullptr;
    size_t m_HandlesBefore = 0;
};

TEST_F(SSLCertThreadTest, SettingsSizeThePoolAndTheQueue) {
    const unsigned cpus = std::max(1, wxThread::GetCPUCount());
    { CSSLCertThread thread(m_Dom); }
    EXPECT_EQ(1u, CountContaining(NorvCore::TakeTraceLines(),
                                  wxString::Format("Settings Cpu=%u TPC=2 MaxWorkers=%u QMax=%u",
                                                   cpus, 2 * cpus, 256 * cpus)
                                      .ToStdString()));
    m_Dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(0));
    { CSSLCertThread thread(m_Dom); }
    EXPECT_EQ(
        1u,
        CountContaining(
            NorvCore::TakeTraceLines(),
            wxString::Format("Settings Cpu=%u TPC=0 MaxWorkers=1 QMax=128", cpus).ToStdString()));
    m_Dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(3));
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(7));
    { CSSLCertThread thread(m_Dom); }
    EXPECT_EQ(1u, CountContaining(
                      NorvCore::TakeTraceLines(),
                      wxString::Format("TPC=3 MaxWorkers=%u QMax=7", 3 * cpus).ToStdString()));
}

TEST_F(SSLCertThreadTest, ProcessDriverDataChecksLengthsAndRefusesWhenTheQueueIsFull) {
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(0));
    CSSLCertThread thread(m_Dom);
    NorvCore::TakeTraceLines();

    // One byte more pre-master than data: dropped without any answer.
    EXPECT_TRUE(Process(thread, Header(5, 1, 3, 1), "abcd"));
    EXPECT_TRUE(ssltest::TakeResponses().empty());
    EXPECT_EQ(1u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                  "Warning: SSL decryption request contained bad data: "
                                  "preMasterLen=5, dataLen=4"));

    // A queue of size 0 refuses every request at once, on the listener's
    // handle, with a bare failure carrying the request's context.
    const Bytes header = Header(4, 1, 3, 1, 0xA1B2C3D4);
    EXPECT_TRUE(Process(thread, header, "abcd"));
    const std::vector<Response> responses = ssltest::TakeResponses();
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(m_Handle, responses[0].sender);
    ASSERT_EQ(72u, responses[0].bytes.size());
    EXPECT_EQ(0u, responses[0].DecryptedLen());
    EXPECT_EQ(Bytes(4, 0), Bytes(responses[0].bytes.begin() + 4, responses[0].bytes.begin() + 8));
    EXPECT_EQ(Bytes(header.begin() + 8, header.begin() + 64),
              Bytes(responses[0].bytes.begin() + 8, responses[0].bytes.begin() + 64));
    EXPECT_EQ(Bytes(8, 0), Bytes(responses[0].bytes.begin() + 64, responses[0].bytes.end()));
    EXPECT_EQ(1u, CountContaining(NorvCore::TakeOperatorLogLines(),
                                  "CSSLCertThread::ProcessDriverData() - SSL decryption queue "
                                  "size exceeded."));
    const std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, "Added 0 items to the queue.  Queue size is currently 0"));
    EXPECT_EQ(0u, CountContaining(lines, "Managing"));
}

// A log target that runs out of memory on its first error line, as logging
// can when the process is short of memory.
class CExhaustedLog : public wxLog {
protected:
    void DoLogRecord(wxLogLevel level, const wxString&, const wxLogRecordInfo&) override {
        if (level <= wxLOG_Error && !m_Thrown) {
            m_Thrown = true;
            throw std::bad_alloc();
        }
    }

private:
    bool m_Thrown = false;
};

TEST_F(SSLCertThreadTest, RefusedRequestIsAnsweredOnceEvenWhenMemoryRunsOut) {
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(0));
    CSSLCertThread thread(m_Dom);
    CExhaustedLog exhausted;
    wxLog* const previous = wxLog::SetActiveTarget(&exhausted);
    Process(thread, Header(4, 1, 3, 1, 0x5151), "abcd");
    wxLog::SetActiveTarget(previous);
    const std::vector<Response> responses = ssltest::TakeResponses();
    ASSERT_EQ(1u, responses.size());
    EXPECT_EQ(0x5151u, responses[0].Tag());
}

TEST_F(SSLCertThreadTest, QueueHoldsUpToItsLimitAndNothingQueuedIsAnsweredAfterTheExit) {
    m_Dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(3));
    // With the agent going down, workers end before they take anything, so
    // the queue only grows; the entry then asks the read loop to stop.
    m_Dom.RequestExit();
    {
        CSSLCertThread thread(m_Dom);
        EXPECT_FALSE(Process(thread, Header(4, 1, 3, 1, 1), "abcd"));  // equal lengths
        EXPECT_FALSE(Process(thread, Header(0, 1, 3, 1, 2), ""));      // header only
        EXPECT_FALSE(Process(thread, Header(1, 1, 3, 1, 3), "xyz"));
        EXPECT_TRUE(ssltest::TakeResponses().empty());
        EXPECT_FALSE(Process(thread, Header(1, 1, 3, 1, 4), "xyz"));
        const std::vector<Response> refused = ssltest::TakeResponses();
        ASSERT_EQ(1u, refused.size());
        EXPECT_EQ(4u, refused[0].Tag());
        const std::vector<std::string> lines = NorvCore::TakeTraceLines();
        EXPECT_EQ(1u, CountContaining(lines, "Queue size is currently 1"));
        EXPECT_EQ(1u, CountContaining(lines, "Queue size is currently 2"));
        EXPECT_EQ(1u, CountContaining(lines,
                                      "Added 1 items to the queue.  Queue size is "
                                      "currently 3"));
        EXPECT_EQ(1u, CountContaining(lines,
                                      "Added 0 items to the queue.  Queue size is "
                                      "currently 3"));
    }
    EXPECT_TRUE(ssltest::TakeResponses().empty());
    EXPECT_EQ(0u, CountContaining(NorvCore::TakeTraceLines(), "pulled an item"));
}

TEST_F(SSLCertThreadTest, ResponsesCarryTheSecretAndReportRefusals) {
    CSSLCertThread thread(m_Dom);
    const Bytes header = Header(50, 1, 3, 1, 77);
    const SSLRequestHeader* request = reinterpret_cast<const SSLRequestHeader*>(header.data());
    const std::string secret(48, 'S');
    ASSERT_TRUE(thread.SendSSLCertResponse(m_Handle, request, secret.data(), secret.size()));
    std::vector<Response> responses = ssltest::TakeResponses();
    ASSERT_EQ(1u, responses.size());
    ASSERT_EQ(120u, responses[0].bytes.size());
    EXPECT_EQ(48u, responses[0].DecryptedLen());
    EXPECT_EQ(77u, responses[0].Tag());
    EXPECT_EQ(secret, responses[0].Secret());
    EXPECT_EQ(Bytes(8, 0), Bytes(responses[0].bytes.end() - 8, responses[0].bytes.end()));

    // Without a handle nothing is sent.
    EXPECT_FALSE(thread.SendSSLCertResponse(nullptr, request, secret.data(), secret.size()));
    EXPECT_TRUE(ssltest::TakeResponses().empty());

    // A refusal by the driver is an error line and agent event 1001.
    SSL_CONTROL(norvi_test_set_ssl_response_result)(EIO);
    m_Dom.ClearAgentEvents();
    EXPECT_FALSE(thread.SendSSLCertResponse(m_Handle, request, nullptr, 0));
    EXPECT_EQ(1u, ssltest::TakeResponses().size());
    const std::vector<NorvCore::AgentEvent> events = m_Dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(1001, events[0].number);
    EXPECT_TRUE(events[0].detail.StartsWith(wxString::Format("SSL_RESPONSE|%d|", EIO)))
        << events[0].detail;
    EXPECT_NE(wxNOT_FOUND, events[0].detail.Find("refused by the driver"));
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

    ASSERT_TRUE(thread.FindSSLConfiguration(4, host, credential));
    EXPECT_EQ(wxS("second"), host.GetName());
    EXPECT_EQ(wxS("one"), credential.GetName());
    EXPECT_EQ(wxS("P12"), credential.m_CredentialType);

    // No credential id is "absent": 0 matches a credential with id 0.
    ASSERT_TRUE(thread.FindSSLConfiguration(5, host, credential));
    EXPECT_EQ(wxS("zero"), credential.GetName());

    // A configuration without its credential stays in the output; an
    // unknown id leaves the defaults.
    EXPECT_FALSE(thread.FindSSLConfiguration(6, host, credential));
    EXPECT_EQ(wxS("lost"), host.GetName());
    EXPECT_TRUE(credential.GetName().empty());
    EXPECT_FALSE(thread.FindSSLConfiguration(8, host, credential));
    EXPECT_TRUE(host.GetName().empty());
    EXPECT_EQ(0, host.GetId());

    // A configuration that can't be read leaves the records as they were.
    ASSERT_TRUE(m_Dom.SetConfigXml(L"<SecurityConfiguration/>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_TRUE(thread.FindSSLConfiguration(4, host, credential));
    ASSERT_TRUE(m_Dom.SetConfigXml(
        L"<SecurityConfiguration><SSLHostConfigurations/></SecurityConfiguration>"));
    thread.OnSecurityConfigurationChanged();
    EXPECT_FALSE(thread.FindSSLConfiguration(4, host, credential));
}

TEST_F(SSLCertThreadTest, PoolStartsOneWorkerPerEightItemsUpToItsSize) {
    const unsigned cpus = std::max(1, wxThread::GetCPUCount());
    const unsigned maxWorkers = 4 * cpus;
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
        std::vector<std::string> managing;
        for (const std::string& line : NorvCore::TakeTraceLines()) {
            if (line.find("CSSLCertThread::Managing runningWorkers=") != std::string::npos) {
                managing.push_back(line);
            }
        }
        ASSERT_EQ(1u, managing.size());
        EXPECT_TRUE(EndsWith(managing[0], "runningWorkers=" + std::to_string(step.running)))
            << "queue " << step.queueSize << ": " << managing[0];
    }
    // Each worker opens its own handle once its thread is under way.
    for (int wait = 0;
         wait < 1000 && SSL_CONTROL(norvi_test_open_handles)() < m_HandlesBefore + 1 + full;
         ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(m_HandlesBefore + 1 + full, SSL_CONTROL(norvi_test_open_handles)());

    thread.ShutdownWorkerThreads();
    std::vector<std::string> lines = NorvCore::TakeTraceLines();
    EXPECT_EQ(1u, CountContaining(lines, wxString::Format("Waiting for %u worker threads to shut "
                                                          "down.",
                                                          maxWorkers)
                                             .ToStdString()));
    // Workers are named by slot, the lowest slots filled first.
    for (unsigned index = 0; index < full; ++index) {
        const std::string name = "CSSLCertThreadWorker" + std::to_string(index);
        EXPECT_EQ(1u, CountContaining(lines, name + "::OnExit()")) << name;
    }
    EXPECT_EQ(0u, CountContaining(lines, "CSSLCertThreadWorker" + std::to_string(full) + "::"));
    EXPECT_EQ(m_HandlesBefore + 1, SSL_CONTROL(norvi_test_open_handles)());

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
    EXPECT_EQ(m_HandlesBefore + 1, SSL_CONTROL(norvi_test_open_handles)());
}

}  // namespace
