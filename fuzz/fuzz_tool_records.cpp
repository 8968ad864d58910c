// Two records that tarnctl reads back from places others can write: the
// announcement journal's record in the store, and a line of the device's
// log.  Neither read may go past its input, and what is read back must
// compose to what was given.
#include <stdint.h>
#include <string.h>

#include <string>

#include "tools/announce_journal.h"
#include "tools/log_lines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tarndev::Unannounced u;
    if (tarndev::journal_decode(data, size, &u)) {
        const tarndev::Bytes again = tarndev::journal_value(u);
        if (again.size() != size || memcmp(again.data(), data, size) != 0)
            __builtin_trap();
    }

    const std::string line(reinterpret_cast<const char *>(data), size);
    const tarndev::LogPrefix p = tarndev::parse_log_prefix(line);
    if (p.present) {
        if (p.length > line.size() || !tarndev::is_time_text(p.time))
            __builtin_trap();
        const std::string composed = p.time + " " + p.host + " " + p.process + "[" +
                                     std::to_string(p.pid) + "]: ";
        // The pid may have been written with leading zeros.
        if (composed.size() > p.length || line.compare(0, p.time.size() + 1, p.time + " ") != 0)
            __builtin_trap();
    }
    return 0;
}
