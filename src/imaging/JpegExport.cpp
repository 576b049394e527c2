#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <jpeglib.h>

#include "imaging/FileIo.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

constexpr std::size_t kOutputBytes = 64 * 1024;
constexpr int kRowsPerCall = 16;  // one MCU row at the largest sampling factor

// libjpeg reports fatal errors by calling error_exit, which must not return;
// we jump back to the call that started compression. No C++ object with a
// destructor lives between the two, so the jump skips nothing.
struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

[[noreturn]] void jpegErrorExit(j_common_ptr info) {
    std::longjmp(reinterpret_cast<JpegError*>(info->err)->jump, 1);
}

void jpegSilent(j_common_ptr) {}

struct JpegDestination {
    jpeg_destination_mgr manager;
    ByteSink* sink;
    bool failed;
    JOCTET buffer[kOutputBytes];
};

void destinationInit(j_compress_ptr info) {
    auto* destination = reinterpret_cast<JpegDestination*>(info->dest);
    destination->manager.next_output_byte = destination->buffer;
    destination->manager.free_in_buffer = kOutputBytes;
}

boolean destinationEmpty(j_compress_ptr info) {
    auto* destination = reinterpret_cast<JpegDestination*>(info->dest);
    // A failed sink keeps failing; compression still runs to its end so that
    // libjpeg's state stays sane, and the caller sees `failed`.
    if (!destination->failed) destination->failed = !destination->sink->write(destination->buffer, kOutputBytes);
    destinationInit(info);
    return TRUE;
}

void destinationTerm(j_compress_ptr info) {
    auto* destination = reinterpret_cast<JpegDestination*>(info->dest);
    const std::size_t used = kOutputBytes - destination->manager.free_in_buffer;
    if (!destination->failed && used > 0) destination->failed = !destination->sink->write(destination->buffer, used);
}

}  // namespace

bool writeJpeg(const OffscreenImage& image, ByteSink& sink, int quality) {
    jpeg_compress_struct info;
    JpegError error;
    // Made before setjmp, so a jump back from libjpeg leaves it intact and
    // it is freed on the way out as usual.
    std::unique_ptr<JpegDestination> destination(new (std::nothrow) JpegDestination);
    if (!destination) return false;
    destination->sink = &sink;
    destination->failed = false;
    destination->manager.init_destination = destinationInit;
    destination->manager.empty_output_buffer = destinationEmpty;
    destination->manager.term_destination = destinationTerm;

    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpegErrorExit;
    error.manager.output_message = jpegSilent;
    if (setjmp(error.jump) != 0) {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    info.dest = &destination->manager;
    info.image_width = static_cast<JDIMENSION>(image.width());
    info.image_height = static_cast<JDIMENSION>(image.height());
    // The colour rows go in exactly as they are in memory: libjpeg-turbo
    // reads x R G B pixels itself, so no row is converted or copied here.
    if (image.depth() == 8) {
        info.input_components = 1;
        info.in_color_space = JCS_GRAYSCALE;
    } else {
        info.input_components = 4;
        info.in_color_space = JCS_EXT_XRGB;
    }
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, std::clamp(quality, 1, 100), TRUE);
    // Full colour resolution: halving the chroma blurs the coloured edges of
    // scanned text and charts, which costs more than the bytes it saves.
    for (int c = 0; c < info.num_components; ++c) {
        info.comp_info[c].h_samp_factor = 1;
        info.comp_info[c].v_samp_factor = 1;
    }
    info.write_JFIF_header = TRUE;
    info.density_unit = 1;  // dots per inch
    info.X_density = static_cast<UINT16>(std::clamp(image.hRes() >> 16, 1, 0xFFFF));
    info.Y_density = static_cast<UINT16>(std::clamp(image.vRes() >> 16, 1, 0xFFFF));
    jpeg_start_compress(&info, TRUE);
    JSAMPROW rows[kRowsPerCall];
    while (info.next_scanline < info.image_height) {
        const auto first = static_cast<int>(info.next_scanline);
        const int count = std::min(kRowsPerCall, image.height() - first);
        for (int r = 0; r < count; ++r) rows[r] = const_cast<JSAMPROW>(image.row(first + r));
        jpeg_write_scanlines(&info, rows, static_cast<JDIMENSION>(count));
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return !destination->failed;
}

bool exportJpeg(const OffscreenImage& image, const std::string& path, int quality) {
    OutputFile file(path);
    if (!file.valid()) return false;
    FdSink sink(file.fd());
    return writeJpeg(image, sink, quality) && file.commit();
}

}  // namespace zentary
