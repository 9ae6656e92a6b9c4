#include "platform/linux/X11GlobalInput.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XInput2.h>
#include <X11/keysym.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>

#include "base/Log.h"
#include "input/KeyNames.h"
#include "platform/linux/X11Errors.h"
#include "platform/linux/X11KeyTables.h"

namespace sprelio::platform {

using x11::isModifierCode;
using x11::keysymCharacter;
using x11::utf8;

namespace {

constexpr const char* kErrorDomain = "X11GlobalInput";
constexpr std::uint64_t kFlagAlways = 0x100;
constexpr std::uint64_t kFlagCapsLock = 0x10000;
constexpr std::uint64_t kFlagShift = 0x20000;
constexpr std::uint64_t kFlagControl = 0x40000;
constexpr std::uint64_t kFlagOption = 0x80000;
constexpr std::uint64_t kFlagCommand = 0x100000;
constexpr std::uint64_t kFlagFunction = 0x800000;
// NSEvent button numbers against X buttons, the numbers a user reads; 4 to 7 are the wheel and never get here.
unsigned x11Button(std::int64_t buttonNumber) { return static_cast<unsigned>(linuxMouseButton(buttonNumber)); }
std::int64_t nsButton(unsigned button) {
    return buttonNumberForLinuxMouseButton(static_cast<int>(button)).value_or(-1);
}

struct HotKey {
    KeyCombination combination;
    std::vector<unsigned> x11KeyCodes;
    unsigned mask = 0;
    bool down = false;
    unsigned downKeyCode = 0;
};

// What the main loop owns: the handlers. Tasks posted from the reader thread hold it weakly, so an adapter that
// is gone drops them.
struct MainSide {
    GlobalInput::EventHandler handler;
    std::map<HotKeyId, std::pair<std::function<void()>, std::function<void()>>> hotKeyHandlers;
    std::function<void()> connectionLost;
};

} // namespace

struct X11GlobalInput::Impl {
    MainLoop& loop;
    std::shared_ptr<MainSide> main = std::make_shared<MainSide>();

    mutable std::mutex mutex; // every Xlib call on `display`
    Display* display = nullptr;
    Window root = 0;
    int xiOpcode = -1;
    std::atomic<bool> dead{false};
    std::atomic<bool> stopping{false};
    int wakePipe[2] = {-1, -1};
    std::thread reader;

    // Keymap, rebuilt when the server reports a new one.
    XkbDescPtr xkb = nullptr;
    std::map<unsigned, std::uint16_t> codeOfX11;
    std::map<unsigned, char32_t> specialCharacterOfX11;
    unsigned altMask = Mod1Mask;
    unsigned superMask = Mod4Mask;
    unsigned numLockMask = Mod2Mask;

    // Grabs as the logic asked for them, re-applied on keymap changes.
    std::set<std::uint16_t> grabbedKeys;
    std::set<std::int64_t> grabbedButtons;
    std::map<HotKeyId, HotKey> hotKeys;
    HotKeyId nextHotKeyId = 1;

    // Observation state.
    std::set<int> xtestDevices;
    std::atomic<int> injections{0};
    std::map<unsigned, std::uint16_t> modifiersDown; // X keycode -> stored code
    std::map<unsigned, std::uint16_t> pressedCodes;  // X keycode -> stored code it had when it went down
    bool capsLockOn = false;

    explicit Impl(MainLoop& l) : loop(l) {}

    void post(std::function<void(MainSide&)> task) {
        std::weak_ptr<MainSide> weak = main;
        loop.post([weak, task = std::move(task)] {
            if (auto side = weak.lock()) task(*side);
        });
    }

    // Runs `request` and waits for the server's answer; the errors it caused come back.
    template <typename F>
    std::vector<XErrorEvent> checkedLocked(F&& request) {
        auto errors = x11::checked(display, std::forward<F>(request));
        wakeReader(); // XSync may have queued events the reader has not seen
        return errors;
    }

