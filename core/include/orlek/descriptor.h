// A file descriptor that belongs to somebody.
#pragma once

#include <utility>

#include <unistd.h>

namespace Orlek {

// A file descriptor, closed with its scope; none where it was made of what a failed open returned.
class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int opened) : number(opened) {}
    descriptor(descriptor&& other) noexcept : number(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~descriptor() {
        if (number >= 0) {
            close(number);
        }
    }

    explicit operator bool() const { return number >= 0; }
    [[nodiscard]] int get() const { return number; }
    int release() { return std::exchange(number, -1); }

private:
    int number = -1;
};

} // namespace Orlek
