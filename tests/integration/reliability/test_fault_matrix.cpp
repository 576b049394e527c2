// Every fault the emulated scanner can inject, met at every point of an
// acquisition where a client may stand, through the loaded data source: the
// codes and alert the client sees, the state it is left in, and that nothing
// is left behind (threads, descriptors, raw files, the scanner's lock) and
// nothing of the user's is touched. Each run is bounded by a watchdog.
#include <fstream>

#include "Reliability.h"

namespace zentary::reliability {
namespace {

struct Fault {
    const char* name;
    const char* options;  // emulator options
    bool completes;       // the scan still ends in a ready transfer
    int alert;            // the alert row the user sees, 0 for none
};

const Fault kFaults[] = {
    {"none", "", true, 0},
    {"lock_refused", "fault=lock-refused", false, 4},
    {"not_ready", "fault=not-ready@20", false, 4},
    {"settings_length", "fault=settings-length@120", false, 4},
    {"bad_signature", "fault=bad-signature@0", false, 0},
    {"short_data", "fault=short-data@75", false, 0},
    {"malformed_data", "fault=malformed-data@149", false, 0},
    {"stall", "fault=stall@75", false, 0},
    {"timeout", "fault=timeout@75", false, 0},
    {"disconnect_first_row", "fault=disconnect@0", false, 0},
    {"disconnect_middle_row", "fault=disconnect@75", false, 0},
    {"disconnect_last_row", "fault=disconnect@149", false, 0},
    {"no_image_end", "fault=no-image-end", true, 0},
};

// Where the client stands when it acts after the scan's outcome; kEnable
// closes the source at once, while the scan (and its fault) is under way.
enum Point { kEnable, kScan, kNative, kMemory, kFile, kEndTransfer, kDisable, kClose };
const char* const kPointNames[] = {"enable", "scan", "native", "memory", "file", "end_transfer", "disable", "close"};

bool isTiff(const std::vector<char>& bytes)
{
    return bytes.size() > 8 && (std::memcmp(bytes.data(), "II*\0", 4) == 0 || std::memcmp(bytes.data(), "MM\0*", 4) == 0);
}

std::vector<char> readAll(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class FaultMatrix : public CleanRoom, public ::testing::WithParamInterface<std::tuple<int, int>> {
protected:
    // The transfer by the chosen mechanism; its return code.
    TW_UINT16 transfer(DataSourceManager& source, Point point, bool completes, const std::filesystem::path& target)
    {
        switch (point) {
        case kNative: {
            TW_HANDLE handle = nullptr;
            TW_UINT16 rc = source.call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle);
            EXPECT_EQ(handle != nullptr, rc == TWRC_XFERDONE);
            if (handle) {
                auto* bytes = static_cast<const char*>(handle);
                EXPECT_TRUE(isTiff(std::vector<char>(bytes, bytes + 8 + 1)));
                std::free(handle);  // the client owns it; our manager allocates with calloc
            }
            return rc;
        }
        case kMemory: {
            TW_SETUPMEMXFER sizes{};
            EXPECT_EQ(source.call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes), TWRC_SUCCESS);
            std::vector<std::uint8_t> buffer(std::size_t(sizes.MinBufSize) * 16);
            TW_UINT32 rows = 0;
            TW_UINT16 rc = TWRC_SUCCESS;
            for (int strip = 0; strip <= kRows && rc == TWRC_SUCCESS; ++strip) {
                TW_IMAGEMEMXFER block{};
                block.Memory = {TWMF_APPOWNS | TWMF_POINTER, TW_UINT32(buffer.size()), buffer.data()};
                rc = source.call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &block);
                if (rc == TWRC_SUCCESS || rc == TWRC_XFERDONE) rows += block.Rows;
            }
            if (completes) {
                EXPECT_EQ(rows, kRows);
            }
            return rc;
        }
        case kFile: {
            TW_UINT16 rc = source.call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr);
            EXPECT_EQ(isTiff(readAll(target)), rc == TWRC_XFERDONE);
            return rc;
        }
        default: return TWRC_FAILURE;
        }
    }
};

