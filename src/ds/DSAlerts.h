// The numbered alerts the data source shows its user.
#pragma once

#include <array>
#include <cstdint>

namespace zentary {

class DSAlerts {
public:
    // One row of the message table; absent texts are null.
    struct Message {
        const char* message;
        const char* informative;
        std::array<const char*, 3> buttons;
    };
    static constexpr int kMessageCount = 13;

    // Shows row `number` (1..12) as an application-modal alert. Returns 1000,
    // 1001 or 1002 for the button pressed, 0 when nothing could be shown.
    static std::int32_t displayMessage(std::int32_t number);
    // The same as a system-modal notification; a failure counts as the
    // first button.
    static std::int32_t displaySystemModalMessage(std::int32_t number);
    // The row, or null for a number outside the table.
    static const Message* message(std::int32_t number);
};

}  // namespace zentary
