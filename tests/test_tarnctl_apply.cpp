// tarnctl apply: refused change files write nothing and send nothing; each
// change writes its records and then sends exactly its notification;
// tarnctl dump-cache prints a client's cache and verifies it.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <signal.h>

#include <random>

#include <nlohmann/json.hpp>

#include "platform/kvs.h"
#include "support/json_schema.h"
#include "support/tarnctl_process.h"
#include "test_gyre_lifecycle_support.h"
#include "tools/announce_journal.h"
#include "tools/device_records.h"

using namespace lifecycle;

namespace {

using json = nlohmann::json;

constexpr int32_t kSap = 4713;

const char kDevice[] =
    "{\"topologies\": ["
    " {\"id\": 10, \"active_vlans\": \"100-109\", \"configured_vlans\": \"100-199\","
    "  \"ftags\": [{\"ftag\": 1, \"graph\": 1}, {\"ftag\": 2, \"graph\": 2, \"flags\": 6}]},"
    " {\"id\": 20, \"active_vlans\": \"200-201\", \"ftags\": [{\"ftag\": 17, \"graph\": 1}]}]}";

const std::string kGyreUri = "volatile:/tarnhost/running/gyre_kvs_info";
const std::string kTarnUri = "volatile:/tarnhost/running/tarn_global_kvs";
const std::string kJournalUri = "volatile:/tarnhost/running/tarnctl_unannounced";

bool has_key(const std::string &uri, const tarndev::Bytes &key, tarndev::Bytes *value = nullptr)
{
    kvs_open(uri.c_str(), 1, 0, 0, 0);
    kvs_datum_t k{key.data(), static_cast<uint32_t>(key.size())}, v{nullptr, 0};
    if (kvs_read(uri.c_str(), &k, &v) != 0)
        return false;
    if (value != nullptr) {
        const uint8_t *p = static_cast<const uint8_t *>(v.data);
        value->assign(p, p + v.len);
    }
    return true;
}

// Everything both databases hold, as text: to see that nothing changed.
std::string contents(const std::string &uri)
{
    kvs_open(uri.c_str(), 1, 0, 0, 0);
    std::string s;
    kvs_datum_t k, v;
    if (kvs_iterator_init(uri.c_str(), nullptr, 1) != 0)
        return s;
    for (uint32_t rc = kvs_getkey(uri.c_str(), &k, &v); rc == 0;
         rc = kvs_getnext(uri.c_str(), &k, &v)) {
        s.append(static_cast<const char *>(k.data), k.len);
        s += "=";
        s.append(static_cast<const char *>(v.data), v.len);
        s += ";";
    }
    return s;
}

class TarnctlApply : public LifecycleTest {
protected:
    void SetUp() override
    {
        LifecycleTest::SetUp();
        tarntest::load_device_json(kDevice);
        file_ = std::string(tarnhost_root()) + "/changes.json";
        sub_ = bus_bind(4, -1, nullptr, "apply subscriber");
        ASSERT_NE(BUS_HANDLE_NONE, sub_);
        for (uint32_t opc : {51208u, 51210u, 51214u, 51215u, 51226u})
            ASSERT_EQ(0, tarnhost_bus_subscribe(sub_, opc, 1));
    }
    void TearDown() override
    {
        bus_unbind(sub_);
        LifecycleTest::TearDown();
    }
    ToolRun apply(const std::string &json)
    {
        write_file(file_, json);
        return tarnctl("apply " + file_);
    }
    // The next notification: its opcode and payload; opcode 0 for none.
    std::pair<uint32_t, Bytes> next(uint32_t ms = 2000)
    {
        bus_msg_t *m = tarnhost_bus_recv_ms(sub_, ms);
        if (m == nullptr)
            return {0, {}};
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
        std::pair<uint32_t, Bytes> out{bus_opc_get(m), p ? Bytes(p, p + len) : Bytes{}};
        bus_drop(sub_, m);
        return out;
    }
    std::string refusal(const std::string &why)
    {
        return "tarnctl apply: " + why + "; nothing was written, correct " + file_ +
               " and run \"tarnctl apply " + file_ + "\" again\n";
    }
    std::string file_;
    uint32_t sub_ = BUS_HANDLE_NONE;
};

TEST_F(TarnctlApply, RefusedFilesWriteAndSendNothing)
{
    const std::string tarn_before = contents(kTarnUri), gyre_before = contents(kGyreUri);
    const std::pair<std::string, std::string> cases[] = {
        {"[]", "(top level): expected an object"},
        {"{}", "changes: required key missing"},
        {"{\"changes\": [{\"change\": \"grow\"}]}",
         "changes[0].change: unknown change \"grow\" (create_topology, delete_topology, "
         "topology_vlans, ftags, as_format, delete_topology_ftags, delete_cache, dump_cache)"},
        {"{\"changes\": [{\"change\": \"create_topology\", \"topology\": 10}]}",
         "changes[0].topology: topology 10 exists already"},
        {"{\"changes\": [{\"change\": \"create_topology\", \"topology\": 1073741824}]}",
         "changes[0].topology: 1073741824 is out of range 1..1073741823"},
        {"{\"changes\": [{\"change\": \"delete_topology\", \"topology\": 11}]}",
         "changes[0].topology: topology 11 does not exist"},
        {"{\"changes\": [{\"change\": \"create_topology\", \"topology\": 30, \"x\": 1}]}",
         "changes[0].x: unknown key"},
        // A valid change first: it is not written either.
        {"{\"changes\": [{\"change\": \"create_topology\", \"topology\": 30},"
         " {\"change\": \"topology_vlans\", \"topologies\": [{\"topology\": 30, \"active_vlans\": \"99-100\"}]}]}",
         "changes[1].topologies[0].active_vlans: VLAN 100 is active in topology 10, which this "
         "change does not list"},
        {"{\"changes\": [{\"change\": \"topology_vlans\", \"topologies\": ["
         "{\"topology\": 10, \"active_vlans\": \"5\"}, {\"topology\": 20, \"active_vlans\": \"5\"}]}]}",
         "changes[0].topologies[1].active_vlans: VLAN 5 is also given by "
         "changes[0].topologies[0].active_vlans"},
        {"{\"changes\": [{\"change\": \"topology_vlans\", \"topologies\": ["
         "{\"topology\": 10, \"active_vlans\": \"5-3\"}]}]}",
         "changes[0].topologies[0].active_vlans: bad VLAN list \"5-3\": range 5-3 runs backwards"},
        {"{\"changes\": [{\"change\": \"ftags\", \"ftags\": [{\"reason\": \"create\", \"topology\": 20,"
         " \"ftag\": 2, \"graph\": 3}]}]}",
         "changes[0].ftags[0].ftag: ftag 2 is in use by topology 10"},
        {"{\"changes\": [{\"change\": \"ftags\", \"ftags\": [{\"reason\": \"update\", \"topology\": 20,"
         " \"ftag\": 2, \"graph\": 3}]}]}",
         "changes[0].ftags[0].topology: ftag 2 belongs to topology 10"},
        {"{\"changes\": [{\"change\": \"ftags\", \"ftags\": [{\"reason\": \"create\", \"topology\": 10,"
         " \"ftag\": 3, \"graph\": 2, \"flags\": 6}]}]}",
         "changes[0].ftags[0].graph: graph 2 with flags 6 is already used by ftag 2 of topology 10"},
        {"{\"changes\": [{\"change\": \"ftags\", \"ftags\": [{\"reason\": \"delete\", \"ftag\": 3}]}]}",
         "changes[0].ftags[0].ftag: ftag 3 does not exist"},
        {"{\"changes\": [{\"change\": \"ftags\", \"ftags\": [{\"reason\": \"move\", \"ftag\": 3}]}]}",
         "changes[0].ftags[0].reason: expected \"create\", \"update\" or \"delete\", not \"move\""},
        {"{\"changes\": [{\"change\": \"dump_cache\", \"iteration\": 0}]}",
         "changes[0].iteration: 0 is out of range 1..4294967295"},
        // A number no double holds, wherever it stands.
        {"{\"changes\": [{\"change\": \"as_format\", \"format\": 1e400}]}",
         "changes[0].format: the number 1e400 is out of range"},
        {"{\"_comment\": -1e400, \"changes\": []}", "_comment: the number -1e400 is out of range"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        const ToolRun r = apply(c.first);
        EXPECT_EQ(1, r.status);
        EXPECT_EQ("", r.out);
        EXPECT_EQ(refusal(c.second), r.err);
    }
    write_file(file_, "{\"changes\": [");
    const ToolRun bad = tarnctl("apply " + file_);
    EXPECT_EQ(1, bad.status);
    EXPECT_EQ(0u, bad.err.find("tarnctl apply: " + file_ + ": not valid JSON: ")) << bad.err;
    EXPECT_EQ(tarn_before, contents(kTarnUri));
    EXPECT_EQ(gyre_before, contents(kGyreUri));
    EXPECT_EQ(0u, next(200).first) << "no notification";
    EXPECT_EQ(2, tarnctl("apply").status);
    EXPECT_EQ(2, tarnctl("apply --bogus x").status);
}

TEST_F(TarnctlApply, EachChangeWritesItsRecordsAndSendsItsNotification)
{
    const ToolRun r = apply(
        "{\"changes\": ["
        " {\"change\": \"create_topology\", \"topology\": 30},"
        " {\"change\": \"topology_vlans\", \"topologies\": ["
        "   {\"topology\": 10, \"active_vlans\": \"100-104\"},"
        "   {\"topology\": 30, \"active_vlans\": \"105-106\", \"configured_vlans\": \"105-120\"}]},"
        " {\"change\": \"ftags\", \"ftags\": ["
        "   {\"reason\": \"create\", \"topology\": 30, \"ftag\": 300, \"graph\": 1},"
        "   {\"reason\": \"update\", \"topology\": 10, \"ftag\": 2, \"graph\": 4, \"flags\": 2},"
        "   {\"reason\": \"delete\", \"ftag\": 17}]},"
        " {\"change\": \"as_format\", \"format\": 2},"
        " {\"change\": \"delete_topology_ftags\", \"topology\": 10},"
        " {\"change\": \"delete_topology\", \"topology\": 20},"
        " {\"change\": \"delete_cache\"},"
        " {\"change\": \"dump_cache\", \"iteration\": 3}]}");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("changes[0]: topology 30 created (51208 to 1 subscriber)\n"
              "changes[1]: VLANs of topology 10, topology 30 set (51214 to 1 subscriber)\n"
              "changes[2]: ftags: 1 created, 1 updated, 1 deleted (51215 to 1 subscriber)\n"
              "changes[3]: AS format 2 (51226 to 1 subscriber)\n"
              "changes[4]: the 2 ftags of topology 10 deleted (51226 to 1 subscriber)\n"
              "changes[5]: topology 20 deleted (51210 to 1 subscriber)\n"
              "changes[6]: cache delete requested (51226 to 1 subscriber)\n"
              "changes[7]: cache dump requested (iteration 3) (51226 to 1 subscriber)\n"
              "  0 of 1 subscribers answered\n"
              "applied 8 changes to " + std::string(tarnhost_root()) + "\n",
              r.out);

    auto n = next();
    ASSERT_EQ(51208u, n.first);
    Bytes create(24, 0);
    put32(create, 20, 30);
    EXPECT_EQ(create, n.second);

    n = next();
    ASSERT_EQ(51214u, n.first);
    ASSERT_EQ(24u + 2 * 556, n.second.size());
    EXPECT_EQ(2u, get32(n.second.data(), 20));
    const uint8_t *r0 = n.second.data() + 24, *r1 = r0 + 556;
    EXPECT_EQ(10u, get32(r0, 0));
    EXPECT_EQ(std::string("10"), std::string(reinterpret_cast<const char *>(r0 + 4)));
    EXPECT_EQ(512u, get32(r0, 40));
    EXPECT_EQ("100-104", ranges(r0 + 44, 4096));
    EXPECT_EQ(30u, get32(r1, 0));
    EXPECT_EQ("105-106", ranges(r1 + 44, 4096));

    n = next();
    ASSERT_EQ(51215u, n.first);
    ASSERT_EQ(4u + 3 * 1048, n.second.size());
    EXPECT_EQ(3u, get32(n.second.data(), 0));
    const uint32_t want[3][5] = {{1, 30, 1, 300, 0x10}, {2, 10, 4, 2, 2}, {3, 20, 1, 17, 0x10}};
    for (int i = 0; i < 3; ++i) {
        const uint8_t *e = n.second.data() + 4 + 1048 * i;
        uint16_t g, f;
        memcpy(&g, e + 8, 2);
        memcpy(&f, e + 10, 2);
        EXPECT_EQ(want[i][0], get32(e, 0));
        EXPECT_EQ(want[i][1], get32(e, 4));
        EXPECT_EQ(want[i][2], g);
        EXPECT_EQ(want[i][3], f);
        EXPECT_EQ(want[i][4], get32(e, 12));
        EXPECT_EQ(Bytes(1048 - 16, 0), Bytes(e + 16, e + 1048));
    }

    n = next();
    ASSERT_EQ(51226u, n.first);
    Bytes as(28, 0);
    put16(as, 2, 1);
    put32(as, 20, 28);
    put32(as, 24, 2);
    EXPECT_EQ(as, n.second);

    n = next();
    ASSERT_EQ(51226u, n.first);
    Bytes k2(164, 0);
    put16(k2, 2, 2);
    put32(k2, 20, 164);
    put32(k2, 28, 10);
    put32(k2, 32, 128);
    k2[36] = 0x40 | 0x20;  // ftags 1 and 2
    EXPECT_EQ(k2, n.second);

    n = next();
    ASSERT_EQ(51210u, n.first);
    Bytes del(24, 0);
    put32(del, 20, 20);
    EXPECT_EQ(del, n.second);

    n = next();
    ASSERT_EQ(51226u, n.first);
    Bytes k3(28, 0);
    put16(k3, 2, 3);
    put32(k3, 20, 28);
    EXPECT_EQ(k3, n.second);

    n = next();
    ASSERT_EQ(51226u, n.first);
    ASSERT_EQ(28u, n.second.size());
    EXPECT_EQ(4u, n.second[2]);
    EXPECT_EQ(3u, get32(n.second.data(), 24));
    EXPECT_EQ(0u, next(200).first);

    // The databases, through the library's own queries.
    ASSERT_EQ(1u, tarn_api_init());
    gyre_vlan_bmp_t v;
    memset(&v, 0, sizeof v);
    ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans(30, &v));
    EXPECT_EQ("105-106", ranges(v.bits, 4096));
    ASSERT_EQ(1u, gyre_get_l2_tpg_cfg_vlans_by_name("30", &v));
    EXPECT_EQ("105-120", ranges(v.bits, 4096));
    ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans(10, &v));
    EXPECT_EQ("100-104", ranges(v.bits, 4096));
    ASSERT_EQ(1u, gyre_get_l2_tpg_cfg_vlans_by_name("10", &v));
    EXPECT_EQ("100-199", ranges(v.bits, 4096)) << "configured VLANs not given: kept";
    EXPECT_EQ(30u, gyre_get_vlan_l2_tpg(105));
    EXPECT_EQ(10u, gyre_get_vlan_l2_tpg(104));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(107));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(200)) << "topology 20 deleted";
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans(20, &v));
    EXPECT_EQ(30u, gyre_get_ftag_l2_tpg(300));
    uint16_t f = 0;
    EXPECT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(30, &f));
    EXPECT_EQ(300u, f);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1)) << "topology 10's ftags deleted";
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(2));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(17));
    gyre_api_close();
    tarn_api_close();
    tarndev::Bytes as_value;
    ASSERT_TRUE(has_key(kTarnUri, tarndev::tarn_key_as_format(), &as_value));
    EXPECT_EQ(tarndev::as_format_value(2), as_value);
    EXPECT_FALSE(has_key(kGyreUri, tarndev::gyre_key_tpg_ftag(10 | 0xC0000000u, 2, 0x06)));
    EXPECT_FALSE(has_key(kGyreUri, tarndev::gyre_key_tpg_ftag(10 | 0xC0000000u, 4, 0x02)));
    EXPECT_TRUE(has_key(kTarnUri, tarndev::tarn_key_topology(30)));
    EXPECT_FALSE(has_key(kTarnUri, tarndev::tarn_key_topology(20)));
    kvs_close(kTarnUri.c_str());
    kvs_close(kGyreUri.c_str());
    ASSERT_EQ(1u, tarn_api_init());
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    std::vector<uint32_t> tpgs;
    for (uint32_t t = gyre_get_first_l2_tpg(&info); t != GYRE_TPG_NONE && t != 0;
         t = gyre_get_next_l2_tpg(&info))
        tpgs.push_back(t);
    EXPECT_EQ((std::vector<uint32_t>{10, 30}), tpgs);
    gyre_api_close();
    tarn_api_close();
}

