#pragma once
// Counts strikes (wrong codes, spent sign-in requests, requests themselves) against keys such as an e-mail
// address or a client address, and makes a key wait once it has used up its free strikes: the first wait is
// `backOff`, each further strike doubles it up to `maxBackOff`. A key is forgotten after `forget` without a
// strike. Time is the caller's, in seconds, so that tests can move it.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace sprelio::server {

class SignInThrottle {
public:
    struct Policy {
        int freeStrikes = 10;
        std::int64_t backOff = 60;
        std::int64_t maxBackOff = 60 * 60;
        std::int64_t forget = 24 * 60 * 60;
    };

    explicit SignInThrottle(Policy policy, std::size_t maxKeys = 100000) : policy_(policy), maxKeys_(maxKeys) {}

    // Seconds until `key` may act again; 0 when it may now.
    std::int64_t waitFor(const std::string& key, std::int64_t now) const;
    void strike(const std::string& key, std::int64_t now, int count = 1);
    void forgive(const std::string& key) { keys_.erase(key); }
    int strikes(const std::string& key, std::int64_t now) const;

private:
    struct Entry {
        int strikes = 0;
        std::int64_t last = 0;
    };
    std::int64_t blockedUntil(const Entry& entry) const;
    void prune(std::int64_t now);

    Policy policy_;
    std::size_t maxKeys_;
    std::map<std::string, Entry> keys_;
};

} // namespace sprelio::server
