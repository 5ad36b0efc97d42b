// The benchmarks' main(): figures go to standard error, since the analysis prints its diagnostics on standard
// output, where nobody reads them here.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <iostream>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
