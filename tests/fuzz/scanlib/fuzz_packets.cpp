// The scanner's whole bulk-in stream comes from the input: the reply to the
// start command, then whatever packets follow. A scan job runs over it to its
// end; it must neither read past a buffer nor hang, and its file must end up
// complete or gone.
#include "scanlib/ScanThread.h"

#include "fuzz/FuzzScratch.h"

#include <cstring>
#include <string>
#include <unistd.h>

namespace {

using namespace zentary;

// The first input byte picks the packet size and where transfers end.
struct FuzzPipes : UsbPipes {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t pos = 0;
    std::uint16_t packet;
    std::size_t chunk;
    int timeouts = 0;
    int open(std::uint16_t* out, std::uint16_t* in) override
    {
        *out = 512;
        *in = packet;
        return kUSBNoErr;
    }
    void close() override {}
    int writePipe(const std::uint8_t*, std::uint32_t, std::uint32_t) override { return kUSBNoErr; }
    int readPipe(std::uint8_t* out, std::uint32_t want, std::uint32_t* got, std::uint32_t, std::uint32_t) override
    {
        *got = 0;
        if (pos >= size) {
            ++timeouts;
            return kUSBErrTimeout;
        }
        std::size_t n = std::min<std::size_t>({want, size - pos, chunk});
        std::memcpy(out, data + pos, n);
        pos += n;
        *got = std::uint32_t(n);
        return kUSBNoErr;
    }
};

struct Parent : ScanThreadParent {
    bool done = false;
    void setServer(ScanThread*, std::int32_t) override {}
    void setScanProgress(float) override {}
    void scanDone(int) override { done = true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1) return 0;
    auto pipes = std::make_unique<FuzzPipes>();
    static constexpr std::uint16_t kPackets[] = {8, 64, 512, 1024};
    pipes->packet = kPackets[data[0] & 3];
    pipes->chunk = (data[0] >> 2) ? std::size_t(data[0] >> 2) * 37 : SIZE_MAX;
    pipes->data = data + 1;
    pipes->size = size - 1;
    FuzzPipes* raw = pipes.get();
    USBInterface interface(std::move(pipes));
    if (interface.open() != kUSBNoErr) return 0;

    static const std::string path = (fuzz::scratchDirectory() / "scan.raw").string();
    ::unlink(path.c_str());
    RunLoop loop;
    Parent parent;
    {
        ScanThread thread(&parent, kScanThreadSignature, &interface, loop);
        if (thread.startScanToFile(path) == 0) {
            // Every step consumes input or a time-out; two time-outs end any job.
            loop.runUntil([&] { return parent.done || raw->timeouts > 4; },
                          RunLoop::Clock::now() + std::chrono::seconds(20));
            if (!parent.done) __builtin_trap();
        }
    }
    ::unlink(path.c_str());
    return 0;
}
