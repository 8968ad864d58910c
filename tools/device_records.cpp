// The records and keys of a device's databases, and the JSON readers that
// the device tools share (see device_records.h).

#include "tools/device_records.h"

#include <errno.h>
#include <string.h>

#include <cmath>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "platform/supv.h"
#include "platform/syslog.h"

namespace tarndev {

// ---- reading JSON ----------------------------------------------------------

[[noreturn]] void refuse(const std::string &path, const std::string &problem)
{
    throw Refusal{(path.empty() ? std::string("(top level)") : path) + ": " +
                  problem};
}

std::string member(const std::string &path, const std::string &key)
{
    // A key is the file's own text: one with a control character is written
    // as JSON writes it ("\n"), so that a message stays on one line.
    std::string shown = key;
    for (unsigned char c : key)
        if (c < 0x20 || c == 0x7f) {
            shown = json(key).dump(-1, ' ', false, json::error_handler_t::replace);
            shown = shown.substr(1, shown.size() - 2);
            break;
        }
    return path.empty() ? shown : path + "." + shown;
}

std::string item(const std::string &path, size_t i)
{
    return path + "[" + std::to_string(i) + "]";
}

const json &object_at(const json &v, const std::string &path,
                      std::initializer_list<const char *> known)
{
    if (!v.is_object())
        refuse(path, "expected an object");
    for (auto it = v.begin(); it != v.end(); ++it) {
        const std::string &k = it.key();
        if (!k.empty() && k[0] == '_')
            continue;
        bool ok = false;
        for (const char *n : known)
            if (k == n) {
                ok = true;
                break;
            }
        if (!ok)
            refuse(member(path, k), "unknown key");
    }
    return v;
}

const json *find(const json &obj, const char *key)
{
    auto it = obj.find(key);
    return it == obj.end() ? nullptr : &*it;
}

const json &need(const json &obj, const std::string &path, const char *key)
{
    const json *v = find(obj, key);
    if (v == nullptr)
        refuse(member(path, key), "required key missing");
    return *v;
}

uint64_t number(const json &v, const std::string &path, uint64_t lo,
                uint64_t hi)
{
    if (!v.is_number())
        refuse(path, "expected a number");
    if (v.is_number_float()) {
        const double d = v.get<double>();
        if (!std::isfinite(d) || std::trunc(d) != d)
            refuse(path, "expected a whole number");
        if (d == 0 && std::signbit(d))
            refuse(path, "expected a whole number, not a negative zero (-0); write 0");
        // Compared as doubles before any conversion: a huge value has no
        // integer form to convert to.
        if (d < static_cast<double>(lo) || d > static_cast<double>(hi))
            refuse(path, v.dump() + " is out of range " + std::to_string(lo) +
                             ".." + std::to_string(hi));
        return static_cast<uint64_t>(d);
    }
    if (v.is_number_integer() && !v.is_number_unsigned() &&
        v.get<int64_t>() < 0)
        refuse(path, v.dump() + " is out of range " + std::to_string(lo) +
                         ".." + std::to_string(hi));
    uint64_t n = v.get<uint64_t>();
    if (n < lo || n > hi)
        refuse(path, v.dump() + " is out of range " + std::to_string(lo) +
                         ".." + std::to_string(hi));
    return n;
}

uint32_t u32(const json &v, const std::string &path, uint32_t lo,
             uint32_t hi)
{
    return static_cast<uint32_t>(number(v, path, lo, hi));
}

bool boolean(const json &v, const std::string &path)
{
    if (!v.is_boolean())
        refuse(path, "expected true or false");
    return v.get<bool>();
}

std::string text(const json &v, const std::string &path)
{
    if (!v.is_string())
        refuse(path, "expected text");
    return v.get<std::string>();
}

// A name for a 33-byte field: 1 to 32 bytes, no NUL inside.
std::string name_text(const json &v, const std::string &path)
{
    std::string s = text(v, path);
    if (s.empty())
        refuse(path, "text is empty");
    if (s.find('\0') != std::string::npos)
        refuse(path, "text contains a NUL character");
    if (s.size() > kNameMax)
        refuse(path, "text longer than 32 bytes");
    return s;
}

const json &list(const json &v, const std::string &path)
{
    if (!v.is_array())
        refuse(path, "expected a list");
    return v;
}

// "10-20, 30": numbers and ranges 0..4095 separated by commas; blanks around
// the parts are allowed; "" is the empty set.
void vlan_text(const json &v, const std::string &path, VlanSet *out)
{
    const std::string s = text(v, path);
    out->given = true;
    size_t i = 0;
    auto blanks = [&] {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t'))
            ++i;
    };
    auto bad = [&](const std::string &what) {
        refuse(path, "bad VLAN list \"" + s + "\": " + what);
    };
    auto num = [&]() -> uint32_t {
        blanks();
        if (i >= s.size() || s[i] < '0' || s[i] > '9')
            bad(i >= s.size() ? "a number is missing at the end"
                              : "expected a number at character " +
                                    std::to_string(i + 1));
        const size_t start = i;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9')
            ++i;
        const std::string digits = s.substr(start, i - start);
        if (digits.size() > 4 || std::stoul(digits) > kVlanMax)
            bad("VLAN " + digits + " is out of range 0..4095");
        const uint32_t n = static_cast<uint32_t>(std::stoul(digits));
        blanks();
        return n;
    };
    blanks();
    if (i == s.size())
        return;
    for (;;) {
        uint32_t lo = num();
        uint32_t hi = lo;
        if (i < s.size() && s[i] == '-') {
            ++i;
            hi = num();
            if (hi < lo)
                bad("range " + std::to_string(lo) + "-" + std::to_string(hi) +
                    " runs backwards");
        }
        for (uint32_t x = lo; x <= hi; ++x)
            out->bits[x] = true;
        if (i == s.size())
            return;
        if (s[i] != ',')
            bad("expected \",\" at character " + std::to_string(i + 1));
        ++i;
    }
}

uint64_t hex64(const json &v, const std::string &path)
{
    const std::string s = text(v, path);
    const char *what = "expected \"0x\" and 16 hexadecimal digits";
    if (s.size() != 18 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X'))
        refuse(path, what);
    uint64_t n = 0;
    for (size_t i = 2; i < s.size(); ++i) {
        char c = s[i];
        unsigned d;
        if (c >= '0' && c <= '9')
            d = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
            d = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            d = static_cast<unsigned>(c - 'A' + 10);
        else
            refuse(path, what);
        n = (n << 4) | d;
    }
    return n;
}

uint8_t default_ftag_flags(uint32_t graph)
{
    return graph == 1 ? 0x10u : 0x02u;
}

// ---- keys --------------------------------------------------------------------

void be32_at(Bytes *b, size_t off, uint32_t n)
{
    (*b)[off] = static_cast<uint8_t>(n >> 24);
    (*b)[off + 1] = static_cast<uint8_t>(n >> 16);
    (*b)[off + 2] = static_cast<uint8_t>(n >> 8);
    (*b)[off + 3] = static_cast<uint8_t>(n);
}

namespace {

template <typename T>
void host_at(Bytes *b, size_t off, T n)
{
    memcpy(b->data() + off, &n, sizeof n);
}

void name_at(Bytes *b, size_t off, const std::string &name, size_t field)
{
    size_t n = name.size() < field - 1 ? name.size() : field - 1;
    memcpy(b->data() + off, name.data(), n);
}

}  // namespace

// Kinds 3, 4, 5, 8, 9: one number.
Bytes tarn_key_num(uint32_t kind, uint32_t n)
{
    Bytes k(kTarnKeySize, 0);
    be32_at(&k, 0, kind);
    be32_at(&k, 4, n);
    return k;
}

// Kinds 1 and 7: a context name in bytes 4-36.
Bytes tarn_key_name(uint32_t kind, const std::string &name)
{
    Bytes k(kTarnKeySize, 0);
    be32_at(&k, 0, kind);
    name_at(&k, 4, name, TARN_NAME_SIZE);
    return k;
}

// Kind 2: context id, address family, table name in bytes 12-44.
Bytes tarn_key_table_id(uint32_t context, uint32_t af, const std::string &name)
{
    Bytes k(kTarnKeySize, 0);
    be32_at(&k, 0, TARN_KVS_KIND_TABLE_ID);
    be32_at(&k, 4, context);
    be32_at(&k, 8, af);
    name_at(&k, 12, name, TARN_NAME_SIZE);
    return k;
}

// Kind 6: ifindex, then the topology name bounded to 17 bytes (8-24).
Bytes tarn_key_if_topology(uint32_t ifindex, const std::string &name)
{
    Bytes k(kTarnKeySize, 0);
    be32_at(&k, 0, TARN_KVS_KIND_IF_TOPOLOGY);
    be32_at(&k, 4, ifindex);
    name_at(&k, 8, name, 17);
    return k;
}

// Kind 10: no fields.
Bytes tarn_key_as_format()
{
    Bytes k(kTarnKeySize, 0);
    be32_at(&k, 0, TARN_KVS_KIND_AS_FORMAT);
    return k;
}

// Gyre types 2 and 3 (interface VLANs): the IOD in bytes 4-7.
// Type 5 (a VLAN's topology): the VLAN in bytes 4-7.
Bytes gyre_key_u32(uint32_t type, uint32_t n)
{
    Bytes k(kGyreKeySize, 0);
    host_at<uint32_t>(&k, 0, type);
    host_at<uint32_t>(&k, 4, n);
    return k;
}

// Types 0 and 1 (topology VLANs): the topology name in bytes 4-36.
Bytes gyre_key_tpg_vlans(uint32_t type, const std::string &name)
{
    Bytes k(kGyreKeySize, 0);
    host_at<uint32_t>(&k, 0, type);
    name_at(&k, 4, name, TARN_NAME_SIZE);
    return k;
}

// Type 4 (a topology's ftag): stored topology id, graph u16, flag byte.
Bytes gyre_key_tpg_ftag(uint32_t stored_tpg, uint16_t graph, uint8_t flags)
{
    Bytes k(kGyreKeySize, 0);
    host_at<uint32_t>(&k, 0, 4);
    host_at<uint32_t>(&k, 4, stored_tpg);
    host_at<uint16_t>(&k, 8, graph);
    k[10] = flags;
    return k;
}

// Type 6 (an ftag's topology): the ftag u16 in bytes 4-5.
Bytes gyre_key_ftag(uint16_t ftag)
{
    Bytes k(kGyreKeySize, 0);
    host_at<uint32_t>(&k, 0, 6);
    host_at<uint16_t>(&k, 4, ftag);
    return k;
}

Bytes tarn_key_topology(uint32_t tpg)
{
    return tarn_key_num(TARN_KVS_KIND_TABLE_INFO, tpg | kTpgStored);
}

// ---- values ------------------------------------------------------------------

// Values of kinds 1 and 2: a TLV array whose first TLV (type 1) holds the id.
Bytes id_array(uint32_t id)
{
    Bytes v(12, 0);
    be32_at(&v, 0, 1);
    be32_at(&v, 4, 4);
    be32_at(&v, 8, id);
    return v;
}

void copy_name(char *dst, const std::string &s)
{
    memset(dst, 0, TARN_NAME_SIZE);
    memcpy(dst, s.data(), s.size() < kNameMax ? s.size() : kNameMax);
}

void fill_bitmap(gyre_vlan_bmp_t *bmp, const VlanSet &set)
{
    bmp->len = GYRE_VLAN_BMP_BYTES;
    memset(bmp->bits, 0, sizeof bmp->bits);
    for (uint32_t v = 0; v <= kVlanMax; ++v)
        if (set.bits[v])
            bmp->bits[v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
}

Bytes topology_table_value(uint32_t tpg)
{
    tarn_table_info_t ti;
    memset(&ti, 0, sizeof ti);
    ti.tpg_id = tpg | kTpgStored;
    copy_name(ti.name, std::to_string(tpg));
    return encode<tarn_table_info_t>(tarn_table_info_to_tlv, ti, "topology");
}

Bytes topology_vlans_value(uint32_t tpg, const VlanSet &set)
{
    gyre_tpg_vlan_info_t tv;
    memset(&tv, 0, sizeof tv);
    tv.tpg_id = tpg | kTpgStored;
    copy_name(tv.name, std::to_string(tpg));
    fill_bitmap(&tv.vlans, set);
    return encode<gyre_tpg_vlan_info_t>(gyre_tpg_vlan_info_to_tlv, tv,
                                        "topology VLAN");
}

Bytes vlan_owner_value(uint32_t tpg)
{
    gyre_kvs_vlan_info_t vi;
    memset(&vi, 0, sizeof vi);
    vi.tpg_id = tpg | kTpgStored;
    copy_name(vi.name, std::to_string(tpg));
    return encode<gyre_kvs_vlan_info_t>(gyre_kvs_vlan_info_to_tlv, vi, "VLAN");
}

Bytes topology_ftag_value(uint32_t ftag, uint32_t graph, uint32_t flags)
{
    Bytes raw(8, 0);
    const uint16_t f = static_cast<uint16_t>(ftag);
    const uint16_t g = static_cast<uint16_t>(graph);
    memcpy(raw.data(), &f, 2);
    memcpy(raw.data() + 2, &g, 2);
    memcpy(raw.data() + 4, &flags, 4);
    return raw;
}

Bytes ftag_value(uint32_t tpg, uint32_t ftag, uint32_t graph, uint32_t flags)
{
    gyre_ftag_info_t fi;
    memset(&fi, 0, sizeof fi);
    fi.tpg_id = tpg | kTpgStored;
    fi.graph_id = static_cast<uint16_t>(graph);
    fi.ftag = static_cast<uint16_t>(ftag);
    fi.flags = flags;
    return encode<gyre_ftag_info_t>(gyre_ftag_info_to_tlv, fi, "ftag");
}

Bytes as_format_value(uint32_t format)
{
    tarn_as_format_t af;
    af.format = format;
    return encode<tarn_as_format_t>(tarn_as_format_to_tlv, af, "AS format");
}

// ---- the device's databases -----------------------------------------------

std::string status_text(uint32_t st)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", st);
    return buf;
}

std::string store_cause(uint32_t st)
{
    const char *what;
    switch (st) {
    case KVS_ERR_FULL:
        what = "the store is full";
        break;
    case KVS_ERR_DAMAGED:
        what = "the store is damaged";
        break;
    case KVS_ERR_DENIED:
        what = "permission denied";
        break;
    default:
        what = syserr2str(st);
        break;
    }
    return std::string(what) + " (" + status_text(st) + ")";
}

std::string store_remedy(uint32_t st)
{
    const std::string root = tarnhost_root();
    switch (st) {
    case KVS_ERR_FULL:
        return "make room: set TARNHOST_KVS_MAPSIZE to a larger size in bytes, or free "
               "space in the file system of " +
               root;
    case KVS_ERR_DAMAGED:
        return "rebuild the device with \"tarnctl load FILE\"";
    case KVS_ERR_DENIED:
        return "check the owner and mode of " + root + " and the files in " + root +
               "/kvs: this user must be able to read and write them";
    default:
        return "";
    }
}

std::string device_db_uri(const char *name)
{
    const char *uri = supv_uri_complete(TARNHOST_RUNNING_URI, 0, name);
    return uri != nullptr ? std::string(uri) : std::string();
}

}  // namespace tarndev
