#include "emulator/EmulatorTransport.h"

namespace zentary {

namespace {

class EmulatorPipes final : public UsbPipes {
public:
    EmulatorPipes(std::shared_ptr<ScannerModel> model, std::shared_ptr<bool> claimed)
        : mModel(std::move(model)), mClaimed(std::move(claimed))
    {
    }
    ~EmulatorPipes() override { close(); }

    int open(std::uint16_t* bulkOutMaxPacketSize, std::uint16_t* bulkInMaxPacketSize) override
    {
        // One claim per interface, as usbfs enforces.
        if (*mClaimed) return kUSBErrExclusiveAccess;
        *mClaimed = mOpen = true;
        *bulkOutMaxPacketSize = kEmulatorBulkOutMaxPacketSize;
        *bulkInMaxPacketSize = mModel->bulkInMaxPacketSize();
        return kUSBNoErr;
    }
    void close() override
    {
        if (!mOpen) return;
        mOpen = false;
        *mClaimed = false;
    }
    int writePipe(const std::uint8_t* data, std::uint32_t size, std::uint32_t) override
    {
        if (!mOpen) return kUSBErrNotOpen;
        return mModel->receive(data, size);
    }
    int readPipe(std::uint8_t* data, std::uint32_t size, std::uint32_t* received, std::uint32_t,
                 std::uint32_t) override
    {
        *received = 0;
        if (!mOpen) return kUSBErrNotOpen;
        return mModel->send(data, size, received);
    }

private:
    std::shared_ptr<ScannerModel> mModel;
    std::shared_ptr<bool> mClaimed;
    bool mOpen = false;
};

class EmulatorDevice final : public UsbDeviceBackend {
public:
    explicit EmulatorDevice(std::shared_ptr<ScannerModel> model) : mModel(std::move(model)) {}
    std::unique_ptr<UsbPipes> findInterface(std::uint16_t usbClass, std::uint16_t usbSubclass,
                                            std::uint16_t usbProtocol) override
    {
        if (usbClass != kScnrClass || usbSubclass != kScnrSubclass || usbProtocol != kScnrProtocol) return nullptr;
        return std::make_unique<EmulatorPipes>(mModel, mClaimed);
    }

private:
    std::shared_ptr<ScannerModel> mModel;
    std::shared_ptr<bool> mClaimed = std::make_shared<bool>(false);
};

}  // namespace

std::unique_ptr<UsbDeviceBackend> makeEmulatorDevice(std::uint16_t vid, std::uint16_t pid,
                                                     const std::optional<std::string>& serialNumber,
                                                     const std::string& options)
{
    EmulatorOptions parsed;
    std::string error;
    if (!parseEmulatorOptions(options, &parsed, &error)) return nullptr;
    if (vid != kEmulatorVendorID || pid != kEmulatorProductID) return nullptr;
    if (serialNumber && *serialNumber != parsed.serialNumber) return nullptr;
    // A glass without the picture asked for would scan something else: no scanner rather than a wrong page.
    auto model = std::make_shared<ScannerModel>(std::move(parsed));
    if (!model->pageError().empty()) return nullptr;
    return makeEmulatorDevice(std::move(model));
}

std::unique_ptr<UsbDeviceBackend> makeEmulatorDevice(std::shared_ptr<ScannerModel> model)
{
    return std::make_unique<EmulatorDevice>(std::move(model));
}

}  // namespace zentary
