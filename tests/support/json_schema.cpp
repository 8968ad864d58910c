#include "support/json_schema.h"

namespace tarntest {
namespace {

using json = nlohmann::json;

bool has_type(const json &v, const std::string &t)
{
    if (t == "object")
        return v.is_object();
    if (t == "array")
        return v.is_array();
    if (t == "string")
        return v.is_string();
    if (t == "integer")
        return v.is_number_integer();
    if (t == "number")
        return v.is_number();
    if (t == "boolean")
        return v.is_boolean();
    if (t == "null")
        return v.is_null();
    return false;
}

void check(const json &s, const json &v, const std::string &path,
           std::vector<std::string> *out)
{
    static const char *const kKnown[] = {
        "$schema", "title", "description", "type", "enum", "minimum", "required",
        "properties", "additionalProperties", "items"};
    for (const auto &k : s.items()) {
        bool known = false;
        for (const char *n : kKnown)
            known = known || k.key() == n;
        if (!known)
            out->push_back(path + ": the schema uses \"" + k.key() + "\", which is not checked");
    }
    if (s.contains("type")) {
        std::vector<std::string> types;
        if (s["type"].is_string())
            types.push_back(s["type"].get<std::string>());
        else
            for (const auto &t : s["type"])
                types.push_back(t.get<std::string>());
        bool ok = false;
        for (const auto &t : types)
            ok = ok || has_type(v, t);
        if (!ok) {
            out->push_back(path + ": " + v.dump() + " is not of type " + s["type"].dump());
            return;
        }
    }
    if (s.contains("enum")) {
        bool ok = false;
        for (const auto &e : s["enum"])
            ok = ok || e == v;
        if (!ok)
            out->push_back(path + ": " + v.dump() + " is not one of " + s["enum"].dump());
    }
    if (s.contains("minimum") && v.is_number() && v.get<double>() < s["minimum"].get<double>())
        out->push_back(path + ": " + v.dump() + " is below " + s["minimum"].dump());
    if (v.is_object()) {
        if (s.contains("required"))
            for (const auto &r : s["required"])
                if (!v.contains(r.get<std::string>()))
                    out->push_back(path + ": \"" + r.get<std::string>() + "\" is missing");
        for (const auto &m : v.items()) {
            if (s.contains("properties") && s["properties"].contains(m.key()))
                check(s["properties"][m.key()], m.value(), path + "." + m.key(), out);
            else if (s.contains("additionalProperties") && s["additionalProperties"] == false)
                out->push_back(path + ": \"" + m.key() + "\" is not in the schema");
        }
    }
    if (v.is_array() && s.contains("items"))
        for (size_t i = 0; i < v.size(); ++i)
            check(s["items"], v[i], path + "[" + std::to_string(i) + "]", out);
}

}  // namespace

std::vector<std::string> schema_violations(const json &schema, const json &doc)
{
    std::vector<std::string> out;
    check(schema, doc, "$", &out);
    return out;
}

}  // namespace tarntest
