#include "platform/linux/X11SyntheticKeyboard.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <variant>

#include "base/Log.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/linux/X11KeyTables.h"

namespace sprelio::platform {

namespace {

using Clock = std::chrono::steady_clock;

// Events sent before Xlib's buffer is flushed and the server has caught up; keeps a long text from piling up
// unread in the server while the focused client is still busy with the beginning.
constexpr std::size_t kEventsPerSync = 512;
// How long a synthetic keystroke waits for the user to let go of a key (the key of the hotkey that started it).
constexpr std::chrono::milliseconds kKeyReleaseWait{1000};

std::vector<char32_t> decodeUtf8(const std::string& text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        char32_t value = 0;
        if (c < 0x80) {
            length = 1;
            value = c;
        } else if ((c & 0xE0) == 0xC0) {
            length = 2;
            value = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            value = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            value = c & 0x07;
        }
        bool valid = length > 0 && i + length <= text.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) valid = false;
            else value = (value << 6) | (next & 0x3F);
        }
        if (!valid) {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        out.push_back(value);
        i += length;
    }
    return out;
}

struct KeyEvents {
    std::vector<SyntheticKeyEvent> events;
};
struct Text {
    std::string text;
};
using Command = std::variant<KeyEvents, Text>;

// How one character is typed: a key of the keymap, with or without Shift, or a key that must first be given the
// character's keysym.
struct Stroke {
    KeySym keysym = NoSymbol;
    unsigned keycode = 0; // 0 until the key is known
    bool shift = false;
};

} // namespace

struct X11SyntheticKeyboard::Impl final : x11::Connection::Client {
    x11::Connection connection;
    X11GlobalInput* observation;
    bool hasXTest = false;
    int xkbEventType = -1;

    // ---- Keymap, under the connection's lock ----
    bool keymapStale = true;
    XkbDescPtr xkb = nullptr;
    x11::KeyTables tables;
    // Keycodes with no symbols and no modifier of their own, as the keymap had them before we remapped any.
    std::vector<unsigned> spareKeys;
    // What we mapped on spare keys, and when each was last pressed.
    std::map<unsigned, KeySym> remapped;
    std::map<unsigned, Clock::time_point> lastUse;
    // Keys we hold down ourselves: flagged modifiers and keys whose release is still to come.
    std::multiset<unsigned> heldByUs;
    // Stored code -> the X key we last released for it.
    std::map<std::uint16_t, unsigned> releasedKeys;

    // ---- Work queue ----
    std::mutex queueMutex;
    std::condition_variable queueChanged;
    std::deque<Command> queue;
    bool busy = false;
    bool stopping = false;
    std::optional<Clock::time_point> releaseRemapsAt;
    std::thread worker;

    Impl(const std::string& displayName, X11GlobalInput* o) : connection(displayName, "X11SyntheticKeyboard"), observation(o) {}

    ~Impl() override {
        if (xkb) XkbFreeKeyboard(xkb, 0, True);
    }

    void open() {
        if (!connection.isOpen()) return;
        auto lock = connection.lock();
        Display* d = connection.display();
        int event = 0, error = 0, major = 0, minor = 0;
        hasXTest = XTestQueryExtension(d, &event, &error, &major, &minor);
        if (!hasXTest) logError("X11SyntheticKeyboard - the X server has no XTest extension; nothing can be typed");
        int xkbMajor = XkbMajorVersion, xkbMinor = XkbMinorVersion, xkbError = 0;
        if (XkbQueryExtension(d, nullptr, &xkbEventType, &xkbError, &xkbMajor, &xkbMinor))
            XkbSelectEvents(d, XkbUseCoreKbd, XkbNewKeyboardNotifyMask | XkbMapNotifyMask,
                            XkbNewKeyboardNotifyMask | XkbMapNotifyMask);
        refreshKeymapLocked();
        XSync(d, False);
    }

    // ---- Reader thread ----

