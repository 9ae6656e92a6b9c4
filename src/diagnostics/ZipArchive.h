#pragma once
// The archives the problem report sends: the files of one folder stored flat, under their own names, as
// "zip -j" does.
#include <filesystem>

namespace sprelio {

// Zips every file directly in `folder` (in name order) into `zipFile`, which is replaced. False when the folder
// can't be read or the archive can't be written; no partial archive is left behind.
bool zipFolderContents(const std::filesystem::path& folder, const std::filesystem::path& zipFile);

} // namespace sprelio
