#pragma once
// Every atom the X11 adapters name, interned together for one display connection: one round trip instead of one
// per atom. The predefined atoms (XA_PRIMARY, XA_STRING, XA_WM_CLASS, ...) need no interning and are not here.
#include <X11/Xlib.h>

namespace sprelio::platform::x11 {

struct Atoms {
    // Selections and what their owners are asked for.
    Atom clipboard = None; // CLIPBOARD
    Atom targets = None; // TARGETS
    Atom timestamp = None; // TIMESTAMP
    Atom utf8String = None; // UTF8_STRING
    Atom text = None; // TEXT
    Atom textPlainUtf8 = None; // text/plain;charset=utf-8
    Atom incr = None; // INCR
    Atom passwordManagerHint = None; // x-kde-passwordManagerHint

    // Properties of Sprelio's own clipboard window: the one whose zero-length change tells the server's time, and
    // the ones answers to our selection requests arrive in.
    static constexpr int kSelectionProperties = 8;
    Atom sprelioTimestamp = None; // SPRELIO_TIMESTAMP
    Atom sprelioSelection[kSelectionProperties] = {}; // SPRELIO_SELECTION_0 ... _7

    // The window manager's and the applications' window properties.
    Atom netActiveWindow = None; // _NET_ACTIVE_WINDOW
    Atom netClientList = None; // _NET_CLIENT_LIST
    Atom netClientListStacking = None; // _NET_CLIENT_LIST_STACKING
    Atom netSupportingWmCheck = None; // _NET_SUPPORTING_WM_CHECK
    Atom netWmPid = None; // _NET_WM_PID
    Atom netWmName = None; // _NET_WM_NAME
    Atom gtkApplicationId = None; // _GTK_APPLICATION_ID
    Atom kdeNetWmDesktopFile = None; // _KDE_NET_WM_DESKTOP_FILE
    // The selection a compositing manager owns on the display's default screen: _NET_WM_CM_S<screen>.
    Atom netWmCmSelection = None;

    // The layouts setxkbmap names on the root window.
    Atom xkbRulesNames = None; // _XKB_RULES_NAMES

    // Interns them all on `display` (creating those the server does not know yet). Under the display's lock, where
    // it has one; an atom the server did not answer stays None.
    static Atoms intern(Display* display);
};

} // namespace sprelio::platform::x11
