// Device descriptions and change files of any content: the readers refuse
// what they cannot take with one line that names where, and nothing they
// are given escapes them (an overflowing number, a deep nest, bad UTF-8).
#include <stdint.h>

#include <string>

#include "tools/device_loader.h"
#include "tools/device_records.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    // A description: checked through, encoded, nothing written.
    const std::string why = tarndev::check_device_text(text, "fuzz.json");
    if (why.find('\n') != std::string::npos)
        __builtin_trap();
    // Change files go through the same parser and field readers.
    try {
        const tarndev::json doc = tarndev::parse_json(text, "fuzz.json");
        const tarndev::json &o = tarndev::object_at(doc, "", {"changes"});
        if (const tarndev::json *l = tarndev::find(o, "changes"))
            for (size_t i = 0; i < tarndev::list(*l, "changes").size(); ++i) {
                const std::string p = tarndev::item("changes", i);
                const tarndev::json &c = tarndev::object_at(
                    (*l)[i], p, {"change", "topology", "format", "iteration", "ftags",
                                 "topologies"});
                if (const tarndev::json *t = tarndev::find(c, "topology"))
                    tarndev::u32(*t, tarndev::member(p, "topology"), 1, tarndev::kTpgMax);
                if (const tarndev::json *f = tarndev::find(c, "format"))
                    tarndev::u32(*f, tarndev::member(p, "format"));
                if (const tarndev::json *n = tarndev::find(c, "change"))
                    tarndev::text(*n, tarndev::member(p, "change"));
            }
    } catch (const tarndev::Refusal &r) {
        if (r.message.empty() || r.message.find('\n') != std::string::npos)
            __builtin_trap();
    }
    return 0;
}
