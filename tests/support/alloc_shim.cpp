// Allocation-failure shim for the torture runs (scripts/torture). Linked as
// objects into the test executables of a torture build only, never into the
// library: the executable's malloc, calloc, realloc, strdup, strndup and
// global operator new variants take precedence over those of every loaded
// library (the sanitizer runtime's included) and forward to the next
// definition found after the executable.
//
// Only allocations made by the library's own code are counted: the caller's
// return address must lie in libhlsclient.so, or in the C++ runtime when the
// first frame outside the runtime lies in libhlsclient.so (a string or
// container growing on the library's behalf). Allocations by libcurl, by the
// demultiplexers and by the tests themselves are never counted, whichever
// thread makes them.
//
// HLS_TORTURE_FAIL_AT=N fails the Nth counted allocation (null, or
// std::bad_alloc from a throwing operator new) and lets every other one
// succeed. HLS_TORTURE_REPORT names a file that receives one line when the
// Nth allocation is failed ("failed N lib+0xOFFSET") and one at exit
// ("counted TOTAL"). A test may also arm the shim itself (alloc_shim.h).
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <new>

#include "alloc_shim.h"

namespace {

struct Range {
    uintptr_t begin = 0, end = 0;
    bool has(uintptr_t pc) const { return pc >= begin && pc < end; }
};

using MallocFn = void *(*)(size_t);
using CallocFn = void *(*)(size_t, size_t);
using ReallocFn = void *(*)(void *, size_t);
using NewFn = void *(*)(size_t);
using NewNothrowFn = void *(*)(size_t, const std::nothrow_t &);
using NewAlignedFn = void *(*)(size_t, std::align_val_t);
using NewAlignedNothrowFn = void *(*)(size_t, std::align_val_t, const std::nothrow_t &);

MallocFn next_malloc;
void (*next_free)(void *);
CallocFn next_calloc;
ReallocFn next_realloc;
NewFn next_new, next_new_array;
NewNothrowFn next_new_nothrow, next_new_array_nothrow;
NewAlignedFn next_new_aligned, next_new_array_aligned;
NewAlignedNothrowFn next_new_aligned_nothrow, next_new_array_aligned_nothrow;

Range library;     // text of libhlsclient.so
uintptr_t library_base = 0;
Range runtime;     // text of libstdc++.so
std::atomic<long> fail_at{0}; // 0: count only
std::atomic<bool> fired{false};
int report_fd = -1;
std::atomic<long> counted{0};
std::atomic<bool> ready{false};

// Set while this thread is inside the shim, so that allocations the shim's
// own work causes (symbol lookup, unwinding, exception objects) pass through.
thread_local bool busy = false;

// Allocations made while the next definitions are looked up come from here;
// free ignores them.
alignas(16) char bootstrap[4096];
size_t bootstrap_used = 0;

bool from_bootstrap(const void *p)
{
    return p >= (const void *)bootstrap && p < (const void *)(bootstrap + sizeof bootstrap);
}

void *bootstrap_alloc(size_t size)
{
    size = (size + 15) & ~(size_t)15;
    if (bootstrap_used + size > sizeof bootstrap)
        return nullptr;
    void *p = bootstrap + bootstrap_used;
    bootstrap_used += size;
    return p; // static storage: already zero
}

int find_ranges(struct dl_phdr_info *info, size_t, void *)
{
    const char *name = info->dlpi_name ? info->dlpi_name : "";
    Range *range = nullptr;
    if (strstr(name, "libhlsclient.so"))
        range = &library;
    else if (strstr(name, "libstdc++.so"))
        range = &runtime;
    if (!range)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X))
            continue;
        range->begin = info->dlpi_addr + ph.p_vaddr;
        range->end = range->begin + ph.p_memsz;
    }
    if (range == &library)
        library_base = info->dlpi_addr;
    return 0;
}

