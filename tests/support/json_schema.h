// Test support: checking a JSON document against a JSON Schema, for the
// keywords the tools' documented schemas use: type (one or a list), enum,
// minimum, required, properties, additionalProperties (false), items.
#ifndef TARN_TESTS_SUPPORT_JSON_SCHEMA_H
#define TARN_TESTS_SUPPORT_JSON_SCHEMA_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarntest {

// Every place where `doc` breaks `schema`, as "path: what"; empty when it
// conforms.  A keyword outside the list above is reported too, so a schema
// cannot pass by using what this does not check.
std::vector<std::string> schema_violations(const nlohmann::json &schema,
                                           const nlohmann::json &doc);

}  // namespace tarntest

#endif