    void wakeReader() const {
        if (wakePipe[1] >= 0) {
            const char byte = 1;
            [[maybe_unused]] auto written = ::write(wakePipe[1], &byte, 1);
        }
    }

    std::vector<unsigned> lockCombinations() const {
        std::set<unsigned> set{0u, static_cast<unsigned>(LockMask), numLockMask,
                               static_cast<unsigned>(LockMask) | numLockMask};
        return {set.begin(), set.end()};
    }

    std::vector<unsigned> x11CodesLocked(std::uint16_t code) const {
        std::vector<unsigned> result;
        for (const auto& [x11, stored] : codeOfX11)
            if (stored == code) result.push_back(x11);
        return result;
    }

    // Reads the keymap afresh; true when our keys moved or the lock and modifier masks changed, which is when the
    // grabs must be made again.
    bool loadKeymapLocked() {
        if (xkb) XkbFreeKeyboard(xkb, 0, True);
        xkb = XkbGetMap(display, XkbAllClientInfoMask, XkbUseCoreKbd);
        if (xkb) XkbGetNames(display, XkbKeyNamesMask, xkb);
        auto tables = x11::buildKeyTables(display, xkb);
        const auto maskOf = [&](KeySym sym, unsigned fallback) {
            const unsigned mask = XkbKeysymToModifiers(display, sym);
            return mask ? mask : fallback;
        };
        const unsigned newAlt = maskOf(XK_Alt_L, Mod1Mask);
        const unsigned newSuper = maskOf(XK_Super_L, Mod4Mask);
        const unsigned newNumLock = XkbKeysymToModifiers(display, XK_Num_Lock);
        const bool changed = tables.codeOfX11 != codeOfX11 || newAlt != altMask || newSuper != superMask ||
                             newNumLock != numLockMask;
        codeOfX11 = std::move(tables.codeOfX11);
        specialCharacterOfX11 = std::move(tables.specialCharacterOfX11);
        altMask = newAlt;
        superMask = newSuper;
        numLockMask = newNumLock;
        return changed;
    }

    void findXtestDevicesLocked() {
        xtestDevices.clear();
        int count = 0;
        XIDeviceInfo* devices = XIQueryDevice(display, XIAllDevices, &count);
        for (int i = 0; i < count; ++i) {
            const std::string_view name = devices[i].name ? devices[i].name : "";
            if (name.find("XTEST") != std::string_view::npos) xtestDevices.insert(devices[i].deviceid);
        }
        if (devices) XIFreeDeviceInfo(devices);
    }

    std::string combinationName(unsigned mask, unsigned x11Code) const {
        std::string text;
        if (mask & ControlMask) text += "Control+";
        if (mask & altMask) text += "Alt+";
        if (mask & ShiftMask) text += "Shift+";
        if (mask & superMask) text += "Super+";
        const KeySym sym = XkbKeycodeToKeysym(display, static_cast<KeyCode>(x11Code), 0, 0);
        const char* name = sym != NoSymbol ? XKeysymToString(sym) : nullptr;
        text += name ? name : "keycode " + std::to_string(x11Code);
        return text;
    }

    static Error error(long code, std::string text) { return Error{kErrorDomain, code, std::move(text), {}}; }

    Error grabError(const std::vector<XErrorEvent>& errors, const std::string& what) const {
        const auto code = errors.front().error_code;
        if (code == BadAccess) return error(code, what + " is already grabbed by another application");
        char text[256] = {};
        XGetErrorText(display, code, text, sizeof text);
        return error(code, "Could not grab " + what + ": " + text);
    }

    std::optional<Error> grabKeyLocked(std::uint16_t code) {
        const auto codes = x11CodesLocked(code);
        if (codes.empty()) return error(1, "Key code " + std::to_string(code) + " is not on this keyboard");
        for (auto x11 : codes) {
            auto errors = checkedLocked([&] {
                XGrabKey(display, static_cast<int>(x11), AnyModifier, root, False, GrabModeAsync, GrabModeAsync);
            });
            if (!errors.empty()) return grabError(errors, combinationName(0, x11) + " (with any modifiers)");
        }
        return std::nullopt;
    }

