// Test support: simulated devices loaded from JSON descriptions.
#ifndef TARN_TESTS_SUPPORT_DEVICE_H
#define TARN_TESTS_SUPPORT_DEVICE_H

#include <string>

namespace tarntest {

// Path of a fixture under tests/fixtures.
std::string fixture(const std::string &name);
// Loads a description (file path or JSON text) into the current host root;
// a failed load fails the test.
void load_device_file(const std::string &path);
void load_device_json(const std::string &json);

}  // namespace tarntest

#endif
