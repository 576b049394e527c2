#include "InstalledManager.h"

#include <dlfcn.h>

#include <atomic>
#include <cstring>

namespace zentary {

using namespace twain;

namespace {

// The callback has no room for a pointer (RefCon is 32 bits), so the one
// manager this process uses is found here.
std::atomic<InstalledManager*> gInstalled{nullptr};

// A manager that never ends the list must not keep us here.
constexpr int kMaxSources = 1000;

void setString(char (&field)[34], const char* text)
{
    std::strncpy(field, text, sizeof(field) - 1);
    field[sizeof(field) - 1] = '\0';
}

// Strings from the manager are C strings only once we end them ourselves.
void terminate(TW_IDENTITY& id)
{
    id.Version.Info[sizeof(id.Version.Info) - 1] = '\0';
    id.Manufacturer[sizeof(id.Manufacturer) - 1] = '\0';
    id.ProductFamily[sizeof(id.ProductFamily) - 1] = '\0';
    id.ProductName[sizeof(id.ProductName) - 1] = '\0';
}

}  // namespace

std::unique_ptr<InstalledManager> InstalledManager::load(const std::string& path, const std::string& sourceName,
                                                         std::string* error)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        *error = "cannot load the TWAIN manager " + path + ": " + (why ? why : "unknown error");
        return nullptr;
    }
    auto entry = reinterpret_cast<DSMENTRYPROC>(dlsym(library, "DSM_Entry"));
    if (!entry) {
        *error = path + " is not a TWAIN manager: it does not export DSM_Entry";
        dlclose(library);
        return nullptr;
    }
    std::unique_ptr<InstalledManager> manager(new InstalledManager);
    manager->mLibrary = library;
    manager->mEntry = entry;
    *error = manager->openManager(sourceName);
    if (!error->empty()) return nullptr;
    gInstalled = manager.get();
    return manager;
}

std::string InstalledManager::openManager(const std::string& sourceName)
{
    TW_IDENTITY& app = mApplication;
    app.Version.MajorNum = 1;
    app.Version.Language = TWLG_USA;
    app.Version.Country = TWCY_USA;
    setString(app.Version.Info, "1.0");
    app.ProtocolMajor = 2;
    app.ProtocolMinor = 4;
    app.SupportedGroups = DF_APP2 | DG_CONTROL | DG_IMAGE;
    setString(app.Manufacturer, "Tarvell Co.");
    setString(app.ProductFamily, "Zentary tools");
    setString(app.ProductName, "zentary-scan");

    if (mEntry(&mApplication, nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &mParent) != TWRC_SUCCESS)
        return "the TWAIN manager did not open";
    mManagerOpen = true;
    // A 2.x manager answers with DF_DSM2 and its memory functions; every
    // one of them must be there before any handle changes hands.
    if (!(mApplication.SupportedGroups & DF_DSM2)) return "the TWAIN manager is not a TWAIN 2 manager";
    TW_ENTRYPOINT memory{};
    memory.Size = sizeof(memory);
    if (mEntry(&mApplication, nullptr, DG_CONTROL, DAT_ENTRYPOINT, MSG_GET, &memory) != TWRC_SUCCESS ||
        memory.Size < sizeof(memory) || !memory.DSM_MemAllocate || !memory.DSM_MemFree || !memory.DSM_MemLock ||
        !memory.DSM_MemUnlock)
        return "the TWAIN manager gave no memory functions";
    mMemory = memory;

    TW_UINT16 message = MSG_GETFIRST;
    for (int i = 0; i < kMaxSources; ++i, message = MSG_GETNEXT) {
        TW_IDENTITY found{};
        if (mEntry(&mApplication, nullptr, DG_CONTROL, DAT_IDENTITY, message, &found) != TWRC_SUCCESS) break;
        terminate(found);
        if (sourceName == found.ProductName) {
            mSource = found;
            return {};
        }
    }
    return "the TWAIN manager knows no source named \"" + sourceName + "\"";
}

InstalledManager::~InstalledManager()
{
    if (mSourceOpen) close();
    if (mManagerOpen) mEntry(&mApplication, nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &mParent);
    InstalledManager* self = this;
    gInstalled.compare_exchange_strong(self, nullptr);
    if (mLibrary) dlclose(mLibrary);
}

TW_UINT16 InstalledManager::call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data)
{
    return mEntry(&mApplication, &mSource, group, type, message, data);
}

TW_UINT16 InstalledManager::open()
{
    TW_IDENTITY chosen = mSource;
    if (mEntry(&mApplication, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &chosen) != TWRC_SUCCESS)
        return TWRC_FAILURE;
    // The manager may rewrite the identity; it must still be the one we chose.
    terminate(chosen);
    mSourceOpen = true;
    if (chosen.Id != mSource.Id || std::strcmp(chosen.ProductName, mSource.ProductName) != 0) {
        close();
        return TWRC_FAILURE;
    }
    mSource = chosen;
    // Without the callback we would never hear that the image is ready.
    TW_CALLBACK callback{};
    callback.CallBackProc = reinterpret_cast<TW_MEMREF>(&InstalledManager::callback);
    if (call(DG_CONTROL, DAT_CALLBACK, MSG_REGISTER_CALLBACK, &callback) != TWRC_SUCCESS) {
        close();
        return TWRC_FAILURE;
    }
    return TWRC_SUCCESS;
}

TW_UINT16 InstalledManager::close()
{
    TW_UINT16 rc = mEntry(&mApplication, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &mSource);
    if (rc == TWRC_SUCCESS) mSourceOpen = false;
    return rc;
}

TW_HANDLE InstalledManager::allocate(TW_UINT32 size)
{
    return mMemory.DSM_MemAllocate(size);
}

void InstalledManager::release(TW_HANDLE handle)
{
    if (handle) mMemory.DSM_MemFree(handle);
}

TW_MEMREF InstalledManager::lock(TW_HANDLE handle)
{
    return handle ? mMemory.DSM_MemLock(handle) : nullptr;
}

void InstalledManager::unlock(TW_HANDLE handle)
{
    if (handle) mMemory.DSM_MemUnlock(handle);
}

TW_UINT16 InstalledManager::callback(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group,
                                     TW_UINT16 type, TW_UINT16 message, TW_MEMREF /*data*/)
{
    InstalledManager* self = gInstalled.load();
    // Only our source's own messages count, whatever else the manager relays.
    if (!self || !origin || origin->Id != self->mSource.Id) return TWRC_FAILURE;
    if (destination && destination->Id != self->mApplication.Id) return TWRC_FAILURE;
    if (group != DG_CONTROL || type != DAT_NULL) return TWRC_FAILURE;
    if (message != MSG_XFERREADY && message != MSG_CLOSEDSREQ) return TWRC_SUCCESS;  // e.g. MSG_DEVICEEVENT
    self->deliver(message);
    return TWRC_SUCCESS;
}

}  // namespace zentary
