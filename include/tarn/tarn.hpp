// tarn/tarn.hpp - the C++ interface of libtarn.
//
// Header-only C++17 over the C interface of <tarn/tarn.h> and <tarn/gyre.h>:
// it adds no symbol to libtarn and builds with -fno-exceptions -fno-rtti.
//
//   tarn::Library   initialises Tarn (and Gyre) once per process and closes
//                   them when it goes; a second one is refused, and every
//                   call from another thread than the one that opened it is
//                   refused (the library takes no lock).
//   tarn::Client    binds a bus access point, registers, turns the caches
//                   on, and undoes all of it in its destructor, in reverse
//                   order, whatever step failed.  It exposes the bus
//                   descriptor and dispatches everything pending, with the
//                   message ownership rule applied for the caller.
//   Answers         Result<T>: a value, or a Status with the line the library
//                   reported (<tarn/result.hpp>).
//   Walks           input ranges: for (const Context &c : lib.contexts()).
//                   A walk that another walk of the same database overtook
//                   ends with Errc::walk_interrupted in its status() instead
//                   of a silently short list.
//   Sets            VlanSet, FtagSet (<tarn/sets.hpp>).
//   Notifications   decoded into a std::variant (<tarn/notification.hpp>).
//
// See docs/cpp.md.
#ifndef TARN_TARN_HPP
#define TARN_TARN_HPP

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <tarn/notification.hpp>
#include <tarn/result.hpp>
#include <tarn/sets.hpp>

// The C headers are C99: their flexible array members are an extension in
// C++, accepted by GCC and Clang; a -Wpedantic build of the caller's code
// is not to fail on them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <tarn/gyre.h>
#include <tarn/tarn.h>
#if __has_include(<tarnhost/platform/bus.h>)
#include <tarnhost/platform/bus.h>
#else
#include "platform/bus.h"
#endif
#pragma GCC diagnostic pop

