// The announcement an apply owes: each change of "tarnctl apply" is
// committed together with a record of the notification that announces it,
// and the record is deleted once the notification is published.  An apply
// that ends in between (killed, the machine down) leaves the record, and
// the next apply publishes it before anything else, so that clients never
// stay behind a change that is in the databases.  A load starts a new
// device and drops the record.
#ifndef TARN_TOOLS_ANNOUNCE_JOURNAL_H
#define TARN_TOOLS_ANNOUNCE_JOURNAL_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "tools/device_records.h"

namespace tarndev {

// The database of the device that holds the record.
constexpr char kJournalDb[] = "tarnctl_unannounced";

struct Unannounced {
    uint32_t opcode = 0;
    Bytes payload;
    std::string what;  // the change, as apply described it
};

// The one key of the journal.
Bytes journal_key();
// The record: opcode (4 bytes), payload length (4), payload, the text.
Bytes journal_value(const Unannounced &u);
// The record read back; false when it is too short or its lengths do not
// add up (a record that is not the journal's).
bool journal_decode(const uint8_t *v, size_t len, Unannounced *out);

}  // namespace tarndev

#endif
