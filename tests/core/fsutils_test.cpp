#include "log_capture.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <orlek/fsutils.h>
#include <sstream>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;
using counts = std::vector<std::size_t>;

// What the system calls below saw, and what they are to answer before they do their work.
static std::string madePaths;
static counts sentCounts;
static std::vector<int> sendErrors; // an errno to fail with, or 0 for the end of the file
static int chmodError = 0;

int mkdir(const char* path, mode_t mode) noexcept {
    madePaths += std::string(path) + '\n';
    return static_cast<int>(syscall(SYS_mkdir, path, mode));
}

ssize_t sendfile(int target, int source, off_t* offset, std::size_t count) noexcept {
    sentCounts.push_back(count);
    if (sendErrors.empty()) { return syscall(SYS_sendfile, target, source, offset, count); }
    errno = sendErrors.front();
    sendErrors.erase(sendErrors.begin());
    return errno == 0 ? 0 : -1;
}

int fchmod(int file, mode_t mode) noexcept {
    errno = chmodError;
    return chmodError != 0 ? -1 : static_cast<int>(syscall(SYS_fchmod, file, mode));
}

namespace {

// Each test runs in an empty folder of its own.
class fsutils_test : public testing::Test {
protected:
    fsutils_test() {
        char pattern[] = "/tmp/fsutils_test.XXXXXX";
        root = mkdtemp(pattern);
        fs::current_path(root);
    }
    ~fsutils_test() override {
        EXPECT_EQ(openFiles(), filesBefore);
        EXPECT_TRUE(takeLog().empty());
        fs::current_path("/");
        fs::remove_all(root);
        umask(umaskBefore);
    }

    static std::ptrdiff_t openFiles() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), {});
    }
    static void write(const char* path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string read(const char* path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static auto mode(const char* path) { return static_cast<int>(fs::status(path).permissions()); }
    std::string root;
    std::ptrdiff_t filesBefore = openFiles();
    mode_t umaskBefore = umask(027);
};

TEST_F(fsutils_test, makesMissingDirectoriesFromTheTopDown) {
    EXPECT_EQ(fsutils_create_dir_r(0775, (root + "/t/a/b/").c_str()), 0);
    std::string expected;
    for (const auto* path : {"/t/a/b/", "/t/a/b", "/t/a", "/t", "/t/a", "/t/a/b", "/t/a/b/"}) {
        expected += root + path + '\n';
    }
    EXPECT_EQ(madePaths, expected);
    EXPECT_EQ(mode("t/a/b"), 0750);

    write("file", "");
    fs::create_directory_symlink("t", "link");
    const auto longest = root + "/long" + std::string(4090 - root.size(), '/');
    const std::pair<std::string, int> rows[] = {{"/", 0}, {root + "/link/x//y", 0}, {longest, 0},
        {longest + "/", -1}, {"", -1}, {"tmp/x", -1}, {root + "/file", -1},
        {root + "/file/x/y", -1}, {root + "/t/../made/file/../../file/y", -1},
        {"/proc/velmora/x", -1}};
    for (const auto& [path, code] : rows) {
        const auto before = path;
        EXPECT_EQ(fsutils_create_dir_r(0775, path.c_str()), code) << path;
        EXPECT_EQ(path, before);
    }
    EXPECT_TRUE(fs::is_directory("t/x/y") && fs::is_directory("made/file"));
}

TEST_F(fsutils_test, removesTreesButNothingThatLinksPointTo) {
    fs::create_directories("kept");
    write("kept/file", "");
    fs::create_directories("t/a/b/c");
    write("t/a/b/file", "");
    fs::create_directory_symlink(root + "/kept", "t/a/link");
    fs::create_directory_symlink("t", "way");
    fs::create_directory_symlink("kept", "link");
    EXPECT_EQ(fsutils_clear_dir("way"), 0);
    EXPECT_TRUE(fs::is_empty("t"));
    EXPECT_EQ(fsutils_clear_dir("t"), 0);
    fs::create_directories("t/a/b");
    EXPECT_EQ(fsutils_rm_r("t//"), 0);
    EXPECT_EQ(fsutils_rm_r("way"), 0);
    EXPECT_FALSE(fs::exists("t") || fs::is_symlink("way"));
    EXPECT_EQ(fsutils_rm_r(nullptr), -2);
    EXPECT_EQ(fsutils_rm_r(""), -2);
    EXPECT_EQ(fsutils_rm_r(std::string(4096, '/').c_str()), -11);
    EXPECT_EQ(takeLog(), "");

    EXPECT_EQ(fsutils_rm_r("link/"), -1);
    EXPECT_EQ(fsutils_rm_r("missing"), -1);
    EXPECT_EQ(fsutils_clear_dir("kept/file"), -1);
    EXPECT_EQ(fsutils_clear_dir(nullptr), -2);
    EXPECT_EQ(fsutils_clear_dir(std::string(4096, '/').c_str()), -11);
    EXPECT_TRUE(fs::exists("kept/file"));
    EXPECT_EQ(fsutils_rm_r("/proc/self/fdinfo"), -1);
    const std::string expected = R"(
_T_rm_r fail: opendir <link/> (Not a directory)
_T_rm_r fail: opendir <missing> (No such file or directory)
fsutils_clear_dir fail: opendir <kept/file> (Not a directory)
fsutils_clear_dir fail: path is not provided
fsutils_clear_dir fail: path is too long (size:4097, max-size:4096)
_T_rm_r fail: opendir </proc/self/fdinfo/0> (Not a directory)
_T_rm_r fail: rm </proc/self/fdinfo/0>
)";
    EXPECT_EQ("\n" + takeLog("core/src/fsutils.cpp 1 "), expected);
}

