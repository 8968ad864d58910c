// tarn/notification.hpp - the payloads of the Tarn and Gyre services'
// notifications, and of the messages libtarn sends, decoded into values.
//
// This is the one definition of those layouts outside the library: the C++
// API, "tarnctl watch --json" and the Python package (through libtarnhost's
// tarnhost_notification_json) all decode through it.  Every length is
// checked before a field is read; a payload shorter than its fixed part is
// told (status too_short, with the bytes it needs), and a count larger than
// the records present yields the whole records only (status truncated), as
// the library itself applies them.
//
// Header-only C++17; builds with -fno-exceptions -fno-rtti and needs no
// library at all.
#ifndef TARN_NOTIFICATION_HPP
#define TARN_NOTIFICATION_HPP

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <variant>
#include <vector>

#include <tarn/sets.hpp>

namespace tarn {

// Bus opcodes whose payloads are decoded here.
namespace opcode {
constexpr uint32_t kGyreNotice51205 = 51205;
constexpr uint32_t kTopologyCreated = 51208;
constexpr uint32_t kGyreNotice51209 = 51209;
constexpr uint32_t kTopologyDeleted = 51210;
constexpr uint32_t kGyreNotice51211 = 51211;
constexpr uint32_t kGyreNotice51212 = 51212;
constexpr uint32_t kGyreNotice51213 = 51213;
constexpr uint32_t kTopologyVlans = 51214;
constexpr uint32_t kFtagUpdate = 51215;
constexpr uint32_t kProtocolConfigChange = 51222;
constexpr uint32_t kFtagNotice = 51223;
constexpr uint32_t kAttrChange = 51226;
}  // namespace opcode

// Payload layouts: offsets and sizes in bytes, host byte order.
namespace layout {
constexpr size_t kTopologyIdOffset = 20;          // 51208, 51210
constexpr size_t kVlanCountOffset = 20;           // 51214
constexpr size_t kVlanRecordsOffset = 24;
constexpr size_t kVlanRecordSize = 556;           // gyre_tpg_vlan_info_t
constexpr size_t kVlanRecordName = 4;             // 33 bytes
constexpr size_t kVlanRecordBitmapLen = 40;
constexpr size_t kVlanRecordBitmap = 44;          // 512 bytes
constexpr size_t kFtagEntriesOffset = 4;          // 51215: count at 0
constexpr size_t kFtagEntrySize = 1048;
constexpr size_t kAttrKindOffset = 2;             // 51226
constexpr size_t kAttrAsFormatOffset = 24;        // kind 1
constexpr size_t kAttrTopologyOffset = 28;        // kind 2
constexpr size_t kAttrFtagBitmapOffset = 36;      // kind 2, 128 bytes
constexpr size_t kDumpRequestSize = 28;           // kind 4
constexpr size_t kConfigHeaderSize = 76;          // 51222
constexpr size_t kConfigName = 8;
constexpr size_t kConfigContext = 41;
constexpr size_t kConfigCount = 74;
constexpr size_t kFtagNoticeSize = 12;            // 51223
constexpr size_t kDumpPageHeader = 12;            // dump reply
constexpr size_t kDumpRecordSize = 656;
constexpr size_t kNameField = 33;
}  // namespace layout

// ---- events ---------------------------------------------------------------

struct TopologyCreated {          // 51208
    uint32_t topology = 0;
};
struct TopologyDeleted {          // 51210
    uint32_t topology = 0;
};
struct TopologyVlans {            // one record of 51214
    uint32_t topology = 0;
    std::string name;
    uint32_t bitmap_length = 0;   // the record's length word, as sent
    VlanSet vlans;
};
struct TopologyVlansChanged {     // 51214
    uint32_t declared = 0;        // the count the payload gives
    std::vector<TopologyVlans> records;
};
enum class FtagReason : uint32_t { invalid = 0, create = 1, update = 2, remove = 3 };
struct FtagChange {               // one entry of 51215
    uint32_t reason = 0;          // FtagReason, or another code (ignored by the library)
    uint32_t topology = 0;
    uint16_t graph = 0;
    uint16_t ftag = 0;
    uint32_t flags = 0;
};
struct FtagsChanged {             // 51215
    uint32_t declared = 0;
    std::vector<FtagChange> entries;
};
struct GyreNotice {               // 51205, 51209, 51211 to 51213: no fields used
    uint32_t opcode = 0;
};
struct AsFormatChanged {          // 51226 kind 1
    uint32_t format = 0;
};
struct TopologyFtagsDeleted {     // 51226 kind 2
    uint32_t topology = 0;
    FtagSet ftags;
};
struct GyreCacheFlushed {};       // 51226 kind 3
struct CacheDumpRequest {         // 51226 kind 4
    uint32_t pid = 0;
    uint32_t epid = 0;
    uint64_t time = 0;
    uint32_t length = 0;
    uint32_t iteration = 0;
};
struct AttributeChanged {         // 51226 of any other kind: ignored by the library
    uint16_t kind = 0;
};
struct ProtocolConfigChange {     // 51222, sent by tarn_send_protocol_config_change_msg
    uint32_t type = 0;
    uint32_t param = 0;
    std::string name;
    std::string context;
    uint16_t declared = 0;        // the entry count the payload gives
    std::vector<uint32_t> entries;
};
struct FtagNotice {               // 51223, sent by gyre_ftag_converge / gyre_ftag_stale
    uint32_t kind = 0;            // 1 converge, 0 stale
    uint32_t topology = 0;
};
struct CacheDumpRecord {
    uint32_t topology = 0;
    FtagSet ftags;
    VlanSet vlans;
    uint32_t in_sync = 0;
};
struct CacheDumpPage {            // the reply to a cache dump request
    uint32_t status = 0;          // 2 more pages, 3 last page, 0 no cache
    uint32_t next_iteration = 0;
    uint32_t declared = 0;
    std::vector<CacheDumpRecord> records;
};
struct Undecodable {};            // no payload, too short, or an opcode not known here

using Event = std::variant<Undecodable, TopologyCreated, TopologyDeleted, TopologyVlansChanged,
                           FtagsChanged, GyreNotice, AsFormatChanged, TopologyFtagsDeleted,
                           GyreCacheFlushed, CacheDumpRequest, AttributeChanged,
                           ProtocolConfigChange, FtagNotice, CacheDumpPage>;

enum class DecodeStatus {
    complete,        // every field and record present
    truncated,       // fewer whole records than the count declares
    too_short,       // shorter than the fixed part: nothing decoded
    no_payload,      // the message has no payload
    unknown_opcode,  // not a payload this header knows
};

struct Decoded {
    uint32_t opcode = 0;
    uint32_t bytes = 0;           // payload length
    DecodeStatus status = DecodeStatus::complete;
    uint32_t needed = 0;          // too_short: the bytes the fixed part needs
    Event event;

