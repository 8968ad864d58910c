// The fuzz targets' seed corpora (fuzz/corpus/<target>/) are valid
// encodings of every record.  This test checks that the committed seeds
// still decode; with TARN_REGEN_CORPUS=1 it writes them afresh first.
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "record_catalogue.h"
#include "support/fixture.h"

using namespace rectest;
namespace fs = std::filesystem;

namespace {

const fs::path kCorpus = fs::path(TARN_SOURCE_DIR) / "fuzz" / "corpus";
const int kSeedVariants[] = {1, 3};

void write_file(const fs::path &p, const std::vector<uint8_t> &bytes)
{
    fs::create_directories(p.parent_path());
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> read_file(const fs::path &p)
{
    std::ifstream f(p, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

class Corpus : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        if (getenv("TARN_REGEN_CORPUS") == nullptr)
            return;
        const auto ops = all_ops();
        for (size_t i = 0; i < ops.size(); ++i) {
            for (int v : kSeedVariants) {
                const std::vector<uint8_t> enc = encode(ops[i], sample(ops[i].tbl, v));
                std::vector<uint8_t> sel = {static_cast<uint8_t>(i)};
                sel.insert(sel.end(), enc.begin(), enc.end());
                const std::string name = std::string(ops[i].prefix) + "-v" + std::to_string(v);
                write_file(kCorpus / "fuzz_records" / name, sel);
                write_file(kCorpus / "fuzz_struct_size" / name, sel);
                if (v == 3)
                    write_file(kCorpus / "fuzz_tlv_array" / ops[i].prefix, enc);
            }
        }
    }
};

TEST_F(Corpus, EverySeedDecodesToItsRecord)
{
    const auto ops = all_ops();
    size_t seen = 0;
    for (const char *target : {"fuzz_records", "fuzz_struct_size"}) {
        ASSERT_TRUE(fs::is_directory(kCorpus / target)) << target;
        for (const auto &entry : fs::directory_iterator(kCorpus / target)) {
            SCOPED_TRACE(entry.path().string());
            const std::vector<uint8_t> seed = read_file(entry.path());
            ASSERT_GE(seed.size(), 9u);
            ASSERT_LT(seed[0], ops.size());
            const record_ops &op = ops[seed[0]];
            EXPECT_EQ(0u, entry.path().filename().string().rfind(op.prefix, 0));
            void *out = nullptr;
            ASSERT_EQ(0u, op.to_struct(&out, seed.data() + 1, static_cast<uint32_t>(seed.size() - 1), 0));
            free(out);
            ++seen;
        }
    }
    EXPECT_EQ(2 * ops.size() * 2, seen);
    size_t arrays = 0;
    for (const auto &entry : fs::directory_iterator(kCorpus / "fuzz_tlv_array")) {
        const std::vector<uint8_t> seed = read_file(entry.path());
        uint32_t pos = 0, type = 0, len = 0;
        const void *v = nullptr;
        EXPECT_EQ(0u, tlv_array_get_next_tlv(seed.data(), static_cast<uint32_t>(seed.size()), &pos, &type, &v, &len));
        EXPECT_EQ(TLVKIT_RECORD_TYPE, type);
        EXPECT_EQ(seed.size(), pos);
        ++arrays;
    }
    EXPECT_EQ(ops.size(), arrays);
}

}  // namespace
