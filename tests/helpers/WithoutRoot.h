#pragma once
// Folder permissions don't stop root, and the tests may run as root (CI does): a check that needs a refused write
// runs its body in a child process that has given up root for "nobody". The child's failures print as usual and
// turn into its exit status.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

namespace sprelio::testhelpers {

inline void runWithoutRoot(const std::function<void()>& body) {
    if (::geteuid() != 0) {
        body();
        return;
    }
    const passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr) << "no user \"nobody\" to drop root privileges to";
    std::fflush(stdout);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(nobody->pw_gid) != 0 || ::setuid(nobody->pw_uid) != 0) _exit(3);
        body();
        std::fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "the unprivileged run ended abnormally";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the unprivileged run failed (3: could not drop privileges)";
}

} // namespace sprelio::testhelpers
