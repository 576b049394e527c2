// The image group as a client meets it: a 600 dpi colour letter page of the
// emulated scanner's chart, scanned once per transfer through the loaded
// data source, then delivered as a TIFF, JPEG or PICT file or by memory
// strips, beside the reference tools doing the same work on the same
// pixels. Scans are not timed. The peak memory of a 1200 dpi colour
// transfer is measured in a child process of its own, from after its scan
// to the end of the transfer. Run from a release build.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "DataSourceManager.h"
#include "ProcessResources.h"
#include "ReferenceTools.h"

extern char** environ;

namespace {

using namespace zentary;
using namespace twain;
using namespace std::chrono_literals;

constexpr TW_UINT32 kStripBytes = 1 << 20;           // a client's memory transfer buffer

std::filesystem::path gScratch;

TW_UINT16 setOneValue(DataSourceManager& source, TW_UINT16 cap, TW_UINT16 type, TW_UINT32 item)
{
    TW_ONEVALUE one{type, item};
    TW_CAPABILITY capability{cap, TWON_ONEVALUE, &one};
    return source.call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &capability);
}

TW_UINT32 fix32(TW_INT16 whole)
{
    TW_FIX32 fix{whole, 0};
    TW_UINT32 item = 0;
    std::memcpy(&item, &fix, sizeof fix);
    return item;
}

// An open source with a colour letter page at `dpi` scanned and waiting.
struct Ready {
    std::unique_ptr<DataSourceManager> source;
    TW_IMAGEINFO info{};
};

std::unique_ptr<DataSourceManager> openSource()
{
    std::string error;
    auto source = DataSourceManager::load(ZENTARY_DS_PATH, &error);
    if (!source || source->open() != TWRC_SUCCESS) return nullptr;
    return source;
}

bool scan(DataSourceManager& source, TW_UINT16 mechanism, TW_INT16 dpi, TW_IMAGEINFO& info)
{
    TW_IMAGELAYOUT letter{{{0, 0}, {0, 0}, {8, 0x8000}, {11, 0}}, 1, 1, 1};
    TW_USERINTERFACE ui{0, 0, nullptr};
    return setOneValue(source, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_RGB) == TWRC_SUCCESS &&
           setOneValue(source, ICAP_XRESOLUTION, TWTY_FIX32, fix32(dpi)) == TWRC_SUCCESS &&
           setOneValue(source, ICAP_XFERMECH, TWTY_UINT16, mechanism) == TWRC_SUCCESS &&
           source.call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &letter) == TWRC_SUCCESS &&
           source.call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui) == TWRC_SUCCESS &&
           source.waitForMessage(300s) == std::optional<TW_UINT16>(MSG_XFERREADY) &&
           source.call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) == TWRC_SUCCESS;
}

void finish(DataSourceManager& source)
{
    TW_PENDINGXFERS pending{};
    TW_USERINTERFACE ui{0, 0, nullptr};
    source.call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
    source.call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui);
}

bool setupFile(DataSourceManager& source, const std::string& path, TW_UINT16 format)
{
    static char name[1026];
    std::memset(name, 0, sizeof name);
    std::strncpy(name, path.c_str(), sizeof name - 1);
    TW_SETUPFILEXFER2 record{name, TWTY_STR1024, format, 0, 0};
    return source.call(DG_CONTROL, DAT_SETUPFILEXFER2, MSG_SET, &record) == TWRC_SUCCESS;
}

// The whole image by memory strips; the bytes delivered, or 0.
std::size_t memoryTransfer(DataSourceManager& source, std::vector<std::uint8_t>& buffer, std::uint8_t* keep)
{
    std::size_t total = 0;
    for (;;) {
        TW_IMAGEMEMXFER strip{};
        strip.Memory = {TWMF_APPOWNS | TWMF_POINTER, TW_UINT32(buffer.size()), buffer.data()};
        TW_UINT16 rc = source.call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
        if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE) return 0;
        if (keep) std::memcpy(keep + total, buffer.data(), strip.BytesWritten);
        total += strip.BytesWritten;
        if (rc == TWRC_XFERDONE) return total;
    }
}

TW_UINT32 stripLength(const TW_IMAGEINFO& info)
{
    TW_UINT32 row = TW_UINT32(info.ImageWidth) * 3;
    row += row % 4;
    return row * std::max<TW_UINT32>(1, kStripBytes / row);
}

// The page as the data source delivers it, read once by memory transfer and
// kept for the reference tools: RGB rows (5100 pixels make 15300 bytes, no
// padding), and the same as a PPM file.
struct Page {
    TW_IMAGEINFO info{};
    std::vector<std::uint8_t> rgb;
    std::string ppm;

