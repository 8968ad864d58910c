// What the "show" subcommands share: their command line, the library
// session they answer from, the walks several of them make, and one way to
// print a table or a JSON document with notes.
#ifndef TARN_TOOLS_TARNCTL_SHOW_H
#define TARN_TOOLS_TARNCTL_SHOW_H

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "tools/tarnctl.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {
namespace show {

// Table ids probed by "show tables" and "show attributes" unless --max-id
// says otherwise.
constexpr uint32_t kDefaultMaxTableId = 65536;
constexpr uint32_t kMaxTableId = 0xBFFFFFFFu;  // higher ids are topologies
constexpr uint32_t kMaxTopologyId = GYRE_TPG_ID_MASK;

// ---- output ----------------------------------------------------------------

std::string num(uint64_t v);
std::string hex(uint64_t v);
std::string hex16(uint64_t v);

// ---- the command line ----------------------------------------------------

struct Sub;

struct Args {
    bool json = false;
    bool help = false;
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;  // --name VALUE
    std::set<std::string> flags;                // --name
};

struct Sub {
    Command cmd;  // name "show WHAT", synopsis, summary
    const char *help;
    std::vector<std::string> value_options;
    std::vector<std::string> flag_options;
    size_t min_positional;
    size_t max_positional;
    int (*run)(const Sub &sub, const Args &args);
};

// A number from lo to hi, decimal or hexadecimal after "0x".
bool parse_u32(const std::string &text, uint32_t lo, uint32_t hi, uint32_t *out);
int sub_usage(const Sub &sub, const std::string &message);
// --max-id or its default; false with *status set after a usage error.
bool max_table_id(const Sub &sub, const Args &a, uint32_t *out, int *status);

// ---- the library session -------------------------------------------------

// libtarn opened as a client process opens it; closed again on scope exit.
class Session {
public:
    explicit Session(const Sub &sub) : sub_(sub) {}
    ~Session();
    // 1 when the library answers; otherwise reports why and returns 0.
    bool open();

private:
    const Sub &sub_;
    bool opened_ = false;
};

int failed(const Sub &sub, const std::string &message);

// ---- what the library answers ---------------------------------------------

struct Context {
    uint32_t id;
    tarn_context_info_t info;
};

std::vector<Context> all_contexts();

struct Table {
    uint32_t id;
    tarn_table_info_t info;
    int af;  // -1: not registered under any address family
};

std::string af_text(int af);
json af_json(int af);

// The tables found by asking for ids 1 to max_id, or to probed_to when
// SIGINT or SIGTERM cut the probe short.
struct Probe {
    std::vector<Table> tables;
    uint32_t max_id = 0;
    uint32_t probed_to = 0;
    bool cut_short() const { return probed_to < max_id; }
};

// Every table with an id from 1 to max_id, until a signal stops it.
Probe probe_tables(uint32_t max_id);
// What a probe left out, and how to ask for it, as notes: ids above the
// bound, or those an interrupted probe did not reach.
std::vector<std::string> probe_notes(const Probe &p);

struct Interface {
    uint32_t ifindex;
    tarn_if_context_info_t info;
};

// Every interface in a context, or in `context` when it is not null.
std::vector<Interface> all_interfaces(const char *context);
std::string if_name(uint32_t ifindex);

// ---- printing --------------------------------------------------------------

// The table, or the JSON document; `notes` explain an answer that the
// library gives by design but that would look wrong (after the table,
// "notes" in JSON).
int emit(const Args &a, const Row &header, const std::vector<Row> &rows, json doc,
         const std::vector<std::string> &notes = {});
// A context's down reason: null when it has none (code 0).
json reason_json(uint32_t reason);

// ---- the subcommands -----------------------------------------------------

int run_contexts(const Sub &sub, const Args &a);
int run_context(const Sub &sub, const Args &a);
int run_tables(const Sub &sub, const Args &a);
int run_interfaces(const Sub &sub, const Args &a);
int run_attributes(const Sub &sub, const Args &a);
int run_topologies(const Sub &sub, const Args &a);
int run_ftags(const Sub &sub, const Args &a);
int run_vlan(const Sub &sub, const Args &a);

}  // namespace show
}  // namespace tarnctl

#endif
