// The device loader: turns a device description (JSON, docs/device-format.md)
// into the databases of the simulated device under $TARNHOST_ROOT.
//
// Loading is all or nothing: every fact is checked before the store is
// touched, and every database of the device is then replaced in one
// transaction, so readers see the whole old device or the whole new one,
// whatever happens to the loader and whether or not the description fits.
// A store too damaged to read is rebuilt from the description alone.
#ifndef TARN_TOOLS_DEVICE_LOADER_H
#define TARN_TOOLS_DEVICE_LOADER_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace tarndev {

struct LoadOutcome {
    // 0 loaded, 1 refused or failed.
    int status = 1;
    // Why it was refused or failed: "<JSON path>: <problem>" for a bad
    // description, or a description of the failed step.
    std::string message;
    // 0 when the description was refused; else the status of the store or
    // system step that failed (KVS_ERR_* or KVS_ERR_DENIED, ...).
    uint32_t store_status = 0;
    // True when the store was damaged and has been built anew.
    bool rebuilt = false;
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
