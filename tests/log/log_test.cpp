#include <log2.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

class log_test : public testing::Test {
protected:
    log_test() : folder(::mkdtemp((fs::temp_directory_path() / "log.XXXXXX").string().data())) {
        ::setenv("LOG2_DIR", (folder / "a/b").c_str(), 1);
    }
    ~log_test() override {
        LogClose();
        fs::remove_all(folder);
    }

    static std::vector<std::string> lines(const fs::path& path) {
        std::vector<std::string> result;
        std::ifstream file{path};
        for (std::string line; std::getline(file, line);) { result.push_back(line); }
        return result;
    }
    static void write(const std::string& text) { LogWrite("a.cpp", 7, "f", 1, "%s", text.c_str()); }

    fs::path folder;
};

TEST_F(log_test, recordsAreWholeLinesThatCannotBeForged) {
    errno = ENOENT;
    LogOpen2("../x", 4, 0);
    LogWrite("src/a.cpp", 42, "f", 4, "done: <%s> %zu\n", "sm\xC3\xB6rg", std::size_t{3});
    write("x\n2026-01-31T09:15:00.123Z 1 1 f a:1 done\r\t\\\x1b[2J\x7f\xC2\x9B");
    LogWrite("a\nb", 1, nullptr, 1, "%s", std::string(100'000, 'y').c_str());
    LogWrite("src/a.cpp", 1, "f", 5, "above the level");
    EXPECT_EQ(errno, ENOENT);
    LogClose();
    write("after the closing");

    const auto start = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + std::to_string(::getpid());
    const std::vector<std::string> expected{R"( 4 f src/a\.cpp:42 done: <smörg> 3)",
        R"( 1 f a\.cpp:7 x\\n2026-01-31T09:15:00\.123Z 1 1 f a:1 done\\r\\t\\\\\\x1b\[2J\\x7f\\xc2\\x9b)",
        R"( 1 - a\\nb:1 y{99})"};
    auto written = lines(folder / "a/b/.._x.log");
    ASSERT_EQ(written.size(), expected.size());
    EXPECT_EQ(written[2].size() - written[2].find(":1 y"), 100'003U);
    written[2].resize(written[2].find(":1 y") + 3 + 99);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(std::regex_match(written[i], std::regex(start + expected[i]))) << written[i];
    }
}

TEST_F(log_test, theEnvironmentNamesThePlace) {
    ::unsetenv("LOG2_DIR");
    ::setenv("HOME", folder.c_str(), 1);
    for (const auto& [state, place] : {std::pair{std::string{}, folder / ".local/state/unnamed"},
             std::pair{std::string{"relative"}, folder / ".local/state/unnamed"},
             std::pair{(folder / "state").string(), folder / "state/unnamed"}}) {
        ::setenv("XDG_STATE_HOME", state.c_str(), 1);
        LogOpen2("", 4, 0);
        write("here");
        EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
        EXPECT_EQ(fs::status(place / "unnamed.log").permissions(), fs::perms{0600});
        fs::remove_all(place);
    }
}

// Each writer makes 2 MiB out of 12: the file turns over once, under all of them.
TEST_F(log_test, noLineIsLostOrTornWhenWritersMeetATurnOver) {
    constexpr int writers = 6;
    constexpr int records = 2000;
    const std::string filling(1000, 'z');
    LogOpen2("shared", 4, 0);
    for (int writer = 0; writer < writers; ++writer) {
        if (::fork() == 0) {
            for (int record = 0; record < records; ++record) {
                write(std::to_string(writer) + "/" + std::to_string(record) + filling);
            }
            ::_exit(0);
        }
    }
    while (::wait(nullptr) > 0) {}
    std::multiset<std::string> seen;
    for (const auto* name : {"a/b/shared.log", "a/b/shared.log.1"}) {
        for (const auto& line : lines(folder / name)) {
            const auto at = line.find(":7 ");
            ASSERT_TRUE(line.ends_with(filling) && line.starts_with("20") && at < 60U) << line;
            seen.insert(line.substr(at + 3, line.size() - at - 3 - filling.size()));
        }
    }
    EXPECT_EQ(seen.size(), writers * records);
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), writers * records);
    EXPECT_GE(fs::file_size(folder / "a/b/shared.log.1"), 8U << 20U);
}

TEST_F(log_test, doesNotWaitForAProcessThatTurnsTheFileOver) {
    LogOpen2("busy", 4, 0);
    const auto full = folder / "a/b/busy.log";
    std::ofstream{full}.close();
    fs::resize_file(full, 8U << 20U);
    const int other = ::open(full.c_str(), O_RDONLY);
    ASSERT_EQ(::flock(other, LOCK_EX), 0);
    write("into the full file");
    EXPECT_GT(fs::file_size(full), 8U << 20U);
    ::close(other);
    write("into the new file");
    EXPECT_EQ(lines(full).size(), 1U);
}

TEST_F(log_test, whatCannotBeWrittenHarmsNobody) {
    const auto place = folder / "a/b";
    fs::create_directories(place / "dir.log");
    ASSERT_EQ(::mkfifo((place / "unread.log").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((place / "pipe.log").c_str(), 0600), 0);
    const int reader = ::open((place / "pipe.log").c_str(), O_RDONLY | O_NONBLOCK);
    const auto everything = [&] {
        ::alarm(20); // ends a process that hangs
        const int unregistered = std::atexit([] { write("after main"); });
        const std::vector<std::string> names{"dir", "unread", "pipe", std::string(300, 'n')};
        for (const auto& name : names) {
            LogOpen2(name.c_str(), 4, 0);
            write("dropped");
        }
        const rlimit nothing{0, 0};
        ::setrlimit(RLIMIT_FSIZE, &nothing);
        LogOpen2("size", 4, 0);
        write("dropped");
        ::setenv("LOG2_DIR", (place / "pipe.log").c_str(), 1); // no folder
        LogOpen2("size", 4, 0);
        write("dropped");
        std::exit(unregistered); // with the log open
    };
    EXPECT_EXIT(everything(), testing::ExitedWithCode(0), "^$");
    EXPECT_EQ(fs::file_size(place / "size.log"), 0U);
    char byte{};
    EXPECT_EQ(::read(reader, &byte, 1), 0);
    ::close(reader);
}
