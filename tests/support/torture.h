// Torture mode (scripts/torture): the allocation shim has failed one of the
// library's allocations in this run. Assertions that cannot hold after that
// (how many frames arrived, that a load returned 0 rather than its "no
// memory" result) are relaxed through this one flag; everything still
// determinable is checked as usual.
#pragma once

#include <stdlib.h>

// Defined by the allocation shim in the executables that link it.
extern "C" int alloc_shim_fired(void) __attribute__((weak));

inline bool torture_mode()
{
    static const bool armed = getenv("HLS_TORTURE_FAIL_AT") != nullptr;
    return armed && alloc_shim_fired && alloc_shim_fired();
}

// Calls `call`; when the failed allocation happened during it and it gave
// `no_memory`, calls it once more: only one allocation fails, so the repeat
// must give the normal result.
template <class Call, class Result>
auto torture_retry(Result no_memory, Call call) -> decltype(call())
{
    const bool failed_before = torture_mode();
    auto result = call();
    if (!failed_before && torture_mode() && result == no_memory)
        result = call();
    return result;
}
