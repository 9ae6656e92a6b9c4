#pragma once
// Closures outlive their owners: posted tasks, timers, completions of work on other threads. An owner holds a
// LifetimeGuard; what it hands out looks, before it runs, whether the owner is still there.
#include <memory>
#include <utility>

namespace sprelio {

class LifetimeGuard {
public:
    // What a closure keeps: true while the owner lives. Safe to test on any thread.
    class Token {
    public:
        explicit operator bool() const { return !anchor_.expired(); }

    private:
        friend class LifetimeGuard;
        explicit Token(std::weak_ptr<void> anchor) : anchor_(std::move(anchor)) {}
        std::weak_ptr<void> anchor_;
    };

    LifetimeGuard() = default;
    LifetimeGuard(const LifetimeGuard&) = delete;
    LifetimeGuard& operator=(const LifetimeGuard&) = delete;

    Token token() const { return Token(anchor_); }

    // `action` made inert once the owner is gone; its result, if any, is dropped.
    template <class Action> auto guard(Action action) const {
        return [alive = token(), action = std::move(action)](auto&&... arguments) mutable {
            if (alive) action(std::forward<decltype(arguments)>(arguments)...);
        };
    }

    // The owner's life ends here rather than when its members go: a destructor calls this first, so that nothing
    // handed out runs against a half-destroyed owner.
    void expire() { anchor_.reset(); }

private:
    std::shared_ptr<void> anchor_ = std::make_shared<char>(0);
};

} // namespace sprelio
