#include "platform/linux/X11Atoms.h"

#include <string>
#include <utility>
#include <vector>

namespace sprelio::platform::x11 {

Atoms Atoms::intern(Display* display) {
    Atoms atoms;
    std::vector<std::pair<std::string, Atom*>> wanted = {
        {"CLIPBOARD", &atoms.clipboard},
        {"TARGETS", &atoms.targets},
        {"TIMESTAMP", &atoms.timestamp},
        {"UTF8_STRING", &atoms.utf8String},
        {"TEXT", &atoms.text},
        {"text/plain;charset=utf-8", &atoms.textPlainUtf8},
        {"INCR", &atoms.incr},
        {"x-kde-passwordManagerHint", &atoms.passwordManagerHint},
        {"SPRELIO_TIMESTAMP", &atoms.sprelioTimestamp},
        {"_NET_ACTIVE_WINDOW", &atoms.netActiveWindow},
        {"_NET_CLIENT_LIST", &atoms.netClientList},
        {"_NET_CLIENT_LIST_STACKING", &atoms.netClientListStacking},
        {"_NET_SUPPORTING_WM_CHECK", &atoms.netSupportingWmCheck},
        {"_NET_WM_PID", &atoms.netWmPid},
        {"_NET_WM_NAME", &atoms.netWmName},
        {"_GTK_APPLICATION_ID", &atoms.gtkApplicationId},
        {"_KDE_NET_WM_DESKTOP_FILE", &atoms.kdeNetWmDesktopFile},
        {"_NET_WM_CM_S" + std::to_string(DefaultScreen(display)), &atoms.netWmCmSelection},
        {"_XKB_RULES_NAMES", &atoms.xkbRulesNames},
    };
    for (int i = 0; i < kSelectionProperties; ++i)
        wanted.emplace_back("SPRELIO_SELECTION_" + std::to_string(i), &atoms.sprelioSelection[i]);

    std::vector<char*> names;
    names.reserve(wanted.size());
    for (auto& [name, atom] : wanted) names.push_back(name.data());
    std::vector<Atom> values(wanted.size(), None);
    // Sends every request before it waits for the first answer.
    XInternAtoms(display, names.data(), static_cast<int>(names.size()), False, values.data());
    for (std::size_t i = 0; i < wanted.size(); ++i) *wanted[i].second = values[i];
    return atoms;
}

} // namespace sprelio::platform::x11