TEST_P(FaultMatrix, CodesStateAndNothingLeftBehind)
{
    const Fault& fault = kFaults[std::get<0>(GetParam())];
    const auto point = static_cast<Point>(std::get<1>(GetParam()));
    Watchdog watchdog(std::string(fault.name) + " at " + kPointNames[point], 60s);
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner(fault.options));
    const std::filesystem::path precious = mUser.path() / "precious.txt", target = mUser.path() / "scan.tif";
    std::ofstream(precious) << "the user's own words";
    const Resources before = resources();
    {
        auto source = openSmall();
        ASSERT_TRUE(source);
        if (point == kFile) {
            ASSERT_EQ(test::setOneValue(*source, ICAP_XFERMECH, TWTY_UINT16, TWSX_FILE2), TWRC_SUCCESS);
            char name[1026] = {};
            std::strncpy(name, target.c_str(), sizeof(name) - 1);
            TW_SETUPFILEXFER2 file{name, TWTY_STR1024, TWFF_TIFF, 0, 0};
            ASSERT_EQ(source->call(DG_CONTROL, DAT_SETUPFILEXFER2, MSG_SET, &file), TWRC_SUCCESS);
        } else if (point == kMemory) {
            ASSERT_EQ(test::setOneValue(*source, ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY), TWRC_SUCCESS);
        }
        ASSERT_EQ(test::enable(*source, false), TWRC_SUCCESS);  // scan failures come later, by alert
        ASSERT_EQ(probeState(*source), 5);

        if (point == kEnable) {
            EXPECT_EQ(source->close(), TWRC_SUCCESS);
        } else {
            TW_UINT16 expected = fault.completes ? MSG_XFERREADY : MSG_CLOSEDSREQ;
            ASSERT_EQ(source->waitForMessage(30s), std::optional<TW_UINT16>(expected));
            int state = fault.completes ? 6 : 5;
            EXPECT_EQ(probeState(*source), state);
            if (fault.alert)
                EXPECT_NE(uiLog().find("\"row\":" + std::to_string(fault.alert)), std::string::npos) << uiLog();
            else
                EXPECT_EQ(uiLog().find("\"row\":"), std::string::npos) << uiLog();

            auto expectCodes = [&](TW_UINT16 rc, TW_UINT16 okRc, TW_UINT16 failCode, const char* what) {
                if (fault.completes) {
                    EXPECT_EQ(rc, okRc) << what;
                } else {
                    EXPECT_EQ(rc, TWRC_FAILURE) << what;
                    EXPECT_EQ(source->conditionCode(), failCode) << what;
                }
            };
            switch (point) {
            case kNative:
            case kMemory:
            case kFile:
                expectCodes(transfer(*source, point, fault.completes, target), TWRC_XFERDONE, TWCC_SEQERROR,
                            "transfer");
                if (fault.completes) {
                    EXPECT_EQ(probeState(*source), state = 7);
                }
                [[fallthrough]];
            case kEndTransfer:
                expectCodes(test::pending(*source, MSG_ENDXFER), TWRC_SUCCESS, TWCC_SEQERROR, "end of transfer");
                EXPECT_EQ(probeState(*source), state = 5);
                break;
            case kDisable:
                if (fault.completes) {
                    // The transfer must be ended or reset first.
                    EXPECT_EQ(test::disable(*source), TWRC_FAILURE);
                    EXPECT_EQ(source->conditionCode(), TWCC_SEQERROR);
                    EXPECT_EQ(test::pending(*source, MSG_RESET), TWRC_SUCCESS);
                    state = 5;
                }
                EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
                EXPECT_EQ(probeState(*source), state = 4);
                break;
            default: break;
            }
            if (point != kClose) {
                if (state == 6) {
                    EXPECT_EQ(test::pending(*source, MSG_RESET), TWRC_SUCCESS);
                }
                if (state >= 5) {
                    EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
                }
            }
            EXPECT_EQ(source->close(), TWRC_SUCCESS);
        }
        EXPECT_EQ(probeState(*source), 3);
        EXPECT_FALSE(std::filesystem::exists(lockFile())) << "the scanner was left reserved";
        source.reset();
    }
    EXPECT_EQ(settledResources(before), before);
    EXPECT_EQ(entryCount(mTemp.path()), 0) << "a raw file or other temporary was left behind";
    EXPECT_EQ(readAll(precious), (std::vector<char>{std::begin("the user's own words"), std::end("the user's own words") - 1}));
    EXPECT_EQ(entryCount(mUser.path()), point == kFile ? 2 : 1);
}

INSTANTIATE_TEST_SUITE_P(EveryFaultEveryPoint, FaultMatrix,
                         ::testing::Combine(::testing::Range(0, int(std::size(kFaults))), ::testing::Range(0, 8)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& param) {
                             return std::string(kFaults[std::get<0>(param.param)].name) + "_at_" +
                                    kPointNames[std::get<1>(param.param)];
                         });

}  // namespace
}  // namespace zentary::reliability
