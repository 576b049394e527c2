// A careless client: random sequences of triplets (known and unknown groups,
// argument types and messages, in every state, with random contents in the
// records) against the loaded source and the emulated scanner. Nothing is
// asserted about the answers except that they are possible: a return code
// TWAIN knows, a condition code TWAIN knows, a state that the probes agree
// on and that can follow the one before. Crashes and hangs end the run.
//
// The data are random but well formed in what only the client can vouch
// for: every pointer in a record points into a buffer at least as large as
// the record claims, and file names stay inside the scratch folder. What the
// source reads through them (item types, counts inside the buffer, flags,
// lengths, messages) is anything at all.
//
// In most sequences the client also answers the source's callbacks
// (MSG_XFERREADY, MSG_CLOSEDSREQ) with triplets of its own from inside the
// callback, closing the source now and then: for Image Capture on the
// source's own loop thread, for every other client on the messenger thread,
// at the same time as the sequence goes on. A step that a callback may have
// overlapped proves nothing about states; everything else still holds.
//
// ZENTARY_CLIENT_FUZZ_SEQUENCES and ZENTARY_CLIENT_FUZZ_SEED change the run;
// ZENTARY_CLIENT_FUZZ_TRACE=1 prints every triplet, to replay a finding;
#include <unistd.h>

#include <random>

#include "Reliability.h"

namespace zentary::reliability {
namespace {

struct Triplet {
    TW_UINT32 group;
    TW_UINT16 type;
    TW_UINT16 message;
};

// The triplets a client could mean; random ones are added on top.
const Triplet kKnown[] = {
    {DG_CONTROL, DAT_CAPABILITY, MSG_GET},         {DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT},
    {DG_CONTROL, DAT_CAPABILITY, MSG_GETDEFAULT},  {DG_CONTROL, DAT_CAPABILITY, MSG_SET},
    {DG_CONTROL, DAT_CAPABILITY, MSG_SET},         {DG_CONTROL, DAT_CAPABILITY, MSG_RESET},
    {DG_CONTROL, DAT_CAPABILITY, MSG_QUERYSUPPORT}, {DG_CONTROL, DAT_CAPABILITY, MSG_GETFIRST},
    {DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT},     {DG_CONTROL, DAT_IDENTITY, MSG_GET},
    {DG_CONTROL, DAT_IDENTITY, MSG_OPENDS},        {DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_GET},       {DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET},     {DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET},      {DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_RESET},    {DG_CONTROL, DAT_SETUPFILEXFER2, MSG_GETDEFAULT},
    {DG_CONTROL, DAT_SETUPFILEXFER2, MSG_SET},     {DG_CONTROL, DAT_SETUPFILEXFER2, MSG_GET},
    {DG_CONTROL, DAT_STATUS, MSG_GET},             {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS}, {DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDSUIONLY}, {DG_CONTROL, DAT_XFERGROUP, MSG_GET},
    {DG_CONTROL, DAT_XFERGROUP, MSG_SET},          {DG_IMAGE, DAT_IMAGEINFO, MSG_GET},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET},          {DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET},        {DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET},
    {DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET},         {DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET},
    {DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET},        {DG_IMAGE, DAT_IMAGEINFO, MSG_SET},
};

const TW_UINT16 kCapabilities[] = {ICAP_XRESOLUTION, ICAP_YRESOLUTION, ICAP_PIXELTYPE, ICAP_XFERMECH,
                                   ICAP_IMAGEFILEFORMAT, CAP_INDICATORS, ICAP_PHYSICALWIDTH, CAP_SUPPORTEDCAPS,
                                   ICAP_UNITS, ICAP_BITDEPTH, 0x0000, 0xFFFF, 0x8001};

constexpr int kUnknown = -2;  // a callback's triplets may have overlapped the last probe

// Transitions a client can see between two probes; a scan may finish (5 to
// 6) between any two calls.
bool possible(int from, int to)
{
    if (from == kUnknown || from == to || to == 3) return true;
    switch (from) {
    case 3: return to == 4;
    case 4: return to == 5;
    case 5: return to == 4 || to == 6;
    case 6: return to == 5 || to == 7;
    case 7: return to == 5;
    default: return false;
    }
}

// Random triplets and records; one for the sequence, one for the callbacks,
// which may run at the same time on another thread.
class Generator {
public:
    Generator(std::uint64_t seed, std::filesystem::path user) : mRandom(seed), mUser(std::move(user)) {}

    std::mt19937_64 mRandom;
    std::filesystem::path mUser;
    alignas(8) std::uint8_t mData[2048];        // the triplet's record
    alignas(8) std::uint8_t mContainer[8192];   // what pointers in it point at
    alignas(8) std::uint8_t mMemory[65536];     // memory-transfer strips
    char mName[1026];