    void handleEvent(XEvent& event) override {
        if (event.type == MappingNotify) {
            XRefreshKeyboardMapping(&event.xmapping);
            keymapStale = true;
        } else if (event.type == xkbEventType) {
            const auto* xkbEvent = reinterpret_cast<const XkbAnyEvent*>(&event);
            if (xkbEvent->xkb_type == XkbNewKeyboardNotify || xkbEvent->xkb_type == XkbMapNotify) keymapStale = true;
        }
    }

    // ---- Keymap ----

    void refreshKeymapLocked() {
        if (!keymapStale) return;
        keymapStale = false;
        Display* d = connection.display();
        if (xkb) XkbFreeKeyboard(xkb, 0, True);
        xkb = XkbGetMap(d, XkbAllClientInfoMask, XkbUseCoreKbd);
        if (xkb) XkbGetNames(d, XkbKeyNamesMask, xkb);
        tables = x11::buildKeyTables(d, xkb);
        if (!xkb) return;
        // A remapped key that no longer has our symbol was remapped by someone else (a new layout, say).
        for (auto it = remapped.begin(); it != remapped.end();) {
            const KeySym now = XkbKeySymsPtr(xkb, it->first) && XkbKeyNumSyms(xkb, it->first) > 0
                                   ? XkbKeySym(xkb, it->first, 0)
                                   : NoSymbol;
            if (now != it->second) it = remapped.erase(it);
            else ++it;
        }
        XModifierKeymap* modifiers = XGetModifierMapping(d);
        std::set<unsigned> modifierKeys;
        if (modifiers) {
            for (int i = 0; i < 8 * modifiers->max_keypermod; ++i)
                if (modifiers->modifiermap[i]) modifierKeys.insert(modifiers->modifiermap[i]);
            XFreeModifiermap(modifiers);
        }
        spareKeys.clear();
        for (int kc = xkb->min_key_code; kc <= xkb->max_key_code; ++kc) {
            const auto code = static_cast<unsigned>(kc);
            if (modifierKeys.count(code)) continue;
            if (XkbKeyNumSyms(xkb, kc) == 0 || remapped.count(code)) spareKeys.push_back(code);
        }
        // The highest keycodes first: those are the least likely to be on a real keyboard.
        std::reverse(spareKeys.begin(), spareKeys.end());
    }

    // Several X keys can stand for one stored code (right Alt and AltGr are both right Option). A release goes to
    // the one that is down, and the press that puts a released key back goes to that same key.
    std::optional<unsigned> keyForEventLocked(const SyntheticKeyEvent& event) {
        const auto codes = tables.x11CodesFor(event.keyCode);
        if (codes.empty()) return std::nullopt;
        if (codes.size() == 1) return codes.front();
        if (event.down) {
            if (auto it = releasedKeys.find(event.keyCode); it != releasedKeys.end()) {
                const unsigned keycode = it->second;
                releasedKeys.erase(it);
                return keycode;
            }
            return codes.front();
        }
        char keys[32] = {};
        XQueryKeymap(connection.display(), keys);
        for (unsigned keycode : codes)
            if (keycode < 256 && (keys[keycode / 8] & (1 << (keycode % 8)))) {
                releasedKeys[event.keyCode] = keycode;
                return keycode;
            }
        return codes.front();
    }

    unsigned modifierKeyLocked(KeySym keysym) const {
        return XKeysymToKeycode(connection.display(), keysym);
    }

    // ---- Sending ----

    void press(unsigned keycode, bool down) {
        XTestFakeKeyEvent(connection.display(), keycode, down ? True : False, CurrentTime);
        if (down) heldByUs.insert(keycode);
        else if (auto it = heldByUs.find(keycode); it != heldByUs.end()) heldByUs.erase(it);
    }

