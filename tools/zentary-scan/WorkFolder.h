// The private folder the data source keeps its temporary files in while
// zentary-scan runs (its TMPDIR), and what the tool can tell about that
// storage itself when a scan fails: the data source reports a full or
// unwritable folder as a scanner that stopped or is not available.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Files.h"

namespace zentary {

// "zentary-scan-XXXXXX" in $TMPDIR (else /tmp), removed with everything in it
// when this object goes. A run killed outright (SIGKILL, a crash) cannot do
// that, so each run holds a flock on its folder and first removes the
// folders of this user that nobody holds.
class WorkFolder {
public:
    WorkFolder();
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    // Empty when the folder could not be made; error() then says where and why.
    const std::string& path() const { return mPath; }
    const std::string& error() const { return mError; }
    // The folder it was made in, the user's temporary folder.
    const std::string& parent() const { return mParent; }

private:
    std::string mParent;
    std::string mPath;
    std::string mError;
    files::UniqueFd mLock;  // the folder, flock'ed while we live
};

// Why a scan into `folder` of `needed` bytes could fail for want of storage:
// the folder cannot be written, or has less free space than that. Empty when
// neither holds. Messages name `shownAs`, the folder the user knows.
std::string storageProblem(const std::string& folder, std::uint64_t needed, const std::string& shownAs);

}  // namespace zentary
