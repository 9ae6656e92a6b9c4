#pragma once
#include <filesystem>

namespace sprelio::platform {

// Where Sprelio keeps its files. Tests point these at temporary folders.
class Folders {
public:
    virtual ~Folders() = default;
    virtual std::filesystem::path home() const = 0;
    // $XDG_DATA_HOME, default ~/.local/share; Sprelio adds "/Sprelio".
    virtual std::filesystem::path dataHome() const = 0;
    // $XDG_CONFIG_HOME, default ~/.config.
    virtual std::filesystem::path configHome() const = 0;
};

} // namespace sprelio::platform
