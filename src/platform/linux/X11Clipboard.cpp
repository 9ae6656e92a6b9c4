#include "platform/linux/X11Clipboard.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <algorithm>
#include <deque>
#include <vector>

#include "base/LifetimeGuard.h"
#include "base/Log.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11Errors.h"

namespace sprelio::platform {

namespace {

using Clock = std::chrono::steady_clock;

// Properties on our window that answers arrive in. A few are used in turn, so that a late answer to a request that
// timed out cannot land in the property of the next one.
constexpr int kReadProperties = x11::Atoms::kSelectionProperties;

std::string selectionName(Atom selection) { return selection == XA_PRIMARY ? "PRIMARY" : "CLIPBOARD"; }

} // namespace

struct X11Clipboard::Impl final : x11::Connection::Client {
    struct Read {
        Atom selection = None;
        std::vector<Atom> targets;
        std::size_t targetIndex = 0;
        Atom property = None;
        bool started = false;
        bool incremental = false;
        std::string received;
        Atom receivedType = None;
        Clock::time_point deadline{};
        std::function<void(std::optional<std::string>)> done; // on the reader thread, locked
    };
    struct Transfer {
        Window requestor = None;
        Atom property = None;
        Atom type = None;
        std::shared_ptr<const std::string> data;
        std::size_t offset = 0;
        Clock::time_point deadline{};
    };

    MainLoop& loop;
    LifetimeGuard lifetime;
    x11::Connection connection;
    Window window = None;
    bool hasXRes = false;
    std::size_t incrementalThreshold = kIncrementalThreshold;

    int nextReadProperty = 0;

    std::shared_ptr<const std::string> ownedText;
    Time ownedSince = CurrentTime;

    std::deque<Read> reads;
    std::vector<Transfer> transfers;

    Impl(MainLoop& l, const std::string& displayName) : loop(l), connection(displayName, "X11Clipboard") {}

    // ---- Set-up ----

    void open() {
        if (!connection.isOpen()) return;
        auto lock = connection.lock();
        Display* d = connection.display();
        XSetWindowAttributes attributes{};
        attributes.event_mask = PropertyChangeMask;
        window = XCreateWindow(d, connection.root(), -10, -10, 1, 1, 0, CopyFromParent, InputOnly, CopyFromParent,
                               CWEventMask, &attributes);
        XStoreName(d, window, "Sprelio clipboard");
        (void)connection.atoms(); // interned now, with the rest of the set-up
        hasXRes = x11::hasClientProcesses(d);
        // One request must carry a whole non-incremental answer, with room for the request's own header.
        long maxRequest = XExtendedMaxRequestSize(d);
        if (maxRequest == 0) maxRequest = XMaxRequestSize(d);
        const auto maxBytes = static_cast<std::size_t>(maxRequest) * 4;
        if (maxBytes > 4096) incrementalThreshold = std::min(kIncrementalThreshold, maxBytes - 4096);
        XSync(d, False);
    }

    // Under the lock, on an open connection.
    const x11::Atoms& atoms() const { return connection.atoms(); }
    // What a read asks the owner for, best first.
    std::vector<Atom> textTargets() const { return {atoms().utf8String, atoms().textPlainUtf8, XA_STRING}; }

    // ---- Timestamps and ownership ----

    // The server's time now: the time stamp of a zero-length change to a property of our own window.
    Time serverTimeLocked() {
        Display* d = connection.display();
        XChangeProperty(d, window, atoms().sprelioTimestamp, XA_STRING, 8, PropModeAppend, nullptr, 0);
        XEvent event;
        struct Match {
            Window window;
            Atom property;
        } match{window, atoms().sprelioTimestamp};
        XIfEvent(
            d, &event,
            [](Display*, XEvent* e, XPointer arg) -> Bool {
                const auto* m = reinterpret_cast<const Match*>(arg);
                return e->type == PropertyNotify && e->xproperty.window == m->window &&
                       e->xproperty.atom == m->property;
            },
            reinterpret_cast<XPointer>(&match));
        return event.xproperty.time;
    }

    bool ownsClipboardLocked() const {
        return connection.isOpen() && XGetSelectionOwner(connection.display(), atoms().clipboard) == window;
    }

    // ---- Reading ----

    void enqueueRead(Read read) {
        reads.push_back(std::move(read));
        if (reads.size() == 1) startFrontLocked();
    }

