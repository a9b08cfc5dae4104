// Preloaded into a program: FAIL_MEMORY=PLACE lets the first allocation at that place fail. The
// file "trace" gets a line for each allocation, or only for the one that fails: its place (by the
// innermost functions on the call stack), and the file it was made for (the innermost that is not
// the allocator's or a language runtime's).
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>
#include <unwind.h>

extern "C" { // the C library's allocator, by names that nobody interposes
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
}

namespace {

std::uint64_t wanted = 0; // all of them
bool looking = true;
int trace = -1;

// With -z initfirst, before any other initialiser of the process.
__attribute__((constructor)) void configure(int, char**, char** environment) {
    trace = open("trace", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (; *environment != nullptr; ++environment) {
        (void)std::sscanf(*environment, "FAIL_MEMORY=%lx", &wanted);
    }
}

struct call_stack {
    int depth = 0;
    std::uint64_t place = 0;
    std::string_view owner = "none";
};

_Unwind_Reason_Code visit(_Unwind_Context* context, void* data) {
    auto& stack = *static_cast<call_stack*>(data);
    const auto at = _Unwind_GetIP(context);
    dl_find_object found{}; // much faster than dladdr
    if (_dl_find_object(reinterpret_cast<void*>(at), &found) != 0) { return _URC_END_OF_STACK; }
    const link_map& file = *found.dlfo_link_map;
    const std::string_view name = *file.l_name != '\0' ? basename(file.l_name) : "velmora";
    if (++stack.depth <= 12) { stack.place = stack.place * 31 + at - file.l_addr; }
    for (const auto* passed : {"failing_memory", "libstdc++", "libgcc_s", "libc.so", "ld-linux"}) {
        if (name.starts_with(passed)) { return _URC_NO_REASON; }
    }
    if (stack.owner == "none") { stack.owner = name; }
    return stack.depth < 12 ? _URC_NO_REASON : _URC_END_OF_STACK;
}

bool fails() {
    if (!looking) { return false; }
    call_stack stack;
    _Unwind_Backtrace(visit, &stack);
    if (wanted == 0 || stack.place == wanted) {
        char line[256];
        const char* owner = stack.owner.data();
        const int length = std::snprintf(line, sizeof line, "%lx %s\n", stack.place, owner);
        (void)!write(trace, line, static_cast<size_t>(length));
    }
    looking = stack.place != wanted;
    if (!looking) { errno = ENOMEM; }
    return !looking;
}

} // namespace

extern "C" {
void* malloc(size_t size) { return fails() ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return fails() ? nullptr : __libc_calloc(count, size); }
void* realloc(void* old, size_t size) { return fails() ? nullptr : __libc_realloc(old, size); }
}