// Each notification is sent after its change is committed: a subscriber
// that looks at the databases when a notification arrives sees the change.
// The walk that reads the device before the changes gives its snapshot
// back, so a long run of changes reuses the store's pages.
TEST_F(TarnctlApply, TwoAppliesAtOnceTakeTurns)
{
    // Both plan against the device as they find it: the one that runs
    // second finds the topology there already and writes nothing.
    write_file(file_, "{\"changes\": [{\"change\": \"create_topology\", \"topology\": 30}]}");
    const std::string dir = tarnhost_root();
    pid_t pids[2];
    for (int i = 0; i < 2; ++i)
        pids[i] = tarntest::spawn_tarnctl(TARNCTL_PATH, {"apply", file_}, {},
                                          dir + "/apply" + std::to_string(i) + ".out",
                                          dir + "/apply" + std::to_string(i) + ".err");
    int ok = 0, refused = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_GT(pids[i], 0);
        int status = 0;
        ASSERT_EQ(pids[i], waitpid(pids[i], &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
        const std::string err = slurp(dir + "/apply" + std::to_string(i) + ".err");
        if (WEXITSTATUS(status) == 0) {
            ++ok;
            EXPECT_EQ("", err);
        } else {
            ++refused;
            EXPECT_EQ(1, WEXITSTATUS(status));
            EXPECT_EQ(refusal("changes[0].topology: topology 30 exists already"), err);
        }
    }
    EXPECT_EQ(1, ok);
    EXPECT_EQ(1, refused);
    EXPECT_EQ(51208u, next().first);
    EXPECT_EQ(0u, next(200).first);
}

TEST_F(TarnctlApply, ThirtyThousandChangesOnAnIdleDevice)
{
    bus_unbind(sub_);  // nobody to wake 30 000 times
    sub_ = BUS_HANDLE_NONE;
    std::string json = "{\"changes\": [";
    for (int i = 0; i < 30000; ++i)
        json += std::string(i ? "," : "") + "{\"change\": \"as_format\", \"format\": " +
                std::to_string(i) + "}";
    json += "]}";
    const ToolRun r = apply(json);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_NE(std::string::npos, r.out.find("applied 30000 changes")) << r.out.substr(0, 200);
    struct stat st;
    ASSERT_EQ(0, stat((std::string(tarnhost_root()) + "/kvs/env/data.mdb").c_str(), &st));
    EXPECT_LT(st.st_size, 1 << 20);
    printf("store after 30000 changes: %ld bytes\n", static_cast<long>(st.st_size));
}

TEST_F(TarnctlApply, AStoreThatCannotBeReadIsNamedWithItsRemedy)
{
    const std::string data = std::string(tarnhost_root()) + "/kvs/env/data.mdb";
    ASSERT_EQ(0, truncate(data.c_str(), 4096));
    const ToolRun r = apply("{\"changes\": [{\"change\": \"as_format\", \"format\": 1}]}");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl apply: the store of the device in " + std::string(tarnhost_root()) +
                  " is damaged; rebuild it with \"tarnctl load FILE\"\n",
              r.err);
}

