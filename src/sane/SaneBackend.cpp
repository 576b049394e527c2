// The SANE entry points. Exported under both names the SANE world uses:
// sane_zentary_* for the dll meta-backend, sane_* for a frontend linked to
// us alone. Nothing throws past these functions.
#pragma GCC visibility push(default)
#include <sane/sane.h>
extern "C" {
SANE_Status sane_zentary_init(SANE_Int* version_code, SANE_Auth_Callback authorize);
void sane_zentary_exit(void);
SANE_Status sane_zentary_get_devices(const SANE_Device*** device_list, SANE_Bool local_only);
SANE_Status sane_zentary_open(SANE_String_Const devicename, SANE_Handle* handle);
void sane_zentary_close(SANE_Handle handle);
const SANE_Option_Descriptor* sane_zentary_get_option_descriptor(SANE_Handle handle, SANE_Int option);
SANE_Status sane_zentary_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action, void* value,
                                        SANE_Int* info);
SANE_Status sane_zentary_get_parameters(SANE_Handle handle, SANE_Parameters* params);
SANE_Status sane_zentary_start(SANE_Handle handle);
SANE_Status sane_zentary_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length);
void sane_zentary_cancel(SANE_Handle handle);
SANE_Status sane_zentary_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking);
SANE_Status sane_zentary_get_select_fd(SANE_Handle handle, SANE_Int* fd);
SANE_String_Const sane_zentary_strstatus(SANE_Status status);
}
#pragma GCC visibility pop

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/RunLoop.h"
#include "sane/SaneConfig.h"
#include "sane/SaneDebug.h"
#include "sane/SaneSession.h"
#include "scanlib/ScanDevice.h"
#include "scanlib/usb/LibusbBackend.h"
#include "scanlib/usb/USBDevice.h"

namespace zentary::sane {

namespace {

constexpr SANE_Int kBuild = 1;

// Open handles, looked up without a lock: sane_cancel must find its session
// from a signal handler. A slot, once made, stays in the list (empty or
// reused) until the library goes, so a reader never follows a freed node;
// there are never more slots than handles were open at once.
struct HandleSlot {
    std::atomic<SaneSession*> session{nullptr};
    HandleSlot* next = nullptr;
};
std::atomic<HandleSlot*> gSlots{nullptr};

struct SlotList {
    ~SlotList()
    {
        for (HandleSlot* slot = gSlots.exchange(nullptr); slot;) delete std::exchange(slot, slot->next);
    }
} gSlotOwner;

void addHandle(SaneSession* session)
{
    for (HandleSlot* slot = gSlots.load(); slot; slot = slot->next) {
        SaneSession* expected = nullptr;
        if (slot->session.compare_exchange_strong(expected, session)) return;
    }
    auto* slot = new HandleSlot;
    slot->session = session;
    slot->next = gSlots.load();
    while (!gSlots.compare_exchange_weak(slot->next, slot)) {
    }
}

struct DeviceEntry {
    std::string name, model;
};

struct Backend {
    std::mutex mutex;
    bool initialized = false;
    SaneConfig config;
    std::unique_ptr<LoopThread> loop;
    std::vector<DeviceEntry> entries;
    std::vector<SANE_Device> devices;
    std::vector<const SANE_Device*> deviceList{nullptr};

    ~Backend() { shutdown(); }

    void shutdown()
    {
        for (HandleSlot* slot = gSlots.load(); slot; slot = slot->next) delete slot->session.exchange(nullptr);
        loop.reset();
        initialized = false;
    }
};

Backend& backend()
{
    static Backend instance;
    return instance;
}

SaneSession* session(SANE_Handle handle)
{
    if (!handle) return nullptr;
    for (HandleSlot* slot = gSlots.load(); slot; slot = slot->next)
        if (slot->session.load() == handle) return static_cast<SaneSession*>(handle);
    return nullptr;
}

bool emulatorSelected()
{
    const char* selection = std::getenv("ZENTARY_SCANNER");
    return selection && std::string_view(selection).substr(0, 8) == "emulator";
}

// The devices there are now: one per scanner plugged in, named by where it
// is plugged so that two of them can be told apart and both opened.
// ZENTARY_SCANNER=emulator means no USB at all, as it does for the data source.
std::vector<DeviceEntry> probeDevices(const SaneConfig& config)
{
    std::vector<DeviceEntry> found;
    if (!emulatorSelected()) {
        for (UsbLocation location : listLibusbDevices(kScannerVendorID, kScannerProductID)) {
            char name[32];
            std::snprintf(name, sizeof name, "%s%03u:%03u", kUsbDevicePrefix, unsigned(location.bus),
                          unsigned(location.address));
            found.push_back({name, "Zentary Q305"});
        }
    }
    if (emulatorSelected() || config.listEmulator) found.push_back({kEmulatorDeviceName, "Zentary Q305 (emulator)"});
    for (const DeviceEntry& entry : found) debug(kDebugInfo, "found zentary:%s", entry.name.c_str());
    return found;
}

template <typename Fn>
SANE_Status guarded(Fn&& fn)
{
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        debug(kDebugError, "out of memory");
        return SANE_STATUS_NO_MEM;
    } catch (const std::exception& error) {
        debug(kDebugError, "internal error: %s", error.what());
        return SANE_STATUS_IO_ERROR;
    } catch (...) {
        debug(kDebugError, "internal error");
        return SANE_STATUS_IO_ERROR;
    }
}

}  // namespace

}  // namespace zentary::sane

