// Shared helpers of the scanner library tests: a scripted device at the
// transport seam, an engine loop thread's notifications and raw file paths.
#pragma once

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "scanlib/RawFile.h"
#include "scanlib/ScanDevice.h"
#include "scanlib/usb/UsbTransport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zentary::test {

// Plays device messages in order; each message ends a transfer.
struct ScriptedPipes : UsbPipes {
    std::deque<std::vector<std::uint8_t>> messages;
    std::vector<std::vector<std::uint8_t>> written;
    std::vector<std::uint32_t> readRequests;
    std::uint16_t inSize = 64;

    int open(std::uint16_t* out, std::uint16_t* in) override
    {
        *out = 512;
        *in = inSize;
        return kUSBNoErr;
    }
    void close() override {}
    int writePipe(const std::uint8_t* data, std::uint32_t size, std::uint32_t) override
    {
        written.emplace_back(data, data + size);
        return kUSBNoErr;
    }
    int readPipe(std::uint8_t* data, std::uint32_t size, std::uint32_t* received, std::uint32_t, std::uint32_t) override
    {
        readRequests.push_back(size);
        *received = 0;
        if (messages.empty()) return kUSBErrTimeout;
        auto& front = messages.front();
        std::uint32_t n = std::min<std::uint32_t>(size, std::uint32_t(front.size()));
        std::memcpy(data, front.data(), n);
        front.erase(front.begin(), front.begin() + n);
        if (front.empty()) messages.pop_front();
        *received = n;
        return kUSBNoErr;
    }
};

inline std::vector<std::uint8_t> words(std::initializer_list<std::uint32_t> values)
{
    std::vector<std::uint8_t> bytes;
    for (auto v : values) bytes.insert(bytes.end(), {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)});
    return bytes;
}

// Collects notifications of a private centre, posted on any thread.
struct NotificationLog {
    explicit NotificationLog(NotificationCenter& center) : mCenter(center)
    {
        for (const char* name : {"ScanCompletedNotification", "ScanAbortedNotification"})
            mTokens.push_back(center.addObserver(name, [this, name] {
                std::lock_guard<std::mutex> guard(mMutex);
                mNames.emplace_back(name);
                mChanged.notify_all();
            }));
    }
    ~NotificationLog()
    {
        for (auto token : mTokens) mCenter.removeObserver(token);
    }
    // The first notification, waiting at most `bound`; "" when none came.
    std::string wait(std::chrono::milliseconds bound = std::chrono::seconds(20))
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, bound, [this] { return !mNames.empty(); });
        return mNames.empty() ? std::string() : mNames.front();
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> guard(mMutex);
        return mNames.size();
    }
    NotificationCenter& mCenter;
    std::vector<NotificationCenter::Token> mTokens;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::string> mNames;
};

// A fresh path in the temporary directory that does not exist yet.
inline std::string tempRawPath(const char* tag)
{
    static int serial = 0;
    std::string dir = ::getenv("TMPDIR") ? ::getenv("TMPDIR") : "/tmp";
    std::string path = dir + "/zentary-test-" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(++serial) + ".raw";
    ::unlink(path.c_str());
    return path;
}

inline bool fileExists(const std::string& path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

// A scan device driven from an engine loop thread, as the data source drives
// it; closed, and its raw file removed, at the end.
struct DeviceSession {
    LoopThread engine{"engine"};
    NotificationCenter center;
    NotificationLog log{center};
    std::unique_ptr<ScanDevice> device;
    std::string path = tempRawPath("device");

    ~DeviceSession() { close(); }
    // Runs `fn` on the engine's loop thread, as the engine would.
    template <typename Fn>
    auto on(Fn fn)
    {
        return callOn(engine.loop(), fn);
    }
    void openSession()
    {
        ASSERT_EQ(on([&] { return device->openSession(); }), 0);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!on([&] { return device->isSessionOpen(); }) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_TRUE(on([&] { return device->isSessionOpen(); }));
    }
    // Lock, configure and start; returns startScanWithCrop's result.
    int start(ScanRect crop, int color = kColorTypeGray, int dpi = 150)
    {
        return on([&] {
            if (int r = device->lockScanner()) return r;
            device->setColorType(color);
            device->setResolution(dpi);
            device->setOutputFile(path);
            return device->startScanWithCrop(crop);
        });
    }
    void close()
    {
        on([&] {
            if (device) device->closeSession();
            device.reset();
        });
        ::unlink(path.c_str());
    }
};

}  // namespace zentary::test
