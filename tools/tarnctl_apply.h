// What "tarnctl apply" works with: the fabric as the device's databases
// hold it, the changes of a change file checked against it, and the writes
// and notification that carry out each change.
#ifndef TARN_TOOLS_TARNCTL_APPLY_H
#define TARN_TOOLS_TARNCTL_APPLY_H

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/tarnhost.h"
#include "platform/bus.h"
#include "tools/announce_journal.h"
#include "tools/device_records.h"

namespace tarnctl {
namespace apply {

using tarndev::Bytes;
using tarndev::json;
using tarndev::VlanSet;

// The notifications and the layout of their payloads.
constexpr uint32_t kOpcTpgCreate = BUS_OPC_GYRE_TPG_CREATE;
constexpr uint32_t kOpcTpgDelete = BUS_OPC_GYRE_TPG_DELETE;
constexpr uint32_t kOpcTpgVlans = BUS_OPC_GYRE_TPG_VLANS;
constexpr uint32_t kOpcFtags = BUS_OPC_GYRE_FTAG_UPDATE;
constexpr uint32_t kOpcAttrChange = 51226;
constexpr uint32_t kTpgVlanRecord = 556;
constexpr uint32_t kFtagEntry = 1048;
constexpr uint32_t kAttrSize = 28;
constexpr uint32_t kAttrFtagsSize = 164;
// Records one message can carry.
constexpr uint32_t kMaxVlanRecords = (BUS_MAX_PAYLOAD - 24) / kTpgVlanRecord;
constexpr uint32_t kMaxFtagEntries = (BUS_MAX_PAYLOAD - 4) / kFtagEntry;

// ---- the device as the databases hold it -------------------------------------

struct FtagFact {
    uint32_t tpg = 0;
    uint32_t graph = 0;
    uint32_t flags = 0;
};

struct TopologyFact {
    std::set<uint32_t> active;
    std::set<uint32_t> configured;
};

struct Fabric {
    std::map<uint32_t, TopologyFact> topologies;
    std::map<uint32_t, FtagFact> ftags;  // by ftag
    std::map<uint32_t, uint32_t> vlan_owner;

    std::set<uint32_t> ftags_of(uint32_t tpg) const
    {
        std::set<uint32_t> s;
        for (const auto &f : ftags)
            if (f.second.tpg == tpg)
                s.insert(f.first);
        return s;
    }
};

// What kept the device from being read.
struct ReadError {
    std::string text;
    uint32_t status = 0;
};

bool read_fabric(const std::string &tarn_uri, const std::string &gyre_uri, Fabric *fab,
                 ReadError *err);
// The announcement an earlier apply committed and did not publish; false
// when the journal cannot be read.
bool read_unannounced(const std::string &uri, bool *found, tarndev::Unannounced *u,
                      ReadError *err);

// ---- the change file -----------------------------------------------------------

enum class Kind {
    CreateTopology,
    DeleteTopology,
    TopologyVlans,
    Ftags,
    AsFormat,
    DeleteTopologyFtags,
    DeleteCache,
    DumpCache,
};

struct VlanRecord {
    uint32_t tpg = 0;
    VlanSet active;
    VlanSet configured;
};

struct FtagEntry {
    uint32_t reason = 0;
    uint32_t tpg = 0;
    uint32_t ftag = 0;
    uint32_t graph = 0;
    uint32_t flags = 0;
};

struct Change {
    Kind kind = Kind::DeleteCache;
    std::string path;
    uint32_t tpg = 0;
    uint32_t value = 0;  // AS format, dump iteration
    std::vector<VlanRecord> records;
    std::vector<FtagEntry> entries;
};

// A refusal because the device holds the change already: what it creates
// exists as it would make it (the file was applied before, most likely).
struct HeldAlready : tarndev::Refusal {};

// The changes of a change file's text; throws tarndev::Refusal.
std::vector<Change> parse_changes(const std::string &textv, const std::string &source);
// Checks one change against the fabric as the earlier changes left it, and
// carries it out on `fab`.  Delete entries without a topology get their
// owner filled in.  Throws HeldAlready or tarndev::Refusal.
void play(Fabric *fab, Change *c);
std::string topo_text(uint32_t tpg);

// ---- writing ---------------------------------------------------------------------

// The writes of one database: puts and deletes (an absent key is no error
// for a delete).
struct Txn {
    std::string uri;
    std::vector<std::pair<Bytes, Bytes>> puts;
    std::vector<Bytes> dels;

    bool empty() const { return puts.empty() && dels.empty(); }
    void put(Bytes k, Bytes v) { puts.emplace_back(std::move(k), std::move(v)); }
    void del(Bytes k) { dels.push_back(std::move(k)); }
    uint32_t write(tarnhost_kvs_txn_t *txn) const;
};

// Writes one change to both databases in one transaction, so that no
// reader sees its Tarn half without its Gyre half, with the journal's
// record of the announcement it owes.  "" or what failed,
// with the store's status in *status.
std::string commit_change(const Txn &tarn, const Txn &gyre, const Txn &journal,
                          uint32_t *status);
// Deletes the journal's record once its notification is out.  "" or what
// failed.
std::string clear_unannounced(const std::string &journal_uri);

struct Planned {
    std::string what;
    uint32_t opcode = 0;
    Bytes payload;
};

// The writes and the notification of `c` on the fabric before it (`fab`,
// which is then advanced past it).
Planned plan(Fabric *fab, const Change &c, Txn *tarn, Txn *gyre);

}  // namespace apply
}  // namespace tarnctl

#endif
