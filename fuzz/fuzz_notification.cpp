// Payloads of any content and length through the notification decoder and
// its JSON rendering: no read past the payload, only whole records, and a
// document that always parses.  The first byte picks the opcode (or the
// cache dump reply), the rest is the payload.
#include <stdint.h>
#include <string.h>

#include <nlohmann/json.hpp>

#include <tarn/notification.hpp>
#include <tarn/notification_json.hpp>

namespace {

const uint32_t kOpcodes[] = {51205, 51208, 51209, 51210, 51211, 51212, 51213, 51214,
                             51215, 51222, 51223, 51226, 0 /* dump reply */, 51216};

size_t records_of(const tarn::Event &e)
{
    if (auto *v = std::get_if<tarn::TopologyVlansChanged>(&e))
        return v->records.size() * 556 + 24;
    if (auto *f = std::get_if<tarn::FtagsChanged>(&e))
        return f->entries.size() * 1048 + 4;
    if (auto *c = std::get_if<tarn::ProtocolConfigChange>(&e))
        return c->entries.size() * 4 + 76;
    if (auto *p = std::get_if<tarn::CacheDumpPage>(&e))
        return p->status == 0 ? 4 : p->records.size() * 656 + 12;
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const uint32_t opcode = kOpcodes[data[0] % (sizeof kOpcodes / sizeof kOpcodes[0])];
    // A copy of exactly the payload, so that the sanitizer sees any read
    // beyond it.
    const size_t len = size - 1;
    uint8_t *payload = new uint8_t[len == 0 ? 1 : len];
    memcpy(payload, data + 1, len);
    const tarn::Decoded d = opcode == 0 ? tarn::decode_cache_dump_page(payload, len)
                                        : tarn::decode_notification(opcode, payload, len);
    if (records_of(d.event) > len)
        __builtin_trap();
    if (d.complete() != d.problem().empty())
        __builtin_trap();
    const nlohmann::json j = nlohmann::json::parse(tarn::to_json(d), nullptr, false);
    if (j.is_discarded() || j["type"] != tarn::event_name(d.event))
        __builtin_trap();
    delete[] payload;
    return 0;
}
