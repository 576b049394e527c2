#include "platform/StringsTable.h"

#include <cstdint>

namespace zentary {

namespace {

bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }
bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// UTF-16 with a byte-order mark, converted to UTF-8. Nothing on an odd length
// or a broken surrogate pair.
std::optional<std::string> utf16ToUtf8(std::string_view bytes, bool bigEndian)
{
    if (bytes.size() % 2 != 0) return std::nullopt;
    auto unit = [&](std::size_t i) -> char32_t {
        auto b0 = static_cast<unsigned char>(bytes[i]);
        auto b1 = static_cast<unsigned char>(bytes[i + 1]);
        return bigEndian ? char32_t((b0 << 8) | b1) : char32_t((b1 << 8) | b0);
    };
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        char32_t c = unit(i);
        if (isHighSurrogate(c)) {
            if (i + 3 >= bytes.size()) return std::nullopt;
            char32_t low = unit(i + 2);
            if (!isLowSurrogate(low)) return std::nullopt;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        } else if (isLowSurrogate(c)) {
            return std::nullopt;
        }
        appendUtf8(out, c);
    }
    return out;
}

bool isBareChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
           c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

class Parser {
public:
    explicit Parser(std::string_view text) : mText(text) {}

    std::optional<std::map<std::string, std::string>> parse()
    {
        std::map<std::string, std::string> table;
        for (;;) {
            if (!skipSpace()) return std::nullopt;
            if (atEnd()) return table;
            auto key = token();
            if (!key || !skipSpace() || atEnd()) return std::nullopt;
            std::string value;
            if (peek() == '=') {
                ++mPos;
                if (!skipSpace()) return std::nullopt;
                auto given = token();
                if (!given || !skipSpace() || atEnd()) return std::nullopt;
                value = std::move(*given);
            } else {
                value = *key;
            }
            if (peek() != ';') return std::nullopt;
            ++mPos;
            table.insert_or_assign(std::move(*key), std::move(value));
        }
    }

private:
    bool atEnd() const { return mPos >= mText.size(); }
    char peek() const { return mText[mPos]; }

    // Skips white space and comments; false on an unterminated comment.
    bool skipSpace()
    {
        while (!atEnd()) {
            char c = peek();
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
                ++mPos;
            } else if (c == '/' && mPos + 1 < mText.size() && mText[mPos + 1] == '*') {
                auto end = mText.find("*/", mPos + 2);
                if (end == std::string_view::npos) return false;
                mPos = end + 2;
            } else if (c == '/' && mPos + 1 < mText.size() && mText[mPos + 1] == '/') {
                auto end = mText.find('\n', mPos + 2);
                mPos = end == std::string_view::npos ? mText.size() : end + 1;
            } else {
                break;
            }
        }
        return true;
    }

    std::optional<std::string> token()
    {
        if (atEnd()) return std::nullopt;
        if (peek() == '"') return quoted();
        std::size_t start = mPos;
        while (!atEnd() && isBareChar(peek())) ++mPos;
        if (mPos == start) return std::nullopt;
        return std::string(mText.substr(start, mPos - start));
    }

    // Four hex digits after "\U"; nothing when they are not there.
    std::optional<char32_t> hexUnit()
    {
        if (mText.size() - mPos < 4) return std::nullopt;
        char32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            int digit = hexValue(mText[mPos + i]);
            if (digit < 0) return std::nullopt;
            value = (value << 4) | char32_t(digit);
        }
        mPos += 4;
        return value;
    }

    std::optional<std::string> quoted()
    {
        ++mPos;  // opening quote
        std::string out;
        for (;;) {
            if (atEnd()) return std::nullopt;
            char c = mText[mPos++];
            if (c == '"') return out;
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (atEnd()) return std::nullopt;
            char e = mText[mPos++];
            switch (e) {
            case 'n': out.push_back('\n'); break;
            case 't': out.push_back('\t'); break;
            case 'r': out.push_back('\r'); break;
            case 'U':
            case 'u': {
                auto c1 = hexUnit();
                if (!c1 || *c1 == 0) return std::nullopt;
                char32_t cp = *c1;
                if (isHighSurrogate(cp)) {
                    if (mText.size() - mPos < 2 || mText[mPos] != '\\' ||
                        (mText[mPos + 1] != 'U' && mText[mPos + 1] != 'u'))
                        return std::nullopt;
                    mPos += 2;
                    auto c2 = hexUnit();
                    if (!c2 || !isLowSurrogate(*c2)) return std::nullopt;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (*c2 - 0xDC00);
                } else if (isSurrogate(cp)) {
                    return std::nullopt;
                }
                appendUtf8(out, cp);
                break;
            }
            default:
                // \" \' \\ and any other character stand for themselves; a
                // translator's stray backslash should not cost the whole table.
                out.push_back(e);
                break;
            }
        }
    }

    std::string_view mText;
    std::size_t mPos = 0;
};

}  // namespace

void appendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

bool isValidUtf8(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        char32_t c;
        if (b >= 0xC2 && b <= 0xDF) {
            length = 2;
            c = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3;
            c = b & 0x0F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4;
            c = b & 0x07;
        } else {
            return false;
        }
        if (text.size() - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            auto t = static_cast<unsigned char>(text[i + k]);
            if ((t & 0xC0) != 0x80) return false;
            c = (c << 6) | (t & 0x3F);
        }
        if ((length == 3 && c < 0x800) || (length == 4 && (c < 0x10000 || c > 0x10FFFF)) || isSurrogate(c))
            return false;
        i += length;
    }
    return true;
}

std::optional<std::map<std::string, std::string>> parseStringsTable(std::string_view bytes)
{
    if (bytes.size() > kMaxStringsTableSize) return std::nullopt;
    std::string converted;
    std::string_view text = bytes;
    if (bytes.size() >= 2 && (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF")) {
        auto utf8 = utf16ToUtf8(bytes.substr(2), bytes[0] == '\xFE');
        if (!utf8) return std::nullopt;
        converted = std::move(*utf8);
        text = converted;
    } else if (bytes.substr(0, 3) == "\xEF\xBB\xBF") {
        text.remove_prefix(3);
    }
    // Checked once up front, so the parser can copy bytes and only has to get
    // its own \U output right.
    if (!isValidUtf8(text) || text.find('\0') != std::string_view::npos) return std::nullopt;
    return Parser(text).parse();
}

}  // namespace zentary