    std::uint32_t pick(std::uint32_t n) { return std::uint32_t(mRandom() % n); }
    bool chance(int percent) { return pick(100) < std::uint32_t(percent); }

    void scramble(std::uint8_t* bytes, std::size_t size)
    {
        // Mostly zeros and small numbers, sometimes anything: the source's
        // checks lie at the edges, not in the middle of 2^32.
        int style = int(pick(3));
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = style == 0 ? 0 : style == 1 ? std::uint8_t(pick(4)) : std::uint8_t(mRandom());
    }

    Triplet chooseTriplet()
    {
        Triplet t = kKnown[pick(std::size(kKnown))];
        if (chance(10)) t.group = chance(50) ? TW_UINT32(pick(5)) : TW_UINT32(mRandom());
        if (chance(8)) t.type = TW_UINT16(chance(50) ? pick(0x20) : mRandom());
        if (chance(8)) t.message = TW_UINT16(chance(50) ? pick(0x20) : mRandom());
        if (t.type == DAT_ENTRYPOINT || t.type == DAT_CALLBACK) t.type = DAT_NULL;  // function pointers: the client's word
        return t;
    }

    // Random record contents, with the pointer fields the triplet's record
    // holds made to point at our buffers.
    TW_MEMREF prepare(const Triplet& t)
    {
        if (chance(4)) return nullptr;
        scramble(mData, sizeof mData);
        scramble(mContainer, sizeof mContainer);
        if (t.type == DAT_CAPABILITY) {
            auto* cap = reinterpret_cast<TW_CAPABILITY*>(mData);
            cap->Cap = kCapabilities[pick(std::size(kCapabilities))];
            cap->ConType = chance(90) ? TW_UINT16(TWON_ARRAY + pick(4)) : TW_UINT16(mRandom());
            cap->hContainer = chance(95) ? mContainer : nullptr;
            TW_UINT16 itemType = chance(90) ? TW_UINT16(pick(15)) : TW_UINT16(mRandom());
            std::memcpy(mContainer, &itemType, 2);
            TW_UINT32 count = pick(9);  // every count keeps the items inside the buffer
            std::memcpy(mContainer + 2, &count, 4);
        } else if (t.type == DAT_EVENT) {
            reinterpret_cast<TW_EVENT*>(mData)->pEvent = mContainer;
        } else if (t.type == DAT_USERINTERFACE) {
            auto* ui = reinterpret_cast<TW_USERINTERFACE*>(mData);
            ui->ShowUI = chance(80) ? TW_BOOL(pick(2)) : TW_BOOL(mRandom());
            ui->hParent = chance(50) ? nullptr : mContainer;
        } else if (t.type == DAT_SETUPFILEXFER2 || t.type == DAT_SETUPFILEXFER) {
            static const char* const kNames[] = {"a.tif", "b.jpg", "missing/c.pct", "link.tif", "", "dir"};
            std::string name = (mUser / kNames[pick(std::size(kNames))]).string();
            if (chance(10)) name.clear();
            if (t.type == DAT_SETUPFILEXFER) {
                auto* file = reinterpret_cast<TW_SETUPFILEXFER*>(mData);
                std::memset(file->FileName, 0, sizeof file->FileName);
                std::strncpy(file->FileName, name.c_str(), sizeof file->FileName - 1);
            } else {
                std::memset(mName, 0, sizeof mName);
                std::strncpy(mName, name.c_str(), sizeof mName - 2);
                auto* file = reinterpret_cast<TW_SETUPFILEXFER2*>(mData);
                file->FileName = mName;
                if (chance(70)) file->FileNameType = chance(90) ? TWTY_STR1024 : TWTY_UNI512;
                if (chance(70)) file->Format = TW_UINT16(pick(5));
            }
        } else if (t.type == DAT_IMAGEMEMXFER) {
            auto* block = reinterpret_cast<TW_IMAGEMEMXFER*>(mData);
            block->Memory.TheMem = chance(95) ? mMemory : nullptr;
            block->Memory.Length = chance(50) ? pick(sizeof mMemory + 1) : TW_UINT32(sizeof mMemory);
            if (chance(80)) block->Memory.Flags = TWMF_APPOWNS | (chance(50) ? TWMF_POINTER : TWMF_HANDLE);
        } else if (t.type == DAT_IMAGENATIVEXFER) {
            *reinterpret_cast<TW_HANDLE*>(mData) = nullptr;
        }
        return mData;
    }

