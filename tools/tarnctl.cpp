// tarnctl: entry point and command table.

#include "tools/tarnctl.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <tarn/version.h>

#include "host/tarnhost.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {
namespace {

const Command *const kCommands[] = {
    &kLoad,
    &kShow,
    &kWatch,
    &kApply,
    &kDumpCache,
    &kRecord,
    &kReplay,
    &kLog,
};

bool g_json_output = false;

void print_usage(FILE *out)
{
    fprintf(out,
            "usage: tarnctl COMMAND [ARGUMENTS] [--json]\n"
            "       tarnctl help [COMMAND]    (or: tarnctl COMMAND --help)\n"
            "       tarnctl --version\n"
            "\n"
            "Works on the simulated device in $TARNHOST_ROOT (default %s).\n"
            "\n"
            "Commands:\n",
            tarnhost_default_root());
    for (const Command *c : kCommands)
        fprintf(out, "  %-10s %s\n", c->name, c->summary);
    fprintf(out,
            "\n"
            "With --json every command prints one JSON document (watch: one per line)\n"
            "and reports an error as a JSON object on standard error.\n"
            "\n"
            "Exit status: 0 success, 1 the command failed, 2 usage error.\n");
}

const Command *find_command(const char *name)
{
    for (const Command *c : kCommands)
        if (strcmp(c->name, name) == 0)
            return c;
    return nullptr;
}

int unknown_command(const char *name)
{
    return report("", kExitUsage,
                  std::string("unknown command \"") + name +
                      "\"; run \"tarnctl --help\" for the list of commands");
}

}  // namespace

bool json_output() { return g_json_output; }

int usage_error(const Command &cmd, const char *message)
{
    return report(cmd.name, kExitUsage,
                  std::string(message) + "; usage: tarnctl " + cmd.name + " " +
                      cmd.synopsis + " (see \"tarnctl " + cmd.name + " --help\")");
}

int one_file_argument(const Command &cmd, int argc, char **argv,
                      void (*print_help)(), const char **file)
{
    *file = nullptr;
    bool options_done = false;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i];
        if (!options_done && (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0)) {
            print_help();
            return kExitOk;
        }
        if (!options_done && strcmp(a, "--") == 0) {
            options_done = true;
            continue;
        }
        if (!options_done && strcmp(a, "--json") == 0)
            continue;
        if (!options_done && a[0] == '-' && a[1] != '\0') {
            char msg[256];
            snprintf(msg, sizeof msg, "unknown option \"%s\"", a);
            return usage_error(cmd, msg);
        }
        if (*file != nullptr)
            return usage_error(cmd, "one FILE only");
        *file = a;
    }
    if (*file == nullptr)
        return usage_error(cmd, "FILE is missing");
    return -1;
}

bool parse_count(const char *text, uint64_t hi, uint64_t *out)
{
    if (text == nullptr || *text == '\0' || strlen(text) > 19)
        return false;
    uint64_t v = 0;
    for (const char *c = text; *c; ++c) {
        if (*c < '0' || *c > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(*c - '0');
    }
    if (v < 1 || v > hi)
        return false;
    *out = v;
    return true;
}

}  // namespace tarnctl

namespace {

int run(int argc, char **argv)
{
    using namespace tarnctl;
    if (argc < 2) {
        print_usage(stderr);
        return kExitUsage;
    }
    const char *name = argv[1];
    if (strcmp(name, "--version") == 0 || strcmp(name, "-V") == 0) {
        for (int i = 2; i < argc; ++i)
            if (strcmp(argv[i], "--json") != 0)
                return report("", kExitUsage,
                              std::string("unexpected argument \"") + argv[i] +
                                  "\" after --version; usage: tarnctl --version [--json]");
        if (json_output())
            print_json({{"version", TARN_VERSION_STRING},
                        {"major", TARN_VERSION_MAJOR},
                        {"minor", TARN_VERSION_MINOR},
                        {"patch", TARN_VERSION_PATCH}});
        else
            printf("tarnctl (libtarn) %s\n", TARN_VERSION_STRING);
        return kExitOk;
    }
    if (strcmp(name, "--help") == 0 || strcmp(name, "-h") == 0) {
        print_usage(stdout);
        return kExitOk;
    }
    if (strcmp(name, "help") == 0) {
        // --json asks for the form of errors; it is no COMMAND.
        std::vector<char *> words;
        for (int i = 0; i < argc; ++i)
            if (i < 2 || strcmp(argv[i], "--json") != 0)
                words.push_back(argv[i]);
        words.push_back(nullptr);
        argc = static_cast<int>(words.size()) - 1;
        argv = words.data();
        if (argc == 3 && strcmp(argv[2], "help") == 0) {
            print_usage(stdout);
            return kExitOk;
        }
        if (argc < 3) {
            print_usage(stdout);
            return kExitOk;
        }
        if (argc > 4 || (argc == 4 && strcmp(argv[2], "show") != 0))
            return report("help", kExitUsage,
                          "one COMMAND only; usage: tarnctl help [COMMAND]");
        const Command *c = find_command(argv[2]);
        if (c == nullptr)
            return unknown_command(argv[2]);
        // "tarnctl help show contexts" is "tarnctl show contexts --help".
        char help[] = "--help";
        char *args[3] = {argc == 4 ? argv[3] : help, help, nullptr};
        return c->run(argc == 4 ? 2 : 1, args);
    }
    const Command *c = find_command(name);
    if (c == nullptr)
        return unknown_command(name);
    const int env = check_environment();
    if (env >= 0)
        return env;
    return c->run(argc - 2, argv + 2);
}

}  // namespace

int main(int argc, char **argv)
{
    // A closed pipe is seen as EPIPE at the end of the command, after it
    // has cleaned up; finish_output() then ends quietly by SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    tarnctl::keep_write_errors();
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i)
        if (strcmp(argv[i], "--json") == 0)
            tarnctl::g_json_output = true;
    tarnctl::set_json_errors(tarnctl::json_output());
    const int status = run(argc, argv);
    std::string command = argc >= 2 ? argv[1] : "";
    if (command.rfind("-", 0) == 0 || tarnctl::find_command(command.c_str()) == nullptr)
        command.clear();
    return tarnctl::finish_output(command.c_str(), status);
}
