// Tests that load the data source as a client: the loading, and a scratch
// world of its own for each test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "support/Triplets.h"

namespace zentary::test {

// The source loaded as a manager loads it; null, and a failure, when it
// does not load.
inline std::unique_ptr<DataSourceManager> loadSource()
{
    std::string error;
    auto source = DataSourceManager::load(dataSourcePath().string(), &error);
    EXPECT_TRUE(source) << error;
    return source;
}

// A scratch folder that is the source's whole world (temporary files,
// preferences, interface log), the emulator as its scanner and the headless
// dialog; what a developer's shell may have set besides is cleared.
class SourceTest : public ::testing::Test {
protected:
    ScratchDir mScratch;
    ScopedEnv mTmp{"TMPDIR", mScratch.path().string()};
    ScopedEnv mScanner{"ZENTARY_SCANNER", "emulator"};
    ScopedEnv mUi{"ZENTARY_UI", "headless"};
    ScopedEnv mConfig{"XDG_CONFIG_HOME", mScratch.path().string()};
    ScopedEnv mLog{"ZENTARY_UI_LOG", (mScratch.path() / "ui.log").string()};
    ScopedEnv mBundle{"ZENTARY_BUNDLE", std::nullopt};
    ScopedEnv mFreeSpace{"ZENTARY_FAKE_FREE_SPACE", std::nullopt};
    ScopedEnv mNative{"ZENTARY_NATIVE", std::nullopt};

    char mName[1026] = {};  // the file name a DAT_SETUPFILEXFER2 record points at
    TW_SETUPFILEXFER2 mFile{};

    std::filesystem::path scratch(const std::string& name) const { return mScratch.path() / name; }
    // Loaded and opened as the named client would; null when it does not load.
    std::unique_ptr<DataSourceManager> openAs(const char* manufacturer = "GIMP", const char* product = "gimp")
    {
        auto source = loadSource();
        if (!source) return nullptr;
        std::strncpy(source->application().Manufacturer, manufacturer, 33);
        std::strncpy(source->application().ProductName, product, 33);
        EXPECT_EQ(source->open(), twain::TWRC_SUCCESS) << source->conditionCode();
        return source;
    }
    // DAT_SETUPFILEXFER2 with `message`, naming `path`; the record is left in mFile.
    TW_UINT16 setupFile(DataSourceManager& source, TW_UINT16 message, const std::string& path = "",
                        TW_UINT16 format = twain::TWFF_TIFF)
    {
        std::memset(mName, 0, sizeof(mName));
        std::memcpy(mName, path.data(), std::min(path.size(), sizeof(mName) - 1));
        mFile = {mName, twain::TWTY_STR1024, format, 7, 9};
        return source.call(twain::DG_CONTROL, twain::DAT_SETUPFILEXFER2, message, &mFile);
    }
    // Files in the scratch folder whose names hold `part` (".raw", ".part").
    std::vector<std::string> filesWith(const std::string& part) const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(mScratch.path()))
            if (entry.path().filename().string().find(part) != std::string::npos) names.push_back(entry.path());
        return names;
    }
    int rawFiles() const { return int(filesWith(".raw").size()); }
    std::string uiLog() const
    {
        std::string all;
        for (const auto& line : readLines(scratch("ui.log"))) all += line + "\n";
        return all;
    }
};

}  // namespace zentary::test