    std::optional<Error> grabButtonLocked(std::int64_t button) {
        const unsigned x11 = x11Button(button);
        auto errors = checkedLocked([&] {
            XGrabButton(display, x11, AnyModifier, root, False, ButtonPressMask | ButtonReleaseMask, GrabModeAsync,
                        GrabModeAsync, 0, 0);
        });
        if (!errors.empty()) return grabError(errors, "Mouse button " + std::to_string(x11));
        return std::nullopt;
    }

    std::optional<Error> grabHotKeyLocked(HotKey& hotKey) {
        hotKey.x11KeyCodes = x11CodesLocked(hotKey.combination.keyCode);
        if (hotKey.x11KeyCodes.empty())
            return error(1, "Key code " + std::to_string(hotKey.combination.keyCode) + " is not on this keyboard");
        for (auto x11 : hotKey.x11KeyCodes) {
            for (auto locks : lockCombinations()) {
                auto errors = checkedLocked([&] {
                    XGrabKey(display, static_cast<int>(x11), hotKey.mask | locks, root, False, GrabModeAsync,
                             GrabModeAsync);
                });
                if (!errors.empty()) {
                    ungrabHotKeyLocked(hotKey);
                    return grabError(errors, combinationName(hotKey.mask, x11));
                }
            }
        }
        return std::nullopt;
    }

    void ungrabHotKeyLocked(const HotKey& hotKey) {
        for (auto x11 : hotKey.x11KeyCodes)
            for (auto locks : lockCombinations())
                XUngrabKey(display, static_cast<int>(x11), hotKey.mask | locks, root);
    }

    // An ungrab with any modifier also drops our own grabs of the same key, so every release re-applies the rest.
    void regrabAllLocked() {
        XUngrabKey(display, AnyKey, AnyModifier, root);
        XUngrabButton(display, AnyButton, AnyModifier, root);
        for (auto code : grabbedKeys)
            if (auto e = grabKeyLocked(code)) logError("X11GlobalInput.regrab() - " + e->localizedDescription);
        for (auto button : grabbedButtons)
            if (auto e = grabButtonLocked(button)) logError("X11GlobalInput.regrab() - " + e->localizedDescription);
        for (auto& [id, hotKey] : hotKeys)
            if (auto e = grabHotKeyLocked(hotKey)) logError("X11GlobalInput.regrab() - " + e->localizedDescription);
    }

    std::uint64_t flagsLocked() const {
        std::uint64_t flags = kFlagAlways;
        for (const auto& [x11, code] : modifiersDown) {
            switch (code) {
            case 54:
            case 55: flags |= kFlagCommand; break;
            case 56:
            case 60: flags |= kFlagShift; break;
            case 58:
            case 61: flags |= kFlagOption; break;
            case 59:
            case 62: flags |= kFlagControl; break;
            case 63: flags |= kFlagFunction; break;
            default: break;
            }
        }
        if (capsLockOn) flags |= kFlagCapsLock;
        return flags;
    }

    std::optional<std::string> charactersLocked(unsigned x11, unsigned mods, int group) const {
        if (auto it = specialCharacterOfX11.find(x11); it != specialCharacterOfX11.end()) return utf8(it->second);
        if (!xkb) return std::nullopt;
        KeySym sym = NoSymbol;
        unsigned consumed = 0;
        if (!XkbTranslateKeyCode(xkb, static_cast<KeyCode>(x11), XkbBuildCoreState(mods, group), &consumed, &sym))
            return std::nullopt;
        if (auto c = keysymCharacter(sym)) return utf8(*c);
        return std::nullopt;
    }

    // Raw events are the stream; while this client holds an active grab the server may send the releases (or the
    // whole stream, for the keyboard grab) only as core events. A core event is used when its raw twin did not
    // come, which it would have done first.
    std::set<unsigned> keysDown;
    std::set<unsigned> buttonsDown;

