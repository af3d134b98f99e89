// Entry of every C++ test program: the toolkit is set up once, as the host
// does it in the agent, before any test runs.
#include <gtest/gtest.h>

#include "host/Toolkit.h"

// The toolkit frees its module data after LeakSanitizer's exit check has
// begun, once an instrumented library has been unloaded; those blocks are the
// toolkit's own and not leaks of this system. vexil.so's handle on itself is
// kept for the life of the process on purpose (see tests/lsan.supp).
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libwx_baseu\nleak:OpenSelf\n";
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    NorvCore::InitializeToolkit();
    return RUN_ALL_TESTS();
}
