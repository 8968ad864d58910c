// The records that tarnctl reads back from places others can write: the
// announcement journal's record and the prefix of a device log line.
#include <string>

#include <gtest/gtest.h>

#include "tools/announce_journal.h"
#include "tools/log_lines.h"

namespace {

using tarndev::Bytes;

tarndev::Unannounced sample()
{
    tarndev::Unannounced u;
    u.opcode = 51214;
    u.payload = Bytes{1, 2, 3, 4, 5};
    u.what = "changes[2]: topology 20 VLANs";
    return u;
}

TEST(journal, a_record_reads_back_as_written)
{
    const Bytes v = tarndev::journal_value(sample());
    ASSERT_EQ(8u + 5u + sample().what.size(), v.size());
    tarndev::Unannounced u;
    ASSERT_TRUE(tarndev::journal_decode(v.data(), v.size(), &u));
    EXPECT_EQ(51214u, u.opcode);
    EXPECT_EQ(sample().payload, u.payload);
    EXPECT_EQ(sample().what, u.what);
}

// Cut at every length: the header and the payload must be there whole; the
// text may be cut (it is only shown).
TEST(journal, a_record_cut_short_is_refused_or_keeps_its_payload)
{
    const Bytes v = tarndev::journal_value(sample());
    for (size_t n = 0; n < v.size(); ++n) {
        tarndev::Unannounced u;
        const bool ok = tarndev::journal_decode(v.data(), n, &u);
        EXPECT_EQ(n >= 8 + 5, ok) << n;
        if (ok) {
            EXPECT_EQ(sample().payload, u.payload) << n;
            EXPECT_EQ(sample().what.substr(0, n - 13), u.what) << n;
        }
    }
    tarndev::Unannounced u;
    EXPECT_FALSE(tarndev::journal_decode(nullptr, 0, &u));
    // A payload length beyond the record, the largest one included.
    Bytes bad = v;
    bad[4] = bad[5] = bad[6] = bad[7] = 0xFF;
    EXPECT_FALSE(tarndev::journal_decode(bad.data(), bad.size(), &u));
}

TEST(log_lines, the_prefix_is_taken_apart)
{
    const tarndev::LogPrefix p =
        tarndev::parse_log_prefix("2026-01-02T03:04:05.678901Z sw1 bgp d[4242]: text [1]: x");
    ASSERT_TRUE(p.present);
    EXPECT_EQ("2026-01-02T03:04:05.678901Z", p.time);
    EXPECT_EQ("sw1", p.host);
    EXPECT_EQ("bgp d", p.process);
    EXPECT_EQ(4242, p.pid);
    EXPECT_EQ(std::string("2026-01-02T03:04:05.678901Z sw1 bgp d[4242]: ").size(), p.length);
}

TEST(log_lines, lines_without_a_whole_prefix_have_none)
{
    const std::string good = "2026-01-02T03:04:05.678901Z sw1 p[1]: x";
    // Every cut before the prefix ends leaves no prefix.
    for (size_t n = 0; n < good.size() - 1; ++n)
        EXPECT_FALSE(tarndev::parse_log_prefix(good.substr(0, n)).present) << n;
    for (const char *bad : {"2026-01-02 03:04:05.678901Z sw1 p[1]: x",
                            "2026-01-02T03:04:05.67890Z sw1 p[1]: x",
                            "2026-01-02T03:04:05.678901Z sw1 p[]: x",
                            "2026-01-02T03:04:05.678901Z sw1 [1]: x",
                            "2026-01-02T03:04:05.678901Z sw1 p[1a]: x",
                            "2026-01-02T03:04:05.678901Z sw1 p[1234567890123]: x",
                            "<<%TARN-2-TARN_CELL>> text", ""})
        EXPECT_FALSE(tarndev::parse_log_prefix(bad).present) << bad;
}

}  // namespace
