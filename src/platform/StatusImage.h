#pragma once
#include <string>

namespace sprelio::platform {

// The tray icon's image, by name ("micro_status", "rec_status", "raspozn_status").
class StatusImage {
public:
    virtual ~StatusImage() = default;
    virtual void setImage(const std::string& name) = 0;
};

} // namespace sprelio::platform
