#pragma once
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sprelio {

// A random (version 4) UUID. Its text form is upper case, like the ids that other clients of the backend send.
class Uuid {
public:
    Uuid() = default; // the nil UUID
    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text); // accepts either case
    std::string string() const;
    bool isNil() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    auto operator<=>(const Uuid&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

} // namespace sprelio

template <> struct std::hash<sprelio::Uuid> {
    std::size_t operator()(const sprelio::Uuid& u) const noexcept {
        std::size_t h = 0;
        for (auto b : u.bytes()) h = h * 131 + b;
        return h;
    }
};
