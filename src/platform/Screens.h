#pragma once
#include <optional>
#include <string>
#include <vector>

namespace sprelio::platform {

// Coordinates have their origin at the bottom left of the base screen, y growing upwards.
struct Rect {
    double x = 0, y = 0, width = 0, height = 0;
    double minX() const { return x; }
    double minY() const { return y; }
    double maxX() const { return x + width; }
    double maxY() const { return y + height; }
    double midX() const { return x + width / 2; }
    double midY() const { return y + height / 2; }
    bool operator==(const Rect&) const = default;
};

struct ScreenInfo {
    std::string name;
    std::optional<std::string> uniqueKey; // stable display id, when the display reports one
    Rect frame;
    double scaling = 1.0;
    bool isPrimary = false;
};

class Screens {
public:
    virtual ~Screens() = default;
    virtual std::vector<ScreenInfo> screens() const = 0;
};

} // namespace sprelio::platform
