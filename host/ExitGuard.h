// CExitGuard: keeps the process's exit safe from threads that are still
// running.
//
// A script may end its process without stopping a CRunnable thread (the SSL
// service, say): nothing joins it then, and nothing should. But the exit
// tears down the libraries' static state (the toolkit's logging and thread
// tables, the C++ runtime's) beneath a thread that may be using it at that
// moment, which crashes the process. So the guard counts the threads whose
// body may still run; when the process exits while any does, it flushes the
// standard streams and ends the process at once with the exit status, before
// the teardown begins. With no such thread the exit goes on as usual.
//
// Thread safety: all functions may be called from any thread.
#pragma once

namespace NorvCore {

class CExitGuard {
public:
    // A thread is about to start: from now on the exit is guarded.
    static void ThreadStarting();
    // Called on a started thread once its body is set up; the first call
    // installs the guard.
    static void ThreadEntered();
    // That thread has finished, or never started.
    static void ThreadFinished();
    // Threads counted and not yet finished.
    static int RunningThreads();

private:
    static void OnProcessExit(int status, void* unused);
};

}  // namespace NorvCore
