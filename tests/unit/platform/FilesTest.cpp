#include <array>
#include <fcntl.h>
#include <sys/stat.h>

#include "platform/Files.h"
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::ScratchDir;

TEST(Files, SystemVersionFromRelease)
{
    const std::pair<const char*, std::array<int, 3>> cases[] = {
        {"6.1.0-18-amd64", {6, 1, 0}}, {"5.15.133.1-microsoft-standard-WSL2", {5, 15, 133}},
        {"6.9-rc3", {6, 9, 0}},       {"4.19.", {4, 19, 0}}, {"garbage", {0, 0, 0}}, {"", {0, 0, 0}},
    };
    for (const auto& [release, expected] : cases) {
        auto v = files::parseSystemVersion(release);
        EXPECT_EQ((std::array<int, 3>{v.major, v.minor, v.patch}), expected) << release;
    }
    EXPECT_GE(files::systemVersion().major, 3);
}

TEST(Files, CreateExclusiveMakesOnlyNewPrivateFiles)
{
    ScratchDir dir;
    auto path = dir.path() / "scan.raw";
    int number;
    {
        auto fd = files::createExclusive(path);
        ASSERT_TRUE(fd);
        number = fd.get();
        struct stat info {};
        ASSERT_EQ(::fstat(fd.get(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_FALSE(files::createExclusive(path));  // exists
        files::UniqueFd moved(std::move(fd));
        EXPECT_EQ(moved.get(), number);
    }
    EXPECT_EQ(::fcntl(number, F_GETFD), -1);  // closed once, by its last owner
    std::filesystem::create_symlink(dir.path() / "target", dir.path() / "link");
    EXPECT_FALSE(files::createExclusive(dir.path() / "link"));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "target"));
}

}  // namespace
}  // namespace zentary
