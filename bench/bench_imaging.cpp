// A 600 dpi colour letter page (5100 x 7020) through our conversion and
// exporters, beside the reference tools doing the same work on the same
// pixels: libtiff writing prepared RGB strips, cjpeg on a PPM, ImageMagick
// writing PICT. Run from a release build; child processes are timed by the
// wall clock.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <tiffio.h>
#include <unistd.h>
#include <vector>

#include "ReferenceTools.h"
#include "imaging/ImageExport.h"
#include "imaging/RawFileReader.h"

namespace {

using namespace zentary;

constexpr int kWidth = 5100;
constexpr int kHeight = 7020;
constexpr int kDpi = 600;

// A page as a scanner sees it: a photograph in the top third, lines of
// dark "text" blocks on a slightly noisy white below.
struct Page {
    std::filesystem::path dir;
    std::string raw, ppm, rgb;
    std::unique_ptr<OffscreenImage> image;
    std::vector<std::uint8_t> rgbPixels;

    Page() {
        dir = std::filesystem::temp_directory_path() / ("bench_imaging-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        raw = (dir / "page.raw").string();
        ppm = (dir / "page.ppm").string();
        rgb = (dir / "page.rgb").string();
        rgbPixels.resize(std::size_t(kWidth) * kHeight * 3);
        std::uint32_t seed = 12345;
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                seed = seed * 1664525u + 1013904223u;
                const int noise = static_cast<int>(seed >> 29);  // 0..7
                std::uint8_t* p = &rgbPixels[(std::size_t(y) * kWidth + x) * 3];
                if (y < kHeight / 3) {
                    p[0] = static_cast<std::uint8_t>(x * 200 / kWidth + noise);
                    p[1] = static_cast<std::uint8_t>(y * 600 / kHeight + noise);
                    p[2] = static_cast<std::uint8_t>(((x + y) / 40) % 2 ? 180 + noise : 60 + noise);
                } else {
                    const bool ink = (y % 90) < 50 && ((x / 37 + y / 90) * 2654435761u >> 28) % 3 != 0 &&
                                     (x % 37) < 30;
                    const auto v = static_cast<std::uint8_t>(ink ? 20 + noise : 248 + noise);
                    p[0] = p[1] = p[2] = v;
                }
            }
        RawFileHeader header{kRawFileSignature, kRawFileHeaderLength, 0, 4, 8, kDpi, kWidth, kHeight};
        std::ofstream out(raw, std::ios::binary);
        out.write(reinterpret_cast<const char*>(&header), sizeof header);
        std::vector<std::uint8_t> row(std::size_t(kWidth) * 4);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                row[4 * x] = 0;
                std::copy_n(&rgbPixels[(std::size_t(y) * kWidth + x) * 3], 3, &row[4 * x + 1]);
            }
            out.write(reinterpret_cast<const char*>(row.data()), static_cast<std::streamsize>(row.size()));
        }
        out.close();
        std::ofstream p6(ppm, std::ios::binary);
        p6 << "P6\n" << kWidth << ' ' << kHeight << "\n255\n";
        p6.write(reinterpret_cast<const char*>(rgbPixels.data()), static_cast<std::streamsize>(rgbPixels.size()));
        std::ofstream(rgb, std::ios::binary)
            .write(reinterpret_cast<const char*>(rgbPixels.data()), static_cast<std::streamsize>(rgbPixels.size()));
        image = newGWorldFromRawFile(raw);
        if (!image) std::abort();
    }
    ~Page() { std::filesystem::remove_all(dir); }
    std::string out(const char* name) const { return (dir / name).string(); }
};

Page& page() {
    static Page instance;
    return instance;
}

void BM_RawToOffscreenImage(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state) benchmark::DoNotOptimize(newGWorldFromRawFile(p.raw));
    state.SetBytesProcessed(state.iterations() * std::int64_t(kWidth) * kHeight * 4);
}

void BM_Tiff_Ours(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (!exportTiff(*p.image, p.out("ours.tif"))) state.SkipWithError("export failed");
}

void BM_Tiff_LibtiffAlone(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (!bench::writeTiffWithLibtiff(p.out("libtiff.tif"), p.rgbPixels.data(), kWidth, kHeight, kDpi))
            state.SkipWithError("libtiff failed");
}

void BM_Jpeg_Ours(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (!exportJpeg(*p.image, p.out("ours.jpg"), kDefaultJpegQuality)) state.SkipWithError("export failed");
}

void BM_Jpeg_Cjpeg(benchmark::State& state) {
    Page& p = page();
    bench::runCommand(state, "cjpeg -quality " + std::to_string(kDefaultJpegQuality) + " -sample 1x1 -outfile " + p.out("cjpeg.jpg") + " " + p.ppm);
}

void BM_Pict_Ours(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (!exportPict(*p.image, p.out("ours.pict"))) state.SkipWithError("export failed");
}

void BM_Pict_ImageMagick(benchmark::State& state) {
    Page& p = page();
    bench::runCommand(state, "convert -size " + std::to_string(kWidth) + "x" + std::to_string(kHeight) + " -depth 8 rgb:" + p.rgb +
                   " PICT:" + p.out("magick.pict"));
}

BENCHMARK(BM_RawToOffscreenImage)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_Tiff_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_Tiff_LibtiffAlone)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_Jpeg_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3);
BENCHMARK(BM_Jpeg_Cjpeg)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3);
BENCHMARK(BM_Pict_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_Pict_ImageMagick)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
