// The object behind an open data source, and the class-level dispatcher that
// creates it on MSG_OPENDS and destroys it on MSG_CLOSEDS.
//
// Everything here runs on the data source's loop thread (see DataSource.cpp):
// the engine's state is touched by that one thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "twain/twain.h"

namespace zentary {

class Capabilities;
class ScanDevice;

class DataSourceEngine {
public:
    // TWAIN session states as kept in mState (TWAIN states 4 to 7).
    enum : std::int32_t { kStateOpen = 1, kStateEnabled = 2, kStateTransferReady = 3, kStateTransferring = 4 };
    static constexpr TW_UINT32 kDefaultMinimumMemoryBufferSize = 32768;
    static constexpr std::size_t kFileNameBufferSize = sizeof(TW_STR1024);
    static constexpr const char* kDefaultFileName = "ZentaryScan.tmp";

    // Routes one triplet (everything but the identity request). Returns the
    // TWAIN return code; keeps the condition code for DAT_STATUS.
    static TW_UINT16 processOperationTriplet(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type,
                                             TW_UINT16 message, TW_MEMREF data);
    // True while an engine exists (a session is open).
    static bool exists();
    // Destroys the engine, if any, without a triplet: the library is being
    // unloaded while a client still had the source open.
    static void destroyOrphan();
    // The condition code DAT_STATUS would report now.
    static TW_UINT16 conditionCode();

    // Builds the engine; null with *conditionCode set when it cannot.
    static std::unique_ptr<DataSourceEngine> initWithOrigin(const TW_IDENTITY* origin, const TW_IDENTITY* source,
                                                            TW_UINT16* conditionCode);
    ~DataSourceEngine();
    DataSourceEngine(const DataSourceEngine&) = delete;
    DataSourceEngine& operator=(const DataSourceEngine&) = delete;

    TW_UINT16 control(TW_IDENTITY* origin, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                      TW_UINT16* conditionCode);
    TW_UINT16 image(TW_IDENTITY* origin, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                    TW_UINT16* conditionCode);

    // The TWAIN state (4..7) this engine stands for.
    int twainState() const { return static_cast<int>(mState) + 3; }
    bool clientIsImageCapture() const { return mClientIsImageCapture; }
    bool clientIsReadiris() const { return mClientIsReadiris; }
    const TW_IDENTITY& application() const { return mApplication; }
    const TW_IDENTITY& source() const { return mSource; }
    Capabilities& capabilities() { return *mCapabilities; }
    const TW_IMAGELAYOUT& imageLayout() const { return mImageLayout; }
    const TW_SETUPFILEXFER2& file() const { return mFile; }
    const TW_SETUPFILEXFER2& defaultFile() const { return mDefaultFile; }

private:
    DataSourceEngine();

    TW_UINT16 capability(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 event(TW_UINT16 message, TW_EVENT* event, TW_UINT16* conditionCode);
    TW_UINT16 transferGroup(TW_UINT16 message, TW_UINT32* group, TW_UINT16* conditionCode);

    TW_IDENTITY mApplication{};
    TW_IDENTITY mSource{};
    std::int32_t mState = 0;
    std::unique_ptr<Capabilities> mCapabilities;
    std::unique_ptr<ScanDevice> mScanner;
    std::optional<std::string> mImageFile;
    std::int32_t mImageTransferState = 1;
    bool mClientIsImageCapture = false;
    bool mClientIsReadiris = false;
    TW_IMAGELAYOUT mImageLayout{};
    TW_SETUPFILEXFER2 mDefaultFile{};
    TW_SETUPFILEXFER2 mFile{};
    std::int32_t mFileFormatType = 0;
    bool mFileIsSet = false;
    TW_UINT32 mDefaultMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    TW_UINT32 mMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    TW_UINT32 mMaximumMemoryBufferSize = 0xFFFFFFFF;
    TW_UINT32 mMemoryTransferRowsTransfered = 0;
    // The buffers behind mFile.FileName and mDefaultFile.FileName.
    std::unique_ptr<char[]> mFileName;
    std::unique_ptr<char[]> mDefaultFileName;
};

}  // namespace zentary