TEST_F(TarnctlApply, NotificationsFollowTheirCommits)
{
    std::string seen;
    std::thread watcher([&] {
        for (int i = 0; i < 3; ++i) {
            auto n = next(10000);
            if (n.first == 51208)
                seen += has_key(kTarnUri, tarndev::tarn_key_topology(40)) ? "tpg " : "NO-tpg ";
            else if (n.first == 51214)
                seen += has_key(kGyreUri, tarndev::gyre_key_u32(5, 400)) ? "vlan " : "NO-vlan ";
            else if (n.first == 51215)
                seen += has_key(kGyreUri, tarndev::gyre_key_ftag(400)) ? "ftag" : "NO-ftag";
            else
                seen += "? ";
        }
    });
    const ToolRun r = apply(
        "{\"changes\": [{\"change\": \"create_topology\", \"topology\": 40},"
        " {\"change\": \"topology_vlans\", \"topologies\": [{\"topology\": 40, \"active_vlans\": \"400\"}]},"
        " {\"change\": \"ftags\", \"ftags\": [{\"reason\": \"create\", \"topology\": 40, \"ftag\": 400, \"graph\": 2}]}]}");
    watcher.join();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("tpg vlan ftag", seen);
}

// The AS format an attribute change of kind 1 announces.
uint32_t announced_format(const Bytes &payload)
{
    uint32_t f = 0;
    if (payload.size() >= 28)
        memcpy(&f, payload.data() + 24, 4);
    return f;
}

