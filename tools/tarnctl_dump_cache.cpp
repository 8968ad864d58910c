// tarnctl dump-cache (--client HANDLE | --sap N | --pid P) [--verify]
// [--timeout S] [--json]: fetch the Gyre cache of a client process page by
// page over the bus, as
// the library's requester does, and print it in the requester's table
// layout; with --verify, compare it with the device's databases.  The pages
// are fetched here rather than by gyre_client_dbg_print_cache so that the
// wait is bounded and a client that is gone can be told from one that does
// not answer.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "tools/announce_journal.h"
#include "tools/device_records.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_clients.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_queries.h"
#include "tools/tarnctl_verify.h"

namespace tarnctl {

const Command kDumpCache = {
    "dump-cache",
    "(--client HANDLE | --sap N | --pid P) [--verify] [--timeout S] [--json]",
    "print a client's Gyre cache; --verify compares it with the databases",
    cmd_dump_cache,
};

namespace {

constexpr uint32_t kAttrChange = 51226;
constexpr uint32_t kRequestSize = 28;
constexpr uint32_t kHeader = GYRE_CACHE_DUMP_HEADER_SIZE;
constexpr uint32_t kRecord = GYRE_CACHE_DUMP_RECORD_SIZE;
constexpr uint32_t kDefaultWaitSeconds = 9;  // the library requester's wait
// A client that ignores the inspection request is not built on the helper;
// one that is answers well within this.
constexpr uint32_t kInspectMs = 2000;
// A dump never has more pages than topologies can fill.
constexpr uint32_t kMaxPages = 0x40000000u / GYRE_CACHE_DUMP_PAGE + 2;

void print_help()
{
    printf("usage: tarnctl dump-cache (--client HANDLE | --sap N | --pid P) [--verify]\n"
           "                          [--timeout S] [--json]\n"
           "\n"
           "Asks a client process for its Gyre cache, page by page: the one whose bus\n"
           "handle is HANDLE, that serves access point N, or whose process P holds a\n"
           "registered client handle (\"tarnctl show clients\" lists them all), and\n"
           "prints it as a table: topology, active VLANs, ftags, and \"Out of Sync!\" for a\n"
           "topology whose ftag or VLAN owner tables disagree with it.  The request goes\n"
           "to the access point that the handle serves: a handle is reached through its\n"
           "access point, so a client without one cannot be asked.\n"
           "\n"
           "With --verify it also reads every dumped topology's VLAN and ftag sets from\n"
           "the device's databases and lists each difference, and each topology that\n"
           "only one side has.  A client built on the host's client helper (\"tarnctl\n"
           "watch\" is one) is also asked what each of its queries answers: the owner\n"
           "of every VLAN and ftag, the unicast ftag and the ftag of every graph of\n"
           "every topology and VLAN, the VLAN sets, the VLANs of every ftag and the AS\n"
           "format; each answer is compared with the database path.  A difference\n"
           "that the library makes on purpose between its cache and database paths\n"
           "is shown as such and does not fail the check; any other DIVERGES.\n"
           "\n"
           "Each page is waited for at most S seconds (--timeout, default %u).  A client\n"
           "whose process has exited and one that does not answer (stopped, busy) are\n"
           "told apart.  With --json the dump (and the comparison) is one JSON document.\n"
           "\n"
           "Exit status: 0 printed (and, with --verify, nothing diverges), 1 the dump\n"
           "failed or a divergence was found, 2 usage error.\n",
           kDefaultWaitSeconds);
}

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// "1-3,7"; "--" for none, as the library's formatter writes it.
std::string ranges(const std::set<uint32_t> &s)
{
    return s.empty() ? "--" : ranges_text(s);
}

struct Dumped {
    std::set<uint32_t> vlans;
    std::set<uint32_t> ftags;
    bool in_sync = true;
};

// Fetches every page, as the requester does; "" or why it failed (with
// what to do about it).
std::string fetch(uint32_t requester, int32_t sap, uint32_t handle, uint32_t wait,
                  std::map<uint32_t, Dumped> *out, bool *caching)
{
    uint8_t req[kRequestSize];
    memset(req, 0, sizeof req);
    const uint16_t kind = 4;
    memcpy(req + 2, &kind, 2);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    memcpy(req + 4, &pid, 4);
    memcpy(req + 20, &kRequestSize, 4);
    uint32_t iteration = 1;
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    const bus_recv_opts_t ro = {1, 0, wait};
    const std::string who = "the client with bus handle " + std::to_string(handle) +
                            " (access point " + std::to_string(sap) + ")";
    *caching = true;
    for (uint32_t pages = 0; pages < kMaxPages; ++pages) {
        memcpy(req + 24, &iteration, 4);
        if (bus_send(requester, BUS_NODE_LOCAL, static_cast<uint32_t>(sap), kAttrChange, req,
                     sizeof req, nullptr, nullptr, &opts) != 0) {
            const int err = errno;
            if (err == ECONNREFUSED || err == ENOENT)
                return who + " is gone: its process has exited (" + strerror(err) +
                       "); give the handle that a running \"tarnctl watch\" prints";
            return "cannot send the request to " + who + ": " + strerror(err);
        }
        bus_msg_t *m = bus_recv(requester, &ro);
        if (m == nullptr) {
            const int err = errno;
            if (err == EAGAIN || err == ETIMEDOUT)
                return who + " did not answer within " + std::to_string(wait) +
                       " s: it is stopped or busy; resume it, or wait longer with --timeout";
            return "no answer from " + who + ": " + strerror(err);
        }
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
        if (p == nullptr || len < kHeader) {
            bus_drop(requester, m);
            return "an answer without a dump header";
        }
        const uint32_t status = load32(p);
        if (status == GYRE_CACHE_DUMP_NONE) {
            bus_drop(requester, m);
            *caching = false;
            return "";
        }
        uint32_t n = load32(p + 8);
        if (n > (len - kHeader) / kRecord)
            n = (len - kHeader) / kRecord;
        for (uint32_t i = 0; i < n; ++i) {
            const uint8_t *r = p + kHeader + kRecord * i;
            Dumped d;
            d.ftags = bitmap_set(r + 8, 1024);
            d.vlans = bitmap_set(r + 140, 4096);
            d.in_sync = load32(r + 652) != 0;
            (*out)[load32(r)] = d;
        }
        const uint32_t next = load32(p + 4);
        bus_drop(requester, m);
        if (status != GYRE_CACHE_DUMP_MORE)
            return "";
        iteration = next;
    }
    return "too many pages";
}

// The comparison with the databases, read through libtarn's Gyre queries
// with this process's cache off.  Returns the differences.
std::vector<json> verify(const std::map<uint32_t, Dumped> &dump)
{
    std::vector<json> diffs;
    auto diff = [&](uint32_t tpg, const std::string &what) {
        diffs.push_back({{"topology", tpg}, {"difference", what}});
    };
    const std::vector<uint32_t> walked = all_topologies();
    const std::set<uint32_t> in_db(walked.begin(), walked.end());
    for (const auto &d : dump) {
        const uint32_t tpg = d.first;
        if (!d.second.in_sync)
            diff(tpg, "the client's ftag or VLAN owner tables disagree with it (Out of Sync!)");
        if (in_db.count(tpg) == 0) {
            diff(tpg, "cached, but not in the database");
            continue;
        }
        gyre_vlan_bmp_t vlans;
        memset(&vlans, 0, sizeof vlans);
        vlans.len = GYRE_VLAN_BMP_BYTES;
        std::set<uint32_t> db_vlans;
        if (gyre_get_l2_tpg_act_vlans(tpg, &vlans))
            db_vlans = bitmap_set(vlans.bits, 4096);
        if (db_vlans != d.second.vlans)
            diff(tpg, "VLANs: cache " + ranges(d.second.vlans) + ", database " +
                          ranges(db_vlans));
        std::set<uint32_t> db_ftags;
        gyre_ftag_info_t f;
        memset(&f, 0, sizeof f);
        f.tpg_id = tpg;
        for (uint32_t more = gyre_get_l2_tpg_first_ftag(tpg, &f); more;
             more = gyre_get_l2_tpg_next_ftag(tpg, &f))
            db_ftags.insert(f.ftag);
        if (db_ftags != d.second.ftags)
            diff(tpg, "ftags: cache " + ranges(d.second.ftags) + ", database " +
                          ranges(db_ftags));
    }
    for (uint32_t tpg : in_db)
        if (dump.count(tpg) == 0)
            diff(tpg, "in the database, but not cached");
    return diffs;
}

// The requester's table (gyre_client_dbg_print_cache's layout).
void print_dump(const std::map<uint32_t, Dumped> &dump)
{
    const std::string rule(80, '-');
    printf("\t\tGYRE Cache Information\n%s\n\n", rule.c_str());
    printf("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List");
    printf("%s\n", rule.c_str());
    for (const auto &d : dump)
        printf("%-10lu %-36s %-20s %s\n", static_cast<unsigned long>(d.first),
               ranges(d.second.vlans).c_str(), ranges(d.second.ftags).c_str(),
               d.second.in_sync ? "" : "Out of Sync!");
}

// The change an apply committed and may not have announced (the record of
// tools/announce_journal.h); "" when none is owed.
std::string owed_announcement()
{
    const std::string uri = tarndev::device_db_uri(tarndev::kJournalDb);
    if (uri.empty())
        return "";
    const uint32_t st = kvs_open(uri.c_str(), 1, 0, 0, 0);
    if (st != 0 && st != KVS_ERR_ALREADY_OPEN)
        return "";
    const tarndev::Bytes key = tarndev::journal_key();
    kvs_datum_t k{key.data(), static_cast<uint32_t>(key.size())}, v{nullptr, 0};
    tarndev::Unannounced u;
    if (kvs_read(uri.c_str(), &k, &v) != 0 ||
        !tarndev::journal_decode(static_cast<const uint8_t *>(v.data), v.len, &u))
        return "";
    return u.what;
}

json dump_json(const std::map<uint32_t, Dumped> &dump)
{
    json list = json::array();
    for (const auto &d : dump)
        list.push_back({{"id", d.first},
                        {"active_vlans", ranges_text(d.second.vlans)},
                        {"active_vlans_list", d.second.vlans},
                        {"ftags", ranges_text(d.second.ftags)},
                        {"ftags_list", d.second.ftags},
                        {"in_sync", d.second.in_sync}});
    return list;
}

}  // namespace

int cmd_dump_cache(int argc, char **argv)
{
    ClientAddress address;
    uint64_t wait = kDefaultWaitSeconds;
    bool check = false;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            print_help();
            return kExitOk;
        }
        if (strcmp(a, "--verify") == 0) {
            check = true;
            continue;
        }
        if (strcmp(a, "--json") == 0)
            continue;
        if (strcmp(a, "--timeout") == 0 || strncmp(a, "--timeout=", 10) == 0) {
            const char *value = a[9] == '=' ? a + 10 : nullptr;
            if (value == nullptr) {
                if (i + 1 >= argc)
                    return usage_error(kDumpCache, "--timeout needs a value");
                value = argv[++i];
            }
            if (!parse_count(value, 3600, &wait))
                return usage_error(kDumpCache, "--timeout takes seconds from 1 to 3600");
            continue;
        }
        std::string error;
        const int matched = parse_client_address(argc, argv, &i, &address, &error);
        if (matched < 0)
            return usage_error(kDumpCache, error.c_str());
        if (matched == 0) {
            std::string msg = a[0] == '-' ? "unknown option \"" + std::string(a) + "\""
                                          : "unexpected argument \"" + std::string(a) + "\"";
            return usage_error(kDumpCache, msg.c_str());
        }
    }
    if (address.kind == ClientAddress::kNone)
        return usage_error(kDumpCache, "--client HANDLE, --sap N or --pid P is missing");
    if (!device_reachable("dump-cache"))
        return kExitFailed;

    int32_t sap = -1;
    uint32_t handle = BUS_HANDLE_NONE;
    const std::string unresolved = resolve_client(address, &sap, &handle);
    if (!unresolved.empty())
        return report("dump-cache", kExitFailed, unresolved);
    const uint32_t requester = bus_bind(4, -1, nullptr, "tarnctl dump-cache");
    if (requester == BUS_HANDLE_NONE)
        return reportf("dump-cache", kExitFailed,
                       "cannot bind a bus handle in %s/bus: %s; check that the directory is "
                       "yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(errno));
    std::map<uint32_t, Dumped> dump;
    bool caching = true;
    const std::string err =
        fetch(requester, sap, handle, static_cast<uint32_t>(wait), &dump, &caching);
    if (!err.empty()) {
        bus_unbind(requester);
        return report("dump-cache", kExitFailed, err);
    }
    const bool as_json = json_output();
    json doc = {{"handle", handle},
                {"access_point", sap},
                {"caching", caching},
                {"topologies", or_null(caching, dump_json(dump))},
                {"verify", nullptr}};
    if (!as_json) {
        if (caching)
            print_dump(dump);
        else
            printf("GYRE Caching not enabled\n");
    }
    int status = kExitOk;
    if (check) {
        if (!caching) {
            if (!as_json)
                printf("verify: the client's Gyre cache is off; nothing to compare\n");
            status = kExitFailed;
        } else if (!device_up("dump-cache")) {
            status = kExitFailed;
        } else if (tarn_api_init() != TARN_SUCCESS) {
            status = report_library_failure("dump-cache");
        } else {
            const std::vector<json> diffs = verify(dump);
            std::set<uint32_t> cached;
            for (const auto &d : dump)
                cached.insert(d.first);
            const VerifyCount answers = verify_answers(requester, sap, cached, kInspectMs);
            const size_t diverging = diffs.size() + answers.divergences;
            doc["verify"] = {{"differences", diffs},
                             {"answers", answers.helper ? answers_json(answers) : json(nullptr)},
                             {"agree", diverging == 0}};
            if (!as_json) {
                for (const json &d : diffs)
                    printf("verify: topology %lu: %s\n",
                           static_cast<unsigned long>(d["topology"].get<uint32_t>()),
                           escaped(d["difference"].get<std::string>()).c_str());
                print_answers(answers);
                if (!answers.helper)
                    printf("verify: the client does not answer the host's inspection request "
                           "(it is not built on the host's client helper): compared only what "
                           "the dump carries, each topology's VLAN and ftag sets; not compared: "
                           "owners, unicast ftags, ftags per graph, configured VLANs, the VLANs "
                           "of each ftag, the AS format\n");
                if (diverging == 0)
                    printf("verify: cache and database agree on %s",
                           counted(dump.size(), "topology", "topologies").c_str());
                else
                    printf("verify: %s", counted(diverging, "difference", "differences").c_str());
                if (answers.helper)
                    printf("; %s compared, %s as the library intends",
                           counted(answers.compared, "answer", "answers").c_str(),
                           counted(answers.intended, "difference", "differences").c_str());
                printf("\n");
            }
            status = diverging == 0 ? kExitOk : kExitFailed;
            // Agreement of the Gyre cache says nothing of notifications the
            // client never got (the AS format, say).
            uint32_t missed = 0;
            if (tarnhost_bus_missed(handle, &missed) != 0)
                missed = 0;
            doc["verify"]["missed"] = missed;
            if (missed != 0) {
                if (!as_json)
                    printf("verify: handle %u missed %s and has not caught up; what it "
                           "keeps from them may be stale\n",
                           handle, counted(missed, "notification", "notifications").c_str());
                status = kExitFailed;
            }
            // A change in the databases that no client has heard of yet
            // explains a divergence: say so, and how to send it.
            const std::string owed = owed_announcement();
            doc["verify"]["owed"] = or_null(!owed.empty(), owed);
            if (!owed.empty() && !as_json)
                printf("verify: an earlier apply ended before it could say it announced %s; "
                       "\"tarnctl apply\" with any change file (even {\"changes\": []}) "
                       "announces it first\n",
                       escaped(owed).c_str());
            gyre_api_close();
            tarn_api_close();
        }
    }
    if (as_json)
        print_json(doc);
    bus_unbind(requester);
    return status;
}

}  // namespace tarnctl
