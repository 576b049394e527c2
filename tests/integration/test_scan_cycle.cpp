// One acquisition through the loaded data source, up to a ready transfer and
// back, for each kind of client, with and without the dialog, and what
// happens when the scanner or the client misbehaves.
#include <gtest/gtest.h>


#include "support/SourceTest.h"

namespace zentary {
namespace {

using namespace twain;
using namespace std::chrono_literals;
using test::ScopedEnv;

constexpr auto kScanTimeout = 20s;

class ScanCycleTest : public test::SourceTest {
protected:
    // A small, quick scan. Readiris sends a FIX32 one-value as one number,
    // whole part in the upper half.
    std::unique_ptr<DataSourceManager> openAs(const char* manufacturer, const char* product)
    {
        auto source = SourceTest::openAs(manufacturer, product);
        TW_UINT32 dpi = std::strncmp(product, "Readiris", 8) == 0 ? 150u << 16 : test::fix32Item(150);
        if (source) {
            EXPECT_EQ(test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, dpi), TWRC_SUCCESS);
        }
        return source;
    }
};

struct Client {
    const char* manufacturer;
    const char* product;
    bool imageCapture;
};
const Client kGeneric{"GIMP", "gimp", false};
const Client kReadiris{"I.R.I.S.", "Readiris Pro", false};
const Client kImageCapture{"Apple Computer, Inc.", "Image Capture", true};

TEST_F(ScanCycleTest, EveryClientReachesAReadyTransferAndComesBack)
{
    struct Case {
        Client client;
        bool showUI;
        bool waitsAfterTheTransfer;  // else disables at once, on its own
        TW_UINT16 end = MSG_ENDXFER;  // or MSG_RESET, dropping the image
    } cases[] = {{kGeneric, false, true},
                 {kGeneric, true, true},
                 {kGeneric, true, true, MSG_RESET},
                 {kReadiris, false, false},
                 {kReadiris, true, false},
                 {kImageCapture, true, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.client.product) + (c.showUI ? " with dialog" : " without dialog") +
                     (c.waitsAfterTheTransfer ? ", waiting" : "") + (c.end == MSG_RESET ? ", reset" : ""));
        auto source = openAs(c.client.manufacturer, c.client.product);
        ASSERT_TRUE(source);
        TW_UINT16 count = 0;
        ASSERT_EQ(test::enable(*source, c.showUI), TWRC_SUCCESS);
        EXPECT_EQ(test::pending(*source, MSG_GET, &count), TWRC_FAILURE);  // not yet scanned
        EXPECT_EQ(count, 0);
        EXPECT_EQ(source->conditionCode(), TWCC_SEQERROR);

        ASSERT_EQ(source->waitForMessage(kScanTimeout), std::optional<TW_UINT16>(MSG_XFERREADY));
        EXPECT_EQ(test::pending(*source, MSG_GET, &count), TWRC_SUCCESS);
        EXPECT_EQ(count, 1);
        EXPECT_EQ(rawFiles(), 1);

        // The buffer sizes come from the scan: 8.5 in at 150 dpi is 1275
        // colour pixels, 3825 bytes, padded by its remainder to 3826.
        TW_SETUPMEMXFER sizes{};
        ASSERT_EQ(source->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes), TWRC_SUCCESS);
        EXPECT_EQ(test::value(sizes.MinBufSize), 3826u);
        EXPECT_EQ(sizes.MaxBufSize % 3826u, 0u);
        EXPECT_EQ(test::value(sizes.Preferred), test::value(sizes.MaxBufSize));
        EXPECT_EQ(test::disable(*source), TWRC_FAILURE);  // the transfer must end first

        EXPECT_EQ(test::pending(*source, c.end, &count), TWRC_SUCCESS);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(rawFiles(), 0);
        if (c.client.imageCapture) {
            // The dialog comes back for the next page, which the headless
            // dialog scans at once.
            ASSERT_EQ(source->waitForMessage(kScanTimeout), std::optional<TW_UINT16>(MSG_XFERREADY));
            EXPECT_EQ(test::pending(*source, MSG_RESET, &count), TWRC_SUCCESS);
            EXPECT_EQ(rawFiles(), 0);
        } else if (c.waitsAfterTheTransfer) {
            // With the dialog gone for good, the client is asked to close.
            std::optional<TW_UINT16> expected;
            if (c.showUI) expected = MSG_CLOSEDSREQ;
            EXPECT_EQ(source->waitForMessage(expected ? kScanTimeout : 500ms), expected);
        }
        EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
        EXPECT_EQ(source->close(), TWRC_SUCCESS);
        EXPECT_FALSE(source->waitForMessage(300ms)) << "no message after the cycle";
    }
}

