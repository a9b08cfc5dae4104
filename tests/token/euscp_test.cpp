#include "token_layer.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

int generateAndDie(int call);

int main(int argc, char** argv) {
    EUInitialize();
    if (argc == 3 && std::string(argv[1]) == "--generate") {
        return generateAndDie(std::atoi(argv[2]));
    }
    // SoftHSM syncs every object it writes; in memory that costs nothing.
    const auto parent = ::access("/dev/shm", W_OK) == 0 ? std::filesystem::path("/dev/shm")
                                                        : std::filesystem::temp_directory_path();
    std::string folder = (parent / "euscp.XXXXXX").string();
    layer::makeToken(::mkdtemp(folder.data()));
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    EUFinalize();
    std::filesystem::remove_all(folder);
    return result;
}
