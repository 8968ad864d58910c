// daemon_asio: the example daemon on Boost.Asio.  The bus descriptor is
// watched through a posix::stream_descriptor (waited on, never read: the
// messages are the library's to receive), the signals through a
// signal_set.  Same argument, same lines and same exit as daemon.cpp.
//
// Build against an installed libtarn (Boost.Asio is header-only):
//     c++ -std=c++17 -fno-exceptions daemon_asio.cpp $(pkg-config --cflags --libs tarn) -lpthread -o daemon_asio
// Exit status: 0 after a signal, 1 when it could not start.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>

#include <tarn/tarn.hpp>
#include <tarnhost/tarnhost.hpp>
#include <tarnhost/tarnhost_client.h>

#include "daemon_events.hpp"

// Built without exceptions, Boost reports what it would have thrown here.
namespace boost {
[[noreturn]] void throw_exception(const std::exception &e)
{
    fprintf(stderr, "daemon: asio: %s\n", e.what());
    exit(1);
}
struct source_location;
[[noreturn]] void throw_exception(const std::exception &e, const source_location &)
{
    throw_exception(e);
}
}  // namespace boost

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

// Waits for the bus descriptor to turn readable, dispatches everything
// pending, and waits again.
class BusWatch {
public:
    BusWatch(boost::asio::io_context &io, tarn::Library &lib, tarn::Client &client)
        : io_(io), lib_(lib), client_(client), bus_(io, client.descriptor())
    {
    }
    // The descriptor is the bus handle's: it must not be closed here.
    ~BusWatch() { bus_.release(); }
    void start() { wait(); }
    void stop() { bus_.cancel(); }
    const std::string &error() const { return error_; }

private:
    void wait()
    {
        bus_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                        [this](const boost::system::error_code &ec) {
                            if (ec)
                                return;
                            tarn::Result<size_t> n =
                                client_.dispatch_pending([&](const tarn::Notification &note) {
                                    daemon_example::print(lib_, note);
                                });
                            if (!n) {
                                error_ = n.status().message();
                                io_.stop();
                                return;
                            }
                            wait();
                        });
    }
    boost::asio::io_context &io_;
    tarn::Library &lib_;
    tarn::Client &client_;
    boost::asio::posix::stream_descriptor bus_;
    std::string error_;
};

}  // namespace

int main(int argc, char **argv)
{
    int32_t sap = 1200;
    if (argc > 2 || (argc == 2 && !parse_access_point(argv[1], &sap)))
        return fail("usage", "daemon_asio [ACCESS_POINT] (1 to 2147483647, default 1200)");

    boost::asio::io_context io;
    // Installed before the client exists, so that a signal during the
    // start-up is not lost.
    boost::asio::signal_set signals(io, SIGINT, SIGTERM);

    tarn::Result<tarn::Library> lib = tarn::Library::open(tarnhost::library_options());
    if (!lib)
        return fail("cannot open the library", lib.status().message());
    tarn::Client::Options options = tarnhost::client_options(sap);
    options.name = "daemon_asio";
    options.start = tarnhost_client_start;
    options.dispatch = tarnhost_client_dispatch;
    tarn::Result<tarn::Client> client = tarn::Client::open(*lib, options);
    if (!client)
        return fail("cannot start the client", client.status().message());

    BusWatch bus(io, *lib, *client);
    signals.async_wait([&](const boost::system::error_code &ec, int signo) {
        if (ec)
            return;
        daemon_example::line(signo == SIGINT ? "daemon: stopping (SIGINT)"
                                             : "daemon: stopping (SIGTERM)");
        bus.stop();
        io.stop();
    });
    daemon_example::line("daemon: ready on access point " + std::to_string(sap) + ", bus handle " +
                         std::to_string(client->handle()) + ", pid " + std::to_string(getpid()));
    bus.start();
    io.run();
    if (!bus.error().empty())
        return fail("dispatch", bus.error());
    (void)client->close();
    (void)lib->close();
    return 0;
}
