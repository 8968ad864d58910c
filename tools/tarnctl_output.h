// tarnctl's output conventions, shared by every command: tables that are
// safe to show on a terminal, JSON documents with one schema, errors as one
// line (or one JSON object) on standard error, and write errors noticed.
#ifndef TARN_TOOLS_TARNCTL_OUTPUT_H
#define TARN_TOOLS_TARNCTL_OUTPUT_H

#include <stddef.h>
#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarnctl {

using json = nlohmann::json;
using Row = std::vector<std::string>;

// The version of the JSON documents' layout; every document carries it as
// "schema".  It changes only when a key is removed or changes meaning.
constexpr int kJsonSchema = 1;

// ---- text for a terminal -------------------------------------------------

// `raw` with every control character (C0, DEL, C1) and every byte that is
// not part of valid UTF-8 written as an escape (\n, \t, \e, \xNN, \\), so
// that a name can neither break a line nor drive the terminal.
std::string escaped(const std::string &raw);
// The number of terminal columns that `text` (valid UTF-8 without control
// characters, as escaped() returns) takes: wide characters count two,
// combining marks none.
size_t display_width(const std::string &text);

// Prints rows under a header, every cell escaped, every column as wide as
// its widest cell in display columns, two blanks between columns, no
// trailing blanks.
void print_table(const Row &header, const std::vector<Row> &rows);
// "1 context", "3 contexts".
std::string counted(size_t n, const char *singular, const char *plural);

// ---- JSON ------------------------------------------------------------------

// Prints `doc` with "schema" added, indented, on standard output.
void print_json(json doc);
// Prints `doc` with "schema" added on one line (JSON Lines, for streams).
void print_json_line(json doc);
// A set of small numbers (VLANs, ftags) as range text ("1-3,7"; "" when
// empty).
std::string ranges_text(const std::set<uint32_t> &s);
// The numbers of a bitmap whose bit i is (bits[i/8] & 0x80 >> i%8).
std::set<uint32_t> bitmap_set(const uint8_t *bits, uint32_t count);
// `value` or null.
json or_null(bool present, const json &value);

// ---- errors and the end of a command ---------------------------------------

// Whether errors are to be JSON objects (the command line has --json).
void set_json_errors(bool on);
bool json_errors();
// Reports a failure of `command` ("show contexts") on standard error: one
// line "tarnctl COMMAND: MESSAGE", or with --json the object
// {"schema":1,"error":{"command":..,"message":..,"status":..}}.  Returns
// `status`.
int report(const std::string &command, int status, const std::string &message);
// The same with a printf format.
int reportf(const std::string &command, int status, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// Makes standard output a stream that keeps the reason of its first failed
// write (ENOSPC, EPIPE) for finish_output().  Called once, first thing.
void keep_write_errors();
// What a command that changes the device has done ("the device in R was
// loaded"), so that a write error at its end does not read as if nothing
// happened.
void set_done(const std::string &what);
// Flushes standard output; a write error (a full disk) turns `status` into
// a failure with a message, while a closed pipe ends the process quietly
// by SIGPIPE.  Every command ends through it.
int finish_output(const char *command, int status);
// True once a write to standard output has failed (long-running commands
// stop then).
bool output_failed();

}  // namespace tarnctl

#endif