// Whoever can write the store (any member of a shared device) can write
// the journal's description: it reaches the terminal escaped, as table
// cells do, never as an escape sequence.
TEST_F(TarnctlApply, TheJournalsDescriptionReachesTheTerminalEscaped)
{
    tarndev::Unannounced owed;
    owed.opcode = 51226;
    owed.payload = Bytes(28, 0);
    owed.payload[2] = 1;
    owed.payload[20] = 28;
    owed.payload[24] = 7;
    owed.what = "changes[3]: \x1b]0;owned\x07\x1b[2J\nfake line\xff";
    const Bytes key = tarndev::journal_key(), value = tarndev::journal_value(owed);
    ASSERT_EQ(0u, tarnhost_kvs_put(kJournalUri.c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(),
                                   static_cast<uint32_t>(value.size())));
    const ToolRun r = apply("{\"changes\": [{\"change\": \"as_format\", \"format\": 2}]}");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("announced the change that an earlier apply wrote and ended before it could say "
              "it was announced (it may have been already): "
              "changes[3]: \\e]0;owned\\x07\\e[2J\\nfake line\\xFF (51226 to 1 subscriber)\n"
              "changes[0]: AS format 2 (51226 to 1 subscriber)\n"
              "applied 1 change to " + std::string(tarnhost_root()) + "\n",
              r.out);
}