namespace tarn {

// ---- enums ----------------------------------------------------------------

enum class ContextState : uint32_t { none = 0, down = 1, up = 2 };
enum class AddressFamily : uint32_t { none = 0, ipv4 = 1, ipv6 = 2 };
// Ftag flag bits (combine with |).
enum class FtagFlags : uint32_t { none = 0, multicast = 0x02, active = 0x04, unicast = 0x10 };
constexpr FtagFlags operator|(FtagFlags a, FtagFlags b)
{
    return static_cast<FtagFlags>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}
constexpr bool has(FtagFlags set, FtagFlags bit)
{
    return (static_cast<uint32_t>(set) & static_cast<uint32_t>(bit)) == static_cast<uint32_t>(bit);
}

inline const char *to_string(ContextState s) { return tarn_state2str(static_cast<uint32_t>(s)); }
inline const char *to_string(AddressFamily af) { return tarn_af_ix2str(static_cast<uint32_t>(af)); }
inline std::ostream &operator<<(std::ostream &os, ContextState s) { return os << to_string(s); }
inline std::ostream &operator<<(std::ostream &os, AddressFamily af) { return os << to_string(af); }

// ---- value types ----------------------------------------------------------
//
// Each keeps the library's record it was filled from; names are views of
// the value's own storage, valid as long as the value.

namespace detail {
inline std::string_view field(const char *s, size_t n)
{
    size_t len = 0;
    while (len < n && s[len] != '\0')
        ++len;
    return std::string_view(s, len);
}
// A name as the library keys it: at most 32 characters, NUL-terminated.
struct NameArg {
    char text[TARN_NAME_SIZE];
    explicit NameArg(std::string_view s)
    {
        const size_t n = s.size() < TARN_NAME_SIZE - 1 ? s.size() : TARN_NAME_SIZE - 1;
        memcpy(text, s.data(), n);
        text[n] = '\0';
    }
};
}  // namespace detail

class Context {
public:
    Context() : id_(0), info_() {}
    Context(uint32_t id, const tarn_context_info_t &info) : id_(id), info_(info) {}
    uint32_t id() const { return id_; }
    std::string_view name() const { return detail::field(info_.name, sizeof info_.name); }
    ContextState state() const { return static_cast<ContextState>(info_.state); }
    bool up() const { return info_.state == 2; }
    uint32_t reason() const { return info_.reason; }
    const char *reason_text() const { return tarn_reason2str(info_.reason); }
    const tarn_context_info_t &c() const { return info_; }
    friend bool operator==(const Context &a, const Context &b)
    {
        return a.id_ == b.id_ && a.state() == b.state() && a.reason() == b.reason() &&
               a.name() == b.name();
    }
    friend bool operator!=(const Context &a, const Context &b) { return !(a == b); }
    friend bool operator<(const Context &a, const Context &b) { return a.id_ < b.id_; }
    friend std::ostream &operator<<(std::ostream &os, const Context &c)
    {
        return os << "context " << c.id_ << " " << c.name() << " " << c.state();
    }

private:
    uint32_t id_;
    tarn_context_info_t info_;
};

class Table {
public:
    Table() : id_(0), info_() {}
    Table(uint32_t id, const tarn_table_info_t &info) : id_(id), info_(info) {}
    uint32_t id() const { return id_; }
    uint32_t context_id() const { return info_.context_id; }
    std::string_view name() const { return detail::field(info_.name, sizeof info_.name); }
    // The topology a table of the fabric carries (topology walks).
    uint32_t topology() const { return info_.tpg_id; }
    const tarn_table_info_t &c() const { return info_; }
    friend bool operator==(const Table &a, const Table &b)
    {
        return a.id_ == b.id_ && memcmp(&a.info_, &b.info_, sizeof a.info_) == 0;
    }
    friend bool operator!=(const Table &a, const Table &b) { return !(a == b); }
    friend std::ostream &operator<<(std::ostream &os, const Table &t)
    {
        return os << "table " << t.id_ << " " << t.name() << " of context " << t.context_id();
    }

private:
    uint32_t id_;
    tarn_table_info_t info_;
};

// An interface and the context it is in.
class InterfaceContext {
public:
    InterfaceContext() : ifindex_(0), info_() {}
    InterfaceContext(uint32_t ifindex, const tarn_if_context_info_t &info)
        : ifindex_(ifindex), info_(info)
    {
    }
    uint32_t ifindex() const { return ifindex_; }
    uint32_t context_id() const { return info_.context_id; }
    std::string_view context_name() const
    {
        return detail::field(info_.context_name, sizeof info_.context_name);
    }
    const tarn_if_context_info_t &c() const { return info_; }
    friend bool operator==(const InterfaceContext &a, const InterfaceContext &b)
    {
        return a.ifindex_ == b.ifindex_ && a.context_id() == b.context_id() &&
               a.context_name() == b.context_name();
    }
    friend bool operator!=(const InterfaceContext &a, const InterfaceContext &b) { return !(a == b); }
    friend std::ostream &operator<<(std::ostream &os, const InterfaceContext &i)
    {
        return os << "interface " << i.ifindex_ << " in context " << i.context_id() << " "
                  << i.context_name();
    }

private:
    uint32_t ifindex_;
    tarn_if_context_info_t info_;
};

struct RouteLimits {
    uint32_t table_id = 0;
    uint32_t limit1 = 0;
    uint32_t limit3 = 0;
    uint8_t setting1 = 0;
    uint8_t setting2 = 0;
    friend bool operator==(const RouteLimits &a, const RouteLimits &b)
    {
        return a.table_id == b.table_id && a.limit1 == b.limit1 && a.limit3 == b.limit3 &&
               a.setting1 == b.setting1 && a.setting2 == b.setting2;
    }
};

struct SiteOfOrigin {
    uint32_t word = 0;
    uint64_t value = 0;
    friend bool operator==(const SiteOfOrigin &a, const SiteOfOrigin &b)
    {
        return a.word == b.word && a.value == b.value;
    }
};

struct VpnId {
    uint32_t w0 = 0, w1 = 0, w2 = 0;
    friend bool operator==(const VpnId &a, const VpnId &b)
    {
        return a.w0 == b.w0 && a.w1 == b.w1 && a.w2 == b.w2;
    }
};

// A topology of the fabric, as the topology walk finds it.
class Topology {
public:
    Topology() : id_(0), info_() {}
    Topology(uint32_t id, const tarn_table_info_t &info) : id_(id), info_(info) {}
    uint32_t id() const { return id_; }
    std::string_view name() const { return detail::field(info_.name, sizeof info_.name); }
    const tarn_table_info_t &c() const { return info_; }
    friend bool operator==(const Topology &a, const Topology &b) { return a.id_ == b.id_; }
    friend bool operator!=(const Topology &a, const Topology &b) { return a.id_ != b.id_; }
    friend bool operator<(const Topology &a, const Topology &b) { return a.id_ < b.id_; }
    friend std::ostream &operator<<(std::ostream &os, const Topology &t)
    {
        return os << "topology " << t.id_;
    }

private:
    uint32_t id_;
    tarn_table_info_t info_;
};

struct Ftag {
    uint16_t ftag = 0;
    uint16_t graph = 0;
    FtagFlags flags = FtagFlags::none;
    uint32_t topology = GYRE_TPG_NONE;
    friend bool operator==(const Ftag &a, const Ftag &b)
    {
        return a.ftag == b.ftag && a.graph == b.graph && a.flags == b.flags &&
               a.topology == b.topology;
    }
    friend bool operator!=(const Ftag &a, const Ftag &b) { return !(a == b); }
    friend std::ostream &operator<<(std::ostream &os, const Ftag &f)
    {
        return os << "ftag " << f.ftag << " graph " << f.graph << " flags 0x" << std::hex
                  << static_cast<uint32_t>(f.flags) << std::dec;
    }
};

inline VlanSet to_set(const gyre_vlan_bmp_t &b) { return VlanSet::from_bytes(b.bits, sizeof b.bits); }
inline FtagSet to_set(const gyre_ftag_bmp_t &b) { return FtagSet::from_bytes(b.bits, sizeof b.bits); }
inline gyre_vlan_bmp_t to_bitmap(const VlanSet &s)
{
    gyre_vlan_bmp_t b;
    b.len = GYRE_VLAN_BMP_BYTES;
    memcpy(b.bits, s.data(), sizeof b.bits);
    return b;
}
inline gyre_ftag_bmp_t to_bitmap(const FtagSet &s)
{
    gyre_ftag_bmp_t b;
    b.len = GYRE_FTAG_BMP_BYTES;
    memcpy(b.bits, s.data(), sizeof b.bits);
    return b;
}

// ---- the library ----------------------------------------------------------

template <class Policy>
class Walk;
class Client;

// What a Library is opened with.
struct LibraryOptions {
    // Also open the Gyre side (its database) now; queries open it lazily
    // otherwise.
    bool gyre = true;
    // Reads the line the library reported for the failure just seen: true
    // with the line, false when there was none.  Without it a negative
    // answer is Errc::not_found_or_failed.  On the host,
    // tarnhost::take_report (<tarnhost/tarnhost.hpp>).
    bool (*take_report)(std::string *line) = nullptr;
};

namespace detail {
// The library's state is the process's, as in C: one owner at a time, its
// thread, its options and the walk tickets.  Library objects, clients and
// walks refer to it, never to each other's addresses, so moving a Library
// leaves them valid.
struct LibraryState {
    std::atomic<bool> taken{false};
    bool open = false;
    std::thread::id owner;
    LibraryOptions options;
    uint64_t tickets[2] = {0, 0};  // walks per database: 0 Tarn, 1 Gyre