    bool complete() const { return status == DecodeStatus::complete; }
    // "" when complete, else why not, in one line.
    std::string problem() const;
};

// ---- decoding -------------------------------------------------------------

namespace detail {

inline uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline uint16_t load16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline uint64_t load64(const uint8_t *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
// A name field: the text up to its NUL, at most the field.
inline std::string name_field(const uint8_t *p, size_t field)
{
    size_t n = 0;
    while (n < field && p[n] != 0)
        ++n;
    return std::string(reinterpret_cast<const char *>(p), n);
}
// Whole records of `size` bytes from `offset` that fit in `len`, at most
// `declared`.
inline size_t whole_records(size_t len, size_t offset, size_t size, uint64_t declared)
{
    const size_t room = len > offset ? (len - offset) / size : 0;
    return declared < room ? static_cast<size_t>(declared) : room;
}
inline bool short_of(Decoded &d, size_t len, size_t needed)
{
    if (len >= needed)
        return false;
    d.status = DecodeStatus::too_short;
    d.needed = static_cast<uint32_t>(needed);
    return true;
}

inline void decode_attr_change(Decoded &d, const uint8_t *p, size_t len)
{
    using namespace layout;
    if (short_of(d, len, kAttrKindOffset + 2))
        return;
    const uint16_t kind = load16(p + kAttrKindOffset);
    switch (kind) {
    case 1:
        if (!short_of(d, len, kAttrAsFormatOffset + 4))
            d.event = AsFormatChanged{load32(p + kAttrAsFormatOffset)};
        return;
    case 2:
        if (!short_of(d, len, kAttrFtagBitmapOffset + FtagSet::kBytes))
            d.event = TopologyFtagsDeleted{
                load32(p + kAttrTopologyOffset),
                FtagSet::from_bytes(p + kAttrFtagBitmapOffset, FtagSet::kBytes)};
        return;
    case 3:
        d.event = GyreCacheFlushed{};
        return;
    case 4:
        if (!short_of(d, len, kDumpRequestSize))
            d.event = CacheDumpRequest{load32(p + 4), load32(p + 8), load64(p + 12),
                                       load32(p + 20), load32(p + 24)};
        return;
    default:
        d.event = AttributeChanged{kind};
        return;
    }
}

inline void decode_vlans(Decoded &d, const uint8_t *p, size_t len)
{
    using namespace layout;
    if (short_of(d, len, kVlanRecordsOffset))
        return;
    TopologyVlansChanged e;
    e.declared = load32(p + kVlanCountOffset);
    const size_t n = whole_records(len, kVlanRecordsOffset, kVlanRecordSize, e.declared);
    e.records.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        const uint8_t *r = p + kVlanRecordsOffset + i * kVlanRecordSize;
        e.records.push_back(TopologyVlans{load32(r), name_field(r + kVlanRecordName, kNameField),
                                          load32(r + kVlanRecordBitmapLen),
                                          VlanSet::from_bytes(r + kVlanRecordBitmap,
                                                              VlanSet::kBytes)});
    }
    if (n < e.declared)
        d.status = DecodeStatus::truncated;
    d.event = std::move(e);
}

inline void decode_ftags(Decoded &d, const uint8_t *p, size_t len)
{
    using namespace layout;
    if (short_of(d, len, kFtagEntriesOffset))
        return;
    FtagsChanged e;
    e.declared = load32(p);
    const size_t n = whole_records(len, kFtagEntriesOffset, kFtagEntrySize, e.declared);
    e.entries.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        const uint8_t *r = p + kFtagEntriesOffset + i * kFtagEntrySize;
        e.entries.push_back(
            FtagChange{load32(r), load32(r + 4), load16(r + 8), load16(r + 10), load32(r + 12)});
    }
    if (n < e.declared)
        d.status = DecodeStatus::truncated;
    d.event = std::move(e);
}

inline void decode_config(Decoded &d, const uint8_t *p, size_t len)
{
    using namespace layout;
    if (short_of(d, len, kConfigHeaderSize))
        return;
    ProtocolConfigChange e;
    e.type = load32(p);
    e.param = load32(p + 4);
    e.name = name_field(p + kConfigName, kNameField);
    e.context = name_field(p + kConfigContext, kNameField);
    e.declared = load16(p + kConfigCount);
    const size_t n = whole_records(len, kConfigHeaderSize, 4, e.declared);
    e.entries.reserve(n);
    for (size_t i = 0; i < n; ++i)
        e.entries.push_back(load32(p + kConfigHeaderSize + 4 * i));
    if (n < e.declared)
        d.status = DecodeStatus::truncated;
    d.event = std::move(e);
}

}  // namespace detail

