// A client of the loaded data source, up to a ready transfer: the scan's
// settings, the frame, the wait for MSG_XFERREADY, and reading the image
// back by buffered memory transfer.
#pragma once

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <malloc.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>

#include "ChartImages.h"
#include "support/SourceTest.h"

namespace zentary::test {

using namespace twain;
using namespace std::chrono_literals;

// A frame in hundredths of an inch. Fractions are rounded up into the
// FIX32, so that the scanner's truncation to hundredths gives them back.
struct Area {
    std::uint32_t left, top, right, bottom;
};
// What the scanner is asked for, in whole hundredths.
struct ScanArea {
    std::uint32_t left, top, width, height;
};

inline TW_FIX32 inches(std::uint32_t hundredths)
{
    return {TW_INT16(hundredths / 100), TW_UINT16((hundredths % 100 * 65536 + 99) / 100)};
}

inline TW_IMAGELAYOUT layoutOf(Area area)
{
    return {{inches(area.left), inches(area.top), inches(area.right), inches(area.bottom)}, 1, 1, 1};
}

struct Scan {
    TW_UINT16 pixelType;
    std::uint32_t dpi;
    std::optional<Area> area;  // none: the whole glass
    TW_UINT16 mechanism;
    bool throughFrames = false;  // the area set with ICAP_FRAMES instead of DAT_IMAGELAYOUT
};

// MSG_SET of ICAP_FRAMES with a one-value holding `frame`.
inline TW_UINT16 setFrame(DataSourceManager& source, const TW_FRAME& frame)
{
    auto* one = static_cast<std::uint8_t*>(std::calloc(1, sizeof(TW_UINT16) + sizeof(TW_FRAME)));
    const TW_UINT16 type = TWTY_FRAME;
    std::memcpy(one, &type, sizeof type);
    std::memcpy(one + sizeof type, &frame, sizeof frame);
    TW_CAPABILITY capability{ICAP_FRAMES, TWON_ONEVALUE, one};
    TW_UINT16 rc = source.call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &capability);
    std::free(one);
    return rc;
}

class TransferTest : public SourceTest {
protected:
    std::unique_ptr<DataSourceManager> mSource;

    // Opens the source as an ordinary client (or as Image Capture).
    void open(bool imageCapture = false)
    {
        // Kept mapped after the manager unloads it, so that the sanitizers
        // can still name the source's code in their reports.
        dlopen(dataSourcePath().c_str(), RTLD_NOW | RTLD_NODELETE);
        mSource = imageCapture ? openAs("Apple Computer, Inc.", "Image Capture") : openAs();
        ASSERT_TRUE(mSource);
    }

