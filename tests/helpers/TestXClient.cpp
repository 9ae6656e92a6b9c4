// An ordinary X application for the text-delivery tests: a window that takes the focus, records every key event
// it receives, collects the text that typing and pasting give it, and can hold the primary selection.
//
//   sprelio_test_xclient --out DIR [--display :N] [--class NAME] [--title TITLE] [--application-id ID]
//                        [--terminal] [--primary TEXT]
//
// DIR/keys gets one line per key event: "press" or "release", the keycode, the keysym's name, the modifier state
// in hex, and the UTF-8 text of the event in hex. DIR/text gets every piece of text as it arrives (typed or
// pasted), DIR/ready is created once the window has the focus. Pasting follows the application's kind: Ctrl+V
// for an ordinary one, Ctrl+Shift+V for a terminal (--terminal); copying (Ctrl+C, or Ctrl+Shift+C) puts the
// --primary text on CLIPBOARD. Lines on stdin: "focus" asks for the focus again, "primary TEXT" selects another
// text, "quit" ends, and so does the end of stdin.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/XKBlib.h>
#include <X11/keysym.h>

#include <poll.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string display;
    std::string out;
    std::string className = "sprelio-test-client";
    std::string title = "Sprelio test client";
    std::string applicationId;
    bool terminal = false;
    std::string primary;
};

std::string hex(const std::string& bytes) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

class Client {
public:
    explicit Client(Options options) : options_(std::move(options)) {}

    int run() {
        std::setlocale(LC_ALL, "C.UTF-8");
        XSetLocaleModifiers("@im=none");
        display_ = XOpenDisplay(options_.display.empty() ? nullptr : options_.display.c_str());
        if (!display_) {
            std::fprintf(stderr, "sprelio_test_xclient: cannot open the display\n");
            return 2;
        }
        keys_.open(options_.out + "/keys", std::ios::app);
        text_.open(options_.out + "/text", std::ios::app | std::ios::binary);
        createWindow();
        for (;;) {
            while (XPending(display_)) {
                XEvent event;
                XNextEvent(display_, &event);
                if (XFilterEvent(&event, None)) continue;
                handle(event);
            }
            if (quit_) break;
            pollfd fds[2] = {{ConnectionNumber(display_), POLLIN, 0}, {0, POLLIN, 0}};
            if (::poll(fds, stdinOpen_ ? 2 : 1, -1) < 0) continue;
            if (stdinOpen_ && (fds[1].revents & (POLLIN | POLLHUP))) readCommands();
            if (quit_) break;
        }
        XCloseDisplay(display_);
        return 0;
    }

private:
    Atom atom(const char* name) { return XInternAtom(display_, name, False); }

    void createWindow() {
        const int screen = DefaultScreen(display_);
        window_ = XCreateSimpleWindow(display_, RootWindow(display_, screen), 40, 40, 640, 400, 1,
                                      BlackPixel(display_, screen), WhitePixel(display_, screen));
        XSelectInput(display_, window_,
                     KeyPressMask | KeyReleaseMask | FocusChangeMask | StructureNotifyMask | PropertyChangeMask);
        XClassHint hint;
        std::string name = options_.className;
        hint.res_name = name.data();
        hint.res_class = name.data();
        XSetClassHint(display_, window_, &hint);
        XStoreName(display_, window_, options_.title.c_str());
        XChangeProperty(display_, window_, atom("_NET_WM_NAME"), atom("UTF8_STRING"), 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(options_.title.data()),
                        static_cast<int>(options_.title.size()));
        const long pid = static_cast<long>(::getpid());
        XChangeProperty(display_, window_, atom("_NET_WM_PID"), XA_CARDINAL, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&pid), 1);
        if (!options_.applicationId.empty())
            XChangeProperty(display_, window_, atom("_GTK_APPLICATION_ID"), atom("UTF8_STRING"), 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(options_.applicationId.data()),
                            static_cast<int>(options_.applicationId.size()));
        XWMHints wmHints{};
        wmHints.flags = InputHint;
        wmHints.input = True;
        XSetWMHints(display_, window_, &wmHints);

