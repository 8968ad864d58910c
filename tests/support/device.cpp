#include "device.h"

#include <gtest/gtest.h>

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

}  // namespace tarntest