// The deepest directory's path leaves room for names of one byte. Its entries are made by way of
// a descriptor, since paths that are too long cannot be handed to the system either.
TEST_F(fsutils_test, walksDownToTheLongestPathAndNoFurther) {
    const auto top = root + '/' + std::string(1 + (4091 - root.size()) % 5, 't');
    auto deepest = top;
    while (deepest.size() < 4093) { deepest += "/deep"; }
    ASSERT_EQ(fsutils_create_dir_r(0755, deepest.c_str()), 0);
    const int directory = open(deepest.c_str(), O_RDONLY | O_DIRECTORY);
    for (const auto* name : {"x", "yy"}) {
        close(openat(directory, name, O_WRONLY | O_CREAT, 0600));
    }
    EXPECT_EQ(fsutils_clear_dir(deepest.c_str()), -11);
    EXPECT_EQ(faccessat(directory, "x", F_OK, 0), -1);
    EXPECT_EQ(fsutils_rm_r(top.c_str()), -11);
    const std::string tooLong = " fail: path is too long (size:4097, max-size:4096)\n";
    std::string expected = "fsutils_clear_dir" + tooLong + "_T_rm_r" + tooLong;
    for (auto path = deepest; path != top; path.resize(path.size() - 5)) {
        expected += "_T_rm_r fail: rm <" + path + ">\n";
    }
    EXPECT_TRUE(takeLog("core/src/fsutils.cpp 1 ") == expected);
    EXPECT_EQ(unlinkat(directory, "yy", 0), 0);
    close(directory);
    EXPECT_EQ(fsutils_rm_r(top.c_str()), 0);
}

TEST_F(fsutils_test, copiesBytesAndModeWholeOrNotAtAll) {
    std::string content(0x300001, '\0');
    std::iota(content.begin(), content.end(), '\0');
    write("source", content);
    ASSERT_EQ(chmod("source", 06754), 0);
    EXPECT_EQ(fsutils_cp("source", "copy"), 0);
    EXPECT_EQ(std::exchange(sentCounts, {}), (counts{0x100000, 0x100000, 0x100000, 1}));
    EXPECT_TRUE(read("copy") == content);
    EXPECT_EQ(mode("copy"), 06754);

    write("short", "ab");
    sendErrors = {EINTR, EAGAIN};
    EXPECT_EQ(fsutils_cp("short", "copy"), 0);
    EXPECT_EQ(read("copy"), "ab");
    EXPECT_EQ(mode("copy"), 0640);
    write("empty", "");
    EXPECT_EQ(fsutils_cp("empty", "copy"), 0);
    EXPECT_EQ(read("copy"), "");
    EXPECT_EQ(sentCounts, (counts{2, 2, 2, 0}));

    for (const auto& [send, change] : std::map<int, int>{{0, 0}, {EIO, 0}, {EINTR, EPERM}}) {
        sendErrors = {send};
        chmodError = change;
        EXPECT_EQ(fsutils_cp("short", "copy"), -1);
        EXPECT_FALSE(fs::exists("copy")) << send;
    }
    chmodError = 0;
}

TEST_F(fsutils_test, refusesToCopyWhatItShouldNot) {
    write("file", "content");
    fs::create_hard_link("file", "twin");
    fs::create_symlink("file", "link");
    fs::create_directory("dir");
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    std::istringstream rows(
        "file file -2    file twin -2     file link -2    dir new -2        fifo new -2 "
        "file dir -2     file fifo -2     missing new -10 file none/new -1  file/x new -1 " +
        std::string(256, 'n') + " new -11 file " + std::string(256, 'n') + " -11");
    std::string source, target;
    for (int code = 0; rows >> source >> target >> code;) {
        EXPECT_EQ(fsutils_cp(source.c_str(), target.c_str()), code) << source << " " << target;
    }
    EXPECT_FALSE(fs::exists("new"));
    EXPECT_EQ(read("file"), "content");
}

