// Shared helpers of the scanner library tests: an engine loop thread's
// notifications, raw file paths and a device session driven from that thread.
#pragma once

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "scanlib/ScanDevice.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zentary::test {

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
