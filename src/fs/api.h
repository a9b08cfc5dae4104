// The file service: the files and archives that the signature service reads and writes of its own.
#pragma once

#include <memory>

namespace Orlek::Support::Velmora::Fs {

// Every operation returns on success only. A failure is logged with its cause and thrown as
// internal_error; memory that cannot be had is thrown as std::bad_alloc. Texts are
// zero-terminated, sizes count bytes, the caller's buffers are borrowed for the call. A link at the
// end of a path to write to is followed where it is one's own (by effective user id) or belongs to
// the owner of the folder that it is in, and refused otherwise.
class api_like {
public:
    virtual ~api_like() = default;

    // Writes a zip archive with two entries, the first one first, named as given and readable by
    // all (0644). An empty name, one of more than 65,535 bytes or not in UTF-8, and two equal names
    // fail. The folder of the archive is made if it is missing and the path is absolute; if it
    // cannot be made, writing the archive decides. An archive that is there is replaced as a whole,
    // and is left as it was on failure; one's own keeps its permissions, but for set-id bits, and
    // somebody else's gives way to a new file. The path is looked up once, when the requests that
    // go into the archive have been made already: an unsuitable one leaves them without an archive.
    virtual void createZip(
        const char* zipPath,
        const char* name1,
        unsigned char* data1,
        unsigned long size1,
        const char* name2,
        unsigned char* data2,
        unsigned long size2) = 0;

    // Writes a file in place, made or truncated first; its folder has to exist. On failure what was
    // written so far stays. Refused, untouched, are files with set-id bits and, in a folder that
    // others can write to, files with several names and, if it has the sticky bit, those of others.
    // A pipe has to have a reader, which may be slow.
    virtual void writeFile(const char* path, unsigned char* data, unsigned long size) = 0;

    // Reads a whole regular file and sets *size to its length, at least 1 and less than 4 GiB.
    // Fails, without waiting and without touching *size, for anything else: an empty file, a file
    // of 4 GiB or more (never cut short), a directory, a pipe, a device.
    virtual std::unique_ptr<unsigned char[]> readFile(const char* path, unsigned long* size) = 0;
};

// Makes the file service. It keeps nothing between calls.
std::shared_ptr<api_like> Api__Create();

} // namespace Orlek::Support::Velmora::Fs
