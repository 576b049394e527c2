#include "twain/Manager.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace zentary {

namespace {

struct State {
    std::mutex mutex;
    TW_ENTRYPOINT entry{};
    bool hasEntry = false;
    struct Block {
        std::size_t size;
        bool fromManager;  // freed the way it was allocated, whatever happened since
    };
    std::unordered_map<TW_HANDLE, Block> blocks;
};

State& state()
{
    // Destroyed when the library unloads; the handles the client holds are
    // its own memory by then and need none of it.
    static State s;
    return s;
}

}  // namespace

bool Manager::setEntryPoint(const TW_ENTRYPOINT* entry)
{
    if (!entry || entry->Size < sizeof(TW_ENTRYPOINT)) return false;
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.entry = *entry;
    s.hasEntry = true;
    return true;
}

void Manager::reset()
{
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.entry = {};
    s.hasEntry = false;
}

bool Manager::hasEntryPoint()
{
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.hasEntry && s.entry.DSM_Entry;
}

TW_UINT16 Manager::send(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group, TW_UINT16 type,
                        TW_UINT16 message, TW_MEMREF data)
{
    DSMENTRYPROC proc = nullptr;
    {
        auto& s = state();
        std::lock_guard<std::mutex> guard(s.mutex);
        if (s.hasEntry) proc = s.entry.DSM_Entry;
    }
    if (!proc) proc = reinterpret_cast<DSMENTRYPROC>(dlsym(RTLD_DEFAULT, "DSM_Entry"));
    if (!proc) return twain::TWRC_FAILURE;
    return proc(origin, destination, group, type, message, data);
}

namespace {

// A native image handle of a page is 25 to 400 MB written once from start
// to end; in 4 KiB pages it costs one fault per page, which made it half
// again as slow as writing the same TIFF to a file. Huge pages, where the
// kernel grants them on request, cut the faults by 512.
constexpr std::size_t kHugePageThreshold = std::size_t{8} << 20;

void preferHugePages(void* block, std::size_t size)
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = (reinterpret_cast<std::uintptr_t>(block) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(block) + size) & ~(page - 1);
    if (end > start) ::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
}

}  // namespace

TW_HANDLE Manager::allocate(std::size_t size)
{
    if (size == 0 || size > UINT32_MAX) return nullptr;
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    bool fromManager = s.hasEntry && s.entry.DSM_MemAllocate && s.entry.DSM_MemFree;
    TW_HANDLE handle = fromManager ? s.entry.DSM_MemAllocate(static_cast<TW_UINT32>(size)) : std::calloc(1, size);
    if (handle) s.blocks[handle] = {size, fromManager};
    if (handle && size >= kHugePageThreshold) {
        // A manager's handle need not be an address: its memory is where
        // locking the handle points.
        if (!fromManager) {
            preferHugePages(handle, size);
        } else if (s.entry.DSM_MemLock && s.entry.DSM_MemUnlock) {
            if (void* memory = s.entry.DSM_MemLock(handle)) preferHugePages(memory, size);
            s.entry.DSM_MemUnlock(handle);
        }
    }
    return handle;
}

void Manager::free(TW_HANDLE handle)
{
    if (!handle) return;
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    auto it = s.blocks.find(handle);
    // A handle we no longer know was the manager's when there is a manager,
    // else it came from the C allocator like ours.
    bool fromManager = it != s.blocks.end() ? it->second.fromManager : s.hasEntry && s.entry.DSM_MemFree;
    if (it != s.blocks.end()) s.blocks.erase(it);
    if (fromManager)
        s.entry.DSM_MemFree(handle);
    else
        std::free(handle);
}

TW_MEMREF Manager::lock(TW_HANDLE handle)
{
    if (!handle) return nullptr;
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.hasEntry && s.entry.DSM_MemLock) return s.entry.DSM_MemLock(handle);
    return handle;  // on Linux a handle of our own is its memory
}

void Manager::unlock(TW_HANDLE handle)
{
    if (!handle) return;
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.hasEntry && s.entry.DSM_MemUnlock) s.entry.DSM_MemUnlock(handle);
}

void Manager::handOver(TW_HANDLE handle)
{
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.blocks.erase(handle);
}

std::optional<std::size_t> Manager::size(TW_HANDLE handle)
{
    auto& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    auto it = s.blocks.find(handle);
    if (it == s.blocks.end()) return std::nullopt;
    return it->second.size;
}

}  // namespace zentary
