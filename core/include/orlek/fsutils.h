// Directories, trees, file copies and regions of raw video frames.
//
// Plain functions that never throw. Each returns 0 or one of the codes below. Paths are
// NUL-terminated, at most 4095 bytes long, and never written to. No state is kept, so calls on
// unrelated paths may run in parallel; concurrent changes to the same tree or file are not guarded
// against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

inline constexpr int fsutils_failed = -1;         // a system call failed for some other reason
inline constexpr int fsutils_unsuitable = -2;     // no path, no regular file, a file onto itself
inline constexpr int fsutils_no_memory = -4;      // ENOMEM
inline constexpr int fsutils_access_denied = -9;  // EACCES; EROFS of a copy's destination
inline constexpr int fsutils_not_found = -10;     // ENOENT of a copy's source
inline constexpr int fsutils_name_too_long = -11; // ENAMETOOLONG, EOVERFLOW, over 4095 bytes

// Makes the directory `path`, which must be absolute, and every missing one above it, each with
// `mode` less the umask. Directories that exist already are left as they are; a symbolic link to a
// directory is as good as one. There is no rollback: what was made before a failure stays.
// Returns 0, or -1 with errno as the last failing system call set it (a path that is relative or
// too long comes to none). Logs nothing.
int fsutils_create_dir_r(mode_t mode, const char* path);

// Removes a file, a symbolic link (never what it points to), or a directory with all it holds.
// Stops at the first entry that cannot be removed; entries whose path would be too long are passed
// over, and their directory stays. What was removed before a failure stays removed. Takes one
// descriptor for each level of the tree, and no memory for paths.
// Returns 0, -2 (null or empty path), -11, or -1. Logs every failure but a bad `path`.
int fsutils_rm_r(const char* path);

// Removes all that the directory `path` holds, as fsutils_rm_r does, and keeps the directory.
// Returns 0, -2 (null or empty path), -11, or -1. Logs every failure.
int fsutils_clear_dir(const char* path);

// Copies the regular file `src` to `dst`, which is made or overwritten and ends up with exactly the
// bytes of `src` and its permission bits, set-ID and sticky bits included, whatever the umask.
// Symbolic links are followed on both sides. Returns 0 or:
//   -2   a null path; `src` is no regular file; `dst` is something else than a regular file, or is
//        `src` itself, under the same or another name
//   -4, -9, -10, -11   as above
//   -1   anything else, a missing directory of `dst` and a source that shrinks meanwhile included
// Once the copying has begun, a failure removes `dst`. Logs nothing.
int fsutils_cp(const char* src, const char* dst);

// Loads the region of `w` x `h` pixels at column `x` and row `y` out of the file `path`, which
// holds one raw I420 frame: the Y plane of `frameWidth` x `frameHeight` bytes, then U and V at half
// the width and height. `buffer` gets the region packed the same way: w * h bytes of Y, then U,
// then V; it must have room for w * h * 3 / 2 bytes, and nothing beyond them is written. Halves are
// rounded down throughout. Where `y` and `h` are both odd the region has a chroma row more than
// that room holds; what would not fit of it is left out.
// Returns 0, or -1 for a file that cannot be opened or read, has not exactly the frame's size
// (width * height * 3 / 2), a region that leaves the frame, or a frame of 2 GiB or more.
// `*size` becomes w * h * 3 / 2 (rounded down), for a refusal or a failed read as well, unless the
// file cannot be opened and examined. Logs nothing.
int fsutils_load_i420(
    std::uint8_t* buffer,
    std::size_t* size,
    const char* path,
    std::uint16_t frameWidth,
    std::uint16_t frameHeight,
    std::uint16_t x,
    std::uint16_t y,
    std::uint16_t w,
    std::uint16_t h);

// The same for a file of one byte per pixel, row after row: `buffer` gets w * h bytes, and `*size`
// that number. `frameHeight` is not used: the file may hold any number of rows, as long as it holds
// those of the region, with `y + h` at most 65535; what has to stay below 2 GiB is the frame up to
// the region's last row.
int fsutils_load_mono8(
    std::uint8_t* buffer,
    std::size_t* size,
    const char* path,
    std::uint16_t frameWidth,
    std::uint16_t frameHeight,
    std::uint16_t x,
    std::uint16_t y,
    std::uint16_t w,
    std::uint16_t h);
