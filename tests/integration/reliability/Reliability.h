// What the reliability suites share: a clean room for each run (temporary
// folder, configuration, user-interface log, the emulator's lock file), the
// process's own resource counts, a watchdog that turns a hang into a loud
// failure, and a probe that asks the loaded source which TWAIN state it is in
// using only triplets that change nothing.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "support/SourceTest.h"

namespace zentary::reliability {

using namespace twain;
using namespace std::chrono_literals;

inline int entryCount(const std::filesystem::path& directory)
{
    int count = 0;
    std::error_code ignored;
    for (auto it = std::filesystem::directory_iterator(directory, ignored); it != std::filesystem::directory_iterator();
         it.increment(ignored))
        ++count;
    return count;
}

inline int fdCount() { return entryCount("/proc/self/fd"); }

// What the process holds; compared before and after each run.
struct Resources {
    int fds = 0;
    int threads = 0;
    int tempFiles = 0;
    bool operator==(const Resources&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Resources& r)
{
    return out << "{fds " << r.fds << ", threads " << r.threads << ", temporary files " << r.tempFiles << "}";
}

// Aborts the process, naming the run, when a run outlasts its bound: a hang
// must fail the suite, not stall CI until ctest kills it without a word.
class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds bound) : mWhat(std::move(what))
    {
        mThread = std::thread([this, bound] {
            std::unique_lock<std::mutex> lock(mMutex);
            if (!mDone.wait_for(lock, bound, [this] { return mFinished; })) {
                std::fprintf(stderr, "HANG: %s did not finish within %lld s\n", mWhat.c_str(),
                             static_cast<long long>(bound.count()));
                std::abort();
            }
        });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mFinished = true;
        }
        mDone.notify_all();
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string mWhat;
    std::mutex mMutex;
    std::condition_variable mDone;
    bool mFinished = false;
    std::thread mThread;
};

// A clean room: the source's temporary folder, configuration and log live in
// scratch folders of their own, so that anything left behind is counted.
class CleanRoom : public ::testing::Test {
protected:
    // ThreadSanitizer starts a thread of its own at a process's first
    // thread; one made and joined up front keeps it out of every count.
    CleanRoom() { std::thread([] {}).join(); }

    test::ScratchDir mTemp;    // TMPDIR: raw scans, default targets
    test::ScratchDir mHome;    // configuration, the log, the emulator's lock file
    test::ScratchDir mUser;    // the user's own files
    test::ScopedEnv mTmpEnv{"TMPDIR", mTemp.path().string()};
    test::ScopedEnv mConfig{"XDG_CONFIG_HOME", (mHome.path() / "config").string()};
    test::ScopedEnv mLog{"ZENTARY_UI_LOG", (mHome.path() / "ui.log").string()};
    test::ScopedEnv mUi{"ZENTARY_UI", "headless"};
    test::ScopedEnv mBundle{"ZENTARY_BUNDLE", std::nullopt};
    test::ScopedEnv mFreeSpace{"ZENTARY_FAKE_FREE_SPACE", std::nullopt};
    test::ScopedEnv mNative{"ZENTARY_NATIVE", std::nullopt};
    test::ScopedEnv mScanner{"ZENTARY_SCANNER", "emulator"};

    std::filesystem::path lockFile() const { return mHome.path() / "scanner.locked"; }
    // The emulator with `options` and the lock file; rows come in small
    // packets so that first, middle and last row are different packets.
    std::string scanner(const std::string& options) const
    {
        std::string text = "emulator:rows=10,lockfile=" + lockFile().string();
        return options.empty() ? text : text + "," + options;
    }

    Resources resources() const { return {fdCount(), test::threadCount(), entryCount(mTemp.path())}; }

    // Threads and descriptors of the source wind down as it unloads; give
    // them a moment before calling anything a leak.
    Resources settledResources(const Resources& expected) const
    {
        Resources now = resources();
        for (int i = 0; i < 40 && !(now == expected); ++i) {
            std::this_thread::sleep_for(25ms);
            now = resources();
        }
        return now;
    }

    std::string uiLog() const
    {
        std::string all;
        for (const auto& line : test::readLines(mHome.path() / "ui.log")) all += line + "\n";
        return all;
    }
    void clearLog() const { std::filesystem::remove(mHome.path() / "ui.log"); }

    std::unique_ptr<DataSourceManager> load() const { return test::loadSource(); }

    // Open, 150 dpi, a one-inch square frame: 150 rows of 150 pixels.
    static void openSmall(DataSourceManager& source)
    {
        EXPECT_EQ(source.open(), TWRC_SUCCESS);
        EXPECT_EQ(test::setOneValue(source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(150)), TWRC_SUCCESS);
        TW_IMAGELAYOUT layout{};
        layout.Frame = {{0, 0}, {0, 0}, {1, 0}, {1, 0}};
        layout.DocumentNumber = layout.PageNumber = layout.FrameNumber = 0xFFFFFFFF;
        EXPECT_EQ(source.call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout), TWRC_SUCCESS);
    }
    std::unique_ptr<DataSourceManager> openSmall() const
    {
        auto source = load();
        if (source) openSmall(*source);
        return source;
    }
};

inline constexpr TW_UINT16 kRows = 150;

// The TWAIN state as the source shows it to a client (3: no session), or -1
// when its answers contradict each other. Only reading triplets are used.
inline int probeState(DataSourceManager& source)
{
    TW_EVENT event{nullptr, 0xABCD};
    TW_UINT16 eventRc = source.call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
    TW_UINT16 count = 0xBEEF;
    TW_UINT16 pendingRc = test::pending(source, MSG_GET, &count);
    TW_UINT32 group = 0;
    TW_UINT16 groupRc = source.call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group);
    TW_SETUPMEMXFER sizes{};
    TW_UINT16 sizesRc = source.call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes);
    source.conditionCode();  // leave no code behind for the next step

    bool enabled = eventRc == TWRC_NOTDSEVENT, ready = pendingRc == TWRC_SUCCESS;
    bool session = enabled || groupRc == TWRC_SUCCESS;
    if (enabled != (event.TWMessage == MSG_NULL) || (!enabled && eventRc != TWRC_FAILURE)) return -1;
    if (!session) return pendingRc == TWRC_FAILURE && sizesRc == TWRC_FAILURE ? 3 : -1;
    // With a session the count is always written: 1 when a transfer is pending, else 0.
    if (ready != (count == 1) || (!ready && (pendingRc != TWRC_FAILURE || count != 0))) return -1;
    if (ready && !enabled) return -1;
    if (ready) {
        if (sizesRc == TWRC_SUCCESS && groupRc == TWRC_SUCCESS) return 6;
        return sizesRc == TWRC_FAILURE && groupRc == TWRC_FAILURE ? 7 : -1;
    }
    if (groupRc != TWRC_SUCCESS || sizesRc != TWRC_SUCCESS || group != DG_IMAGE) return -1;
    return enabled ? 5 : 4;
}

}  // namespace zentary::reliability
