// EUSignCP as a recorder: every call becomes a line of the transcript, with its arguments and its
// result. What is handed out gets a name ("key2") under which it is seen again. Left alone, it
// plays two media with a key that works; environment variables make it play something else:
//   EU_MEDIA     the types, split by '|', each "description,serial,serial"; '@' stands for the
//                supported one up to its last letter, '+' for that letter, '~' for no character
//   EU_KEY       the answers of EUIsPrivateKeyExists in turn, "1" or "0", the last one for good
//   EU_TIME      the verified signature has "1" a signing time, "2" a time stamp
//   EU_INFO      "none": the own certificate comes without what is in it
//   EU_FAIL      "k:code": the k-th call that returns a result returns this code; 4242 has no text
//   EU_END       "k:how": what the library does in the k-th such call beside it, see misbehave()
//   EU_SOON      ten minutes are 0.3 seconds, and half a minute more is a second more
//   <function>   the result of every call of the function of this name
#include <EUSignCP.h>

#include <algorithm>
#include <concepts>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string_view>
#include <vector>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "transcript.h"

namespace {

// All that was handed out, and whether it came back. Memory is kept until the end, so that a second
// release is known as one. Every misuse becomes a "leak" in the transcript.
class ledger {
public:
    ~ledger() {
        for (const auto& [place, name] : names) {
            if (!name.starts_with("leak")) { transcribe("leak: " + name); }
            delete[] static_cast<const char*>(place);
        }
    }
    template <class type>
    type* give(const std::string& kind, std::string_view content = "") {
        auto* place = new char[content.size() + 1];
        content.copy(place, content.size());
        names[place] = kind + std::to_string(names.size() + 1);
        return reinterpret_cast<type*>(place);
    }
    std::string look(const void* place) const {
        const auto found = names.find(place);
        if (place == nullptr) { return "null"; }
        return found != names.end() ? found->second : "leak: not from here";
    }
    std::string take(const std::string& kind, const void* place) {
        const auto name = look(place);
        if (names.contains(place)) { names[place] = "leak: back already"; }
        return name.starts_with(kind) ? name : "leak: no " + kind + " but " + name;
    }

private:
    std::map<const void*, std::string> names;
};

ledger given;
int calls = 0;         // that return a result
std::size_t asked = 0; // whether there is a key

std::string setting(const std::string& name, const std::string& otherwise) {
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? value : otherwise;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream{text};
    for (std::string part; std::getline(stream, part, separator);) { parts.push_back(part); }
    return parts;
}

// The description of a media type, then the serials of its devices; nothing past the last type.
std::vector<std::string> mediaType(DWORD index) {
    const auto types = split(setting("EU_MEDIA", "@+,S1,S2"), '|');
    std::string type;
    for (const char letter : index < types.size() ? types[index] : "") {
        // The description is "е.ключ ІІТ Алмаз-1К" in Windows-1251.
        type += letter == '@'   ? "\xE5.\xEA\xEB\xFE\xF7 \xB2\xB2\xD2 \xC0\xEB\xEC\xE0\xE7-1"
                : letter == '+' ? "\xCA"
                : letter == '~' ? "\x98"
                                : std::string(1, letter);
    }
    return split(type, ',');
}

std::string show(std::integral auto value) { return std::to_string(value); }
std::string show(const std::string& shown) { return shown; }
std::string show(const char* text) { return text ? "\"" + std::string{text} + "\"" : "null"; }
std::string show(const void* place) { return given.look(place); }
std::string show(const EU_KEY_MEDIA* media) {
    const std::string_view field{media->szPassword, EU_PASSWORD_SIZE};
    const auto password = field.substr(0, field.find('\0'));
    const bool clean = field.find_first_not_of('\0', password.size()) == field.npos;
    return show(media->dwTypeIndex) + "/" + show(media->dwDevIndex) + "/" + std::string{password} +
           (clean ? "" : " and more");
}
std::string bytes(const BYTE* data, DWORD size) {
    return "\"" + std::string{data, data + size} + "\"";
}

template <class... values>
std::string call(const std::string& function, const values&... arguments) {
    std::string list;
    ((list += (list.empty() ? "" : ", ") + show(arguments)), ...);
    return function + "(" + list + ")";
}

// Through a descriptor, stdio's buffer, a child that stays, and without end when the process ends.
void talk() {
    static const auto line = std::string(600, 'x') + '\n';
    std::string text{"written\0also\n", 13};
    for (int count = 0; count < 28; ++count) { text += line; }
    (void)!::write(STDERR_FILENO, text.data(), text.size());
    std::printf("the PIN is secret, 73 65 63 72 65 74\n\nprinted\nbeyond 32 lines");
    if (::fork() == 0) { ::_exit(static_cast<int>(::sleep(20))); }
    ::atexit([] {
        for (int count = 0; ::write(STDOUT_FILENO, line.data(), line.size()) > 0;) {
            if (++count > 10000) { ::_exit(1); }
        }
        std::abort();
    });
}

void readOn() {
    std::ifstream zeros{"/dev/zero"};
    std::string piece(1 << 20, '\0');
    const auto now = std::chrono::steady_clock::now;
    for (const auto start = now(); now() - start < std::chrono::milliseconds(800);) {
        zeros.read(piece.data(), 1 << 20);
    }
}

void misbehave(const std::string& how) {
    if (how == "abort") { std::abort(); }
    if (how == "exit") { std::exit(-1); }
    if (how == "child" && ::fork() == 0) { std::exit(0); }
    ::wait(nullptr);
    if (how == "talk") { talk(); }
    if (how == "spill") { // what is read of it ends inside the PIN
        const auto text = std::string(65516, 'x') + "\nsecret secret secret";
        (void)!::write(STDOUT_FILENO, text.data(), text.size());
    }
    if (how == "read") { readOn(); }
    if (how == "keep") { ::open("kept", O_CREAT | O_WRONLY, 0600); }
    sigset_t all;
    ::sigfillset(&all);
    if (how == "deaf") { ::sigprocmask(SIG_BLOCK, &all, nullptr); }
    while (how == "deaf" || how == "hang") { ::pause(); }
}

// Writes a call down and gives its result: the scripted one, else the natural one. The action hands
// out what a call that succeeds does.
DWORD answer(
    const std::string& call, const std::function<void()>& act = [] {}, DWORD natural = 0) {
    const auto fail = setting("EU_FAIL", "0:0");
    auto result = std::stoul(setting(call.substr(0, call.find('(')), std::to_string(natural)));
    if (++calls == std::stoi(fail)) { result = std::stoul(fail.substr(fail.find(':') + 1)); }
    if (const auto end = split(setting("EU_END", "0:"), ':'); calls == std::stoi(end[0])) {
        misbehave(end[1]);
    }
    if (result == EU_ERROR_NONE) { act(); }
    transcribe(call + " = " + std::to_string(result));
    return result;
}

// The answer of an enumeration.
DWORD answer(const std::string& call, const std::vector<std::string>& texts, DWORD at, char* text) {
    const auto describe = [&] { std::strncpy(text, texts.at(at).c_str(), EU_DESCRIPTION_SIZE); };
    return answer(call, describe, at < texts.size() ? EU_ERROR_NONE : EU_WARNING_END_OF_ENUM);
}

// The release of something handed out.
void release(const char* function, const std::string& kind, const void* place) {
    transcribe(call(function, given.take(kind, place)));
}

constexpr SYSTEMTIME begin_time{2024, 1, 3, 31, 9, 5, 0, 7};

} // namespace