    Status check(const char *what) const
    {
        if (!open)
            return Status(Errc::closed, what, "the tarn::Library is closed");
        if (std::this_thread::get_id() != owner)
            return Status(Errc::wrong_thread, what,
                          "tarn::Library is used from the thread that opened it only");
        return Status();
    }
    Status negative(const char *what) const
    {
        if (options.take_report == nullptr)
            return Status(Errc::not_found_or_failed, what);
        std::string line;
        if (options.take_report(&line))
            return Status(Errc::failed, what, std::move(line));
        return Status(Errc::not_found, what);
    }
};
// Constant-initialised: no guard to test on every call.
inline LibraryState g_state;
inline LibraryState &state() { return g_state; }
}  // namespace detail

class Library {
public:
    using Options = LibraryOptions;

    // Initialises Tarn (tarn_api_init) and, when asked, Gyre.  Errc::
    // already_open while another Library of this process is open.
    static Result<Library> open(const Options &options)
    {
        bool expected = false;
        if (!detail::state().taken.compare_exchange_strong(expected, true))
            return Status(Errc::already_open, "tarn::Library::open",
                          "another tarn::Library of this process is open; the library "
                          "initialises once per process");
        Library lib(options);
        if (tarn_api_init() != TARN_SUCCESS || tarn_clt == nullptr || tarn_clt->initialized == 0)
            return lib.failure("tarn_api_init");
        if (options.gyre && gyre_api_init() != TARN_SUCCESS)
            return lib.failure("gyre_api_init");
        return Result<Library>(std::move(lib));
    }
    static Result<Library> open() { return open(Options()); }

