// A minimal TWAIN Data Source Manager: loads one data source with dlopen,
// gives it our entry point and memory functions, and passes triplets to it.
// zentary-scan and the integration tests drive the data source through it,
// the way a real manager would.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "TwainLink.h"
#include "twain/twain.h"

namespace zentary {

class DataSourceManager : public TwainLink {
public:
    // Loads the .ds at `path`; null with *error set when it cannot.
    static std::unique_ptr<DataSourceManager> load(const std::string& path, std::string* error);
    ~DataSourceManager() override;  // closes the source if open, then dlclose
    DataSourceManager(const DataSourceManager&) = delete;
    DataSourceManager& operator=(const DataSourceManager&) = delete;

    // The client's identity (filled with this tool's names; tests may edit
    // it before open()) and the source's as the source reported it.
    TW_IDENTITY& application() { return mApplication; }
    TW_IDENTITY& source() override { return mSource; }

    // Handles the source allocated through our memory functions: the size it
    // asked for (nothing for a pointer we never handed out), and freeing one
    // the client now owns.
    static std::optional<std::size_t> handleSize(TW_HANDLE handle);
    static void freeHandle(TW_HANDLE handle);

    // DS_Entry with the application as origin.
    TW_UINT16 call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data) override;
    // DG_CONTROL/DAT_IDENTITY/MSG_GET into source().
    TW_UINT16 getIdentity();
    // DAT_ENTRYPOINT with our DSM_Entry and memory functions.
    TW_UINT16 sendEntryPoint();
    // Identity, entry point and MSG_OPENDS, as a manager does on open.
    TW_UINT16 open() override;
    TW_UINT16 close() override;
    // DAT_STATUS: the source's condition code (the call clears it).

    // Messages the source sent us through DSM_Entry (MSG_XFERREADY,
    // MSG_CLOSEDSREQ, ...), oldest first; waits up to `timeout`.
    // Called for each message before it is queued; its answer is DSM_Entry's
    // return code. Tests use it to fail or to re-enter the source.
    std::function<TW_UINT16(TW_UINT16 message)> onMessage;
    // Whether destruction sends MSG_CLOSEDS to a source left open; tests
    // clear it to unload an open source, as a careless client would.
    bool closeOnDestroy = true;

    // Our own memory functions, the ones the source was given.
    TW_HANDLE allocate(TW_UINT32 size) override;
    void release(TW_HANDLE handle) override { freeHandle(handle); }
    TW_MEMREF lock(TW_HANDLE handle) override { return handle; }
    void unlock(TW_HANDLE) override {}
    std::optional<std::size_t> sizeOf(TW_HANDLE handle) override { return handleSize(handle); }

private:
    DataSourceManager() = default;
    static TW_UINT16 dsmEntry(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group, TW_UINT16 type,
                              TW_UINT16 message, TW_MEMREF data);

    void* mLibrary = nullptr;
    DSENTRYPROC mEntry = nullptr;
    TW_IDENTITY mApplication{};
    TW_IDENTITY mSource{};
    bool mOpen = false;
};

}  // namespace zentary
