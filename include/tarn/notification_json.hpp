// tarn/notification_json.hpp - a decoded payload as one JSON object.
//
// The one rendering of <tarn/notification.hpp>'s events: "tarnctl watch
// --json" puts it beside the raw payload, and libtarnhost's
// tarnhost_notification_json hands it to the Python package.  Sets appear
// twice, as the library's range text ("vlans": "10-20") and as a list
// ("vlan_list": [10, ..., 20]).  Text fields are copied as they are when they
// are UTF-8; a byte that is not is written as the character of the same
// value (\u00XX), so the document is always valid JSON.
//
// Header-only C++17; builds with -fno-exceptions -fno-rtti.
#ifndef TARN_NOTIFICATION_JSON_HPP
#define TARN_NOTIFICATION_JSON_HPP

#include <stdio.h>

#include <string>
#include <string_view>

#include <tarn/notification.hpp>

namespace tarn {

namespace detail {

class JsonWriter {
public:
    std::string out;

    void open() { item(), out += '{', first_ = true; }
    void close() { out += '}', first_ = false; }
    void open_list(const char *k) { key(k), out += '[', first_ = true; }
    void close_list() { out += ']', first_ = false; }
    void open_object_item() { open(); }

    void field(const char *k, uint64_t v) { key(k), number(v); }
    void field(const char *k, bool v) { key(k), out += v ? "true" : "false", first_ = false; }
    void field(const char *k, std::string_view v) { key(k), text(v); }
    void field(const char *k, const char *v) { field(k, std::string_view(v)); }
    void null_field(const char *k) { key(k), out += "null", first_ = false; }
    template <uint32_t N>
    void set(const char *text_key, const char *list_key, const BitSet<N> &s)
    {
        field(text_key, std::string_view(s.to_string()));
        open_list(list_key);
        for (uint32_t i : s)
            item(), number(i);
        close_list();
    }
    void number_item(uint64_t v) { item(), number(v); }

private:
    bool first_ = true;
    void item()
    {
        if (!first_)
            out += ',';
        first_ = false;
    }
    void key(const char *k)
    {
        item();
        text(k);
        out += ':';
        first_ = true;  // the value that follows needs no comma
    }
    void number(uint64_t v)
    {
        out += std::to_string(v);
        first_ = false;
    }
    static size_t utf8_length(const unsigned char *s, size_t n)
    {
        const unsigned char c = s[0];
        const size_t len = c > 0xF4 ? 0 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
        if (len == 0 || len > n)
            return 0;
        for (size_t i = 1; i < len; ++i)
            if ((s[i] & 0xC0) != 0x80)
                return 0;
        // Overlong three- and four-byte forms, surrogates and values past
        // U+10FFFF are not UTF-8.
        if ((c == 0xE0 && s[1] < 0xA0) || (c == 0xED && s[1] >= 0xA0) ||
            (c == 0xF0 && s[1] < 0x90) || (c == 0xF4 && s[1] >= 0x90))
            return 0;
        return len;
    }
    void text(std::string_view v)
    {
        out += '"';
        const unsigned char *s = reinterpret_cast<const unsigned char *>(v.data());
        for (size_t i = 0; i < v.size();) {
            const unsigned char c = s[i];
            if (c >= 0x80) {
                const size_t n = utf8_length(s + i, v.size() - i);
                if (n != 0) {
                    out.append(v.data() + i, n);
                    i += n;
                    continue;
                }
            }
            if (c == '"' || c == '\\') {
                out += '\\', out += static_cast<char>(c);
            } else if (c < 0x20 || c >= 0x80) {
                char esc[8];
                snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            } else {
                out += static_cast<char>(c);
            }
            ++i;
        }
        out += '"';
        first_ = false;
    }
};

struct JsonFields {
    JsonWriter &w;

