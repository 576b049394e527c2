// Raw scan files of clients that died before their transfer ended.
#pragma once

#include <filesystem>

namespace zentary {

// Removes every "Image_*.raw" in `directory` that is a regular file of this
// user, reached without following a symlink, and that no process holds (see
// RawFileLock): a living owner, in this process or another, keeps its file.
// A file that is empty and less than a few seconds old is left too: its
// creator may not have taken its lock yet. Returns how many were removed.
int reclaimAbandonedRawFiles(const std::filesystem::path& directory);

}  // namespace zentary
