// The emulator's lock file is what the fault matrix trusts to see a scanner
// left reserved; it must follow the reservation exactly.
#include <gtest/gtest.h>

#include <filesystem>

#include "emulator/EmulatorOptions.h"
#include "emulator/ScannerModel.h"
#include "scanlib/ScanProtocol.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

int command(ScannerModel& model, std::uint32_t message)
{
    std::uint8_t packet[kScanHeaderSize] = {};
    storeBE32(packet, kScanPacketSignature);
    storeBE32(packet + 4, message);
    return model.receive(packet, sizeof packet);
}

TEST(EmulatorLockFile, ExistsExactlyWhileTheScannerIsReserved)
{
    test::ScratchDir scratch;
    const auto path = scratch.path() / "locked";
    EmulatorOptions options;
    std::string error;
    ASSERT_TRUE(parseEmulatorOptions("rows=10,lockfile=" + path.string(), &options, &error)) << error;
    EXPECT_FALSE(parseEmulatorOptions("lockfile=", &options, &error));
    ASSERT_TRUE(parseEmulatorOptions("lockfile=" + path.string(), &options, &error)) << error;
    ScannerModel model(options);
    EXPECT_FALSE(std::filesystem::exists(path));
    command(model, kScanMsgLock);
    EXPECT_TRUE(model.isLocked());
    EXPECT_TRUE(std::filesystem::exists(path));
    command(model, kScanMsgUnlock);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace zentary
