// What the benchmark programs share: a quiet log, and a main whose exit status tells of a wrong result.
#ifndef BENCH_COMMON_H
#define BENCH_COMMON_H

#include <benchmark/benchmark.h>

// Ends a benchmark as failed, and the program with it, unless `ok`.
void expect(benchmark::State& state, bool ok, const char* what);

// main of every benchmark program.
int bench_main(int argc, char** argv);

#endif // BENCH_COMMON_H
