#pragma once
// The text forms in which points and rectangles are stored: a point is "x,y", two numbers separated
// by a comma and parsed as doubles; a rectangle is "x,y,width,height", four numbers separated by commas.
// A text without exactly two (point) or four (rectangle) numbers reads as no value. Spaces around the numbers
// are allowed. Numbers are written in the shortest form that reads back to the same double.
#include <optional>
#include <string>
#include <string_view>

#include "platform/Screens.h"

namespace sprelio::store {

struct Point {
    double x = 0, y = 0;
    bool operator==(const Point&) const = default;
};

using Rect = platform::Rect;

struct PointText {
    static std::optional<Point> parse(std::string_view text);
    static std::string format(const Point& point);
};

struct RectText {
    static std::optional<Rect> parse(std::string_view text);
    static std::string format(const Rect& rect);
};

} // namespace sprelio::store
