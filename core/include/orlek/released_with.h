// Owning pointers to what C libraries hand out.
#pragma once

namespace Orlek {

// A std::unique_ptr deleter that gives the pointer back through a library's release function. Its
// result, if it has one, is not looked at.
template <auto release>
struct released_with {
    template <class T>
    void operator()(T* owned) const {
        (void)release(owned);
    }
};

} // namespace Orlek
