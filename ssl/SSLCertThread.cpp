// CSSLCertThread: construction, the listener's loop, the response to the
// driver and the configuration records. The pool is in SSLCertThreadPool.cpp.
#include "ssl/SSLCertThread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include <wx/log.h>

#include "host/Trace.h"
#include "ssl/SSLCertThreadWorker.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"

namespace VEXIL {

namespace {

const char kCredentialsPath[] = "/SecurityConfiguration/SSLCredentials";
const char kHostConfigurationsPath[] = "/SecurityConfiguration/SSLHostConfigurations";
// Size of the error texts of the driver interface.
const size_t kErrorTextSize = 128;
// Pause after a failed open of the driver interface, and after a failed read.
const u32 kReopenWaitMsec = 10000;
const u32 kReadRetryWaitMsec = 250;

}  // namespace

CSSLCertThread::CSSLCertThread(NorvCore::CDom& dom)
    : CRunnable(true, -1, false),
      m_TraceEnabled(NorvCore::LogTraceIsEnabled(kTraceCategory)),
      m_Dom(dom),
      m_DriverEvent(-1),
      m_WakeSequence(0) {
    m_CpuCount = wxThread::GetCPUCount();
    if (m_CpuCount < 1) {
        m_CpuCount = 1;
    }
    i64 threadsPerCpu = 2;
    if (!m_Dom.Get("norvp.vexil.SSL.ThreadsPerCpu", threadsPerCpu)) {
        threadsPerCpu = 2;
    }
    // A negative setting wraps to a huge table, whose allocation then fails.
    m_MaxWorkers = static_cast<u64>(m_CpuCount) * static_cast<u64>(threadsPerCpu);
    if (m_MaxWorkers == 0) {
        m_MaxWorkers = 1;
    }
    i64 queueSizeMax = 0;
    m_QueueSizeMax = m_Dom.Get("norvp.vexil.SSL.QueueSizeMax", queueSizeMax)
                         ? static_cast<u64>(queueSizeMax)
                         : m_MaxWorkers * 128;
    NORV_TRACE(kTraceCategory,
               wxString::Format(
                   "CSSLCertThread::Settings Cpu=%u TPC=%u MaxWorkers=%u QMax=%u",
                   static_cast<unsigned>(m_CpuCount), static_cast<unsigned>(threadsPerCpu),
                   static_cast<unsigned>(m_MaxWorkers), static_cast<unsigned>(m_QueueSizeMax)));
    m_WakeCondition.reset(new wxCondition(m_WakeMutex.Native()));
    // The stand-in for a manual-reset event: once written it stays readable.
    m_DriverEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_DriverEvent < 0) {
        wxLogSysError("CSSLCertThread: the driver event can't be created");
    }
}

CSSLCertThread::~CSSLCertThread() {
    StopThread(nullptr);
    // Workers started without the listener's body (which would have ended
    // them in OnExit) are ended here.
    ShutdownWorkerThreads();
    CloseDriverEvent();
}

const char* CSSLCertThread::GetThreadName() const {
    return "CSSLCertThread";
}

void CSSLCertThread::interrupt() {
    {
        NorvCore::CCriticalSectionLocker lock(m_EventLock);
        if (m_DriverEvent >= 0 && eventfd_write(m_DriverEvent, 1) != 0) {
            wxLogSysError("CSSLCertThread: the driver event can't be set");
        }
    }
    CRunnable::interrupt();
}

void CSSLCertThread::CloseDriverEvent() {
    NorvCore::CCriticalSectionLocker lock(m_EventLock);
    if (m_DriverEvent >= 0) {
        close(m_DriverEvent);
        m_DriverEvent = -1;
    }
}

