"""python -m tarn: where the bindings found their pieces, and what the
device in force looks like to a client.  Everything else is tarnctl's job.
"""

from __future__ import annotations

import argparse
import sys

from . import _native as N
from ._core import current_root
from .errors import TarnError


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(
        prog="python -m tarn",
        description="Show where the tarn bindings found libtarn, libtarnhost "
                    "and tarnctl, and the contexts and topologies of the "
                    "device in $TARNHOST_ROOT.  To load or change a device, "
                    "use tarnctl.")
    parser.parse_args(argv)
    try:
        tarn_lib = N.tarn
    except ImportError as exc:
        print(f"libtarn      not loaded ({exc})")
        return 1
    print(f"libtarn      {N.library_path(tarn_lib) or tarn_lib._name}")
    print(f"libtarnhost  {N.library_path(N.host) or N.host._name}")
    try:
        print(f"tarnctl      {N.tarnctl_path()}")
    except FileNotFoundError as exc:
        print(f"tarnctl      not found ({exc})")
    print(f"device       {current_root()}")
    from . import library
    try:
        lib = library.open()
    except TarnError as exc:
        print(f"status       {exc}")
        return 1
    with lib:
        contexts = ", ".join(f"{c.name} ({c.id})" for c in lib.contexts())
        topologies = ", ".join(str(t.id) for t in lib.gyre.topologies())
        print("status       up")
        print(f"contexts     {contexts or '(none)'}")
        print(f"topologies   {topologies or '(none)'}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
