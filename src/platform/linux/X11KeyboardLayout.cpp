#include "platform/linux/X11KeyboardLayout.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/keysym.h>
#include <xkbcommon/xkbcommon.h>

#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "base/Log.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11KeyTables.h"

namespace sprelio::platform {

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string current;
    for (char c : text) {
        if (c == separator) {
            parts.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    parts.push_back(current);
    return parts;
}

// The X keycode of a key by its four-letter name in the keymap ("RALT").
std::optional<KeyCode> keyNamed(XkbDescPtr xkb, const char* name) {
    if (!xkb->names || !xkb->names->keys) return std::nullopt;
    for (int kc = xkb->min_key_code; kc <= xkb->max_key_code; ++kc)
        if (std::strncmp(xkb->names->keys[kc].name, name, XkbKeyNameLength) == 0) return static_cast<KeyCode>(kc);
    return std::nullopt;
}

struct Group {
    std::string identifier;
    std::string name;
    std::map<std::uint16_t, std::string> characters;
    bool asciiCapable = false;
    // The right Alt key is AltGr (ISO_Level3_Shift) in this layout.
    bool rightAltIsAltGr = false;
};

} // namespace

struct X11KeyboardLayout::Impl final : x11::Connection::Client {
    MainLoop& loop;
    std::shared_ptr<std::function<void()>> handler = std::make_shared<std::function<void()>>();
    x11::Connection connection;
    int xkbEventType = -1;
    Atom rulesNames = None;

    // Under the connection's lock.
    std::vector<Group> groups;
    int currentGroup = 0;
    int asciiGroup = 0;

    Impl(MainLoop& l, const std::string& displayName) : loop(l), connection(displayName, "X11KeyboardLayout") {}

    void open() {
        if (!connection.isOpen()) return;
        auto lock = connection.lock();
        Display* d = connection.display();
        int major = XkbMajorVersion, minor = XkbMinorVersion, error = 0;
        if (!XkbQueryExtension(d, nullptr, &xkbEventType, &error, &major, &minor)) {
            logError("X11KeyboardLayout - the X server has no XKB extension; the US layout is assumed");
            xkbEventType = -1;
            return;
        }
        const unsigned long changes = XkbNewKeyboardNotifyMask | XkbMapNotifyMask | XkbNamesNotifyMask;
        XkbSelectEvents(d, XkbUseCoreKbd, changes, changes);
        XkbSelectEventDetails(d, XkbUseCoreKbd, XkbStateNotify, XkbGroupStateMask, XkbGroupStateMask);
        // setxkbmap names the layouts on the root window after it has loaded the keymap.
        rulesNames = connection.atoms().xkbRulesNames;
        XSelectInput(d, connection.root(), PropertyChangeMask);
        loadLocked();
        XSync(d, False);
    }

    // The names the layouts were configured with: "us", "de", "us(dvorak)".
    std::vector<std::string> configuredLayoutsLocked() const {
        Display* d = connection.display();
        std::vector<std::string> identifiers;
        if (rulesNames == None) return identifiers;
        auto value = x11::readProperty(d, connection.root(), rulesNames);
        if (!value || value->format != 8) return identifiers;
        const auto fields = split(value->bytes, '\0'); // rules, model, layouts, variants, options
        if (fields.size() < 3) return identifiers;
        const auto layouts = split(fields[2], ',');
        const auto variants = fields.size() > 3 ? split(fields[3], ',') : std::vector<std::string>{};
        for (std::size_t i = 0; i < layouts.size(); ++i) {
            std::string id = layouts[i];
            if (i < variants.size() && !variants[i].empty()) id += "(" + variants[i] + ")";
            identifiers.push_back(id);
        }
        return identifiers;
    }

    void loadLocked() {
        Display* d = connection.display();
        XkbDescPtr xkb = XkbGetMap(d, XkbAllClientInfoMask, XkbUseCoreKbd);
        if (!xkb) return;
        XkbGetNames(d, XkbKeyNamesMask | XkbGroupNamesMask, xkb);
        const auto tables = x11::buildKeyTables(d, xkb);
        const auto configured = configuredLayoutsLocked();
        std::set<std::uint16_t> positional;
        for (const auto& [name, code] : x11::positionalKeys()) positional.insert(code);
        int groupCount = 1;
        for (int kc = xkb->min_key_code; kc <= xkb->max_key_code; ++kc)
            groupCount = std::max(groupCount, static_cast<int>(XkbKeyNumGroups(xkb, kc)));
        groups.assign(static_cast<std::size_t>(groupCount), Group{});
        for (int g = 0; g < groupCount; ++g) {
            Group& group = groups[static_cast<std::size_t>(g)];
            if (static_cast<std::size_t>(g) < configured.size()) group.identifier = configured[static_cast<std::size_t>(g)];
            else group.identifier = "group" + std::to_string(g + 1);
            if (xkb->names && xkb->names->groups[g] != None) {
                if (char* name = XGetAtomName(d, xkb->names->groups[g])) {
                    group.name = name;
                    XFree(name);
                }
            }
            if (group.name.empty()) group.name = group.identifier;
            // The physical right Alt key, by its name in the keymap: keymaps also carry a key of their own for
            // level three (LVL3), which no keyboard has.
            if (const auto ralt = keyNamed(xkb, "RALT")) {
                KeySym sym = NoSymbol;
                unsigned consumed = 0;
                group.rightAltIsAltGr =
                    XkbTranslateKeyCode(xkb, *ralt, XkbBuildCoreState(0, g), &consumed, &sym) && sym == XK_ISO_Level3_Shift;
            }
            for (const auto& [x11, code] : tables.codeOfX11) {
                // Only the keys whose character depends on the layout; Return, Tab and the like are the same on all.
                if (!positional.count(code)) continue;
                KeySym sym = NoSymbol;
                unsigned consumed = 0;
                if (!XkbTranslateKeyCode(xkb, static_cast<KeyCode>(x11), XkbBuildCoreState(0, g), &consumed, &sym))
                    continue;
                const std::uint32_t c = xkb_keysym_to_utf32(static_cast<xkb_keysym_t>(sym));
                if (c <= 0x20 || c == 0x7f) continue; // the space bar prints nothing to show either
                group.characters.emplace(code, x11::utf8(static_cast<char32_t>(c)));
            }
            int letters = 0;
            for (char letter = 'a'; letter <= 'z'; ++letter)
                for (const auto& [code, text] : group.characters)
                    if (text.size() == 1 && (text[0] == letter || text[0] == letter - 32)) {
                        ++letters;
                        break;
                    }
            group.asciiCapable = letters == 26;
        }
        XkbFreeKeyboard(xkb, 0, True);
        XkbStateRec state{};
        if (XkbGetState(d, XkbUseCoreKbd, &state) == Success) currentGroup = state.group;
        selectAsciiGroupLocked(true);
    }

