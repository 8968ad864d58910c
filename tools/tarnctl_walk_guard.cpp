// A walk that does not move on: see tools/tarnctl_walk_guard.h.

#include "tools/tarnctl_walk_guard.h"

#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "host/tarnhost.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

namespace {

[[noreturn]] void damaged(const std::string &what)
{
    report("show", kExitFailed,
           std::string("the store of the device in ") + tarnhost_root() + " is damaged (" +
               what + "); rebuild it with \"tarnctl load FILE\"");
    fflush(nullptr);
    exit(kExitFailed);
}

}  // namespace

void walk_went_back(const char *walk, uint64_t from, uint64_t to)
{
    damaged(std::string("the ") + walk + " walk went from " + std::to_string(from) + " back to " +
            std::to_string(to));
}

void walk_without_end(const char *walk, uint64_t most)
{
    damaged(std::string("the ") + walk + " walk gave more than " + std::to_string(most) +
            " answers");
}

}  // namespace tarnctl
