// A stand-in for the TWAIN 2.x Linux Data Source Manager, for tests only
// (Debian ships none). It does what the installed manager does for one
// application and one open source: assigns the application its id, finds
// .ds files under $ZENTARY_TEST_DSM_DIR the way the real one searches its
// twain folder, lists their identities, loads the chosen one, gives it our
// entry point and memory functions before MSG_OPENDS, forwards triplets, and
// relays the source's DAT_NULL messages to the registered callback.
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "twain/twain.h"

extern "C" __attribute__((visibility("default"))) TW_UINT16 DSM_Entry(TW_IDENTITY* pOrigin, TW_IDENTITY* pDest,
                                                                       TW_UINT32 DG, TW_UINT16 DAT, TW_UINT16 MSG,
                                                                       TW_MEMREF pData);

namespace zentary {
namespace {

using namespace twain;


struct Found {
    std::string path;
    TW_IDENTITY identity;
};

struct State {
    std::recursive_mutex mutex;  // a source may call back while a triplet to it runs
    bool open = false;
    TW_UINT32 appId = 0;
    TW_UINT32 nextId = 1;
    TW_UINT16 condition = TWCC_SUCCESS;
    std::vector<Found> sources;
    std::size_t next = 0;
    void* library = nullptr;
    DSENTRYPROC entry = nullptr;
    TW_IDENTITY source{};
    TW_IDENTITY* app = nullptr;  // the application's own record, as it gave it
    DSMENTRYPROC callback = nullptr;
};

State& state()
{
    static State s;
    return s;
}

TW_HANDLE memAllocate(TW_UINT32 size) { return std::calloc(1, size ? size : 1); }
void memFree(TW_HANDLE handle) { std::free(handle); }
TW_MEMREF memLock(TW_HANDLE handle) { return handle; }
void memUnlock(TW_HANDLE) {}

TW_UINT16 fail(State& s, TW_UINT16 condition)
{
    s.condition = condition;
    return TWRC_FAILURE;
}

void scanSources(State& s, TW_IDENTITY* app)
{
    s.sources.clear();
    s.next = 0;
    const char* dir = std::getenv("ZENTARY_TEST_DSM_DIR");
    if (!dir) return;
    std::error_code ec;
    std::vector<std::string> paths;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        if (it->path().extension() == ".ds" && it->is_regular_file(ec)) paths.push_back(it->path().string());
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) {
        void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library) continue;
        auto entry = reinterpret_cast<DSENTRYPROC>(dlsym(library, "DS_Entry"));
        TW_IDENTITY id{};
        if (entry && entry(app, DG_CONTROL, DAT_IDENTITY, MSG_GET, &id) == TWRC_SUCCESS) {
            id.ProductName[sizeof(id.ProductName) - 1] = '\0';
            id.Id = s.nextId++;
            s.sources.push_back({path, id});
        }
        dlclose(library);
    }
}

TW_UINT16 openSource(State& s, TW_IDENTITY* app, TW_IDENTITY* wanted)
{
    if (s.library) return fail(s, TWCC_MAXCONNECTIONS);
    auto it = std::find_if(s.sources.begin(), s.sources.end(), [&](const Found& f) {
        return wanted->Id ? f.identity.Id == wanted->Id
                          : strncmp(f.identity.ProductName, wanted->ProductName, sizeof(wanted->ProductName)) == 0;
    });
    if (it == s.sources.end()) return fail(s, TWCC_NODS);
    void* library = dlopen(it->path.c_str(), RTLD_NOW | RTLD_LOCAL);
    auto entry = library ? reinterpret_cast<DSENTRYPROC>(dlsym(library, "DS_Entry")) : nullptr;
    if (!entry) {
        if (library) dlclose(library);
        return fail(s, TWCC_NODS);
    }
    s.library = library;
    s.entry = entry;
    s.source = it->identity;
    s.app = app;
    TW_ENTRYPOINT ours{sizeof(TW_ENTRYPOINT), DSM_Entry, memAllocate, memFree, memLock, memUnlock};
    TW_UINT16 rc = entry(app, DG_CONTROL, DAT_ENTRYPOINT, MSG_SET, &ours);
    if (rc == TWRC_SUCCESS) rc = entry(app, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &s.source);
    if (rc != TWRC_SUCCESS) {
        dlclose(library);
        s.library = nullptr;
        s.entry = nullptr;
        return fail(s, TWCC_OPERATIONERROR);
    }
    s.source.Id = it->identity.Id;
    *wanted = s.source;
    return TWRC_SUCCESS;
}