// Decodes the payload of a message of `opcode` (null `payload`: a message
// without one).  A 51226 message is read as the request the services send;
// a cache dump reply (also 51226) is decode_cache_dump_page's.
inline Decoded decode_notification(uint32_t opcode_value, const void *payload, size_t len)
{
    Decoded d;
    d.opcode = opcode_value;
    d.bytes = static_cast<uint32_t>(len);
    const uint8_t *p = static_cast<const uint8_t *>(payload);
    const bool known = opcode_value == opcode::kGyreNotice51205 ||
                       (opcode_value >= opcode::kTopologyCreated &&
                        opcode_value <= opcode::kFtagUpdate) ||
                       opcode_value == opcode::kProtocolConfigChange ||
                       opcode_value == opcode::kFtagNotice || opcode_value == opcode::kAttrChange;
    if (!known) {
        d.status = DecodeStatus::unknown_opcode;
        return d;
    }
    switch (opcode_value) {
    case opcode::kGyreNotice51205:
    case opcode::kGyreNotice51209:
    case opcode::kGyreNotice51211:
    case opcode::kGyreNotice51212:
    case opcode::kGyreNotice51213:
        // The library uses no field of these; a missing payload is no loss.
        d.event = GyreNotice{opcode_value};
        return d;
    default:
        break;
    }
    if (p == nullptr) {
        d.bytes = 0;
        d.status = DecodeStatus::no_payload;
        return d;
    }
    switch (opcode_value) {
    case opcode::kTopologyCreated:
        if (!detail::short_of(d, len, layout::kTopologyIdOffset + 4))
            d.event = TopologyCreated{detail::load32(p + layout::kTopologyIdOffset)};
        break;
    case opcode::kTopologyDeleted:
        if (!detail::short_of(d, len, layout::kTopologyIdOffset + 4))
            d.event = TopologyDeleted{detail::load32(p + layout::kTopologyIdOffset)};
        break;
    case opcode::kTopologyVlans:
        detail::decode_vlans(d, p, len);
        break;
    case opcode::kFtagUpdate:
        detail::decode_ftags(d, p, len);
        break;
    case opcode::kAttrChange:
        detail::decode_attr_change(d, p, len);
        break;
    case opcode::kProtocolConfigChange:
        detail::decode_config(d, p, len);
        break;
    case opcode::kFtagNotice:
        if (!detail::short_of(d, len, layout::kFtagNoticeSize))
            d.event = FtagNotice{detail::load32(p + 4), detail::load32(p + 8)};
        break;
    default:
        break;
    }
    return d;
}

