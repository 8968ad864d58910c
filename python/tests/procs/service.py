"""A service process: for each argument, "as_format=N" stores and announces
a new AS-number format, "delete_caches" tells caching clients to drop their
Gyre caches.  Prints how many handles each notice was for."""

import sys

import tarn

ATTR_CHANGE = 51226


def main(args: list) -> int:
    with tarn.Publisher("test service") as pub:
        for arg in args:
            listeners = len(pub.subscribers(ATTR_CHANGE))
            if arg.startswith("as_format="):
                pub.set_as_format(int(arg.split("=", 1)[1]))
            elif arg == "delete_caches":
                pub.delete_caches()
            else:
                print("unknown", arg, flush=True)
                return 2
            print("sent", arg, "to", listeners, flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
