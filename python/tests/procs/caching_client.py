"""A caching client process: registers, turns the caches on, prints
"ready <handle> <as format>", then dispatches what comes, printing one line
per message, until a cache-delete notice (or 20 s of silence)."""

import sys

import tarn


def main() -> int:
    with tarn.open() as lib, lib.client() as client:
        client.enable_cache()
        print("ready", client.handle, lib.as_format, flush=True)
        for msg in client.messages(timeout=20):
            print("message", msg.opcode, msg.result, "as_format", lib.as_format,
                  "vlan150", lib.gyre.vlan_topology(150), flush=True)
            if msg.opcode == 51226 and msg.payload[2:4] == b"\x03\x00":
                print("done", flush=True)
                return 0
    print("timeout", flush=True)
    return 1


if __name__ == "__main__":
    sys.exit(main())
