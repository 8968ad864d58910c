// The host's client helper: registration and caches in one call, and the
// inspection request answered beside the library's own dispatch.

#include <stdint.h>
#include <string.h>

#include <string>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/client/inspect.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_client.h"
#include "platform/bus.h"

namespace {

uint32_t g_enabled = 0;

// The document of the last request, kept so that every page of one request
// comes from the same moment even when notifications arrive in between.
struct Snapshot {
    uint32_t requester = BUS_HANDLE_NONE;
    uint32_t nonce = 0;
    std::string doc;
};
Snapshot *snapshot()
{
    static Snapshot *s = new Snapshot;
    return s;
}

}  // namespace

extern "C" {

const char *tarnhost_client_start(uint32_t handle, uint32_t what)
{
    if ((what & TARNHOST_CLIENT_TARN) != 0) {
        if (tarn_register(handle) != TARN_SUCCESS)
            return "tarn_register";
        g_enabled |= TARNHOST_CLIENT_TARN;
    }
    if ((what & TARNHOST_CLIENT_GYRE) != 0) {
        if (gyre_register(handle) != TARN_SUCCESS)
            return "gyre_register";
        g_enabled |= TARNHOST_CLIENT_GYRE;
    }
    if ((what & TARNHOST_CLIENT_AS_FORMAT) != 0) {
        if (tarn_track_as_format() != TARN_SUCCESS)
            return "tarn_track_as_format";
        g_enabled |= TARNHOST_CLIENT_AS_FORMAT;
    }
    if ((what & TARNHOST_CLIENT_GYRE_CACHE) != 0) {
        gyre_cache_attr_t attr;
        memset(&attr, 0, sizeof attr);
        attr.bus_handle = handle;
        if (gyre_enable_cache_mode(&attr) != TARN_SUCCESS)
            return "gyre_enable_cache_mode";
        g_enabled |= TARNHOST_CLIENT_GYRE_CACHE;
    }
    return nullptr;
}

uint32_t tarnhost_client_enabled(void) { return g_enabled; }

void tarnhost_client_set_enabled(uint32_t what) { g_enabled = what & TARNHOST_CLIENT_ALL; }

// No exception leaves for the C caller: an answer that cannot be made (out
// of memory) is not sent, and the requester's wait runs out.
int32_t tarnhost_client_dispatch(uint32_t handle, bus_msg_t *msg)
try {
    if (msg == nullptr || bus_opc_get(msg) != TARNHOST_OPC_CLIENT_INSPECT)
        return tarn_dispatch(msg);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
    tarnhost_client::Question q;
    uint32_t nonce = 0, offset = 0;
    if (tarnhost_client::decode_request(p, len, &q, &nonce, &offset)) {
        Snapshot *s = snapshot();
        const uint32_t from = tarnhost_bus_sender_get(msg);
        if (offset == 0 || s->requester != from || s->nonce != nonce) {
            s->requester = from;
            s->nonce = nonce;
            s->doc = tarnhost_client::answers(q, g_enabled);
        }
        const std::vector<uint8_t> a =
            tarnhost_client::encode_answer(s->doc, nonce, offset);
        // A requester that went away loses its answer; nothing to do here.
        (void)tarnhost_bus_reply(handle, msg, TARNHOST_OPC_CLIENT_INSPECT, a.data(),
                                 static_cast<uint32_t>(a.size()));
    }
    bus_drop(handle, msg);
    return 1;
} catch (...) {
    bus_drop(handle, msg);
    return 1;
}

}  // extern "C"
