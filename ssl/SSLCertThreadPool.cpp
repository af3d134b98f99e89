// CSSLCertThread: the worker pool and its queue. Workers start as the queue
// grows, one for every eight queued items, and end by themselves when idle;
// an ended worker stays in its slot until the next management pass.
#include <chrono>
#include <exception>
#include <new>

#include <wx/log.h>

#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCertThreadWorker.h"

namespace VEXIL {

namespace {

// Queued items that one worker is there for.
const u64 kItemsPerWorker = 8;
// Priority of a worker thread: the toolkit's normal.
const u32 kWorkerPriority = 50;

}  // namespace

void CSSLCertThread::ManageWorkerThreads(size_t queueSize) {
    NorvCore::CCriticalSectionLocker lock(m_WorkerLock);
    if (m_Workers.empty()) {
        try {
            m_Workers.resize(m_MaxWorkers);
        } catch (const std::exception&) {
            wxLogError("CSSLCertThread::ManageWorkerThreads() - no memory for %llu workers",
                       static_cast<unsigned long long>(m_MaxWorkers));
            return;
        }
    }
    // Reap and count: a worker that has ended goes away here and only here.
    u64 running = 0;
    for (std::unique_ptr<CSSLCertThreadWorker>& worker : m_Workers) {
        if (worker == nullptr) {
            continue;
        }
        if (worker->isRunning()) {
            ++running;
        } else {
            worker.reset();
        }
    }
    if (queueSize > running * kItemsPerWorker) {
        const u64 wanted = (queueSize + kItemsPerWorker - 1) / kItemsPerWorker;
        for (size_t index = 0; index < m_Workers.size() && running < wanted; ++index) {
            if (m_Workers[index] != nullptr) {
                continue;
            }
            // Workers are bound to the processors round-robin by slot.
            m_Workers[index].reset(new (std::nothrow) CSSLCertThreadWorker(
                *this, static_cast<u32>(index), static_cast<int>(index % m_CpuCount)));
            if (m_Workers[index] == nullptr) {
                break;
            }
            m_Workers[index]->start(kWorkerPriority, true, 0);
            ++running;
        }
    }
    NORV_TRACE(kTraceCategory, wxString::Format("CSSLCertThread::Managing runningWorkers=%u",
                                                static_cast<unsigned>(running)));
}

void CSSLCertThread::ShutdownWorkerThreads() {
    NorvCore::CCriticalSectionLocker lock(m_WorkerLock);
    if (m_Workers.empty()) {
        return;
    }
    for (const std::unique_ptr<CSSLCertThreadWorker>& worker : m_Workers) {
        if (worker != nullptr && worker->isRunning()) {
            worker->requestExit();
        }
    }
    {
        // One marker serves all workers: each puts it back for the next.
        // Without it (no memory) the workers still end on their exit request.
        NorvCore::CCriticalSectionLocker queueLock(m_QueueLock);
        try {
            m_WorkQueue.emplace_back();
        } catch (const std::bad_alloc&) {
            wxLogError("CSSLCertThread::ShutdownWorkerThreads() - no memory for the marker");
        }
    }
    WakeWorkers(true);
    NORV_TRACE(kTraceCategory, wxString::Format("Waiting for %u worker threads to shut down.",
                                                static_cast<unsigned>(m_MaxWorkers)));
    for (std::unique_ptr<CSSLCertThreadWorker>& worker : m_Workers) {
        if (worker != nullptr) {
            worker->StopThread(nullptr);
            worker.reset();
        }
    }
    std::vector<std::unique_ptr<CSSLCertThreadWorker>>().swap(m_Workers);
}

CSSLCertThread::WorkItem CSSLCertThread::TakeWorkItem(std::string& item) {
    NorvCore::CCriticalSectionLocker lock(m_QueueLock);
    if (m_WorkQueue.empty()) {
        return WorkItem::None;
    }
    item.swap(m_WorkQueue.front());
    m_WorkQueue.pop_front();
    if (!item.empty()) {
        return WorkItem::Request;
    }
    // The marker goes back to the end of the queue for the next worker.
    m_WorkQueue.emplace_back();
    return WorkItem::Shutdown;
}

size_t CSSLCertThread::QueuedRequests() {
    NorvCore::CCriticalSectionLocker lock(m_QueueLock);
    size_t count = 0;
    for (const std::string& item : m_WorkQueue) {
        count += item.empty() ? 0 : 1;
    }
    return count;
}

u64 CSSLCertThread::WakeSequence() {
    NorvCore::CWxMutexLocker lock(m_WakeMutex);
    return m_WakeSequence;
}

void CSSLCertThread::WakeWorkers(bool all) {
    NorvCore::CWxMutexLocker lock(m_WakeMutex);
    ++m_WakeSequence;
    if (all) {
        if (m_WakeCondition->Broadcast() != wxCOND_NO_ERROR) {
            wxLogSysError(
                "CSSLCertThread::ShutdownWorkerThreads() - error broadcasting to condition "
                "variable.");
        }
    } else if (m_WakeCondition->Signal() != wxCOND_NO_ERROR) {
        wxLogSysError("CSSLCertThread::ProcessDriverData() - error signalling condition variable.");
    }
}

void CSSLCertThread::WaitForWork(u64 seen, u32 waitMsec) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMsec);
    NorvCore::CWxMutexLocker lock(m_WakeMutex);
    while (m_WakeSequence == seen) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || m_WakeCondition->WaitTimeout(
                                     static_cast<unsigned long>(left.count())) == wxCOND_TIMEOUT) {
            return;
        }
    }
}

}  // namespace VEXIL