    void startFrontLocked() {
        while (!reads.empty()) {
            Read& read = reads.front();
            if (read.targetIndex >= read.targets.size()) {
                finishFrontLocked(std::nullopt);
                continue;
            }
            read.property = atoms().sprelioSelection[nextReadProperty];
            nextReadProperty = (nextReadProperty + 1) % kReadProperties;
            XDeleteProperty(connection.display(), window, read.property);
            XConvertSelection(connection.display(), read.selection, read.targets[read.targetIndex], read.property,
                              window, CurrentTime);
            XFlush(connection.display());
            read.started = true;
            read.incremental = false;
            read.received.clear();
            read.deadline = Clock::now() + kAnswerTimeout;
            return;
        }
    }

    void finishFrontLocked(std::optional<std::string> result) {
        if (reads.empty()) return;
        Read read = std::move(reads.front());
        reads.pop_front();
        if (read.done) read.done(std::move(result));
        if (!reads.empty() && !reads.front().started) startFrontLocked();
    }

    std::string asUtf8(const std::string& bytes, Atom type) const {
        return type == XA_STRING ? x11::latin1ToUtf8(bytes) : bytes;
    }

    void handleSelectionNotify(const XSelectionEvent& event) {
        if (reads.empty() || !reads.front().started) return;
        Read& read = reads.front();
        if (event.selection != read.selection || event.target != read.targets[read.targetIndex]) return;
        if (event.property == None) {
            // The owner has no text of this kind: ask for the next one.
            ++read.targetIndex;
            read.started = false;
            startFrontLocked();
            return;
        }
        if (event.property != read.property) return;
        auto value = x11::readProperty(connection.display(), window, read.property, true);
        if (!value) {
            finishFrontLocked(std::nullopt);
            return;
        }
        if (value->type == atoms().incr) {
            // Deleting the INCR property (done above) asks the owner for the first piece.
            read.incremental = true;
            read.received.clear();
            read.receivedType = None;
            read.deadline = Clock::now() + kAnswerTimeout;
            return;
        }
        if (value->format != 8) {
            finishFrontLocked(std::nullopt);
            return;
        }
        finishFrontLocked(asUtf8(value->bytes, value->type));
    }

    void handleIncomingPiece(const XPropertyEvent& event) {
        if (reads.empty()) return;
        Read& read = reads.front();
        if (!read.started || !read.incremental || event.atom != read.property || event.state != PropertyNewValue)
            return;
        auto value = x11::readProperty(connection.display(), window, read.property, true);
        if (!value) {
            finishFrontLocked(std::nullopt);
            return;
        }
        read.deadline = Clock::now() + kAnswerTimeout;
        if (value->bytes.empty()) {
            finishFrontLocked(asUtf8(read.received, read.receivedType));
            return;
        }
        read.receivedType = value->type;
        read.received += value->bytes;
    }

    // ---- Serving ----

    void handleSelectionRequest(const XSelectionRequestEvent& request) {
        Display* d = connection.display();
        XEvent reply{};
        reply.xselection.type = SelectionNotify;
        reply.xselection.display = d;
        reply.xselection.requestor = request.requestor;
        reply.xselection.selection = request.selection;
        reply.xselection.target = request.target;
        reply.xselection.property = None;
        reply.xselection.time = request.time;
        const Atom property = request.property == None ? request.target : request.property;
        const bool ours = ownedText && request.selection == atoms().clipboard &&
                          (request.time == CurrentTime || request.time >= ownedSince);
        if (ours) {
            auto errors = x11::checked(d, [&] {
                if (answerLocked(request.requestor, property, request.target)) reply.xselection.property = property;
            });
            if (!errors.empty()) {
                logWarning("X11Clipboard - could not answer a request for " + atomName(request.target) +
                           ": the requesting window is gone");
                dropTransfersTo(request.requestor);
                return;
            }
        }
        x11::checked(d, [&] { XSendEvent(d, request.requestor, False, NoEventMask, &reply); });
    }

    bool answerLocked(Window requestor, Atom property, Atom target) {
        Display* d = connection.display();
        const x11::Atoms& a = atoms();
        if (target == a.targets) {
            const Atom offered[] = {a.targets, a.timestamp, a.utf8String, a.textPlainUtf8, XA_STRING, a.text,
                                    a.passwordManagerHint};
            XChangeProperty(d, requestor, property, XA_ATOM, 32, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(offered), static_cast<int>(std::size(offered)));
            return true;
        }
        if (target == a.timestamp) {
            const long time = static_cast<long>(ownedSince);
            XChangeProperty(d, requestor, property, XA_INTEGER, 32, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(&time), 1);
            return true;
        }
        if (target == a.passwordManagerHint) {
            static const std::string secret = "secret";
            XChangeProperty(d, requestor, property, a.passwordManagerHint, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(secret.data()), static_cast<int>(secret.size()));
            return true;
        }
        if (target == a.utf8String || target == a.text) {
            sendTextLocked(requestor, property, a.utf8String, ownedText);
            return true;
        }
        if (target == a.textPlainUtf8) {
            sendTextLocked(requestor, property, a.textPlainUtf8, ownedText);
            return true;
        }
        if (target == XA_STRING) {
            sendTextLocked(requestor, property, XA_STRING,
                           std::make_shared<const std::string>(x11::utf8ToLatin1(*ownedText)));
            return true;
        }
        return false;
    }