    Page()
    {
        auto source = openSource();
        if (!source || !scan(*source, TWSX_MEMORY, 600, info)) std::abort();
        rgb.resize(std::size_t(info.ImageWidth) * 3 * std::size_t(info.ImageLength));
        std::vector<std::uint8_t> buffer(stripLength(info));
        if (memoryTransfer(*source, buffer, rgb.data()) != rgb.size()) std::abort();
        finish(*source);
        ppm = (gScratch / "page.ppm").string();
        std::ofstream out(ppm, std::ios::binary);
        out << "P6\n" << info.ImageWidth << ' ' << info.ImageLength << "\n255\n";
        out.write(reinterpret_cast<const char*>(rgb.data()), std::streamsize(rgb.size()));
    }
};

Page& page()
{
    static Page instance;
    return instance;
}

void BM_FileTransfer(benchmark::State& state)
{
    auto format = TW_UINT16(state.range(0));
    auto source = openSource();
    if (!source) return state.SkipWithError("cannot open the data source");
    std::string target = (gScratch / "transfer.out").string();
    for (auto _ : state) {
        state.PauseTiming();
        TW_IMAGEINFO info{};
        bool ready = scan(*source, TWSX_FILE2, 600, info) && setupFile(*source, target, format);
        state.ResumeTiming();
        if (!ready || source->call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr) != TWRC_XFERDONE)
            return state.SkipWithError("file transfer failed");
        state.PauseTiming();
        state.counters["MB"] = double(std::filesystem::file_size(target)) / 1e6;
        finish(*source);
        state.ResumeTiming();
    }
}

// A native transfer hands the client the whole TIFF in one handle; beside
// File/TIFF/ours it shows what the handle costs over writing the file.
void BM_NativeTiff(benchmark::State& state)
{
    auto source = openSource();
    if (!source) return state.SkipWithError("cannot open the data source");
    for (auto _ : state) {
        state.PauseTiming();
        TW_IMAGEINFO info{};
        bool ready = scan(*source, TWSX_NATIVE, 600, info);
        state.ResumeTiming();
        TW_HANDLE handle = nullptr;
        if (!ready || source->call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle) != TWRC_XFERDONE)
            return state.SkipWithError("native transfer failed");
        state.PauseTiming();
        state.counters["MB"] = double(DataSourceManager::handleSize(handle).value_or(0)) / 1e6;
        DataSourceManager::freeHandle(handle);
        finish(*source);
        state.ResumeTiming();
    }
}

void BM_TiffLibtiffAlone(benchmark::State& state)
{
    const Page& p = page();
    std::string target = (gScratch / "reference.tif").string();
    for (auto _ : state)
        if (!bench::writeTiffWithLibtiff(target, p.rgb.data(), std::uint32_t(p.info.ImageWidth),
                                         std::uint32_t(p.info.ImageLength), 600.0f))
            return state.SkipWithError("libtiff failed");
}

void BM_JpegCjpeg(benchmark::State& state)
{
    page();
    bench::runCommand(state, "cjpeg -quality 85 -sample 1x1 -outfile '" + (gScratch / "reference.jpg").string() + "' '" + page().ppm + "'");
}

void BM_PictImageMagick(benchmark::State& state)
{
    page();
    bench::runCommand(state, "convert '" + page().ppm + "' 'pict:" + (gScratch / "reference.pict").string() + "'");
}

void BM_MemoryTransfer(benchmark::State& state)
{
    auto source = openSource();
    TW_IMAGEINFO info{};
    if (!source || !scan(*source, TWSX_MEMORY, 600, info)) return state.SkipWithError("scan failed");
    std::vector<std::uint8_t> buffer(stripLength(info));
    std::size_t bytes = 0;
    // After its last strip the image may be sent again from the top.
    for (auto _ : state)
        if ((bytes = memoryTransfer(*source, buffer, nullptr)) == 0) return state.SkipWithError("transfer failed");
    state.SetBytesProcessed(std::int64_t(bytes * state.iterations()));
    finish(*source);
}

