#include "process/streams.h"

#include <orlek/log.h>
#include <orlek/standard_streams.h>
#include <orlek/text.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Orlek::Support::Velmora {

namespace {

constexpr off_t room = off_t{1} << 20;
constexpr std::size_t read_at_most = std::size_t{64} * 1024;
constexpr std::size_t most_lines = 32;

int& outputCopy = standard_streams[STDOUT_FILENO];
int& errorsCopy = standard_streams[STDERR_FILENO];
int diverted = -1;
const std::string* password = nullptr; // the request's own, never a copy

// A start with a standard stream closed would hand its number to the next file opened, and the
// answer would be written there.
void occupyStandardStreams() {
    int opened = 0;
    do {
        opened = open("/dev/null", O_RDWR);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    if (opened >= 0) {
        close(opened);
    }
}

// Sealed at its size, it is filled in place: nobody's chatter grows beyond that.
int memoryFile() {
    const int file = memfd_create("module output", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (ftruncate(file, room) == 0 && fcntl(file, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) == 0) {
        return file;
    }
    close(file);
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

// Leads a stream to the file and returns the descriptor that now stands for where it led.
int divert(int stream, int file) {
    const int copy = fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    return copy >= 0 && dup2(file, stream) >= 0 ? copy : stream;
}

// In a child that a module makes: whoever reads the answer is not to wait for its end.
void closeCopies() {
    for (const int copy : {outputCopy, errorsCopy}) {
        if (copy > STDERR_FILENO) {
            close(copy);
        }
    }
}

// What has been said so far, which is forgotten.
std::string takeOutput() {
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
    if (lseek(diverted, 0, SEEK_CUR) <= 0) {
        return {};
    }
    std::string text(read_at_most, '\0');
    const ssize_t size = pread(diverted, text.data(), text.size(), 0);
    (void)fallocate(diverted, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, room);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
}

// A secret as it is and as programs dump it: in hexadecimal, with the usual separators or none.
std::vector<std::string> spellings(const std::string& secret) {
    std::vector<std::string> all{secret};
    for (const std::string_view digits : {"0123456789abcdef", "0123456789ABCDEF"}) {
        for (const std::string_view separator : {"", " ", ":"}) {
            std::string dump;
            for (const char letter : secret) {
                const auto byte = static_cast<unsigned char>(letter);
                dump += dump.empty() ? "" : separator;
                dump += {digits[byte >> 4U], digits[byte & 15U]};
            }
            all.push_back(std::move(dump));
        }
    }
    return all;
}

// Writes "***" in place of what must not be told. Where the text is cut, its end may be the
// beginning of that, and goes.
void hide(const std::string& secret, std::string& text, bool cut) {
    constexpr std::string_view mark = "***";
    for (std::size_t at = 0; !secret.empty() && (at = text.find(secret, at)) != text.npos;) {
        text.replace(at, secret.size(), mark);
        at += mark.size();
    }
    std::string_view begun = cut ? secret : std::string_view();
    while (!text.ends_with(begun)) {
        begun.remove_suffix(1);
    }
    text.resize(text.size() - begun.size());
}

// A reader who is slow is waited for, also where whoever started this process set the descriptor
// not to.
void writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written < 0 && errno == EAGAIN) {
            pollfd ready{file, POLLOUT, 0};
            (void)poll(&ready, 1, -1);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

// What is put into a stream with this buffer is written at once.
class descriptor_buffer : public std::streambuf {
public:
    descriptor_buffer(std::ostream& user, int file)
        : stream(user), descriptor(file), before(user.rdbuf(this)) {}
    ~descriptor_buffer() override { stream.rdbuf(before); }
    descriptor_buffer(const descriptor_buffer&) = delete;
    descriptor_buffer& operator=(const descriptor_buffer&) = delete;

private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        writeAll(descriptor, {text, static_cast<std::size_t>(size)});
        return size;
    }

    std::ostream& stream;
    const int descriptor;
    std::streambuf* const before;
};

} // namespace

void divertStreams() {
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that has gone away,
    (void)std::signal(SIGXFSZ, SIG_IGN); // and a limit of the files' size, are errors like others
    occupyStandardStreams();
    diverted = memoryFile();
    outputCopy = divert(STDOUT_FILENO, diverted);
    errorsCopy = divert(STDERR_FILENO, diverted);
    (void)pthread_atfork(nullptr, nullptr, closeCopies);
}

module_output::module_output(const cli_request& request) {
    static const std::string none;
    constexpr std::size_t place = 3; // behind the group, the command and the medium
    password = request.args.size() > place ? &request.args[place] : &none;
}

module_output::~module_output() {
    logModuleOutput();
    password = nullptr;
}

void logModuleOutput() noexcept try {
    if (password == nullptr) {
        return;
    }
    std::string text = takeOutput();
    const bool cut = text.size() == read_at_most;
    for (const auto& secret : spellings(*password)) {
        hide(secret, text, cut);
    }
    std::replace(text.begin(), text.end(), '\0', '\n');
    std::vector<std::string> lines;
    TextSplit(text, '\n', lines);
    lines.resize(std::min(lines.size(), most_lines));
    for (const auto& line : lines) {
        LogWrite(ORLEK_HERE, log_tolerated, "fail: module output <%.500s>", line.c_str());
    }
} catch (const std::exception&) { // no memory: what was said is lost
}

int answer(const cli_response& response) {
    const descriptor_buffer output{std::cout, outputCopy};
    const descriptor_buffer errors{std::cerr, errorsCopy};
    return response.render(std::cout, std::cerr);
}

void answerFailure() noexcept {
    writeAll(outputCopy, "FAIL\n");
}

} // namespace Orlek::Support::Velmora
