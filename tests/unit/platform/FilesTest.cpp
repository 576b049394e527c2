#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Files.h"
#include "TestSupport.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::TempDir;

TEST(Files, TemporaryDirectoryFromTmpdir)
{
    TempDir dir;
    test::writeFile(dir.path() / "plain", "x");
    struct Case {
        std::optional<std::string> tmpdir;
        std::filesystem::path expected;
    };
    const Case cases[] = {
        {dir.path().string(), dir.path()},
        {(dir.path() / "missing").string(), "/tmp"},
        {(dir.path() / "plain").string(), "/tmp"},
        {"", "/tmp"},
        {std::nullopt, "/tmp"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tmpdir.value_or("(unset)"));
        ScopedEnv env("TMPDIR", c.tmpdir);
        EXPECT_EQ(files::temporaryDirectory(), c.expected);
    }
}

TEST(Files, FreeSpaceCanBeFaked)
{
    ScopedEnv unset("ZENTARY_FAKE_FREE_SPACE", std::nullopt);
    auto real = files::freeSpace("/");
    ASSERT_TRUE(real);
    EXPECT_EQ(files::freeSpace("/no/such/directory"), std::nullopt);

    files::setFakeFreeSpace(1234);
    EXPECT_EQ(files::freeSpace("/"), 1234u);
    {
        ScopedEnv env("ZENTARY_FAKE_FREE_SPACE", "99");
        EXPECT_EQ(files::freeSpace("/"), 1234u);  // the seam wins over the environment
    }
    files::setFakeFreeSpace(std::nullopt);
    {
        ScopedEnv env("ZENTARY_FAKE_FREE_SPACE", "5000");
        EXPECT_EQ(files::freeSpace("/"), 5000u);
    }
    {
        ScopedEnv env("ZENTARY_FAKE_FREE_SPACE", "12abc");
        EXPECT_TRUE(files::freeSpace("/").has_value());
        EXPECT_NE(files::freeSpace("/"), 12u);
    }
}

TEST(Files, SystemVersionFromRelease)
{
    struct Case {
        const char* release;
        int major, minor, patch;
    };
    const Case cases[] = {
        {"6.1.0-18-amd64", 6, 1, 0}, {"5.15.133.1-microsoft-standard-WSL2", 5, 15, 133},
        {"6.8", 6, 8, 0},            {"6.9-rc3", 6, 9, 0},
        {"4.19.", 4, 19, 0},         {"garbage", 0, 0, 0},
        {"", 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.release);
        auto v = files::parseSystemVersion(c.release);
        EXPECT_EQ(std::tie(v.major, v.minor, v.patch), std::tie(c.major, c.minor, c.patch));
    }
    EXPECT_GE(files::systemVersion().major, 3);
}

TEST(Files, CreateExclusiveMakesOnlyNewPrivateFiles)
{
    TempDir dir;
    auto path = dir.path() / "scan.raw";
    int fdNumber;
    {
        auto fd = files::createExclusive(path);
        ASSERT_TRUE(fd);
        fdNumber = fd.get();
        struct stat info {};
        ASSERT_EQ(::fstat(fd.get(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_FALSE(files::createExclusive(path));  // exists

        files::UniqueFd moved(std::move(fd));
        EXPECT_FALSE(fd);
        EXPECT_EQ(moved.get(), fdNumber);
    }
    EXPECT_EQ(::fcntl(fdNumber, F_GETFD), -1);  // closed by its owner

    auto link = dir.path() / "link";
    std::filesystem::create_symlink(dir.path() / "target", link);
    EXPECT_FALSE(files::createExclusive(link));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "target"));
}

}  // namespace
}  // namespace zentary