    Library(Library &&o) noexcept : owns_(std::exchange(o.owns_, false)) {}
    Library &operator=(Library &&o) noexcept
    {
        if (this != &o) {
            close();
            owns_ = std::exchange(o.owns_, false);
        }
        return *this;
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() { close(); }

    // Closes Gyre and Tarn now (the destructor does it otherwise).  Only
    // the owning thread closes; from another the call is refused.
    Status close()
    {
        if (!owns_)
            return Status();
        if (Status s = check("tarn::Library::close"); !s)
            return s;
        gyre_api_close();
        tarn_api_close();
        owns_ = false;
        detail::LibraryState &st = detail::state();
        st.open = false;
        st.taken.store(false);
        return Status();
    }
    bool is_open() const { return owns_; }

    // -- contexts --
    Result<uint32_t> context_id(std::string_view name) const
    {
        if (Status s = check("tarn_get_context_id"); !s)
            return s;
        const detail::NameArg n(name);
        const uint32_t id = tarn_get_context_id(n.text);
        if (id == 0)
            return negative("tarn_get_context_id");
        return id;
    }
    Result<Context> context(uint32_t id) const
    {
        if (Status s = check("tarn_get_context_info"); !s)
            return s;
        tarn_context_info_t info;
        if (tarn_get_context_info(id, &info) != TARN_SUCCESS)
            return negative("tarn_get_context_info");
        return Context(id, info);
    }
    Result<Context> context(std::string_view name) const
    {
        Result<uint32_t> id = context_id(name);
        if (!id)
            return id.status();
        return context(*id);
    }

    // -- tables --
    Result<uint32_t> table_id(uint32_t context_id, AddressFamily af, std::string_view name) const
    {
        if (Status s = check("tarn_get_table_id"); !s)
            return s;
        const detail::NameArg n(name);
        const uint32_t id = tarn_get_table_id(context_id, static_cast<uint32_t>(af), n.text);
        if (id == 0)
            return negative("tarn_get_table_id");
        return id;
    }
    Result<Table> table(uint32_t id) const
    {
        if (Status s = check("tarn_get_table_info"); !s)
            return s;
        tarn_table_info_t info;
        if (tarn_get_table_info(id, &info) != TARN_SUCCESS)
            return negative("tarn_get_table_info");
        return Table(id, info);
    }

    // -- interfaces --
    Result<InterfaceContext> interface_context(uint32_t ifindex) const
    {
        if (Status s = check("tarn_if_get_context_info"); !s)
            return s;
        tarn_if_context_info_t info;
        if (tarn_if_get_context_info(ifindex, &info) != TARN_SUCCESS)
            return negative("tarn_if_get_context_info");
        return InterfaceContext(ifindex, info);
    }
    // Whether the interface's context exists and is up (no failure value:
    // the library answers only yes or no).
    bool interface_usable(uint32_t ifindex) const
    {
        return check("tarn_is_if_usable").ok() && tarn_is_if_usable(ifindex) == 1;
    }

    // -- attributes --
    Result<RouteLimits> route_limits(uint32_t table_id) const
    {
        if (Status s = check("tarn_get_rt_limits_info"); !s)
            return s;
        tarn_rt_limits_t l;
        if (tarn_get_rt_limits_info(table_id, &l) != TARN_SUCCESS)
            return negative("tarn_get_rt_limits_info");
        return RouteLimits{l.table_id, l.limit1, l.limit3, l.setting1, l.setting2};
    }
    Result<SiteOfOrigin> site_of_origin(uint32_t ifindex) const
    {
        if (Status s = check("tarn_get_if_soo_info"); !s)
            return s;
        tarn_soo_info_t soo;
        if (tarn_get_if_soo_info(ifindex, &soo) != TARN_SUCCESS)
            return negative("tarn_get_if_soo_info");
        return SiteOfOrigin{soo.word, soo.soo};
    }
    Result<VpnId> vpn_id(std::string_view vrf) const
    {
        if (Status s = check("tarn_get_context_vpnid"); !s)
            return s;
        const detail::NameArg n(vrf);
        tarn_vpnid_info_t v;
        if (tarn_get_context_vpnid(n.text, &v) != TARN_SUCCESS)
            return negative("tarn_get_context_vpnid");
        return VpnId{v.w0, v.w1, v.w2};
    }
    // The AS-number display format (1 unless tracked by a client).
    uint32_t as_format() const { return tarn_get_as_format(); }

    // -- Gyre --
    Result<uint32_t> ftag_topology(uint16_t ftag) const
    {
        if (Status s = check("gyre_get_ftag_l2_tpg"); !s)
            return s;
        const uint32_t t = gyre_get_ftag_l2_tpg(ftag);
        if (t == GYRE_TPG_NONE)
            return negative("gyre_get_ftag_l2_tpg");
        return t;
    }
    Result<uint32_t> vlan_topology(uint32_t vlan) const
    {
        if (Status s = check("gyre_get_vlan_l2_tpg"); !s)
            return s;
        const uint32_t t = gyre_get_vlan_l2_tpg(vlan);
        if (t == GYRE_TPG_NONE)
            return negative("gyre_get_vlan_l2_tpg");
        return t;
    }
    Result<uint16_t> topology_ftag(uint32_t topology, uint16_t graph) const
    {
        if (Status s = check("gyre_get_l2_tpg_ftag"); !s)
            return s;
        uint16_t f = 0;
        if (gyre_get_l2_tpg_ftag(topology, graph, &f) != TARN_SUCCESS)
            return negative("gyre_get_l2_tpg_ftag");
        return f;
    }
    Result<uint16_t> unicast_ftag(uint32_t topology) const
    {
        if (Status s = check("gyre_get_l2_tpg_unicast_ftag"); !s)
            return s;
        uint16_t f = 0;
        if (gyre_get_l2_tpg_unicast_ftag(topology, &f) != TARN_SUCCESS)
            return negative("gyre_get_l2_tpg_unicast_ftag");
        return f;
    }
    Result<VlanSet> topology_vlans(uint32_t topology) const
    {
        if (Status s = check("gyre_get_l2_tpg_act_vlans"); !s)
            return s;
        gyre_vlan_bmp_t b;
        memset(&b, 0, sizeof b);
        if (gyre_get_l2_tpg_act_vlans(topology, &b) != TARN_SUCCESS)
            return negative("gyre_get_l2_tpg_act_vlans");
        return to_set(b);
    }
    Result<VlanSet> interface_vlans(uint32_t ifindex) const
    {
        if (Status s = check("gyre_get_if_act_vlans"); !s)
            return s;
        gyre_vlan_bmp_t b;
        memset(&b, 0, sizeof b);
        if (gyre_get_if_act_vlans(ifindex, &b) != TARN_SUCCESS)
            return negative("gyre_get_if_act_vlans");
        return to_set(b);
    }
    Result<VlanSet> ftag_vlans(uint16_t ftag) const
    {
        if (Status s = check("gyre_get_ftag_vlans"); !s)
            return s;
        gyre_vlan_bmp_t b;
        memset(&b, 0, sizeof b);
        if (gyre_get_ftag_vlans(ftag, &b) != TARN_SUCCESS)
            return negative("gyre_get_ftag_vlans");
        return to_set(b);
    }

    // What the Gyre cache holds for a topology now (not_found when the
    // cache does not hold it, or is off).
    struct CachedTopology {
        VlanSet vlans;
        FtagSet ftags;
    };
    Result<CachedTopology> cached_topology(uint32_t topology) const
    {
        if (Status s = check("gyre_cache_get_topo_info"); !s)
            return s;
        gyre_vlan_bmp_t vlans;
        gyre_ftag_bmp_t ftags;
        if (gyre_cache_get_topo_info(topology, &vlans, &ftags) != TARN_SUCCESS)
            return Status(Errc::not_found, "gyre_cache_get_topo_info");
        return CachedTopology{to_set(vlans), to_set(ftags)};
    }

    // -- walks (defined below) --
    Walk<struct ContextWalk> contexts();
    Walk<struct InterfaceWalk> interfaces();
    Walk<struct InterfaceWalk> interfaces(std::string_view context_name);
    Walk<struct TopologyWalk> topologies();
    Walk<struct InterfaceTableWalk> interface_tables(uint32_t ifindex);
    Walk<struct FtagWalk> ftags(FtagFlags filter, uint32_t topology = GYRE_TPG_NONE);
    Walk<struct TopologyFtagWalk> topology_ftags(uint32_t topology);

    // Refusal of a call from another thread than the owner's, or after
    // close; ok otherwise.
    Status check(const char *what) const
    {
        if (!owns_)
            return Status(Errc::closed, what, "the tarn::Library is closed");
        return detail::state().check(what);
    }
    // The status of a negative answer: the library's report when there was
    // one (a failure), none (absence).
    Status negative(const char *what) const { return detail::state().negative(what); }

private:
    template <class>
    friend class Walk;
    friend class Client;

    explicit Library(const Options &options) : owns_(true)
    {
        detail::LibraryState &st = detail::state();
        st.open = true;
        st.owner = std::this_thread::get_id();
        st.options = options;
    }
    Status failure(const char *what)
    {
        Status s = negative(what);
        Status out(Errc::failed, what, s.report());
        close();
        return out;
    }

    bool owns_ = false;
};

// ---- walks ----------------------------------------------------------------
//
// A Policy gives value_type, the database it walks (kDb: 0 Tarn, 1 Gyre),
// whether each step continues from the database's shared position
// (kContinues: a walk that repositions at every step cannot be misled by
// another walk), and first(v) / next(v), true while they found one.

template <class Policy>
class Walk {
public:
    using value_type = typename Policy::value_type;

