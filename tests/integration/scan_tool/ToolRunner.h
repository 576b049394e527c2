// Runs zentary-scan as a user does, one process per case, and decodes what
// it wrote with decoders that share no code with it.
#pragma once

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace zentary::test {

struct ToolRun {
    int exitCode = -1;  // 128 + signal when killed
    std::string out;
    std::string err;
};

// Runs the tool in `dir` with `args`; `env` entries NAME=VALUE are added.
// With `interruptAfterMs` > 0 the tool gets SIGINT that long after start.
ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env = {}, int interruptAfterMs = 0);

struct DecodedImage {
    int width = 0;
    int height = 0;
    int channels = 0;  // 1 gray, 3 RGB
    std::vector<unsigned char> pixels;
    unsigned char at(int x, int y, int c) const { return pixels[(std::size_t(y) * width + x) * channels + c]; }
};

// libtiff, libjpeg, and ImageMagick's convert for PICT; an empty image on failure.
DecodedImage decodeTiffFile(const std::filesystem::path& file);
DecodedImage decodeJpegFile(const std::filesystem::path& file);
DecodedImage decodePictFile(const std::filesystem::path& file, const std::filesystem::path& scratch);

// Entries of `dir` other than those named in `keep`: what a failed run left behind.
std::vector<std::string> strayFiles(const std::filesystem::path& dir, const std::vector<std::string>& keep = {});

}  // namespace zentary::test
