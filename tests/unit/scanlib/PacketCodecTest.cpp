// The packet codec and the read buffering against hand-made bytes.
#include "ScanlibTestSupport.h"

#include "scanlib/PacketUtils.h"
#include "scanlib/ScanLibError.h"
#include "scanlib/usb/USBInterface.h"
#include "support/TestEnvironment.h"

namespace zentary::test {
namespace {

struct Wire {
    ScriptedPipes* pipes;
    std::unique_ptr<USBInterface> interface;
};
Wire openWire(std::uint16_t inSize = 64)
{
    auto pipes = std::make_unique<ScriptedPipes>();
    pipes->inSize = inSize;
    ScriptedPipes* raw = pipes.get();
    auto interface = std::make_unique<USBInterface>(std::move(pipes));
    EXPECT_EQ(interface->open(), kUSBNoErr);
    return {raw, std::move(interface)};
}

TEST(PacketCodec, BareCommandReplies)
{
    struct Case {
        const char* name;
        std::vector<std::uint8_t> reply;
        int result;
        std::uint32_t status;
    } cases[] = {
        {"accepted", words({0x41535001, 0, 0, 0, 0, 0, 0, 0}), 0, 0},
        {"refused", words({0x41535001, 0, 0, 0, 1, 0, 0, 0}), 0, 1},
        {"bad signature keeps status", words({0x41535002, 0, 0, 0, 5, 0, 0, 0}), kScanLibErrRead, 5},
        {"wrong echo", words({0x41535001, 8, 0, 0, 0, 0, 0, 0}), kScanLibErrRead, 0},
        {"short reply", words({0x41535001, 0}), kScanLibErrRead, 77},
        {"no reply", {}, kScanLibErrTimeout, 77},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto wire = openWire();
        if (!c.reply.empty()) wire.pipes->messages.push_back(c.reply);
        std::uint32_t status = 77;
        EXPECT_EQ(PacketUtils::sendPacketToInterface(wire.interface.get(), kScanMsgLock, &status), c.result);
        EXPECT_EQ(status, c.status);
        ASSERT_EQ(wire.pipes->written.size(), 1u);
        EXPECT_EQ(wire.pipes->written[0], words({0x41535001, 0, 0, 0, 0, 0, 0, 0}));
    }
    std::uint32_t status = 77;
    EXPECT_EQ(PacketUtils::sendPacketToInterface(nullptr, kScanMsgLock, &status), kScanLibErrGeneric);
    EXPECT_EQ(status, 77u);
}

TEST(PacketCodec, SettingsPayloads)
{
    std::vector<std::uint32_t> fields;
    for (std::uint32_t i = 0; i < 25; ++i) fields.push_back(0x01000000u * i + i);
    auto record = [&] {
        std::vector<std::uint8_t> bytes;
        for (auto f : fields) {
            auto w = words({f});
            bytes.insert(bytes.end(), w.begin(), w.end());
        }
        return bytes;
    };
    {
        auto wire = openWire();
        auto reply = words({0x41535001, 6, 0, 0, 0, 100, 0, 0});
        auto body = record();
        reply.insert(reply.end(), body.begin(), body.end());
        wire.pipes->messages.push_back(reply);
        ScannerSettings settings{};
        EXPECT_EQ(PacketUtils::getSettings(&settings, wire.interface.get()), 0);
        for (std::size_t i = 0; i < 25; ++i) EXPECT_EQ(settings.fields[i], fields[i]);

        // Sending it back: exactly 132 bytes, the caller's record untouched.
        wire.pipes->messages.push_back(words({0x41535001, 7, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(PacketUtils::sendSettings(&settings, wire.interface.get()), 0);
        auto packet = words({0x41535001, 7, 0, 0, 0, 100, 0, 0});
        packet.insert(packet.end(), body.begin(), body.end());
        EXPECT_EQ(wire.pipes->written.back(), packet);
        EXPECT_EQ(settings.fields[3], fields[3]);

        wire.pipes->messages.push_back(words({0x41535001, 7, 0, 0, 1, 0, 0, 0}));
        EXPECT_EQ(PacketUtils::sendSettings(&settings, wire.interface.get()), kScanLibErrRead);
    }
    {
        // An odd payload is drained to its end, so the next reply lines up.
        auto wire = openWire();
        auto reply = words({0x41535001, 6, 0, 0, 0, 120, 0, 0});
        reply.resize(32 + 120, 0xAB);
        wire.pipes->messages.push_back(reply);
        wire.pipes->messages.push_back(words({0x41535001, 8, 0, 0, 0, 0, 0, 0}));
        ScannerSettings settings{};
        EXPECT_EQ(PacketUtils::getSettings(&settings, wire.interface.get()), kScanLibErrRead);
        std::uint32_t status = 9;
        EXPECT_EQ(PacketUtils::sendPacketToInterface(wire.interface.get(), kScanMsgCheckReady, &status), 0);
        EXPECT_EQ(status, 0u);
    }
}

TEST(UsbReadBuffering, WholePacketsOnTheWireLeftoversBuffered)
{
    auto wire = openWire(64);
    std::vector<std::uint8_t> stream(300);
    for (std::size_t i = 0; i < stream.size(); ++i) stream[i] = std::uint8_t(i);
    wire.pipes->messages.push_back(stream);
    std::uint8_t buffer[300];
    std::size_t offset = 0;
    // 32 asks one packet and keeps 32; 24 comes from the buffer; 100 takes
    // the 8 left, one packet directly, then 28 through a fresh packet.
    struct Step {
        std::uint32_t size;
        std::vector<std::uint32_t> requests;
    } steps[] = {{32, {64}}, {24, {}}, {100, {64, 64}}, {64, {64}}};
    for (const auto& step : steps) {
        wire.pipes->readRequests.clear();
        std::uint32_t count = step.size;
        ASSERT_EQ(wire.interface->readSynchronouslyIntoBuffer(buffer, &count, 1000, 0), kUSBNoErr);
        EXPECT_EQ(count, step.size);
        EXPECT_EQ(wire.pipes->readRequests, step.requests);
        EXPECT_EQ(0, std::memcmp(buffer, stream.data() + offset, count));
        offset += count;
    }
    // A transfer that ends short ends the read, without error and without
    // reaching into the next message.
    wire.pipes->messages.push_back(std::vector<std::uint8_t>(10, 1));
    std::uint32_t count = 200;
    EXPECT_EQ(wire.interface->readSynchronouslyIntoBuffer(buffer, &count, 1000, 0), kUSBNoErr);
    EXPECT_EQ(count, 300u - offset);
    EXPECT_EQ(wire.pipes->messages.size(), 1u);
}

TEST(RawFile, RoundTripAndRefusals)
{
    std::string path = tempRawPath("roundtrip");
    {
        RawFileWriter writer;
        ASSERT_EQ(writer.create(path), 0);
        RawFileWriter second;
        EXPECT_EQ(second.create(path), kScanLibErrCreateFile);  // never reuses a path
        RawFileHeader header{kRawFileSignature, 32, 1, 1, 8, 300, 5, 4};
        ASSERT_EQ(writer.writeHeader(header), 0);
        // Three rows of 5 out of a pitch of 8, padding dropped.
        std::uint8_t rows[24];
        for (int i = 0; i < 24; ++i) rows[i] = std::uint8_t(i % 8 < 5 ? i : 0xEE);
        ASSERT_EQ(writer.appendRows(rows, 3, 5, 8), 0);
        RawFileInfo info;
        ASSERT_TRUE(readRawFileInfo(path, &info));
        EXPECT_EQ(std::pair(info.header.rows, info.rowsPresent), std::pair(4u, 3u));
        ASSERT_EQ(writer.finalizeRows(3), 0);
        writer.commit();
    }
    std::string bytes = readFile(path);
    ASSERT_EQ(bytes.size(), 47u);
    EXPECT_EQ(bytes.substr(0, 8), std::string("Fwar\x20\0\0\0", 8));
    EXPECT_EQ(std::tuple(bytes[28], bytes[32 + 5], bytes[46]), std::tuple(3, 8, 20));  // rows; the rows' bytes
    ::unlink(path.c_str());

    {
        RawFileWriter writer;
        ASSERT_EQ(writer.create(path), 0);
    }
    EXPECT_FALSE(fileExists(path)) << "an unfinished file must not outlive its writer";

    RawFileHeader good{kRawFileSignature, 32, 0, 4, 8, 300, 2, 2};
    struct Case {
        const char* name;
        std::uint32_t word;
        std::uint32_t value;
    } bad[] = {{"signature", 0, 0x46777261}, {"colour type", 2, 2}, {"pixel size", 3, 1},
               {"bits", 4, 16},              {"resolution", 5, 0}, {"width", 6, 0}};
    RawFileInfo info;
    EXPECT_TRUE(parseRawFileHeader(&good, 32, 48, &info));
    EXPECT_FALSE(parseRawFileHeader(&good, 31, 48, &info));
    for (const auto& c : bad) {
        RawFileHeader h = good;
        reinterpret_cast<std::uint32_t*>(&h)[c.word] = c.value;
        EXPECT_FALSE(parseRawFileHeader(&h, 32, 48, &info)) << c.name;
    }
}

}  // namespace
}  // namespace zentary::test
