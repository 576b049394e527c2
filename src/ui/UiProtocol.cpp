#include "ui/UiProtocol.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "platform/StringsTable.h"

namespace zentary {

namespace {

// A recursive-descent reader over one line. Every read checks the end first.
class Parser {
public:
    explicit Parser(std::string_view text) : mText(text) {}

    std::optional<UiMessage> object(std::string* error)
    {
        UiMessage message;
        skipSpace();
        if (!consume('{')) return fail(error, "not an object");
        skipSpace();
        std::vector<std::string> seen;
        if (!consume('}')) {
            for (;;) {
                skipSpace();
                std::string key;
                if (!string(key)) return fail(error, "bad key");
                for (const std::string& other : seen)
                    if (other == key) return fail(error, "duplicate key");
                if (seen.size() >= kUiMaxFields) return fail(error, "too many fields");
                seen.push_back(key);
                skipSpace();
                if (!consume(':')) return fail(error, "missing ':'");
                skipSpace();
                std::optional<UiValue> value;
                if (!field(value)) return fail(error, mWhy ? mWhy : "bad value");
                if (value) message.setValue(key, std::move(*value));
                skipSpace();
                if (consume('}')) break;
                if (!consume(',')) return fail(error, "missing ','");
            }
        }
        skipSpace();
        if (mPos != mText.size()) return fail(error, "trailing text");
        return message;
    }

private:
    std::optional<UiMessage> fail(std::string* error, const char* why)
    {
        if (error) *error = why;
        return std::nullopt;
    }

    bool atEnd() const { return mPos >= mText.size(); }
    char peek() const { return atEnd() ? '\0' : mText[mPos]; }
    bool consume(char c)
    {
        if (atEnd() || mText[mPos] != c) return false;
        ++mPos;
        return true;
    }
    void skipSpace()
    {
        while (!atEnd() && (mText[mPos] == ' ' || mText[mPos] == '\t' || mText[mPos] == '\r' || mText[mPos] == '\n'))
            ++mPos;
    }
    bool literal(std::string_view word)
    {
        if (mText.substr(mPos, word.size()) != word) return false;
        mPos += word.size();
        return true;
    }

    // A value we keep sets `out`; one we skip leaves it empty.
    bool field(std::optional<UiValue>& out)
    {
        char c = peek();
        if (c == '"') {
            std::string text;
            if (!string(text)) return false;
            out = std::move(text);
            return true;
        }
        if (c == 't' || c == 'f') {
            bool isTrue = c == 't';
            if (!literal(isTrue ? "true" : "false")) return false;
            out = isTrue;
            return true;
        }
        if (c == '-' || (c >= '0' && c <= '9')) return number(out);
        if (c == '[') {
            std::size_t start = mPos;
            std::vector<std::string> items;
            if (stringArray(items)) {
                out = std::move(items);
                return true;
            }
            if (mWhy) return false;
            mPos = start;  // not all strings: skip it as an unknown value
            return skip(1);
        }
        return skip(1);
    }

    bool stringArray(std::vector<std::string>& items)
    {
        consume('[');
        skipSpace();
        if (consume(']')) return true;
        for (;;) {
            skipSpace();
            if (peek() != '"') return false;
            if (items.size() >= kUiMaxArrayItems) {
                mWhy = "array too long";
                return false;
            }
            std::string item;
            if (!string(item)) {
                mWhy = "bad string";
                return false;
            }
            items.push_back(std::move(item));
            skipSpace();
            if (consume(']')) return true;
            if (!consume(',')) return false;
        }
    }

    // Skips any JSON value, refusing nesting deeper than kUiMaxDepth.
    bool skip(int depth)
    {
        if (depth > kUiMaxDepth) {
            mWhy = "too deep";
            return false;
        }
        skipSpace();
        char c = peek();
        if (c == '"') {
            std::string ignored;
            return string(ignored);
        }
        if (c == 't') return literal("true");
        if (c == 'f') return literal("false");
        if (c == 'n') return literal("null");
        if (c == '-' || (c >= '0' && c <= '9')) {
            std::optional<UiValue> ignored;
            return number(ignored);
        }
        if (c == '[' || c == '{') {
            bool isObject = c == '{';
            char close = isObject ? '}' : ']';
            ++mPos;
            skipSpace();
            if (consume(close)) return true;
            for (std::size_t count = 0;; ++count) {
                if (count >= kUiMaxArrayItems) {
                    mWhy = "too many items";
                    return false;
                }
                skipSpace();
                if (isObject) {
                    std::string ignored;
                    if (!string(ignored)) return false;
                    skipSpace();
                    if (!consume(':')) return false;
                }
                if (!skip(depth + 1)) return false;
                skipSpace();
                if (consume(close)) return true;
                if (!consume(',')) return false;
            }
        }
        return false;
    }

