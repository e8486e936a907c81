#include "torture.h"

#include <stdlib.h>

// Defined by the allocation shim in the executables that link it.
extern "C" int alloc_shim_fired(void) __attribute__((weak));

bool torture_mode()
{
    static const bool armed = getenv("HLS_TORTURE_FAIL_AT") != nullptr;
    return armed && alloc_shim_fired && alloc_shim_fired();
}
