#include "log_capture.h"

#include <gtest/gtest.h>
#include <orlek/errors.h>
#include <orlek/text.h>

using namespace Orlek::Support;
using namespace std::string_literals;
using strings = std::vector<std::string>;

static std::string split(const std::string& text, const std::string& delim) {
    strings out{"before"};
    TextSplit(text, delim, out);
    if (delim.size() == 1) {
        strings same{"before"};
        TextSplit(text, delim[0], same);
        EXPECT_EQ(same, out);
    }
    return TextJoin('|', out);
}

TEST(text_test, splitsAtCharactersAndAtStrings) {
    EXPECT_EQ(split("NAME=a=b", "="), "before|NAME|a|b");
    EXPECT_EQ(split("=a==b=", "="), "before|a|b");
    EXPECT_EQ(split("===", "="), "before");
    EXPECT_EQ(split("a, b,c", ", "), "before|a|b,c");
    EXPECT_EQ(split(", a, , b, ", ", "), "before|a|b");
    EXPECT_EQ(split("ab", ""), "before|ab");
    EXPECT_EQ(split("", ""), "before");
}

TEST(text_test, trimsFromAPositionOn) {
    EXPECT_EQ(TextTrim("  ab c  ", " ", 0), "ab c");
    EXPECT_EQ(TextTrim("  ab c  ", " ", 3), "b c");
    EXPECT_EQ(TextTrim("   ", " ", 0), "");
    EXPECT_EQ(TextTrimR("abc  ", " ", std::string::npos), "abc");
    EXPECT_EQ(TextTrimR("abc  ", " ", 1), "ab");
    EXPECT_EQ(TextTrimL(" \tx ", "\t ", 0), "x ");
    EXPECT_EQ(TextTrimL(" \tx ", "\t ", 3), "");
}

TEST(text_test, decodesKeysAndValues) {
    const strings rows[] = {{"  name \t= value ", "  name", "value "}, {"flag ", "flag ", ""},
        {"=v", "", "v"}, {"a=", "a", ""}, {"a=\nb=c", "a", "\nb=c"}};
    for (const auto& row : rows) {
        std::string key = row[0];
        std::string value = "old";
        TextDecodeParamValue(key, key, value, '=');
        EXPECT_EQ((strings{row[0], key, value}), row);
    }
    EXPECT_EQ(TextDecodeValue("a= 1", '='), "1");
    EXPECT_THROW(TextDecodeValue("a=\t", '='), Orlek::params_error);
    EXPECT_THROW(TextDecodeValue("a", '='), Orlek::params_error);
    EXPECT_EQ(takeLog(),
        "core/src/text.cpp 1 TextDecodeValue fail: value absent (text:<a=\t>, delim:<=>)\n"
        "core/src/text.cpp 1 TextDecodeValue fail: find (text:<a>, delim:<=>)\n");
}

TEST(text_test, changesCaseAndJoins) {
    EXPECT_EQ(TextToUpper("Key-1 é") + TextToLower("ABC É"), "KEY-1 éabc É");
    EXPECT_EQ(TextJoin(',', {"a", "", "b"}), "a,,b");
    EXPECT_EQ(TextJoin(',', {}), "");
}

// What stands in a buffer of `room` wide characters afterwards and, as '#', behind it; a '!' for a
// failure.
static std::wstring decode(std::string in, unsigned long inLen, unsigned long room) {
    std::wstring out(room + 1, L'#');
    try {
        EXPECT_EQ(TextDecodeUtf8(out.data(), room * sizeof(wchar_t), in.data(), inLen), 1);
    } catch (const Orlek::internal_error&) { out += L'!'; }
    return out;
}

TEST(text_test, convertsBetweenUtf8AndWideText) {
    EXPECT_EQ(TextEncodeUtf8(L"Київ \u20ac \U0001F511"), "Київ € \xF0\x9F\x94\x91");
    EXPECT_EQ(TextEncodeUtf8(L""), "");
    EXPECT_EQ(TextEncodeUtf8((L"ab"s + wchar_t{0xD800} + L'x').c_str()), "ab");

    EXPECT_EQ(decode("Київ € \xF0\x9F\x94\x91", 0, 9), L"Київ € \U0001F511\0#"s);
    EXPECT_EQ(decode("Київ", 4, 4), L"Ки\0##"s);
    EXPECT_EQ(decode("", 0, 1), L"\0#"s);
    EXPECT_EQ(decode("abc", 0, 4), L"abc\0#"s);
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(decode("abc", 0, 3), L"ab##!");
    EXPECT_EQ(decode("\xFF", 0, 2), L"###!");
    EXPECT_EQ(decode("a\xD0", 0, 2), L"a##!");
    const auto left = "core/src/text.cpp 1 TextDecodeUtf8 fail: iconv (source-left:1)\n"s;
    EXPECT_EQ(takeLog(), left + left + left);
}

TEST(text_test, replacesCyrillicCapitalsByTheirLookAlikes) {
    EXPECT_EQ(TextTransPlate(L"АВСЕНІКМОРТХ 12 аЇA"), L"ABCEHIKMOPTX 12 аЇA");
}
