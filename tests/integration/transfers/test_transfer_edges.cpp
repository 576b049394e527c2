// The image group as a TWAIN client meets it: image information, memory
// strip geometry and buffer limits, the scan frame's rules, file targets
// that fail at transfer time, and transfers asked for twice or out of turn.
// Every mechanism and format is checked against the chart end to end by the
// scan tool's matrix; what only a client of the source sees is checked here.
#include <fstream>

#include "TransferSession.h"

// Frames compared and printed as a whole; the records live in the global namespace.
inline bool operator==(const TW_FIX32& a, const TW_FIX32& b)
{
    return a.Whole == b.Whole && a.Frac == b.Frac;
}
inline bool operator==(const TW_FRAME& a, const TW_FRAME& b)
{
    return a.Left == b.Left && a.Top == b.Top && a.Right == b.Right && a.Bottom == b.Bottom;
}
inline std::ostream& operator<<(std::ostream& out, const TW_FRAME& f)
{
    for (const TW_FIX32& v : {f.Left, f.Top, f.Right, f.Bottom}) out << v.Whole << "+" << v.Frac << "/65536 ";
    return out;
}

namespace zentary::test {
namespace {

class TransferEdgeTest : public TransferTest {
protected:
    TW_UINT16 codeOf(TW_UINT16 rc, TW_UINT16 expectedRc)
    {
        EXPECT_EQ(rc, expectedRc);
        return mSource->conditionCode();
    }
    TW_UINT16 nativeTransfer(TW_HANDLE* handle)
    {
        return mSource->call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, handle);
    }
    TW_UINT16 fileTransfer() { return mSource->call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr); }
    TW_IMAGELAYOUT layout(TW_UINT16 message, TW_IMAGELAYOUT record, TW_UINT16 expectedRc)
    {
        EXPECT_EQ(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, message, &record), expectedRc) << "message " << message;
        return record;
    }
    Picture chartFor(const TW_IMAGEINFO& info, ScanArea area)
    {
        return chartPicture({area.left, area.top}, std::uint32_t(info.XResolution.Whole),
                            std::uint32_t(info.ImageWidth), std::uint32_t(info.ImageLength),
                            info.PixelType == TWPT_RGB ? 3 : 1);
    }
    // The glass as the capability holds it (copied out of the packed record).
    TW_FIX32 physical(TW_UINT16 cap)
    {
        TW_CAPABILITY capability{cap, 0, nullptr};
        EXPECT_EQ(mSource->call(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, &capability), TWRC_SUCCESS);
        TW_FIX32 value{};
        if (capability.ConType == TWON_ONEVALUE && capability.hContainer)
            std::memcpy(&value, static_cast<char*>(capability.hContainer) + offsetof(TW_ONEVALUE, Item), sizeof value);
        std::free(capability.hContainer);
        return value;
    }
    // ICAP_FRAMES as a one-value of `message`, with its handle's size.
    std::pair<TW_FRAME, std::size_t> frames(TW_UINT16 message)
    {
        TW_CAPABILITY capability{ICAP_FRAMES, 0, nullptr};
        EXPECT_EQ(mSource->call(DG_CONTROL, DAT_CAPABILITY, message, &capability), TWRC_SUCCESS) << message;
        TW_FRAME frame{};
        std::size_t size = DataSourceManager::handleSize(capability.hContainer).value_or(0);
        if (capability.ConType == TWON_ONEVALUE && size >= 18)
            std::memcpy(&frame, static_cast<char*>(capability.hContainer) + offsetof(TW_ONEVALUE, Item), sizeof frame);
        std::free(capability.hContainer);
        return {frame, size};
    }
};

