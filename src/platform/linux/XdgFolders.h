#pragma once
// platform::Folders from the environment, following the XDG Base Directory rules: $HOME (fallback: the
// password database), $XDG_DATA_HOME (default ~/.local/share), $XDG_CONFIG_HOME (default ~/.config). A value
// that is empty or not an absolute path is ignored.
#include <functional>
#include <optional>
#include <string>

#include "platform/Folders.h"

namespace sprelio::platform {

class XdgFolders final : public Folders {
public:
    using Getenv = std::function<std::optional<std::string>(const char*)>;
    XdgFolders();                        // the process environment
    explicit XdgFolders(const Getenv& getenv); // tests

    std::filesystem::path home() const override { return home_; }
    std::filesystem::path dataHome() const override { return dataHome_; }
    std::filesystem::path configHome() const override { return configHome_; }

private:
    std::filesystem::path home_, dataHome_, configHome_;
};

} // namespace sprelio::platform
