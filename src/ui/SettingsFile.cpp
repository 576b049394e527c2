#include "ui/SettingsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace zentary {

namespace {

struct Fd {
    int fd;
    ~Fd()
    {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

PlistPtr readSettingsDictionary(const std::string& path)
{
    if (path.empty()) return nullptr;
    Fd file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return nullptr;
    struct stat info {};
    if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0 ||
        static_cast<std::size_t>(info.st_size) > kMaxSettingsFileSize)
        return nullptr;
    std::vector<char> data(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t got = ::read(file.fd, data.data() + done, data.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return nullptr;
        done += static_cast<std::size_t>(got);
    }
    return parsePlistDict(std::string_view(data.data(), data.size()));
}

std::optional<std::string> plistString(plist_t node)
{
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    char* text = nullptr;
    plist_get_string_val(node, &text);
    if (!text) return std::nullopt;
    std::string result(text);
    std::free(text);
    return result;
}

std::optional<std::int64_t> plistInteger(plist_t node)
{
    if (!node || plist_get_node_type(node) != PLIST_UINT) return std::nullopt;
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    // libplist keeps negative integers as their two's complement.
    return static_cast<std::int64_t>(value);
}

}  // namespace zentary
