// The file service: the files and archives that the signature service reads and writes of its own.
#pragma once

#include <memory>

namespace Orlek::Support::Velmora::Fs {

// Every operation returns on success only. A failure is logged with its cause and thrown as
// internal_error; memory that cannot be had is thrown as std::bad_alloc. Texts are
// zero-terminated, sizes count bytes, the caller's buffers are borrowed for the call.
class api_like {
public:
    virtual ~api_like() = default;

    // Writes a zip archive with two entries, the first one first, named as given (UTF-8). The
    // folder of the archive is made if it is missing and the path is absolute; if it cannot be
    // made, opening the archive decides. An archive that is there is replaced as a whole, and is
    // left as it was on failure. Two equal names fail.
    virtual void createZip(
        const char* zipPath,
        const char* name1,
        unsigned char* data1,
        unsigned long size1,
        const char* name2,
        unsigned char* data2,
        unsigned long size2) = 0;

    // Writes a file, made or truncated first; its folder has to exist. On failure what was written
    // so far stays.
    virtual void writeFile(const char* path, unsigned char* data, unsigned long size) = 0;

    // Reads a whole regular file and sets *size to its length, at least 1 and less than 4 GiB.
    // Fails, without waiting and without touching *size, for anything else: an empty file, a file
    // of 4 GiB or more (never cut short), a directory, a pipe, a device.
    virtual std::unique_ptr<unsigned char[]> readFile(const char* path, unsigned long* size) = 0;
};

// Makes the file service. It keeps nothing between calls.
std::shared_ptr<api_like> Api__Create();

} // namespace Orlek::Support::Velmora::Fs