// An apply that ended between a change's commit and its notification left
// the journal's record: the next apply announces that change before its
// own, and a load drops it.
TEST_F(TarnctlApply, AChangeLeftUnannouncedIsAnnouncedByTheNextApply)
{
    tarndev::Unannounced owed;
    owed.opcode = 51226;
    owed.payload = Bytes(28, 0);
    owed.payload[2] = 1;  // kind 1
    owed.payload[20] = 28;
    owed.payload[24] = 7;  // AS format 7
    owed.what = "changes[3]: AS format 7";
    const Bytes key = tarndev::journal_key(), value = tarndev::journal_value(owed);
    ASSERT_EQ(0u, tarnhost_kvs_put(kJournalUri.c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(),
                                   static_cast<uint32_t>(value.size())));

    const ToolRun r = apply("{\"changes\": [{\"change\": \"as_format\", \"format\": 2}]}");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("announced the change that an earlier apply wrote and ended before it could say "
              "it was announced (it may have been already): "
              "changes[3]: AS format 7 (51226 to 1 subscriber)\n"
              "changes[0]: AS format 2 (51226 to 1 subscriber)\n"
              "applied 1 change to " + std::string(tarnhost_root()) + "\n",
              r.out);
    auto first = next(), second = next();
    EXPECT_EQ(51226u, first.first);
    EXPECT_EQ(owed.payload, first.second);
    EXPECT_EQ(2u, announced_format(second.second));
    EXPECT_FALSE(has_key(kJournalUri, key));

    // Owed once only.
    EXPECT_EQ(0, apply("{\"changes\": [{\"change\": \"as_format\", \"format\": 3}]}").status);
    EXPECT_EQ(3u, announced_format(next().second));
    EXPECT_EQ(0u, next(200).first);

    // A record that is not the journal's (cut short) owes nothing.
    ASSERT_EQ(0u, tarnhost_kvs_put(kJournalUri.c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(), 7));
    ToolRun j = tarnctl("apply " + file_ + " --json");
    EXPECT_EQ(0, j.status) << j.err;
    const json doc = json::parse(j.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("apply", doc)) << j.out;
    EXPECT_TRUE(doc["resumed"].is_null());
    EXPECT_EQ(3u, announced_format(next().second));

    // A new device owes nothing of the old one.
    ASSERT_EQ(0u, tarnhost_kvs_put(kJournalUri.c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(),
                                   static_cast<uint32_t>(value.size())));
    tarntest::load_device_json(kDevice);
    EXPECT_FALSE(has_key(kJournalUri, key));
}