TEST_F(TransferEdgeTest, MemoryStripsCarryWholePaddedRowsWithinTheAnnouncedBuffers)
{
    // Rows are padded by their remainder modulo 4, not to a multiple of 4.
    struct Case {
        TW_UINT16 pixelType;
        std::uint32_t right;  // hundredths, from the glass's left edge, at 150 dpi
        std::uint32_t width, bytesPerRow;
    } cases[] = {
        {TWPT_GRAY, 67, 100, 100}, {TWPT_GRAY, 65, 97, 98}, {TWPT_GRAY, 68, 102, 104}, {TWPT_GRAY, 66, 99, 102},
        {TWPT_RGB, 6, 9, 30},      {TWPT_RGB, 2, 3, 10},    {TWPT_RGB, 4, 6, 20},
    };
    bool handle = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + (c.pixelType == TWPT_RGB ? " colour pixels" : " gray pixels"));
        handle = !handle;
        ASSERT_NO_FATAL_FAILURE(open());
        ScanArea area{};
        ASSERT_NO_FATAL_FAILURE(scanToReady({c.pixelType, 150, Area{0, 25, c.right, 50}, TWSX_MEMORY, handle},
                                            [&] { area = scannedArea(); }));
        TW_IMAGEINFO info = imageInfo();
        ASSERT_EQ(std::uint32_t(info.ImageWidth), c.width);
        const bool rgb = c.pixelType == TWPT_RGB;
        EXPECT_EQ(std::uint32_t(info.ImageLength), scanPixels(area.height, 150));
        EXPECT_TRUE(info.XResolution.Whole == 150 && info.YResolution.Whole == 150 && info.XResolution.Frac == 0);
        EXPECT_EQ(std::tuple(info.PixelType, info.SamplesPerPixel, info.BitsPerPixel, info.Planar),
                  std::tuple(TW_INT16(c.pixelType), TW_INT16(rgb ? 3 : 1), TW_INT16(rgb ? 24 : 8), TW_BOOL(0)));
        TW_SETUPMEMXFER sizes{};
        ASSERT_EQ(mSource->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes), TWRC_SUCCESS);
        const std::uint32_t whole = c.bytesPerRow * std::uint32_t(info.ImageLength);
        EXPECT_EQ(std::tuple(TW_UINT32(sizes.MinBufSize), TW_UINT32(sizes.MaxBufSize), TW_UINT32(sizes.Preferred)),
                  std::tuple(c.bytesPerRow, whole, whole));

        std::vector<std::uint8_t> buffer(sizes.MaxBufSize + 1);
        TW_IMAGEMEMXFER strip{};
        struct Refusal {
            void* memory;
            TW_UINT32 length;
        } refusals[] = {{buffer.data(), sizes.MinBufSize - 1}, {buffer.data(), sizes.MaxBufSize + 1},
                        {nullptr, sizes.MinBufSize}};
        for (const Refusal& r : refusals)
            EXPECT_EQ(codeOf(memoryStrip(r.memory, r.length, TWMF_APPOWNS | TWMF_POINTER, strip), TWRC_FAILURE),
                      TWCC_BADVALUE)
                << r.length;

        // A buffer of exactly one row gets one row a call; between strips
        // nothing but strips is served.
        Picture picture = memoryTransfer(info, sizes.MinBufSize, handle, [&] {
            TW_IMAGEINFO during{};
            TW_HANDLE native = nullptr;
            EXPECT_EQ(codeOf(mSource->call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &during), TWRC_FAILURE), TWCC_SEQERROR);
            EXPECT_EQ(codeOf(nativeTransfer(&native), TWRC_FAILURE), TWCC_SEQERROR);
            EXPECT_EQ(codeOf(fileTransfer(), TWRC_FAILURE), TWCC_SEQERROR);
            EXPECT_EQ(codeOf(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &during), TWRC_FAILURE),
                      TWCC_SEQERROR);
        });
        EXPECT_TRUE(samePixels(picture, chartFor(info, area)));
        imageInfo();  // served again once the last strip is across
        EXPECT_EQ(pending(*mSource, MSG_ENDXFER), TWRC_SUCCESS);
        mSource.reset();
    }
}