using namespace zentary::sane;

extern "C" {

SANE_Status sane_zentary_init(SANE_Int* version_code, SANE_Auth_Callback)
{
    return guarded([&] {
        if (version_code) *version_code = SANE_VERSION_CODE(SANE_CURRENT_MAJOR, SANE_CURRENT_MINOR, kBuild);
        initDebug();
        debug(kDebugInfo, "sane_init: zentary backend %d.%d.%d", SANE_CURRENT_MAJOR, SANE_CURRENT_MINOR, kBuild);
        Backend& b = backend();
        std::lock_guard<std::mutex> guard(b.mutex);
        b.config = loadSaneConfig();
        if (!b.loop) b.loop = std::make_unique<zentary::LoopThread>("zentary-sane");
        b.initialized = true;
        return SANE_STATUS_GOOD;
    });
}

void sane_zentary_exit(void)
{
    guarded([] {
        Backend& b = backend();
        std::lock_guard<std::mutex> guard(b.mutex);
        b.shutdown();
        b.entries.clear();
        b.devices.clear();
        b.deviceList.assign(1, nullptr);
        return SANE_STATUS_GOOD;
    });
}

SANE_Status sane_zentary_get_devices(const SANE_Device*** device_list, SANE_Bool)
{
    if (!device_list) return SANE_STATUS_INVAL;
    return guarded([&] {
        Backend& b = backend();
        std::lock_guard<std::mutex> guard(b.mutex);
        if (!b.initialized) return SANE_STATUS_INVAL;
        b.entries = probeDevices(b.config);
        b.devices.clear();
        for (const DeviceEntry& entry : b.entries)
            b.devices.push_back({entry.name.c_str(), "Tarvell", entry.model.c_str(), "flatbed scanner"});
        b.deviceList.clear();
        for (const SANE_Device& device : b.devices) b.deviceList.push_back(&device);
        b.deviceList.push_back(nullptr);
        *device_list = b.deviceList.data();
        return SANE_STATUS_GOOD;
    });
}

SANE_Status sane_zentary_open(SANE_String_Const devicename, SANE_Handle* handle)
{
    if (!devicename || !handle) return SANE_STATUS_INVAL;
    return guarded([&] {
        Backend& b = backend();
        std::lock_guard<std::mutex> guard(b.mutex);
        if (!b.initialized) return SANE_STATUS_INVAL;
        std::string name(devicename);
        if (name.rfind("zentary:", 0) == 0) name.erase(0, 8);
        debug(kDebugCalls, "sane_open(\"%s\")", devicename);
        std::vector<DeviceEntry> found;
        // The empty name means the first device there is; "usb", the first
        // scanner on USB.
        if (name.empty() || name == "usb") {
            found = probeDevices(b.config);
            auto first = std::find_if(found.begin(), found.end(), [&](const DeviceEntry& entry) {
                return name.empty() || entry.name.rfind(kUsbDevicePrefix, 0) == 0;
            });
            if (first == found.end()) return SANE_STATUS_INVAL;
            name = first->name;
        }
        if (name != kEmulatorDeviceName && name.rfind(kUsbDevicePrefix, 0) != 0) {
            debug(kDebugError, "sane_open: no device named \"%s\"", devicename);
            return SANE_STATUS_INVAL;
        }
        std::unique_ptr<SaneSession> opened;
        SANE_Status status = SaneSession::open(name, b.config, b.loop->loop(), &opened);
        if (status != SANE_STATUS_GOOD) return status;
        addHandle(opened.get());
        *handle = opened.release();
        return SANE_STATUS_GOOD;
    });
}

void sane_zentary_close(SANE_Handle handle)
{
    guarded([&] {
        Backend& b = backend();
        std::lock_guard<std::mutex> guard(b.mutex);
        for (HandleSlot* slot = gSlots.load(); slot && handle; slot = slot->next) {
            SaneSession* expected = static_cast<SaneSession*>(handle);
            if (slot->session.compare_exchange_strong(expected, nullptr)) delete expected;
        }
        return SANE_STATUS_GOOD;
    });
}

const SANE_Option_Descriptor* sane_zentary_get_option_descriptor(SANE_Handle handle, SANE_Int option)
{
    SaneSession* s = session(handle);
    return s ? s->descriptor(option) : nullptr;
}

SANE_Status sane_zentary_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action, void* value,
                                        SANE_Int* info)
{
    SaneSession* s = session(handle);
    if (!s) return SANE_STATUS_INVAL;
    return guarded([&] { return s->controlOption(option, action, value, info); });
}

