// USB results as library result codes.
#pragma once

#include <cstdint>

namespace zentary {

class ScanLibError {
public:
    ScanLibError() = delete;
    // Results without a code of their own (no memory, I/O, unknown) become
    // `orUseDefault`, so the caller says what failed: a write or a read.
    static int mapUSBInterfaceError(std::int32_t usbResult, int orUseDefault);
};

}  // namespace zentary