    void selectAsciiGroupLocked(bool fresh) {
        if (currentGroup >= 0 && static_cast<std::size_t>(currentGroup) < groups.size() &&
            groups[static_cast<std::size_t>(currentGroup)].asciiCapable) {
            asciiGroup = currentGroup;
            return;
        }
        if (!fresh && static_cast<std::size_t>(asciiGroup) < groups.size() &&
            groups[static_cast<std::size_t>(asciiGroup)].asciiCapable)
            return;
        asciiGroup = 0;
        for (std::size_t g = 0; g < groups.size(); ++g)
            if (groups[g].asciiCapable) {
                asciiGroup = static_cast<int>(g);
                break;
            }
    }

    void handleEvent(XEvent& event) override {
        if (event.type == MappingNotify) {
            XRefreshKeyboardMapping(&event.xmapping);
            return;
        }
        if (event.type == PropertyNotify) {
            if (event.xproperty.atom == rulesNames) {
                loadLocked();
                notify();
            }
            return;
        }
        if (event.type != xkbEventType) return;
        const auto* xkbEvent = reinterpret_cast<const XkbEvent*>(&event);
        switch (xkbEvent->any.xkb_type) {
        case XkbNewKeyboardNotify:
        case XkbMapNotify:
        case XkbNamesNotify:
            loadLocked();
            notify();
            break;
        case XkbStateNotify:
            if (xkbEvent->state.changed & XkbGroupStateMask) {
                currentGroup = xkbEvent->state.group;
                selectAsciiGroupLocked(false);
                notify();
            }
            break;
        default:
            break;
        }
    }

    void notify() {
        std::weak_ptr<std::function<void()>> weak = handler;
        loop.post([weak] {
            if (auto h = weak.lock(); h && *h) (*h)();
        });
    }

    const Group* asciiLocked() const {
        if (static_cast<std::size_t>(asciiGroup) < groups.size()) return &groups[static_cast<std::size_t>(asciiGroup)];
        return nullptr;
    }
};

X11KeyboardLayout::X11KeyboardLayout(MainLoop& loop, const std::string& displayName)
    : impl_(std::make_unique<Impl>(loop, displayName)) {
    impl_->open();
    impl_->connection.start(*impl_);
}

X11KeyboardLayout::~X11KeyboardLayout() { impl_->connection.stop(); }

bool X11KeyboardLayout::isAvailable() const { return impl_->connection.isOpen(); }

std::string X11KeyboardLayout::currentLayoutIdentifier() const {
    auto lock = impl_->connection.lock();
    const Group* group = impl_->asciiLocked();
    return group ? group->identifier : "us";
}

std::string X11KeyboardLayout::currentLayoutLocalizedName() const {
    auto lock = impl_->connection.lock();
    const auto& groups = impl_->groups;
    const auto current = static_cast<std::size_t>(impl_->currentGroup);
    if (current < groups.size()) return groups[current].name;
    return "English (US)";
}

bool X11KeyboardLayout::rightAltIsAltGr() const {
    auto lock = impl_->connection.lock();
    const auto& groups = impl_->groups;
    const auto current = static_cast<std::size_t>(impl_->currentGroup);
    return current < groups.size() && groups[current].rightAltIsAltGr;
}

std::optional<std::string> X11KeyboardLayout::character(std::uint16_t keyCode) const {
    auto lock = impl_->connection.lock();
    const Group* group = impl_->asciiLocked();
    if (!group) return std::nullopt;
    auto it = group->characters.find(keyCode);
    if (it == group->characters.end()) return std::nullopt;
    return it->second;
}

void X11KeyboardLayout::setLayoutChangedHandler(std::function<void()> handler) {
    *impl_->handler = std::move(handler);
}

} // namespace sprelio::platform
