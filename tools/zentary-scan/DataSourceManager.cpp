#include "DataSourceManager.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace zentary {

using namespace twain;

namespace {

// DSM_Entry has no context argument; the one loaded source is found here.
std::atomic<DataSourceManager*> gManager{nullptr};
std::atomic<TW_UINT32> gNextId{1};

// Sizes of the handles we gave out: a native transfer hands back a handle
// whose bytes can be read only as far as what was allocated. Handles freed
// with std::free (as tests do) leave a stale entry that the next allocation
// at the same address overwrites.
std::mutex gSizesMutex;
std::unordered_map<TW_HANDLE, std::size_t>& handleSizes()
{
    static std::unordered_map<TW_HANDLE, std::size_t> sizes;
    return sizes;
}

TW_HANDLE memAllocate(TW_UINT32 size)
{
    TW_HANDLE handle = std::calloc(1, size ? size : 1);
    if (handle) {
        std::lock_guard<std::mutex> guard(gSizesMutex);
        handleSizes()[handle] = size;
    }
    return handle;
}
void memFree(TW_HANDLE handle)
{
    if (!handle) return;
    {
        std::lock_guard<std::mutex> guard(gSizesMutex);
        handleSizes().erase(handle);
    }
    std::free(handle);
}
TW_MEMREF memLock(TW_HANDLE handle) { return handle; }
void memUnlock(TW_HANDLE) {}

void setString(char (&field)[34], const char* text)
{
    std::strncpy(field, text, sizeof(field) - 1);
    field[sizeof(field) - 1] = '\0';
}

}  // namespace

std::unique_ptr<DataSourceManager> DataSourceManager::load(const std::string& path, std::string* error)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        if (error) *error = dlerror();
        return nullptr;
    }
    auto entry = reinterpret_cast<DSENTRYPROC>(dlsym(library, "DS_Entry"));
    if (!entry) {
        if (error) *error = path + " does not export DS_Entry";
        dlclose(library);
        return nullptr;
    }
    std::unique_ptr<DataSourceManager> manager(new DataSourceManager);
    manager->mLibrary = library;
    manager->mEntry = entry;
    TW_IDENTITY& app = manager->mApplication;
    app.Id = gNextId++;
    app.Version.MajorNum = 1;
    app.Version.Language = TWLG_USA;
    app.Version.Country = TWCY_USA;
    setString(app.Version.Info, "1.0");
    app.ProtocolMajor = 2;
    app.ProtocolMinor = 4;
    app.SupportedGroups = DG_CONTROL | DG_IMAGE | DF_APP2 | DF_DSM2;
    setString(app.Manufacturer, "Tarvell Co.");
    setString(app.ProductFamily, "Zentary tools");
    setString(app.ProductName, "zentary-scan");
    gManager = manager.get();
    return manager;
}

DataSourceManager::~DataSourceManager()
{
    if (mOpen && closeOnDestroy) close();
    DataSourceManager* self = this;
    gManager.compare_exchange_strong(self, nullptr);
    if (mLibrary) dlclose(mLibrary);
}

std::optional<std::size_t> DataSourceManager::handleSize(TW_HANDLE handle)
{
    std::lock_guard<std::mutex> guard(gSizesMutex);
    auto it = handleSizes().find(handle);
    if (it == handleSizes().end()) return std::nullopt;
    return it->second;
}

TW_HANDLE DataSourceManager::allocate(TW_UINT32 size)
{
    return memAllocate(size);
}

void DataSourceManager::freeHandle(TW_HANDLE handle)
{
    memFree(handle);
}

TW_UINT16 DataSourceManager::call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data)
{
    return mEntry(&mApplication, group, type, message, data);
}

TW_UINT16 DataSourceManager::getIdentity()
{
    TW_UINT32 id = mSource.Id;
    TW_UINT16 rc = call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &mSource);
    mSource.Id = id ? id : gNextId++;  // the manager, not the source, assigns ids
    return rc;
}

TW_UINT16 DataSourceManager::sendEntryPoint()
{
    TW_ENTRYPOINT entry{};
    entry.Size = sizeof(entry);
    entry.DSM_Entry = &DataSourceManager::dsmEntry;
    entry.DSM_MemAllocate = memAllocate;
    entry.DSM_MemFree = memFree;
    entry.DSM_MemLock = memLock;
    entry.DSM_MemUnlock = memUnlock;
    return call(DG_CONTROL, DAT_ENTRYPOINT, MSG_SET, &entry);
}

TW_UINT16 DataSourceManager::open()
{
    TW_UINT16 rc = getIdentity();
    if (rc == TWRC_SUCCESS) rc = sendEntryPoint();
    if (rc == TWRC_SUCCESS) rc = call(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &mSource);
    mOpen = rc == TWRC_SUCCESS;
    return rc;
}

TW_UINT16 DataSourceManager::close()
{
    TW_UINT16 rc = call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &mSource);
    if (rc == TWRC_SUCCESS) mOpen = false;
    return rc;
}

TW_UINT16 DataSourceManager::dsmEntry(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group,
                                      TW_UINT16 type, TW_UINT16 message, TW_MEMREF /*data*/)
{
    DataSourceManager* self = gManager.load();
    if (!self || !origin || !destination || destination->Id != self->mApplication.Id) return TWRC_FAILURE;
    if (group != DG_CONTROL || type != DAT_NULL) return TWRC_FAILURE;
    TW_UINT16 rc = self->onMessage ? self->onMessage(message) : TWRC_SUCCESS;
    self->deliver(message);
    return rc;
}

}  // namespace zentary
