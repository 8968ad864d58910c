// The VLAN and ftag set formatters on full, alternating and sparse sets,
// (and ranges of three, every 64th VLAN), each beside two baselines measured in the same run: the straightforward
// element-by-element formatter that they replace (same output, byte for
// byte), and a memcpy of the text they produce (the cost of just moving
// that many bytes).  The "ratio" lines give formatter time over baseline,
// and the goal for the comma formatters: at most 25 times the copy of their
// text, whatever the set's shape.

#include <stdint.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "tests/support/set_text_reference.h"

#include <tarn/gyre.h>

extern "C" int printf_curr_idx;

namespace {

enum SetKind { kFull, kAlternating, kSparse, kRangesOfThree, kEvery64th, kKinds };
const char *const kKindNames[kKinds] = {"full", "alternating", "sparse", "ranges of three",
                                        "every 64th"};

// Full: 0-4095.  Alternating: every even VLAN (the comma text is cut at
// 2098 bytes, about 500 items).  Sparse: one VLAN in every 128.  Ranges of
// three: three VLANs in every four (cut too).  Every 64th: 0, 64, 128...
gyre_vlan_bmp_t vlan_set(int kind)
{
    static const uint8_t kFill[kKinds] = {0xFF, 0xAA, 0x00, 0xEE, 0x00};
    gyre_vlan_bmp_t b;
    b.len = GYRE_VLAN_BMP_BYTES;
    memset(b.bits, kFill[kind], sizeof b.bits);
    if (kind == kSparse)
        for (uint32_t v = 77; v < 4096; v += 128)
            b.bits[v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
    if (kind == kEvery64th)
        for (uint32_t v = 0; v < 4096; v += 64)
            b.bits[v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
    return b;
}

void name_set(benchmark::State &state, size_t text_len)
{
    state.SetLabel(std::string(kKindNames[state.range(0)]) + ", " + std::to_string(text_len) +
                   " bytes of text");
}

// Formats the set of the benchmark's argument with `format`, which returns
// the text it wrote.
template <class Format>
void format_set(benchmark::State &state, Format format)
{
    const gyre_vlan_bmp_t b = vlan_set(static_cast<int>(state.range(0)));
    const char *text = "";
    for (auto _ : state) {
        text = format(b);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
    name_set(state, strlen(text));
}

char reference_out[sizeof gyre_scratch_bmp_str];
char space_out[12000];

void BM_Vlans2Str(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) { return gyre_vlans2str(&b); });
}

void BM_ReferenceVlans2Str(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) {
        settext::ref_comma(b.bits, 4096, reference_out, sizeof reference_out, &printf_curr_idx);
        return static_cast<const char *>(reference_out);
    });
}

void BM_Ftag2Str(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) { return gyre_ftag2str(&b); });
}

void BM_ReferenceFtag2Str(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) {
        settext::ref_comma(b.bits, 1024, reference_out, sizeof reference_out, &printf_curr_idx);
        return static_cast<const char *>(reference_out);
    });
}

void BM_SpaceNotation(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) {
        gyre_sprintf_vlan_range(&b, space_out, sizeof space_out);
        return static_cast<const char *>(space_out);
    });
}

void BM_ReferenceSpaceNotation(benchmark::State &state)
{
    format_set(state, [](const gyre_vlan_bmp_t &b) {
        settext::ref_space(b.bits, space_out, sizeof space_out);
        return static_cast<const char *>(space_out);
    });
}

// Copies as many bytes as the comma text of the set has (plus its
// terminator): what producing that text costs at the least.
void copy_text(benchmark::State &state, const std::string &text)
{
    static char out[12000];
    for (auto _ : state) {
        memcpy(out, text.data(), text.size() + 1);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    name_set(state, text.size());
}

void BM_CopyVlanText(benchmark::State &state)
{
    const gyre_vlan_bmp_t b = vlan_set(static_cast<int>(state.range(0)));
    copy_text(state, gyre_vlans2str(&b));
}

void BM_CopyFtagText(benchmark::State &state)
{
    const gyre_vlan_bmp_t b = vlan_set(static_cast<int>(state.range(0)));
    copy_text(state, gyre_ftag2str(&b));
}

void BM_CopySpaceText(benchmark::State &state)
{
    const gyre_vlan_bmp_t b = vlan_set(static_cast<int>(state.range(0)));
    gyre_sprintf_vlan_range(&b, space_out, sizeof space_out);
    copy_text(state, space_out);
}

BENCHMARK(BM_Vlans2Str)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_ReferenceVlans2Str)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_CopyVlanText)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_Ftag2Str)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_ReferenceFtag2Str)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_CopyFtagText)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_SpaceNotation)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_ReferenceSpaceNotation)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_CopySpaceText)->DenseRange(0, kKinds - 1);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (int k = 0; k < kKinds; ++k) {
        const std::string a = "/" + std::to_string(k);
        pairs.emplace_back("BM_Vlans2Str" + a, "BM_ReferenceVlans2Str" + a);
        pairs.emplace_back("BM_Vlans2Str" + a, "BM_CopyVlanText" + a);
        pairs.emplace_back("BM_Ftag2Str" + a, "BM_ReferenceFtag2Str" + a);
        pairs.emplace_back("BM_Ftag2Str" + a, "BM_CopyFtagText" + a);
        pairs.emplace_back("BM_SpaceNotation" + a, "BM_ReferenceSpaceNotation" + a);
        pairs.emplace_back("BM_SpaceNotation" + a, "BM_CopySpaceText" + a);
    }
    RatioReporter reporter(pairs);
    for (int k = 0; k < kKinds; ++k) {
        const std::string a = "/" + std::to_string(k);
        reporter.add_goal("BM_Vlans2Str" + a, "BM_CopyVlanText" + a, 25);
        reporter.add_goal("BM_Ftag2Str" + a, "BM_CopyFtagText" + a, 25);
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
