#include "platform/linux/WaylandDesktop.h"

#include <wayland-client.h>

#include <cstring>
#include <set>

#include "platform/linux/ChildProcess.h"

namespace sprelio::platform {

namespace {

void onGlobal(void* data, wl_registry*, uint32_t, const char* interface, uint32_t) {
    static_cast<std::set<std::string>*>(data)->insert(interface);
}
void onGlobalRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener kRegistryListener = {onGlobal, onGlobalRemove};

} // namespace

WaylandDesktopOffer probeWaylandDesktop(const EnvironmentReader& environment) {
    WaylandDesktopOffer offer;
    offer.desktopName = environment("XDG_CURRENT_DESKTOP").value_or("unknown");
    offer.wtypeInstalled = programOnPath("wtype");
    offer.wlClipboardInstalled = programOnPath("wl-copy") && programOnPath("wl-paste");
    const auto swaysock = environment("SWAYSOCK");
    offer.swayIpc = swaysock && !swaysock->empty() && programOnPath("swaymsg");
    const auto name = environment("WAYLAND_DISPLAY");
    wl_display* display = wl_display_connect(name && !name->empty() ? name->c_str() : nullptr);
    if (!display) return offer;
    std::set<std::string> globals;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &kRegistryListener, &globals);
    offer.connected = wl_display_roundtrip(display) >= 0;
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    offer.virtualKeyboard = globals.count("zwp_virtual_keyboard_manager_v1") > 0;
    offer.dataControl = globals.count("zwlr_data_control_manager_v1") > 0 || globals.count("ext_data_control_manager_v1") > 0;
    offer.foreignToplevel = globals.count("zwlr_foreign_toplevel_manager_v1") > 0;
    return offer;
}

std::vector<std::string> waylandUsabilityNotes(const WaylandDesktopOffer& offer) {
    std::vector<std::string> notes;
    if (!offer.connected) {
        notes.push_back("This is a Wayland session, but Sprelio could not reach its compositor: dictated text is left "
                        "on the clipboard. Start Sprelio from within the session so that WAYLAND_DISPLAY is set.");
        return notes;
    }
    if (!offer.wlClipboardInstalled)
        notes.push_back("This Wayland session needs wl-clipboard for the clipboard: install the package wl-clipboard.");
    if (!offer.wtypeInstalled)
        notes.push_back("Dictated text can't be pasted in this Wayland session without wtype, so it is left on the "
                        "clipboard: install the package wtype.");
    else if (!offer.virtualKeyboard)
        notes.push_back("This desktop (" + offer.desktopName + ") does not let applications press keys, so dictated "
                        "text is left on the clipboard and you paste it with Ctrl+V.");
    if (!offer.dataControl)
        notes.push_back("This desktop (" + offer.desktopName + ") does not let applications use the clipboard in the "
                        "background: your clipboard may not be restored after a dictation.");
    notes.push_back("Hotkeys in Wayland applications: bind a key in your compositor to \"sprelio shortcuts tap\" "
                    "(Settings shows the lines for sway); Sprelio's own hotkeys reach X11 applications only.");
    return notes;
}

std::string describeOffer(const WaylandDesktopOffer& offer) {
    const auto yes = [](bool b) { return b ? "yes" : "no"; };
    return std::string("desktop ") + offer.desktopName + ", compositor reached " + yes(offer.connected) +
           ", virtual keyboard " + yes(offer.virtualKeyboard) + ", data control " + yes(offer.dataControl) +
           ", foreign toplevel " + yes(offer.foreignToplevel) + ", wtype " + yes(offer.wtypeInstalled) +
           ", wl-clipboard " + yes(offer.wlClipboardInstalled) + ", sway IPC " + yes(offer.swayIpc);
}

} // namespace sprelio::platform
