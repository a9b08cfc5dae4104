// Short texts: cutting, trimming, case, joining, and the ways between UTF-8 and wide characters.
//
// Except for the three conversions at the end, the functions work byte by byte and know nothing of
// encodings; a UTF-8 sequence passes through whole, since none of its bytes is an ASCII character.
// Nothing here keeps state, so every function may be called from any thread. Where no failure is
// named, a function accepts every input and can only run out of memory (std::bad_alloc).
#pragma once

#include <string>
#include <vector>

namespace Orlek::Support {

// Appends the pieces of `text` between occurrences of `delim` to `out`. Empty pieces are left out:
// "=a==b=" at '=' gives "a" and "b".
void TextSplit(const std::string& text, char delim, std::vector<std::string>& out);

// The same with a delimiter of several characters. A piece ends where the whole of `delim` occurs;
// the characters skipped before a piece are any characters of `delim`. So "a, b,c" at ", " gives
// "a" and "b,c". An empty `delim` occurs nowhere: a text that is not empty is one piece.
void TextSplit(const std::string& text, const std::string& delim, std::vector<std::string>& out);

// Returns `text` from the first character at index `pos` or later that is not one of `chars`, or an
// empty string if there is none. What stands before `pos` is dropped, whatever it is.
std::string TextTrimL(const std::string& text, std::string chars, unsigned long pos);

// Returns `text` up to the last character at index `pos` or before that is not one of `chars`, or
// an empty string if there is none. What stands after `pos` is dropped, whatever it is; a `pos` at
// or past the end looks at the whole text.
std::string TextTrimR(const std::string& text, const std::string& chars, unsigned long pos);

// Trims both ends: the left one as TextTrimL does from `pos`, the right one always from the end of
// the whole text.
std::string TextTrim(const std::string& text, const std::string& chars, unsigned long pos);

// Cuts "key=value" at the first `delim`. The key loses the tabs and spaces at its end, the value
// those at its start; everything else stays, further delimiters as part of the value. A text
// without `delim` is a key as it stands, with an empty value. `key` and `value` are overwritten;
// either may be the text itself.
void TextDecodeParamValue(
    const std::string& text,
    std::string& key,
    std::string& value,
    char delim);

// Returns the value of "key=value" as TextDecodeParamValue gives it. Throws Orlek::params_error,
// with the cause in the log, if there is no `delim` or the value is empty.
std::string TextDecodeValue(const std::string& text, char delim);

// Change the case of the ASCII letters; all other bytes stay (the process runs in the C locale).
std::string TextToUpper(const std::string& text);
std::string TextToLower(const std::string& text);

// Returns all strings of `parts`, empty ones too, with one `sep` between each two.
std::string TextJoin(char sep, const std::vector<std::string>& parts);

// Returns the UTF-8 form of a NUL-terminated wide text, up to the first character for which the
// system's iconv has none, such as a lone surrogate. Reports no failure: where the system has no
// such converter the result is empty.
std::string TextEncodeUtf8(const wchar_t* text);

// Writes the `inLen` bytes of UTF-8 at `in` (0: as many as stand before its NUL) to `out` as wide
// characters with a closing NUL, and returns 1. `outSize` is the size of `out` in bytes, a multiple
// of sizeof(wchar_t) and not 0, so N wide characters have room for a text of N - 1. `in` is only
// read. Throws Orlek::internal_error, with the cause in the log, if the system has no such
// converter, or the input is not what it takes for UTF-8 or does not fit; `out` then holds what was
// converted so far, without a NUL.
int TextDecodeUtf8(wchar_t* out, unsigned long outSize, char* in, unsigned long inLen);

// Returns `text` with the twelve Cyrillic capitals that look like Latin ones replaced by those
// (А В С Е Н І К М О Р Т Х); all other characters stay.
std::wstring TextTransPlate(const std::wstring& text);

} // namespace Orlek::Support
