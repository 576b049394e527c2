// A letter page through the whole library, emulator unthrottled: from
// startScan to the completion notification, in MB/s of raw file written.
#include "emulator/EmulatorTransport.h"
#include "scanlib/ScanDevice.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <unistd.h>

namespace zentary {
namespace {

void scanLetterPage(benchmark::State& state)
{
    const int dpi = int(state.range(0));
    const bool color = state.range(1) != 0;
    LoopThread engine("engine");
    NotificationCenter center;
    std::mutex mutex;
    std::condition_variable cv;
    int finished = 0;
    auto token = center.addObserver(sScanCompletedNotification, [&] {
        std::lock_guard<std::mutex> guard(mutex);
        ++finished;
        cv.notify_all();
    });
    auto model = std::make_shared<ScannerModel>();
    std::unique_ptr<ScanDevice> device;
    std::string dir = ::getenv("TMPDIR") ? ::getenv("TMPDIR") : "/tmp";
    std::string path = dir + "/zentary-bench-" + std::to_string(::getpid()) + ".raw";
    ::unlink(path.c_str());
    callOn(engine.loop(), [&] {
        device = ScanDevice::scanDeviceWithUSBDevice(kScannerProductID,
                                                     std::make_unique<USBDevice>(makeEmulatorDevice(model)), center);
        device->openSession();
    });
    while (!callOn(engine.loop(), [&] { return device->isSessionOpen(); })) usleep(1000);
    callOn(engine.loop(), [&] {
        device->lockScanner();
        device->setResolution(dpi);
        device->setColorType(color ? kColorTypeColor : kColorTypeGray);
        device->setOutputFile(path);
    });
    const std::int64_t pageBytes = std::int64_t(8.5 * dpi) * std::int64_t(11 * dpi) * (color ? 4 : 1) + 32;
    for (auto _ : state) {
        int result = callOn(engine.loop(), [&] { return device->startScanWithCrop({0, 0, 8.5f, 11.0f}); });
        if (result != 0) {
            state.SkipWithError("scan did not start");
            break;
        }
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return finished > 0; });
        finished = 0;
        lock.unlock();
        state.PauseTiming();
        ::unlink(path.c_str());
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * pageBytes);
    state.counters["MB/s"] = benchmark::Counter(double(pageBytes) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    callOn(engine.loop(), [&] {
        device->closeSession();
        device.reset();
    });
    center.removeObserver(token);
    ::unlink(path.c_str());
}

BENCHMARK(scanLetterPage)
    ->ArgNames({"dpi", "color"})
    ->Args({600, 0})
    ->Args({600, 1})
    ->Args({1200, 0})
    ->Args({1200, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zentary

BENCHMARK_MAIN();
