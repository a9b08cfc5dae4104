#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <orlek/fsutils.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

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

// In an empty folder.
class frames : public testing::Test {
protected:
    frames() : folder(::mkdtemp((fs::temp_directory_path() / "frames.XXXXXX").string().data())) {
        fs::current_path(folder);
    }
    ~frames() override {
        EXPECT_EQ(filesBefore, openFiles());
        fs::current_path("/");
        fs::remove_all(folder);
    }
    static std::ptrdiff_t openFiles() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), {});
    }
    fs::path folder;
    std::ptrdiff_t filesBefore = openFiles();
};

// Every region of every frame up to 5 x 5, and those that leave it by a column or a row.
TEST_F(frames, loadExactlyTheRegion) {
    region r{};
    for (r.fw = 0; r.fw < 6; ++r.fw) {
        for (r.fh = 0; r.fh < 6; ++r.fh) {
            std::string frame(r.fw * r.fh * 3U / 2, '\0');
            std::iota(frame.begin(), frame.end(), 'A');
            std::ofstream("frame") << frame;
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

TEST_F(frames, areRefusedWhenTheyDoNotFit) {
    std::ofstream("six") << "123456";
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    std::ofstream("huge").close();
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
