// Parser of ".strings" translation tables:
//
//     /* comment */  // comment
//     "key" = "value";
//     "key";                      (the value is the key itself)
//
// Strings are quoted (escapes \" \' \\ \n \t \r \0 and \UXXXX, a UTF-16 unit;
// two in a row make a surrogate pair) or bare words of letters, digits and
// _ $ + / : . -. The file is UTF-8, with or without BOM, or UTF-16 with a BOM.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace zentary {

// Tables are small; anything larger is not one of ours.
inline constexpr std::size_t kMaxStringsTableSize = 1024 * 1024;

// The table, or nothing when `bytes` is too big or malformed anywhere (the
// caller then uses an empty table: a half-read table would mix languages).
// A later duplicate key wins.
std::optional<std::map<std::string, std::string>> parseStringsTable(std::string_view bytes);

// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or
// code points above U+10FFFF).
bool isValidUtf8(std::string_view text);

// Appends the UTF-8 form of a Unicode scalar value.
void appendUtf8(std::string& out, char32_t codePoint);

}  // namespace zentary
