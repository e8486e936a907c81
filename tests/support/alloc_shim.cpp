// Allocation-failure shim for the torture runs (scripts/torture). Linked as
// objects into the test executables of a torture build only, never into the
// library: the executable's malloc, calloc, realloc, strdup and the two
// global operator new forms the library imports take precedence over those of
// every loaded library (the sanitizer runtime's included) and forward to the
// next definition found after the executable. scripts/torture refuses a
// library that imports any other allocation function.
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

decltype(&malloc) next_malloc;
decltype(&calloc) next_calloc;
decltype(&realloc) next_realloc;
void *(*next_new)(size_t);
void *(*next_new_nothrow)(size_t, const std::nothrow_t &);

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

template <class Fn> void look_up(Fn &next, const char *name)
{
    next = (Fn)dlsym(RTLD_NEXT, name);
}

void resolve_next()
{
    if (next_malloc)
        return;
    busy = true;
    look_up(next_calloc, "calloc");
    look_up(next_realloc, "realloc");
    look_up(next_new, "_Znw" SIZE_CODE);
    look_up(next_new_nothrow, "_Znw" SIZE_CODE "RKSt9nothrow_t");
    look_up(next_malloc, "malloc"); // last: it marks the lookup done
    busy = false;
}

// Writes one line to the report file, if there is one. Formatted on the
// stack: the C library's printf to a descriptor allocates a buffer.
void report(const char *format, long n, unsigned long offset = 0)
{
    char line[96];
    int size = snprintf(line, sizeof line, format, n, offset);
    if (report_fd >= 0 && write(report_fd, line, (size_t)size) != size)
        report_fd = -1;
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
    report("counted %ld\n", counted.load());
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
            report("failed %ld lib+0x%lx\n", n, (unsigned long)(site - library_base));
        }
    }
    busy = false;
    return fail;
}

} // namespace

extern "C" {

char *strdup(const char *text)
{
    if (should_fail(__builtin_return_address(0)))
        return nullptr;
    size_t size = strlen(text);
    busy = true;
    char *copy = (char *)malloc(size + 1);
    busy = false;
    if (copy) {
        memcpy(copy, text, size);
        copy[size] = '\0';
    }
    return copy;
}

// Allocations asked for while the next definitions are being looked up go to
// the C library's own allocator. glibc's lookup asks for none, so free is
// left alone: every block it sees comes from the next definitions.
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);

void *malloc(size_t size)
{
    if (!next_malloc) {
        if (busy)
            return __libc_malloc(size);
        resolve_next();
    }
    return should_fail(__builtin_return_address(0)) ? nullptr : next_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    if (!next_calloc) {
        if (busy)
            return __libc_calloc(count, size);
        resolve_next();
    }
    return should_fail(__builtin_return_address(0)) ? nullptr : next_calloc(count, size);
}

void *realloc(void *old, size_t size)
{
    if (!next_realloc) {
        if (busy)
            return __libc_realloc(old, size);
        resolve_next();
    }
    return should_fail(__builtin_return_address(0)) ? nullptr : next_realloc(old, size);
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

} // extern "C"

void *operator new(size_t size)
{
    resolve_next();
    if (should_fail(__builtin_return_address(0)))
        throw std::bad_alloc();
    return next_new(size);
}

void *operator new(size_t size, const std::nothrow_t &tag) noexcept
{
    resolve_next();
    return should_fail(__builtin_return_address(0)) ? nullptr : next_new_nothrow(size, tag);
}