    // Settings, frame and target in state 4, then a scan without the dialog
    // up to MSG_XFERREADY.
    void scanToReady(const Scan& scan, const std::function<void()>& beforeEnable = {})
    {
        ASSERT_EQ(setOneValue(*mSource, ICAP_PIXELTYPE, TWTY_UINT16, scan.pixelType), TWRC_SUCCESS);
        ASSERT_EQ(setOneValue(*mSource, ICAP_XRESOLUTION, TWTY_FIX32, fix32Item(TW_INT16(scan.dpi))), TWRC_SUCCESS);
        ASSERT_EQ(setOneValue(*mSource, ICAP_XFERMECH, TWTY_UINT16, scan.mechanism), TWRC_SUCCESS);
        if (scan.area) {
            TW_IMAGELAYOUT layout = layoutOf(*scan.area);
            ASSERT_EQ(scan.throughFrames ? setFrame(*mSource, layout.Frame)
                                         : mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout),
                      TWRC_SUCCESS);
        }
        if (beforeEnable) beforeEnable();
        ASSERT_EQ(enable(*mSource, false), TWRC_SUCCESS);
        ASSERT_EQ(mSource->waitForMessage(60s), std::optional<TW_UINT16>(MSG_XFERREADY));
    }

    // The frame in force, as the scanner gets it: origin, width and height
    // in whole hundredths of an inch, each truncated from single precision.
    ScanArea scannedArea()
    {
        TW_IMAGELAYOUT layout{};
        EXPECT_EQ(mSource->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout), TWRC_SUCCESS);
        auto value = [](TW_FIX32 fix) { return float(fix.Whole) + float(fix.Frac) / 65536.0f; };
        auto hundredths = [](float inches) { return std::uint32_t(std::trunc(inches * 100.0f)); };
        const TW_FRAME& f = layout.Frame;
        return {hundredths(value(f.Left)), hundredths(value(f.Top)), hundredths(value(f.Right) - value(f.Left)),
                hundredths(value(f.Bottom) - value(f.Top))};
    }

    TW_UINT16 setupFile(const std::string& path, TW_UINT16 format)
    {
        return SourceTest::setupFile(*mSource, MSG_SET, path, format);
    }

    TW_IMAGEINFO imageInfo()
    {
        TW_IMAGEINFO info{};
        EXPECT_EQ(mSource->call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info), TWRC_SUCCESS);
        return info;
    }

    TW_UINT16 memoryStrip(void* memory, TW_UINT32 length, TW_UINT32 flags, TW_IMAGEMEMXFER& strip)
    {
        strip = {};
        strip.Memory.Flags = flags;
        strip.Memory.Length = length;
        strip.Memory.TheMem = memory;
        return mSource->call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
    }

    // The whole image by memory strips of `length` bytes, each checked for
    // its geometry; the rows are put together without their padding.
    Picture memoryTransfer(const TW_IMAGEINFO& info, TW_UINT32 length, bool handle,
                           const std::function<void()>& afterFirstStrip = {})
    {
        std::uint32_t channels = info.PixelType == TWPT_RGB ? 3 : 1;
        auto width = std::uint32_t(info.ImageWidth), height = std::uint32_t(info.ImageLength);
        std::size_t dataBytes = std::size_t(width) * channels, bytesPerRow = dataBytes + dataBytes % 4;
        Picture picture{width, height, channels, 0, 0, {}};
        // A handle from the manager's allocator: the source locks it itself.
        std::unique_ptr<std::uint8_t, void (*)(void*)> buffer(static_cast<std::uint8_t*>(std::calloc(1, length)),
                                                             std::free);
        for (std::uint32_t row = 0;;) {
            std::memset(buffer.get(), 0xA5, length);
            TW_IMAGEMEMXFER strip{};
            TW_UINT16 rc = memoryStrip(buffer.get(), length, TWMF_APPOWNS | (handle ? TWMF_HANDLE : TWMF_POINTER),
                                       strip);
            if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE) {
                ADD_FAILURE() << "strip at row " << row << ": rc " << rc << " code " << mSource->conditionCode();
                return picture;
            }
            // The record is packed: its fields are copied out before use.
            const TW_UINT32 rows = strip.Rows, bytesWritten = strip.BytesWritten;
            EXPECT_EQ(std::tuple(TW_UINT16(strip.Compression), TW_UINT32(strip.BytesPerRow), TW_UINT32(strip.Columns),
                                 TW_UINT32(strip.XOffset), TW_UINT32(strip.YOffset), bytesWritten),
                      std::tuple(TWCP_NONE, TW_UINT32(bytesPerRow), width, 0u, row, TW_UINT32(rows * bytesPerRow)));
            EXPECT_EQ(rows, std::min<std::size_t>(length / bytesPerRow, height - row));
            if (rows == 0 || rows > height - row) return picture;
            for (std::uint32_t r = 0; r < rows; ++r) {
                const std::uint8_t* data = buffer.get() + r * bytesPerRow;
                picture.pixels.insert(picture.pixels.end(), data, data + dataBytes);
                for (std::size_t p = dataBytes; p < bytesPerRow; ++p) EXPECT_EQ(data[p], 0) << "padding, row " << r;
            }
            if (row == 0 && afterFirstStrip) afterFirstStrip();
            row += rows;
            EXPECT_EQ(rc == TWRC_XFERDONE, row == height) << "row " << row;
            if (rc == TWRC_XFERDONE || row >= height) return picture;
        }
    }
};

}  // namespace zentary::test