    // After the call: what the source handed over belongs to us now.
    void release(const Triplet& t, TW_MEMREF data)
    {
        if (!data) return;
        if (t.type == DAT_CAPABILITY) {
            void* container = reinterpret_cast<TW_CAPABILITY*>(mData)->hContainer;
            if (container && container != mContainer) std::free(container);
        } else if (t.type == DAT_IMAGENATIVEXFER) {
            std::free(*reinterpret_cast<TW_HANDLE*>(mData));
        }
    }
};

// What a client does inside the source's callbacks: a few triplets, a close
// among them more often than chance would have it.
class Callbacks {
public:
    Callbacks(std::uint64_t seed, std::filesystem::path user) : mGenerator(seed, std::move(user)) {}

    void attach(DataSourceManager& source)
    {
        mSource = &source;
        source.onMessage = [this](TW_UINT16 message) { return answer(message); };
    }
    // From now until stop(), callbacks answer with triplets.
    void start() { mActive = true; }
    // Returns once no callback is under way; later ones do nothing.
    void stop()
    {
        mActive = false;
        std::lock_guard<std::mutex> wait(mMutex);
    }
    // Changes whenever a callback starts or ends its triplets: odd while one
    // is under way.
    int activity() const { return mActivity.load(); }

    long callbacks = 0, transfersReady = 0, triplets = 0, closes = 0;

private:
    TW_UINT16 answer(TW_UINT16 message)
    {
        // One callback at a time; one that comes while another is under way
        // on the other thread (a message left over from an earlier session)
        // just succeeds, instead of blocking a thread the other may wait for.
        std::unique_lock<std::mutex> guard(mMutex, std::try_to_lock);
        if (!guard || !mActive) return TWRC_SUCCESS;
        ++mActivity;
        ++callbacks;
        if (message == MSG_XFERREADY) ++transfersReady;
        Generator& g = mGenerator;
        int count = 1 + int(g.pick(6));
        int closeAt = g.chance(35) ? int(g.pick(std::uint32_t(count))) : -1;
        for (int i = 0; i < count; ++i) {
            Triplet t = i == closeAt ? Triplet{DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS} : g.chooseTriplet();
            TW_MEMREF data = g.prepare(t);
            TW_UINT16 rc = mSource->call(t.group, t.type, t.message, data);
            g.release(t, data);
            ++triplets;
            if (i == closeAt && rc == TWRC_SUCCESS) ++closes;
            EXPECT_LE(rc, TWRC_DATANOTAVAILABLE) << "in the callback for message " << message << ": group "
                                                 << t.group << " type " << t.type << " message " << t.message;
        }
        ++mActivity;
        return g.chance(10) ? TWRC_FAILURE : TWRC_SUCCESS;
    }

    Generator mGenerator;
    DataSourceManager* mSource = nullptr;
    std::mutex mMutex;
    std::atomic<bool> mActive{false};
    std::atomic<int> mActivity{0};
};

class ClientFuzz : public CleanRoom {};

int environmentNumber(const char* name, int fallback)
{
    const char* text = std::getenv(name);
    return text && *text ? std::atoi(text) : fallback;
}

TEST_F(ClientFuzz, RandomTripletSequencesNeverCrashHangOrReachAnImpossibleState)
{
    const int sequences = environmentNumber("ZENTARY_CLIENT_FUZZ_SEQUENCES", 500);
    const auto seed = std::uint64_t(environmentNumber("ZENTARY_CLIENT_FUZZ_SEED", 20240531));
    Generator g(seed, mUser.path());
    Callbacks callbacks(seed * 31 + 7, mUser.path());
    const bool trace = environmentNumber("ZENTARY_CLIENT_FUZZ_TRACE", 0) != 0;
    // Big scans are refused for want of space: a random resolution must not
    // turn the run into an hour of copying pixels.
    test::ScopedEnv freeSpace("ZENTARY_FAKE_FREE_SPACE", "24000000");
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner(""));
    std::filesystem::create_directory(mUser.path() / "dir");
    std::filesystem::create_symlink(mUser.path() / "elsewhere", mUser.path() / "link.tif");
    // A relative name a random record might still hold lands here.
    const std::filesystem::path startDirectory = std::filesystem::current_path();
    std::filesystem::current_path(mUser.path());