// In place of the C library's.
extern "C" [[gnu::visibility("default")]] int timer_settime(
    timer_t timer, int flags, const itimerspec* time, itimerspec* old) {
    static const auto real =
        reinterpret_cast<decltype(&::timer_settime)>(::dlsym(RTLD_NEXT, "timer_settime"));
    auto value = *time;
    if (const auto seconds = value.it_value.tv_sec; seconds >= 600 && std::getenv("EU_SOON")) {
        value.it_value = {(seconds - 600) / 30, 300'000'000};
    }
    return real(timer, flags, &value, old);
}

// The interface's lists are long, and its functions many: laid out by hand.
// clang-format off

void EUSetUIMode(BOOL mode) { transcribe(call(__func__, mode)); }
DWORD EUInitialize(void) { return answer(call(__func__)); }
void EUFinalize(void) { transcribe(call(__func__)); }
void EUCtxFree(void* context) { release(__func__, "context", context); }
void EUCtxFreePrivateKey(void* key) { release(__func__, "key", key); }
void EUFreeCertificateInfoEx(EU_CERT_INFO_EX* info) { release(__func__, "info", info); }
void EUFreeSignInfo(EU_SIGN_INFO* info) { release(__func__, "signer", info->pszSubject); }
void EUFreeMemory(BYTE* memory) { release(__func__, "memory", memory); }

const char* EUGetErrorLangDesc(DWORD error, DWORD language) {
    transcribe(call(__func__, error, language));
    return error == 4242 ? nullptr : "why %s";
}

