// The JSON Schema subset validator (json_schema.h).

#include "support/json_schema.h"

#include <fstream>
#include <set>

namespace tarntest {

namespace {

using json = nlohmann::json;

bool has_type(const json &v, const std::string &type)
{
    if (type == "null")
        return v.is_null();
    if (type == "boolean")
        return v.is_boolean();
    if (type == "integer")
        return v.is_number_integer();
    if (type == "number")
        return v.is_number();
    if (type == "string")
        return v.is_string();
    if (type == "array")
        return v.is_array();
    if (type == "object")
        return v.is_object();
    return false;
}

}  // namespace

std::string schema_problem(const json &root, const json &schema, const json &value,
                           const std::string &path)
{
    static const std::set<std::string> known = {
        "$schema", "$id", "title", "$ref", "type", "const", "enum", "minimum",
        "properties", "required", "additionalProperties", "items", "description"};
    if (!schema.is_object())
        return path + ": the schema here is not an object";
    for (auto it = schema.begin(); it != schema.end(); ++it)
        if (known.count(it.key()) == 0)
            return path + ": unsupported schema keyword " + it.key();
    if (schema.contains("$ref")) {
        const std::string ref = schema["$ref"].get<std::string>();
        const std::string prefix = "#/$defs/";
        if (ref.rfind(prefix, 0) != 0 || !root["$defs"].contains(ref.substr(prefix.size())))
            return path + ": unresolved $ref " + ref;
        return schema_problem(root, root["$defs"][ref.substr(prefix.size())], value, path);
    }
    if (schema.contains("type")) {
        const json &t = schema["type"];
        bool ok = false;
        if (t.is_string())
            ok = has_type(value, t.get<std::string>());
        else
            for (const json &one : t)
                ok = ok || has_type(value, one.get<std::string>());
        if (!ok)
            return path + ": " + value.dump() + " is not of type " + t.dump();
    }
    if (schema.contains("const") && schema["const"] != value)
        return path + ": " + value.dump() + " is not " + schema["const"].dump();
    if (schema.contains("enum")) {
        bool ok = false;
        for (const json &e : schema["enum"])
            ok = ok || e == value;
        if (!ok)
            return path + ": " + value.dump() + " is not one of " + schema["enum"].dump();
    }
    if (schema.contains("minimum") && value.is_number() &&
        value.get<double>() < schema["minimum"].get<double>())
        return path + ": " + value.dump() + " is below " + schema["minimum"].dump();
    if (value.is_object()) {
        if (schema.contains("required"))
            for (const json &k : schema["required"])
                if (!value.contains(k.get<std::string>()))
                    return path + ": missing key " + k.get<std::string>();
        const json props = schema.value("properties", json::object());
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (props.contains(it.key())) {
                std::string p =
                    schema_problem(root, props[it.key()], it.value(), path + "." + it.key());
                if (!p.empty())
                    return p;
            } else if (schema.contains("additionalProperties") &&
                       schema["additionalProperties"] == false) {
                return path + ": unexpected key " + it.key();
            }
        }
    }
    if (value.is_array() && schema.contains("items"))
        for (size_t i = 0; i < value.size(); ++i) {
            std::string p = schema_problem(root, schema["items"], value[i],
                                           path + "[" + std::to_string(i) + "]");
            if (!p.empty())
                return p;
        }
    return "";
}

std::string tarnctl_schema_problem(const std::string &name, const json &value)
{
    static const json root = [] {
        std::ifstream in(TARN_SOURCE_DIR "/docs/tarnctl.schema.json");
        return json::parse(in, nullptr, false);
    }();
    if (root.is_discarded() || !root.contains("$defs"))
        return "docs/tarnctl.schema.json does not parse";
    if (!root["$defs"].contains(name))
        return "no definition " + name + " in docs/tarnctl.schema.json";
    return schema_problem(root, root["$defs"][name], value);
}

}  // namespace tarntest