    void sendKeyEventsLocked(const std::vector<SyntheticKeyEvent>& events) {
        struct Modifier {
            std::uint64_t flag;
            KeySym keysym;
        };
        static constexpr Modifier kModifiers[] = {{event_flags_mask::kControl, XK_Control_L},
                                                  {event_flags_mask::kShift, XK_Shift_L},
                                                  {event_flags_mask::kOption, XK_Alt_L},
                                                  {event_flags_mask::kCommand, XK_Super_L}};
        std::vector<unsigned> flagged; // modifier keys held for the flags, in the order pressed
        std::size_t sent = 0;
        for (const auto& event : events) {
            std::vector<unsigned> needed;
            for (const auto& modifier : kModifiers)
                if (event.flags & modifier.flag)
                    if (unsigned kc = modifierKeyLocked(modifier.keysym)) needed.push_back(kc);
            for (auto it = flagged.rbegin(); it != flagged.rend(); ++it)
                if (std::find(needed.begin(), needed.end(), *it) == needed.end()) press(*it, false);
            std::erase_if(flagged,
                          [&](unsigned kc) { return std::find(needed.begin(), needed.end(), kc) == needed.end(); });
            for (unsigned kc : needed)
                if (std::find(flagged.begin(), flagged.end(), kc) == flagged.end()) {
                    press(kc, true);
                    flagged.push_back(kc);
                }
            const auto keycode = keyForEventLocked(event);
            if (!keycode) {
                logError("X11SyntheticKeyboard - key code " + std::to_string(event.keyCode) +
                         " is not on this keyboard; its event is not sent");
                continue;
            }
            press(*keycode, event.down);
            if (++sent % kEventsPerSync == 0) XSync(connection.display(), False);
        }
        for (auto it = flagged.rbegin(); it != flagged.rend(); ++it) press(*it, false);
    }

    // The key (and Shift) that types each character in the current group, with the lock modifiers as they are.
    std::unordered_map<char32_t, Stroke> layoutStrokesLocked() const {
        std::unordered_map<char32_t, Stroke> strokes;
        XkbStateRec state{};
        if (XkbGetState(connection.display(), XkbUseCoreKbd, &state) != Success || !xkb) return strokes;
        // Caps Lock is off while typing; Num Lock only matters to the keypad, which is not used.
        const unsigned locks = state.locked_mods & Mod2Mask;
        for (bool shift : {false, true}) {
            for (int kc = xkb->min_key_code; kc <= xkb->max_key_code; ++kc) {
                if (remapped.count(static_cast<unsigned>(kc))) continue;
                KeySym sym = NoSymbol;
                unsigned consumed = 0;
                const unsigned mods = locks | (shift ? ShiftMask : 0u);
                if (!XkbTranslateKeyCode(xkb, static_cast<KeyCode>(kc), XkbBuildCoreState(mods, state.group),
                                         &consumed, &sym) ||
                    sym == NoSymbol)
                    continue;
                // Keypad keys type digits only while Num Lock holds; the main block is preferred anyway.
                if (sym >= XK_KP_Space && sym <= XK_KP_9) continue;
                const std::uint32_t c = xkb_keysym_to_utf32(static_cast<xkb_keysym_t>(sym));
                if (c < 0x20 || c == 0x7f) continue;
                strokes.emplace(static_cast<char32_t>(c), Stroke{sym, static_cast<unsigned>(kc), shift});
            }
        }
        return strokes;
    }

    static KeySym keysymFor(char32_t c) {
        const xkb_keysym_t sym = xkb_utf32_to_keysym(static_cast<std::uint32_t>(c));
        return sym ? static_cast<KeySym>(sym) : static_cast<KeySym>(0x01000000 + c);
    }

    // Maps the keysyms on spare keys, one request per run of neighbouring keycodes.
    void remapLocked(const std::map<unsigned, KeySym>& changes) {
        Display* d = connection.display();
        for (auto it = changes.begin(); it != changes.end();) {
            auto end = std::next(it);
            while (end != changes.end() && end->first == std::prev(end)->first + 1) ++end;
            std::vector<KeySym> syms;
            for (auto k = it; k != end; ++k) {
                syms.push_back(k->second);
                syms.push_back(k->second);
            }
            XChangeKeyboardMapping(d, static_cast<int>(it->first), 2, syms.data(),
                                   static_cast<int>(std::distance(it, end)));
            for (auto k = it; k != end; ++k) {
                if (k->second == NoSymbol) remapped.erase(k->first);
                else remapped[k->first] = k->second;
            }
            it = end;
        }
        XSync(d, False);
        // Our own copy follows at the next refresh; the map is known, so the strokes use it at once.
        keymapStale = true;
    }

