// Hostile command lines, from the words to the response, while calls of the library fail: on the
// EUSignCP double, compiled in so that it can be settled with after every run, and the real log.
#include "../tool/euscp_double.cpp"

#include "engine.h"

#include <filesystem>
#include <fuzzer/FuzzedDataProvider.h>
#include <iterator>
#include <log2.h>
#include <memory>
#include <regex>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace Orlek::Support;

const std::string usage = Velmora::cli_engine({}).usage();
std::vector<std::vector<std::string>> forms; // of command lines, as the usage text tells them
const std::vector<std::string> words{"S1", "S2", "secret", "blob", "sign", "crt", "new", "-"};
const std::regex success{
    R"re((S[12]\n){0,2}|DONE\n|(PASS|FAIL)ED\n|\{("[a-z-]+":"[a-zT0-9:-]+",?)+\}\n)re"};

// Holds the log, the double's transcript, and the folder "work" with the files of a verification.
const fs::path place = fs::temp_directory_path() / ("cli_fuzz." + std::to_string(::getpid()));

void require(bool promise) {
    if (!promise) { std::abort(); }
}

void restore() {
    fs::remove_all(place / "work");
    fs::create_directories(place / "work");
    fs::current_path(place / "work");
    for (const auto* name : {"blob", "sign", "crt"}) { std::ofstream{name} << name; }
}

std::vector<std::string> linesTakenOutOf(const fs::path& path) {
    std::ifstream file{path, std::ios::binary};
    const std::string all{std::istreambuf_iterator<char>{file}, {}};
    fs::resize_file(path, 0);
    return split(all, '\n');
}

// What a run leaves: nothing in the double, one harmless line in the log for each record. Tells
// whether the library was called.
bool settle() {
    std::destroy_at(&given); // writes down what was not given back
    std::construct_at(&given);
    calls = 0;
    asked = 0;
    const auto transcript = linesTakenOutOf(place / "transcript");
    for (const auto& line : transcript) { require(!line.starts_with("leak: ")); }
    const auto process = "Z " + std::to_string(::getpid()) + " ";
    const auto isControl = [](unsigned char letter) { return letter < 32 || letter == 127; };
    for (const auto& line : linesTakenOutOf(place / "cli.log")) {
        require(line.find(process) == 23 && std::ranges::none_of(line, isControl));
    }
    return !transcript.empty();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const auto& form : split(usage, '\n')) {
        std::istringstream stream{form};
        forms.push_back({std::istream_iterator<std::string>{stream}, {}});
    }
    restore();
    std::atexit([] { fs::remove_all(place); });
    ::setenv("LOG2_DIR", place.c_str(), 1);
    ::setenv("TRANSCRIPT", (place / "transcript").c_str(), 1);
    LogOpen2("cli", 4, 0);
    Velmora::Eusign::Api__Create(nullptr); // makes the library ready, for good
    settle();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
    FuzzedDataProvider input{bytes, size};
    const auto roll = [&](std::size_t n) { return input.ConsumeIntegralInRange(0UL, n - 1); };
    const auto fault = std::to_string(roll(16)) + input.PickValueInArray({":5", ":7", ":18"});
    ::setenv("EU_FAIL", fault.c_str(), 1);
    ::setenv("EU_KEY", input.PickValueInArray({"10", "1", "0"}), 1);
    ::setenv("EU_TIME", input.PickValueInArray({"0", "1", "2"}), 1);

    // The words of a form, or the first of them, and others in their place or behind them.
    auto line = forms[roll(forms.size())];
    for (auto& word : line) {
        if (word.starts_with('<')) { word = words[roll(words.size())]; }
    }
    if (roll(8) == 7) { line.resize(1 + roll(10)); }
    while (input.remaining_bytes() > 0) {
        const auto at = roll(10);
        line.resize(std::max(line.size(), at + 1));
        line[at] = input.ConsumeRandomLengthString().c_str();
        if (line[at].starts_with('/') || line[at].find("..") != line[at].npos) { return -1; }
    }
    std::vector<char*> argv;
    for (auto& word : line) { argv.push_back(word.data()); }
    const auto request = cli_request::create(static_cast<int>(argv.size()), argv.data(), nullptr);
    static_cast<void>(request.getLogName());
    const auto files = Velmora::Fs::Api__Create();
    const auto response =
        Velmora::cli_engine({Velmora::Eusign::Api__Create(files)}).activate(request);

    const bool called = settle();
    const bool known = std::ranges::any_of(forms, [&](const auto& form) {
        return line.size() == form.size() && std::equal(&form[1], &form[3], &line[1]);
    });
    const auto& out = response.outText;
    const auto status = response.exitCode;
    require(response.errText.empty() && (known || (out == usage && !called)));
    require(status == 0    ? std::regex_match(out, success)
            : status == 64 ? out == "FAILED\n" && line[2] == "verify"
                           : status == 70 && (out == usage || out == "FAIL\n"));
    // A failure leaves no file behind, but for a certificate that was cut short.
    const bool written = out == "DONE\n" || (known && line[2] == "export-crt");
    require(written || std::distance(fs::directory_iterator("."), {}) == 3);
    if (written) { restore(); }
    return 0;
}