// Decodes a page of a cache dump (the reply to a kind-4 request).
inline Decoded decode_cache_dump_page(const void *payload, size_t len)
{
    using namespace layout;
    Decoded d;
    d.opcode = opcode::kAttrChange;
    d.bytes = static_cast<uint32_t>(len);
    const uint8_t *p = static_cast<const uint8_t *>(payload);
    if (p == nullptr) {
        d.bytes = 0;
        d.status = DecodeStatus::no_payload;
        return d;
    }
    // A page of status 0 carries only its status word.
    if (detail::short_of(d, len, 4))
        return d;
    CacheDumpPage e;
    e.status = detail::load32(p);
    if (e.status != 0) {
        if (detail::short_of(d, len, kDumpPageHeader))
            return d;
        e.next_iteration = detail::load32(p + 4);
        e.declared = detail::load32(p + 8);
        const size_t n = detail::whole_records(len, kDumpPageHeader, kDumpRecordSize, e.declared);
        e.records.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            const uint8_t *r = p + kDumpPageHeader + i * kDumpRecordSize;
            e.records.push_back(CacheDumpRecord{detail::load32(r),
                                                FtagSet::from_bytes(r + 8, FtagSet::kBytes),
                                                VlanSet::from_bytes(r + 140, VlanSet::kBytes),
                                                detail::load32(r + 652)});
        }
        if (n < e.declared)
            d.status = DecodeStatus::truncated;
    }
    d.event = std::move(e);
    return d;
}

// The event's name in JSON and in messages: "topology_created", ...
inline const char *event_name(const Event &e)
{
    static const char *const kNames[] = {
        "undecodable",        "topology_created",       "topology_deleted",
        "topology_vlans",     "ftags_changed",          "gyre_notice",
        "as_format",          "topology_ftags_deleted", "gyre_cache_flushed",
        "cache_dump_request", "attribute_change",       "protocol_config_change",
        "ftag_notice",        "cache_dump_page"};
    static_assert(sizeof kNames / sizeof kNames[0] == std::variant_size_v<Event>,
                  "one name per event type");
    return kNames[e.index()];
}

inline const char *ftag_reason_name(uint32_t reason)
{
    switch (reason) {
    case 0: return "GYRE_FTAG_INVALID_REASON";
    case 1: return "GYRE_FTAG_CREATE";
    case 2: return "GYRE_FTAG_UPDATE";
    case 3: return "GYRE_FTAG_DELETE";
    default: return "Unknown reason";
    }
}

inline std::string Decoded::problem() const
{
    const std::string of = "a payload of " + std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    switch (status) {
    case DecodeStatus::complete:
        return "";
    case DecodeStatus::no_payload:
        return "no payload";
    case DecodeStatus::unknown_opcode:
        return "opcode " + std::to_string(opcode) + " has no known payload";
    case DecodeStatus::too_short:
        return of + " is shorter than the " + std::to_string(needed) + " bytes it needs";
    case DecodeStatus::truncated:
        break;
    }
    uint64_t declared = 0, present = 0;
    const char *what = "records";
    if (auto *v = std::get_if<TopologyVlansChanged>(&event)) {
        declared = v->declared, present = v->records.size();
    } else if (auto *f = std::get_if<FtagsChanged>(&event)) {
        declared = f->declared, present = f->entries.size(), what = "entries";
    } else if (auto *c = std::get_if<ProtocolConfigChange>(&event)) {
        declared = c->declared, present = c->entries.size(), what = "entries";
    } else if (auto *pg = std::get_if<CacheDumpPage>(&event)) {
        declared = pg->declared, present = pg->records.size();
    }
    return of + " holds " + std::to_string(present) + " whole " + what + " of the " +
           std::to_string(declared) + " it declares";
}

}  // namespace tarn

#endif
