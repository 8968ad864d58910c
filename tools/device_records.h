// What the device tools share about a device's databases: reading JSON
// facts with messages that name their path, the 48-byte Tarn keys and the
// 40-byte Gyre keys (docs/device-format.md), and the record values, encoded
// with the record catalogue's own conversions.  The loader (device
// descriptions) and tarnctl apply (change files) write the same records
// through these.
#ifndef TARN_TOOLS_DEVICE_RECORDS_H
#define TARN_TOOLS_DEVICE_RECORDS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

namespace tarndev {

using json = nlohmann::json;
using Bytes = std::vector<uint8_t>;
// (key, value) pairs of one database.
using Records = std::vector<std::pair<Bytes, Bytes>>;

constexpr size_t kNameMax = 32;  // characters in a 33-byte name field
constexpr uint32_t kTpgStored = 0xC0000000u;
constexpr uint32_t kTpgMax = 0x3FFFFFFFu;
constexpr uint32_t kTableMax = 0xBFFFFFFFu;  // higher ids are topologies
constexpr uint32_t kVlanMax = 4095;
constexpr uint32_t kFtagMax = 1023;
constexpr uint32_t kU32Max = 0xFFFFFFFFu;
constexpr size_t kTarnKeySize = TARN_KVS_KEY_SIZE;
constexpr size_t kGyreKeySize = 40;

// ---- reading JSON ----------------------------------------------------------

// Thrown by the readers with the complete message "<JSON path>: <problem>".
struct Refusal {
    std::string message;
};

[[noreturn]] void refuse(const std::string &path, const std::string &problem);
// Parses a JSON text; throws Refusal for text that is not JSON ("<source>:
// not valid JSON: ..."), for a number too large for any field ("<JSON
// path>: the number 1e400 is out of range", wherever it stands, comments
// included) and for containers nested too deeply.
json parse_json(const std::string &text, const std::string &source);
// The number at `path` of the last document that parse_json read on this
// thread as its text wrote it ("1e20"; a double would print 1e+20), or, for
// a value that did not come from there, as JSON writes it.
std::string number_as_written(const json &v, const std::string &path);
// "a.b" and "a[3]".
std::string member(const std::string &path, const std::string &key);
std::string item(const std::string &path, size_t i);

// An object whose keys are all in `known`; keys starting with "_" are
// comments and ignored wherever they appear.
const json &object_at(const json &v, const std::string &path,
                      std::initializer_list<const char *> known);
const json *find(const json &obj, const char *key);
const json &need(const json &obj, const std::string &path, const char *key);
uint64_t number(const json &v, const std::string &path, uint64_t lo,
                uint64_t hi);
uint32_t u32(const json &v, const std::string &path, uint32_t lo = 0,
             uint32_t hi = kU32Max);
bool boolean(const json &v, const std::string &path);
std::string text(const json &v, const std::string &path);
// A name for a 33-byte field: 1 to 32 bytes, no NUL inside.
std::string name_text(const json &v, const std::string &path);
const json &list(const json &v, const std::string &path);
// "0x" and 16 hexadecimal digits.
uint64_t hex64(const json &v, const std::string &path);

// A set of VLANs 0..4095; `given` tells a key left out from an empty set.
struct VlanSet {
    bool given = false;
    std::vector<bool> bits = std::vector<bool>(kVlanMax + 1, false);
};
// "10-20, 30": numbers and ranges 0..4095 separated by commas; blanks
// around the parts are allowed; "" is the empty set.
void vlan_text(const json &v, const std::string &path, VlanSet *out);
// The flag byte an ftag gets when none is given: graph 1 is the unicast
// graph (0x10), the others multicast (0x02).
uint8_t default_ftag_flags(uint32_t graph);

// ---- keys --------------------------------------------------------------------
//
// Tarn keys: 48 bytes, the kind as a big-endian u32 in bytes 0-3, then the
// kind's fields, big-endian numbers and 33-byte names, the rest zero.  Gyre
// keys: 40 bytes with the type in bytes 0-3 and every number in host byte
// order.  Names are copied bounded: at most the field's size less one
// characters, always terminated.

void be32_at(Bytes *b, size_t off, uint32_t n);

// Kinds 3, 4, 5, 8, 9: one number.
Bytes tarn_key_num(uint32_t kind, uint32_t n);
// Kinds 1 and 7: a context name in bytes 4-36.
Bytes tarn_key_name(uint32_t kind, const std::string &name);
// Kind 2: context id, address family, table name in bytes 12-44.
Bytes tarn_key_table_id(uint32_t context, uint32_t af, const std::string &name);
// Kind 6: ifindex, then the topology name bounded to 17 bytes (8-24).
Bytes tarn_key_if_topology(uint32_t ifindex, const std::string &name);
// Kind 10: no fields.
Bytes tarn_key_as_format();
// Kind 4 of a topology: its id with the two top bits.
Bytes tarn_key_topology(uint32_t tpg);

// Types 2 and 3 (interface VLANs): the IOD in bytes 4-7.
// Type 5 (a VLAN's topology): the VLAN in bytes 4-7.
Bytes gyre_key_u32(uint32_t type, uint32_t n);
// Types 0 and 1 (topology VLANs): the topology name in bytes 4-36.
Bytes gyre_key_tpg_vlans(uint32_t type, const std::string &name);
// Type 4 (a topology's ftag): stored topology id, graph u16, flag byte.
Bytes gyre_key_tpg_ftag(uint32_t stored_tpg, uint16_t graph, uint8_t flags);
// Type 6 (an ftag's topology): the ftag u16 in bytes 4-5.
Bytes gyre_key_ftag(uint16_t ftag);

// ---- values ------------------------------------------------------------------

template <typename T>
using ToTlv = uint32_t (*)(const T *, void **, uint32_t *, uint32_t,
                           uint32_t *, uint32_t);

// The record in TLV form; throws Refusal naming `what` when the record
// catalogue cannot encode it.
template <typename T>
Bytes encode(ToTlv<T> fn, const T &rec, const char *what)
{
    void *buf = nullptr;
    uint32_t len = 0;
    uint32_t rc = fn(&rec, &buf, &len, 0, nullptr, 0);
    if (rc != 0 || buf == nullptr) {
        free(buf);
        char code[16];
        snprintf(code, sizeof code, "0x%x", rc);
        throw Refusal{std::string("cannot encode a ") + what + " record (" +
                      code + ")"};
    }
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    Bytes out(p, p + len);
    free(buf);
    return out;
}

// Values of kinds 1 and 2: a TLV array whose first TLV (type 1) holds the id.
Bytes id_array(uint32_t id);
void copy_name(char *dst, const std::string &s);
void fill_bitmap(gyre_vlan_bmp_t *bmp, const VlanSet &set);

// The records of one topology `tpg` (1..0x3FFFFFFF; its name is the
// decimal id, the databases hold it with the two top bits):
// Tarn kind 4: a tarn_table_info_t naming it.
Bytes topology_table_value(uint32_t tpg);
// Gyre types 0 and 1: a gyre_tpg_vlan_info_t with the set.
Bytes topology_vlans_value(uint32_t tpg, const VlanSet &set);
// Gyre type 5 of each of its active VLANs: a gyre_kvs_vlan_info_t.
Bytes vlan_owner_value(uint32_t tpg);
// Gyre type 4: 8 raw bytes in host order, ftag u16, graph u16, flags u32.
Bytes topology_ftag_value(uint32_t ftag, uint32_t graph, uint32_t flags);
// Gyre type 6: a gyre_ftag_info_t.
Bytes ftag_value(uint32_t tpg, uint32_t ftag, uint32_t graph, uint32_t flags);
// Tarn kind 10: a tarn_as_format_t.
Bytes as_format_value(uint32_t format);

// ---- the device's databases -----------------------------------------------

// "0x%08x".
std::string status_text(uint32_t st);
// What a store status means, for a message: "the store is full
// (0x4048000a)".
std::string store_cause(uint32_t st);
// What the user can do about it ("" when only trying again can help):
// "set TARNHOST_KVS_MAPSIZE ...".
std::string store_remedy(uint32_t st);
// The URI of a database of the device once it is up ("tarn_global_kvs",
// "gyre_kvs_info"); "" when it cannot be named.
std::string device_db_uri(const char *name);

}  // namespace tarndev

#endif
