// One-time set-up of the toolkit for the process.
#include "host/Toolkit.h"

#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <openssl/crypto.h>
#include <wx/debug.h>
#include <wx/init.h>
#include <wx/log.h>

#include "host/Trace.h"

namespace NorvCore {

namespace {

std::atomic<AssertionHook> s_AssertionHook{nullptr};

// A failed assertion is reported in the operator log and the work goes on:
// the agent runs unattended, so nothing may stop to ask a question.
void ReportAssertion(const wxString& file, int line, const wxString& function,
                     const wxString& condition, const wxString& message) {
    const wxString text = wxString::Format("Assertion \"%s\" failed in %s at %s:%d: %s", condition,
                                           function, file.AfterLast('/'), line, message);
    wxLogWarning("%s", text);
    const AssertionHook hook = s_AssertionHook.load(std::memory_order_acquire);
    if (hook != nullptr) {
        hook(text.utf8_str().data());
    }
}

}  // namespace

void SetAssertionHook(AssertionHook hook) {
    s_AssertionHook.store(hook, std::memory_order_release);
}

void InitializeToolkit() {
    static std::once_flag initialized;
    std::call_once(initialized, [] {
        // Texts, settings and file names are UTF-8 throughout; an interpreter
        // started in the plain C locale would make the toolkit's narrow
        // conversions drop every character outside ASCII.
        const char* current = setlocale(LC_CTYPE, nullptr);
        if (current == nullptr || strcmp(current, "C") == 0 || strcmp(current, "POSIX") == 0) {
            setlocale(LC_CTYPE, "C.UTF-8");
        }
        if (!wxInitialize()) {
            fprintf(stderr, "Error: the toolkit could not be initialised\n");
        }
        InstallOperatorLog();
        wxSetAssertHandler(ReportAssertion);
        // OpenSSL frees its locks and tables in an exit handler of its own,
        // while threads of the process (SSL workers of a service that was
        // never stopped) may still be using them. The process's end frees
        // everything anyway: the handler is not registered. This must be the
        // process's first call into OpenSSL to take effect.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    });
}

}  // namespace NorvCore