// Killed at any instant, an apply leaves no client behind the databases
// once the next apply has run: the last AS format a subscriber heard before
// the next apply's own change is the one in the database.
TEST_F(TarnctlApply, KilledAtAnyInstantTheNextApplyCatchesClientsUp)
{
    std::string many = "{\"changes\": [";
    for (int i = 0; i < 400; ++i)
        many += std::string(i ? "," : "") + "{\"change\": \"as_format\", \"format\": " +
                std::to_string(100 + i) + "}";
    many += "]}";
    write_file(file_, many);
    const std::string next_file = std::string(tarnhost_root()) + "/next.json";
    std::mt19937 rng(20261123);
    auto db_format = [] {
        Bytes stored;
        if (!has_key(kTarnUri, tarndev::tarn_key_as_format(), &stored))
            return 0u;
        for (uint32_t f = 1; f < 1000; ++f)
            if (tarndev::as_format_value(f) == stored)
                return f;
        return 0u;
    };
    write_file(next_file, "{\"changes\": [{\"change\": \"as_format\", \"format\": 99}]}");
    ASSERT_EQ(0, tarnctl("apply " + next_file).status);
    uint32_t heard = announced_format(next().second);  // the last format heard
    ASSERT_EQ(99u, heard);
    ASSERT_EQ(99u, db_format());
    int resumed = 0;
    for (int round = 0; round < 25; ++round) {
        const std::string dir = tarnhost_root();
        pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, {"apply", file_}, {},
                                            dir + "/killed.out", dir + "/killed.err");
        ASSERT_GT(pid, 0);
        usleep(std::uniform_int_distribution<int>(0, 60000)(rng));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        for (auto n = next(50); n.first != 0; n = next(50))
            heard = announced_format(n.second);
        const uint32_t in_db = db_format();
        ASSERT_NE(0u, in_db);

        write_file(next_file, "{\"changes\": [{\"change\": \"as_format\", \"format\": " +
                                  std::to_string(900 + round) + "}]}");
        const ToolRun r = tarnctl("apply " + next_file);
        ASSERT_EQ(0, r.status) << r.err;
        std::vector<uint32_t> after;
        for (auto n = next(500); n.first != 0; n = next(50))
            after.push_back(announced_format(n.second));
        ASSERT_FALSE(after.empty());
        ASSERT_EQ(900u + round, after.back());
        if (after.size() == 2) {
            ++resumed;
            heard = after[0];
        }
        ASSERT_LE(after.size(), 2u);
        EXPECT_EQ(in_db, heard) << "round " << round << ": " << r.out;
        heard = after.back();
    }
    printf("%d of 25 kills left an announcement owed\n", resumed);
}