    bool number(std::optional<UiValue>& out)
    {
        std::size_t start = mPos;
        bool integral = true;
        consume('-');
        if (consume('0')) {
        } else if (!digits()) {
            return false;
        }
        if (consume('.')) {
            integral = false;
            if (!digits()) return false;
        }
        if (peek() == 'e' || peek() == 'E') {
            integral = false;
            ++mPos;
            if (!consume('+')) consume('-');
            if (!digits()) return false;
        }
        std::string_view text = mText.substr(start, mPos - start);
        if (integral) {
            std::int64_t value = 0;
            auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (ec == std::errc() && end == text.data() + text.size()) {
                out = value;
                return true;
            }
            // Too large for 64 bits: keep it as a real number.
        }
        std::string copy(text);  // strtod needs a terminated string
        char* end = nullptr;
        double value = std::strtod(copy.c_str(), &end);
        if (end != copy.c_str() + copy.size() || !std::isfinite(value)) {
            mWhy = "number out of range";
            return false;
        }
        out = value;
        return true;
    }

    bool digits()
    {
        std::size_t start = mPos;
        while (!atEnd() && mText[mPos] >= '0' && mText[mPos] <= '9') ++mPos;
        return mPos > start;
    }

    bool hex4(unsigned& value)
    {
        if (mText.size() - mPos < 4) return false;
        value = 0;
        for (int i = 0; i < 4; ++i) {
            char c = mText[mPos++];
            value <<= 4;
            if (c >= '0' && c <= '9')
                value |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f')
                value |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                value |= static_cast<unsigned>(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }

    // Copies one well-formed UTF-8 sequence; refuses overlong forms and
    // surrogates, so the window side never sees text it cannot render.
    bool utf8(std::string& out)
    {
        auto byte = [&](std::size_t i) { return static_cast<unsigned char>(mText[mPos + i]); };
        unsigned char lead = byte(0);
        std::size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
        if (length == 0 || mText.size() - mPos < length) return false;
        unsigned code = lead & (0x7F >> length);
        for (std::size_t i = 1; i < length; ++i) {
            if ((byte(i) & 0xC0) != 0x80) return false;
            code = (code << 6) | (byte(i) & 0x3F);
        }
        if ((length == 3 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
            (length == 4 && (code < 0x10000 || code > 0x10FFFF)))
            return false;
        out.append(mText.substr(mPos, length));
        mPos += length;
        return true;
    }

    bool string(std::string& out)
    {
        if (!consume('"')) return false;
        for (;;) {
            if (atEnd()) return false;
            unsigned char c = static_cast<unsigned char>(mText[mPos]);
            if (c == '"') {
                ++mPos;
                return true;
            }
            if (c < 0x20) return false;
            if (c >= 0x80) {
                if (!utf8(out)) return false;
                continue;
            }
            ++mPos;
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (atEnd()) return false;
            char e = mText[mPos++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                unsigned code = 0;
                if (!hex4(code)) return false;
                if (code >= 0xDC00 && code <= 0xDFFF) return false;
                if (code >= 0xD800 && code <= 0xDBFF) {
                    unsigned low = 0;
                    if (!consume('\\') || !consume('u') || !hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                }
                if (code == 0) return false;  // texts end up in C strings on the far side
                zentary::appendUtf8(out, static_cast<char32_t>(code));
                break;
            }
            default:
                return false;
            }
        }
    }

    std::string_view mText;
    std::size_t mPos = 0;
    const char* mWhy = nullptr;
};

void encodeString(std::string& out, std::string_view text)
{
    out += '"';
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                out += buffer;
            } else {
                out += ch;
            }
        }
    }
    out += '"';
}

}  // namespace

std::string UiMessage::type() const
{
    return string("type").value_or(std::string());
}

UiMessage& UiMessage::setValue(std::string_view key, UiValue value)
{
    for (auto& field : mFields) {
        if (field.first == key) {
            field.second = std::move(value);
            return *this;
        }
    }
    mFields.emplace_back(std::string(key), std::move(value));
    return *this;
}

bool UiMessage::remove(std::string_view key)
{
    for (auto it = mFields.begin(); it != mFields.end(); ++it) {
        if (it->first == key) {
            mFields.erase(it);
            return true;
        }
    }
    return false;
}

const UiValue* UiMessage::get(std::string_view key) const
{
    for (const auto& field : mFields)
        if (field.first == key) return &field.second;
    return nullptr;
}

std::optional<std::string> UiMessage::string(std::string_view key) const
{
    const UiValue* value = get(key);
    if (const auto* text = value ? std::get_if<std::string>(value) : nullptr) return *text;
    return std::nullopt;
}

std::optional<std::int64_t> UiMessage::integer(std::string_view key) const
{
    const UiValue* value = get(key);
    if (const auto* number = value ? std::get_if<std::int64_t>(value) : nullptr) return *number;
    return std::nullopt;
}

std::optional<double> UiMessage::number(std::string_view key) const
{
    const UiValue* value = get(key);
    if (!value) return std::nullopt;
    if (const auto* real = std::get_if<double>(value)) return *real;
    if (const auto* whole = std::get_if<std::int64_t>(value)) return static_cast<double>(*whole);
    return std::nullopt;
}

std::optional<bool> UiMessage::boolean(std::string_view key) const
{
    const UiValue* value = get(key);
    if (const auto* flag = value ? std::get_if<bool>(value) : nullptr) return *flag;
    return std::nullopt;
}

std::optional<std::vector<std::string>> UiMessage::strings(std::string_view key) const
{
    const UiValue* value = get(key);
    if (const auto* list = value ? std::get_if<std::vector<std::string>>(value) : nullptr) return *list;
    return std::nullopt;
}

std::string UiMessage::encode() const
{
    std::string out = "{";
    bool first = true;
    for (const auto& [key, value] : mFields) {
        if (!first) out += ',';
        first = false;
        encodeString(out, key);
        out += ':';
        std::visit(
            [&](const auto& v) {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, std::string>) {
                    encodeString(out, v);
                } else if constexpr (std::is_same_v<T, bool>) {
                    out += v ? "true" : "false";
                } else if constexpr (std::is_same_v<T, std::int64_t>) {
                    out += std::to_string(v);
                } else if constexpr (std::is_same_v<T, double>) {
                    char buffer[32];
                    double finite = std::isfinite(v) ? v : 0.0;
                    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, finite);
                    std::string_view text(buffer, ec == std::errc() ? static_cast<std::size_t>(end - buffer) : 0);
                    out += text.empty() ? std::string_view("0") : text;
                    // Keep reals real, so they read back as the same type.
                    if (text.find_first_of(".eE") == std::string_view::npos) out += ".0";
                } else {
                    out += '[';
                    for (std::size_t i = 0; i < v.size(); ++i) {
                        if (i) out += ',';
                        encodeString(out, v[i]);
                    }
                    out += ']';
                }
            },
            value);
    }
    out += '}';
    return out;
}

