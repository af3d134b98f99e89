// One-time set-up of the toolkit for the process.
#include "host/Toolkit.h"

#include <cstdio>
#include <mutex>

#include <wx/init.h>

#include "host/Trace.h"

namespace NorvCore {

void InitializeToolkit() {
    static std::once_flag initialized;
    std::call_once(initialized, [] {
        if (!wxInitialize()) {
            fprintf(stderr, "Error: the toolkit could not be initialised\n");
        }
        InstallOperatorLog();
    });
}

}  // namespace NorvCore
