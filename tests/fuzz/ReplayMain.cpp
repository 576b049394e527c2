// Outside the fuzz build each fuzzer is linked with this main instead of
// libFuzzer and replays the files it is given: the seeds, and every input that
// once crashed it, run in the ordinary and sanitizer builds as well.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
        std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
        // As under libFuzzer, even an empty input comes at a valid address.
        bytes.push_back(0);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size() - 1);
    }
    std::printf("%d inputs replayed\n", argc - 1);
    return 0;
}