// ---- dump-cache ---------------------------------------------------------------------

TEST_F(TarnctlApply, DumpCachePrintsAndVerifies)
{
    Client c;
    ASSERT_TRUE(c.start(kSap));
    const std::string rule(80, '-');
    char head[128];
    snprintf(head, sizeof head, "%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List");
    const std::string header = "\t\tGYRE Cache Information\n" + rule + "\n\n" + head + rule + "\n";
    char row10[128], row20[128];
    snprintf(row10, sizeof row10, "%-10u %-36s %-20s %s\n", 10u, "100-109", "1-2", "");
    snprintf(row20, sizeof row20, "%-10u %-36s %-20s %s\n", 20u, "200-201", "17", "");

    // This client runs its own loop on tarn_dispatch alone.
    const std::string kNotHelper =
        "verify: the client does not answer the host's inspection request (it is not built on "
        "the host's client helper): compared only what the dump carries, each topology's VLAN "
        "and ftag sets; not compared: owners, unicast ftags, ftags per graph, configured VLANs, "
        "the VLANs of each ftag, the AS format\n";
    ToolRun r = tarnctl("dump-cache --client " + std::to_string(c.handle()));
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(header + row10 + row20, r.out);

    r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(header + row10 + row20 + kNotHelper + "verify: cache and database agree on 2 topologies\n", r.out);

    // The same as one JSON document of the documented layout.
    r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify --json");
    EXPECT_EQ(0, r.status) << r.err;
    const json doc = json::parse(r.out, nullptr, false);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("dump_cache", doc)) << r.out;
    EXPECT_EQ(json::parse(R"([
      {"id": 10, "active_vlans": "100-109",
       "active_vlans_list": [100,101,102,103,104,105,106,107,108,109],
       "ftags": "1-2", "ftags_list": [1, 2], "in_sync": true},
      {"id": 20, "active_vlans": "200-201", "active_vlans_list": [200, 201],
       "ftags": "17", "ftags_list": [17], "in_sync": true}])"),
              doc["topologies"]);
    EXPECT_EQ(true, doc["verify"]["agree"]);

    // The database changes behind the client's back, and the client's
    // owner table loses VLAN 200.
    ASSERT_EQ(0u, tarnhost_kvs_put(kGyreUri.c_str(), tarndev::gyre_key_ftag(5).data(), 40,
                                   tarndev::ftag_value(20, 5, 2, 2).data(),
                                   static_cast<uint32_t>(tarndev::ftag_value(20, 5, 2, 2).size())));
    const tarndev::Bytes raw = tarndev::topology_ftag_value(5, 2, 2);
    ASSERT_EQ(0u, tarnhost_kvs_put(kGyreUri.c_str(),
                                   tarndev::gyre_key_tpg_ftag(20 | 0xC0000000u, 2, 2).data(), 40,
                                   raw.data(), 8));
    Bytes v(4);
    put32(v, 0, 200);
    c.ask(kOpcForgetVlan, v);
    snprintf(row20, sizeof row20, "%-10u %-36s %-20s %s\n", 20u, "200-201", "17", "Out of Sync!");
    r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(header + row10 + row20 +
                  "verify: topology 20: the client's ftag or VLAN owner tables disagree with it "
                  "(Out of Sync!)\n"
                  "verify: topology 20: ftags: cache 17, database 5,17\n" +
                  kNotHelper + "verify: 2 differences\n",
              r.out);

    // A client with its cache off.
    c.ask(kOpcCacheOff);
    r = tarnctl("dump-cache --client " + std::to_string(c.handle()));
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("GYRE Caching not enabled\n", r.out);
    r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("GYRE Caching not enabled\nverify: the client's Gyre cache is off; nothing to compare\n",
              r.out);
    const uint32_t dynamic = c.tester();
    // A handle that serves no access point; usage errors.
    r = tarnctl("dump-cache --client " + std::to_string(dynamic));
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl dump-cache: bus handle " + std::to_string(dynamic) +
                  " serves no access point on the device in " + std::string(tarnhost_root()) +
                  "; \"tarnctl show clients\" lists the clients and their addresses\n",
              r.err);
    EXPECT_EQ(2, tarnctl("dump-cache").status);
    EXPECT_EQ(2, tarnctl("dump-cache --client x").status);
    EXPECT_EQ(2, tarnctl("dump-cache --client 4294967295").status);
    EXPECT_EQ(0, c.stop());
}

