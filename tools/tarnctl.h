// tarnctl: the command-line tool of a simulated device.  Each subcommand
// lives in a source file of its own (tarnctl_<name>.cpp) and is listed in
// the command table of tarnctl.cpp.
#ifndef TARN_TOOLS_TARNCTL_H
#define TARN_TOOLS_TARNCTL_H

#include <stdint.h>

#include <string>

namespace tarnctl {

// Exit statuses shared by every subcommand.
enum Exit {
    kExitOk = 0,
    kExitFailed = 1,  // the command ran and did not succeed
    kExitUsage = 2,   // the command line was wrong
};

struct Command {
    const char *name;
    const char *synopsis;  // arguments, for the usage text
    const char *summary;   // one line for the tool's --help
    // Runs with the arguments after the command's name; returns an Exit.
    int (*run)(int argc, char **argv);
};

// Prints "tarnctl <name>: <message>" and a hint on standard error; returns
// kExitUsage.
int usage_error(const Command &cmd, const char *message);

// The command line of a command that takes one FILE, --json and --help: -1
// with *file set, or the exit status to return at once.
int one_file_argument(const Command &cmd, int argc, char **argv,
                      void (*print_help)(), const char **file);
// Whether the command line asked for JSON output (--json before any "--").
bool json_output();

// A count or a number of seconds given on the command line: decimal digits
// only, from 1 to `hi`.  False for anything else, *out untouched.
bool parse_count(const char *text, uint64_t hi, uint64_t *out);

// -1 when the environment variables that tarnctl and the host read hold
// values they can use; else reports which does not and returns kExitUsage.
int check_environment();
// Whether the device directory exists and this user may use it; if not,
// reports why (with what fixes it) for `command`.
bool device_reachable(const std::string &command);
// device_reachable(), or a device directory still to be made in a parent
// that exists (what "tarnctl load" needs).
bool device_creatable(const std::string &command);
// device_reachable() and the device loaded (brought up): what the commands
// that use only the bus need, so that none of them makes the skeleton of a
// device (its bus directories) in a root that holds none; reports
// otherwise.
bool device_loaded(const std::string &command);
// device_loaded() and its store still there and sound; reports otherwise.
bool device_up(const std::string &command);
// Reports why libtarn could not be initialised for the device (another
// cell, a damaged or missing store, or else where the library's report
// is) for `command`; returns kExitFailed.
int report_library_failure(const std::string &command);
// Whether the device's store is damaged, read through in a child process;
// reports it for `command` when it is.
bool store_damaged(const std::string &command);

// tarnctl load FILE [--json]
int cmd_load(int argc, char **argv);
extern const Command kLoad;

// tarnctl show WHAT [ARGUMENTS] [--json]
int cmd_show(int argc, char **argv);
extern const Command kShow;

// tarnctl watch [--sap N] [--count N] [--timeout S] [--json] [--passive]
//               [--opcode OPCODE]...
int cmd_watch(int argc, char **argv);
extern const Command kWatch;

// tarnctl apply FILE [--json]
int cmd_apply(int argc, char **argv);
extern const Command kApply;

// tarnctl dump-cache (--client HANDLE | --sap N | --pid P) [--verify]
//                    [--timeout S] [--json]
int cmd_dump_cache(int argc, char **argv);
extern const Command kDumpCache;

// tarnctl record FILE [--opcode OPCODE]... [--count N] [--timeout S]
int cmd_record(int argc, char **argv);
extern const Command kRecord;

// tarnctl replay FILE [--speed X]
int cmd_replay(int argc, char **argv);
extern const Command kReplay;

// tarnctl log [-f] [--json] [--grep TEXT] [--timeout S]
int cmd_log(int argc, char **argv);
extern const Command kLog;

}  // namespace tarnctl

#endif
