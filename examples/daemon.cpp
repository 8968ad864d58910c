// daemon: a long-running client of both services on poll(2).  It binds an
// access point (the argument, default 1200), registers, keeps both caches,
// prints one line per change the services announce, answers the host's
// inspection request ("tarnctl dump-cache --pid PID --verify"), and stops
// cleanly on SIGINT or SIGTERM.
//
// Build against an installed libtarn:
//     c++ -std=c++17 -fno-exceptions daemon.cpp $(pkg-config --cflags --libs tarn) -o daemon
// Exit status: 0 after a signal, 1 when it could not start.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <string>

#include <tarn/tarn.hpp>
#include <tarnhost/tarnhost.hpp>
#include <tarnhost/tarnhost_client.h>

#include "daemon_events.hpp"

namespace {

int fail(const std::string &what, const std::string &why)
{
    fprintf(stderr, "daemon: %s: %s\n", what.c_str(), why.c_str());
    return 1;
}

bool parse_access_point(const char *text, int32_t *out)
{
    char *end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 1 || v > 0x7FFFFFFF)
        return false;
    *out = static_cast<int32_t>(v);
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    int32_t sap = 1200;
    if (argc > 2 || (argc == 2 && !parse_access_point(argv[1], &sap)))
        return fail("usage", "daemon [ACCESS_POINT] (1 to 2147483647, default 1200)");

    // The signals arrive as a descriptor beside the bus's.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    const int sfd = signalfd(-1, &stop, SFD_CLOEXEC);
    if (sfd < 0)
        return fail("signalfd", strerror(errno));

    tarn::Result<tarn::Library> lib = tarn::Library::open(tarnhost::library_options());
    if (!lib)
        return fail("cannot open the library", lib.status().message());
    tarn::Client::Options options = tarnhost::client_options(sap);
    options.name = "daemon";
    options.start = tarnhost_client_start;        // so the host can inspect us
    options.dispatch = tarnhost_client_dispatch;  // and the inspection is answered
    tarn::Result<tarn::Client> client = tarn::Client::open(*lib, options);
    if (!client)
        return fail("cannot start the client", client.status().message());

    daemon_example::line("daemon: ready on access point " + std::to_string(sap) + ", bus handle " +
                         std::to_string(client->handle()) + ", pid " + std::to_string(getpid()));

    pollfd fds[2] = {{client->descriptor(), POLLIN, 0}, {sfd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return fail("poll", strerror(errno));
        }
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo si;
            if (read(sfd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
                daemon_example::line(si.ssi_signo == SIGINT ? "daemon: stopping (SIGINT)"
                                                            : "daemon: stopping (SIGTERM)");
                break;
            }
        }
        if (fds[0].revents & POLLIN) {
            tarn::Result<size_t> n = client->dispatch_pending(
                [&](const tarn::Notification &note) { daemon_example::print(*lib, note); });
            if (!n)
                return fail("dispatch", n.status().message());
        }
    }
    // Gyre and Tarn closed, the handle unbound: the client first (caches,
    // registrations, access point), then the library.
    (void)client->close();
    (void)lib->close();
    close(sfd);
    return 0;
}
