// The caching clients of the device and how tarnctl addresses them.
#ifndef TARN_TOOLS_TARNCTL_CLIENTS_H
#define TARN_TOOLS_TARNCTL_CLIENTS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tarnctl {

// How a command names a client: by bus handle, access point or pid.
struct ClientAddress {
    enum Kind { kNone, kHandle, kSap, kPid } kind = kNone;
    uint64_t value = 0;
};

// Parses "--client HANDLE", "--sap N" or "--pid P" at argv[*i] (advancing
// *i past a separate value).  1 matched, 0 not an address option, -1 a bad
// value (with *error set).
int parse_client_address(int argc, char **argv, int *i, ClientAddress *out,
                         std::string *error);

// The handles of the libtarn clients on the device's bus now (alive and
// registered), other than this process's.
std::vector<uint32_t> live_clients();

// The access point (and handle) of the client named; "" or why not.
std::string resolve_client(const ClientAddress &a, int32_t *sap, uint32_t *handle);

// What a client says of itself.
struct ClientState {
    bool helper = false;        // answered the host's inspection request
    std::string document;       // its answers (helper clients)
    int gyre_dump_status = -1;  // page 1 of the specified dump; -1 no answer
};

ClientState probe_client(uint32_t requester, int32_t sap, uint32_t timeout_ms);

}  // namespace tarnctl

#endif