    void sendTextLocked(Window requestor, Atom property, Atom type, std::shared_ptr<const std::string> data) {
        Display* d = connection.display();
        if (data->size() <= incrementalThreshold) {
            XChangeProperty(d, requestor, property, type, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(data->data()), static_cast<int>(data->size()));
            return;
        }
        // Incremental: announce the size; each deletion of the property by the requestor asks for the next piece.
        XSelectInput(d, requestor, PropertyChangeMask);
        const long size = static_cast<long>(data->size());
        XChangeProperty(d, requestor, property, atoms().incr, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&size), 1);
        dropTransfer(requestor, property);
        transfers.push_back(Transfer{requestor, property, type, std::move(data), 0,
                                     Clock::now() + kTransferTimeout});
    }

    void handleRequestorProperty(const XPropertyEvent& event) {
        if (event.state != PropertyDelete) return;
        auto it = std::find_if(transfers.begin(), transfers.end(), [&](const Transfer& t) {
            return t.requestor == event.window && t.property == event.atom;
        });
        if (it == transfers.end()) return;
        Display* d = connection.display();
        Transfer& transfer = *it;
        const std::size_t left = transfer.data->size() - transfer.offset;
        const std::size_t piece = std::min(left, kIncrementalChunk);
        auto errors = x11::checked(d, [&] {
            XChangeProperty(d, transfer.requestor, transfer.property, transfer.type, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(transfer.data->data() + transfer.offset),
                            static_cast<int>(piece));
        });
        if (!errors.empty()) {
            logWarning("X11Clipboard - an incremental transfer stopped: the requesting window is gone");
            dropTransfersTo(event.window);
            return;
        }
        transfer.offset += piece;
        transfer.deadline = Clock::now() + kTransferTimeout;
        if (piece == 0) {
            // The piece of length zero ends the transfer; not every requestor deletes it afterwards.
            const Window requestor = transfer.requestor;
            transfers.erase(it);
            releaseRequestor(requestor);
        }
    }

    void dropTransfer(Window requestor, Atom property) {
        std::erase_if(transfers, [&](const Transfer& t) { return t.requestor == requestor && t.property == property; });
    }

    void dropTransfersTo(Window requestor) {
        std::erase_if(transfers, [&](const Transfer& t) { return t.requestor == requestor; });
    }

    // Stops listening to a requestor's properties once no transfer needs them.
    void releaseRequestor(Window requestor) {
        const bool stillUsed = std::any_of(transfers.begin(), transfers.end(),
                                           [&](const Transfer& t) { return t.requestor == requestor; });
        if (stillUsed) return;
        Display* d = connection.display();
        x11::checked(d, [&] { XSelectInput(d, requestor, NoEventMask); });
    }

    std::string atomName(Atom atom) const {
        char* name = XGetAtomName(connection.display(), atom);
        std::string text = name ? name : "?";
        if (name) XFree(name);
        return text;
    }

    // ---- Reader thread ----

    void handleEvent(XEvent& event) override {
        switch (event.type) {
        case SelectionRequest:
            if (event.xselectionrequest.owner == window) handleSelectionRequest(event.xselectionrequest);
            break;
        case SelectionNotify:
            if (event.xselection.requestor == window) handleSelectionNotify(event.xselection);
            break;
        case SelectionClear:
            // A clear older than our latest ownership belongs to an ownership we have already taken back.
            if (event.xselectionclear.window == window && event.xselectionclear.selection == atoms().clipboard &&
                event.xselectionclear.time >= ownedSince)
                ownedText.reset();
            break;
        case PropertyNotify:
            if (event.xproperty.window == window) handleIncomingPiece(event.xproperty);
            else handleRequestorProperty(event.xproperty);
            break;
        default:
            break;
        }
    }

    std::optional<Clock::time_point> nextDeadline() const override {
        std::optional<Clock::time_point> next;
        if (!reads.empty() && reads.front().started) next = reads.front().deadline;
        for (const auto& t : transfers)
            if (!next || t.deadline < *next) next = t.deadline;
        return next;
    }

