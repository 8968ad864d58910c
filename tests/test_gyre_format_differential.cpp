// The three set formatters against the straightforward element-by-element
// version, byte for byte: the whole scratch string, printf_curr_idx, the
// returned pointer, and the caller's buffer including what lies past the
// text, for chosen and random bitmaps and buffer sizes.

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/gyre.h>

#include "support/set_text_reference.h"

extern "C" int printf_curr_idx;

namespace {

constexpr size_t kScratch = 2098;
constexpr uint32_t kVlans = 4096;
constexpr size_t kMapBytes = 512;

using Map = std::vector<uint8_t>;

void set_bit(Map &m, uint32_t i) { m[i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8)); }

Map map_of(std::initializer_list<uint32_t> elements)
{
    Map m(kMapBytes, 0);
    for (uint32_t e : elements)
        set_bit(m, e);
    return m;
}

// Elements first, first + step, ... up to last or 4095, whichever is lower.
Map range_map(uint32_t first, uint32_t last, uint32_t step = 1)
{
    Map m(kMapBytes, 0);
    for (uint32_t e = first; e <= last && e < kVlans; e += step)
        set_bit(m, e);
    return m;
}

std::string show(const char *p, size_t n) { return std::string(p, n); }

// One comma formatter (VLAN or ftag) against the reference.
void check_comma(const char *(*format)(const void *), const Map &m, uint32_t nbits,
                 char *scratch, const char *what)
{
    gyre_vlan_bmp_t b;
    b.len = 0xA5A5A5A5u;  // never consulted
    memcpy(b.bits, m.data(), kMapBytes);
    char ref[kScratch];
    memset(ref, 'r', sizeof ref);
    int ref_idx = -1;
    const char *ref_result = settext::ref_comma(b.bits, nbits, ref, sizeof ref, &ref_idx);

    memset(scratch, 'g', kScratch);
    printf_curr_idx = -7;
    const char *got = format(&b);
    ASSERT_NE(nullptr, got) << what;
    EXPECT_EQ(std::string(ref_result), std::string(got)) << what;
    EXPECT_EQ(ref_result == ref, got == scratch) << what << ": the scratch string or \"--\"";
    EXPECT_EQ(show(ref, kScratch), show(scratch, kScratch)) << what << ": the whole array";
    EXPECT_EQ(ref_idx, printf_curr_idx) << what;
}

// The space formatter into a buffer of `size` bytes with guards around it.
void check_space(const Map &m, uint32_t size)
{
    gyre_vlan_bmp_t b;
    b.len = 0;
    memcpy(b.bits, m.data(), kMapBytes);
    std::vector<char> ref(size + 2, 'r'), got(size + 2, 'r');
    const int32_t ref_n = settext::ref_space(b.bits, ref.data() + 1, size);
    const int32_t got_n = gyre_sprintf_vlan_range(&b, got.data() + 1, size);
    EXPECT_EQ(ref_n, got_n) << "size " << size;
    EXPECT_EQ(show(ref.data(), ref.size()), show(got.data(), got.size())) << "size " << size;
}

// Every formatter, with buffer sizes around the full text's length.
void check_all(const Map &m)
{
    check_comma(gyre_vlans2str, m, kVlans, gyre_scratch_bmp_str, "vlans");
    check_comma(gyre_ftag2str, m, 1024, gyre_scratch_bmp_str2, "ftags");
    char probe[24000];
    const uint32_t full = static_cast<uint32_t>(settext::ref_space(m.data(), probe, sizeof probe));
    for (uint32_t size : {1u, 2u, 3u, 7u, 11u, 12u, full > 0 ? full - 1 : 1u, full, full + 1,
                          full + 2, 24000u})
        check_space(m, size);
}

TEST(GyreFormatDifferential, ChosenSets)
{
    Map empty(kMapBytes, 0), full(kMapBytes, 0xFF), even(kMapBytes, 0xAA), odd(kMapBytes, 0x55);
    check_all(empty);
    check_all(full);
    check_all(even);
    check_all(odd);
    check_all(map_of({0}));
    check_all(map_of({4095}));
    check_all(map_of({0, 4095}));
    check_all(map_of({4093, 4095}));
    check_all(map_of({4094}));
    check_all(range_map(4093, 4095));
    check_all(range_map(0, 4094));
    check_all(range_map(1, 4095));
    check_all(range_map(1, 4094));
    // Runs that cross 32- and 64-bit word boundaries, and ones that end on them.
    for (uint32_t edge : {31u, 32u, 63u, 64u, 127u, 128u, 1023u, 1024u, 2047u, 4031u, 4032u}) {
        check_all(range_map(edge - 1, edge + 1));
        check_all(range_map(edge, edge + 64));
        check_all(range_map(edge - 64 > edge ? 0 : edge - 64, edge));
        check_all(map_of({edge}));
        if (edge + 2 < kVlans)
            check_all(map_of({edge, edge + 2}));
    }
    // Runs of three, two and one in every four elements, every other pair.
    for (uint8_t fill : {0xEE, 0x77, 0xCC, 0x88, 0x11, 0x66})
        check_all(Map(kMapBytes, fill));
    // Sparse: one element in every 64-bit word, one in every other word.
    check_all(range_map(5, 4095, 64));
    check_all(range_map(63, 4095, 128));
    ASSERT_FALSE(HasFailure());
}

