// tarn/sets.hpp - VLAN and ftag sets as values.
//
// A set keeps the bitmap bytes exactly as the wire and the databases lay
// them out (element i in byte i / 8 under mask 0x80 >> i % 8), so turning
// one into a library bitmap and back is a copy.  Its range text is the
// comma notation of gyre_vlans2str and gyre_ftag2str, byte for byte,
// including the "--" of an empty set and the cut after the last item that
// fits the library's 2098-byte scratch string; it is computed here, so it
// needs no library call and overwrites no shared string.
//
// Header-only C++17; builds with -fno-exceptions -fno-rtti.
#ifndef TARN_SETS_HPP
#define TARN_SETS_HPP

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <initializer_list>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

namespace tarn {

template <uint32_t Elements>
class BitSet {
    static_assert(Elements % 32 == 0, "sets are whole 32-bit words");

public:
    static constexpr uint32_t kElements = Elements;
    static constexpr uint32_t kBytes = Elements / 8;
    // The size of the library's scratch string, terminator included.
    static constexpr size_t kTextRoom = 2098;

    constexpr BitSet() : bytes_{} {}

    // The first min(n, kBytes) bytes of a bitmap's bit area; the rest stays
    // empty.
    static BitSet from_bytes(const void *bits, size_t n)
    {
        BitSet s;
        if (bits != nullptr)
            memcpy(s.bytes_, bits, n < kBytes ? n : kBytes);
        return s;
    }

    template <class It>
    static BitSet of(It first, It last)
    {
        BitSet s;
        for (; first != last; ++first)
            s.insert(static_cast<uint32_t>(*first));
        return s;
    }
    static BitSet of(std::initializer_list<uint32_t> items) { return of(items.begin(), items.end()); }

    // Every element from `lo` to `hi`, both included (clipped to the set).
    static BitSet range(uint32_t lo, uint32_t hi)
    {
        BitSet s;
        for (uint32_t i = lo; i <= hi && i < Elements; ++i)
            s.insert(i);
        return s;
    }

    const uint8_t *data() const { return bytes_; }
    uint8_t *data() { return bytes_; }

    // Elements outside the set's range are never members; insert and erase
    // ignore them.
    bool contains(uint32_t i) const { return i < Elements && (bytes_[i / 8] & mask(i)) != 0; }
    void insert(uint32_t i)
    {
        if (i < Elements)
            set_bit(bytes_ + i / 8, mask(i));
    }
    void erase(uint32_t i)
    {
        if (i < Elements)
            clear_bit(bytes_ + i / 8, mask(i));
    }
    void clear() { memset(bytes_, 0, sizeof bytes_); }

    uint32_t count() const
    {
        uint32_t n = 0;
        for (uint8_t b : bytes_)
            n += static_cast<uint32_t>(__builtin_popcount(b));
        return n;
    }
    bool empty() const
    {
        for (uint8_t b : bytes_)
            if (b != 0)
                return false;
        return true;
    }

    // The lowest member at or above `from`, or kElements.
    uint32_t next(uint32_t from) const
    {
        for (uint32_t i = from; i < Elements;) {
            const uint8_t b = static_cast<uint8_t>(bytes_[i / 8] & (0xFFu >> (i % 8)));
            if (b != 0)
                return (i & ~7u) + static_cast<uint32_t>(__builtin_clz(b) - 24);
            i = (i & ~7u) + 8;
        }
        return Elements;
    }

    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = uint32_t;
        using difference_type = ptrdiff_t;
        using pointer = const uint32_t *;
        using reference = uint32_t;
        iterator() = default;
        uint32_t operator*() const { return at_; }
        iterator &operator++()
        {
            at_ = set_->next(at_ + 1);
            return *this;
        }
        iterator operator++(int)
        {
            iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const iterator &o) const { return at_ == o.at_; }
        bool operator!=(const iterator &o) const { return at_ != o.at_; }

