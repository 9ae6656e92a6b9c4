#pragma once
// Global input on an X11 desktop.
//
// Observation uses XInput2 raw key and button events on the root window, which arrive whatever grabs other clients
// hold. Swallowing is done ahead of time with passive grabs (XGrabKey, XGrabButton) and, for the shortcut
// recorder, an active keyboard grab. The adapter owns its own Display connection and a reader thread; every call
// into Xlib goes through one mutex, and every handler runs on the main loop.
//
// Events that Sprelio injects itself come from the XTEST slave devices; they are dropped only while an injection
// scope is open (see InjectionScope), because other XTEST users (automation tools, tests) must still be seen.
#include <memory>
#include <string>
#include <vector>

#include "platform/GlobalInput.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class X11GlobalInput final : public GlobalInput {
public:
    // Connects to the display named (empty: $DISPLAY). A failed connection leaves an adapter that is not
    // available and reports errors from every grab.
    explicit X11GlobalInput(MainLoop& loop, const std::string& displayName = {});
    ~X11GlobalInput() override;
    X11GlobalInput(const X11GlobalInput&) = delete;
    X11GlobalInput& operator=(const X11GlobalInput&) = delete;

    void setEventHandler(EventHandler handler) override;
    std::optional<Error> grabKey(std::uint16_t keyCode) override;
    void ungrabKey(std::uint16_t keyCode) override;
    std::optional<Error> grabButton(std::int64_t buttonNumber) override;
    void ungrabButton(std::int64_t buttonNumber) override;
    std::variant<HotKeyId, Error> registerHotKey(const KeyCombination& combination, std::function<void()> pressed,
                                                 std::function<void()> released) override;
    void unregisterHotKey(HotKeyId id) override;
    std::optional<Error> grabKeyboard() override;
    void ungrabKeyboard() override;
    int currentInputSource() const override;
    void selectInputSource(int source) override;
    bool isAvailable() const override;

    // Called on the main loop when the connection to the X server is lost; the adapter is unavailable afterwards.
    void setConnectionLostHandler(std::function<void()> handler);

    // Opened by the code that injects synthetic input through XTEST, around the injection. Raw events of the XTEST
    // devices are dropped while any scope is open; closing the scope first reads everything the server has queued
    // for this connection, so the tail of the injection is dropped too. The injector must have flushed and synced
    // its own connection before the scope closes.
    class InjectionScope {
    public:
        explicit InjectionScope(X11GlobalInput& input);
        ~InjectionScope();
        InjectionScope(const InjectionScope&) = delete;
        InjectionScope& operator=(const InjectionScope&) = delete;

    private:
        X11GlobalInput& input_;
    };

    // The stored key code of an X keycode in the current keymap; none for keys outside the vocabulary.
    std::optional<std::uint16_t> keyCodeForX11KeyCode(unsigned x11KeyCode) const;
    // The X keycodes that produce a stored key code in the current keymap.
    std::vector<unsigned> x11KeyCodesFor(std::uint16_t keyCode) const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::platform
