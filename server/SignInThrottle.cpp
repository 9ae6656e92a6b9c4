#include "server/SignInThrottle.h"

#include <algorithm>

namespace sprelio::server {

std::int64_t SignInThrottle::blockedUntil(const Entry& entry) const {
    // The last free strike already makes the key wait: `freeStrikes` is how many it gets, not one more.
    int over = entry.strikes - policy_.freeStrikes + 1;
    if (over <= 0) return 0;
    std::int64_t wait = policy_.backOff;
    for (int i = 1; i < over && wait < policy_.maxBackOff; ++i) wait *= 2;
    return entry.last + std::min(wait, policy_.maxBackOff);
}

std::int64_t SignInThrottle::waitFor(const std::string& key, std::int64_t now) const {
    auto it = keys_.find(key);
    if (it == keys_.end() || now - it->second.last >= policy_.forget) return 0;
    return std::max<std::int64_t>(0, blockedUntil(it->second) - now);
}

int SignInThrottle::strikes(const std::string& key, std::int64_t now) const {
    auto it = keys_.find(key);
    if (it == keys_.end() || now - it->second.last >= policy_.forget) return 0;
    return it->second.strikes;
}

void SignInThrottle::strike(const std::string& key, std::int64_t now, int count) {
    if (keys_.size() >= maxKeys_ && !keys_.count(key)) prune(now);
    auto& entry = keys_[key];
    if (now - entry.last >= policy_.forget) entry.strikes = 0;
    entry.strikes += count;
    entry.last = now;
}

void SignInThrottle::prune(std::int64_t now) {
    for (auto it = keys_.begin(); it != keys_.end();)
        it = now - it->second.last >= policy_.forget ? keys_.erase(it) : std::next(it);
    // Still full: the keys that wait no more go first; a key that is waiting is kept, so that flooding the
    // table with new keys never frees the one under attack.
    for (auto it = keys_.begin(); it != keys_.end() && keys_.size() >= maxKeys_;)
        it = blockedUntil(it->second) <= now ? keys_.erase(it) : std::next(it);
}

} // namespace sprelio::server
