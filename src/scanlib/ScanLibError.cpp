#include "scanlib/ScanLibError.h"

#include "scanlib/ScanProtocol.h"
#include "scanlib/usb/UsbTransport.h"

namespace zentary {

int ScanLibError::mapUSBInterfaceError(std::int32_t usbResult, int orUseDefault)
{
    switch (usbResult) {
    case kUSBNoErr: return 0;
    case kUSBErrExclusiveAccess: return kScanLibErrGeneric;
    case kUSBErrNoDevice: return kScanLibErrDeviceNotFound;
    case kUSBErrNotOpen: return kScanLibErrNotOpen;
    case kUSBErrNoPipes: return kScanLibErrGeneric;
    case kUSBErrTimeout: return kScanLibErrTimeout;
    default: return orUseDefault;
    }
}

}  // namespace zentary