// The mangled operator new names spell size_t's type: unsigned long ("m")
// on 64-bit targets, unsigned int ("j") on 32-bit ones such as armhf.
#if __SIZEOF_SIZE_T__ == __SIZEOF_LONG__ && __SIZEOF_LONG__ == 8
#define SIZE_CODE "m"
#else
#define SIZE_CODE "j"
#endif
static_assert(sizeof(size_t) == (SIZE_CODE[0] == 'm' ? sizeof(unsigned long) : sizeof(unsigned int)),
              "size_t is neither unsigned long nor unsigned int");

void resolve_next()
{
    if (next_malloc)
        return;
    busy = true;
    next_free = (void (*)(void *))dlsym(RTLD_NEXT, "free");
    next_calloc = (CallocFn)dlsym(RTLD_NEXT, "calloc");
    next_malloc = (MallocFn)dlsym(RTLD_NEXT, "malloc");
    next_realloc = (ReallocFn)dlsym(RTLD_NEXT, "realloc");
    next_new = (NewFn)dlsym(RTLD_NEXT, "_Znw" SIZE_CODE);
    next_new_array = (NewFn)dlsym(RTLD_NEXT, "_Zna" SIZE_CODE);
    next_new_nothrow = (NewNothrowFn)dlsym(RTLD_NEXT, "_Znw" SIZE_CODE "RKSt9nothrow_t");
    next_new_array_nothrow = (NewNothrowFn)dlsym(RTLD_NEXT, "_Zna" SIZE_CODE "RKSt9nothrow_t");
    next_new_aligned = (NewAlignedFn)dlsym(RTLD_NEXT, "_Znw" SIZE_CODE "St11align_val_t");
    next_new_array_aligned = (NewAlignedFn)dlsym(RTLD_NEXT, "_Zna" SIZE_CODE "St11align_val_t");
    next_new_aligned_nothrow = (NewAlignedNothrowFn)dlsym(RTLD_NEXT, "_Znw" SIZE_CODE "St11align_val_tRKSt9nothrow_t");
    next_new_array_aligned_nothrow = (NewAlignedNothrowFn)dlsym(RTLD_NEXT, "_Zna" SIZE_CODE "St11align_val_tRKSt9nothrow_t");
    busy = false;
}

void write_report(const char *line)
{
    if (report_fd >= 0) {
        ssize_t written = write(report_fd, line, strlen(line));
        (void)written;
    }
}

