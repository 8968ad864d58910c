// VLAN and ftag sets as range text.

#include <string.h>

#include "gyre/bits.h"
#include "gyre/decimal.h"
#include "gyre/internal.h"
#include "platform/dbgwrap.h"
#include "platform/kpipe.h"

extern "C" {
TARN_API char gyre_scratch_bmp_str[2098];
TARN_API char gyre_scratch_bmp_str2[2098];
}

namespace {

const char kEmptySet[] = "--";

// The longest item of either notation: ",4095-4095" or "4095-4095 ".
constexpr size_t kLongestItem = 10;

// One item of either notation, exactly: [lead]first[-last][tail]; returns
// the end.
inline char *put_item(char *p, char lead, uint32_t first, uint32_t last, char tail)
{
    if (lead != '\0')
        *p++ = lead;
    p = gyre::put_decimal(p, first);
    if (last != first) {
        *p++ = '-';
        p = gyre::put_decimal(p, last);
    }
    if (tail != '\0')
        *p++ = tail;
    return p;
}

// The most text the runs that one word closes can take: a run open from
// an earlier word and 32 more, each at most kLongestItem bytes; and the
// most that writing a whole table entry puts past an item's end.
constexpr size_t kLongestWordText = 33 * kLongestItem;
constexpr size_t kWideSlack = 8;

// The comma text being written, and what the formatter must know about it.
struct CommaText {
    char *out;
    size_t size;
    char *p;             // where the next item goes
    uint32_t last;       // the last element of the last item written
    bool whole;          // false once an item did not fit
};

// Items written with whole table entries, without looking at the room
// left: the caller lets a word's items through only while
// kLongestWordText bytes and the terminator are left.  The bytes written
// past each item are written again by the next one or cleared at the end.
// Every item but the text's first begins with ','.  Kept apart from
// CommaText (and copied back) so that its position stays in a register:
// the compiler cannot tell that the text's bytes do not overlap CommaText.
struct BulkItems {
    char *p;
    uint32_t last;
    inline __attribute__((always_inline)) bool single(uint32_t v)
    {
        p = gyre::put_comma_decimal_wide(p, v);
        last = v;
        return true;
    }
    inline __attribute__((always_inline)) bool singles(uint32_t base, uint64_t s)
    {
        const char(*const entry)[8] = gyre::kCommaDecimal.text + base;
        char *p = this->p;
        last = base + 63u - static_cast<uint32_t>(__builtin_clzll(s));
        do {
            const uint32_t i = static_cast<uint32_t>(__builtin_ctzll(s));
            s &= s - 1;
            memcpy(p, entry[i], 8);
            p += entry[i][7];
        } while (s != 0);
        this->p = p;
        return true;
    }
    inline __attribute__((always_inline)) bool runs(uint32_t base, uint64_t s, uint64_t e)
    {
        const char(*const entry)[8] = gyre::kCommaDecimal.text + base;
        char *p = this->p;
        last = base + 63u - static_cast<uint32_t>(__builtin_clzll(e));
        if ((s & e) == 0) {
            // No run of one element: every item is a range.
            do {
                const uint32_t i = static_cast<uint32_t>(__builtin_ctzll(s));
                const uint32_t j = static_cast<uint32_t>(__builtin_ctzll(e));
                s &= s - 1;
                e &= e - 1;
                memcpy(p, entry[i], 8);
                p += entry[i][7];
                memcpy(p, entry[j], 8);
                *p = '-';
                p += entry[j][7];
            } while (s != 0);
        } else {
            // Both numbers written always, the range part kept only when
            // there is one: no branch on the item's shape.
            do {
                const uint32_t i = static_cast<uint32_t>(__builtin_ctzll(s));
                const uint32_t j = static_cast<uint32_t>(__builtin_ctzll(e));
                s &= s - 1;
                e &= e - 1;
                memcpy(p, entry[i], 8);
                p += entry[i][7];
                memcpy(p, entry[j], 8);
                *p = '-';
                char *range_end = p + entry[j][7];
                p = i != j ? range_end : p;
            } while (s != 0);
        }
        this->p = p;
        return true;
    }
    inline __attribute__((always_inline)) bool run(uint32_t first, uint32_t last)
    {
        char *p = gyre::put_comma_decimal_wide(this->p, first);
        char *range_end = gyre::put_comma_decimal_wide(p, last);
        *p = '-';
        this->p = last != first ? range_end : p;
        this->last = last;
        return true;
    }
};

// Hands the items of a word's masks to `sink.run` one by one: for the
// sinks that look at each item anyway.
template <class Sink>
inline bool each_single(Sink &sink, uint32_t base, uint64_t s)
{
    for (; s != 0; s &= s - 1) {
        const uint32_t v = base + static_cast<uint32_t>(__builtin_ctzll(s));
        if (!sink.run(v, v))
            return false;
    }
    return true;
}
template <class Sink>
inline bool each_run(Sink &sink, uint32_t base, uint64_t s, uint64_t e)
{
    for (; s != 0; s &= s - 1, e &= e - 1)
        if (!sink.run(base + static_cast<uint32_t>(__builtin_ctzll(s)),
                      base + static_cast<uint32_t>(__builtin_ctzll(e))))
            return false;
    return true;
}

// The same until the text's first item is written: that one has no lead.
struct FirstItems {
    CommaText &t;
    size_t lead;  // 1 once an item was written
    bool single(uint32_t v) { return run(v, v); }
    bool singles(uint32_t base, uint64_t s) { return each_single(*this, base, s); }
    bool runs(uint32_t base, uint64_t s, uint64_t e) { return each_run(*this, base, s, e); }
    inline __attribute__((always_inline)) bool run(uint32_t first, uint32_t last)
    {
        char *p = t.p;
        *p = ',';  // overwritten by the number when there is no lead
        p += lead;
        p = gyre::put_decimal_wide(p, first);
        *p = '-';
        char *range_end = gyre::put_decimal_wide(p + 1, last);
        t.p = last != first ? range_end : p;
        t.last = last;
        lead = 1;
        return true;
    }
};

// Items near the end of the array.  Those that start before `roomy` fit
// however long they are and are written as FirstItems writes them; after
// that each is made apart and written only as far as it fits, and the
// first that does not fit ends the text.
struct TailItems {
    CommaText &t;
    size_t lead;  // 1 once an item was written
    const char *roomy;
    bool single(uint32_t v) { return run(v, v); }
    bool singles(uint32_t base, uint64_t s) { return each_single(*this, base, s); }
    bool runs(uint32_t base, uint64_t s, uint64_t e) { return each_run(*this, base, s, e); }
    bool run(uint32_t first, uint32_t last)
    {
        if (t.p < roomy) {
            FirstItems wide{t, lead};
            wide.run(first, last);
            lead = 1;
            return true;
        }
        char item[kLongestItem];
        const size_t n =
            static_cast<size_t>(put_item(item, lead ? ',' : '\0', first, last, '\0') - item);
        const size_t room = t.size - static_cast<size_t>(t.p - t.out);
        if (n >= room) {
            // As a bounded print leaves it: the item as far as it goes, its
            // terminator, and later the terminator put back at its start.
            memcpy(t.p, item, room - 1);
            t.out[t.size - 1] = '\0';
            t.whole = false;
            return false;
        }
        memcpy(t.p, item, n);
        t.p += n;
        t.last = last;
        lead = 1;
        return true;
    }
};

// Items of the words near the end: a word whose items fit whole, by the
// count of its runs, is written as BulkItems writes it, and only the rest
// item by item (TailItems).
struct NearEndItems {
    CommaText &t;
    TailItems &tail;
    // Room for `items` items of at most `longest` bytes each, the bytes a
    // whole table entry writes past the last, and the terminator.
    bool fits(uint32_t items, size_t longest) const
    {
        return static_cast<size_t>(t.out + t.size - t.p) > items * longest + kWideSlack + 1;
    }
    template <class Write>
    bool bulk(Write write)
    {
        BulkItems b{t.p, t.last};
        write(b);
        t.p = b.p;
        t.last = b.last;
        tail.lead = 1;
        return true;
    }
    bool single(uint32_t v)
    {
        if (fits(1, kLongestItem))
            return bulk([v](BulkItems &b) { b.single(v); });
        return tail.run(v, v);
    }
    bool run(uint32_t first, uint32_t last)
    {
        if (fits(1, kLongestItem))
            return bulk([first, last](BulkItems &b) { b.run(first, last); });
        return tail.run(first, last);
    }
    bool singles(uint32_t base, uint64_t s)
    {
        if (fits(static_cast<uint32_t>(__builtin_popcountll(s)), 5))
            return bulk([base, s](BulkItems &b) { b.singles(base, s); });
        return each_single(tail, base, s);
    }
    bool runs(uint32_t base, uint64_t s, uint64_t e)
    {
        if (fits(static_cast<uint32_t>(__builtin_popcountll(s)), kLongestItem))
            return bulk([base, s, e](BulkItems &b) { b.runs(base, s, e); });
        return each_run(tail, base, s, e);
    }
};

// Comma notation ("1-3,5,10-11") of a map of `nbits` bits (a multiple of
// 64) into `out` of `size` bytes (room for the items of two words), cut after the last item that fits with its terminator.
// printf_curr_idx follows the last element written, and is 0 when the set
// was empty or written whole.
//
// Leaves the array exactly as clearing it and printing item by item with
// snprintf would: the rest of the array zeroed, and an item that does not
// fit written as far as it goes before the terminator is put back at its
// start.
const char *comma_notation(const uint8_t *bits, uint32_t nbits, char *out, size_t size)
{
    const uint32_t words = nbits / 64;
    CommaText t{out, size, out, 0, true};
    gyre::WordRunState state;
    uint32_t w = 0;
    FirstItems first{t, 0};
    // Long stretches of clear words (before the first run) or set words
    // (inside a run, the whole of a full set) are passed over four at a
    // time.
    while ((w = gyre::next_changing_word(bits, w, words, state.open)) < words &&
           first.lead == 0)
        gyre::word_runs(bits, w++, &state, first);
    // Words that begin before `bulk_end` have room for all their items.
    const char *const bulk_end = out + size - 1 - kLongestWordText - kWideSlack;
    BulkItems bulk{t.p, t.last};
    for (; w < words && bulk.p < bulk_end; ++w)
        gyre::word_runs(bits, w, &state, bulk);
    t.p = bulk.p;
    t.last = bulk.last;
    TailItems tail{t, t.p != out ? 1u : 0u, out + size - kLongestItem - 1};
    NearEndItems near_end{t, tail};
    bool more = true;
    for (; w < words && more; ++w)
        more = gyre::word_runs(bits, w, &state, near_end);
    if (more && state.open != 0) {
        // A run up to the last element.
        const uint32_t end = nbits - 1;
        if (first.lead == 0)
            first.run(state.start, end);
        else
            near_end.run(state.start, end);
    }
    if (t.whole)
        memset(t.p, 0, size - static_cast<size_t>(t.p - out));
    else
        *t.p = '\0';
    printf_curr_idx = t.whole ? 0 : static_cast<int>(t.last);
    return t.p != out ? out : kEmptySet;
}

}  // namespace

