// Test support: simulated devices loaded from JSON descriptions.
#ifndef TARN_TESTS_SUPPORT_DEVICE_H
#define TARN_TESTS_SUPPORT_DEVICE_H

#include <string>

#include "support/fixture.h"

namespace tarntest {

// Path of a fixture under tests/fixtures.
std::string fixture(const std::string &name);
// Loads a description (file path or JSON text) into the current host root;
// a failed load fails the test.
void load_device_file(const std::string &path);
void load_device_json(const std::string &json);

// A test of the library against a loaded device: the library's state is
// fresh before and after.
class DeviceTest : public HostTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Loads `json` (the fixture queries.json when empty), initialises the
    // library and forgets what was logged so far.
    void load(const std::string &json = "");
    // The rendered read-error report of `fn` for the key description `what`.
    static std::string read_error(const std::string &what, const char *fn,
                                  const char *status = "0x00000005 (Input/output error)");
};

}  // namespace tarntest

#endif
