// core_call FUNCTION ARGUMENT...: calls a function of the core library and prints what it answers,
// for the sessions in golden/. An argument that is left out is null.
#include <orlek/errors.h>
#include <orlek/fsutils.h>
#include <orlek/text.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <map>

using namespace Orlek::Support;

static char** argument; // those of the function

static unsigned long number(int index, int base = 10) {
    return std::stoul(argument[index], nullptr, base);
}

static std::string split() {
    std::vector<std::string> out{"before"};
    const std::string delim = argument[1];
    delim.size() == 1 ? TextSplit(argument[0], delim[0], out) : TextSplit(argument[0], delim, out);
    return TextJoin('|', out);
}

static std::string decodeParam() {
    std::string key = argument[0], value = "old";
    TextDecodeParamValue(key, key, value, '=');
    return "<" + key + "><" + value + ">";
}

// The arguments are the characters in hexadecimal.
static std::wstring wide() {
    std::wstring text;
    for (int i = 0; argument[i] != nullptr; ++i) { text += static_cast<wchar_t>(number(i, 16)); }
    return text;
}

// What stands in a buffer of so many bytes afterwards and behind it, where it was all '#'.
static std::string decodeUtf8() {
    const auto room = number(2);
    std::wstring out(room / sizeof(wchar_t) + 1, L'#');
    try {
        TextDecodeUtf8(out.data(), room, argument[0], number(1));
    } catch (const Orlek::internal_error&) { out += L'!'; }
    std::string shown;
    for (const wchar_t character : out) { shown.append(" ").append(std::to_string(character)); }
    return shown.substr(1);
}

// The arguments are the file, the size of its frame, and the region's place and size. The code, the
// size, and all of a buffer that is larger than it needs to be.
static std::string load(bool color) {
    const auto at = [](int index) { return static_cast<std::uint16_t>(number(index)); };
    std::string buffer(std::size_t{at(5)} * at(6) * (color ? 3 : 2) / 2 + 8, '#');
    std::size_t size = 99;
    const auto loader = color ? fsutils_load_i420 : fsutils_load_mono8;
    const int code = loader(reinterpret_cast<std::uint8_t*>(buffer.data()), &size, argument[0],
        at(1), at(2), at(3), at(4), at(5), at(6));
    return std::to_string(code) + ' ' + std::to_string(size) + ' ' + buffer;
}

static const std::map<std::string, std::function<std::string()>> functions{
    {"create_dir_r", [] { return std::to_string(fsutils_create_dir_r(0775, argument[0])); }},
    {"rm_r", [] { return std::to_string(fsutils_rm_r(argument[0])); }},
    {"clear_dir", [] { return std::to_string(fsutils_clear_dir(argument[0])); }},
    {"cp", [] { return std::to_string(fsutils_cp(argument[0], argument[1])); }},
    {"load_i420", [] { return load(true); }}, {"load_mono8", [] { return load(false); }},
    {"TextSplit", split}, {"TextDecodeParamValue", decodeParam},
    {"TextTrimL", [] { return TextTrimL(argument[0], argument[1], number(2)); }},
    {"TextTrimR", [] { return TextTrimR(argument[0], argument[1], number(2)); }},
    {"TextTrim", [] { return TextTrim(argument[0], argument[1], number(2)); }},
    {"TextDecodeValue", [] { return TextDecodeValue(argument[0], '='); }},
    {"TextToUpper", [] { return TextToUpper(argument[0]); }},
    {"TextToLower", [] { return TextToLower(argument[0]); }}, {"TextDecodeUtf8", decodeUtf8},
    {"TextEncodeUtf8", [] { return TextEncodeUtf8(wide().c_str()); }},
    {"TextTransPlate", [] { return TextEncodeUtf8(TextTransPlate(wide()).c_str()); }}};

int main(int, char** argv) {
    using files = std::filesystem::directory_iterator;
    const auto openFiles = [] { return std::distance(files("/proc/self/fd"), {}); };
    argument = argv + 2;
    const auto before = openFiles();
    try {
        std::cout << functions.at(argv[1])() << '\n';
    } catch (const Orlek::params_error&) { std::cout << "params_error\n"; }
    if (openFiles() != before) { std::cout << "a file was left open\n"; }
}