    void handleDeadline(Clock::time_point now) override {
        if (!reads.empty() && reads.front().started && reads.front().deadline <= now) {
            const Read& read = reads.front();
            logWarning("X11Clipboard - the owner of " + selectionName(read.selection) + " did not answer within " +
                       std::to_string(kAnswerTimeout.count()) + " ms" +
                       (read.incremental ? " (during an incremental transfer)" : ""));
            finishFrontLocked(std::nullopt);
        }
        std::vector<Window> stale;
        for (const auto& t : transfers)
            if (t.deadline <= now) stale.push_back(t.requestor);
        for (Window requestor : stale) {
            logWarning("X11Clipboard - a requestor stopped taking an incremental transfer; dropped");
            dropTransfersTo(requestor);
            releaseRequestor(requestor);
        }
    }

    // ---- Completions ----

    template <typename T>
    std::function<void(T)> onMainLoop(std::function<void(T)> completion) {
        const auto alive = lifetime.token();
        MainLoop& mainLoop = loop;
        return [&mainLoop, alive, completion = std::move(completion)](T value) mutable {
            mainLoop.post([alive, completion, value = std::move(value)]() mutable {
                if (alive) completion(std::move(value));
            });
        };
    }

    std::optional<pid_t> ownerPidLocked(Window owner) const {
        if (!hasXRes || owner == None) return std::nullopt;
        return x11::clientProcess(connection.display(), owner);
    }
};

X11Clipboard::X11Clipboard(MainLoop& loop, const std::string& displayName)
    : impl_(std::make_unique<Impl>(loop, displayName)) {
    impl_->open();
    impl_->connection.start(*impl_);
}

X11Clipboard::~X11Clipboard() {
    impl_->connection.stop();
    impl_->lifetime.expire();
}

bool X11Clipboard::isAvailable() const { return impl_->connection.isOpen(); }

bool X11Clipboard::ownsClipboard() const {
    auto& d = *impl_;
    if (!d.connection.isOpen()) return false;
    auto lock = d.connection.lock();
    return d.ownsClipboardLocked();
}

bool X11Clipboard::setString(const std::string& text) {
    auto& d = *impl_;
    if (!d.connection.isOpen()) {
        logError("X11Clipboard.setString() - there is no connection to the X server");
        return false;
    }
    auto lock = d.connection.lock();
    const Time time = d.serverTimeLocked();
    XSetSelectionOwner(d.connection.display(), d.atoms().clipboard, d.window, time);
    if (!d.ownsClipboardLocked()) {
        logError("X11Clipboard.setString() - the X server did not give us the clipboard");
        return false;
    }
    d.ownedText = std::make_shared<const std::string>(text);
    d.ownedSince = time;
    return true;
}

void X11Clipboard::clearContents() {
    auto& d = *impl_;
    if (!d.connection.isOpen()) return;
    auto lock = d.connection.lock();
    const Time time = d.serverTimeLocked();
    XSetSelectionOwner(d.connection.display(), d.atoms().clipboard, None, time);
    d.ownedText.reset();
    d.ownedSince = time;
}

void X11Clipboard::readString(TextCompletion completion) {
    auto& d = *impl_;
    auto done = d.onMainLoop<std::optional<std::string>>(std::move(completion));
    if (!d.connection.isOpen()) {
        done(std::nullopt);
        return;
    }
    auto lock = d.connection.lock();
    const Window owner = XGetSelectionOwner(d.connection.display(), d.atoms().clipboard);
    if (owner == None) {
        done(std::nullopt);
        return;
    }
    if (owner == d.window && d.ownedText) {
        done(*d.ownedText);
        return;
    }
    Impl::Read read;
    read.selection = d.atoms().clipboard;
    read.targets = d.textTargets();
    read.done = std::move(done);
    d.enqueueRead(std::move(read));
}

void X11Clipboard::readSelectedText(SelectionCompletion completion) {
    auto& d = *impl_;
    auto done = d.onMainLoop<std::optional<SelectedText>>(std::move(completion));
    if (!d.connection.isOpen()) {
        done(std::nullopt);
        return;
    }
    auto lock = d.connection.lock();
    const Window owner = XGetSelectionOwner(d.connection.display(), XA_PRIMARY);
    if (owner == None) {
        done(std::nullopt);
        return;
    }
    const auto pid = d.ownerPidLocked(owner);
    Impl::Read read;
    read.selection = XA_PRIMARY;
    read.targets = d.textTargets();
    read.done = [done = std::move(done), pid](std::optional<std::string> text) {
        if (!text) done(std::nullopt);
        else done(SelectedText{std::move(*text), pid});
    };
    d.enqueueRead(std::move(read));
}

} // namespace sprelio::platform
