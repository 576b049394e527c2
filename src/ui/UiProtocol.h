// The line protocol between the data source and its window helper.
//
// Each message is one JSON object on one line. Both sides speak the same
// small dialect: the values we keep are strings, numbers, booleans and arrays
// of strings, which is everything a window needs to be told or to tell back.
// Anything else a newer peer might send (nested objects, nulls, other arrays)
// is skipped within a depth limit, so old and new versions can talk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zentary {

inline constexpr std::int64_t kUiProtocolVersion = 1;
// A line longer than this is dropped whole; nothing we send comes near it.
inline constexpr std::size_t kUiMaxLineLength = 64 * 1024;
// Nesting allowed in values we skip; deeper input is refused.
inline constexpr int kUiMaxDepth = 8;
// Fields per object and strings per array, so that a hostile line cannot make
// us build large structures out of small tokens.
inline constexpr std::size_t kUiMaxFields = 256;
inline constexpr std::size_t kUiMaxArrayItems = 1024;

using UiValue = std::variant<std::string, std::int64_t, double, bool, std::vector<std::string>>;

// One flat JSON object, fields kept in the order they were set or read.
class UiMessage {
public:
    UiMessage() = default;
    explicit UiMessage(std::string_view type) { set("type", std::string(type)); }

    // The "type" field, or "" when it is missing or not a string.
    std::string type() const;

    // Replaces a field of the same name or appends a new one.
    UiMessage& setValue(std::string_view key, UiValue value);
    UiMessage& set(std::string_view key, std::string value) { return setValue(key, std::move(value)); }
    UiMessage& set(std::string_view key, const char* value) { return setValue(key, std::string(value)); }
    UiMessage& set(std::string_view key, std::int64_t value) { return setValue(key, value); }
    UiMessage& set(std::string_view key, int value) { return setValue(key, std::int64_t{value}); }
    UiMessage& set(std::string_view key, double value) { return setValue(key, value); }
    UiMessage& set(std::string_view key, bool value) { return setValue(key, value); }
    UiMessage& set(std::string_view key, std::vector<std::string> value) { return setValue(key, std::move(value)); }
    bool remove(std::string_view key);

    const UiValue* get(std::string_view key) const;
    std::optional<std::string> string(std::string_view key) const;
    std::optional<std::int64_t> integer(std::string_view key) const;
    // Integers read as numbers too.
    std::optional<double> number(std::string_view key) const;
    std::optional<bool> boolean(std::string_view key) const;
    std::optional<std::vector<std::string>> strings(std::string_view key) const;

    const std::vector<std::pair<std::string, UiValue>>& fields() const { return mFields; }

    // The JSON text, without a line end. Non-finite numbers are written as 0:
    // JSON has no spelling for them.
    std::string encode() const;
    // Parses one line (without its line end). On failure returns nullopt and,
    // when `error` is given, says why.
    static std::optional<UiMessage> decode(std::string_view line, std::string* error = nullptr);

    bool operator==(const UiMessage&) const = default;

private:
    std::vector<std::pair<std::string, UiValue>> mFields;
};

// Cuts a byte stream into lines. A line over kUiMaxLineLength is dropped up to
// its end, and counted, so one bad message never takes the next with it.
class UiLineBuffer {
public:
    // Adds bytes; complete lines become available through next().
    void append(std::string_view bytes);
    // The next complete line, without its '\n'.
    std::optional<std::string> next();
    // Lines dropped for length since the last call.
    std::size_t takeDropped();
    // Bytes of an unfinished line still held.
    std::size_t pending() const { return mBuffer.size() - mStart; }

private:
    std::string mBuffer;
    std::size_t mStart = 0;
    bool mDiscarding = false;
    std::size_t mDropped = 0;
};

}  // namespace zentary