std::optional<UiMessage> UiMessage::decode(std::string_view line, std::string* error)
{
    if (line.size() > kUiMaxLineLength) {
        if (error) *error = "line too long";
        return std::nullopt;
    }
    return Parser(line).object(error);
}

void UiLineBuffer::append(std::string_view bytes)
{
    while (!bytes.empty()) {
        std::size_t end = bytes.find('\n');
        std::string_view piece = bytes.substr(0, end);
        if (mDiscarding) {
            // still inside a line that was too long
        } else if (mBuffer.size() - mStart + piece.size() > kUiMaxLineLength) {
            mBuffer.resize(mStart);
            mDiscarding = true;
            ++mDropped;
        } else {
            mBuffer.append(piece);
        }
        if (end == std::string_view::npos) break;
        if (!mDiscarding) mBuffer += '\n';
        mDiscarding = false;
        bytes.remove_prefix(end + 1);
        mStart = mBuffer.size();
    }
}

std::optional<std::string> UiLineBuffer::next()
{
    std::size_t end = mBuffer.find('\n');
    if (end == std::string::npos || end >= mStart) return std::nullopt;
    std::string line = mBuffer.substr(0, end);
    mBuffer.erase(0, end + 1);
    mStart -= end + 1;
    return line;
}

std::size_t UiLineBuffer::takeDropped()
{
    return std::exchange(mDropped, 0);
}

}  // namespace zentary