extern "C" {

static_assert(sizeof gyre_scratch_bmp_str > 2 * kLongestWordText + kWideSlack + 1 &&
                  sizeof gyre_scratch_bmp_str2 > 2 * kLongestWordText + kWideSlack + 1,
              "the scratch strings hold a word's items past the first");

TARN_API const char *gyre_vlans2str(const void *vlans)
{
    if (vlans == nullptr)
        return kEmptySet;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    return comma_notation(bits, GYRE_VLAN_COUNT, gyre_scratch_bmp_str,
                          sizeof gyre_scratch_bmp_str);
}

TARN_API const char *gyre_ftag2str(const void *ftags)
{
    if (ftags == nullptr)
        return kEmptySet;
    const uint8_t *bits = static_cast<const uint8_t *>(ftags) + 4;
    return comma_notation(bits, GYRE_FTAG_COUNT, gyre_scratch_bmp_str2,
                          sizeof gyre_scratch_bmp_str2);
}

// Space notation ("1-3 5 10-11 "), each item followed by one space.  The
// written count adds up what the bounded print returns for each item, so a
// cut item counts whole; nothing follows once the buffer is full.  Items
// that fit are written here directly, as the print would write them, and
// the caller's bytes past the text are left as they were.
TARN_API int32_t gyre_sprintf_vlan_range(const void *vlans, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return 0;
    buf[0] = '\0';
    if (vlans == nullptr)
        return 0;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    int32_t written = 0;
    // Items that start before this position fit with their terminator and
    // the byte after it, however long they are.
    const uint32_t roomy = size > kLongestItem + 2 ? size - kLongestItem - 2 : 0;
    // A number written whole overwrites up to two bytes past its item: the
    // first is the next item's or the terminator's; the second is the next
    // item's too, or, after the last item, the caller's byte kept here.
    char *spare = nullptr;
    char spare_value = 0;
    gyre::SetRuns runs(bits, GYRE_VLAN_COUNT);
    uint32_t b = 0, e = 0;
    while (runs.next(&b, &e)) {
        // Past the end of the buffer nothing more can be written.
        if (written < 0 || static_cast<uint32_t>(written) >= size)
            break;
        char *at = buf + written;
        const uint32_t room = size - static_cast<uint32_t>(written);
        if (static_cast<uint32_t>(written) < roomy) {
            const uint32_t length =
                gyre::decimal_length(b) + (b != e ? 1 + gyre::decimal_length(e) : 0) + 1;
            spare = at + length + 1;
            spare_value = *spare;
            char *p = gyre::put_decimal_wide(at, b);
            if (b != e) {
                *p++ = '-';
                p = gyre::put_decimal_wide(p, e);
            }
            *p = ' ';
            written += static_cast<int32_t>(length);
        } else {
            written += (b == e) ? kpipe_snprintf(at, room, "%d ", static_cast<int>(b))
                                : kpipe_snprintf(at, room, "%d-%d ", static_cast<int>(b),
                                                 static_cast<int>(e));
            spare = nullptr;  // the print wrote its terminator and no more
        }
    }
    if (spare != nullptr) {
        spare[-1] = '\0';
        *spare = spare_value;
    }
    return written;
}

}  // extern "C"
