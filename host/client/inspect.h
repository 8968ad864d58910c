// The host's inspection request: a tool asks a client process (one built on
// the host's client helper) what the library answers there, for every VLAN
// and ftag and for the topologies and graphs the tool names.  Both sides
// produce the same document with answers(): the client from its caches,
// the tool from the databases, so the two can be compared entry by entry.
#ifndef TARNHOST_CLIENT_INSPECT_H
#define TARNHOST_CLIENT_INSPECT_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tarnhost_client {

struct Question {
    std::vector<uint32_t> topologies;
    std::vector<uint16_t> graphs;
};

// The answers of this process's library as a JSON document:
//   {"pid", "program", "enabled" (what the helper enabled, -1 when this
//    process is no helper client), "tarn_cache_mode", "as_format_tracked",
//    "as_format", "vlan_owner" {vlan: topology}, "ftag_owner" {ftag:
//    topology}, "vlan_unicast_ftag" {vlan: ftag}, "vlan_graph_ftag" {vlan:
//    {graph: ftag}}, "ftag_vlans" {ftag: VLAN ranges}, "topologies" {id:
//    {"vlans", "cfg_vlans", "unicast_ftag", "graph_ftag" {graph: ftag}}}}
// Absent answers are left out.  Topologies asked about and every owner
// found are covered.
std::string answers(const Question &q, int64_t enabled);

// Request wire form: magic, version, nonce, offset, topology count, graph
// count, the topologies (u32 each), the graphs (u16 each), host order.
std::vector<uint8_t> encode_request(const Question &q, uint32_t nonce,
                                    uint32_t offset);
bool decode_request(const uint8_t *p, uint32_t len, Question *q,
                    uint32_t *nonce, uint32_t *offset);

// Answer wire form: magic, version, nonce, total length, offset, chunk
// length, the chunk of the document.
constexpr uint32_t kChunk = 192 * 1024;
std::vector<uint8_t> encode_answer(const std::string &doc, uint32_t nonce,
                                   uint32_t offset);
bool decode_answer(const uint8_t *p, uint32_t len, uint32_t *nonce,
                   uint32_t *total, uint32_t *offset, std::string *chunk);

// Asks the client at access point `sap`, from `requester`, waiting up to
// `timeout_ms` for each page.  "" with *doc set, or why it failed.
std::string ask(uint32_t requester, int32_t sap, const Question &q,
                uint32_t timeout_ms, std::string *doc);

}  // namespace tarnhost_client

#endif
