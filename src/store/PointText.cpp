#include "store/PointText.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace sprelio::store {
namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// Splits at commas; every part must be a whole finite double. nullopt when any part isn't.
std::optional<std::vector<double>> numbers(std::string_view text) {
    std::vector<double> out;
    while (true) {
        auto comma = text.find(',');
        auto part = trim(text.substr(0, comma));
        if (part.empty()) return std::nullopt;
        if (part.front() == '+') part.remove_prefix(1);
        double value = 0;
        auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
        if (ec != std::errc() || end != part.data() + part.size() || !std::isfinite(value)) return std::nullopt;
        out.push_back(value);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return out;
}

std::string formatNumber(double value) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (ec != std::errc()) return "0";
    return std::string(buffer, end);
}

} // namespace

std::optional<Point> PointText::parse(std::string_view text) {
    auto values = numbers(text);
    if (!values || values->size() != 2) return std::nullopt;
    return Point{(*values)[0], (*values)[1]};
}

std::string PointText::format(const Point& point) { return formatNumber(point.x) + "," + formatNumber(point.y); }

std::optional<Rect> RectText::parse(std::string_view text) {
    auto values = numbers(text);
    if (!values || values->size() != 4) return std::nullopt;
    Rect rect;
    rect.x = (*values)[0];
    rect.y = (*values)[1];
    rect.width = (*values)[2];
    rect.height = (*values)[3];
    return rect;
}

std::string RectText::format(const Rect& rect) {
    return formatNumber(rect.x) + "," + formatNumber(rect.y) + "," + formatNumber(rect.width) + "," +
           formatNumber(rect.height);
}

} // namespace sprelio::store