DWORD EUEnumKeyMediaTypes(DWORD type, char* text) {
    return answer(call(__func__, type), mediaType(type), 0, text);
}

DWORD EUEnumKeyMediaDevices(DWORD type, DWORD device, char* text) {
    return answer(call(__func__, type, device), mediaType(type), device + 1, text);
}

DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* media, BOOL* exists) {
    return answer(call(__func__, media, *exists), [&] {
        const auto keys = setting("EU_KEY", "1");
        *exists = keys[std::min(asked++, keys.size() - 1)] == '1' ? 2 : 0;
    });
}

DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* media) { return answer(call(__func__, media)); }

DWORD EUCtxCreate(void** context) {
    return answer(call(__func__, *context), [&] { *context = given.give<void>("context"); });
}

DWORD EUCtxReadPrivateKey(
    void* context, const EU_KEY_MEDIA* media, void** key, EU_CERT_OWNER_INFO* info) {
    return answer(call(__func__, context, media, *key), [&] {
        *key = given.give<void>("key");
        info->pszSubject = given.give<char>("owner");
    });
}

void EUCtxFreeCertOwnerInfo(void* context, EU_CERT_OWNER_INFO* info) {
    transcribe(call(__func__, context, given.take("owner", info->pszSubject)));
}

DWORD EUCtxGetOwnCertificate(void* key, DWORD type, DWORD usage, EU_CERT_INFO_EX** info,
                             BYTE** certificate, DWORD* length) {
    return answer(call(__func__, key, type, usage, *info, *certificate, *length), [&] {
        if (setting("EU_INFO", "") != "none") {
            *info = given.give<EU_CERT_INFO_EX>("info", std::string(sizeof(EU_CERT_INFO_EX), '\0'));
            (*info)->stCertBeginTime = begin_time;
            (*info)->stCertEndTime = {2026, 12, 4, 31, 23, 59, 58, 0};
        }
        *certificate = given.give<BYTE>("memory", "certificate");
        *length = 11;
    });
}

DWORD EUCtxSignData(void* key, DWORD algorithm, const BYTE* data, DWORD size, BOOL external,
                    BOOL append, BYTE** sign, DWORD* length) {
    const auto text = bytes(data, size);
    return answer(call(__func__, key, algorithm, text, size, external, append, *sign), [&] {
        *sign = given.give<BYTE>("memory", "signature");
        *length = 9;
    });
}

DWORD EUCtxSignFile(void* key, DWORD algorithm, const char* file, BOOL external, BOOL append,
                    const char* signature) {
    return answer(call(__func__, key, algorithm, file, external, append, signature));
}

DWORD EUVerifyDataWithParams(
    const BYTE* data, DWORD size, const void* hash, DWORD hash_size, const BYTE* signature,
    DWORD signature_size, DWORD index, const void* params, DWORD params_size,
    const BYTE* certificate, DWORD certificate_size, const void* settings, EU_SIGN_INFO* info) {
    return answer(call(__func__, bytes(data, size), size, hash, hash_size,
                       bytes(signature, signature_size), signature_size, index, params, params_size,
                       bytes(certificate, certificate_size), certificate_size, settings), [&] {
        *info = {};
        info->pszSubject = given.give<char>("signer");
        info->bTimeAvail = setting("EU_TIME", "") == "1" ? 2 : 0;
        info->bTimeStamp = setting("EU_TIME", "") == "2" ? 2 : 0;
        info->Time = begin_time;
    });
}

DWORD EUGeneratePrivateKeyEx(
    const EU_KEY_MEDIA* media, BOOL set_password, DWORD keys, DWORD ds_spec, DWORD kep_spec,
    const char* path, DWORD type, DWORD strength, const void* p9, BYTE** p10, DWORD* p11,
    BYTE** p12, DWORD* p13, const void* p14, const void* p15, BYTE** ds, DWORD* ds_size,
    char* ds_name, BYTE** kep, DWORD* kep_size, char* kep_name, BYTE** p22, DWORD* p23, char* p24) {
    return answer(call(__func__, media, set_password, keys, ds_spec, kep_spec, path, type,
                       strength, p9, p10, p11, p12, p13, p14, p15, *ds, *kep, p22, p23, p24), [&] {
        *ds = given.give<BYTE>("memory", "DS request");
        *kep = given.give<BYTE>("memory", "KEP request");
        *ds_size = 10;
        *kep_size = 11;
        std::memset(ds_name, 'n', EU_REQUEST_NAME_SIZE);
        std::memset(kep_name, 'n', EU_REQUEST_NAME_SIZE);
    });
}
