// The data source reached through an installed TWAIN Data Source Manager
// (libtwaindsm.so or any library exporting DSM_Entry), as every other TWAIN
// application reaches it: the manager opens, lends us its memory functions,
// lists the sources, opens ours and relays its messages to our callback.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "TwainLink.h"

namespace zentary {

class InstalledManager : public TwainLink {
public:
    // Loads the manager at `path`, opens it and finds the source whose
    // ProductName is `sourceName`. Null with a one-line *error otherwise.
    static std::unique_ptr<InstalledManager> load(const std::string& path, const std::string& sourceName,
                                                  std::string* error);
    ~InstalledManager() override;  // closes the source if open, then the manager, then dlclose
    InstalledManager(const InstalledManager&) = delete;
    InstalledManager& operator=(const InstalledManager&) = delete;

    TW_IDENTITY& source() override { return mSource; }
    TW_UINT16 call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data) override;
    // MSG_OPENDS, then our callback registered with the manager.
    TW_UINT16 open() override;
    TW_UINT16 close() override;

    TW_HANDLE allocate(TW_UINT32 size) override;
    void release(TW_HANDLE handle) override;
    TW_MEMREF lock(TW_HANDLE handle) override;
    void unlock(TW_HANDLE handle) override;
    // A manager's memory functions cannot tell a handle's size: what the
    // source hands over is read as far as its contents say.
    std::optional<std::size_t> sizeOf(TW_HANDLE) override { return std::nullopt; }

private:
    InstalledManager() = default;
    std::string openManager(const std::string& sourceName);
    static TW_UINT16 callback(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group, TW_UINT16 type,
                              TW_UINT16 message, TW_MEMREF data);

    void* mLibrary = nullptr;
    DSMENTRYPROC mEntry = nullptr;
    TW_ENTRYPOINT mMemory{};
    TW_HANDLE mParent = nullptr;  // no window on Linux
    TW_IDENTITY mApplication{};
    TW_IDENTITY mSource{};
    bool mManagerOpen = false;
    bool mSourceOpen = false;
};

}  // namespace zentary
