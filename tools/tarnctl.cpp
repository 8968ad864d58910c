// tarnctl: entry point and command table.

#include "tools/tarnctl.h"

#include <stdio.h>
#include <string.h>

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

void print_usage(FILE *out)
{
    fprintf(out,
            "usage: tarnctl COMMAND [ARGUMENTS]\n"
            "       tarnctl COMMAND --help\n"
            "\n"
            "Works on the simulated device in $TARNHOST_ROOT "
            "(default /dev/shm/tarnhost).\n"
            "\n"
            "Commands:\n");
    for (const Command *c : kCommands)
        fprintf(out, "  %-10s %s\n", c->name, c->summary);
    fprintf(out,
            "\n"
            "Exit status: 0 success, 1 the command failed, 2 usage error.\n");
}

}  // namespace

int usage_error(const Command &cmd, const char *message)
{
    fprintf(stderr, "tarnctl %s: %s; usage: tarnctl %s %s "
                    "(see \"tarnctl %s --help\")\n",
            cmd.name, message, cmd.name, cmd.synopsis, cmd.name);
    return kExitUsage;
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

int main(int argc, char **argv)
{
    using namespace tarnctl;
    if (argc < 2) {
        print_usage(stderr);
        return kExitUsage;
    }
    const char *name = argv[1];
    if (strcmp(name, "--help") == 0 || strcmp(name, "-h") == 0 ||
        strcmp(name, "help") == 0) {
        print_usage(stdout);
        return kExitOk;
    }
    for (const Command *c : kCommands)
        if (strcmp(c->name, name) == 0)
            return c->run(argc - 2, argv + 2);
    fprintf(stderr,
            "tarnctl: unknown command \"%s\"; run \"tarnctl --help\" for the "
            "list of commands\n",
            name);
    return kExitUsage;
}
