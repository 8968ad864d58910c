// The device loader: turns a device description (JSON, docs/device-format.md)
// into the databases of the simulated device under $TARNHOST_ROOT.
//
// Loading is all or nothing as far as the description goes: every fact is
// checked before the first database is touched, and a refused description
// leaves the device exactly as it was.  Each database is then replaced in one
// transaction of its own (cleared, filled, committed), so readers never see
// a database half loaded; a store failure between two databases can still
// leave some replaced and others not, which the outcome reports.
#ifndef TARN_TOOLS_DEVICE_LOADER_H
#define TARN_TOOLS_DEVICE_LOADER_H

#include <stddef.h>

#include <string>

namespace tarndev {

struct LoadOutcome {
    // 0 loaded, 1 refused or failed.
    int status = 1;
    // Why it was refused or failed: "<JSON path>: <problem>" for a bad
    // description, or a description of the failed step.
    std::string message;
    // True when a failure came after the first database had been replaced.
    bool partly_written = false;
    // What was loaded, for a summary.
    size_t contexts = 0;
    size_t tables = 0;
    size_t interfaces = 0;
    size_t topologies = 0;
};

// Loads the description in the file at `path`.
LoadOutcome load_device_file(const std::string &path);
// Loads a description given as text; `source` names it in messages about
// its syntax.
LoadOutcome load_device_text(const std::string &text,
                             const std::string &source = "description");
// Checks a description without writing anything: "" when it would load,
// else the message a load would give.
std::string check_device_text(const std::string &text,
                              const std::string &source = "description");

}  // namespace tarndev

#endif
