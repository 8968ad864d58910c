// dump-cache --verify, for clients built on the host's client helper: every
// answer of the client's caches against the database path.
#ifndef TARN_TOOLS_TARNCTL_VERIFY_H
#define TARN_TOOLS_TARNCTL_VERIFY_H

#include <stddef.h>
#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#include "tools/tarnctl_output.h"

namespace tarnctl {

// One answer on which the client's cache and the database path differ.
struct AnswerDifference {
    std::string subject;   // "vlan 5: owner", "as format"
    std::string cache;     // "" when the cache has no answer
    std::string database;  // "" when the database path has none
    const char *rule;      // why the library differs on purpose; null: diverges
};

struct VerifyCount {
    bool helper = false;      // the client answered the inspection request
    bool timed_out = false;   // it did not answer within the wait
    std::string failure;      // why the request failed otherwise
    size_t compared = 0;      // answers compared
    size_t divergences = 0;   // real disagreements
    size_t intended = 0;      // disagreements the library makes on purpose
    std::vector<AnswerDifference> differences;
};

// Asks the client at `sap` for its answers about `cached` (the topologies
// its dump holds) and every topology of the database, and collects each
// disagreement.  The caller has initialised
// libtarn in this process with every cache off.
VerifyCount verify_answers(uint32_t requester, int32_t sap, const std::set<uint32_t> &cached,
                           uint32_t timeout_ms);

// "verify: SUBJECT: cache C, database D: DIVERGES", one line per
// divergence; with `intended` also one line per difference the library
// makes on purpose ("as the library intends (RULE)").
void print_answers(const VerifyCount &count, bool intended);
// The comparison as the "answers" member of dump-cache's JSON document.
json answers_json(const VerifyCount &count);

}  // namespace tarnctl

#endif