    explicit Walk(Policy policy) : policy_(std::move(policy)) {}

    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = typename Policy::value_type;
        using difference_type = ptrdiff_t;
        using pointer = const value_type *;
        using reference = const value_type &;
        iterator() = default;
        const value_type &operator*() const { return walk_->current_; }
        const value_type *operator->() const { return &walk_->current_; }
        iterator &operator++()
        {
            if (!walk_->advance())
                walk_ = nullptr;
            return *this;
        }
        void operator++(int) { ++*this; }
        bool operator==(const iterator &o) const { return walk_ == o.walk_; }
        bool operator!=(const iterator &o) const { return walk_ != o.walk_; }

    private:
        friend class Walk;
        explicit iterator(Walk *w) : walk_(w) {}
        Walk *walk_ = nullptr;
    };

    // Starts (or restarts) the walk.
    iterator begin()
    {
        detail::LibraryState &st = detail::state();
        status_ = st.check(Policy::kName);
        if (!status_)
            return end();
        ticket_ = ++st.tickets[Policy::kDb];
        if (!policy_.first(&current_)) {
            finish();
            return end();
        }
        return iterator(this);
    }
    iterator end() { return iterator(); }

    // After the loop: ok when the walk ran to its end, else why it stopped.
    const Status &status() const { return status_; }

    // The whole walk as a list, or why it stopped short.
    Result<std::vector<value_type>> collect()
    {
        std::vector<value_type> out;
        for (const value_type &v : *this)
            out.push_back(v);
        if (!status_)
            return status_;
        return out;
    }

private:
    bool advance()
    {
        if (Policy::kContinues && detail::state().tickets[Policy::kDb] != ticket_) {
            status_ = Status(Errc::walk_interrupted, Policy::kName,
                             std::string("another walk of the ") +
                                 (Policy::kDb == 0 ? "Tarn" : "Gyre") +
                                 " database started before this one ended; finish one walk "
                                 "(or collect() it) before starting the next");
            return false;
        }
        if (policy_.next(&current_))
            return true;
        finish();
        return false;
    }
    // The end of a walk: the library's report, if it left one, says the
    // walk failed rather than ended.
    void finish()
    {
        const LibraryOptions &o = detail::state().options;
        if (o.take_report == nullptr)
            return;
        std::string line;
        if (o.take_report(&line))
            status_ = Status(Errc::failed, Policy::kName, std::move(line));
    }