    void typeLocked(const std::string& text, x11::Connection::Lock& lock) {
        const auto characters = decodeUtf8(text);
        // Caps Lock would turn typed letters into capitals (and capitals into small ones): off while typing.
        XkbStateRec state{};
        const bool capsLocked = XkbGetState(connection.display(), XkbUseCoreKbd, &state) == Success &&
                                (state.locked_mods & LockMask);
        const unsigned capsKey = XKeysymToKeycode(connection.display(), XK_Caps_Lock);
        if (capsLocked && capsKey) {
            press(capsKey, true);
            press(capsKey, false);
            XSync(connection.display(), False);
        }
        std::vector<Stroke> strokes;
        strokes.reserve(characters.size());
        const auto layout = layoutStrokesLocked();
        const unsigned returnKey = XKeysymToKeycode(connection.display(), XK_Return);
        const unsigned tabKey = XKeysymToKeycode(connection.display(), XK_Tab);
        std::size_t skipped = 0;
        for (std::size_t i = 0; i < characters.size(); ++i) {
            const char32_t c = characters[i];
            if (c == U'\r' && i + 1 < characters.size() && characters[i + 1] == U'\n') continue;
            if (c == U'\n' || c == U'\r') {
                strokes.push_back(Stroke{XK_Return, returnKey, false});
            } else if (c == U'\t') {
                strokes.push_back(Stroke{XK_Tab, tabKey, false});
            } else if (c < 0x20 || (c >= 0x7f && c < 0xa0)) {
                ++skipped; // control characters type nothing in any application
            } else if (auto it = layout.find(c); it != layout.end()) {
                strokes.push_back(it->second);
            } else {
                strokes.push_back(Stroke{keysymFor(c), 0, false});
            }
        }
        if (skipped) logWarning("X11SyntheticKeyboard - " + std::to_string(skipped) + " control characters not typed");
        sendStrokesLocked(strokes, lock);
        if (capsLocked && capsKey) {
            press(capsKey, true);
            press(capsKey, false);
        }
    }

