// The least that a C++ program costs: it prints one line and links the C++ runtime alone.
#include <iostream>

int main() {
    std::cout << "one line\n";
}