void CSSLCertThread::OnRun() {
    NORV_TRACE(kTraceCategory, "CSSLCertThread::OnRun()");
    bool loadTest = false;
    if (m_Dom.Get("norv.mode.loadtest", loadTest) && loadTest) {
        // In load-test mode the service never talks to the driver.
        return;
    }
    ManageWorkerThreads(0);
    OnSecurityConfigurationChanged();
    if (m_Dom.ShouldExit(0, nullptr)) {
        return;
    }
    for (;;) {
        norvi_handle_t handle = norvi_open();
        if (handle == nullptr) {
            char text[kErrorTextSize] = "";
            norvi_get_error(nullptr, text, sizeof text);
            wxLogError("norvi_open(): %s", text);
            if (m_Dom.ShouldExit(kReopenWaitMsec, nullptr)) {
                return;
            }
            continue;
        }
        RegisterDriverEvent(handle);
        if (!m_Dom.ShouldExit(0, nullptr)) {
            ReadRequests(handle);
        }
        // A failed read costs a close and a fresh open, not a retry on the
        // same handle.
        norvi_close(handle);
        if (m_Dom.ShouldExit(0, nullptr)) {
            return;
        }
    }
}

void CSSLCertThread::RegisterDriverEvent(norvi_handle_t handle) {
    NorvCore::CCriticalSectionLocker lock(m_EventLock);
    if (m_DriverEvent < 0) {
        return;
    }
    if (norvi_register_event(handle, 1, m_DriverEvent) != 0) {
        char text[kErrorTextSize] = "";
        norvi_get_error(handle, text, sizeof text);
        // The handle stays in use; only the wake-up at shutdown is lost.
        wxLogError("norvi_register_event(): %s", text);
    }
}

void CSSLCertThread::ReadRequests(norvi_handle_t handle) {
    for (;;) {
        SSLRequestHeader header;
        const void* data = nullptr;
        u32 dataLen = 0;
        if (norvi_get_ssl_request(handle, &header, &data, &dataLen) != 0) {
            m_Dom.ShouldExit(kReadRetryWaitMsec, nullptr);
            return;
        }
        if (!ProcessDriverData(handle, &header, data, dataLen)) {
            return;
        }
        if (m_Dom.ShouldExit(0, nullptr)) {
            return;
        }
    }
}

void CSSLCertThread::OnExit() {
    NORV_TRACE(kTraceCategory, "CSSLCertThread::OnExit()");
    ShutdownWorkerThreads();
    CloseDriverEvent();
    CRunnable::OnExit();
}

bool CSSLCertThread::ProcessDriverData(norvi_handle_t handle, const SSLRequestHeader* header,
                                       const void* data, u32 dataLen) {
    if (m_TraceEnabled) {
        NORV_TRACE(kTraceCategory, wxString::Format("ProcessDriverData(dataLen=%u)", dataLen));
    }
    if (!RequestFits(*header, dataLen)) {
        // Such a request gets no answer at all.
        return !m_Dom.ShouldExit(0, nullptr);
    }
    unsigned added = 0;
    bool answered = false;
    size_t queueSize = 0;
    try {
        // The item: the header, then the data at once. It is never empty, so
        // it can't be taken for the shutdown marker.
        std::string item;
        item.reserve(sizeof *header + dataLen);
        item.append(reinterpret_cast<const char*>(header), sizeof *header);
        if (dataLen > 0) {
            item.append(static_cast<const char*>(data), dataLen);
        }
        NorvCore::CCriticalSectionLocker lock(m_QueueLock);
        if (m_WorkQueue.size() < m_QueueSizeMax) {
            m_WorkQueue.push_back(std::move(item));
            added = 1;
        } else {
            answered = true;
            SendSSLCertResponse(handle, header, nullptr, 0);
            wxLogError("CSSLCertThread::ProcessDriverData() - SSL decryption queue size exceeded.");
        }
        queueSize = m_WorkQueue.size();
    } catch (const std::bad_alloc&) {
        // A request is answered once: a refusal already sent stands.
        if (!answered) {
            SendSSLCertResponse(handle, header, nullptr, 0);
        }
        wxLogError("CSSLCertThread::ProcessDriverData() - out of memory for the request.");
    }
    if (added != 0) {
        ManageWorkerThreads(queueSize);
        WakeWorkers(false);
    }
    if (m_TraceEnabled) {
        NorvCore::CCriticalSectionLocker lock(m_QueueLock);
        NORV_TRACE(kTraceCategory,
                   wxString::Format("Added %u items to the queue.  Queue size is currently %u",
                                    added, static_cast<unsigned>(m_WorkQueue.size())));
    }
    return !m_Dom.ShouldExit(0, nullptr);
}