// A change that is in the databases but may not have been announced is
// named by --verify, with what sends it.
TEST_F(TarnctlApply, VerifyNamesAnAnnouncementStillOwed)
{
    Client c;
    ASSERT_TRUE(c.start(kSap));
    tarndev::Unannounced owed;
    owed.opcode = 51226;
    owed.payload = Bytes(28, 0);
    owed.what = "changes[3]: AS format 7";
    const Bytes key = tarndev::journal_key(), value = tarndev::journal_value(owed);
    ASSERT_EQ(0u, tarnhost_kvs_put(kJournalUri.c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(),
                                   static_cast<uint32_t>(value.size())));
    ToolRun r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify");
    EXPECT_NE(std::string::npos,
              r.out.find("verify: an earlier apply ended before it could say it announced "
                         "changes[3]: AS format 7; \"tarnctl apply\" with any change file "
                         "(even {\"changes\": []}) announces it first\n"))
        << r.out;
    r = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify --json");
    const json doc = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("dump_cache", doc)) << r.out;
    EXPECT_EQ("changes[3]: AS format 7", doc["verify"]["owed"]);
    EXPECT_EQ(0, c.stop());
}

// A client that does not answer in time, and one whose process is gone,
// are told apart, each with what to do.
TEST_F(TarnctlApply, DumpCacheNamesAStoppedOrGoneClient)
{
    Client c;
    ASSERT_TRUE(c.start(kSap));
    const std::string h = std::to_string(c.handle());
    const std::string who =
        "the client with bus handle " + h + " (access point " + std::to_string(kSap) + ")";
    ASSERT_EQ(0, kill(c.pid(), SIGSTOP));
    ToolRun r = tarnctl("dump-cache --client " + h + " --timeout 1");
    kill(c.pid(), SIGCONT);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("tarnctl dump-cache: " + who +
                  " did not answer within 1 s: it is stopped or busy; resume it, or wait "
                  "longer with --timeout\n",
              r.err);
    EXPECT_EQ(2, tarnctl("dump-cache --client " + h + " --timeout 0").status);
    ASSERT_EQ(0, kill(c.pid(), SIGKILL));
    waitpid(c.pid(), nullptr, 0);
    r = tarnctl("dump-cache --client " + h);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    const std::string hint = "; \"tarnctl show clients\" lists the clients and their addresses\n";
    EXPECT_EQ("tarnctl dump-cache: " + who + " is gone: its process has exited" + hint, r.err);
    r = tarnctl("dump-cache --sap " + std::to_string(kSap));
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl dump-cache: the client at access point " + std::to_string(kSap) +
                  " (bus handle " + h + ") is gone: its process has exited" + hint,
              r.err);
}

}  // namespace
