// The passive listener: subscriptions without registration, so nothing of
// libtarn runs and no cache is enabled.

#include "tools/tarnctl_passive.h"

#include <stdio.h>

#include <signal.h>

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <set>

#include <tarn/gyre.h>
#include <tarn/notification_json.hpp>
#include <tarn/tarn.h>

#include "host/tarnhost_bus.h"
#include "host/tarnhost_bus_opcodes.h"
#include "host/tarnhost_client.h"
#include "platform/bus.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

namespace {
volatile sig_atomic_t g_stop_requested = 0;
void on_stop_signal(int) { g_stop_requested = 1; }
}  // namespace

void stop_on_signals()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool stop_requested() { return g_stop_requested != 0; }

nlohmann::json decoded_json(const tarn::Decoded &decoded)
{
    // The rendering always writes valid JSON; parse without exceptions.
    return nlohmann::json::parse(tarn::to_json(decoded), nullptr, false);
}

std::vector<uint32_t> notification_opcodes()
{
    // Gyre's notifications (51205, 51208 to 51215, the ftag notice 51223),
    // the attribute change 51226 and the configuration-change notice 51222.
    return {51205, 51208, 51209, 51210, 51211, 51212, 51213,
            51214, 51215, 51222, 51223, 51226};
}

uint32_t listen_passively(const char *name, const std::vector<uint32_t> &opcodes,
                          std::string *error)
{
    const uint32_t h = bus_bind(0, -1, nullptr, name);
    if (h == BUS_HANDLE_NONE) {
        *error = std::string("cannot bind a bus handle: ") + strerror(errno);
        return h;
    }
    for (uint32_t op : opcodes) {
        const int err = tarnhost_bus_subscribe(h, op, 1);
        if (err != 0) {
            *error = "cannot subscribe to opcode " + std::to_string(op) + ": " + strerror(err);
            bus_unbind(h);
            return BUS_HANDLE_NONE;
        }
    }
    return h;
}

std::string to_hex(const uint8_t *p, uint32_t len)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * static_cast<size_t>(len));
    for (uint32_t i = 0; i < len; ++i) {
        out += kDigits[p[i] >> 4];
        out += kDigits[p[i] & 15];
    }
    return out;
}

bool from_hex(const std::string &text, std::vector<uint8_t> *out)
{
    if (text.size() % 2 != 0)
        return false;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    out->clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out->push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return true;
}

std::vector<uint32_t> library_opcodes()
{
    std::vector<uint32_t> all(tarnhost_bus_named_opcodes(nullptr, 0));
    all.resize(tarnhost_bus_named_opcodes(all.data(), all.size()));
    all.erase(std::remove(all.begin(), all.end(), TARNHOST_OPC_CLIENT_INSPECT), all.end());
    return all;
}

std::string library_opcode_lines()
{
    std::string out;
    for (uint32_t op : library_opcodes()) {
        char line[80];
        snprintf(line, sizeof line, "  %-28s %u\n", tarnhost_bus_opcode_name(op), op);
        out += line;
    }
    return out;
}

int parse_opcode_option(int argc, char **argv, int *i, std::vector<uint32_t> *out,
                        std::string *error)
{
    const char *a = argv[*i];
    const char *value = nullptr;
    if (strcmp(a, "--opcode") == 0) {
        if (*i + 1 >= argc) {
            *error = "--opcode needs a value";
            return -1;
        }
        value = argv[++*i];
    } else if (strncmp(a, "--opcode=", 9) == 0) {
        value = a + 9;
    } else {
        return 0;
    }
    uint32_t op = 0;
    if (tarnhost_bus_opcode_parse(value, &op) != 0) {
        *error = "--opcode takes the name or number of an opcode, not \"" + escaped(value) +
                 "\"";
        return -1;
    }
    const std::vector<uint32_t> known = library_opcodes();
    if (std::find(known.begin(), known.end(), op) == known.end()) {
        *error = "opcode " + escaped(value) + " is not one that libtarn sends or receives (" +
                 ranges_text(std::set<uint32_t>(known.begin(), known.end())) +
                 "; the command's --help names them)";
        return -1;
    }
    out->push_back(op);
    return 1;
}

const char *stop_reason(bool signalled, uint64_t handled, uint64_t count, double elapsed,
                        uint64_t timeout)
{
    if (signalled)
        return "signal";
    if (count != 0 && handled >= count)
        return "count";
    if (timeout != 0 && elapsed >= static_cast<double>(timeout))
        return "timeout";
    return nullptr;
}

}  // namespace tarnctl