    // The source treats Image Capture and Readiris each in its own way.
    static const char* const kClients[][2] = {
        {"Tarvell Co.", "zentary-scan"}, {"Apple Computer, Inc.", "Image Capture"}, {"I.R.I.S.", "Readiris Pro"}};
    const Resources before = resources();
    long triplets = 0, scansReady = 0, answered[3] = {};
    std::unique_ptr<DataSourceManager> source;
    for (int sequence = 0; sequence < sequences; ++sequence) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", sequence " + std::to_string(sequence));
        Watchdog watchdog("client fuzz sequence " + std::to_string(sequence), 60s);
        if (!source || sequence % 200 == 0) {
            source.reset();
            source = load();
            ASSERT_TRUE(source);
            callbacks.attach(*source);
        }
        int state = 3;
        const int clientIndex = g.chance(50) ? 0 : 1 + int(g.pick(2));
        const auto* client = kClients[clientIndex];
        std::strncpy(source->application().Manufacturer, client[0], 33);
        std::strncpy(source->application().ProductName, client[1], 33);
        const bool reenters = g.chance(50);
        const long callbacksBefore = callbacks.callbacks;
        if (reenters) callbacks.start();
        // Cancel in the dialog brings MSG_CLOSEDSREQ at once, a scan
        // MSG_XFERREADY half a second later.
        struct { std::string mode; } ui{g.chance(reenters ? 40 : 20) ? "headless-cancel" : "headless"};
        test::ScopedEnv uiEnv("ZENTARY_UI", ui.mode);
        // Waits for scans to end, to reach the transfer states and the callbacks.
        bool patient = g.chance(reenters ? 30 : 5);
        if (trace)
            std::fprintf(stderr, "sequence %d: client %s, %s%s%s\n", sequence, client[1], ui.mode.c_str(),
                         patient ? ", patient" : "", reenters ? ", re-entering callbacks" : "");
        if (g.chance(85)) {
            EXPECT_EQ(source->open(), TWRC_SUCCESS);
            state = 4;
            if (g.chance(60)) {
                // A small scan, so that patient sequences reach the transfer states quickly.
                test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(150));
                TW_IMAGELAYOUT layout{{{0, 0}, {0, 0}, {1, 0}, {1, 0}}, 0, 0, 0};
                source->call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout);
            }
            // Callbacks come only once the source is enabled.
            if (reenters && g.chance(60) && test::enable(*source, g.chance(70)) == TWRC_SUCCESS) state = 5;
        }
        int steps = 5 + int(g.pick(40));
        for (int step = 0; step < steps; ++step) {
            const int activity = callbacks.activity();
            Triplet t = g.chooseTriplet();
            TW_MEMREF data = g.prepare(t);
            TW_UINT16 rc = source->call(t.group, t.type, t.message, data);
            ++triplets;
            g.release(t, data);
            ASSERT_LE(rc, TWRC_DATANOTAVAILABLE) << "group " << t.group << " type " << t.type << " message "
                                                 << t.message;
            ASSERT_LE(source->conditionCode(), TWCC_CHECKDEVICEONLINE);
            if (patient && state == 5) {
                source->waitForMessage(1s);  // once: the rest of the sequence acts on what came
                patient = false;
            }
            int now = probeState(*source);
            if (activity % 2 != 0 || callbacks.activity() != activity) {
                now = kUnknown;
            } else {
                ASSERT_NE(now, -1) << "contradictory answers after type " << t.type << " message " << t.message;
                ASSERT_TRUE(possible(state, now)) << state << " -> " << now << " after type " << t.type
                                                  << " message " << t.message;
            }
            if (trace)
                std::fprintf(stderr, "  %d.%d: group %u type 0x%x message 0x%x data %s -> rc %u, state %d\n", sequence,
                             step, unsigned(t.group), t.type, t.message, data ? "set" : "null", rc, now);
            if (now == 6 && state != 6) ++scansReady;
            state = now;
        }
        callbacks.stop();
        answered[clientIndex] += callbacks.callbacks - callbacksBefore;
        source->call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source->source());
        ASSERT_EQ(probeState(*source), 3);
        while (source->waitForMessage(0ms)) {
        }
        for (const auto& entry : std::filesystem::directory_iterator(mTemp.path()))
            ASSERT_NE(entry.path().extension(), ".raw") << entry.path() << ": a raw scan outlived its session";
        ASSERT_FALSE(std::filesystem::exists(lockFile())) << "the scanner was left reserved";
    }
    source.reset();
    std::filesystem::current_path(startDirectory);
    // The default file target may stay in the temporary folder; nothing else.
    std::filesystem::remove(mTemp.path() / "ZentaryScan.tmp");
    EXPECT_EQ(settledResources(before), before);
    std::printf("client fuzz: %d sequences, %ld triplets, %ld scans reached a ready transfer; callbacks answered "
                "with triplets: %ld generic, %ld Image Capture, %ld Readiris (%ld MSG_XFERREADY; %ld triplets, "
                "%ld closes)\n",
                sequences, triplets, scansReady, answered[0], answered[1], answered[2], callbacks.transfersReady,
                callbacks.triplets, callbacks.closes);
}

}  // namespace
}  // namespace zentary::reliability
