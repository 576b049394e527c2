// The backend through its C entry points, loaded as the SANE dll loader
// loads it: dlopen of libsane-zentary.so.1 and the sane_zentary_* symbols.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/select.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "SaneTestSupport.h"

namespace zentary::test {
namespace {

// The entry points, each found under the backend's own prefix.
#define SANE_ENTRY_POINTS(X)                                                                                      \
    X(init) X(exit) X(get_devices) X(open) X(close) X(get_option_descriptor) X(control_option) X(get_parameters) \
        X(start) X(read) X(cancel) X(set_io_mode) X(get_select_fd)

struct Api {
#define SANE_FIELD(name) decltype(&sane_##name) name;
    SANE_ENTRY_POINTS(SANE_FIELD)
#undef SANE_FIELD
};

class SaneBackendTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sScratch = new ScratchDir;
        std::filesystem::create_directories(sScratch->path() / "scans");
        writeSaneConfig(sScratch->path());
        setenv("SANE_CONFIG_DIR", sScratch->path().c_str(), 1);
        setenv("TMPDIR", (sScratch->path() / "scans").c_str(), 1);
        sLibrary = dlopen((saneDir() / "libsane-zentary.so.1").c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(sLibrary, nullptr) << dlerror();
#define SANE_BIND(name)                                                            \
    api.name = reinterpret_cast<decltype(api.name)>(dlsym(sLibrary, "sane_zentary_" #name)); \
    ASSERT_NE(api.name, nullptr) << #name;
        SANE_ENTRY_POINTS(SANE_BIND)
#undef SANE_BIND
        SANE_Int version = 0;
        ASSERT_EQ(api.init(&version, nullptr), SANE_STATUS_GOOD);
        ASSERT_EQ(SANE_VERSION_MAJOR(version), SANE_CURRENT_MAJOR);
    }
    static void TearDownTestSuite()
    {
        if (api.exit) api.exit();
        if (sLibrary) dlclose(sLibrary);
        delete sScratch;
    }

    // Opens the emulator with `options` (the text after "emulator:").
    SANE_Handle openEmulator(const std::string& options = {})
    {
        ScopedEnv scanner("ZENTARY_SCANNER", options.empty() ? "emulator" : "emulator:" + options);
        SANE_Handle handle = nullptr;
        EXPECT_EQ(api.open("emulator", &handle), SANE_STATUS_GOOD);
        return handle;
    }

    static SANE_Status set(SANE_Handle h, SANE_Int option, const void* value)
    {
        return api.control_option(h, option, SANE_ACTION_SET_VALUE, const_cast<void*>(value), nullptr);
    }
    static void setArea(SANE_Handle h, const Area& area)
    {
        SANE_Fixed values[] = {SANE_FIX(area.left), SANE_FIX(area.top), SANE_FIX(area.right), SANE_FIX(area.bottom)};
        for (int i = 0; i < 4; ++i) ASSERT_EQ(set(h, 6 + i, &values[i]), SANE_STATUS_GOOD);
    }
    // Reads to the end; the status that ended the reading.
    static SANE_Status readAll(SANE_Handle h, std::vector<std::uint8_t>* frame)
    {
        std::uint8_t buffer[7919];  // odd on purpose: reads end inside pixels
        for (;;) {
            SANE_Int length = -1;
            SANE_Status status = api.read(h, buffer, sizeof buffer, &length);
            if (status != SANE_STATUS_GOOD) {
                EXPECT_EQ(length, 0);
                return status;
            }
            frame->insert(frame->end(), buffer, buffer + length);
        }
    }
    static bool scanDirEmpty() { return std::filesystem::is_empty(sScratch->path() / "scans"); }
    static auto shape(const SANE_Parameters& p)
    {
        return std::tuple(p.format, p.pixels_per_line, p.lines, p.bytes_per_line);
    }

    static inline Api api{};
    static inline void* sLibrary = nullptr;
    static inline ScratchDir* sScratch = nullptr;
};

enum { kMode = 2, kResolution = 3, kPreview = 4, kTlX = 6, kBrX = 8 };

TEST_F(SaneBackendTest, BadInputGivesStatusCodes)
{
    SANE_Handle h = openEmulator();
    SANE_Int notBool = 2, minusOne = -1, dpi600 = 600;
    char unknownMode[16] = "Lineart", ambiguous[16] = "";
    char unterminated[16];
    std::memset(unterminated, 'C', sizeof unterminated);
    struct Case {
        const char* what;
        SANE_Int option;
        SANE_Action action;
        void* value;
        SANE_Status status;
    } cases[] = {
        {"bool out of range", kPreview, SANE_ACTION_SET_VALUE, &notBool, SANE_STATUS_INVAL},
        {"bool below range", kPreview, SANE_ACTION_SET_VALUE, &minusOne, SANE_STATUS_INVAL},
        {"unknown mode", kMode, SANE_ACTION_SET_VALUE, unknownMode, SANE_STATUS_INVAL},
        {"empty mode is a prefix of every mode", kMode, SANE_ACTION_SET_VALUE, ambiguous, SANE_STATUS_INVAL},
        {"mode without its NUL", kMode, SANE_ACTION_SET_VALUE, unterminated, SANE_STATUS_INVAL},
        {"null value", kResolution, SANE_ACTION_GET_VALUE, nullptr, SANE_STATUS_INVAL},
        {"option past the end", 10, SANE_ACTION_GET_VALUE, &dpi600, SANE_STATUS_INVAL},
        {"negative option", -1, SANE_ACTION_GET_VALUE, &dpi600, SANE_STATUS_INVAL},
        {"group option", 1, SANE_ACTION_GET_VALUE, &dpi600, SANE_STATUS_INVAL},
        {"option count is read-only", 0, SANE_ACTION_SET_VALUE, &dpi600, SANE_STATUS_INVAL},
        {"automatic value", kResolution, SANE_ACTION_SET_AUTO, &dpi600, SANE_STATUS_INVAL},
        {"valid resolution", kResolution, SANE_ACTION_SET_VALUE, &dpi600, SANE_STATUS_GOOD},
    };
    for (const Case& c : cases) EXPECT_EQ(api.control_option(h, c.option, c.action, c.value, nullptr), c.status) << c.what;
    SANE_Int dpi = 0;
    api.control_option(h, kResolution, SANE_ACTION_GET_VALUE, &dpi, nullptr);
    EXPECT_EQ(dpi, 600);  // a refused value left nothing behind
    EXPECT_EQ(api.get_option_descriptor(h, 10), nullptr);

    // Calls out of order, null pointers and handles that are not ours.
    std::uint8_t byte;
    SANE_Int length = 5, fd = -1;
    int notAHandle = 0;
    EXPECT_EQ(api.read(h, &byte, 1, &length), SANE_STATUS_INVAL);  // nothing started
    EXPECT_EQ(length, 0);
    EXPECT_EQ(api.set_io_mode(h, SANE_TRUE), SANE_STATUS_INVAL);
    EXPECT_EQ(api.get_select_fd(h, &fd), SANE_STATUS_INVAL);
    EXPECT_EQ(api.read(h, &byte, 1, nullptr), SANE_STATUS_INVAL);
    EXPECT_EQ(api.read(&notAHandle, &byte, 1, &length), SANE_STATUS_INVAL);
    EXPECT_EQ(api.start(nullptr), SANE_STATUS_INVAL);
    api.cancel(&notAHandle);
    api.close(&notAHandle);
    SANE_Handle other = nullptr;
    EXPECT_EQ(api.open("nonexistent", &other), SANE_STATUS_INVAL);
    EXPECT_EQ(api.open(nullptr, &other), SANE_STATUS_INVAL);
    // No scanner on USB here: a device that vanished since it was listed.
    EXPECT_EQ(api.open("usb", &other), SANE_STATUS_INVAL);
    EXPECT_EQ(api.open("zentary:libusb:001:250", &other), SANE_STATUS_INVAL);
    EXPECT_EQ(api.open("libusb:1:", &other), SANE_STATUS_INVAL);

    // A cancel with nothing running changes nothing; an area thinner than
    // the scanner's step still scans, one step wide.
    api.cancel(h);
    EXPECT_EQ(api.read(h, &byte, 1, &length), SANE_STATUS_INVAL);
    SANE_Fixed left = SANE_FIX(50.8);
    set(h, kTlX, &left);
    set(h, kBrX, &left);
    ASSERT_EQ(api.start(h), SANE_STATUS_GOOD);
    SANE_Parameters p{};
    ASSERT_EQ(api.get_parameters(h, &p), SANE_STATUS_GOOD);
    EXPECT_EQ(p.pixels_per_line, 6);  // one hundredth at 600 dpi
    api.close(h);

    // No fixed number of handles.
    std::vector<SANE_Handle> handles(12);
    for (SANE_Handle& each : handles) each = openEmulator();
    for (SANE_Handle each : handles) EXPECT_NE(each, nullptr);
    for (SANE_Handle each : handles) api.close(each);
}

TEST_F(SaneBackendTest, ValuesAreConstrainedNotRefused)
{
    SANE_Handle h = openEmulator();
    const SANE_Word glassWidth = api.get_option_descriptor(h, kBrX)->constraint.range->max;
    EXPECT_EQ(api.get_option_descriptor(h, kBrX)->constraint.range->quant, SANE_FIX(0.254));
    struct Case {
        const char* what;
        SANE_Int option;
        SANE_Word asked;
        const char* askedText;  // for the mode
        SANE_Word stored;
        const char* storedText;
    } cases[] = {
        {"resolution between two", kResolution, 200, nullptr, 150, nullptr},
        {"resolution below all", kResolution, 75, nullptr, 150, nullptr},
        {"resolution far beyond", kResolution, INT32_MAX, nullptr, 1200, nullptr},
        {"resolution far below", kResolution, INT32_MIN, nullptr, 150, nullptr},
        {"resolution offered", kResolution, 600, nullptr, 600, nullptr},
        {"corner left of the glass", kTlX, SANE_FIX(-1.0), nullptr, 0, nullptr},
        {"corner right of the glass", kBrX, SANE_FIX(300.0), nullptr, glassWidth, nullptr},
        {"corner at the glass's edge", kBrX, glassWidth, nullptr, glassWidth, nullptr},
        {"corner between two steps", kTlX, SANE_FIX(10.0), nullptr, SANE_FIX(9.906), nullptr},
        {"corner far beyond", kTlX, INT32_MAX, nullptr, glassWidth, nullptr},
        {"mode in lower case", kMode, 0, "gray", 0, "Gray"},
        {"mode by its prefix", kMode, 0, "COL", 0, "Color"},
        {"mode as offered", kMode, 0, "Gray", 0, "Gray"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        char value[16] = {};
        if (c.askedText) std::strncpy(value, c.askedText, sizeof value - 1);
        else std::memcpy(value, &c.asked, sizeof c.asked);
        SANE_Int info = 0;
        ASSERT_EQ(api.control_option(h, c.option, SANE_ACTION_SET_VALUE, value, &info), SANE_STATUS_GOOD);
        // The value the backend took is handed back, flagged when it differs.
        char stored[16] = {};
        ASSERT_EQ(api.control_option(h, c.option, SANE_ACTION_GET_VALUE, stored, nullptr), SANE_STATUS_GOOD);
        bool exact;
        if (c.askedText) {
            EXPECT_STREQ(stored, c.storedText);
            EXPECT_STREQ(value, c.storedText);
            exact = std::strcmp(c.askedText, c.storedText) == 0;
        } else {
            SANE_Word word, written;
            std::memcpy(&word, stored, sizeof word);
            std::memcpy(&written, value, sizeof written);
            EXPECT_NEAR(word, c.stored, 2);
            EXPECT_EQ(written, word);
            exact = c.asked == word;
        }
        EXPECT_EQ(bool(info & SANE_INFO_INEXACT), !exact) << info;
        EXPECT_TRUE(info & SANE_INFO_RELOAD_PARAMS);
        // What was stored is exact when set again.
        ASSERT_EQ(api.control_option(h, c.option, SANE_ACTION_SET_VALUE, stored, &info), SANE_STATUS_GOOD);
        EXPECT_FALSE(info & SANE_INFO_INEXACT);
    }
    api.close(h);
}

TEST_F(SaneBackendTest, ConfigurationProblemsAreLogged)
{
    struct Case {
        const char* extra;  // lines after the good capabilities line
        const char* logged;
        SANE_Status open;
    } cases[] = {
        {"capabilities /nonexistent/caps\n", "/nonexistent/caps", SANE_STATUS_INVAL},
        {"frobnicate 3\n", "unknown keyword \"frobnicate 3\"", SANE_STATUS_GOOD},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.extra);
        api.exit();
        writeSaneConfig(sScratch->path(), c.extra);
        std::filesystem::path log = sScratch->path() / "stderr";
        int saved = dup(2);
        int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, 2);
        {
            ScopedEnv debugLevel("SANE_DEBUG_ZENTARY", "3");
            ScopedEnv scanner("ZENTARY_SCANNER", "emulator");
            api.init(nullptr, nullptr);
            SANE_Handle h = nullptr;
            EXPECT_EQ(api.open("zentary:emulator", &h), c.open);
            if (h) api.close(h);
        }
        dup2(saved, 2);
        close(saved);
        close(file);
        std::ifstream in(log);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_NE(text.find(c.logged), std::string::npos) << text;
    }
    api.exit();
    writeSaneConfig(sScratch->path());
    api.init(nullptr, nullptr);
}

TEST_F(SaneBackendTest, NonBlockingReadsFollowTheSelectFd)
{
    SANE_Handle h = openEmulator("mbps=5,rows=16");
    setArea(h, {0, 0, 101.6, 127.0});  // 4 x 5 inches, 5.4 MB on the wire
    ASSERT_EQ(api.start(h), SANE_STATUS_GOOD);
    ASSERT_EQ(api.set_io_mode(h, SANE_TRUE), SANE_STATUS_GOOD);
    SANE_Int fd = -1;
    ASSERT_EQ(api.get_select_fd(h, &fd), SANE_STATUS_GOOD);
    SANE_Parameters p{};
    api.get_parameters(h, &p);
    std::vector<std::uint8_t> frame;
    // Small reads: the fd must stay readable while bytes are left over.
    std::vector<std::uint8_t> buffer(4099);
    SANE_Status status = SANE_STATUS_GOOD;
    int emptyReads = 0, dataReads = 0;
    while (status == SANE_STATUS_GOOD) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        timeval wait{10, 0};
        ASSERT_EQ(select(fd + 1, &readable, nullptr, nullptr, &wait), 1) << "no wake-up within 10 s";
        SANE_Int length = 0;
        status = api.read(h, buffer.data(), SANE_Int(buffer.size()), &length);
        frame.insert(frame.end(), buffer.begin(), buffer.begin() + length);
        if (status == SANE_STATUS_GOOD) (length ? dataReads : emptyReads)++;
    }
    EXPECT_EQ(status, SANE_STATUS_EOF);
    ASSERT_EQ(frame.size(), std::size_t(p.bytes_per_line) * std::size_t(p.lines));
    EXPECT_TRUE(isChart(frame.data(), std::uint32_t(p.pixels_per_line), std::uint32_t(p.lines), false, {}, 300));
    // The rows came as the scanner sent them, not in one piece at the end.
    EXPECT_GT(dataReads, 10);
    // A select fd that woke with nothing to read would make frontends spin.
    EXPECT_EQ(emptyReads, 0);
    // At the end it stays readable, and sane_read keeps saying EOF.
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval now{0, 0};
    EXPECT_EQ(select(fd + 1, &readable, nullptr, nullptr, &now), 1);
    SANE_Int length = -1;
    EXPECT_EQ(api.read(h, buffer.data(), 1, &length), SANE_STATUS_EOF);
    api.close(h);
}

TEST_F(SaneBackendTest, DeviceFailuresEndTheFrameWithAnError)
{
    struct Case {
        const char* options;
        std::uint32_t rowsBefore;  // rows delivered before the failure
    } cases[] = {
        {"mbps=1,rows=8,fault=stall@40", 40},
        {"mbps=1,rows=8,fault=disconnect@24", 24},
        {"mbps=1,rows=8,fault=bad-signature@16", 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options);
        SANE_Handle h = openEmulator(c.options);
        char gray[] = "Gray";
        set(h, kMode, gray);
        setArea(h, {0, 0, 50.8, 50.8});
        // A scan that failed before start() returned reports it there; one
        // that fails later, at the read that meets the failure. Which of the
        // two depends on the machine's load, and SANE allows both.
        SANE_Status started = api.start(h);
        ASSERT_TRUE(started == SANE_STATUS_GOOD || started == SANE_STATUS_IO_ERROR) << started;
        if (started == SANE_STATUS_GOOD) {
            SANE_Parameters p{};
            api.get_parameters(h, &p);
            std::vector<std::uint8_t> frame;
            EXPECT_EQ(readAll(h, &frame), SANE_STATUS_IO_ERROR);
            // Streaming: what came before the failure was handed out, and right.
            ASSERT_EQ(frame.size(), std::size_t(p.bytes_per_line) * c.rowsBefore);
            EXPECT_TRUE(isChart(frame.data(), std::uint32_t(p.pixels_per_line), c.rowsBefore, true, {}, 300));
            std::uint8_t byte;
            SANE_Int length = 0;
            EXPECT_EQ(api.read(h, &byte, 1, &length), SANE_STATUS_IO_ERROR);
        }
        api.close(h);
        EXPECT_TRUE(scanDirEmpty());
    }
}

TEST_F(SaneBackendTest, CancelFromAnotherThreadStopsTheScan)
{
    SANE_Handle h = openEmulator("mbps=4");
    ASSERT_EQ(api.start(h), SANE_STATUS_GOOD);  // a whole colour page: about 8 s at this speed
    std::uint8_t buffer[4096];
    SANE_Int length = 0;
    ASSERT_EQ(api.read(h, buffer, sizeof buffer, &length), SANE_STATUS_GOOD);
    auto started = std::chrono::steady_clock::now();
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        api.cancel(h);
    });
    std::vector<std::uint8_t> frame;
    SANE_Status status = readAll(h, &frame);
    canceller.join();
    EXPECT_EQ(status, SANE_STATUS_CANCELLED);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(api.read(h, buffer, sizeof buffer, &length), SANE_STATUS_INVAL);
    EXPECT_TRUE(scanDirEmpty());

    // After the frame, the parameters follow the options again.
    SANE_Int dpi = 150;
    char gray[] = "Gray";
    set(h, kResolution, &dpi);
    set(h, kMode, gray);
    SANE_Parameters p{};
    ASSERT_EQ(api.get_parameters(h, &p), SANE_STATUS_GOOD);
    EXPECT_EQ(shape(p), std::tuple(SANE_FRAME_GRAY, 1275, 1755, 1275));
    char color[] = "Color";
    set(h, kMode, color);

    // The scanner is free again: the next scan runs to its end.
    setArea(h, {0, 0, 12.7, 12.7});
    ASSERT_EQ(api.start(h), SANE_STATUS_GOOD);
    frame.clear();
    EXPECT_EQ(readAll(h, &frame), SANE_STATUS_EOF);
    EXPECT_EQ(frame.size(), 75u * 75u * 3u);

    // A frame under way is promised: its options stay and it cannot be
    // started over; closing in the middle of it neither hangs nor leaves a file.
    setArea(h, {0, 0, 215.9, 297.18});
    ASSERT_EQ(api.start(h), SANE_STATUS_GOOD);
    EXPECT_EQ(set(h, kResolution, &dpi), SANE_STATUS_DEVICE_BUSY);
    EXPECT_EQ(api.start(h), SANE_STATUS_DEVICE_BUSY);
    EXPECT_EQ(api.read(h, buffer, sizeof buffer, &length), SANE_STATUS_GOOD);
    api.close(h);
    EXPECT_TRUE(scanDirEmpty());
}

}  // namespace
}  // namespace zentary::test
