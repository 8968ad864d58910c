// Files of the bus that another member of a shared device can write:
// cut short, emptied or rewritten under processes that use them, they may
// cost a count or a cached subscriber list, never a process (a mapping a
// truncation cuts short kills whoever touches it with SIGBUS).

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/fixture.h"

namespace {

constexpr uint32_t kOpc = 61301;

class host_bus_shrunk_files : public tarntest::HostTest {};

std::string bus_path(const std::string &root, const std::string &rest)
{
    return root + "/bus/" + rest;
}

// A subscriber and a publisher in this process, whose every bus file is
// cut to `size` bytes (or rewritten with `text`) between messages; the
// child ends with 0 when every message arrived, and dies of the signal
// when a cut mapping was touched.
int exchange_with_files_cut(const std::string &root, off_t size, const std::string &text)
{
    return tarntest::run_child([&] {
        const uint32_t sub = bus_bind(0, -1, nullptr, "sub");
        const uint32_t pub = bus_bind(0, -1, nullptr, "pub");
        if (sub == BUS_HANDLE_NONE || pub == BUS_HANDLE_NONE)
            return 10;
        if (tarnhost_bus_subscribe(sub, kOpc, 1) != 0)
            return 11;
        const std::vector<std::string> files = {
            bus_path(root, "gen"), bus_path(root, "state/" + std::to_string(sub)),
            bus_path(root, "state/" + std::to_string(pub))};
        for (int round = 0; round < 20; ++round) {
            for (const std::string &f : files) {
                if (text.empty()) {
                    if (truncate(f.c_str(), size) != 0)
                        return 12;
                } else {
                    const int fd = open(f.c_str(), O_WRONLY | O_TRUNC);
                    if (fd < 0 || write(fd, text.data(), text.size()) < 0)
                        return 13;
                    close(fd);
                }
            }
            uint32_t word = static_cast<uint32_t>(round);
            if (tarnhost_bus_publish(pub, kOpc, &word, sizeof word) != 0)
                return 14;
            bus_msg_t *m = tarnhost_bus_recv_ms(sub, 2000);
            if (m == nullptr)
                return 15;
            bus_drop(sub, m);
            uint32_t missed = 0;
            // Counts read from anything a member wrote are only numbers.
            tarnhost_bus_missed(sub, &missed);
            tarnhost_bus_missed_take(sub, &missed);
            // A new subscription bumps the generation in the cut file.
            if (tarnhost_bus_subscribe(pub, kOpc + 1 + round, 1) != 0)
                return 16;
        }
        bus_unbind(pub);
        bus_unbind(sub);
        return 0;
    });
}

TEST_F(host_bus_shrunk_files, emptied_generation_and_state_files_cost_no_signal)
{
    EXPECT_EQ(0, exchange_with_files_cut(root_, 0, ""));
}

TEST_F(host_bus_shrunk_files, files_cut_to_a_few_bytes_cost_no_signal)
{
    EXPECT_EQ(0, exchange_with_files_cut(root_, 3, ""));
}

TEST_F(host_bus_shrunk_files, rewritten_files_cost_no_signal)
{
    EXPECT_EQ(0, exchange_with_files_cut(root_, 0, std::string(4096, '\xff')));
}

// A state file pointing at memory that is not the handle's (another
// segment, or none) is not taken for its state: sending still works.
TEST_F(host_bus_shrunk_files, a_state_file_naming_other_memory_is_not_used)
{
    EXPECT_EQ(0, tarntest::run_child([&] {
        const uint32_t sub = bus_bind(0, -1, nullptr, "sub");
        const uint32_t other = bus_bind(0, -1, nullptr, "other");
        const uint32_t pub = bus_bind(0, -1, nullptr, "pub");
        if (tarnhost_bus_subscribe(sub, kOpc, 1) != 0)
            return 1;
        // sub's file copied from other's: names other's segment.
        const std::string from = bus_path(root_, "state/" + std::to_string(other));
        const std::string to = bus_path(root_, "state/" + std::to_string(sub));
        char buf[64];
        const int in = open(from.c_str(), O_RDONLY);
        const ssize_t n = read(in, buf, sizeof buf);
        close(in);
        const int out = open(to.c_str(), O_WRONLY | O_TRUNC);
        if (n <= 0 || out < 0 || write(out, buf, static_cast<size_t>(n)) != n)
            return 2;
        close(out);
        uint32_t word = 7;
        if (tarnhost_bus_publish(pub, kOpc, &word, sizeof word) != 0)
            return 3;
        bus_msg_t *m = tarnhost_bus_recv_ms(sub, 2000);
        if (m == nullptr)
            return 4;
        bus_drop(sub, m);
        return 0;
    }));
}

}  // namespace
