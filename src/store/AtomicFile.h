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

// A damaged file is kept for whoever wants to look into it, under "<name>.corrupt-<local date and time>" (with a
// number after it when that name is taken), and its place is free for a fresh one. Renames, or copies where the
// folder refuses a rename. Returns the new path, or "" with `error` set.
std::filesystem::path moveFileAside(const std::filesystem::path& path, std::string& error);

} // namespace sprelio::store