    Policy policy_;
    value_type current_{};
    uint64_t ticket_ = 0;
    Status status_;
};

struct ContextWalk {
    using value_type = Context;
    static constexpr int kDb = 0;
    static constexpr bool kContinues = false;
    static constexpr const char *kName = "tarn_get_next_context_info";
    bool first(Context *c) { return step(0, c); }
    bool next(Context *c) { return step(c->id(), c); }
    static bool step(uint32_t after, Context *c)
    {
        tarn_context_info_t info;
        const uint32_t id = tarn_get_next_context_info(after, &info);
        if (id == 0)
            return false;
        *c = Context(id, info);
        return true;
    }
};

struct InterfaceWalk {
    using value_type = InterfaceContext;
    static constexpr int kDb = 0;
    static constexpr bool kContinues = false;
    static constexpr const char *kName = "tarn_get_next_if_context_info";
    bool filtered = false;
    std::string context;
    bool first(InterfaceContext *i) { return step(0, i); }
    bool next(InterfaceContext *i) { return step(i->ifindex(), i); }
    bool step(uint32_t after, InterfaceContext *i) const
    {
        tarn_if_context_info_t info;
        const uint32_t ifindex =
            tarn_get_next_if_context_info(after, filtered ? context.c_str() : nullptr, &info);
        if (ifindex == 0)
            return false;
        *i = InterfaceContext(ifindex, info);
        return true;
    }
};

struct TopologyWalk {
    using value_type = Topology;
    static constexpr int kDb = 0;
    static constexpr bool kContinues = true;
    static constexpr const char *kName = "gyre_get_next_l2_tpg";
    bool first(Topology *t) { return take(gyre_get_first_l2_tpg(&info), t); }
    bool next(Topology *t) { return take(gyre_get_next_l2_tpg(&info), t); }
    tarn_table_info_t info{};
    bool take(uint32_t id, Topology *t) const
    {
        // 0 is the answer of an uninitialised client, never a topology.
        if (id == GYRE_TPG_NONE || id == 0)
            return false;
        *t = Topology(id, info);
        return true;
    }
};

struct InterfaceTableWalk {
    using value_type = Table;
    static constexpr int kDb = 0;
    static constexpr bool kContinues = true;
    static constexpr const char *kName = "gyre_get_next_if_table_info";
    uint32_t ifindex = 0;
    bool first(Table *t) { return step(1, t); }
    bool next(Table *t) { return step(0, t); }
    bool step(uint32_t restart, Table *t) const
    {
        tarn_table_info_t info;
        const uint32_t tpg = gyre_get_next_if_table_info(ifindex, restart, &info);
        if (tpg == GYRE_TPG_NONE || tpg == 0)
            return false;
        *t = Table(tpg, info);
        return true;
    }
};

struct FtagWalk {
    using value_type = Ftag;
    static constexpr int kDb = 1;
    static constexpr bool kContinues = true;
    static constexpr const char *kName = "gyre_get_next_ftag_by_filter";
    uint32_t topology = GYRE_TPG_NONE;
    FtagFlags filter = FtagFlags::none;
    bool first(Ftag *f) { return take(gyre_get_first_ftag_by_filter(topology, static_cast<uint32_t>(filter), &f->ftag), f); }
    bool next(Ftag *f) { return take(gyre_get_next_ftag_by_filter(topology, static_cast<uint32_t>(filter), &f->ftag), f); }
    bool take(uint32_t found, Ftag *f) const
    {
        // The walk by filter names only the ftag; the rest is the filter's.
        f->flags = filter;
        f->topology = topology;
        return found == 1;
    }
};

struct TopologyFtagWalk {
    using value_type = Ftag;
    static constexpr int kDb = 1;
    static constexpr bool kContinues = true;
    static constexpr const char *kName = "gyre_get_l2_tpg_next_ftag";
    uint32_t topology = 0;
    bool first(Ftag *f) { return step(true, f); }
    bool next(Ftag *f) { return step(false, f); }
    bool step(bool start, Ftag *f) const
    {
        gyre_ftag_info_t info;
        memset(&info, 0, sizeof info);
        info.tpg_id = topology;
        const uint32_t r = start ? gyre_get_l2_tpg_first_ftag(topology, &info)
                                 : gyre_get_l2_tpg_next_ftag(topology, &info);
        if (r != 1)
            return false;
        *f = Ftag{info.ftag, info.graph_id, static_cast<FtagFlags>(info.flags), topology};
        return true;
    }
};

inline Walk<ContextWalk> Library::contexts() { return Walk<ContextWalk>(ContextWalk{}); }
inline Walk<InterfaceWalk> Library::interfaces()
{
    return Walk<InterfaceWalk>(InterfaceWalk{});
}
inline Walk<InterfaceWalk> Library::interfaces(std::string_view context_name)
{
    InterfaceWalk w;
    w.filtered = true;
    w.context = std::string(context_name);
    return Walk<InterfaceWalk>(std::move(w));
}
inline Walk<TopologyWalk> Library::topologies() { return Walk<TopologyWalk>(TopologyWalk{}); }
inline Walk<InterfaceTableWalk> Library::interface_tables(uint32_t ifindex)
{
    InterfaceTableWalk w;
    w.ifindex = ifindex;
    return Walk<InterfaceTableWalk>(w);
}
inline Walk<FtagWalk> Library::ftags(FtagFlags filter, uint32_t topology)
{
    FtagWalk w;
    w.filter = filter;
    w.topology = topology;
    return Walk<FtagWalk>(w);
}
inline Walk<TopologyFtagWalk> Library::topology_ftags(uint32_t topology)
{
    TopologyFtagWalk w;
    w.topology = topology;
    return Walk<TopologyFtagWalk>(w);
}

// ---- notifications as the client hands them over -------------------------

class Notification {
public:
    Notification(Decoded decoded, int32_t result, bus_msg_t *message)
        : decoded_(std::move(decoded)), result_(result), message_(message)
    {
    }
    uint32_t opcode() const { return decoded_.opcode; }
    const Decoded &decoded() const { return decoded_; }
    const Event &event() const { return decoded_.event; }
    // What tarn_dispatch answered: 1 applied (and the message is gone), 0
    // outside cell 1, -1 not the library's.
    int32_t result() const { return result_; }
    bool taken() const { return result_ == 1; }
    // The bus message itself while the caller still owns it (not taken),
    // during the handler only: the client drops it when the handler
    // returns.  Null for a message the library took.
    bus_msg_t *message() const { return message_; }

private:
    Decoded decoded_;
    int32_t result_;
    bus_msg_t *message_;
};

// ---- the client -----------------------------------------------------------

class Client {
public:
    struct Options {
        // The access point to bind (>= 1), or -1 for a dynamic handle.
        int32_t access_point = -1;
        const char *name = "libtarn client";
        bool tarn = true;        // tarn_register
        bool gyre = true;        // gyre_register
        bool as_format = true;   // tarn_track_as_format
        bool gyre_cache = true;  // gyre_enable_cache_mode
        // The descriptor behind the bus handle, for poll and event loops;
        // the platform's (on the host, tarnhost_bus_fd).
        int (*descriptor)(uint32_t handle) = nullptr;
        // Registers and enables what the four flags ask for instead of
        // the client doing it: null on success, else the failing call's name
        // (on the host, tarnhost_client_start, which also lets the host's
        // tools inspect the client).
        const char *(*start)(uint32_t handle, uint32_t what) = nullptr;
        // Dispatches instead of tarn_dispatch, with the same results (on
        // the host, tarnhost_client_dispatch, which answers the host's
        // inspection request too).
        int32_t (*dispatch)(uint32_t handle, bus_msg_t *msg) = nullptr;
    };
    // The bits handed to Options::start.
    static constexpr uint32_t kStartTarn = 0x1, kStartGyre = 0x2, kStartAsFormat = 0x4,
                              kStartGyreCache = 0x8;

