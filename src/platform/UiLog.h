// The user-interface event log: with ZENTARY_UI_LOG=<path> set, every alert,
// dialog and progress event appends one JSON line to that file, in every UI
// mode. Tests read it; so can support. Nothing happens when it is unset.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zentary {

// A flat JSON object built member by member, in the order added.
class JsonObject {
public:
    JsonObject& add(std::string_view key, std::string_view value);
    JsonObject& add(std::string_view key, const char* value) { return add(key, std::string_view(value)); }
    JsonObject& add(std::string_view key, std::int64_t value);
    JsonObject& add(std::string_view key, int value) { return add(key, static_cast<std::int64_t>(value)); }
    JsonObject& add(std::string_view key, bool value);
    JsonObject& add(std::string_view key, const std::vector<std::string>& values);
    std::string str() const { return "{" + mBody + "}"; }

private:
    void addKey(std::string_view key);
    std::string mBody;
};

// `text` as a JSON string literal, quotes included. Quotes, backslashes and
// control characters are escaped; valid UTF-8 passes through unchanged and
// each byte of a broken sequence becomes U+FFFD, so a line is always valid JSON.
std::string jsonQuoted(std::string_view text);

namespace uilog {
// Appends event.str() and a newline to $ZENTARY_UI_LOG with a single write()
// on an O_APPEND descriptor, so lines of concurrent writers never interleave.
void write(const JsonObject& event);
}  // namespace uilog

}  // namespace zentary