void BM_MemcpyOfTheSameStrips(benchmark::State& state)
{
    const Page& p = page();
    std::vector<std::uint8_t> buffer(stripLength(p.info));
    for (auto _ : state) {
        for (std::size_t at = 0; at < p.rgb.size(); at += buffer.size()) {
            std::memcpy(buffer.data(), &p.rgb[at], std::min(buffer.size(), p.rgb.size() - at));
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(std::int64_t(p.rgb.size() * state.iterations()));
}

// Peak resident memory of one 1200 dpi colour transfer, in a process of its
// own; from after the scan, so the scan's own buffers do not count.
long kibFromStatus(const char* field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + std::strlen(field), nullptr, 10);
    return -1;
}

int rssChild(const std::string& mode, const std::string& report)
{
    auto source = openSource();
    TW_IMAGEINFO info{};
    TW_UINT16 mechanism = mode == "memory" ? TWSX_MEMORY : mode == "native" ? TWSX_NATIVE : TWSX_FILE2;
    if (!source || !scan(*source, mechanism, 1200, info)) return 2;
    std::ofstream("/proc/self/clear_refs") << "5";  // peak := current
    long before = kibFromStatus("VmRSS:");
    bool done = false;
    if (mode == "memory") {
        std::vector<std::uint8_t> buffer(stripLength(info));
        done = memoryTransfer(*source, buffer, nullptr) != 0;
    } else if (mode == "native") {
        TW_HANDLE handle = nullptr;
        done = source->call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle) == TWRC_XFERDONE;
        std::free(handle);
    } else {
        done = setupFile(*source, (gScratch / ("rss." + mode)).string(), mode == "jpeg" ? TWFF_JFIF : TWFF_TIFF) &&
               source->call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr) == TWRC_XFERDONE;
    }
    long peak = kibFromStatus("VmHWM:");
    finish(*source);
    std::ofstream(report) << before << ' ' << peak << ' ' << info.ImageWidth << ' ' << info.ImageLength;
    return done ? 0 : 3;
}

void BM_PeakRss1200(benchmark::State& state, const char* mode)
{
    std::string report = (gScratch / "rss.report").string();
    for (auto _ : state) {
        std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
        std::string modeEnv = std::string("ZENTARY_BENCH_RSS=") + mode + ":" + report;
        std::vector<std::string> envStrings;
        for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
        envStrings.push_back(modeEnv);
        std::vector<char*> envp;
        for (auto& s : envStrings) envp.push_back(s.data());
        envp.push_back(nullptr);
        char* argv[] = {self.data(), nullptr};
        pid_t pid = 0;
        int status = 0;
        if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()) != 0 ||
            waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return state.SkipWithError("child failed");
        long before = 0, peak = 0, width = 0, height = 0;
        std::ifstream(report) >> before >> peak >> width >> height;
        double image = double(width) * double(height) * 4 / 1048576.0;  // the offscreen image, ARGB
        state.counters["image_MiB"] = image;
        state.counters["before_MiB"] = double(before) / 1024;
        state.counters["peak_MiB"] = double(peak) / 1024;
        state.counters["over_image_MiB"] = double(peak - before) / 1024 - image;
    }
}

}  // namespace

BENCHMARK(BM_FileTransfer)->Name("File/TIFF/ours")->Arg(TWFF_TIFF)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(BM_NativeTiff)->Name("Native/TIFF/ours")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(BM_TiffLibtiffAlone)->Name("File/TIFF/libtiff")->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_FileTransfer)->Name("File/JPEG/ours")->Arg(TWFF_JFIF)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(BM_JpegCjpeg)->Name("File/JPEG/cjpeg")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(BM_FileTransfer)->Name("File/PICT/ours")->Arg(TWFF_PICT)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(BM_PictImageMagick)->Name("File/PICT/ImageMagick")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_MemoryTransfer)->Name("Memory/ours")->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(BM_MemcpyOfTheSameStrips)->Name("Memory/memcpy")->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK_CAPTURE(BM_PeakRss1200, file_tiff, "tiff")->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);
BENCHMARK_CAPTURE(BM_PeakRss1200, file_jpeg, "jpeg")->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);
BENCHMARK_CAPTURE(BM_PeakRss1200, memory, "memory")->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);
BENCHMARK_CAPTURE(BM_PeakRss1200, native_tiff, "native")->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

int main(int argc, char** argv)
{
    // The child of a peak-memory measurement works in its parent's folder.
    if (const char* child = std::getenv("ZENTARY_BENCH_RSS")) {
        std::string spec = child;
        std::string report = spec.substr(spec.find(':') + 1);
        gScratch = std::filesystem::path(report).parent_path();
        return rssChild(spec.substr(0, spec.find(':')), report);
    }
    gScratch = std::filesystem::temp_directory_path() / ("bench_transfers-" + std::to_string(::getpid()));
    std::filesystem::create_directories(gScratch);
    setenv("TMPDIR", gScratch.c_str(), 1);
    setenv("XDG_CONFIG_HOME", gScratch.c_str(), 1);
    setenv("ZENTARY_SCANNER", "emulator", 1);
    setenv("ZENTARY_UI", "headless", 1);
    unsetenv("ZENTARY_NATIVE");
    const zentary::bench::ProcessResources before;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    zentary::bench::reportResources(before);
    std::filesystem::remove_all(gScratch);
    return 0;
}
