// tarnctl dump-cache --client HANDLE [--verify]: fetch the Gyre cache of a
// client process page by page over the bus and print it; with --verify,
// compare it with the device's databases.

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
#include "tools/tarnctl.h"
#include "tools/tarnctl_clients.h"
#include "tools/tarnctl_verify.h"

namespace tarnctl {

const Command kDumpCache = {
    "dump-cache",
    "(--client HANDLE | --sap N | --pid P) [--verify]",
    "print a client's Gyre cache; --verify compares it with the databases",
    cmd_dump_cache,
};

namespace {

constexpr uint32_t kAttrChange = 51226;
constexpr uint32_t kRequestSize = 28;
constexpr uint32_t kHeader = GYRE_CACHE_DUMP_HEADER_SIZE;
constexpr uint32_t kRecord = GYRE_CACHE_DUMP_RECORD_SIZE;
constexpr uint32_t kWaitSeconds = 9;
// A client that ignores the inspection request is not built on the helper;
// one that is answers well within this.
constexpr uint32_t kInspectMs = 2000;
// A dump never has more pages than topologies can fill.
constexpr uint32_t kMaxPages = 0x40000000u / GYRE_CACHE_DUMP_PAGE + 2;

void print_help()
{
    printf("usage: tarnctl dump-cache (--client HANDLE | --sap N | --pid P) [--verify]\n"
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
           "Exit status: 0 printed (and, with --verify, nothing diverges), 1 the dump\n"
           "failed or a divergence was found, 2 usage error.\n");
}

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

std::set<uint32_t> bits(const uint8_t *p, uint32_t n)
{
    std::set<uint32_t> s;
    for (uint32_t i = 0; i < n; ++i)
        if ((p[i / 8] & (0x80u >> (i % 8))) != 0)
            s.insert(i);
    return s;
}

// "1-3,7"; "--" for none.
std::string ranges(const std::set<uint32_t> &s)
{
    if (s.empty())
        return "--";
    std::string out;
    for (auto it = s.begin(); it != s.end();) {
        uint32_t lo = *it, hi = lo;
        ++it;
        while (it != s.end() && *it == hi + 1)
            hi = *it++;
        if (!out.empty())
            out += ",";
        out += std::to_string(lo);
        if (hi != lo)
            out += "-" + std::to_string(hi);
    }
    return out;
}

struct Dumped {
    std::set<uint32_t> vlans;
    std::set<uint32_t> ftags;
    bool in_sync = true;
};

// Fetches every page, as the requester does; "" or why it failed.
std::string fetch(uint32_t requester, int32_t sap, std::map<uint32_t, Dumped> *out,
                  bool *caching)
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
    const bus_recv_opts_t ro = {1, 0, kWaitSeconds};
    *caching = true;
    for (uint32_t pages = 0; pages < kMaxPages; ++pages) {
        memcpy(req + 24, &iteration, 4);
        if (bus_send(requester, BUS_NODE_LOCAL, static_cast<uint32_t>(sap), kAttrChange, req,
                     sizeof req, nullptr, nullptr, &opts) != 0)
            return std::string("cannot send the request: ") + strerror(errno);
        bus_msg_t *m = bus_recv(requester, &ro);
        if (m == nullptr)
            return std::string("no answer: ") + strerror(errno);
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
            d.ftags = bits(r + 8, 1024);
            d.vlans = bits(r + 140, 4096);
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
// with this process's cache off.  Returns the number of differences.
size_t verify(const std::map<uint32_t, Dumped> &dump)
{
    size_t diffs = 0;
    auto diff = [&](uint32_t tpg, const std::string &what) {
        printf("verify: topology %lu: %s\n", static_cast<unsigned long>(tpg), what.c_str());
        ++diffs;
    };
    std::set<uint32_t> in_db;
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t t = gyre_get_first_l2_tpg(&info); t != GYRE_TPG_NONE && t != 0;
         t = gyre_get_next_l2_tpg(&info))
        in_db.insert(t);
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
            db_vlans = bits(vlans.bits, 4096);
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

// Runs the library's requester with standard output going to a file, then
// copies what it printed, ending it with a newline when it has none.
uint32_t print_dump(uint32_t requester, int32_t sap)
{
    fflush(stdout);
    FILE *tmp = tmpfile();
    int saved = -1;
    if (tmp != nullptr) {
        saved = dup(STDOUT_FILENO);
        if (saved < 0 || dup2(fileno(tmp), STDOUT_FILENO) < 0) {
            if (saved >= 0)
                close(saved);
            saved = -1;
        }
    }
    const uint32_t rc =
        gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, static_cast<uint32_t>(sap));
    fflush(stdout);
    if (saved >= 0) {
        dup2(saved, STDOUT_FILENO);
        close(saved);
        rewind(tmp);
        char buf[8192];
        size_t n;
        char last = '\n';
        while ((n = fread(buf, 1, sizeof buf, tmp)) > 0) {
            fwrite(buf, 1, n, stdout);
            last = buf[n - 1];
        }
        if (last != '\n')
            fputc('\n', stdout);
        fflush(stdout);
    }
    if (tmp != nullptr)
        fclose(tmp);
    return rc;
}

}  // namespace

int cmd_dump_cache(int argc, char **argv)
{
    ClientAddress address;
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

    int32_t sap = -1;
    uint32_t handle = BUS_HANDLE_NONE;
    const std::string unresolved = resolve_client(address, &sap, &handle);
    if (!unresolved.empty()) {
        fprintf(stderr, "tarnctl dump-cache: %s\n", unresolved.c_str());
        return kExitFailed;
    }
    const uint32_t requester = bus_bind(4, -1, nullptr, "tarnctl dump-cache");
    if (requester == BUS_HANDLE_NONE) {
        fprintf(stderr, "tarnctl dump-cache: cannot bind a bus handle in %s/bus (%s)\n",
                tarnhost_root(), tarnhost_root_strerror(errno));
        return kExitFailed;
    }
    const uint32_t rc = print_dump(requester, sap);
    if (rc != 0) {
        bus_unbind(requester);
        fprintf(stderr, "tarnctl dump-cache: the dump from handle %u failed (%u)\n", handle, rc);
        return kExitFailed;
    }
    int status = kExitOk;
    if (check) {
        std::map<uint32_t, Dumped> dump;
        bool caching = true;
        const std::string err = fetch(requester, sap, &dump, &caching);
        if (!err.empty()) {
            fprintf(stderr, "tarnctl dump-cache: the dump from handle %u failed: %s\n", handle,
                    err.c_str());
            status = kExitFailed;
        } else if (!caching) {
            printf("verify: the client's Gyre cache is off; nothing to compare\n");
            status = kExitFailed;
        } else if (tarn_api_init() != TARN_SUCCESS) {
            fprintf(stderr,
                    "tarnctl dump-cache: libtarn cannot read the device in %s; see "
                    "%s/log/messages\n",
                    tarnhost_root(), tarnhost_root());
            status = kExitFailed;
        } else {
            size_t diffs = verify(dump);
            std::set<uint32_t> cached;
            for (const auto &d : dump)
                cached.insert(d.first);
            const VerifyCount answers = verify_answers(requester, sap, cached, kInspectMs);
            diffs += answers.divergences;
            if (!answers.helper)
                printf("verify: the client does not answer the host's inspection request "
                       "(it is not built on the host's client helper): compared only what "
                       "the dump carries, each topology's VLAN and ftag sets; not compared: "
                       "owners, unicast ftags, ftags per graph, configured VLANs, the VLANs "
                       "of each ftag, the AS format\n");
            if (diffs == 0)
                printf("verify: cache and database agree on %zu topologies", dump.size());
            else
                printf("verify: %zu differences", diffs);
            if (answers.helper)
                printf("; %zu answers compared, %zu differences as the library intends",
                       answers.compared, answers.intended);
            printf("\n");
            status = diffs == 0 ? kExitOk : kExitFailed;
            // Agreement of the Gyre cache says nothing of notifications the
            // client never got (the AS format, say).
            uint32_t missed = 0;
            if (tarnhost_bus_missed(handle, &missed) == 0 && missed != 0) {
                printf("verify: handle %u missed %u notifications and has not caught up; "
                       "what it keeps from them may be stale\n",
                       handle, missed);
                status = kExitFailed;
            }
            gyre_api_close();
            tarn_api_close();
        }
    }
    bus_unbind(requester);
    return status;
}

}  // namespace tarnctl
