// Control of the allocation-failure shim (alloc_shim.cpp) from inside a test
// that is linked with it. Only the library's own allocations are counted.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Restarts the count and fails the nth allocation the library makes from
// now on (0: fail none, only count).
void alloc_shim_fail_nth(long n);
// 1 once the armed allocation has been failed.
int alloc_shim_fired(void);

#ifdef __cplusplus
}
#endif
