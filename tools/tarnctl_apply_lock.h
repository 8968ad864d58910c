// The device's apply lock: one apply at a time, and a second one waits a
// bounded time, saying for whom.
#ifndef TARN_TOOLS_TARNCTL_APPLY_LOCK_H
#define TARN_TOOLS_TARNCTL_APPLY_LOCK_H

#include <string>

#include "tools/tarnctl.h"

namespace tarnctl {

// How long apply waits for the lock unless --wait says otherwise.
constexpr unsigned kApplyWaitDefault = 60;
// The longest --wait accepted (a day).
constexpr unsigned kApplyWaitMax = 86400;

// Takes "--wait SECONDS" out of argv (before "--"), leaving the other
// arguments in order; -1 when done, else the exit status of a usage error
// it reported.  *argc is updated.
int take_wait_option(const Command &cmd, int *argc, char **argv, unsigned *seconds);

// Takes the apply lock of the device (supervisor/apply.lock, opened like
// every file below the root) within `seconds`.  After a short wait it says
// on standard error (text output only) which process holds the lock.  The
// descriptor, held until the process ends, or -1 with *why saying what
// went wrong, as the end of "cannot take the apply lock ...: ".
int hold_apply_lock(unsigned seconds, std::string *why);

}  // namespace tarnctl

#endif
