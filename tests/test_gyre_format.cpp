// VLAN and ftag set text, against a straightforward reference written here.

#include "test_gyre_support.h"

extern "C" int printf_curr_idx;

using namespace gyretest;

namespace {

constexpr size_t kScratch = 2098;

struct Run {
    uint32_t a, b;
};

std::vector<Run> runs_of(const Set &s)
{
    std::vector<Run> out;
    for (uint32_t v : s) {
        if (!out.empty() && out.back().b + 1 == v)
            out.back().b = v;
        else
            out.push_back({v, v});
    }
    return out;
}

struct CommaRef {
    std::string text;   // what the scratch string holds
    int curr_idx;       // printf_curr_idx afterwards
    std::string result; // what the call returns
};

// Items joined by commas while each fits with its terminator in the
// 2098-byte string; the last element of the last written item when cut.
CommaRef comma_reference(const Set &s)
{
    CommaRef r{"", 0, "--"};
    if (s.empty())
        return r;
    bool cut = false;
    int last = 0;
    for (const Run &run : runs_of(s)) {
        std::string item = r.text.empty() ? "" : ",";
        item += std::to_string(run.a);
        if (run.b != run.a)
            item += "-" + std::to_string(run.b);
        if (r.text.size() + item.size() >= kScratch) {
            cut = true;
            break;
        }
        r.text += item;
        last = static_cast<int>(run.b);
    }
    r.curr_idx = cut ? last : 0;
    r.result = r.text;
    return r;
}

// Space notation: "b " or "b-e " per run, sizes added as the bounded print
// reports them; nothing more once the buffer is full.
std::pair<std::string, int32_t> space_reference(const Set &s, uint32_t size)
{
    std::string full;
    int32_t written = 0;
    std::string shown;
    for (const Run &run : runs_of(s)) {
        if (static_cast<uint32_t>(written) >= size)
            break;
        std::string item = std::to_string(run.a);
        if (run.b != run.a)
            item += "-" + std::to_string(run.b);
        item += " ";
        written += static_cast<int32_t>(item.size());
        full += item;
    }
    shown = full.substr(0, size == 0 ? 0 : std::min<size_t>(full.size(), size - 1));
    return {shown, written};
}

void check_vlans(const Set &s)
{
    const gyre_vlan_bmp_t b = vlan_bmp(s);
    const CommaRef ref = comma_reference(s);
    printf_curr_idx = 12345;
    const char *got = gyre_vlans2str(&b);
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(ref.result, std::string(got));
    EXPECT_EQ(ref.text, std::string(gyre_scratch_bmp_str));
    EXPECT_EQ(ref.curr_idx, printf_curr_idx);
    if (!s.empty()) {
        EXPECT_EQ(static_cast<const char *>(gyre_scratch_bmp_str), got);
    }

    char buf[20000];
    memset(buf, 'x', sizeof buf);
    const auto space = space_reference(s, sizeof buf);
    EXPECT_EQ(space.second, gyre_sprintf_vlan_range(&b, buf, sizeof buf));
    EXPECT_EQ(space.first, std::string(buf));
}

void check_ftags(const Set &s)
{
    const gyre_ftag_bmp_t b = ftag_bmp(s);
    const CommaRef ref = comma_reference(s);
    printf_curr_idx = 12345;
    EXPECT_EQ(ref.result, std::string(gyre_ftag2str(&b)));
    EXPECT_EQ(ref.text, std::string(gyre_scratch_bmp_str2));
    EXPECT_EQ(ref.curr_idx, printf_curr_idx);
}

TEST(GyreFormat, EmptySets)
{
    const gyre_vlan_bmp_t v = vlan_bmp({});
    const gyre_ftag_bmp_t f = ftag_bmp({});
    memset(gyre_scratch_bmp_str, 'z', kScratch);
    memset(gyre_scratch_bmp_str2, 'z', kScratch);
    printf_curr_idx = 7;
    EXPECT_STREQ("--", gyre_vlans2str(&v));
    EXPECT_EQ(0, printf_curr_idx);
    EXPECT_STREQ("", gyre_scratch_bmp_str);
    printf_curr_idx = 7;
    EXPECT_STREQ("--", gyre_ftag2str(&f));
    EXPECT_EQ(0, printf_curr_idx);
    EXPECT_STREQ("", gyre_scratch_bmp_str2);
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(0, gyre_sprintf_vlan_range(&v, buf, sizeof buf));
    EXPECT_STREQ("", buf);
}

TEST(GyreFormat, Examples)
{
    const gyre_vlan_bmp_t b = vlan_bmp({1, 2, 3, 5, 10, 11});
    EXPECT_STREQ("1-3,5,10-11", gyre_vlans2str(&b));
    char buf[64];
    EXPECT_EQ(12, gyre_sprintf_vlan_range(&b, buf, sizeof buf));
    EXPECT_STREQ("1-3 5 10-11 ", buf);
    const gyre_vlan_bmp_t zero = vlan_bmp({0});
    EXPECT_STREQ("0", gyre_vlans2str(&zero));
    EXPECT_EQ(2, gyre_sprintf_vlan_range(&zero, buf, sizeof buf));
    EXPECT_STREQ("0 ", buf);
    Set all;
    for (uint32_t v = 0; v < 4096; ++v)
        all.insert(v);
    const gyre_vlan_bmp_t full = vlan_bmp(all);
    EXPECT_STREQ("0-4095", gyre_vlans2str(&full));
    EXPECT_EQ(0, printf_curr_idx);
    EXPECT_EQ(7, gyre_sprintf_vlan_range(&full, buf, sizeof buf));
    EXPECT_STREQ("0-4095 ", buf);
    const gyre_vlan_bmp_t tail = vlan_bmp({4000, 4001, 4002, 4093, 4095});
    EXPECT_STREQ("4000-4002,4093,4095", gyre_vlans2str(&tail));
    EXPECT_EQ(20, gyre_sprintf_vlan_range(&tail, buf, sizeof buf));
    EXPECT_STREQ("4000-4002 4093 4095 ", buf);
    const gyre_vlan_bmp_t end = vlan_bmp({4090, 4091, 4092, 4093, 4094, 4095});
    EXPECT_STREQ("4090-4095", gyre_vlans2str(&end));
    const gyre_ftag_bmp_t tags = ftag_bmp({0, 1, 2, 1023});
    EXPECT_STREQ("0-2,1023", gyre_ftag2str(&tags));
}

TEST(GyreFormat, EveryEvenVlanOverflows)
{
    Set even;
    for (uint32_t v = 0; v < 4096; v += 2)
        even.insert(v);
    const CommaRef ref = comma_reference(even);
    ASSERT_NE(0, ref.curr_idx) << "the reference cuts too";
    check_vlans(even);
    // The string ends with the item of printf_curr_idx.
    const std::string s = gyre_scratch_bmp_str;
    const std::string last = "," + std::to_string(printf_curr_idx);
    EXPECT_EQ(last, s.substr(s.size() - last.size()));
    EXPECT_LT(s.size(), kScratch);
}

TEST(GyreFormat, FtagTextReadsOnlyTheFtagBytes)
{
    gyre_vlan_bmp_t b = vlan_bmp({5, 6, 1023, 1024, 2000, 4095});
    EXPECT_STREQ("5-6,1023", gyre_ftag2str(&b));
    gyre_vlan_bmp_t high = vlan_bmp({1024, 4095});
    EXPECT_STREQ("--", gyre_ftag2str(&high));
}

TEST(GyreFormat, TheTwoScratchStringsAreSeparate)
{
    const gyre_vlan_bmp_t v = vlan_bmp({1, 2});
    const gyre_ftag_bmp_t f = ftag_bmp({9});
    const char *a = gyre_vlans2str(&v);
    const char *b = gyre_ftag2str(&f);
    EXPECT_STREQ("1-2", a);
    EXPECT_STREQ("9", b);
}

TEST(GyreFormat, SpaceNotationIntoSmallBuffers)
{
    const gyre_vlan_bmp_t b = vlan_bmp({1, 2, 3, 5, 10, 11});
    for (uint32_t size = 1; size < 16; ++size) {
        char buf[32];
        memset(buf, 'x', sizeof buf);
        const auto ref = space_reference({1, 2, 3, 5, 10, 11}, size);
        EXPECT_EQ(ref.second, gyre_sprintf_vlan_range(&b, buf, size)) << size;
        EXPECT_EQ(ref.first, std::string(buf)) << size;
        EXPECT_EQ('x', buf[size]) << "nothing past the buffer";
    }
}

TEST(GyreFormat, RandomSetsAgainstTheReference)
{
    std::mt19937 rng(20240601);
    int checked = 0;
    for (int round = 0; round < 600; ++round) {
        // Densities from sparse to full, with runs of random lengths.
        Set s;
        const uint32_t mode = rng() % 4;
        uint32_t v = rng() % 64;
        while (v < 4096) {
            const uint32_t len = 1 + rng() % (mode == 0 ? 2 : mode == 1 ? 8 : 200);
            for (uint32_t i = 0; i < len && v + i < 4096; ++i)
                s.insert(v + i);
            v += len + 1 + rng() % (mode == 3 ? 3 : 300);
        }
        if (rng() % 5 == 0)
            s.insert(4095);
        if (rng() % 5 == 0)
            s.insert(0);
        check_vlans(s);
        Set f;
        for (uint32_t x : s)
            if (x < 1024)
                f.insert(x);
        check_ftags(f);
        if (HasFailure())
            break;
        ++checked;
    }
    printf("%d random sets checked against the reference\n", checked);
}

}  // namespace
