// Feeds arbitrary bytes through the line buffer and the message parser, as
// they arrive from the other end of the helper's socket. Every message that
// parses must encode and parse back to itself.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ui/UiProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace zentary;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    UiLineBuffer lines;
    // Cut the input in uneven pieces, the way a socket delivers it.
    for (std::size_t at = 0, step = 1; at < bytes.size(); at += step, step = step * 3 % 17 + 1)
        lines.append(bytes.substr(at, step));
    while (auto line = lines.next()) {
        if (line->size() > kUiMaxLineLength) std::abort();
        std::optional<UiMessage> message = UiMessage::decode(*line);
        if (!message) continue;
        std::optional<UiMessage> again = UiMessage::decode(message->encode());
        if (!again || !(*again == *message)) std::abort();
    }
    UiMessage::decode(bytes);  // the whole input as one line, too
    return 0;
}