    void handleRawLocked(const XIRawEvent& raw, int evtype, std::vector<GlobalInputEvent>& out) {
        if (injections.load() > 0 && xtestDevices.count(raw.sourceid)) return;
        const auto detail = static_cast<unsigned>(raw.detail);
        if (evtype == XI_RawKeyPress || evtype == XI_RawKeyRelease) {
            const bool press = evtype == XI_RawKeyPress;
            if (!press && !keysDown.count(detail)) return;
            handleKeyLocked(detail, press, raw.time, out);
        } else {
            const bool press = evtype == XI_RawButtonPress;
            if (!press && !buttonsDown.count(detail)) return;
            handleButtonLocked(detail, press, raw.time, out);
        }
    }

    void handleCoreLocked(const XEvent& ev, std::vector<GlobalInputEvent>& out) {
        if (injections.load() > 0) return;
        if (ev.type == KeyPress || ev.type == KeyRelease) {
            const bool press = ev.type == KeyPress;
            if (press == static_cast<bool>(keysDown.count(ev.xkey.keycode))) return;
            handleKeyLocked(ev.xkey.keycode, press, ev.xkey.time, out);
        } else if (ev.type == ButtonPress || ev.type == ButtonRelease) {
            const bool press = ev.type == ButtonPress;
            if (press == static_cast<bool>(buttonsDown.count(ev.xbutton.button))) return;
            handleButtonLocked(ev.xbutton.button, press, ev.xbutton.time, out);
        }
    }

    void handleKeyLocked(unsigned x11, bool press, Time time, std::vector<GlobalInputEvent>& out) {
        std::optional<std::uint16_t> code;
        if (press) {
            keysDown.insert(x11);
            if (auto it = codeOfX11.find(x11); it != codeOfX11.end()) code = pressedCodes[x11] = it->second;
        } else {
            keysDown.erase(x11);
            // A key is released as what it was pressed as: the keymap may have changed while it was held, and a
            // modifier that lost its place in the new keymap must still let go of the flags.
            if (auto it = pressedCodes.find(x11); it != pressedCodes.end()) {
                code = it->second;
                pressedCodes.erase(it);
            } else if (auto known = codeOfX11.find(x11); known != codeOfX11.end()) {
                code = known->second;
            }
        }
        if (!code) return;
        GlobalInputEvent event;
        event.timestamp = static_cast<double>(time) / 1000.0;
        event.keyCode = *code;
        if (isModifierCode(*code)) {
            if (press) modifiersDown[x11] = *code;
            else modifiersDown.erase(x11);
            if (*code == 57) {
                XkbStateRec state{};
                if (XkbGetState(display, XkbUseCoreKbd, &state) == Success)
                    capsLockOn = (state.locked_mods & LockMask) != 0;
            }
            event.type = global_event_type::kFlagsChanged;
            event.flags = flagsLocked();
        } else {
            event.type = press ? global_event_type::kKeyDown : global_event_type::kKeyUp;
            event.flags = flagsLocked();
            XkbStateRec state{};
            if (XkbGetState(display, XkbUseCoreKbd, &state) == Success) {
                event.characters = charactersLocked(x11, state.mods, state.group);
                event.charactersIgnoringModifiers =
                    charactersLocked(x11, state.mods & (ShiftMask | LockMask), state.group);
            }
        }
        out.push_back(std::move(event));
    }

    void handleButtonLocked(unsigned button, bool press, Time time, std::vector<GlobalInputEvent>& out) {
        if (press) buttonsDown.insert(button);
        else buttonsDown.erase(button);
        GlobalInputEvent event;
        event.timestamp = static_cast<double>(time) / 1000.0;
        if (button >= 4 && button <= 7) {
            if (!press) return;
            event.type = global_event_type::kScrollWheel;
        } else {
            event.buttonNumber = nsButton(button);
            if (button == 1) event.type = press ? global_event_type::kLeftMouseDown : global_event_type::kLeftMouseUp;
            else if (button == 3)
                event.type = press ? global_event_type::kRightMouseDown : global_event_type::kRightMouseUp;
            else event.type = press ? global_event_type::kOtherMouseDown : global_event_type::kOtherMouseUp;
        }
        event.flags = flagsLocked();
        out.push_back(std::move(event));
    }