    private:
        friend class BitSet;
        iterator(const BitSet *s, uint32_t at) : set_(s), at_(at) {}
        const BitSet *set_ = nullptr;
        uint32_t at_ = Elements;
    };
    iterator begin() const { return iterator(this, next(0)); }
    iterator end() const { return iterator(this, Elements); }

    std::vector<uint32_t> to_vector() const
    {
        std::vector<uint32_t> out;
        for (uint32_t i : *this)
            out.push_back(i);
        return out;
    }

    // Comma notation: "1-3,5,10-11", "--" when empty.
    std::string to_string() const
    {
        if (empty())
            return "--";
        std::string out;
        const size_t limit = kTextRoom - 1;
        uint32_t s = next(0);
        while (s < Elements) {
            uint32_t e = s;
            while (e + 1 < Elements && contains(e + 1))
                ++e;
            char item[32];
            const char *sep = out.empty() ? "" : ",";
            int n = s == e ? snprintf(item, sizeof item, "%s%u", sep, s)
                           : snprintf(item, sizeof item, "%s%u-%u", sep, s, e);
            if (n < 0 || out.size() + static_cast<size_t>(n) > limit)
                break;
            out.append(item, static_cast<size_t>(n));
            s = next(e + 1);
        }
        return out;
    }

    BitSet &operator|=(const BitSet &o)
    {
        for (uint32_t i = 0; i < kBytes; ++i)
            bytes_[i] = static_cast<uint8_t>(bytes_[i] | o.bytes_[i]);
        return *this;
    }
    BitSet &operator&=(const BitSet &o)
    {
        for (uint32_t i = 0; i < kBytes; ++i)
            bytes_[i] = static_cast<uint8_t>(bytes_[i] & o.bytes_[i]);
        return *this;
    }
    BitSet &operator^=(const BitSet &o)
    {
        for (uint32_t i = 0; i < kBytes; ++i)
            bytes_[i] = static_cast<uint8_t>(bytes_[i] ^ o.bytes_[i]);
        return *this;
    }
    // Difference: the members of this set that are not in `o`.
    BitSet &operator-=(const BitSet &o)
    {
        for (uint32_t i = 0; i < kBytes; ++i)
            bytes_[i] = static_cast<uint8_t>(bytes_[i] & ~o.bytes_[i]);
        return *this;
    }
    friend BitSet operator|(BitSet a, const BitSet &b) { return a |= b; }
    friend BitSet operator&(BitSet a, const BitSet &b) { return a &= b; }
    friend BitSet operator^(BitSet a, const BitSet &b) { return a ^= b; }
    friend BitSet operator-(BitSet a, const BitSet &b) { return a -= b; }
    BitSet operator~() const
    {
        BitSet s;
        for (uint32_t i = 0; i < kBytes; ++i)
            s.bytes_[i] = static_cast<uint8_t>(~bytes_[i]);
        return s;
    }
    bool is_subset_of(const BitSet &o) const { return (*this - o).empty(); }

    friend bool operator==(const BitSet &a, const BitSet &b)
    {
        return memcmp(a.bytes_, b.bytes_, kBytes) == 0;
    }
    friend bool operator!=(const BitSet &a, const BitSet &b) { return !(a == b); }
    friend std::ostream &operator<<(std::ostream &os, const BitSet &s) { return os << s.to_string(); }

private:
    static void set_bit(uint8_t *byte, uint8_t m) { *byte = static_cast<uint8_t>(*byte | m); }
    static void clear_bit(uint8_t *byte, uint8_t m) { *byte = static_cast<uint8_t>(*byte & ~m); }
    static uint8_t mask(uint32_t i) { return static_cast<uint8_t>(0x80u >> (i % 8)); }
    uint8_t bytes_[kBytes];
};

// VLANs 0 to 4095 (512 bytes) and ftags 0 to 1023 (128 bytes).
using VlanSet = BitSet<4096>;
using FtagSet = BitSet<1024>;

}  // namespace tarn

#endif
