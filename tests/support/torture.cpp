#include "torture.h"

#include <stdlib.h>

bool torture_mode()
{
    static const bool on = getenv("HLS_TORTURE_FAIL_AT") != nullptr;
    return on;
}
