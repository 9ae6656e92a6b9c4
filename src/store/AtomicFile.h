#pragma once
// Writes a whole file atomically: a temp file in the same folder, fsync, rename over the target, fsync of the
// folder. Used by the settings file and CodableHelpers.
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace sprelio::store {

// Returns "" on success, else a description of the failure (the temp file is removed).
std::string writeFileAtomically(const std::filesystem::path& path, std::string_view content, mode_t mode);

} // namespace sprelio::store
