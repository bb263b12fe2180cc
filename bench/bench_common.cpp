#include "bench/bench_common.h"

#include "log.h"

#include <cstdio>

namespace
{

bool g_failed = false;

} // namespace

void expect(benchmark::State& state, bool ok, const char* what)
{
    if (ok) return;
    g_failed = true;
    state.SkipWithError(what);
}

int bench_main(int argc, char** argv)
{
    FILE* nowhere = fopen("/dev/null", "w");
    if (nowhere == nullptr) return 2;
    glog_init("bench");
    log_default(&g_log, nowhere);
    log_default(&g_access_log, nowhere);
    log_set_modules(&g_log, ll::normal); // as kvt runs: no debug lines
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    const size_t run = benchmark::RunSpecifiedBenchmarks();
    return run > 0 && !g_failed ? 0 : 1;
}
