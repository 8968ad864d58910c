// A query asked again after another process has changed the device answers
// the changed device at once, however often it was asked before: what a
// thread has read is never given again once a change is committed.

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"
#include "support/tool_process.h"
#include "tools/device_loader.h"

using json = nlohmann::json;

namespace {

class ChangesBetweenQueries : public tarntest::DeviceTest {
protected:
    // The fixture device with `change` applied, loaded by another process.
    template <class Change>
    void load_changed_elsewhere(Change change, const char *name = "queries.json")
    {
        json device = json::parse(read_fixture(name));
        change(device);
        const std::string text = device.dump();
        const int rc = tarntest::run_child(
            [&] { return tarndev::load_device_text(text, "other").status == 0 ? 0 : 1; });
        ASSERT_EQ(0, rc);
    }

    static std::string read_fixture(const char *name)
    {
        return tarntest::slurp(tarntest::fixture(name));
    }

    static json &interface(json &device, uint32_t ifindex)
    {
        for (json &i : device["interfaces"])
            if (i["ifindex"] == ifindex)
                return i;
        static json none;
        return none;
    }
};

TEST_F(ChangesBetweenQueries, AnInterfaceMovedToAnotherContextIsAnsweredAtOnce)
{
    load();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(3u, tarn_if_get_context_id(200));
        ASSERT_EQ(4u, tarn_get_context_id("blue"));
    }
    load_changed_elsewhere([](json &d) { interface(d, 200)["context"] = "blue"; });
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(200, &info));
    EXPECT_EQ(4u, info.context_id);
    EXPECT_STREQ("blue", info.context_name);
    EXPECT_EQ(3u, tarn_if_get_context_id(201));  // unchanged
    EXPECT_TRUE(tarntest::captured().empty());
}

TEST_F(ChangesBetweenQueries, AContextRemovedBetweenQueriesIsGoneAtOnce)
{
    load();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(3u, tarn_get_context_id("red"));
        ASSERT_EQ(3u, tarn_if_get_context_id(201));
    }
    // "red" loses its id record while an interface still names it.
    load_changed_elsewhere([](json &d) {
        json kept = json::array();
        for (json &c : d["contexts"])
            if (c["name"] != "red")
                kept.push_back(c);
        d["contexts"] = kept;
    });
    EXPECT_EQ(0u, tarn_get_context_id("red"));
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(201, &info));
    EXPECT_EQ(0u, info.context_id);
    EXPECT_STREQ("red", info.context_name);
    EXPECT_EQ(0u, tarn_is_if_usable(201));
    EXPECT_EQ(4u, tarn_get_context_id("blue"));
}

// The Gyre queries that read twice, without the Gyre cache: the VLAN's
// topology, then that topology's ftag.
TEST_F(ChangesBetweenQueries, AVlanMovedToAnotherTopologyIsAnsweredAtOnce)
{
    load(read_fixture("gyre_basic.json"));
    uint16_t ftag = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(1u, gyre_get_vlan_ftag(15, 3, &ftag));
        ASSERT_EQ(6, ftag);
        ASSERT_EQ(0u, gyre_get_unicast_ftag_by_vlan(15, &ftag));
    }
    load_changed_elsewhere(
        [](json &d) {
            for (json &t : d["topologies"]) {
                if (t["id"] == 7)
                    t["active_vlans"] = "10-14,16-20,30";
                if (t["id"] == 12)
                    t["active_vlans"] = "15";
            }
        },
        "gyre_basic.json");
    ASSERT_EQ(0u, gyre_get_vlan_ftag(15, 3, &ftag));  // 12 has no graph 3
    ASSERT_EQ(1u, gyre_get_unicast_ftag_by_vlan(15, &ftag));
    EXPECT_EQ(0, ftag);
    EXPECT_EQ(12u, gyre_get_vlan_l2_tpg(15));
    ASSERT_EQ(1u, gyre_get_vlan_ftag(16, 3, &ftag));
    EXPECT_EQ(6, ftag);
}

}  // namespace
