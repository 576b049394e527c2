// Where a scan job's rows go when they are not to be written to a raw file:
// a reader in the same process that takes them as they arrive (the SANE
// backend streams them to its frontend). Called on the scan thread, in
// order: beginImage once, appendRows for each data packet, endImage when the
// scanner ends the image. A non-zero result ends the job as that error,
// the way a failed file write would; appendRows may wait for room, as long
// as it gives up when its reader goes away.
#pragma once

#include "scanlib/RawFileHeader.h"

#include <cstddef>
#include <cstdint>

namespace zentary {

class ScanRowSink {
public:
    virtual int beginImage(const RawFileHeader& header) = 0;
    // `rows` rows of `rowBytes` bytes, taken every `pitchBytes` from `base`.
    virtual int appendRows(const std::uint8_t* base, std::uint32_t rows, std::size_t rowBytes,
                           std::size_t pitchBytes) = 0;
    // The rows the image really had.
    virtual int endImage(std::uint32_t rows) = 0;

protected:
    virtual ~ScanRowSink() = default;
};

}  // namespace zentary
