// sprelio-server: serves the account API and transcription until SIGINT or SIGTERM, then finishes the requests
// that are running and exits.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <exception>

#include "base/Log.h"
#include "server/BackendServer.h"
#include "server/ConsoleLogSink.h"

int main(int argc, char** argv) {
    using namespace sprelio;
    auto parsed = server::parseServerCommandLine(argc, argv);
    if (parsed.help) {
        std::fputs(server::serverUsage().c_str(), stdout);
        return 0;
    }
    if (!parsed.config) {
        std::fprintf(stderr, "sprelio-server: %s\n\n%s", parsed.error.c_str(), server::serverUsage().c_str());
        return 2;
    }

    server::ConsoleLogSink sink;
    setLogSink(&sink);

    // The signals are taken by sigwait() below; every thread started from here on inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A client that hangs up mid-answer is that request's error, never the end of the server.
    ::signal(SIGPIPE, SIG_IGN);

    int status = 0;
    try {
        server::BackendServer backend(*parsed.config);
        const auto& local = backend.localAccount();
        log(LogLevel::info, std::string("main() - local account ") + local.account.email + ": token " +
                                (local.tokenIsNew ? "issued and " : "") + "in " + local.tokenFile.string());
        backend.start();
        int received = 0;
        sigwait(&signals, &received);
        log(LogLevel::info, std::string("main() - received ") + (received == SIGINT ? "SIGINT" : "SIGTERM"));
        backend.stop();
    } catch (const std::exception& e) {
        log(LogLevel::critical, std::string("main() - ") + e.what());
        status = 1;
    }
    flushLog();
    setLogSink(nullptr);
    return status;
}
