#include "ds/DataSourceEngine.h"

#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>

#include "capabilities/Capabilities.h"
#include "imaging/OffscreenImage.h"
#include "ds/DSAlerts.h"
#include "ds/DSBundle.h"
#include "ds/DSPreferences.h"
#include "platform/Alerts.h"
#include "platform/Bundle.h"
#include "platform/Files.h"
#include "ui/DataSourceDialog.h"
#include "ui/ScanProgressDialog.h"
#include "ui/UiBundle.h"
#include "ui/UserInterface.h"
#include "platform/UiLog.h"
#include "scanlib/RawFileReclaim.h"
#include "scanlib/ScanDevice.h"
#include "twain/Manager.h"

namespace zentary {

using namespace twain;

namespace {

// One engine per loaded library, touched on the loop thread only; the mutex
// keeps the "is there one?" test and the creation together for exists().
// A plain pointer: the engine must not be destroyed by the static
// destructors of an unloading library, on whatever thread unloads it, but
// on the loop thread (see DataSourceThreads).
std::mutex gEngineMutex;
DataSourceEngine* gEngine = nullptr;
TW_UINT16 gConditionCode = TWCC_SUCCESS;
bool gEngineAllocated = false;  // refuses a second instance, whoever asks
// Engine operations under way on the loop thread, and the engines closed
// during them, waiting for the outermost one to end.
int gOperations = 0;
std::vector<std::unique_ptr<DataSourceEngine>> gClosedEngines;


void setCode(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
}

void logOpenFailure(const std::string& reason)
{
    uilog::write(JsonObject().add("event", "open-failed").add("reason", reason));
}

}  // namespace

bool DataSourceEngine::exists()
{
    std::lock_guard<std::mutex> guard(gEngineMutex);
    return gEngine != nullptr;
}

TW_UINT16 DataSourceEngine::conditionCode()
{
    return gConditionCode;
}

DataSourceEngine::Operation::Operation()
{
    ++gOperations;
}

DataSourceEngine::Operation::~Operation()
{
    if (--gOperations > 0) return;
    // Nothing a closed engine does on its way out opens another one.
    std::vector<std::unique_ptr<DataSourceEngine>> closed = std::move(gClosedEngines);
    gClosedEngines.clear();
}

void DataSourceEngine::destroyOrphan()
{
    Operation operation;
    std::unique_ptr<DataSourceEngine> engine;
    {
        std::lock_guard<std::mutex> guard(gEngineMutex);
        engine.reset(gEngine);
        gEngine = nullptr;
    }
    if (!engine) return;
    engine->close();
    gClosedEngines.push_back(std::move(engine));
}

TW_UINT16 DataSourceEngine::processOperationTriplet(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type,
                                                    TW_UINT16 message, TW_MEMREF data)
{
    Operation operation;
    TW_UINT16 rc = TWRC_SUCCESS;
    auto fail = [&rc](TW_UINT16 code) {
        gConditionCode = code;
        rc = TWRC_FAILURE;
    };
    try {
        if (group == DG_CONTROL && type == DAT_IDENTITY) {
            if (message == MSG_OPENDS) {
                if (exists()) {
                    fail(TWCC_SEQERROR);
                } else {
                    auto engine = initWithOrigin(origin, static_cast<TW_IDENTITY*>(data), &gConditionCode);
                    if (engine) {
                        std::lock_guard<std::mutex> guard(gEngineMutex);
                        gEngine = engine.release();
                    } else {
                        rc = TWRC_FAILURE;
                    }
                }
            } else if (message == MSG_CLOSEDS) {
                if (!exists())
                    fail(TWCC_SEQERROR);
                else
                    destroyOrphan();
            } else {
                fail(TWCC_BADPROTOCOL);
            }
        } else if (group == DG_CONTROL && type == DAT_STATUS) {
            if (message != MSG_GET)
                fail(TWCC_BADPROTOCOL);
            else if (!data)
                fail(TWCC_BADVALUE);
            else
                static_cast<TW_STATUS*>(data)->ConditionCode = gConditionCode;
        } else if (group == DG_CONTROL && type == DAT_ENTRYPOINT) {
            // The manager hands its entry point and memory functions over
            // before it opens the source, so this needs no engine.
            if (message != MSG_SET)
                fail(TWCC_BADPROTOCOL);
            else if (!Manager::setEntryPoint(static_cast<const TW_ENTRYPOINT*>(data)))
                fail(TWCC_BADVALUE);
        } else if (group == DG_CONTROL || group == DG_IMAGE) {
            if (!gEngine)
                fail(TWCC_SEQERROR);
            else if (group == DG_CONTROL)
                rc = gEngine->control(origin, type, message, data, &gConditionCode);
            else
                rc = gEngine->image(origin, type, message, data, &gConditionCode);
        } else {
            fail(TWCC_BADPROTOCOL);
        }
    } catch (...) {
        DSAlerts::displayMessage(1);
        gConditionCode = TWCC_BUMMER;
        rc = TWRC_FAILURE;
    }
    if (rc == TWRC_SUCCESS) gConditionCode = TWCC_SUCCESS;
    return rc;
}

DataSourceEngine::DataSourceEngine()
{
    gEngineAllocated = true;
}

DataSourceEngine::~DataSourceEngine()
{
    close();
    mScanner.reset();
    mCapabilities.reset();
}

void DataSourceEngine::close()
{
    if (mClosed) return;
    mClosed = true;
    // Nothing may reach the engine once it is closed: no notification, no
    // timer, no late message. Observers go first, since closing a running
    // session delivers the end of its scan while it waits.
    mSessionToken.reset();
    stopObservingScans();
    cancelAllTimers();
    stopUserInterface();
    if (mScanner) mScanner->closeSession();
    // A scan that was never transferred leaves no temporary file behind.
    deleteImageFile();
    mState = 0;
    // The source may be opened again at once, even while this one waits
    // for the operations on the stack to end.
    gEngineAllocated = false;
}

std::unique_ptr<DataSourceEngine> DataSourceEngine::initWithOrigin(const TW_IDENTITY* origin,
                                                                   const TW_IDENTITY* source,
                                                                   TW_UINT16* conditionCode)
{
    if (!origin || !source) {
        setCode(conditionCode, TWCC_BUMMER);
        return nullptr;
    }
    if (gEngineAllocated) {  // only one engine may ever exist at a time
        setCode(conditionCode, TWCC_SEQERROR);
        return nullptr;
    }
    reclaimAbandonedRawFiles(files::temporaryDirectory());  // scans of clients that died before the transfer
    std::unique_ptr<DataSourceEngine> engine(new (std::nothrow) DataSourceEngine);
    if (!engine) {
        setCode(conditionCode, TWCC_LOWMEMORY);
        return nullptr;
    }
    engine->mLoop = RunLoop::current();
    // Windows (and so alerts) need a loop to answer on; an engine made
    // outside one, in a unit test, has neither.
    if (engine->mLoop) engine->startUserInterface();

    engine->mScanner = ScanDevice::scanDeviceWithVID(kScannerVendorID, kScannerProductID, std::nullopt);
    if (!engine->mScanner) {
        setCode(conditionCode, TWCC_OPERATIONERROR);
        DSAlerts::displayMessage(2);
        return nullptr;
    }

    engine->mApplication = *origin;
    engine->mSource = *source;

    // Plain byte comparisons after the (Linux: absent) length byte: any
    // longer name that starts with these letters matches.
    if (std::memcmp(origin->Manufacturer, "Apple", 5) == 0)
        engine->mClientIsImageCapture = true;
    else if (std::memcmp(origin->ProductName, "Readiris", 8) == 0)
        engine->mClientIsReadiris = true;

    std::optional<Bundle> bundle = Bundle::withIdentifier(kBundleIdentifier);
    std::string error = "the data source's bundle was not found";
    if (bundle)
        engine->mCapabilities = Capabilities::initWithModel(kModelName, engine->mClientIsReadiris,
                                                            bundle->resourcePath("Capabilities"), &error);
    if (!engine->mCapabilities) {
        // A broken installation: the user learns that something is wrong,
        // support learns what from the log line.
        logOpenFailure(error);
        DSAlerts::displayMessage(1);
        setCode(conditionCode, TWCC_LOWMEMORY);
        return nullptr;
    }
    Capabilities& caps = *engine->mCapabilities;

    caps.setCurrentValue(ICAP_PIXELTYPE,
                         CapabilityValue(DSPreferences::imageTypePreference() == 2 ? TWPT_GRAY : TWPT_RGB));
    caps.setCurrentValue(ICAP_XRESOLUTION, CapabilityValue::fix32(DSPreferences::resolutionPreference(), 0));

    engine->mFileName.reset(new (std::nothrow) char[kFileNameBufferSize]());
    engine->mDefaultFileName.reset(new (std::nothrow) char[kFileNameBufferSize]());
    if (!engine->mFileName || !engine->mDefaultFileName) {
        setCode(conditionCode, TWCC_LOWMEMORY);
        return nullptr;
    }

    std::optional<CapabilityValue> format = caps.defaultValue(ICAP_IMAGEFILEFORMAT);
    if (!format || !format->isNumber()) {
        logOpenFailure("ICAP_IMAGEFILEFORMAT has no default");
        setCode(conditionCode, TWCC_BUMMER);
        return nullptr;
    }

    // The default target is a POSIX path in the temporary folder; being
    // absolute, it carries no volume or directory id.
    std::string path = (files::temporaryDirectory() / kDefaultFileName).string();
    if (path.size() >= kFileNameBufferSize) {
        setCode(conditionCode, TWCC_BUMMER);
        return nullptr;
    }
    for (auto [file, buffer] : {std::pair{&engine->mDefaultFile, engine->mDefaultFileName.get()},
                                std::pair{&engine->mFile, engine->mFileName.get()}}) {
        std::memcpy(buffer, path.c_str(), path.size() + 1);
        file->FileName = buffer;
        file->FileNameType = TWTY_STR1024;
        file->Format = static_cast<TW_UINT16>(format->number());
        file->VRefNum = 0;
        file->ParID = 0;
    }
    engine->mFileFormatType = ICAP_IMAGEFILEFORMAT;
    engine->mFileIsSet = false;

    if (engine->defaultLayout(engine->mImageLayout) != 0) {
        logOpenFailure("ICAP_PHYSICALWIDTH or ICAP_PHYSICALHEIGHT is missing");
        setCode(conditionCode, TWCC_BUMMER);
        return nullptr;
    }

    engine->mDefaultMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    engine->mMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    engine->mMaximumMemoryBufferSize = 0xFFFFFFFF;
    engine->mMemoryTransferRowsTransfered = 0;
    engine->mImageTransferState = 1;
    engine->mState = kStateOpen;
    return engine;
}

}  // namespace zentary
