// tarnctl apply FILE: play a change file (docs/device-format.md, "Change
// files") on the loaded device: each change is written to the databases in
// its own transaction and then announced with the notification that the
// Tarn or Gyre service sends for it.

#include <sys/file.h>
#include <errno.h>
#include <fcntl.h>
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

#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "tools/announce_journal.h"
#include "tools/device_records.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_apply.h"
#include "tools/tarnctl_apply_lock.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

const Command kApply = {
    "apply",
    "FILE [--wait SECONDS] [--json]",
    "apply a change file to the device and send its notifications",
    cmd_apply,
};

namespace {

using namespace tarndev;
using namespace apply;

constexpr uint32_t kReplyWaitMs = 2000;

bool read_file(const char *path, std::string *out, std::string *err)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *err = std::string("cannot read ") + path + ": " + strerror(errno);
        return false;
    }
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *err = std::string("cannot read ") + path + ": " + strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0)
            break;
        out->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

void print_help()
{
    printf("usage: tarnctl apply FILE [--wait SECONDS] [--json]\n"
           "\n"
           "Plays the change file FILE (JSON; docs/device-format.md, \"Change files\") on\n"
           "the device in $TARNHOST_ROOT, loaded before with \"tarnctl load\".  The whole\n"
           "file is checked against the device first; a file with any error is refused\n"
           "and nothing is written.  Then each change, in order, is written to the\n"
           "databases (one transaction for the change) and, once committed, announced to\n"
           "the subscribed clients with the notification that the Tarn or Gyre service\n"
           "sends for it (51208, 51210, 51214, 51215 or 51226).  One line per change says\n"
           "what was done; a cache dump request also lists the replies received.  With\n"
           "--json all of it is one JSON document at the end.  A device that was never\n"
           "loaded is refused.\n"
           "\n"
           "One apply runs at a time on a device.  Another one waits for it up to\n"
           "--wait SECONDS (default 60; 0 does not wait), saying after 2 s which process\n"
           "it waits for, and fails naming it when the time is up.\n"
           "\n"
           "Exit status: 0 applied, 1 refused or failed, 2 usage error.\n");
}

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