bool CSSLCertThread::RequestFits(const SSLRequestHeader& header, u32 dataLen) {
    const u32 preMasterLen = header.PreMasterLen();
    if (preMasterLen > dataLen) {
        wxLogWarning("SSL decryption request contained bad data: preMasterLen=%d, dataLen=%u",
                     static_cast<int>(preMasterLen), dataLen);
        return false;
    }
    return true;
}

bool CSSLCertThread::SendSSLCertResponse(norvi_handle_t handle, const SSLRequestHeader* request,
                                         const void* preMaster, size_t preMasterSize) {
    const size_t size = preMasterSize + kSSLResponseOverhead;
    std::unique_ptr<u8[]> buffer(new (std::nothrow) u8[size]());
    if (buffer == nullptr) {
        return false;
    }
    SSLResponse head;
    std::memset(&head, 0, sizeof head);
    std::memcpy(head.requestContext, request->requestContext, sizeof head.requestContext);
    if (preMasterSize != 0) {
        head.decryptedLen = htole32(static_cast<u32>(preMasterSize));
        std::memcpy(buffer.get() + sizeof head, preMaster, preMasterSize);
    }
    std::memcpy(buffer.get(), &head, sizeof head);
    if (handle == nullptr) {
        return false;
    }
    if (m_TraceEnabled) {
        NORV_TRACE(kTraceCategory,
                   wxString::Format("SendSSLCertResponse() - sending %u byte response to driver",
                                    static_cast<unsigned>(preMasterSize)));
    }
    const int rc = norvi_ssl_response(handle, buffer.get(), size);
    if (m_TraceEnabled) {
        NORV_TRACE(kTraceCategory,
                   wxString::Format("SendSSLCertResponse() - driver responded with rc=%d", rc));
    }
    if (rc == 0) {
        return true;
    }
    char text[kErrorTextSize] = "";
    norvi_get_error(handle, text, sizeof text);
    wxLogError("norvi_ssl_response(): %s", text);
    m_Dom.DoAgentEventWrite(1001, L"SSL_RESPONSE|%d|%s", rc, text);
    return false;
}

void CSSLCertThread::OnSecurityConfigurationChanged() {
    NORV_TRACE(kTraceCategory, "CSSLCertThread::OnSecurityConfigurationChanged()");
    {
        // A failed read leaves a list as that read left it.
        NorvCore::CCriticalSectionLocker lock(m_ConfigLock);
        m_Dom.ConfigGetXml(kCredentialsPath, m_Credentials);
        m_Dom.ConfigGetXml(kHostConfigurationsPath, m_HostConfigurations);
    }
    NorvCore::CCriticalSectionLocker lock(m_WorkerLock);
    for (const std::unique_ptr<CSSLCertThreadWorker>& worker : m_Workers) {
        if (worker != nullptr && worker->isRunning()) {
            worker->InvalidateKeyCache();
        }
    }
}

bool CSSLCertThread::FindSSLConfiguration(u32 id, CSSLHostConfiguration& hostConfiguration,
                                          CSSLCredential& credential) {
    hostConfiguration.SetToDefaults();
    credential.SetToDefaults();
    NorvCore::CCriticalSectionLocker lock(m_ConfigLock);
    for (NorvCore::XMLObject* item : m_HostConfigurations.Children()) {
        // The list's factory makes every item, so each is of this class.
        auto* entry = static_cast<CSSLHostConfiguration*>(item);
        if (static_cast<u32>(entry->GetId()) != id) {
            continue;
        }
        hostConfiguration.CopyFrom(*entry);
        for (NorvCore::XMLObject* candidate : m_Credentials.Children()) {
            auto* found = static_cast<CSSLCredential*>(candidate);
            if (found->GetId() == hostConfiguration.m_SslCredentialId) {
                credential.CopyFrom(*found);
                return true;
            }
        }
        // A later host configuration with the same id may still have its
        // credential.
    }
    return false;
}

}  // namespace VEXIL
