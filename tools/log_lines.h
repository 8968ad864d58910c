// The lines of the device's log: the prefix that the host's syslog writes
// before every message, taken apart.  A line is outside input (anyone who
// may write the log may write anything), so every read is checked.
#ifndef TARN_TOOLS_LOG_LINES_H
#define TARN_TOOLS_LOG_LINES_H

#include <stddef.h>

#include <string>

namespace tarndev {

// The parts of the prefix that the host's syslog puts on every line:
// "2026-01-02T03:04:05.678901Z host process[pid]: ".
struct LogPrefix {
    bool present = false;
    std::string time, host, process;
    long pid = 0;
    size_t length = 0;  // of the prefix, with its trailing blank
};

// Whether `t` is the prefix's time: "YYYY-MM-DDTHH:MM:SS.ffffffZ".
bool is_time_text(const std::string &t);
// The prefix of `line`; present is false when the line has none.
LogPrefix parse_log_prefix(const std::string &line);

}  // namespace tarndev

#endif