SANE_Status sane_zentary_get_parameters(SANE_Handle handle, SANE_Parameters* params)
{
    SaneSession* s = session(handle);
    if (!s) return SANE_STATUS_INVAL;
    return guarded([&] { return s->getParameters(params); });
}

SANE_Status sane_zentary_start(SANE_Handle handle)
{
    SaneSession* s = session(handle);
    if (!s) return SANE_STATUS_INVAL;
    return guarded([&] { return s->start(); });
}

SANE_Status sane_zentary_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length)
{
    SaneSession* s = session(handle);
    if (!s) {
        if (length) *length = 0;
        return SANE_STATUS_INVAL;
    }
    return guarded([&] { return s->read(data, max_length, length); });
}

void sane_zentary_cancel(SANE_Handle handle)
{
    if (SaneSession* s = session(handle)) s->cancel();
}

SANE_Status sane_zentary_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking)
{
    SaneSession* s = session(handle);
    if (!s) return SANE_STATUS_INVAL;
    return s->setIoMode(non_blocking);
}

SANE_Status sane_zentary_get_select_fd(SANE_Handle handle, SANE_Int* fd)
{
    SaneSession* s = session(handle);
    if (!s) return SANE_STATUS_INVAL;
    return s->getSelectFd(fd);
}

SANE_String_Const sane_zentary_strstatus(SANE_Status status)
{
    switch (status) {
    case SANE_STATUS_GOOD: return "Success";
    case SANE_STATUS_UNSUPPORTED: return "Operation not supported";
    case SANE_STATUS_CANCELLED: return "Operation was cancelled";
    case SANE_STATUS_DEVICE_BUSY: return "Device busy";
    case SANE_STATUS_INVAL: return "Invalid argument";
    case SANE_STATUS_EOF: return "End of file reached";
    case SANE_STATUS_JAMMED: return "Document feeder jammed";
    case SANE_STATUS_NO_DOCS: return "Document feeder out of documents";
    case SANE_STATUS_COVER_OPEN: return "Scanner cover is open";
    case SANE_STATUS_IO_ERROR: return "Error during device I/O";
    case SANE_STATUS_NO_MEM: return "Out of memory";
    case SANE_STATUS_ACCESS_DENIED: return "Access to resource has been denied";
    default: return "Unknown SANE status code";
    }
}

// The unprefixed names, for a frontend linked to this backend alone.
SANE_Status sane_init(SANE_Int* version_code, SANE_Auth_Callback authorize)
{
    return sane_zentary_init(version_code, authorize);
}
void sane_exit(void) { sane_zentary_exit(); }
SANE_Status sane_get_devices(const SANE_Device*** device_list, SANE_Bool local_only)
{
    return sane_zentary_get_devices(device_list, local_only);
}
SANE_Status sane_open(SANE_String_Const devicename, SANE_Handle* handle)
{
    return sane_zentary_open(devicename, handle);
}
void sane_close(SANE_Handle handle) { sane_zentary_close(handle); }
const SANE_Option_Descriptor* sane_get_option_descriptor(SANE_Handle handle, SANE_Int option)
{
    return sane_zentary_get_option_descriptor(handle, option);
}
SANE_Status sane_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action, void* value, SANE_Int* info)
{
    return sane_zentary_control_option(handle, option, action, value, info);
}
SANE_Status sane_get_parameters(SANE_Handle handle, SANE_Parameters* params)
{
    return sane_zentary_get_parameters(handle, params);
}
SANE_Status sane_start(SANE_Handle handle) { return sane_zentary_start(handle); }
SANE_Status sane_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length)
{
    return sane_zentary_read(handle, data, max_length, length);
}
void sane_cancel(SANE_Handle handle) { sane_zentary_cancel(handle); }
SANE_Status sane_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking)
{
    return sane_zentary_set_io_mode(handle, non_blocking);
}
SANE_Status sane_get_select_fd(SANE_Handle handle, SANE_Int* fd) { return sane_zentary_get_select_fd(handle, fd); }
SANE_String_Const sane_strstatus(SANE_Status status) { return sane_zentary_strstatus(status); }

}  // extern "C"
