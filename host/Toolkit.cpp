// One-time set-up of the toolkit for the process.
#include "host/Toolkit.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <wx/debug.h>
#include <wx/init.h>
#include <wx/log.h>

#include "host/Trace.h"

namespace NorvCore {

namespace {

// A failed assertion is reported in the operator log and the work goes on:
// the agent runs unattended, so nothing may stop to ask a question.
void ReportAssertion(const wxString& file, int line, const wxString& function,
                     const wxString& condition, const wxString& message) {
    wxLogWarning("Assertion \"%s\" failed in %s at %s:%d: %s", condition, function,
                 file.AfterLast('/'), line, message);
}

}  // namespace

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
    });
}

}  // namespace NorvCore