TEST(GyreFormatDifferential, EverySingleElement)
{
    for (uint32_t e = 0; e < kVlans; ++e) {
        check_comma(gyre_vlans2str, map_of({e}), kVlans, gyre_scratch_bmp_str, "vlans");
        check_comma(gyre_ftag2str, map_of({e}), 1024, gyre_scratch_bmp_str2, "ftags");
        check_space(map_of({e}), 64);
        check_space(map_of({e}), 3);
        ASSERT_FALSE(HasFailure()) << "element " << e;
    }
}

// Sets whose comma text grows one item at a time across the end of the
// 2098-byte string, so that every way an item can fail to fit is met: with
// room for part of it, for all but its terminator, and for none of it.
TEST(GyreFormatDifferential, ScratchStringFull)
{
    for (uint32_t step : {2u, 3u, 5u}) {
        for (uint32_t single = 0; single < 2; ++single) {
            Map m(kMapBytes, 0);
            int checked_near_end = 0;
            for (uint32_t e = 0; e + 1 < kVlans; e += step) {
                set_bit(m, e);
                if (single == 0 && step > 2)
                    set_bit(m, e + 1);  // two-element runs "a-b"
                char ref[kScratch];
                int idx = 0;
                settext::ref_comma(m.data(), kVlans, ref, sizeof ref, &idx);
                if (strlen(ref) + 12 >= kScratch) {
                    check_comma(gyre_vlans2str, m, kVlans, gyre_scratch_bmp_str, "vlans");
                    ++checked_near_end;
                }
                ASSERT_FALSE(HasFailure()) << "step " << step << " up to " << e;
            }
            EXPECT_GT(checked_near_end, 0) << "step " << step;
        }
    }
}

TEST(GyreFormatDifferential, SpaceNotationEveryBufferSize)
{
    const Map sets[] = {range_map(0, 4095), range_map(0, 4095, 2), map_of({1, 2, 3, 5, 10, 11}),
                        map_of({4000, 4001, 4002, 4093, 4095}), range_map(7, 4000, 97)};
    for (const Map &m : sets) {
        char probe[24000];
        const uint32_t full = static_cast<uint32_t>(settext::ref_space(m.data(), probe, sizeof probe));
        for (uint32_t size = 1; size <= full + 2 && size < 400; ++size)
            check_space(m, size);
        for (uint32_t size = full > 40 ? full - 40 : 1; size <= full + 2; ++size)
            check_space(m, size);
        ASSERT_FALSE(HasFailure());
    }
}

TEST(GyreFormatDifferential, RandomSets)
{
    std::mt19937 rng(0x5e7f0a7u);
    int rounds = 0;
    for (; rounds < 1500; ++rounds) {
        Map m(kMapBytes, 0);
        switch (rng() % 4) {
        case 0:  // random bytes of a random density
            for (uint8_t &byte : m) {
                const uint32_t keep = rng() % 4;
                byte = static_cast<uint8_t>(rng());
                if (keep == 0)
                    byte = 0;
                else if (keep == 1)
                    byte = 0xFF;
            }
            break;
        case 1: {  // runs of random lengths and gaps
            uint32_t e = rng() % 70;
            const uint32_t max_run = 1 + rng() % 300, max_gap = 1 + rng() % 300;
            while (e < kVlans) {
                const uint32_t run = 1 + rng() % max_run;
                for (uint32_t i = 0; i < run && e + i < kVlans; ++i)
                    set_bit(m, e + i);
                e += run + 1 + rng() % max_gap;
            }
            break;
        }
        case 2: {  // a few isolated elements
            for (uint32_t n = rng() % 12; n > 0; --n)
                set_bit(m, rng() % kVlans);
            break;
        }
        default:  // the full set with random holes
            std::fill(m.begin(), m.end(), 0xFF);
            for (uint32_t n = rng() % 40; n > 0; --n) {
                const uint32_t e = rng() % kVlans;
                m[e / 8] &= static_cast<uint8_t>(~(0x80u >> (e % 8)));
            }
            break;
        }
        if (rng() % 4 == 0)
            set_bit(m, 0);
        if (rng() % 4 == 0)
            set_bit(m, 4095);
        check_all(m);
        check_space(m, 1 + rng() % 3000);
        ASSERT_FALSE(HasFailure()) << "round " << rounds;
    }
    printf("%d random sets formatted as the reference does\n", rounds);
}

}  // namespace
