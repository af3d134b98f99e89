// Entry of the benchmark program: the toolkit is set up as the host does it.
#include <benchmark/benchmark.h>

#include "host/Toolkit.h"

int main(int argc, char** argv) {
    NorvCore::InitializeToolkit();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
