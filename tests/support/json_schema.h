// A validator for the part of JSON Schema that tarnctl's schema file uses:
// $ref into $defs, type (one or a list), const, enum, minimum, properties,
// required, additionalProperties false, items.  Any other keyword in the schema is an
// error, so that the file cannot silently say more than is checked.
#ifndef TARN_TESTS_SUPPORT_JSON_SCHEMA_H
#define TARN_TESTS_SUPPORT_JSON_SCHEMA_H

#include <string>

#include <nlohmann/json.hpp>

namespace tarntest {

// "" when `value` is valid under `schema` (a part of the document `root`),
// else "<JSON path>: <what is wrong>".
std::string schema_problem(const nlohmann::json &root, const nlohmann::json &schema,
                           const nlohmann::json &value, const std::string &path = "$");

// "" when `value` is valid under the definition `name` of the schema file
// docs/tarnctl.schema.json.
std::string tarnctl_schema_problem(const std::string &name, const nlohmann::json &value);

}  // namespace tarntest

#endif
