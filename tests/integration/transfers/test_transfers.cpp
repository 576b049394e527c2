// Whole acquisitions through the loaded data source with every transfer
// mechanism and file format, gray and colour, low and high resolution; each
// image decoded by an independent reader and compared with the chart on the
// emulated scanner's glass.
#include "TransferSession.h"

namespace zentary::test {
namespace {

enum class Decoder { Memory, Tiff, Jpeg, Pict };

struct Delivery {
    const char* name;
    TW_UINT16 mechanism;
    TW_UINT16 fileFormat;  // file transfers only
    Decoder decoder;
    std::optional<std::string> native;  // ZENTARY_NATIVE for native transfers
    bool handle = false;                // memory strips into a handle
};

const Delivery kDeliveries[] = {
    {"native TIFF", TWSX_NATIVE, 0, Decoder::Tiff, std::nullopt},
    {"native PICT", TWSX_NATIVE, 0, Decoder::Pict, "pict"},
    {"memory", TWSX_MEMORY, 0, Decoder::Memory, std::nullopt},
    {"memory into a handle", TWSX_MEMORY, 0, Decoder::Memory, std::nullopt, true},
    {"file TIFF", TWSX_FILE2, TWFF_TIFF, Decoder::Tiff, std::nullopt},
    {"file PICT", TWSX_FILE2, TWFF_PICT, Decoder::Pict, std::nullopt},
    {"file JPEG", TWSX_FILE2, TWFF_JFIF, Decoder::Jpeg, std::nullopt},
};

struct Setting {
    TW_UINT16 pixelType;
    std::uint32_t dpi;
    std::optional<Area> area;
};

class AcquisitionTest : public TransferTest {
protected:
    // One acquisition from MSG_OPENDS to MSG_CLOSEDS; the image as decoded.
    void acquire(const Setting& setting, const Delivery& delivery)
    {
        ScopedEnv native("ZENTARY_NATIVE", delivery.native);
        ASSERT_NO_FATAL_FAILURE(open());
        ScanArea area{};
        ASSERT_NO_FATAL_FAILURE(scanToReady({setting.pixelType, setting.dpi, setting.area, delivery.mechanism},
                                            [&] { area = scannedArea(); }));

        std::uint32_t channels = setting.pixelType == TWPT_RGB ? 3 : 1;
        TW_IMAGEINFO info = imageInfo();
        EXPECT_EQ(info.XResolution.Whole, TW_INT16(setting.dpi));
        EXPECT_EQ(info.YResolution.Whole, TW_INT16(setting.dpi));
        EXPECT_EQ(info.XResolution.Frac, 0);
        EXPECT_EQ(std::uint32_t(info.ImageWidth), scanPixels(area.width, setting.dpi));
        EXPECT_EQ(std::uint32_t(info.ImageLength), scanPixels(area.height, setting.dpi));
        EXPECT_EQ(info.PixelType, TW_INT16(setting.pixelType));
        EXPECT_EQ(std::uint32_t(info.SamplesPerPixel), channels);
        EXPECT_EQ(info.BitsPerPixel, TW_INT16(8 * channels));
        EXPECT_EQ(info.Planar, 0);

        std::optional<Picture> picture;
        std::filesystem::path file = scratch("image");
        if (delivery.mechanism == TWSX_MEMORY) {
            TW_SETUPMEMXFER sizes{};
            ASSERT_EQ(mSource->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes), TWRC_SUCCESS);
            // Several strips, the last one short.
            picture = memoryTransfer(info, sizes.MinBufSize * 7 + 3, delivery.handle);
        } else if (delivery.mechanism == TWSX_NATIVE) {
            TW_HANDLE handle = nullptr;
            ASSERT_EQ(mSource->call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle), TWRC_XFERDONE);
            ASSERT_TRUE(handle);
            // The handle came from our calloc; its usable size covers the file.
            writeBytes(file, handle, malloc_usable_size(handle));
            std::free(handle);
        } else {
            ASSERT_EQ(setupFile(file.string(), delivery.fileFormat), TWRC_SUCCESS);
            ASSERT_EQ(mSource->call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr), TWRC_XFERDONE);
        }
        switch (delivery.decoder) {
        case Decoder::Memory: break;
        case Decoder::Tiff: picture = decodeTiff(file); break;
        case Decoder::Jpeg: picture = decodeJpeg(file); break;
        case Decoder::Pict: picture = decodePict(file, delivery.mechanism != TWSX_NATIVE); break;
        }
        ASSERT_TRUE(picture) << "not decodable";
        Picture expected = chartPicture({area.left, area.top}, setting.dpi, std::uint32_t(info.ImageWidth),
                                        std::uint32_t(info.ImageLength), channels);
        if (delivery.decoder != Decoder::Memory) {
            EXPECT_EQ(picture->xDpi, setting.dpi);
            EXPECT_EQ(picture->yDpi, setting.dpi);
        }
        if (delivery.decoder == Decoder::Jpeg) {
            EXPECT_TRUE(closePixels(*picture, expected, 35.0));
        } else
            EXPECT_TRUE(samePixels(*picture, expected));

        // Information is given again once the image is across.
        imageInfo();
        TW_UINT16 count = 1;
        EXPECT_EQ(pending(*mSource, MSG_ENDXFER, &count), TWRC_SUCCESS);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(disable(*mSource), TWRC_SUCCESS);
        EXPECT_EQ(mSource->close(), TWRC_SUCCESS);
        mSource.reset();
    }
};

TEST_F(AcquisitionTest, EveryMechanismAndFormatDeliversTheChart)
{
    // Both frames cross a band boundary of the chart and its grid lines. The
    // tool's matrix takes every format through every mechanism in both modes
    // and at every resolution; here each delivery once in each mode, with
    // what only a TWAIN client sees (image information, strips, handles).
    const Setting settings[] = {
        {TWPT_GRAY, 150, Area{25, 350, 425, 600}},
        {TWPT_RGB, 600, Area{700, 750, 800, 830}},
    };
    for (const Setting& setting : settings)
        for (const Delivery& delivery : kDeliveries) {
            SCOPED_TRACE(std::string(delivery.name) + (setting.pixelType == TWPT_RGB ? " colour " : " gray ") +
                         std::to_string(setting.dpi) + " dpi");
            acquire(setting, delivery);
        }
}

TEST_F(AcquisitionTest, WholeGlassAndPicturesRecordedInStrips)
{
    struct Case {
        const char* what;
        Setting setting;
        const Delivery& delivery;
    } cases[] = {
        {"whole glass by memory", {TWPT_RGB, 150, std::nullopt}, kDeliveries[2]},
        {"whole glass as a TIFF file", {TWPT_GRAY, 150, std::nullopt}, kDeliveries[4]},
        // 5100 colour pixels are 20400 bytes a row: more than one bit-map
        // record may carry, so the picture holds vertical strips.
        {"wide native picture", {TWPT_RGB, 600, Area{0, 100, 850, 110}}, kDeliveries[1]},
        {"wide picture file", {TWPT_RGB, 600, Area{0, 775, 850, 800}}, kDeliveries[5]},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        acquire(c.setting, c.delivery);
    }
}

}  // namespace
}  // namespace zentary::test
