// Options of the emulated scanner, as given after "emulator:" in
// ZENTARY_SCANNER. Syntax and meaning: emulatorOptionsHelp() and README.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zentary {

enum class EmulatorFault {
    LockRefused,    // the lock reply has status 1
    NotReady,       // check-ready answers status 2 for the first N polls
    BadSignature,   // the data packet holding row N has a wrong signature
    SettingsLength, // the settings reply announces and sends N bytes instead of 100
    ShortData,      // the data packet holding row N ends after half its pixels
    MalformedData,  // the data packet holding row N claims a width above its row pitch
    Stall,          // at row N the bulk-in pipe stalls for good
    Timeout,        // at row N the scanner goes silent: every read times out
    Disconnect,     // at row N the scanner is unplugged
    NoImageEnd,     // the job ends without the image-end packet
};

struct EmulatorFaultRule {
    EmulatorFault kind;
    std::uint32_t argument;
};

struct EmulatorOptions {
    double megabytesPerSecond = 0;     // 0: as fast as the host reads
    std::uint32_t rowsPerPacket = 0;   // 0: as many as fit in 1 MiB
    std::uint16_t maxPacketSize = 512; // bulk-in, as on a high-speed device
    std::string serialNumber = "ZQ305EMU0001";
    // While the scanner is reserved this file exists, like the busy light
    // on the device: a test in another binary than the data source can see
    // whether a failed scan left the scanner locked. Empty: no such file.
    std::string lockFile;
    // A PNG, JPEG or TIFF on the glass instead of the test chart. Empty: the chart.
    std::string imagePath;
    std::vector<EmulatorFaultRule> faults;
};

// False, with a reason in `error`, for anything not in the documented syntax.
bool parseEmulatorOptions(std::string_view text, EmulatorOptions* options, std::string* error);

// The option syntax as shown to users (zentary-scan --help).
const char* emulatorOptionsHelp();

}  // namespace zentary