    // Sends the strokes in rounds: each round maps the keysyms it lacks on spare keys first.
    void sendStrokesLocked(std::vector<Stroke>& strokes, x11::Connection::Lock& lock) {
        if (spareKeys.empty()) {
            const auto lacking = std::erase_if(strokes, [](const Stroke& s) { return s.keycode == 0; });
            if (lacking)
                logError("X11SyntheticKeyboard - the keymap has no spare key; " + std::to_string(lacking) +
                         " characters it lacks are not typed");
        }
        std::size_t start = 0;
        bool shiftHeld = false;
        const unsigned shiftKey = modifierKeyLocked(XK_Shift_L);
        while (start < strokes.size()) {
            // Which keysyms this round needs on spare keys, as many as there are spare keys.
            std::map<KeySym, unsigned> assigned;
            std::size_t end = start;
            std::set<KeySym> needed;
            for (; end < strokes.size(); ++end) {
                if (strokes[end].keycode) continue;
                const KeySym sym = strokes[end].keysym;
                if (needed.count(sym)) continue;
                if (needed.size() == spareKeys.size()) break;
                needed.insert(sym);
            }
            // Keys that already carry a needed keysym keep it; the others take the spare keys used longest ago.
            std::map<unsigned, KeySym> changes;
            std::set<unsigned> taken;
            for (const auto& [kc, sym] : remapped)
                if (needed.count(sym)) {
                    assigned[sym] = kc;
                    taken.insert(kc);
                }
            std::vector<unsigned> free;
            for (unsigned kc : spareKeys)
                if (!taken.count(kc)) free.push_back(kc);
            std::stable_sort(free.begin(), free.end(), [&](unsigned a, unsigned b) {
                const bool aMapped = remapped.count(a), bMapped = remapped.count(b);
                if (aMapped != bMapped) return !aMapped;
                return lastUse[a] < lastUse[b];
            });
            std::size_t next = 0;
            Clock::time_point settle{};
            for (KeySym sym : needed) {
                if (assigned.count(sym)) continue;
                const unsigned kc = free[next++];
                assigned[sym] = kc;
                changes[kc] = sym;
                if (remapped.count(kc)) settle = std::max(settle, lastUse[kc] + kRemapSettleTime);
            }
            if (!changes.empty()) {
                // A key pressed a moment ago may not have been read yet by its client: give it time.
                if (shiftHeld) {
                    press(shiftKey, false);
                    shiftHeld = false;
                }
                XSync(connection.display(), False);
                if (const auto now = Clock::now(); settle > now) {
                    lock.unlock();
                    std::this_thread::sleep_for(settle - now);
                    lock.relock();
                }
                remapLocked(changes);
            }
            std::size_t sent = 0;
            for (std::size_t i = start; i < end; ++i) {
                Stroke& stroke = strokes[i];
                const unsigned keycode = stroke.keycode ? stroke.keycode : assigned.at(stroke.keysym);
                if (stroke.shift != shiftHeld && shiftKey) {
                    press(shiftKey, stroke.shift);
                    shiftHeld = stroke.shift;
                }
                press(keycode, true);
                press(keycode, false);
                if (!stroke.keycode) lastUse[keycode] = Clock::now();
                if (++sent % kEventsPerSync == 0) {
                    XSync(connection.display(), False);
                    lock.unlock(); // a long text must not keep the other users of the connection waiting
                    lock.relock();
                }
            }
            start = end;
        }
        if (shiftHeld) press(shiftKey, false);
        XSync(connection.display(), False);
    }

    void releaseRemapsLocked() {
        if (remapped.empty()) return;
        std::map<unsigned, KeySym> changes;
        for (const auto& [kc, sym] : remapped) changes[kc] = NoSymbol;
        remapLocked(changes);
    }

    // ---- Worker ----

    // True while the user holds a key that is not a modifier. The key of a hotkey is one: while it is down, the
    // passive grab that took it is still active and every key event goes to Sprelio, not to the application in
    // front, so a paste sent then is lost. The key of a hotkey comes up within a moment; a key held longer than
    // kKeyReleaseWait is the user's business and the events go anyway.
    bool userHoldsAKeyLocked() {
        char keys[32] = {};
        XQueryKeymap(connection.display(), keys);
        for (unsigned kc = 0; kc < 256; ++kc) {
            if (!(keys[kc / 8] & (1 << (kc % 8))) || heldByUs.count(kc)) continue;
            const auto it = tables.codeOfX11.find(kc);
            if (it == tables.codeOfX11.end() || !x11::isModifierCode(it->second)) return true;
        }
        return false;
    }

    void waitForHeldKeysLocked(x11::Connection::Lock& lock) {
        const auto deadline = Clock::now() + kKeyReleaseWait;
        while (userHoldsAKeyLocked()) {
            if (Clock::now() >= deadline) {
                logWarning("X11SyntheticKeyboard - a key is still held after " +
                           std::to_string(kKeyReleaseWait.count()) + " ms; sending the events anyway");
                return;
            }
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            lock.relock();
        }
    }

    void run(const Command& command) {
        if (!connection.isOpen() || !hasXTest) return;
        {
            auto lock = connection.lock();
            refreshKeymapLocked();
            waitForHeldKeysLocked(lock);
        }
        std::optional<X11GlobalInput::InjectionScope> scope;
        if (observation) scope.emplace(*observation);
        auto lock = connection.lock();
        refreshKeymapLocked();
        if (const auto* keys = std::get_if<KeyEvents>(&command)) {
            sendKeyEventsLocked(keys->events);
        } else if (const auto* text = std::get_if<Text>(&command)) {
            typeLocked(text->text, lock);
        }
        XSync(connection.display(), False);
        // The scope closes after the server has seen everything, so that the tail of the burst is filtered too.
    }

