// What one thread has read of one database, kept while the store's last
// committed transaction stays the same.
//
// Every change to a store commits a new transaction, with a new, higher id
// (its generation).  A value read in the snapshot of generation G is
// therefore still the value of the database as long as the last committed
// generation is G: answering it again from a copy gives what a fresh read
// would give, without taking a snapshot.  An absent key is kept the same
// way.  Entries of an older generation are never answered; they are
// overwritten as new reads come.
//
// The cache has 1,024 entries (about 160 KiB) in sets of eight, chosen by a
// hash of the key; a set is searched by 32-bit tags of the hash first.  It
// holds keys of up to 48 bytes (the client library's are 40 and 48) and
// values of up to 96 bytes (its records of contexts, interfaces and ftags
// are 8 to 84); longer ones, such as VLAN bitmaps, are simply not kept.
#ifndef TARN_HOST_KVS_VALUE_CACHE_H
#define TARN_HOST_KVS_VALUE_CACHE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace tarnhost {

class KvsValueCache {
public:
    static constexpr uint32_t kKeyMax = 48;
    static constexpr uint32_t kValueMax = 96;
    static constexpr uint32_t kSets = 128;
    static constexpr uint32_t kWays = 8;

    // A kept answer: found with `value` of `len` bytes, or absent.
    struct Answer {
        bool found;
        const void *value;
        uint32_t len;
    };

    // Where a key's answer is kept, found once for both calls below.
    struct Place {
        uint32_t set;
        uint32_t tag;  // never 0
    };
    static Place place_of(const void *key, uint32_t key_len)
    {
        Place p;
        p.set = set_of(key, key_len, &p.tag);
        return p;
    }

    // The answer kept for `key` at `generation`; false when there is none.
    bool find(const void *key, uint32_t key_len, Place place, uint64_t generation,
              Answer *out) const
    {
        if (key_len > kKeyMax || generation == 0)
            return false;
        const uint32_t tag = place.tag;
        const Set &s = sets_[place.set];
        for (uint32_t i = 0; i < kWays; ++i) {
            if (s.tags[i] != tag)
                continue;
            const Entry &e = s.ways[i];
            if (e.generation == generation && e.key_len == key_len &&
                memcmp(e.key, key, key_len) == 0) {
                *out = Answer{e.found != 0, e.value, e.value_len};
                return true;
            }
        }
        return false;
    }

    // Keeps the answer read for `key` in the snapshot of `generation`
    // (found with `value`, or absent when `value` is null); returns the
    // kept copy of the value, or null when it is not kept.
    const void *keep(const void *key, uint32_t key_len, Place place, uint64_t generation,
                     const void *value, uint32_t len)
    {
        if (key_len > kKeyMax || generation == 0 || (value != nullptr && len > kValueMax))
            return nullptr;
        const uint32_t tag = place.tag;
        Set &s = sets_[place.set];
        // The way holding the key already, else an empty one, else the
        // one filled longest ago.
        uint32_t way = kWays;
        for (uint32_t i = 0; i < kWays && way == kWays; ++i)
            if (s.tags[i] == tag && s.ways[i].key_len == key_len &&
                memcmp(s.ways[i].key, key, key_len) == 0)
                way = i;
        for (uint32_t i = 0; i < kWays && way == kWays; ++i)
            if (s.tags[i] == 0)
                way = i;
        if (way == kWays) {
            way = s.oldest;
            s.oldest = (s.oldest + 1) % kWays;
        }
        s.tags[way] = tag;
        Entry &e = s.ways[way];
        e.generation = generation;
        e.key_len = static_cast<uint16_t>(key_len);
        memcpy(e.key, key, key_len);
        e.found = value != nullptr;
        e.value_len = value != nullptr ? static_cast<uint16_t>(len) : 0;
        if (value != nullptr && len != 0)
            memcpy(e.value, value, len);
        return e.value;
    }

private:
    struct Entry {
        uint64_t generation;
        uint16_t key_len;
        uint16_t value_len;
        uint8_t found;
        uint8_t key[kKeyMax];
        uint8_t value[kValueMax];
    };
    struct Set {
        uint32_t tags[kWays];  // 0: the way is empty
        uint32_t oldest;
        Entry ways[kWays];
    };

    // The set of a key, and its tag (never 0).
    static uint32_t set_of(const void *key, uint32_t key_len, uint32_t *tag)
    {
        // Eight bytes a step: the keys differ in a few bytes anywhere (a
        // kind, an index, a name).
        const uint8_t *p = static_cast<const uint8_t *>(key);
        uint64_t h = key_len * 0x9E3779B97F4A7C15ull;
        uint32_t i = 0;
        for (; i + 8 <= key_len; i += 8) {
            uint64_t w;
            memcpy(&w, p + i, 8);
            h = (h ^ w) * 0xFF51AFD7ED558CCDull;
        }
        for (; i < key_len; ++i)
            h = (h ^ p[i]) * 0xFF51AFD7ED558CCDull;
        // Multiplying carries only upwards: mix the high bits down so that
        // every byte of the key reaches the set and the tag.
        h ^= h >> 33;
        h *= 0xC4CEB9FE1A85EC53ull;
        h ^= h >> 33;
        *tag = static_cast<uint32_t>(h >> 32) | 1u;
        return static_cast<uint32_t>(h % kSets);
    }

    Set sets_[kSets] = {};
};

}  // namespace tarnhost

#endif
