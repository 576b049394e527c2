#include "ToolRunner.h"

#include <fcntl.h>
#include <jpeglib.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace zentary::test {

namespace {

std::string slurp(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env, int interruptAfterMs)
{
    const char* tool = std::getenv("ZENTARY_SCAN_TOOL");
    ToolRun run;
    if (!tool) {
        run.err = "ZENTARY_SCAN_TOOL is not set";
        return run;
    }
    std::filesystem::path logs = std::filesystem::temp_directory_path();
    std::string outPath = (logs / ("zst-out-" + std::to_string(getpid()))).string();
    std::string errPath = (logs / ("zst-err-" + std::to_string(getpid()))).string();
    pid_t child = fork();
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || err < 0 || chdir(dir.c_str()) != 0) _exit(127);
        dup2(out, 1);
        dup2(err, 2);
        for (const std::string& entry : env) putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> argv{const_cast<char*>(tool)};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(tool, argv.data());
        _exit(127);
    }
    if (interruptAfterMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(interruptAfterMs));
        kill(child, SIGINT);
    }
    int status = 0;
    waitpid(child, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = slurp(outPath);
    run.err = slurp(errPath);
    std::filesystem::remove(outPath);
    std::filesystem::remove(errPath);
    return run;
}

DecodedImage decodeTiffFile(const std::filesystem::path& file)
{
    DecodedImage image;
    TIFF* tiff = TIFFOpen(file.c_str(), "r");
    if (!tiff) return image;
    std::uint32_t w = 0, h = 0;
    std::uint16_t spp = 1, bps = 8;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bps);
    if (bps == 8 && (spp == 1 || spp == 3) && TIFFScanlineSize(tiff) == tmsize_t(w) * spp) {
        image.width = int(w);
        image.height = int(h);
        image.channels = spp;
        image.pixels.resize(std::size_t(w) * h * spp);
        for (std::uint32_t y = 0; y < h; ++y)
            if (TIFFReadScanline(tiff, image.pixels.data() + std::size_t(y) * w * spp, y) < 0) image = {};
    }
    TIFFClose(tiff);
    return image;
}

DecodedImage decodeJpegFile(const std::filesystem::path& file)
{
    DecodedImage image;
    FILE* in = std::fopen(file.c_str(), "rb");
    if (!in) return image;
    jpeg_decompress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&info);
    jpeg_stdio_src(&info, in);
    if (jpeg_read_header(&info, TRUE) == JPEG_HEADER_OK) {
        jpeg_start_decompress(&info);
        image.width = int(info.output_width);
        image.height = int(info.output_height);
        image.channels = info.output_components;
        image.pixels.resize(std::size_t(image.width) * image.height * image.channels);
        while (info.output_scanline < info.output_height) {
            JSAMPROW row = image.pixels.data() + std::size_t(info.output_scanline) * image.width * image.channels;
            jpeg_read_scanlines(&info, &row, 1);
        }
        jpeg_finish_decompress(&info);
    }
    jpeg_destroy_decompress(&info);
    std::fclose(in);
    return image;
}

DecodedImage decodePictFile(const std::filesystem::path& file, const std::filesystem::path& scratch)
{
    DecodedImage image;
    std::filesystem::path ppm = scratch / (file.filename().string() + ".ppm");
    std::string command = "convert '" + file.string() + "' -depth 8 'ppm:" + ppm.string() + "' 2>/dev/null";
    if (std::system(command.c_str()) != 0) return image;
    std::string bytes = slurp(ppm);
    std::filesystem::remove(ppm);
    std::istringstream in(bytes);
    std::string magic;
    int maxValue = 0;
    in >> magic >> image.width >> image.height >> maxValue;
    in.get();
    if (magic != "P6" || maxValue != 255) return {};
    image.channels = 3;
    std::size_t size = std::size_t(image.width) * image.height * 3;
    std::size_t offset = std::size_t(in.tellg());
    if (bytes.size() < offset + size) return {};
    image.pixels.assign(bytes.begin() + long(offset), bytes.begin() + long(offset + size));
    return image;
}

std::vector<std::string> strayFiles(const std::filesystem::path& dir, const std::vector<std::string>& keep)
{
    std::vector<std::string> stray;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string name = entry.path().filename().string();
        bool kept = false;
        for (const std::string& k : keep) kept |= k == name;
        if (!kept) stray.push_back(name);
    }
    return stray;
}

}  // namespace zentary::test
