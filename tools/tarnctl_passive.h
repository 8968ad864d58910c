// A passive listener of the device's notifications: a bus handle
// subscribed to the notification opcodes, with no libtarn state at all.
// "tarnctl watch --passive" prints what it hears, "tarnctl record" writes
// it down.
#ifndef TARN_TOOLS_TARNCTL_PASSIVE_H
#define TARN_TOOLS_TARNCTL_PASSIVE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/notification.hpp>

namespace tarnctl {

// A decoded payload as the "decoded" object of watch's JSON lines: the
// fields of <tarn/notification_json.hpp>, the rendering the Python package
// gets too.
nlohmann::json decoded_json(const tarn::Decoded &decoded);

// The notifications that the Tarn and Gyre services publish.
std::vector<uint32_t> notification_opcodes();

// Binds a dynamic handle named `name` and subscribes it to `opcodes`.
// BUS_HANDLE_NONE with *error set when that fails.
uint32_t listen_passively(const char *name, const std::vector<uint32_t> &opcodes,
                          std::string *error);

// "0a1b..." for bytes, and back (false for text that is no hex).
std::string to_hex(const uint8_t *p, uint32_t len);
bool from_hex(const std::string &text, std::vector<uint8_t> *out);

// The opcodes that libtarn sends or receives, ascending: those that an
// --opcode filter may name.
std::vector<uint32_t> library_opcodes();
// Their names and numbers, one "  NAME  NUMBER" line each, for a help text.
std::string library_opcode_lines();

// "--opcode OPCODE" (repeatable) at argv[*i], a name or a number of one of
// library_opcodes(): 1 matched (value appended), 0 not this option, -1 bad
// value (with *error saying why).
int parse_opcode_option(int argc, char **argv, int *i, std::vector<uint32_t> *out,
                        std::string *error);

// Makes SIGINT and SIGTERM ask a long-running command to stop (they only
// set a flag, read with stop_requested()) and makes standard output line
// buffered, so that every line reaches a pipe as it is printed.
void stop_on_signals();
bool stop_requested();

// Why a listener that has handled `handled` messages, `elapsed` seconds
// after its start, stops now ("signal", "count", "timeout"); null to go on.
// A count or timeout of 0 is no limit.
const char *stop_reason(bool signalled, uint64_t handled, uint64_t count, double elapsed,
                        uint64_t timeout);

}  // namespace tarnctl

#endif