TEST_F(TransferEdgeTest, TheFrameIsKeptOnTheGlass)
{
    for (bool imageCapture : {false, true}) {
        SCOPED_TRACE(imageCapture ? "Image Capture" : "other client");
        ASSERT_NO_FATAL_FAILURE(open(imageCapture));
        TW_FIX32 width = physical(ICAP_PHYSICALWIDTH), height = physical(ICAP_PHYSICALHEIGHT);
        const TW_UINT16 adjusted = imageCapture ? TWRC_SUCCESS : TWRC_CHECKSTATUS;
        const TW_FIX32 zero{0, 0}, half{0, 0x8000}, one{1, 0}, two{2, 0}, three{3, 0}, nine{9, 0};
        struct Case {
            const char* what;
            TW_FRAME set;
            TW_UINT16 rc;
            TW_FRAME stored;  // when the set succeeds
        } cases[] = {
            {"inside", {half, one, two, three}, TWRC_SUCCESS, {half, one, two, three}},
            {"left of the glass, moved right", {{-1, 0x8000}, zero, two, three}, adjusted, {zero, zero, {2, 0x8000}, three}},
            {"above the glass, moved down", {zero, {-1, 0}, two, two}, adjusted, {zero, zero, two, three}},
            {"beyond the right and bottom edges", {one, one, nine, {12, 0}}, adjusted, {one, one, width, height}},
            {"starting beyond the right edge", {nine, zero, {9, 0x8000}, one}, adjusted, {zero, zero, width, one}},
            {"empty", {two, one, two, three}, TWRC_FAILURE, {}},
            {"upside down", {zero, three, two, one}, TWRC_FAILURE, {}},
        };
        TW_IMAGELAYOUT before = layout(MSG_GET, {}, TWRC_SUCCESS);
        // The frame is one, set through either view and seen by the other.
        bool throughFrames = imageCapture;
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.what) + (throughFrames ? ", set as ICAP_FRAMES" : ""));
            TW_IMAGELAYOUT record{c.set, 4, 5, 6};
            TW_UINT16 code = codeOf(throughFrames ? setFrame(*mSource, c.set)
                                                  : mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &record),
                                    c.rc);
            EXPECT_EQ(code, c.rc == TWRC_FAILURE ? TWCC_BADVALUE : code);
            TW_IMAGELAYOUT now = layout(MSG_GET, {}, TWRC_SUCCESS);
            EXPECT_EQ(frames(MSG_GET).first, now.Frame);
            throughFrames = !throughFrames;
            EXPECT_EQ(now.Frame, c.rc == TWRC_FAILURE ? before.Frame : c.stored);
            before = now;
        }
        // Numbers the client does not care about stay as they were.
        layout(MSG_SET, {{zero, zero, one, one}, 0xFFFFFFFF, 8, 0xFFFFFFFF}, TWRC_SUCCESS);
        TW_IMAGELAYOUT numbers = layout(MSG_GET, {}, TWRC_SUCCESS);
        EXPECT_EQ(TW_UINT32(numbers.DocumentNumber), 4u);
        EXPECT_EQ(TW_UINT32(numbers.PageNumber), 8u);
        EXPECT_EQ(TW_UINT32(numbers.FrameNumber), 6u);
        // Reset and default give the whole glass as the capabilities hold it.
        const TW_FRAME glass{zero, zero, width, height};
        for (TW_UINT16 message : {MSG_GETDEFAULT, MSG_RESET, MSG_GET}) {
            TW_IMAGELAYOUT whole = layout(message, {}, TWRC_SUCCESS);
            EXPECT_EQ(whole.Frame, glass) << message;
            EXPECT_EQ(whole.DocumentNumber + whole.PageNumber + whole.FrameNumber, 3u) << message;
        }
        EXPECT_EQ(setFrame(*mSource, {one, one, two, two}), TWRC_SUCCESS);
        for (TW_UINT16 message : {MSG_GETDEFAULT, MSG_RESET})
            EXPECT_EQ(frames(message), std::pair(glass, std::size_t(18))) << message;
        EXPECT_EQ(layout(MSG_GET, {}, TWRC_SUCCESS).Frame, glass);
        // Enabled, the frame may be read but not changed.
        // (The window mode is read when the source opens.)
        ScopedEnv cancel("ZENTARY_UI", "headless-cancel");
        ASSERT_EQ(mSource->close(), TWRC_SUCCESS);
        ASSERT_EQ(mSource->open(), TWRC_SUCCESS);
        ASSERT_EQ(enable(*mSource, true), TWRC_SUCCESS);
        ASSERT_EQ(mSource->waitForMessage(20s), std::optional<TW_UINT16>(MSG_CLOSEDSREQ));
        layout(MSG_GETDEFAULT, {}, TWRC_SUCCESS);
        layout(MSG_GET, {}, TWRC_SUCCESS);
        TW_IMAGELAYOUT small{{zero, zero, one, one}, 1, 1, 1};
        EXPECT_EQ(codeOf(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &small), TWRC_FAILURE), TWCC_SEQERROR);
        EXPECT_EQ(codeOf(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET, &small), TWRC_FAILURE), TWCC_SEQERROR);
        EXPECT_EQ(codeOf(setFrame(*mSource, small.Frame), TWRC_FAILURE), TWCC_SEQERROR);
        EXPECT_EQ(codeOf(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, nullptr), TWRC_FAILURE), TWCC_BADVALUE);
        mSource.reset();
    }
}

