// Preloaded into a program: FAIL_MEMORY=K:PLACE lets one allocation of it fail, the first of the
// place from a little before the K-th on (as runs differ a little).
// TRACE_MEMORY=FILE gets a line for each one, or only for the one that fails: its number, its place
// (by the innermost functions on the call stack), and the file it was made for (the innermost that
// is not the allocator's or a language runtime's).
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>
#include <unwind.h>

extern "C" { // the C library's allocator, by names that nobody interposes
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

unsigned long made = 0;
unsigned long failing = 0;
std::uint64_t wanted = 0;
bool counts = true; // and fails none
int trace = -1;

// With -z initfirst, before any other initialiser of the process.
__attribute__((constructor)) void configure(int, char**, char** environment) {
    for (; *environment != nullptr; ++environment) {
        if (std::strncmp(*environment, "FAIL_MEMORY=", 12) == 0) {
            char* colon = nullptr;
            failing = std::strtoul(*environment + 12, &colon, 10);
            wanted = std::strtoul(colon + 1, nullptr, 16);
            counts = false;
        } else if (std::strncmp(*environment, "TRACE_MEMORY=", 13) == 0) {
            trace = open(*environment + 13, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        }
    }
}

struct call_stack {
    int depth = 0;
    std::uint64_t place = 0;
    const char* owner = "none";
};

_Unwind_Reason_Code visit(_Unwind_Context* context, void* data) {
    auto& stack = *static_cast<call_stack*>(data);
    const auto at = _Unwind_GetIP(context);
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(at), &info) == 0) { return _URC_END_OF_STACK; }
    const char* slash = std::strrchr(info.dli_fname, '/');
    const char* name = slash != nullptr ? slash + 1 : info.dli_fname;
    if (std::strncmp(name, "failing_memory", 14) == 0) { return _URC_NO_REASON; }
    if (++stack.depth <= 10) {
        stack.place = stack.place * 31 + (at - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    }
    constexpr const char* passed[] = {"libstdc++", "libgcc_s", "libc.so", "ld-linux"};
    for (const char* start : passed) {
        if (std::strncmp(name, start, std::strlen(start)) == 0) { return _URC_NO_REASON; }
    }
    if (std::strcmp(stack.owner, "none") == 0) { stack.owner = name; }
    return stack.depth < 10 ? _URC_NO_REASON : _URC_END_OF_STACK;
}

bool fails() {
    ++made;
    const bool near = failing != 0 && made + 100 > failing;
    if (!counts && !near) { return false; }
    call_stack stack;
    _Unwind_Backtrace(visit, &stack);
    const bool now = near && stack.place == wanted;
    if (trace >= 0 && (now || counts)) {
        char line[256];
        const int length =
            std::snprintf(line, sizeof line, "%lu %lx %s\n", made, stack.place, stack.owner);
        (void)!write(trace, line, static_cast<size_t>(length));
    }
    if (now) {
        failing = 0;
        errno = ENOMEM;
    }
    return now;
}

} // namespace

extern "C" {
void* malloc(size_t size) { return fails() ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return fails() ? nullptr : __libc_calloc(count, size); }
void* realloc(void* old, size_t size) { return fails() ? nullptr : __libc_realloc(old, size); }
void* memalign(size_t edge, size_t size) { return fails() ? nullptr : __libc_memalign(edge, size); }
void* aligned_alloc(size_t edge, size_t size) { return memalign(edge, size); }
int posix_memalign(void** result, size_t edge, size_t size) {
    void* memory = memalign(edge, size);
    if (memory != nullptr) { *result = memory; }
    return memory != nullptr ? 0 : ENOMEM;
}
}
