#include "fuzz/fuzz_common.h"

#include "log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    glog_init("fuzz");
    FILE* nowhere = fopen("/dev/null", "w");
    FUZZ_CHECK(nowhere != nullptr);
    log_default(&g_log, nowhere);
    log_default(&g_access_log, nowhere);
    log_set_modules(&g_log, ll::debug);
    return 0;
}
