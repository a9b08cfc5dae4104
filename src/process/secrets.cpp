#include "process/secrets.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>
#include <sys/prctl.h>

// The program's own memory management, for the sake of the wiping: texts are passed by value from
// the command line down to the library's record, and every copy is to go, whoever made it.

void* operator new(std::size_t size) {
    if (void* const block = std::malloc(size != 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept try {
    return operator new(size);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) {
        return;
    }
    constexpr std::size_t largest = std::size_t{1} << 20; // beyond, it is a file's contents
    const std::size_t size = malloc_usable_size(block);
    if (size <= largest) {
        explicit_bzero(block, size);
    }
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    operator delete(block);
}

namespace Orlek::Support::Velmora {

void forbidDumps() {
    (void)prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void wipeParameters(int argc, char** argv) {
    constexpr int first = 3; // behind the program's name, the group and the command
    for (int i = first; i < argc; ++i) {
        explicit_bzero(argv[i], std::strlen(argv[i]));
    }
}

[[gnu::noinline]] void wipeStack() {
    std::array<char, std::size_t{64} * 1024> left;
    explicit_bzero(left.data(), left.size());
}

} // namespace Orlek::Support::Velmora
