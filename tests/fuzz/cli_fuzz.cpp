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

namespace {

namespace fs = std::filesystem;
using namespace Orlek::Support;
using namespace Orlek::Support::Velmora;

// Holds the log, what leaked, and the folder "work" with the files of a verification.
const auto place = fs::temp_directory_path() / ("cli_fuzz." + std::to_string(::getpid()));
const auto usage = cli_engine({}).usage();
std::vector<std::vector<std::string>> forms; // of command lines, as the usage text tells them
const std::vector<std::string> words{"S1", "S2", "secret", "blob", "sign", "crt", "new", "-"};
const std::regex answers{R"re(64 FAILED\n|70 FAIL\n|0 ((S[12]\n){0,2}|DONE\n|(PASS|FAIL)ED\n|)re"
                         R"re(\{("[a-z-]+":"[a-zT0-9:-]+",?)+\}\n))re"};

void restore() {
    fs::remove_all(place / "work");
    fs::create_directories(place / "work");
    fs::current_path(place / "work");
    for (const auto* name : {"blob", "sign", "crt"}) { std::ofstream{name} << name; }
}

// A run leaves nothing in the double.
void settle() {
    ::setenv("TRANSCRIPT", "../leaks", 1);
    std::destroy_at(&given); // writes down what was not given back
    std::construct_at(&given);
    ::unsetenv("TRANSCRIPT");
    if (fs::exists("../leaks")) { std::abort(); }
    calls = 0;
    asked = 0;
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
    LogOpen2("cli", 4, 0);
    Eusign::Api__Create(nullptr); // makes the library ready, for good
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

    const cli_request request{line[0], {line.begin() + 1, line.end()}, {}};
    static_cast<void>(request.getLogName());
    const auto response = cli_engine({Eusign::Api__Create(Fs::Api__Create())}).activate(request);
    const auto answer = std::to_string(response.exitCode) + " " + response.outText;
    const bool right = answer == "70 " + usage || std::regex_match(answer, answers);
    settle();
    // A failure leaves no file behind, but for a certificate that was cut short.
    const bool written = answer == "0 DONE\n" || std::ranges::count(line, "export-crt") > 0;
    const bool clean = written || std::distance(fs::directory_iterator("."), {}) == 3;
    if (!right || !clean || !response.errText.empty()) { std::abort(); }
    if (written) { restore(); }
    return 0;
}
