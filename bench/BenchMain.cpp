// Entry of the benchmark program: the toolkit is set up as the host does it,
// and the host core's loader opens this build's driver stand-in (whose test
// controls the SSL benchmarks drive) unless the caller chose a library.
#include <stdlib.h>

#include <benchmark/benchmark.h>

#include "host/Toolkit.h"

int main(int argc, char** argv) {
    setenv("NORVI_LIBRARY", NORVI_STANDIN_LIBRARY, 0);
    NorvCore::InitializeToolkit();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