    void workerLoop() {
        std::unique_lock lock(queueMutex);
        for (;;) {
            if (stopping) break;
            if (queue.empty()) {
                if (releaseRemapsAt) {
                    if (queueChanged.wait_until(lock, *releaseRemapsAt) == std::cv_status::timeout && queue.empty() &&
                        !stopping) {
                        releaseRemapsAt.reset();
                        lock.unlock();
                        if (connection.isOpen()) {
                            auto xlock = connection.lock();
                            releaseRemapsLocked();
                        }
                        lock.lock();
                    }
                } else {
                    queueChanged.wait(lock);
                }
                continue;
            }
            Command command = std::move(queue.front());
            queue.pop_front();
            busy = true;
            lock.unlock();
            run(command);
            lock.lock();
            busy = false;
            if (std::holds_alternative<Text>(command)) releaseRemapsAt = Clock::now() + kRemapReleaseDelay;
            queueChanged.notify_all();
        }
    }

    void enqueue(Command command) {
        {
            std::lock_guard lock(queueMutex);
            queue.push_back(std::move(command));
        }
        queueChanged.notify_all();
    }
};

X11SyntheticKeyboard::X11SyntheticKeyboard(const std::string& displayName, X11GlobalInput* observation)
    : impl_(std::make_unique<Impl>(displayName, observation)) {
    impl_->open();
    impl_->connection.start(*impl_);
    impl_->worker = std::thread([this] { impl_->workerLoop(); });
}

X11SyntheticKeyboard::~X11SyntheticKeyboard() {
    auto& d = *impl_;
    {
        std::lock_guard lock(d.queueMutex);
        d.stopping = true;
    }
    d.queueChanged.notify_all();
    if (d.worker.joinable()) d.worker.join();
    if (d.connection.isOpen()) {
        auto lock = d.connection.lock();
        // Keys we still hold would stay down for every client.
        while (!d.heldByUs.empty()) d.press(*d.heldByUs.begin(), false);
        d.releaseRemapsLocked();
        XSync(d.connection.display(), False);
    }
    d.connection.stop();
}

void X11SyntheticKeyboard::postKeyEvents(std::vector<SyntheticKeyEvent> events) {
    if (events.empty()) return;
    impl_->enqueue(KeyEvents{std::move(events)});
}

void X11SyntheticKeyboard::typeText(std::string text) {
    if (text.empty()) return;
    impl_->enqueue(Text{std::move(text)});
}

std::vector<std::uint16_t> X11SyntheticKeyboard::heldModifierKeys() const {
    auto& d = *impl_;
    std::vector<std::uint16_t> held;
    if (!d.connection.isOpen()) return held;
    auto lock = d.connection.lock();
    d.refreshKeymapLocked();
    char keys[32] = {};
    XQueryKeymap(d.connection.display(), keys);
    for (unsigned kc = 0; kc < 256; ++kc) {
        if (!(keys[kc / 8] & (1 << (kc % 8)))) continue;
        if (d.heldByUs.count(kc)) continue;
        auto it = d.tables.codeOfX11.find(kc);
        if (it == d.tables.codeOfX11.end() || !x11::isModifierCode(it->second)) continue;
        if (std::find(held.begin(), held.end(), it->second) == held.end()) held.push_back(it->second);
    }
    return held;
}

bool X11SyntheticKeyboard::isAvailable() const { return impl_->connection.isOpen() && impl_->hasXTest; }

bool X11SyntheticKeyboard::waitUntilSent(std::chrono::milliseconds timeout) const {
    auto& d = *impl_;
    std::unique_lock lock(d.queueMutex);
    return d.queueChanged.wait_for(lock, timeout, [&] { return d.queue.empty() && !d.busy; });
}

std::size_t X11SyntheticKeyboard::spareKeyCount() const {
    auto& d = *impl_;
    if (!d.connection.isOpen()) return 0;
    auto lock = d.connection.lock();
    d.refreshKeymapLocked();
    return d.spareKeys.size();
}

} // namespace sprelio::platform
