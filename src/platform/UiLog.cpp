#include "platform/UiLog.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "platform/Files.h"
#include "platform/StringsTable.h"

namespace zentary {

namespace {

// Length of the valid UTF-8 sequence at the start of `text`, or 0.
std::size_t validSequenceLength(std::string_view text)
{
    auto b = static_cast<unsigned char>(text[0]);
    std::size_t length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
    if (text.size() < length) return 0;
    return isValidUtf8(text.substr(0, length)) ? length : 0;
}

}  // namespace

std::string jsonQuoted(std::string_view text)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    std::size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
            ++i;
        } else if (c < 0x20 || c == 0x7F) {
            out += "\\u00";
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
            ++i;
        } else if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++i;
        } else if (std::size_t length = validSequenceLength(text.substr(i)); length > 0) {
            out.append(text.substr(i, length));
            i += length;
        } else {
            out += "\\ufffd";
            ++i;
        }
    }
    out.push_back('"');
    return out;
}

void JsonObject::addKey(std::string_view key)
{
    if (!mBody.empty()) mBody.push_back(',');
    mBody += jsonQuoted(key);
    mBody.push_back(':');
}

JsonObject& JsonObject::add(std::string_view key, std::string_view value)
{
    addKey(key);
    mBody += jsonQuoted(value);
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, std::int64_t value)
{
    addKey(key);
    mBody += std::to_string(value);
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, bool value)
{
    addKey(key);
    mBody += value ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, const std::vector<std::string>& values)
{
    addKey(key);
    mBody.push_back('[');
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) mBody.push_back(',');
        mBody += jsonQuoted(values[i]);
    }
    mBody.push_back(']');
    return *this;
}

namespace uilog {

void write(const JsonObject& event)
{
    const char* path = std::getenv("ZENTARY_UI_LOG");
    if (!path || !*path) return;
    files::UniqueFd fd(::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
    if (!fd) return;
    std::string line = event.str();
    line.push_back('\n');
    // One write() per line: a retry of a short write could land after another
    // process's line, so a line that does not fit at once is left short.
    ssize_t written;
    do {
        written = ::write(fd.get(), line.data(), line.size());
    } while (written < 0 && errno == EINTR);
}

}  // namespace uilog

}  // namespace zentary
