#include "device.h"

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "support/library.h"
#include "tools/device_loader.h"

namespace tarntest {

std::string fixture(const std::string &name)
{
    return std::string(TARN_SOURCE_DIR) + "/tests/fixtures/" + name;
}

void load_device_file(const std::string &path)
{
    const tarndev::LoadOutcome out = tarndev::load_device_file(path);
    ASSERT_EQ(0, out.status) << out.message;
}

void load_device_json(const std::string &json)
{
    const tarndev::LoadOutcome out = tarndev::load_device_text(json, "test device");
    ASSERT_EQ(0, out.status) << out.message;
}

void DeviceTest::SetUp()
{
    HostTest::SetUp();
    reset_library();
}

void DeviceTest::TearDown()
{
    reset_library();
    HostTest::TearDown();
}

void DeviceTest::load(const std::string &json)
{
    if (json.empty())
        load_device_file(fixture("queries.json"));
    else
        load_device_json(json);
    ASSERT_EQ(1u, tarn_api_init());
    ASSERT_EQ(1u, tarn_clt->initialized);
    tarnhost_capture_clear();
}

std::string DeviceTest::read_error(const std::string &what, const char *fn, const char *status)
{
    return "<<%TARN-3-TARN_KVS_READ>> (1) Error reading " + what + ", errno: " + status + " in " +
           fn + "(), pid " + pid_text();
}

}  // namespace tarntest