    static Result<Client> open(Library &lib, const Options &options)
    {
        if (Status s = lib.check("tarn::Client::open"); !s)
            return s;
        if (options.access_point == 0 || options.access_point < -1)
            return Status(Errc::invalid_argument, "tarn::Client::open",
                          "the access point is 1 or above, or -1 for a dynamic handle");
        bus_addr_t addr;
        memset(&addr, 0, sizeof addr);
        const uint32_t h = bus_bind(0, options.access_point, &addr, options.name);
        if (h == BUS_HANDLE_NONE) {
            const int err = errno;
            return Status(Errc::bus_failed, "bus_bind", strerror(err), err);
        }
        Client c(h, options);
        if (Status s = c.start(); !s)
            return s;  // c's destructor undoes what was done
        return Result<Client>(std::move(c));
    }

    Client(Client &&o) noexcept
        : handle_(std::exchange(o.handle_, BUS_HANDLE_NONE)),
          options_(o.options_)
    {
    }
    Client &operator=(Client &&o) noexcept
    {
        if (this != &o) {
            close();
            handle_ = std::exchange(o.handle_, BUS_HANDLE_NONE);
            options_ = o.options_;
        }
        return *this;
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { close(); }

    // Turns the caches off, deregisters and unbinds, in that order; also
    // after a start that failed half way (each step is harmless when its
    // counterpart was not done).
    Status close()
    {
        if (handle_ == BUS_HANDLE_NONE)
            return Status();
        // With the library closed (which deregistered everything) only the
        // handle is left to release.
        if (detail::state().open) {
            if (Status s = detail::state().check("tarn::Client::close"); !s)
                return s;
            gyre_disable_cache_mode();
            gyre_deregister(handle_);
            tarn_disable_cache_mode();
            tarn_deregister();
        }
        bus_unbind(handle_);
        handle_ = BUS_HANDLE_NONE;
        return Status();
    }

    uint32_t handle() const { return handle_; }
    // The bus descriptor to wait on (readable while a message waits), or
    // -1 when the platform gave no way to find it.
    int descriptor() const
    {
        return options_.descriptor != nullptr && handle_ != BUS_HANDLE_NONE
                   ? options_.descriptor(handle_)
                   : -1;
    }

    // Receives every message waiting now (without blocking) and hands each
    // to the library.  Each is decoded BEFORE dispatch, since dispatch may
    // free it; then `on(const Notification &)` is called, the library's
    // state already updated.  A message the library did not take (result
    // 0 or -1) is the caller's: the client drops it after the handler.
    // Returns how many messages were handled.
    template <class Handler>
    Result<size_t> dispatch_pending(Handler &&on)
    {
        if (Status s = lib_check("tarn::Client::dispatch_pending"); !s)
            return s;
        size_t n = 0;
        while (bus_msg_t *msg = bus_recv(handle_, nullptr)) {
            uint32_t len = 0;
            const void *p = bus_payload_get(msg, &len);
            Decoded d = decode_notification(bus_opc_get(msg), p, len);
            const int32_t r = options_.dispatch != nullptr ? options_.dispatch(handle_, msg)
                                                           : tarn_dispatch(msg);
            const Notification note(std::move(d), r, r == 1 ? nullptr : msg);
            on(note);
            if (r != 1)
                bus_drop(handle_, msg);
            ++n;
        }
        return n;
    }
    // The same, collecting the notifications (their messages already
    // dropped).
    Result<std::vector<Notification>> dispatch_pending()
    {
        std::vector<Notification> out;
        Result<size_t> r = dispatch_pending([&](const Notification &n) {
            out.emplace_back(n.decoded(), n.result(), nullptr);
        });
        if (!r)
            return r.status();
        return out;
    }

    // The notices the library sends.
    Status send_protocol_config_change(uint32_t type, std::string_view name, uint32_t param,
                                       std::string_view context,
                                       const std::vector<uint32_t> &entries)
    {
        if (Status s = lib_check("tarn_send_protocol_config_change_msg"); !s)
            return s;
        if (entries.size() > 0xFFFF)
            return Status(Errc::invalid_argument, "tarn_send_protocol_config_change_msg",
                          "at most 65535 entries");
        const detail::NameArg n(name), c(context);
        if (tarn_send_protocol_config_change_msg(type, name.empty() ? nullptr : n.text, param,
                                                 c.text, static_cast<uint16_t>(entries.size()),
                                                 entries.data()) != TARN_SUCCESS)
            return detail::state().negative("tarn_send_protocol_config_change_msg");
        return Status();
    }
    Status ftag_converge()
    {
        if (Status s = lib_check("gyre_ftag_converge"); !s)
            return s;
        return gyre_ftag_converge() == TARN_SUCCESS ? Status() : detail::state().negative("gyre_ftag_converge");
    }
    Status ftag_stale(uint32_t topology)
    {
        if (Status s = lib_check("gyre_ftag_stale"); !s)
            return s;
        return gyre_ftag_stale(topology) == TARN_SUCCESS ? Status() : detail::state().negative("gyre_ftag_stale");
    }

private:
    Client(uint32_t handle, const Options &options) : handle_(handle), options_(options)
    {
    }
    Status lib_check(const char *what) const
    {
        if (handle_ == BUS_HANDLE_NONE)
            return Status(Errc::closed, what, "the client is closed");
        return detail::state().check(what);
    }
    Status start()
    {
        const uint32_t what = (options_.tarn ? kStartTarn : 0) | (options_.gyre ? kStartGyre : 0) |
                              (options_.as_format ? kStartAsFormat : 0) |
                              (options_.gyre_cache ? kStartGyreCache : 0);
        // Enabling the Gyre cache walks the topologies: any walk in
        // progress is overtaken.
        if ((what & kStartGyreCache) != 0)
            ++detail::state().tickets[0];
        if (options_.start != nullptr) {
            const char *step = options_.start(handle_, what);
            return step == nullptr ? Status() : failed(step);
        }
        if ((what & kStartTarn) != 0 && tarn_register(handle_) != TARN_SUCCESS)
            return failed("tarn_register");
        if ((what & kStartGyre) != 0 && gyre_register(handle_) != TARN_SUCCESS)
            return failed("gyre_register");
        if ((what & kStartAsFormat) != 0 && tarn_track_as_format() != TARN_SUCCESS)
            return failed("tarn_track_as_format");
        if ((what & kStartGyreCache) != 0) {
            gyre_cache_attr_t attr;
            attr.bus_handle = handle_;
            if (gyre_enable_cache_mode(&attr) != TARN_SUCCESS)
                return failed("gyre_enable_cache_mode");
        }
        return Status();
    }
    Status failed(const char *what) const
    {
        Status s = detail::state().negative(what);
        return Status(Errc::failed, what, s.report());
    }

    uint32_t handle_;
    Options options_;
};

}  // namespace tarn

#endif
