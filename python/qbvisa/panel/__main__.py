"""python3 -m qbvisa.panel: serves the front panel and prints its address."""

from __future__ import annotations

import argparse
import signal
import sys
from types import FrameType
from typing import List, Optional

from .. import lib, sim
from . import serve


def main(argv: Optional[List[str]] = None) -> int:
    parser = argparse.ArgumentParser(
        prog="python3 -m qbvisa.panel",
        description="A front panel in the browser for every chassis found. With "
                    "QBSIM_SERVER set it shows the shared simulated rack.")
    parser.add_argument("--port", type=int, default=0, help="port (default: a free one)")
    parser.add_argument("--listen", metavar="ADDRESS",
                        help="listen on this address instead of 127.0.0.1 (other machines "
                             "can then reach the panel: the token still guards switching)")
    parser.add_argument("--bench", metavar="FILE",
                        help="simulate this bench file in this process")
    parser.add_argument("--sim", action="store_true",
                        help="simulate the built-in bench in this process")
    parser.add_argument("--interval", type=float, default=0.25,
                        help="seconds between read-backs of the relays (default 0.25)")
    args = parser.parse_args(argv)
    if not 0 <= args.port <= 65535 or args.interval <= 0:
        parser.error("port must be 0..65535 and interval positive")
    try:
        if args.bench or args.sim:
            sim.use(args.bench)
        panel = serve(args.port, host=args.listen or "127.0.0.1", background=True,
                      interval=args.interval, any_host=args.listen is not None)
    except (OSError, lib.LibraryNotFoundError, sim.SimulationError) as exc:
        print(f"qbvisa.panel: {exc}", file=sys.stderr)
        return 1
    def interrupted(number: int, frame: Optional[FrameType]) -> None:
        raise KeyboardInterrupt

    signal.signal(signal.SIGTERM, interrupted)   # stop cleanly when told to
    print(f"qbvisa panel: {panel.url}", flush=True)
    try:
        panel.wait()
    except KeyboardInterrupt:
        pass
    finally:
        panel.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
