// host/tarnhost.hpp (installed as <tarnhost/tarnhost.hpp>) - what the host
// platform gives the C++ interface of <tarn/tarn.hpp>: the library's
// reports as text (the host renders every report and keeps it while capture
// is on) and the bus handle's descriptor.
//
//   auto lib = tarn::Library::open(tarnhost::library_options());
//   auto client = tarn::Client::open(*lib, tarnhost::client_options(1200));
#ifndef TARNHOST_TARNHOST_HPP
#define TARNHOST_TARNHOST_HPP

#include <string>

#include <tarn/tarn.hpp>

#include "tarnhost.h"
#include "tarnhost_bus.h"

namespace tarnhost {

// The last line the library reported since the last call, if any; the
// capture is emptied.
inline bool take_report(std::string *line)
{
    const size_t n = tarnhost_capture_count(TARNHOST_CH_SYSLOG);
    if (n == 0)
        return false;
    const char *last = tarnhost_capture_line(TARNHOST_CH_SYSLOG, n - 1);
    *line = last != nullptr ? last : "";
    tarnhost_capture_clear();
    return true;
}

// Library options that read the library's reports (capture turned on).
inline tarn::Library::Options library_options()
{
    tarnhost_capture(1);
    tarnhost_capture_clear();
    tarn::Library::Options o;
    o.take_report = take_report;
    return o;
}

// Client options binding `access_point` (-1: a dynamic handle) with the
// bus descriptor known.
inline tarn::Client::Options client_options(int32_t access_point = -1)
{
    tarn::Client::Options o;
    o.access_point = access_point;
    o.descriptor = tarnhost_bus_fd;
    return o;
}

}  // namespace tarnhost

#endif
