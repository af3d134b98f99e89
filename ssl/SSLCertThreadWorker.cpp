#include "ssl/SSLCertThreadWorker.h"

#include <wx/log.h>

#include "host/Dom.h"
#include "host/TextHelpers.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"

namespace VEXIL {

namespace {

const wchar_t* const kTrace = CSSLCertThread::kTraceCategory;

// Timings in milliseconds of SystemTickCount, compared as unsigned 32-bit
// differences so that the counter's wrap does no harm.
const u32 kCullIntervalMsec = 10000;
const u32 kWorkerIdleMsec = 300000;
const u32 kWakeWaitMsec = 10000;

}  // namespace

CSSLCertThreadWorker::CSSLCertThreadWorker(CSSLCertThread& owner, u32 index, int cpu)
    : CRunnable(false, cpu, false), m_Owner(owner), m_DriverHandle(nullptr), m_WorkerIndex(index) {
    snprintf_safe(m_WorkerName, sizeof m_WorkerName, "CSSLCertThreadWorker%d",
                  static_cast<int>(m_WorkerIndex));
    m_Requests.reset(new CSSLRequestHandler(owner, m_WorkerName));
}

CSSLCertThreadWorker::~CSSLCertThreadWorker() {
    StopThread(nullptr);
}

const char* CSSLCertThreadWorker::GetThreadName() const {
    return m_WorkerName;
}

void CSSLCertThreadWorker::InvalidateKeyCache() {
    m_Requests->InvalidateKeyCache();
}

bool CSSLCertThreadWorker::ExitDue() {
    return m_Owner.Dom().ShouldExit(0, nullptr) || TestDestroy(0, nullptr);
}

void CSSLCertThreadWorker::OnRun() {
    u32 lastCull = NorvCore::SystemTickCount();
    u32 lastActive = lastCull;
    NORV_TRACE(kTrace, wxString::Format("%.64s::OnRun()", m_WorkerName));
    m_DriverHandle = norvi_open();
    if (m_DriverHandle == nullptr) {
        char text[128] = "";
        norvi_get_error(nullptr, text, sizeof text);
        wxLogError("%s shutting down since norvi_open() failed: %s", m_WorkerName, text);
        return;
    }
    for (;;) {
        if (ExitDue()) {
            return;
        }
        const u32 now = NorvCore::SystemTickCount();
        if (now - lastCull > kCullIntervalMsec) {
            m_Requests->CullKeyCache();
            lastCull = now;
        }
        if (now - lastActive > kWorkerIdleMsec) {
            NORV_TRACE(kTrace,
                       wxString::Format("%.64s: shutting down since we're idle", m_WorkerName));
            return;
        }
        const u64 wakeSeen = m_Owner.WakeSequence();
        bool exitDue = false;
        std::string item;
        for (;;) {
            const CSSLCertThread::WorkItem taken = m_Owner.TakeWorkItem(item);
            if (taken == CSSLCertThread::WorkItem::Shutdown) {
                NORV_TRACE(kTrace, wxString::Format("%.64s: shutting down.", m_WorkerName));
                return;
            }
            if (taken == CSSLCertThread::WorkItem::None) {
                break;
            }
            NORV_TRACE(kTrace,
                       wxString::Format("%.64s: pulled an item off the work queue.", m_WorkerName));
            m_Requests->Answer(m_DriverHandle, item);
            lastActive = NorvCore::SystemTickCount();
            exitDue = ExitDue();
            if (exitDue) {
                break;
            }
        }
        if (!exitDue && !ExitDue()) {
            m_Owner.WaitForWork(wakeSeen, kWakeWaitMsec);
        }
    }
}

void CSSLCertThreadWorker::OnExit() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::OnExit()", m_WorkerName));
    m_Requests->ClearKeyCache();
    if (m_DriverHandle != nullptr) {
        norvi_close(m_DriverHandle);
        m_DriverHandle = nullptr;
    }
    CRunnable::OnExit();
}

}  // namespace VEXIL
