// Client-side containers and definition files for the capability tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <cstdlib>
#include <string>
#include <vector>

#include "capabilities/Capabilities.h"
#include "capabilities/ContainerCodec.h"
#include "support/TestEnvironment.h"
#include "twain/Manager.h"

namespace zentary::test {

// The memory functions of a manager that, unlike the data source, can tell
// the size of every handle it gave out: what a container handed to the
// client really holds is read back exactly.
struct TestManagerMemory {
    static std::map<TW_HANDLE, std::size_t>& sizes()
    {
        static std::map<TW_HANDLE, std::size_t> map;
        return map;
    }
    static TW_HANDLE allocate(TW_UINT32 size)
    {
        TW_HANDLE h = std::calloc(1, size);
        if (h) sizes()[h] = size;
        return h;
    }
    static void free(TW_HANDLE h)
    {
        sizes().erase(h);
        std::free(h);
    }
    static TW_MEMREF lock(TW_HANDLE h) { return h; }
    static void unlock(TW_HANDLE) {}
    static std::size_t size(TW_HANDLE h)
    {
        auto it = sizes().find(h);
        return it == sizes().end() ? 0 : it->second;
    }
    // Installs them once for the whole test program.
    static void install()
    {
        static bool done = [] {
            TW_ENTRYPOINT entry{};
            entry.Size = sizeof(entry);
            entry.DSM_MemAllocate = allocate;
            entry.DSM_MemFree = free;
            entry.DSM_MemLock = lock;
            entry.DSM_MemUnlock = unlock;
            return Manager::setEntryPoint(&entry);
        }();
        (void)done;
    }
};

// A handle as a client would make it, through the manager's allocator.
struct Handle {
    TW_HANDLE h = nullptr;
    explicit Handle(std::vector<std::uint8_t> bytes)
    {
        h = Manager::allocate(bytes.empty() ? 1 : bytes.size());
        if (!bytes.empty()) std::memcpy(Manager::lock(h), bytes.data(), bytes.size());
        Manager::unlock(h);
    }
    Handle(Handle&& o) noexcept : h(std::exchange(o.h, nullptr)) {}
    ~Handle() { Manager::free(h); }
};

inline void put(std::vector<std::uint8_t>& b, std::uint64_t v, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// Raw item values: FIX32 as whole | frac << 16 (memory order whole, frac).
inline std::vector<std::uint8_t> oneValue(TW_UINT16 type, std::uint32_t item)
{
    std::vector<std::uint8_t> b;
    put(b, type, 2);
    put(b, item, 4);
    return b;
}
inline std::vector<std::uint8_t> array(TW_UINT16 type, std::vector<std::uint32_t> items, std::int64_t numItems = -1)
{
    std::vector<std::uint8_t> b;
    put(b, type, 2);
    put(b, numItems < 0 ? items.size() : static_cast<std::uint64_t>(numItems), 4);
    for (auto i : items) put(b, i, containers::itemSize(type));
    return b;
}
inline std::vector<std::uint8_t> enumeration(TW_UINT16 type, std::vector<std::uint32_t> items, std::uint32_t current,
                                             std::uint32_t def = 0)
{
    std::vector<std::uint8_t> b;
    put(b, type, 2);
    put(b, items.size(), 4);
    put(b, current, 4);
    put(b, def, 4);
    for (auto i : items) put(b, i, containers::itemSize(type));
    return b;
}
inline std::uint32_t fix(std::int16_t whole, std::uint16_t frac = 0)
{
    return static_cast<std::uint16_t>(whole) | std::uint32_t(frac) << 16;
}

// What a get handed to the client, read back byte by byte.
struct Received {
    TW_UINT16 rc = 0, cc = 0, conType = 0;
    std::vector<std::uint8_t> bytes;
    std::uint32_t u32(std::size_t at) const
    {
        std::uint32_t v;
        std::memcpy(&v, bytes.data() + at, 4);
        return v;
    }
    std::uint16_t u16(std::size_t at) const
    {
        std::uint16_t v;
        std::memcpy(&v, bytes.data() + at, 2);
        return v;
    }
};

using Message = TW_UINT16 (Capabilities::*)(TW_CAPABILITY*, TW_UINT16*);

inline Received send(Capabilities& store, Message message, TW_UINT16 cap, TW_UINT16 conType = 0,
                     TW_HANDLE container = nullptr)
{
    TestManagerMemory::install();
    TW_CAPABILITY capability{cap, conType, container};
    Received r;
    r.rc = (store.*message)(&capability, &r.cc);
    r.conType = capability.ConType;
    if (r.rc == twain::TWRC_SUCCESS && capability.hContainer != container) {
        std::size_t size = TestManagerMemory::size(capability.hContainer);
        auto* data = static_cast<std::uint8_t*>(Manager::lock(capability.hContainer));
        r.bytes.assign(data, data + size);
        Manager::unlock(capability.hContainer);
        Manager::free(capability.hContainer);
    }
    return r;
}

inline Received set(Capabilities& store, TW_UINT16 cap, TW_UINT16 conType, std::vector<std::uint8_t> bytes)
{
    Handle h(std::move(bytes));
    return send(store, &Capabilities::setTwain, cap, conType, h.h);
}

inline std::filesystem::path realCapabilitiesDir()
{
    const char* source = std::getenv("ZENTARY_SOURCE_DIR");
    return std::filesystem::path(source ? source : ".") / "resources/Resources/Capabilities";
}

inline std::unique_ptr<Capabilities> realStore(bool readiris = false)
{
    std::string error;
    auto store = Capabilities::initWithModel("Tarvell Zentary Q300 series", readiris, realCapabilitiesDir(), &error);
    if (!store) ADD_FAILURE() << error;
    return store;
}

// A definition file written by the test, in a directory of its own.
class TempModel {
public:
    explicit TempModel(const std::string& dictBody)
    {
        writeFile(mDir.path() / "Test_Model.plist", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
                                                        dictBody + "</plist>\n");
    }
    std::unique_ptr<Capabilities> load(std::string* error = nullptr, bool readiris = false) const
    {
        return Capabilities::initWithModel("Test Model", readiris, mDir.path(), error);
    }

private:
    ScratchDir mDir;
};

// One record of a hand-made file; `values`/`entries` are plist fragments.
inline std::string record(const std::string& key, int conType, int itemType, const std::string& powerOn,
                          const std::string& entries, const std::string& extra = "",
                          const std::string& ops = "<integer>1</integer><integer>2</integer><integer>4</integer>"
                                                   "<integer>8</integer><integer>16</integer>")
{
    return "<key>" + key + "</key><dict><key>ContainerType</key><integer>" + std::to_string(conType) +
           "</integer><key>ItemType</key><integer>" + std::to_string(itemType) +
           "</integer><key>SupportedOperations</key><array>" + ops + "</array><key>PowerOnDefaultValue</key>" +
           powerOn + extra + "<key>ValidValues</key><array>" + entries + "</array></dict>";
}
inline std::string entry(const std::string& values, const std::string& def, const std::string& deps = "")
{
    return "<dict><key>Dependencies</key><dict>" + deps + "</dict><key>Values</key><array>" + values +
           "</array><key>DefaultValue</key>" + def + "</dict>";
}
inline std::string ints(std::initializer_list<int> values)
{
    std::string s;
    for (int v : values) s += "<integer>" + std::to_string(v) + "</integer>";
    return s;
}

}  // namespace zentary::test