TEST_F(ScanCycleTest, ImageCaptureWithoutTheDialogIsRefusedWithASystemAlert)
{
    auto source = openAs(kImageCapture.manufacturer, kImageCapture.product);
    ASSERT_TRUE(source);
    EXPECT_EQ(test::enable(*source, false), TWRC_FAILURE);
    EXPECT_EQ(source->conditionCode(), TWCC_OPERATIONERROR);
    EXPECT_NE(uiLog().find("\"row\":12"), std::string::npos) << uiLog();
    EXPECT_NE(uiLog().find("\"modal\":\"system\""), std::string::npos);
    // Still in state 4, and enabling with the dialog now works.
    EXPECT_EQ(test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(300)), TWRC_SUCCESS);
    EXPECT_EQ(test::enable(*source, true), TWRC_SUCCESS);
}

TEST_F(ScanCycleTest, EnabledSourceGatesTripletsByState)
{
    ScopedEnv cancel("ZENTARY_UI", "headless-cancel");
    auto source = openAs(kGeneric.manufacturer, kGeneric.product);
    ASSERT_TRUE(source);
    TW_USERINTERFACE ui{1, 1, nullptr};
    ASSERT_EQ(source->call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui), TWRC_SUCCESS);
    EXPECT_EQ(test::value(ui.ModalUI), 0) << "the dialog is modeless";
    // Cancel in the dialog asks the client to close.
    EXPECT_EQ(source->waitForMessage(kScanTimeout), std::optional<TW_UINT16>(MSG_CLOSEDSREQ));

    struct Case {
        const char* what;
        TW_UINT16 rc, code;
        std::function<TW_UINT16()> call;
    } cases[] = {
        {"set capability", TWRC_FAILURE, TWCC_SEQERROR,
         [&] { return test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(600)); }},
        {"end transfer", TWRC_FAILURE, TWCC_SEQERROR, [&] { return test::pending(*source, MSG_ENDXFER); }},
        {"reset transfers", TWRC_FAILURE, TWCC_SEQERROR, [&] { return test::pending(*source, MSG_RESET); }},
        {"enable again", TWRC_FAILURE, TWCC_SEQERROR, [&] { return test::enable(*source, false); }},
        {"pending, unknown message", TWRC_FAILURE, TWCC_BADPROTOCOL,
         [&] { return test::pending(*source, MSG_SET); }},
        {"user interface only", TWRC_FAILURE, TWCC_BADPROTOCOL,
         [&] { return source->call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDSUIONLY, &ui); }},
        {"event", TWRC_NOTDSEVENT, TWCC_SUCCESS,
         [&] {
             TW_EVENT event{nullptr, 0x1234};
             TW_UINT16 rc = source->call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
             EXPECT_EQ(test::value(event.TWMessage), MSG_NULL);
             return rc;
         }},
        {"parent", TWRC_FAILURE, TWCC_BADPROTOCOL,
         [&] { return source->call(DG_CONTROL, DAT_PARENT, MSG_GET, &ui); }},
        {"memory sizes before a scan", TWRC_SUCCESS, TWCC_SUCCESS,
         [&] {
             TW_SETUPMEMXFER sizes{};
             TW_UINT16 rc = source->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes);
             EXPECT_EQ(test::value(sizes.MinBufSize), 32768u);
             EXPECT_EQ(test::value(sizes.MaxBufSize), 0xFFFFFFFFu);
             return rc;
         }},
        {"memory sizes without data", TWRC_FAILURE, TWCC_BADVALUE,
         [&] { return source->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, nullptr); }},
        {"disable", TWRC_SUCCESS, TWCC_SUCCESS, [&] { return test::disable(*source); }},
        {"disable again", TWRC_FAILURE, TWCC_SEQERROR, [&] { return test::disable(*source); }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.call(), c.rc) << c.what;
        EXPECT_EQ(source->conditionCode(), c.code) << c.what;
    }
    EXPECT_EQ(test::currentOneValue(*source, ICAP_XRESOLUTION), test::fix32Item(150));
}

// Every scanner fault ends the same way (the fault matrix); a full disk is
// found by the source itself, before the scanner is asked.
TEST_F(ScanCycleTest, NoRoomForTheScanTellsTheUserAndAsksToClose)
{
    ScopedEnv freeSpace("ZENTARY_FAKE_FREE_SPACE", "1000");
    auto source = openAs(kGeneric.manufacturer, kGeneric.product);
    ASSERT_TRUE(source);
    ASSERT_EQ(test::enable(*source, false), TWRC_SUCCESS);  // failures come later, by alert
    EXPECT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_CLOSEDSREQ));
    EXPECT_NE(uiLog().find("\"row\":7"), std::string::npos) << uiLog();
    EXPECT_EQ(rawFiles(), 0);
    EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
    EXPECT_EQ(source->close(), TWRC_SUCCESS);
}

}  // namespace
}  // namespace zentary
