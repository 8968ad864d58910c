// daemon_events.hpp - what the example daemons print for each message the
// library handed back (shared by daemon.cpp and daemon_asio.cpp).
//
// The facts of the message were decoded before dispatch (dispatch may free
// the message); the sets are the cache's after it.
#ifndef TARN_EXAMPLES_DAEMON_EVENTS_HPP
#define TARN_EXAMPLES_DAEMON_EVENTS_HPP

#include <stdio.h>

#include <string>
#include <type_traits>
#include <variant>

#include <tarn/tarn.hpp>

namespace daemon_example {

inline std::string sets_of(const tarn::Library &lib, uint32_t topology)
{
    tarn::Result<tarn::Library::CachedTopology> t = lib.cached_topology(topology);
    const tarn::Library::CachedTopology none;
    const tarn::Library::CachedTopology &c = t.ok() ? *t : none;
    return "vlans " + c.vlans.to_string() + ", ftags " + c.ftags.to_string();
}

// One line per change, on standard output, flushed at once.
inline void line(const std::string &text)
{
    printf("%s\n", text.c_str());
    fflush(stdout);
}

inline void print(const tarn::Library &lib, const tarn::Notification &note)
{
    // -1: not the library's (the host's inspection request is answered
    // by the dispatch itself and comes back as taken, undecodable).
    if (note.result() == -1)
        return;
    std::visit(
        [&](const auto &e) {
            using E = std::decay_t<decltype(e)>;
            if constexpr (std::is_same_v<E, tarn::TopologyCreated>) {
                line("topology " + std::to_string(e.topology) + " created: " +
                     sets_of(lib, e.topology));
            } else if constexpr (std::is_same_v<E, tarn::TopologyDeleted>) {
                line("topology " + std::to_string(e.topology) + " deleted");
            } else if constexpr (std::is_same_v<E, tarn::TopologyVlansChanged>) {
                for (const tarn::TopologyVlans &r : e.records)
                    line("topology " + std::to_string(r.topology) + " " + sets_of(lib, r.topology));
            } else if constexpr (std::is_same_v<E, tarn::FtagsChanged>) {
                for (const tarn::FtagChange &f : e.entries) {
                    const std::string n = "ftag " + std::to_string(f.ftag);
                    char flags[16];
                    snprintf(flags, sizeof flags, "0x%x", f.flags);
                    const std::string about = ": topology " + std::to_string(f.topology) +
                                              ", graph " + std::to_string(f.graph) +
                                              ", flags " + flags;
                    if (f.reason == 1)
                        line(n + " created" + about);
                    else if (f.reason == 2)
                        line(n + " updated" + about);
                    else if (f.reason == 3)
                        line(n + " deleted: topology " + std::to_string(f.topology));
                }
            } else if constexpr (std::is_same_v<E, tarn::GyreNotice>) {
                line("notification " + std::to_string(e.opcode) + ": nothing to change");
            } else if constexpr (std::is_same_v<E, tarn::AsFormatChanged>) {
                line("AS format " + std::to_string(lib.as_format()));
            } else if constexpr (std::is_same_v<E, tarn::TopologyFtagsDeleted>) {
                line("ftags of topology " + std::to_string(e.topology) +
                     " deleted: " + e.ftags.to_string());
            } else if constexpr (std::is_same_v<E, tarn::GyreCacheFlushed>) {
                line("gyre cache flushed");
            } else if constexpr (std::is_same_v<E, tarn::CacheDumpRequest>) {
                if (note.result() == 1)
                    line("cache dump page " + std::to_string(e.iteration) + " answered");
            }
        },
        note.event());
}

}  // namespace daemon_example

#endif