    void handleGrabbedKeyLocked(const XKeyEvent& key, bool press) {
        const unsigned relevant = ControlMask | ShiftMask | altMask | superMask;
        for (auto& [id, hotKey] : hotKeys) {
            if (press) {
                if (hotKey.down) continue;
                const bool codeMatches = std::find(hotKey.x11KeyCodes.begin(), hotKey.x11KeyCodes.end(),
                                                   key.keycode) != hotKey.x11KeyCodes.end();
                if (!codeMatches || (key.state & relevant) != hotKey.mask) continue;
                hotKey.down = true;
                hotKey.downKeyCode = key.keycode;
                post([id = id](MainSide& side) {
                    if (auto it = side.hotKeyHandlers.find(id); it != side.hotKeyHandlers.end() && it->second.first)
                        it->second.first();
                });
            } else if (hotKey.down && hotKey.downKeyCode == key.keycode) {
                hotKey.down = false;
                post([id = id](MainSide& side) {
                    if (auto it = side.hotKeyHandlers.find(id); it != side.hotKeyHandlers.end() && it->second.second)
                        it->second.second();
                });
            }
        }
    }

    // Reads everything Xlib holds or the socket has, and hands the events to the main loop in order.
    //
    // Every round trip made here (the keymap reload, the keyboard state of a key event, the device list) lets Xlib
    // read further events off the socket into its own queue, where the reader's poll() never sees them: they would
    // wait for the next unrelated event. The drain therefore only ends once Xlib's queue is empty after the last
    // round trip. A keymap change is applied before the next key event of the same batch, so that event already
    // reads the new keymap.
    void drainLocked() {
        if (dead) return;
        std::vector<GlobalInputEvent> events;
        bool keymapStale = false;
        bool regrab = false;
        const auto refreshKeymap = [&] {
            if (!keymapStale || dead) return;
            keymapStale = false;
            if (loadKeymapLocked()) regrab = true;
        };
        do {
            while (!dead && XPending(display) > 0) {
                XEvent ev;
                XNextEvent(display, &ev);
                if (ev.type == GenericEvent && ev.xcookie.extension == xiOpcode) {
                    if (XGetEventData(display, &ev.xcookie)) {
                        const int evtype = ev.xcookie.evtype;
                        if (evtype == XI_RawKeyPress || evtype == XI_RawKeyRelease || evtype == XI_RawButtonPress ||
                            evtype == XI_RawButtonRelease) {
                            refreshKeymap();
                            handleRawLocked(*static_cast<XIRawEvent*>(ev.xcookie.data), evtype, events);
                        } else if (evtype == XI_HierarchyChanged) {
                            findXtestDevicesLocked();
                        }
                        XFreeEventData(display, &ev.xcookie);
                    }
                } else if (ev.type == KeyPress || ev.type == KeyRelease) {
                    refreshKeymap();
                    handleGrabbedKeyLocked(ev.xkey, ev.type == KeyPress);
                    handleCoreLocked(ev, events);
                } else if (ev.type == ButtonPress || ev.type == ButtonRelease) {
                    handleCoreLocked(ev, events);
                } else if (ev.type == MappingNotify) {
                    XRefreshKeyboardMapping(&ev.xmapping);
                    keymapStale = true;
                } else if (ev.type == xkbEventType) {
                    const auto* xkbEvent = reinterpret_cast<const XkbAnyEvent*>(&ev);
                    if (xkbEvent->xkb_type == XkbNewKeyboardNotify || xkbEvent->xkb_type == XkbMapNotify)
                        keymapStale = true;
                }
            }
            refreshKeymap();
            // Grabs hold X keycodes, which a new keymap only invalidates when it moves our keys or lock modifiers.
            if (regrab && !dead) {
                regrab = false;
                regrabAllLocked();
            }
        } while (!dead && XEventsQueued(display, QueuedAlready) > 0);
        if (events.empty()) return;
        post([events = std::move(events)](MainSide& side) {
            for (const auto& event : events) {
                if (!side.handler) return;
                auto handler = side.handler; // the handler may replace itself
                handler(event);
            }
        });
    }