// A region of a frame, and a loader's answer: code, size and all of an oversized buffer.
struct region {
    std::uint16_t fw, fh, x, y, w, h;
    std::size_t size(bool color) const { return std::size_t{w} * h * (color ? 3 : 2) / 2; }
};
using answer = std::tuple<int, std::size_t, std::string>;
constexpr std::size_t unset = 99;

answer load(bool color, const char* path, const region& r) {
    std::string buffer(r.size(color) + 8, '#');
    auto* bytes = reinterpret_cast<std::uint8_t*>(buffer.data());
    std::size_t size = unset;
    const auto loader = color ? fsutils_load_i420 : fsutils_load_mono8;
    const int code = loader(bytes, &size, path, r.fw, r.fh, r.x, r.y, r.w, r.h);
    return {code, size, buffer};
}

std::string cut(const std::string& plane, std::size_t stride, std::size_t x, std::size_t y,
    std::size_t w, std::size_t endRow) {
    std::string rows;
    for (; y < endRow; ++y) { rows += plane.substr(y * stride + x, w); }
    return rows;
}

// Part by part; of U and V as much as their share of the size holds.
answer expected(bool color, const std::string& frame, const region& r) {
    std::string buffer;
    const bool inside = r.x + r.w <= r.fw && r.y + r.h <= r.fh;
    if (inside) {
        buffer = cut(frame, r.fw, r.x, r.y, r.w, std::size_t{r.y} + r.h);
        for (const std::size_t quarters : {4U, 5U}) {
            const auto plane = frame.substr(quarters * r.fw * r.fh / 4);
            auto part = cut(plane, r.fw / 2U, r.x / 2U, r.y / 2U, r.w / 2U, (r.y + r.h) / 2U);
            const auto end = quarters == 4 ? r.w * r.h * 5U / 4 : r.size(true);
            part.resize(color ? end - buffer.size() : 0, '#');
            buffer += part;
        }
    }
    buffer.resize(r.size(color) + 8, '#');
    return {inside ? 0 : -1, r.size(color), buffer};
}

// Every region of every frame up to 5 x 5, and those that leave it by a column or a row.
TEST_F(fsutils_test, loadsExactlyTheRegion) {
    region r{};
    for (r.fw = 0; r.fw < 6; ++r.fw) {
        for (r.fh = 0; r.fh < 6; ++r.fh) {
            std::string frame(r.fw * r.fh * 3U / 2, '\0');
            std::iota(frame.begin(), frame.end(), 'A');
            write("frame", frame);
            for (unsigned i = 0; i < 7 * 7 * 7 * 7; ++i) {
                std::tie(r.x, r.y, r.w, r.h) = std::tuple(i % 7, i / 7 % 7, i / 49 % 7, i / 343);
                ASSERT_EQ(load(true, "frame", r), expected(true, frame, r)) << r.fw << ' ' << i;
                if (r.y + r.h <= r.fh) {
                    ASSERT_EQ(load(false, "frame", r), expected(false, frame, r)) << i;
                }
            }
        }
    }
}

TEST_F(fsutils_test, refusesFramesThatDoNotFit) {
    write("six", "123456");
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    write("huge", "");
    fs::resize_file("huge", 40000ULL * 40000 * 3 / 2);
    const std::tuple<bool, const char*, region, std::pair<int, std::size_t>> rows[] = {
        {true, "six", {2, 4, 0, 0, 2, 2}, {-1, 6}}, {true, "six", {2, 1, 0, 0, 2, 1}, {-1, 3}},
        {true, "missing", {2, 2, 0, 0, 2, 2}, {-1, unset}},
        {true, "fifo", {2, 2, 0, 0, 2, 2}, {-1, 6}},
        {true, "huge", {40000, 40000, 0, 0, 2, 2}, {-1, 6}},
        {false, "six", {2, 9, 0, 2, 2, 2}, {-1, 4}}, {false, "fifo", {2, 2, 0, 0, 2, 2}, {-1, 4}},
        {false, "missing", {2, 2, 0, 0, 1, 1}, {-1, unset}},
        {false, "huge", {1, 0, 0, 65535, 1, 1}, {-1, 1}},
        {false, "huge", {65535, 0, 0, 32767, 1, 1}, {0, 1}},
        {false, "huge", {65535, 0, 0, 32768, 1, 1}, {-1, 1}}};
    for (const auto& [color, path, at, expected] : rows) {
        const auto [code, size, buffer] = load(color, path, at);
        EXPECT_EQ(std::pair(code, size), expected) << color << path << at.fw;
    }
}

} // namespace
