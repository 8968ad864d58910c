// The library's walks over a damaged store: each answer names the next
// record by what the last one held, so a damaged record can send a walk
// back to where it was, and a command that follows it would go round for
// ever.  A walk that does not move on is the store's damage, told as such.
#ifndef TARN_TOOLS_TARNCTL_WALK_GUARD_H
#define TARN_TOOLS_TARNCTL_WALK_GUARD_H

#include <stdint.h>

namespace tarnctl {

// Ends the command (exit status 1) saying that the store is damaged: the
// walk `walk` went from `from` back to `to`, which it had given before.
[[noreturn]] void walk_went_back(const char *walk, uint64_t from, uint64_t to);

// Ends the command the same way when a walk gave more than `most` answers.
[[noreturn]] void walk_without_end(const char *walk, uint64_t most);

}  // namespace tarnctl

#endif