TW_UINT16 toManager(State& s, TW_IDENTITY* origin, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data)
{
    if (type == DAT_PARENT && message == MSG_OPENDSM) {
        if (!data) return fail(s, TWCC_BADVALUE);
        if (s.open) return fail(s, TWCC_SEQERROR);
        origin->Id = s.nextId++;
        origin->SupportedGroups |= DF_DSM2;
        s.appId = origin->Id;
        s.open = true;
        return TWRC_SUCCESS;
    }
    if (!s.open || origin->Id != s.appId) return fail(s, TWCC_SEQERROR);
    if (type == DAT_STATUS && message == MSG_GET && data) {
        static_cast<TW_STATUS*>(data)->ConditionCode = s.condition;
        s.condition = TWCC_SUCCESS;
        return TWRC_SUCCESS;
    }
    if (!data) return fail(s, TWCC_BADVALUE);
    switch (type) {
    case DAT_PARENT:
        if (message != MSG_CLOSEDSM) break;
        if (s.library) return fail(s, TWCC_SEQERROR);
        s.open = false;
        return TWRC_SUCCESS;
    case DAT_ENTRYPOINT: {
        auto* entry = static_cast<TW_ENTRYPOINT*>(data);
        if (message != MSG_GET || entry->Size < sizeof(TW_ENTRYPOINT)) break;
        *entry = {sizeof(TW_ENTRYPOINT), DSM_Entry, memAllocate, memFree, memLock, memUnlock};
        return TWRC_SUCCESS;
    }
    case DAT_IDENTITY: {
        auto* id = static_cast<TW_IDENTITY*>(data);
        if (message == MSG_GETFIRST) scanSources(s, origin);
        if (message == MSG_GETFIRST || message == MSG_GETNEXT) {
            if (s.next >= s.sources.size()) return TWRC_ENDOFLIST;
            *id = s.sources[s.next++].identity;
            return TWRC_SUCCESS;
        }
        if (message == MSG_OPENDS) return openSource(s, origin, id);
        if (message == MSG_CLOSEDS) {
            if (!s.library || id->Id != s.source.Id) return fail(s, TWCC_NODS);
            TW_UINT16 rc = s.entry(origin, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, id);
            if (rc != TWRC_SUCCESS) return rc;
            dlclose(s.library);
            s.library = nullptr;
            s.entry = nullptr;
            s.callback = nullptr;
            return TWRC_SUCCESS;
        }
        break;
    }
    default: break;
    }
    return fail(s, TWCC_BADPROTOCOL);
}

}  // namespace
}  // namespace zentary

TW_UINT16 DSM_Entry(TW_IDENTITY* pOrigin, TW_IDENTITY* pDest, TW_UINT32 DG, TW_UINT16 DAT, TW_UINT16 MSG,
                    TW_MEMREF pData)
{
    using namespace zentary;
    using namespace twain;
    State& s = state();
    if (!pOrigin) return TWRC_FAILURE;
    DSMENTRYPROC callback = nullptr;
    TW_IDENTITY* app = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(s.mutex);
        if (!pDest) return DG == DG_CONTROL ? toManager(s, pOrigin, DAT, MSG, pData) : fail(s, TWCC_BADPROTOCOL);
        bool fromSource = s.library && pOrigin->Id == s.source.Id;
        if (fromSource) {
            // The source's messages go to the application's callback.
            if (pDest->Id != s.appId || DG != DG_CONTROL || DAT != DAT_NULL || !s.callback) return TWRC_FAILURE;
            callback = s.callback;
            app = s.app;
        } else {
            if (!s.library || pOrigin->Id != s.appId || pDest->Id != s.source.Id) return fail(s, TWCC_BADDEST);
            if (DG == DG_CONTROL && DAT == DAT_CALLBACK && MSG == MSG_REGISTER_CALLBACK) {
                auto* record = static_cast<TW_CALLBACK*>(pData);
                if (!record || !record->CallBackProc) return fail(s, TWCC_BADVALUE);
                s.callback = reinterpret_cast<DSMENTRYPROC>(record->CallBackProc);
                return TWRC_SUCCESS;
            }
        }
    }
    // Outside the lock: the source runs triplets on its own thread, which may
    // call back into us while this one waits.
    if (callback) return callback(&s.source, app, DG_CONTROL, DAT_NULL, MSG, nullptr);
    return s.entry(pOrigin, DG, DAT, MSG, pData);
}