int cmd_apply(int argc, char **argv)
{
    const char *file = nullptr;
    unsigned wait_s = kApplyWaitDefault;
    const int wait_usage = take_wait_option(kApply, &argc, argv, &wait_s);
    if (wait_usage >= 0)
        return wait_usage;
    const int early = one_file_argument(kApply, argc, argv, print_help, &file);
    if (early >= 0)
        return early;

    auto refused = [&](const std::string &why) {
        return reportf("apply", kExitFailed,
                       "%s; nothing was written, correct %s and run \"tarnctl apply %s\" again",
                       why.c_str(), file, file);
    };
    std::string textv, err;
    if (!read_file(file, &textv, &err))
        return reportf("apply", kExitFailed, "%s; nothing was written", err.c_str());
    if (!device_up("apply"))
        return kExitFailed;
    const std::string tarn_uri = device_db_uri("tarn_global_kvs");
    const std::string gyre_uri = device_db_uri("gyre_kvs_info");
    const std::string journal_uri = device_db_uri(tarndev::kJournalDb);
    Fabric fab;
    ReadError rerr;
    if (tarn_uri.empty() || gyre_uri.empty() || journal_uri.empty())
        return reportf("apply", kExitFailed,
                       "the device in %s cannot be read (no databases); nothing was written, "
                       "load it again with \"tarnctl load FILE\"",
                       tarnhost_root());
    // One apply at a time per device: each plans its changes against the
    // device as it finds it, and two interleaved would both pass their
    // checks.  Held until the process ends.
    std::string lock_why;
    if (hold_apply_lock(wait_s, &lock_why) < 0)
        return reportf("apply", kExitFailed, "%s; nothing was written", lock_why.c_str());
    bool owed = false;
    tarndev::Unannounced unannounced;
    if (!read_fabric(tarn_uri, gyre_uri, &fab, &rerr) ||
        !read_unannounced(journal_uri, &owed, &unannounced, &rerr)) {
        const std::string remedy = store_remedy(rerr.status);
        return reportf("apply", kExitFailed,
                       "the device in %s cannot be read (%s); nothing was written%s%s",
                       tarnhost_root(), rerr.text.c_str(), remedy.empty() ? "" : ", ",
                       remedy.c_str());
    }
    std::vector<Change> changes;
    try {
        changes = parse_changes(textv, file);
        Fabric check = fab;
        for (Change &c : changes)
            play(&check, &c);
    } catch (const HeldAlready &h) {
        return reportf("apply", kExitFailed,
                       "%s; nothing was written: the device holds this change already (was %s "
                       "applied before?); to play %s from the start, load the device again with "
                       "\"tarnctl load FILE\" and then run \"tarnctl apply %s\"",
                       h.message.c_str(), file, file, file);
    } catch (const Refusal &r) {
        return refused(r.message);
    }

    setvbuf(stdout, nullptr, _IOLBF, 0);
    const uint32_t handle = bus_bind(0, -1, nullptr, "tarnctl apply");
    if (handle == BUS_HANDLE_NONE) {
        return reportf("apply", kExitFailed,
                       "cannot bind a bus handle in %s/bus: %s; nothing was written, check "
                       "that the directory is yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(errno));
    }
    int status = kExitOk;
    size_t done = 0;
    json applied = json::array();
    const bool as_json = json_output();
    json resumed = nullptr;
    if (owed) {
        // An earlier apply ended between a change's commit and its
        // notification: the clients hear of that change first.
        const size_t subscribers = tarnhost_bus_subscribers(unannounced.opcode, nullptr, 0);
        const int rc = tarnhost_bus_publish(handle, unannounced.opcode,
                                            unannounced.payload.data(),
                                            static_cast<uint32_t>(unannounced.payload.size()));
        resumed = {{"change", unannounced.what},
                   {"opcode", unannounced.opcode},
                   {"subscribers", subscribers},
                   {"delivered", rc == 0}};
        if (rc != 0) {
            bus_unbind(handle);
            return reportf("apply", kExitFailed,
                           "an earlier apply wrote a change and ended before announcing it "
                           "(%s), and its notification %u cannot be published now (%s); "
                           "nothing was written",
                           unannounced.what.c_str(), unannounced.opcode, strerror(rc));
        }
        const std::string cleared = clear_unannounced(journal_uri);
        if (!as_json)
            printf("announced the change that an earlier apply wrote and ended before it "
                   "could say it was announced (it may have been already): %s (%u to %s)\n",
                   escaped(unannounced.what).c_str(), unannounced.opcode,
                   counted(subscribers, "subscriber", "subscribers").c_str());
        if (!cleared.empty()) {
            bus_unbind(handle);
            return reportf("apply", kExitFailed,
                           "%s; the next apply announces that change again, nothing else was "
                           "written",
                           cleared.c_str());
        }
    }
    for (const Change &c : changes) {
        Txn tarn{tarn_uri, {}, {}};
        Txn gyre{gyre_uri, {}, {}};
        Txn journal{journal_uri, {}, {}};
        Planned p;
        try {
            p = plan(&fab, c, &tarn, &gyre);
        } catch (const Refusal &r) {
            err = r.message;
        }
        uint32_t st = 0;
        if (err.empty()) {
            tarndev::Unannounced owe;
            owe.opcode = p.opcode;
            owe.payload = p.payload;
            owe.what = c.path + ": " + p.what;
            journal.put(tarndev::journal_key(), tarndev::journal_value(owe));
            err = commit_change(tarn, gyre, journal, &st);
        }
        if (!err.empty()) {
            const std::string remedy = store_remedy(st);
            reportf("apply", kExitFailed,
                    "%s: %s; the changes before it were applied and announced, this one and "
                    "the later ones were not%s%s",
                    c.path.c_str(), err.c_str(), remedy.empty() ? "" : "; ", remedy.c_str());
            status = kExitFailed;
            break;
        }
        const size_t subscribers = tarnhost_bus_subscribers(p.opcode, nullptr, 0);
        std::vector<uint32_t> missed(subscribers + 1);
        size_t n_missed = 0;
        const int rc = tarnhost_bus_publish_counted(
            handle, p.opcode, p.payload.data(), static_cast<uint32_t>(p.payload.size()),
            missed.data(), missed.size(), &n_missed);
        if (!as_json)
            printf("%s: %s (%u to %s)\n", escaped(c.path).c_str(), escaped(p.what).c_str(), p.opcode,
                   counted(subscribers, "subscriber", "subscribers").c_str());
        json entry = {{"path", c.path},
                      {"change", p.what},
                      {"opcode", p.opcode},
                      {"subscribers", subscribers},
                      {"missed", json::array()},
                      {"replies", json::array()}};
        ++done;
        set_done(counted(done, "change", "changes") + " of " + escaped(file) +
                 (done == 1 ? " was" : " were") + " applied to the device in " +
                 escaped(tarnhost_root()) + " and announced");
        std::string cleared;
        if (rc == 0)
            cleared = clear_unannounced(journal_uri);
        if (!cleared.empty()) {
            applied.push_back(entry);
            reportf("apply", kExitFailed,
                    "%s: written and announced, but %s; the next apply announces it again, "
                    "the later changes were not applied",
                    c.path.c_str(), cleared.c_str());
            status = kExitFailed;
            break;
        }
        if (rc != 0) {
            applied.push_back(entry);
            reportf("apply", kExitFailed,
                    "%s: written, but the notification %u could not be published (%s); the "
                    "next apply announces it, the later changes were not applied",
                    c.path.c_str(), p.opcode, strerror(rc));
            status = kExitFailed;
            break;
        }
        // A subscriber that stopped taking messages misses this one; it can
        // tell (its miss count moved) and rebuild, and the others are not
        // held up for it.
        for (size_t i = 0; i < n_missed && i < missed.size(); ++i) {
            entry["missed"].push_back(missed[i]);
            if (!as_json)
                printf("  handle %u missed it (its queue stayed full)\n", missed[i]);
        }
        if (c.kind == Kind::DumpCache) {
            for (size_t i = 0; i < subscribers; ++i) {
                bus_msg_t *m = tarnhost_bus_recv_ms(handle, kReplyWaitMs);
                if (m == nullptr) {
                    if (!as_json)
                        printf("  %zu of %zu subscribers answered\n", i, subscribers);
                    break;
                }
                uint32_t len = 0;
                const uint8_t *r = static_cast<const uint8_t *>(bus_payload_get(m, &len));
                const bool header = r != nullptr && len >= GYRE_CACHE_DUMP_HEADER_SIZE;
                const bool none = header && load32(r) == GYRE_CACHE_DUMP_NONE;
                const uint32_t from = tarnhost_bus_sender_get(m);
                entry["replies"].push_back(
                    {{"handle", from},
                     {"bytes", len},
                     {"status", or_null(header, header ? load32(r) : 0u)},
                     {"next_iteration", or_null(header, none || !header ? 0u : load32(r + 4))},
                     {"records", or_null(header, none || !header ? 0u : load32(r + 8))}});
                if (as_json) {
                    // In the document at the end.
                } else if (header)
                    printf("  reply from handle %u: status %u, next iteration %u, %s\n", from,
                           load32(r), none ? 0u : load32(r + 4),
                           counted(none ? 0u : load32(r + 8), "record", "records").c_str());
                else
                    printf("  reply from handle %u: %u bytes, no dump header\n", from, len);
                bus_drop(handle, m);
            }
        }
        applied.push_back(entry);
    }
    bus_unbind(handle);
    if (as_json)
        print_json({{"file", file},
                    {"device", tarnhost_root()},
                    {"resumed", resumed},
                    {"changes", applied},
                    {"applied", done},
                    {"complete", status == kExitOk}});
    else if (status == kExitOk)
        printf("applied %s to %s\n", counted(done, "change", "changes").c_str(),
               escaped(tarnhost_root()).c_str());
    return status;
}

}  // namespace tarnctl