    void operator()(const Undecodable &) {}
    void operator()(const TopologyCreated &e) { w.field("topology", uint64_t{e.topology}); }
    void operator()(const TopologyDeleted &e) { w.field("topology", uint64_t{e.topology}); }
    void operator()(const TopologyVlansChanged &e)
    {
        w.field("declared", uint64_t{e.declared});
        w.open_list("records");
        for (const TopologyVlans &r : e.records) {
            w.open_object_item();
            w.field("topology", uint64_t{r.topology});
            w.field("name", std::string_view(r.name));
            w.field("bitmap_length", uint64_t{r.bitmap_length});
            w.set("vlans", "vlan_list", r.vlans);
            w.close();
        }
        w.close_list();
    }
    void operator()(const FtagsChanged &e)
    {
        w.field("declared", uint64_t{e.declared});
        w.open_list("entries");
        for (const FtagChange &f : e.entries) {
            w.open_object_item();
            w.field("reason", uint64_t{f.reason});
            w.field("reason_name", ftag_reason_name(f.reason));
            w.field("topology", uint64_t{f.topology});
            w.field("graph", uint64_t{f.graph});
            w.field("ftag", uint64_t{f.ftag});
            w.field("flags", uint64_t{f.flags});
            w.close();
        }
        w.close_list();
    }
    void operator()(const GyreNotice &) {}
    void operator()(const AsFormatChanged &e)
    {
        w.field("kind", uint64_t{1});
        w.field("as_format", uint64_t{e.format});
    }
    void operator()(const TopologyFtagsDeleted &e)
    {
        w.field("kind", uint64_t{2});
        w.field("topology", uint64_t{e.topology});
        w.set("ftags", "ftag_list", e.ftags);
    }
    void operator()(const GyreCacheFlushed &) { w.field("kind", uint64_t{3}); }
    void operator()(const CacheDumpRequest &e)
    {
        w.field("kind", uint64_t{4});
        w.field("pid", uint64_t{e.pid});
        w.field("epid", uint64_t{e.epid});
        w.field("request_time", e.time);
        w.field("length", uint64_t{e.length});
        w.field("iteration", uint64_t{e.iteration});
    }
    void operator()(const AttributeChanged &e) { w.field("kind", uint64_t{e.kind}); }
    void operator()(const ProtocolConfigChange &e)
    {
        w.field("config_type", uint64_t{e.type});
        w.field("param", uint64_t{e.param});
        w.field("name", std::string_view(e.name));
        w.field("context", std::string_view(e.context));
        w.field("declared", uint64_t{e.declared});
        w.open_list("entries");
        for (uint32_t v : e.entries)
            w.number_item(v);
        w.close_list();
    }
    void operator()(const FtagNotice &e)
    {
        w.field("kind", uint64_t{e.kind});
        w.field("topology", uint64_t{e.topology});
    }
    void operator()(const CacheDumpPage &e)
    {
        w.field("status", uint64_t{e.status});
        w.field("next_iteration", uint64_t{e.next_iteration});
        w.field("declared", uint64_t{e.declared});
        w.open_list("records");
        for (const CacheDumpRecord &r : e.records) {
            w.open_object_item();
            w.field("topology", uint64_t{r.topology});
            w.set("ftags", "ftag_list", r.ftags);
            w.set("vlans", "vlan_list", r.vlans);
            w.field("in_sync", uint64_t{r.in_sync});
            w.close();
        }
        w.close_list();
    }
};

}  // namespace detail

// {"type": "topology_vlans", "complete": false, "problem": "...", ...fields}
inline std::string to_json(const Decoded &d)
{
    detail::JsonWriter w;
    w.open();
    w.field("type", event_name(d.event));
    w.field("complete", d.complete());
    if (d.complete())
        w.null_field("problem");
    else
        w.field("problem", std::string_view(d.problem()));
    std::visit(detail::JsonFields{w}, d.event);
    w.close();
    return std::move(w.out);
}

}  // namespace tarn

#endif
