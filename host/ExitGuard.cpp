#include "host/ExitGuard.h"

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>

namespace NorvCore {

namespace {

// Never destroyed, so that it outlives every exit handler.
std::atomic<int> s_RunningThreads{0};

}  // namespace

void CExitGuard::ThreadStarting() {
    s_RunningThreads.fetch_add(1, std::memory_order_acq_rel);
}

void CExitGuard::ThreadEntered() {
    // Exit handlers run in the reverse order of their registration. The
    // guard is registered by the first thread once it has set up its own
    // logging state, after the handlers of everything set up before that
    // (the toolkit's per-thread tables among them), so that it runs ahead of
    // their teardown.
    static std::once_flag installed;
    std::call_once(installed, [] { on_exit(OnProcessExit, nullptr); });
}

void CExitGuard::ThreadFinished() {
    s_RunningThreads.fetch_sub(1, std::memory_order_acq_rel);
}

int CExitGuard::RunningThreads() {
    return s_RunningThreads.load(std::memory_order_acquire);
}

void CExitGuard::OnProcessExit(int status, void*) {
    if (RunningThreads() == 0) {
        return;
    }
    fflush(nullptr);
    _exit(status);
}

}  // namespace NorvCore
