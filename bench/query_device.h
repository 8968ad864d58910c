// A device of 4,000 contexts (two tables each) and 16,000 interfaces for
// the query benchmarks, the client library attached to it, and the raw LMDB
// read of the same store that the queries are measured against.
#ifndef TARN_BENCH_QUERY_DEVICE_H
#define TARN_BENCH_QUERY_DEVICE_H

#include <arpa/inet.h>
#include <string.h>

#include <string>
#include <vector>

#include "bench/bench_root.h"
#include "bench/raw_lmdb.h"

#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "tools/device_loader.h"

namespace tarnbench {

constexpr int kContexts = 4000;
constexpr int kInterfaces = 16000;

// Contexts "vrf1" to "vrf4000" with ids 1 to 4000; interface i (ifindex i)
// in context "vrf<1 + i % 4000>".
struct QueryDevice {
    BenchRoot root;  // removed at exit
    RawLmdb raw;
    bool ok = false;

    QueryDevice()
    {
        std::string json = "{\"cell\": 2, \"contexts\": [";
        for (int i = 1; i <= kContexts; ++i)
            json += "{\"id\": " + std::to_string(i) + ", \"name\": \"vrf" + std::to_string(i) +
                    "\", \"tables\": [{\"id\": " + std::to_string(2 * i) +
                    ", \"af\": 1, \"name\": \"t4\"}, {\"id\": " + std::to_string(2 * i + 1) +
                    ", \"af\": 2, \"name\": \"t6\"}]}" + (i < kContexts ? "," : "");
        json += "], \"interfaces\": [";
        for (int i = 1; i <= kInterfaces; ++i)
            json += "{\"ifindex\": " + std::to_string(i) + ", \"iod\": " + std::to_string(i) +
                    ", \"name\": \"e" + std::to_string(i) + "\", \"context\": \"vrf" +
                    std::to_string(1 + i % kContexts) + "\"}" + (i < kInterfaces ? "," : "");
        json += "]}";
        if (tarndev::load_device_text(json, "bench").status != 0 || tarn_api_init() != 1)
            return;
        if (!raw.open("tarn_global_kvs"))
            return;
        ok = true;
    }

    // The raw read the queries are measured against.
    bool raw_read(const uint8_t *key) { return raw.read(key, 48); }
};

inline QueryDevice &query_device()
{
    static QueryDevice d;
    return d;
}

inline std::vector<uint8_t> key_id(uint32_t kind, uint32_t id)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind), v = htonl(id);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], &v, 4);
    return key;
}

inline std::vector<uint8_t> key_name(uint32_t kind, const std::string &name)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], name.data(), name.size());
    return key;
}

}  // namespace tarnbench

#endif