TEST_F(TransferEdgeTest, AFailedFileTransferLeavesTheScanForAnotherTarget)
{
    ASSERT_NO_FATAL_FAILURE(open());
    ScanArea area{};
    ASSERT_NO_FATAL_FAILURE(
        scanToReady({TWPT_GRAY, 150, Area{100, 100, 200, 150}, TWSX_FILE2}, [&] { area = scannedArea(); }));
    // As root no directory is closed to us; these targets fail at transfer
    // time whatever the permissions.
    const std::string longName = scratch(std::string(250, 'n') + ".tif").string();
    struct Case {
        const char* what;
        std::string target;
        std::function<void()> spoil;
    } cases[] = {
        {"target removed after it was set up", scratch("gone.tif").string(),
         [&] { std::filesystem::remove(scratch("gone.tif")); }},
        {"no room beside the name for the file being written", longName, [] {}},
        {"a directory in the target's place", scratch("dir.tif").string(),
         [&] {
             std::filesystem::remove(scratch("dir.tif"));
             std::filesystem::create_directories(scratch("dir.tif/inside"));
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(setupFile(c.target, TWFF_TIFF), TWRC_SUCCESS);
        c.spoil();
        EXPECT_EQ(codeOf(fileTransfer(), TWRC_FAILURE), TWCC_OPERATIONERROR);
        EXPECT_EQ(filesWith(".part"), std::vector<std::string>{});
        if (std::filesystem::is_regular_file(c.target)) {
            EXPECT_EQ(std::filesystem::file_size(c.target), 0u) << "as it was set up";
        }
        TW_UINT16 count = 0;
        EXPECT_EQ(pending(*mSource, MSG_GET, &count), TWRC_SUCCESS) << "still ready to transfer";
        EXPECT_EQ(count, 1);
    }
    ASSERT_EQ(setupFile(scratch("good.tif").string(), TWFF_TIFF), TWRC_SUCCESS);
    ASSERT_EQ(fileTransfer(), TWRC_XFERDONE);
    std::optional<Picture> picture = decodeTiff(scratch("good.tif"));
    ASSERT_TRUE(picture);
    EXPECT_TRUE(samePixels(*picture, chartFor(imageInfo(), area)));
    // The image went across; it does not go twice.
    TW_HANDLE native = nullptr;
    EXPECT_EQ(codeOf(fileTransfer(), TWRC_FAILURE), TWCC_SEQERROR);
    EXPECT_EQ(codeOf(nativeTransfer(&native), TWRC_FAILURE), TWCC_SEQERROR);
    EXPECT_EQ(native, nullptr);
    EXPECT_EQ(pending(*mSource, MSG_ENDXFER), TWRC_SUCCESS);
}

TEST_F(TransferEdgeTest, ThePreferenceChoosesThePictureForNativeTransfers)
{
    std::ofstream(scratch("com.tarvell.zentaryQ300.scands.plist"))
        << R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>nativeFormat</key><string>PICT</string></dict></plist>
)";
    ASSERT_NO_FATAL_FAILURE(open());
    ScanArea area{};
    ASSERT_NO_FATAL_FAILURE(
        scanToReady({TWPT_RGB, 300, Area{300, 400, 400, 450}, TWSX_NATIVE}, [&] { area = scannedArea(); }));
    TW_HANDLE handle = nullptr;
    ASSERT_EQ(nativeTransfer(&handle), TWRC_XFERDONE);
    writeBytes(scratch("native"), handle, malloc_usable_size(handle));
    std::free(handle);
    std::optional<Picture> picture = decodePict(scratch("native"), false);
    ASSERT_TRUE(picture);
    EXPECT_TRUE(samePixels(*picture, chartFor(imageInfo(), area)));
    handle = nullptr;
    EXPECT_EQ(codeOf(nativeTransfer(&handle), TWRC_FAILURE), TWCC_SEQERROR);
    EXPECT_EQ(codeOf(fileTransfer(), TWRC_FAILURE), TWCC_SEQERROR);
}

}  // namespace
}  // namespace zentary::test