__attribute__((constructor)) void shim_start()
{
    resolve_next();
    busy = true;
    dl_iterate_phdr(find_ranges, nullptr);
    const char *at = getenv("HLS_TORTURE_FAIL_AT");
    fail_at = at ? strtol(at, nullptr, 10) : 0;
    const char *report = getenv("HLS_TORTURE_REPORT");
    if (report)
        report_fd = open(report, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    busy = false;
    ready = library.end != 0;
}

__attribute__((destructor)) void shim_stop()
{
    char line[64];
    snprintf(line, sizeof line, "counted %ld\n", counted.load());
    write_report(line);
}

// Finds the first frame outside the C++ runtime above the runtime frames
// that called the allocation (the frames below them are the shim's own).
struct Walk {
    int depth = 0;
    bool in_runtime = false;
    uintptr_t pc = 0;
};

_Unwind_Reason_Code walk_frame(struct _Unwind_Context *context, void *arg)
{
    Walk *walk = (Walk *)arg;
    uintptr_t pc = _Unwind_GetIP(context);
    if (++walk->depth > 24)
        return _URC_END_OF_STACK;
    if (pc != 0 && runtime.has(pc - 1)) {
        walk->in_runtime = true;
        return _URC_NO_REASON;
    }
    if (!walk->in_runtime)
        return _URC_NO_REASON;
    walk->pc = pc;
    return _URC_END_OF_STACK;
}

// The library code address to which an allocation called from `caller`
// belongs, or 0 when the allocation is not the library's.
uintptr_t library_site(uintptr_t caller)
{
    if (library.has(caller - 1))
        return caller;
    if (!runtime.has(caller - 1))
        return 0;
    Walk walk;
    _Unwind_Backtrace(walk_frame, &walk);
    return library.has(walk.pc - 1) ? walk.pc : 0;
}

// True when this allocation is the one to fail.
bool should_fail(void *caller)
{
    if (!ready || busy)
        return false;
    busy = true;
    bool fail = false;
    uintptr_t site = library_site((uintptr_t)caller);
    if (site) {
        long n = ++counted;
        if (n == fail_at) {
            fail = true;
            fired = true;
            char line[96];
            snprintf(line, sizeof line, "failed %ld lib+0x%lx\n", n, (unsigned long)(site - library_base));
            write_report(line);
        }
    }
    busy = false;
    return fail;
}

void *counted_new(size_t size, void *caller, NewFn next)
{
    if (should_fail(caller))
        throw std::bad_alloc();
    return next(size);
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    if (!next_malloc) {
        if (busy)
            return bootstrap_alloc(size);
        resolve_next();
    }
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    return next_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    if (!next_calloc) {
        if (busy)
            return count && size > sizeof bootstrap / count ? nullptr : bootstrap_alloc(count * size);
        resolve_next();
    }
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    return next_calloc(count, size);
}

void *realloc(void *old, size_t size)
{
    if (!next_realloc)
        resolve_next();
    if (from_bootstrap(old)) {
        // A block handed out while the shim looked itself up: move it out,
        // copying no more than the bootstrap area holds behind it.
        size_t room = (size_t)(bootstrap + sizeof bootstrap - (char *)old);
        void *grown = next_malloc(size);
        if (grown)
            memcpy(grown, old, size < room ? size : room);
        return grown;
    }
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    return next_realloc(old, size);
}

void free(void *p)
{
    if (!p || from_bootstrap(p))
        return;
    if (!next_free) {
        if (busy)
            return; // freed while the shim looks itself up: leave it
        resolve_next();
    }
    next_free(p);
}

char *strdup(const char *text)
{
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    size_t size = strlen(text) + 1;
    busy = true;
    char *copy = (char *)malloc(size);
    busy = false;
    if (copy)
        memcpy(copy, text, size);
    return copy;
}

char *strndup(const char *text, size_t limit)
{
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    size_t size = strnlen(text, limit);
    busy = true;
    char *copy = (char *)malloc(size + 1);
    busy = false;
    if (copy) {
        memcpy(copy, text, size);
        copy[size] = '\0';
    }
    return copy;
}

void alloc_shim_fail_nth(long n)
{
    fail_at = 0;
    counted = 0;
    fired = false;
    fail_at = n;
}

int alloc_shim_fired(void)
{
    return fired;
}

long alloc_shim_counted(void)
{
    return counted;
}

} // extern "C"

void *operator new(size_t size)
{
    resolve_next();
    return counted_new(size, __builtin_return_address(0), next_new);
}

void *operator new[](size_t size)
{
    resolve_next();
    return counted_new(size, __builtin_return_address(0), next_new_array);
}

void *operator new(size_t size, const std::nothrow_t &tag) noexcept
{
    resolve_next();
    return should_fail(__builtin_return_address(0)) ? nullptr : next_new_nothrow(size, tag);
}

void *operator new[](size_t size, const std::nothrow_t &tag) noexcept
{
    resolve_next();
    return should_fail(__builtin_return_address(0)) ? nullptr : next_new_array_nothrow(size, tag);
}

void *operator new(size_t size, std::align_val_t align)
{
    resolve_next();
    if (should_fail(__builtin_return_address(0)))
        throw std::bad_alloc();
    return next_new_aligned(size, align);
}

void *operator new[](size_t size, std::align_val_t align)
{
    resolve_next();
    if (should_fail(__builtin_return_address(0)))
        throw std::bad_alloc();
    return next_new_array_aligned(size, align);
}

void *operator new(size_t size, std::align_val_t align, const std::nothrow_t &tag) noexcept
{
    resolve_next();
    return should_fail(__builtin_return_address(0)) ? nullptr : next_new_aligned_nothrow(size, align, tag);
}

void *operator new[](size_t size, std::align_val_t align, const std::nothrow_t &tag) noexcept
{
    resolve_next();
    return should_fail(__builtin_return_address(0)) ? nullptr : next_new_array_aligned_nothrow(size, align, tag);
}