    int xkbEventType = -1;

    void readerLoop() {
        while (!stopping && !dead) {
            // Events that another thread's round trip read into Xlib's queue are not on the socket any more.
            bool queued = false;
            {
                std::lock_guard lock(mutex);
                queued = !dead && XEventsQueued(display, QueuedAlready) > 0;
            }
            if (!queued) {
                pollfd fds[2] = {{ConnectionNumber(display), POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
                if (::poll(fds, 2, -1) < 0) continue;
                if (fds[1].revents & POLLIN) {
                    char buffer[64];
                    [[maybe_unused]] auto n = ::read(wakePipe[0], buffer, sizeof buffer);
                }
            }
            if (stopping) break;
            std::lock_guard lock(mutex);
            drainLocked();
        }
    }

    static void onConnectionLost(Display*, void* self) {
        auto* impl = static_cast<Impl*>(self);
        if (impl->dead.exchange(true)) return;
        logError("X11GlobalInput - the connection to the X server was lost; global input stops");
        impl->post([](MainSide& side) {
            if (side.connectionLost) side.connectionLost();
        });
    }
};

X11GlobalInput::X11GlobalInput(MainLoop& loop, const std::string& displayName) : impl_(std::make_unique<Impl>(loop)) {
    x11::installErrorHandlers();
    auto& d = *impl_;
    d.display = XOpenDisplay(displayName.empty() ? nullptr : displayName.c_str());
    if (!d.display) {
        d.dead = true;
        logError("X11GlobalInput - cannot open the X display " + (displayName.empty() ? "$DISPLAY" : displayName));
        return;
    }
    XSetIOErrorExitHandler(d.display, &Impl::onConnectionLost, &d);
    d.root = DefaultRootWindow(d.display);
    int event = 0, error = 0, major = XkbMajorVersion, minor = XkbMinorVersion;
    if (!XkbQueryExtension(d.display, nullptr, &d.xkbEventType, &error, &major, &minor)) {
        logError("X11GlobalInput - the X server has no XKB extension");
        d.xkbEventType = -1;
    }
    if (!XQueryExtension(d.display, "XInputExtension", &d.xiOpcode, &event, &error)) {
        logError("X11GlobalInput - the X server has no XInput extension");
        XCloseDisplay(d.display);
        d.display = nullptr;
        d.dead = true;
        return;
    }
    int xiMajor = 2, xiMinor = 2;
    if (XIQueryVersion(d.display, &xiMajor, &xiMinor) != Success) {
        logError("X11GlobalInput - the X server lacks XInput 2.2");
        XCloseDisplay(d.display);
        d.display = nullptr;
        d.dead = true;
        return;
    }
    XkbSetDetectableAutoRepeat(d.display, True, nullptr);
    XkbSelectEvents(d.display, XkbUseCoreKbd, XkbNewKeyboardNotifyMask | XkbMapNotifyMask,
                    XkbNewKeyboardNotifyMask | XkbMapNotifyMask);
    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(bits, XI_RawKeyPress);
    XISetMask(bits, XI_RawKeyRelease);
    XISetMask(bits, XI_RawButtonPress);
    XISetMask(bits, XI_RawButtonRelease);
    XIEventMask rawMask{XIAllMasterDevices, static_cast<int>(sizeof bits), bits};
    XISelectEvents(d.display, d.root, &rawMask, 1);
    unsigned char hierarchyBits[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(hierarchyBits, XI_HierarchyChanged);
    XIEventMask hierarchyMask{XIAllDevices, static_cast<int>(sizeof hierarchyBits), hierarchyBits};
    XISelectEvents(d.display, d.root, &hierarchyMask, 1);
    d.loadKeymapLocked();
    d.findXtestDevicesLocked();
    XkbStateRec state{};
    if (XkbGetState(d.display, XkbUseCoreKbd, &state) == Success) d.capsLockOn = (state.locked_mods & LockMask) != 0;
    XSync(d.display, False);
    if (::pipe(d.wakePipe) != 0) {
        logError("X11GlobalInput - cannot create the wake-up pipe");
        d.wakePipe[0] = d.wakePipe[1] = -1;
        d.dead = true;
        return;
    }
    d.reader = std::thread([&d] { d.readerLoop(); });
}

X11GlobalInput::~X11GlobalInput() {
    auto& d = *impl_;
    d.stopping = true;
    d.wakeReader();
    if (d.reader.joinable()) d.reader.join();
    if (d.display && !d.dead) {
        std::lock_guard lock(d.mutex);
        XUngrabKey(d.display, AnyKey, AnyModifier, d.root);
        XUngrabButton(d.display, AnyButton, AnyModifier, d.root);
        XUngrabKeyboard(d.display, CurrentTime);
        if (d.xkb) XkbFreeKeyboard(d.xkb, 0, True);
        XCloseDisplay(d.display);
    }
    // A connection that died stays open: Xlib must not touch its socket again.
    for (int fd : d.wakePipe)
        if (fd >= 0) ::close(fd);
}

void X11GlobalInput::setEventHandler(EventHandler handler) { impl_->main->handler = std::move(handler); }

void X11GlobalInput::setConnectionLostHandler(std::function<void()> handler) {
    impl_->main->connectionLost = std::move(handler);
}

static Error unavailable() {
    return Error{kErrorDomain, 2, "There is no connection to the X server", {}};
}

std::optional<Error> X11GlobalInput::grabKey(std::uint16_t keyCode) {
    auto& d = *impl_;
    if (d.dead) return unavailable();
    std::lock_guard lock(d.mutex);
    if (auto e = d.grabKeyLocked(keyCode)) {
        if (!d.grabbedKeys.count(keyCode)) {
            for (auto x11 : d.x11CodesLocked(keyCode)) XUngrabKey(d.display, static_cast<int>(x11), AnyModifier, d.root);
            d.regrabAllLocked();
        }
        return e;
    }
    d.grabbedKeys.insert(keyCode);
    return std::nullopt;
}

void X11GlobalInput::ungrabKey(std::uint16_t keyCode) {
    auto& d = *impl_;
    if (d.dead || !d.grabbedKeys.erase(keyCode)) return;
    std::lock_guard lock(d.mutex);
    d.regrabAllLocked();
}

std::optional<Error> X11GlobalInput::grabButton(std::int64_t buttonNumber) {
    auto& d = *impl_;
    if (d.dead) return unavailable();
    if (buttonNumber <= 0) return Impl::error(1, "Mouse button " + std::to_string(buttonNumber) + " cannot be grabbed");
    std::lock_guard lock(d.mutex);
    if (auto e = d.grabButtonLocked(buttonNumber)) return e;
    d.grabbedButtons.insert(buttonNumber);
    return std::nullopt;
}

void X11GlobalInput::ungrabButton(std::int64_t buttonNumber) {
    auto& d = *impl_;
    if (d.dead || !d.grabbedButtons.erase(buttonNumber)) return;
    std::lock_guard lock(d.mutex);
    XUngrabButton(d.display, x11Button(buttonNumber), AnyModifier, d.root);
    XFlush(d.display);
    d.wakeReader(); // a blocked write lets Xlib read events into its queue
}

std::variant<HotKeyId, Error> X11GlobalInput::registerHotKey(const KeyCombination& combination,
                                                             std::function<void()> pressed,
                                                             std::function<void()> released) {
    auto& d = *impl_;
    if (d.dead) return unavailable();
    std::lock_guard lock(d.mutex);
    HotKey hotKey;
    hotKey.combination = combination;
    if (combination.flags & kFlagControl) hotKey.mask |= ControlMask;
    if (combination.flags & kFlagShift) hotKey.mask |= ShiftMask;
    if (combination.flags & kFlagOption) hotKey.mask |= d.altMask;
    if (combination.flags & kFlagCommand) hotKey.mask |= d.superMask;
    if (auto e = d.grabHotKeyLocked(hotKey)) return *e;
    const HotKeyId id = d.nextHotKeyId++;
    d.hotKeys.emplace(id, std::move(hotKey));
    d.main->hotKeyHandlers[id] = {std::move(pressed), std::move(released)};
    return id;
}

void X11GlobalInput::unregisterHotKey(HotKeyId id) {
    auto& d = *impl_;
    d.main->hotKeyHandlers.erase(id);
    if (d.dead) return;
    std::lock_guard lock(d.mutex);
    auto it = d.hotKeys.find(id);
    if (it == d.hotKeys.end()) return;
    HotKey removed = std::move(it->second);
    d.hotKeys.erase(it);
    d.ungrabHotKeyLocked(removed);
    XFlush(d.display);
    d.wakeReader(); // a blocked write lets Xlib read events into its queue
}

std::optional<Error> X11GlobalInput::grabKeyboard() {
    auto& d = *impl_;
    if (d.dead) return unavailable();
    std::lock_guard lock(d.mutex);
    const int status = XGrabKeyboard(d.display, d.root, False, GrabModeAsync, GrabModeAsync, CurrentTime);
    d.wakeReader();
    switch (status) {
    case GrabSuccess: return std::nullopt;
    case AlreadyGrabbed: return Impl::error(status, "The keyboard is grabbed by another application");
    case GrabFrozen: return Impl::error(status, "The keyboard is frozen by another application's grab");
    default: return Impl::error(status, "The keyboard cannot be grabbed now");
    }
}

void X11GlobalInput::ungrabKeyboard() {
    auto& d = *impl_;
    if (d.dead) return;
    std::lock_guard lock(d.mutex);
    XUngrabKeyboard(d.display, CurrentTime);
    XFlush(d.display);
    d.wakeReader(); // a blocked write lets Xlib read events into its queue
}

int X11GlobalInput::currentInputSource() const {
    auto& d = *impl_;
    if (d.dead) return 0;
    std::lock_guard lock(d.mutex);
    XkbStateRec state{};
    if (XkbGetState(d.display, XkbUseCoreKbd, &state) != Success) return 0;
    d.wakeReader();
    return state.group;
}

void X11GlobalInput::selectInputSource(int source) {
    auto& d = *impl_;
    if (d.dead) return;
    if (source < 0 || source > 3) {
        logError("X11GlobalInput.selectInputSource() - no input source " + std::to_string(source));
        return;
    }
    std::lock_guard lock(d.mutex);
    XkbLockGroup(d.display, XkbUseCoreKbd, static_cast<unsigned>(source));
    XSync(d.display, False);
    d.wakeReader();
}

bool X11GlobalInput::isAvailable() const { return !impl_->dead; }

std::optional<std::uint16_t> X11GlobalInput::keyCodeForX11KeyCode(unsigned x11KeyCode) const {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->codeOfX11.find(x11KeyCode);
    if (it == impl_->codeOfX11.end()) return std::nullopt;
    return it->second;
}

std::vector<unsigned> X11GlobalInput::x11KeyCodesFor(std::uint16_t keyCode) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->x11CodesLocked(keyCode);
}

X11GlobalInput::InjectionScope::InjectionScope(X11GlobalInput& input) : input_(input) { ++input_.impl_->injections; }

X11GlobalInput::InjectionScope::~InjectionScope() {
    auto& d = *input_.impl_;
    if (!d.dead) {
        std::lock_guard lock(d.mutex);
        XSync(d.display, False); // everything the injection caused is now in our queue
        d.drainLocked();
    }
    --d.injections;
}

} // namespace sprelio::platform
