#pragma once
// keyCode(for:) and its reverse over the current keyboard layout, with the QWERTY positions as the fall-back.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "input/Key.h"
#include "platform/KeyboardLayout.h"

namespace sprelio {

// The US QWERTY layout; the layout used where the platform gives none.
class QwertyKeyboardLayout final : public platform::KeyboardLayout {
public:
    std::string currentLayoutIdentifier() const override { return "us"; }
    std::string currentLayoutLocalizedName() const override { return "English (US)"; }
    std::optional<std::string> character(std::uint16_t keyCode) const override;
    void setLayoutChangedHandler(std::function<void()> handler) override { handler_ = std::move(handler); }

private:
    std::function<void()> handler_;
};

class KeyCodes {
public:
    // `layout` must outlive this object; its change handler is taken over.
    explicit KeyCodes(platform::KeyboardLayout& layout);
    ~KeyCodes();
    KeyCodes(const KeyCodes&) = delete;
    KeyCodes& operator=(const KeyCodes&) = delete;

    // The key code that types the key in the current layout; the key's QWERTY code when the layout has no key
    // for it, and always for keys that type no character (function, keypad, navigation keys).
    std::uint16_t keyCode(Key key);
    // The character a key code produces in the current layout (the display of normal shortcuts).
    std::optional<std::string> character(std::uint16_t keyCode) const;
    // Forgets every table; the next question builds the table of the then current layout.
    void layoutChanged();
    // Number of layouts with a table built (for tests of the rebuild).
    std::size_t cachedLayoutCount() const { return tables_.size(); }

    // The process-wide instance; on the QWERTY layout until install() gives it the platform's layout.
    static KeyCodes& shared();
    static void install(platform::KeyboardLayout& layout);
    // Back on the QWERTY layout, for whoever installed a layout that goes before the process ends.
    static void installQwerty();

private:
    using Table = std::unordered_map<std::string, std::uint16_t>; // character → key code
    const Table& currentTable();

    platform::KeyboardLayout& layout_;
    std::map<std::string, Table> tables_;
};

} // namespace sprelio