        im_ = XOpenIM(display_, nullptr, nullptr, nullptr);
        if (im_)
            ic_ = XCreateIC(im_, XNInputStyle, XIMPreeditNothing | XIMStatusNothing, XNClientWindow, window_,
                            XNFocusWindow, window_, nullptr);
        if (!ic_) std::fprintf(stderr, "sprelio_test_xclient: no input context; text falls back to Latin-1\n");
        XMapRaised(display_, window_);
        if (!options_.primary.empty()) ownSelection(XA_PRIMARY);
        XFlush(display_);
    }

    bool windowManagerRuns() {
        Atom type = None;
        int format = 0;
        unsigned long items = 0, after = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(display_, DefaultRootWindow(display_), atom("_NET_SUPPORTING_WM_CHECK"), 0, 1, False,
                           XA_WINDOW, &type, &format, &items, &after, &data);
        const bool runs = data && items == 1;
        if (data) XFree(data);
        return runs;
    }

    void askForFocus() {
        if (windowManagerRuns()) {
            XEvent event{};
            event.xclient.type = ClientMessage;
            event.xclient.window = window_;
            event.xclient.message_type = atom("_NET_ACTIVE_WINDOW");
            event.xclient.format = 32;
            event.xclient.data.l[0] = 2; // as a pager would: the test asks, not the application
            event.xclient.data.l[1] = static_cast<long>(lastTime_);
            XSendEvent(display_, DefaultRootWindow(display_), False,
                       SubstructureRedirectMask | SubstructureNotifyMask, &event);
        } else {
            XSetInputFocus(display_, window_, RevertToParent, CurrentTime);
        }
        XFlush(display_);
    }

    void ownSelection(Atom selection) {
        XSetSelectionOwner(display_, selection, window_, lastTime_ ? lastTime_ : CurrentTime);
        XFlush(display_);
    }

    void handle(XEvent& event) {
        switch (event.type) {
        case MapNotify:
            keys_ << "mapped\n" << std::flush;
            askForFocus();
            break;
        case FocusIn:
            keys_ << "focus in " << event.xfocus.mode << ' ' << event.xfocus.detail << '\n' << std::flush;
            if (event.xfocus.window == window_ && event.xfocus.detail != NotifyPointer)
                std::ofstream(options_.out + "/ready") << "ready\n";
            break;
        case FocusOut:
            keys_ << "focus out " << event.xfocus.mode << ' ' << event.xfocus.detail << '\n' << std::flush;
            break;
        case MappingNotify:
            XRefreshKeyboardMapping(&event.xmapping);
            break;
        case KeyPress:
        case KeyRelease:
            lastTime_ = event.xkey.time;
            handleKey(event.xkey);
            break;
        case SelectionRequest:
            serve(event.xselectionrequest);
            break;
        case SelectionNotify:
            if (event.xselection.requestor == window_) receive(event.xselection);
            break;
        case PropertyNotify:
            lastTime_ = event.xproperty.time;
            if (event.xproperty.window == window_ && event.xproperty.atom == pasteProperty_ &&
                event.xproperty.state == PropertyNewValue && incremental_)
                receivePiece();
            break;
        default:
            break;
        }
    }

    // Whether the key types `letter` in any group: shortcuts keep working under non-Latin layouts.
    bool isLetter(unsigned keycode, KeySym letter) {
        for (int group = 0; group < 4; ++group)
            if (XkbKeycodeToKeysym(display_, static_cast<KeyCode>(keycode), group, 0) == letter) return true;
        return false;
    }

    void handleKey(XKeyEvent& key) {
        const bool press = key.type == KeyPress;
        char buffer[64] = {};
        KeySym keysym = NoSymbol;
        std::string text;
        if (press && ic_) {
            Status status = 0;
            const int length = Xutf8LookupString(ic_, &key, buffer, sizeof buffer - 1, &keysym, &status);
            if ((status == XLookupChars || status == XLookupBoth) && length > 0) text.assign(buffer, length);
            if (status != XLookupKeySym && status != XLookupBoth) keysym = XLookupKeysym(&key, 0);
        } else {
            const int length = XLookupString(&key, buffer, sizeof buffer - 1, &keysym, nullptr);
            if (press && length > 0) text.assign(buffer, length);
        }
        const char* name = keysym != NoSymbol ? XKeysymToString(keysym) : nullptr;
        keys_ << (press ? "press " : "release ") << key.keycode << ' ' << (name ? name : "NoSymbol") << ' ' << std::hex
              << key.state << std::dec << ' ' << hex(text) << '\n'
              << std::flush;
        if (!press) return;
        const unsigned modifiers = key.state & (ShiftMask | ControlMask | Mod1Mask | Mod4Mask);
        const unsigned shortcutMods = options_.terminal ? (ControlMask | ShiftMask) : ControlMask;
        if (modifiers == shortcutMods && isLetter(key.keycode, XK_v)) {
            requestPaste(key.time);
            return;
        }
        if (modifiers == shortcutMods && isLetter(key.keycode, XK_c)) {
            if (!options_.primary.empty()) {
                clipboardText_ = options_.primary;
                ownSelection(atom("CLIPBOARD"));
            }
            return;
        }
        if (modifiers & (ControlMask | Mod1Mask | Mod4Mask)) return;
        if (text.empty()) return;
        if (text == "\r") text = "\n";
        append(text);
    }

    void append(const std::string& piece) {
        text_.write(piece.data(), static_cast<std::streamsize>(piece.size()));
        text_.flush();
    }

    void requestPaste(Time time) {
        pasteProperty_ = atom("SPRELIO_TEST_PASTE");
        incremental_ = false;
        pasted_.clear();
        XConvertSelection(display_, atom("CLIPBOARD"), atom("UTF8_STRING"), pasteProperty_, window_, time);
        XFlush(display_);
    }

    std::string readProperty(Atom property, Atom* type) {
        std::string bytes;
        long offset = 0;
        for (;;) {
            int format = 0;
            unsigned long items = 0, after = 0;
            unsigned char* data = nullptr;
            if (XGetWindowProperty(display_, window_, property, offset, 1 << 20, False, AnyPropertyType, type, &format,
                                   &items, &after, &data) != Success)
                break;
            if (data) {
                bytes.append(reinterpret_cast<const char*>(data), items * static_cast<unsigned long>(format / 8));
                XFree(data);
            }
            if (after == 0) break;
            offset += static_cast<long>(items * static_cast<unsigned long>(format) / 32);
        }
        XDeleteProperty(display_, window_, property);
        return bytes;
    }

    void receive(const XSelectionEvent& event) {
        if (event.property == None) {
            keys_ << "paste refused\n" << std::flush;
            return;
        }
        Atom type = None;
        std::string bytes = readProperty(event.property, &type);
        if (type == atom("INCR")) {
            incremental_ = true; // the deletion above asked for the first piece
            return;
        }
        keys_ << "paste " << bytes.size() << '\n' << std::flush;
        append(bytes);
    }

    void receivePiece() {
        Atom type = None;
        std::string bytes = readProperty(pasteProperty_, &type);
        if (!bytes.empty()) {
            pasted_ += bytes;
            return;
        }
        incremental_ = false;
        keys_ << "paste " << pasted_.size() << " incremental\n" << std::flush;
        append(pasted_);
        pasted_.clear();
    }

    void serve(const XSelectionRequestEvent& request) {
        XEvent reply{};
        reply.xselection.type = SelectionNotify;
        reply.xselection.requestor = request.requestor;
        reply.xselection.selection = request.selection;
        reply.xselection.target = request.target;
        reply.xselection.time = request.time;
        reply.xselection.property = None;
        const Atom property = request.property == None ? request.target : request.property;
        const std::string& value = request.selection == XA_PRIMARY ? options_.primary : clipboardText_;
        if (request.target == atom("TARGETS")) {
            const Atom targets[] = {atom("TARGETS"), atom("UTF8_STRING")};
            XChangeProperty(display_, request.requestor, property, XA_ATOM, 32, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(targets), 2);
            reply.xselection.property = property;
        } else if (request.target == atom("UTF8_STRING")) {
            XChangeProperty(display_, request.requestor, property, request.target, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()));
            reply.xselection.property = property;
        }
        XSendEvent(display_, request.requestor, False, NoEventMask, &reply);
        XFlush(display_);
    }

    void readCommands() {
        char buffer[4096];
        const ssize_t n = ::read(0, buffer, sizeof buffer);
        if (n <= 0) {
            // The test has let go of us: end as "quit" would.
            stdinOpen_ = false;
            quit_ = true;
            return;
        }
        commands_.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t end; (end = commands_.find('\n')) != std::string::npos;) {
            const std::string line = commands_.substr(0, end);
            commands_.erase(0, end + 1);
            if (line == "quit") quit_ = true;
            else if (line == "focus") askForFocus();
            else if (line.rfind("primary ", 0) == 0) {
                options_.primary = line.substr(8);
                ownSelection(XA_PRIMARY);
            }
        }
    }

    Options options_;
    Display* display_ = nullptr;
    Window window_ = 0;
    XIM im_ = nullptr;
    XIC ic_ = nullptr;
    Time lastTime_ = CurrentTime;
    std::ofstream keys_;
    std::ofstream text_;
    Atom pasteProperty_ = None;
    bool incremental_ = false;
    std::string pasted_;
    std::string clipboardText_;
    std::string commands_;
    bool stdinOpen_ = true;
    bool quit_ = false;
};

} // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (arg == "--display") options.display = value();
        else if (arg == "--out") options.out = value();
        else if (arg == "--class") options.className = value();
        else if (arg == "--title") options.title = value();
        else if (arg == "--application-id") options.applicationId = value();
        else if (arg == "--terminal") options.terminal = true;
        else if (arg == "--primary") options.primary = value();
        else {
            std::fprintf(stderr, "sprelio_test_xclient: unknown argument %s\n", arg.c_str());
            return 2;
        }
    }
    if (options.out.empty()) {
        std::fprintf(stderr, "sprelio_test_xclient: --out DIR is required\n");
        return 2;
    }
    return Client(std::move(options)).run();
}
