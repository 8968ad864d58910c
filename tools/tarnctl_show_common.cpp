// What the "show" subcommands share: numbers in and out, the library
// session, the context and interface walks, the table or JSON document.

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "platform/nic.h"
#include "tools/tarnctl_show.h"
#include "tools/tarnctl_walk_guard.h"

namespace tarnctl {
namespace show {

std::string num(uint64_t v)
{
    return std::to_string(v);
}

std::string hex(uint64_t v)
{
    char buf[24];
    snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string hex16(uint64_t v)
{
    char buf[24];
    snprintf(buf, sizeof buf, "0x%016llX", static_cast<unsigned long long>(v));
    return buf;
}
bool parse_u32(const std::string &text, uint32_t lo, uint32_t hi,
               uint32_t *out)
{
    if (text.empty() || text.size() > 12)
        return false;
    int base = 10;
    size_t start = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        start = 2;
    }
    for (size_t i = start; i < text.size(); ++i) {
        char c = text[i];
        bool digit = base == 10 ? (c >= '0' && c <= '9') : isxdigit(
                                                               static_cast<unsigned char>(c)) != 0;
        if (!digit)
            return false;
    }
    errno = 0;
    unsigned long long v = strtoull(text.c_str() + start, nullptr, base);
    if (errno != 0 || v < lo || v > hi)
        return false;
    *out = static_cast<uint32_t>(v);
    return true;
}
int sub_usage(const Sub &sub, const std::string &message)
{
    return usage_error(sub.cmd, message.c_str());
}
bool max_table_id(const Sub &sub, const Args &a, uint32_t *out, int *status)
{
    *out = kDefaultMaxTableId;
    auto it = a.values.find("--max-id");
    if (it == a.values.end())
        return true;
    if (!parse_u32(it->second, 1, kMaxTableId, out)) {
        *status = sub_usage(sub, "--max-id takes a table id from 1 to " +
                                     num(kMaxTableId));
        return false;
    }
    return true;
}
// ---- the library session -------------------------------------------------

Session::~Session()
{
    if (opened_) {
        gyre_api_close();
        tarn_api_close();
    }
}

bool Session::open()
{
    if (!device_up(sub_.cmd.name))
        return false;
    opened_ = true;
    if (tarn_api_init() != TARN_SUCCESS) {
        report_library_failure(sub_.cmd.name);
        return false;
    }
    if (tarn_clt == nullptr || tarn_clt->initialized == 0) {
        report(sub_.cmd.name, kExitFailed,
               std::string("libtarn could not open the device's databases in ") +
                   tarnhost_root() + "; the library's report is in " + tarnhost_root() +
                   "/log/messages, and \"tarnctl load FILE\" rewrites them");
        return false;
    }
    return true;
}

int failed(const Sub &sub, const std::string &message)
{
    return report(sub.cmd.name, kExitFailed, message);
}
// ---- what the library answers ---------------------------------------------

std::vector<Context> all_contexts()
{
    std::vector<Context> out;
    std::set<uint32_t> seen;  // a damaged record can lead back to one
    tarn_context_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
         id = tarn_get_next_context_info(id, &info)) {
        if (!seen.insert(id).second)
            walk_went_back("context", out.back().id, id);
        out.push_back({id, info});
    }
    return out;
}
std::vector<Interface> all_interfaces(const char *context)
{
    std::vector<Interface> out;
    std::set<uint32_t> seen;  // a damaged record can lead back to one
    tarn_if_context_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t ix = tarn_get_next_if_context_info(0, context, &info);
         ix != 0; ix = tarn_get_next_if_context_info(ix, context, &info)) {
        if (!seen.insert(ix).second)
            walk_went_back("interface", out.back().ifindex, ix);
        out.push_back({ix, info});
    }
    return out;
}
std::string if_name(uint32_t ifindex)
{
    return nic_get_if_name(ifindex);
}
// ---- printing --------------------------------------------------------------

// The table, or the JSON document; `notes` explain an answer that the
// library gives by design but that would look wrong (after the table,
// "notes" in JSON).
int emit(const Args &a, const Row &header, const std::vector<Row> &rows,
         json doc, const std::vector<std::string> &notes)
{
    if (a.json) {
        doc["notes"] = notes;
        print_json(doc);
        return kExitOk;
    }
    print_table(header, rows);
    if (!notes.empty())
        printf("\n");
    for (const std::string &n : notes)
        printf("note: %s\n", escaped(n).c_str());
    return kExitOk;
}
// A context's down reason: null when it has none (code 0).
json reason_json(uint32_t reason)
{
    return or_null(reason != 0, tarn_reason2str(reason));
}

}  // namespace show
}  // namespace tarnctl
