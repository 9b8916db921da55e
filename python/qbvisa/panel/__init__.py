"""A front panel in the browser for every chassis the package finds.

Standalone: ``python3 -m qbvisa.panel`` prints the address to open. Inside
a test program::

    import qbvisa.panel
    panel = qbvisa.panel.serve(port=8420, background=True)
    print(panel.url)          # the program decides what to print
    ...                       # what the program switches shows up live
    panel.stop()

Where the relays can be read back (the simulated bench, in this process or
shared through ``QBSIM_SERVER``) the page shows what the chassis holds,
whoever switched it; on a station's VISA it shows what this process
switched, and says so.
"""

from __future__ import annotations

import secrets
import threading
from typing import Optional

from .rack import Station
from .server import PanelServer, start

__all__ = ["Panel", "serve"]


class Panel:
    """A running panel: its address (token included) and how to stop it."""

    def __init__(self, server: PanelServer, thread: threading.Thread,
                 station: Station) -> None:
        self._server = server
        self._thread = thread
        self._station = station
        address = server.server_address
        host, port = str(address[0]), int(address[1])
        shown = f"[{host}]" if ":" in host else host
        self.host = host
        self.port = int(port)
        self.token = server.token
        self.url = f"http://{shown}:{self.port}/?token={self.token}"

    def stop(self) -> None:
        """Stops serving and watching (the relays keep their state)."""
        self._server.closing = True  # type: ignore[attr-defined]
        self._station.stop()
        self._server.shutdown()
        self._server.server_close()
        self._thread.join(timeout=5)

    def wait(self) -> None:
        """Blocks until the panel is stopped (or the program interrupted)."""
        self._thread.join()

    def __enter__(self) -> "Panel":
        return self

    def __exit__(self, *exc: object) -> None:
        self.stop()


def serve(port: int = 0, *, host: str = "127.0.0.1", background: bool = False,
          token: Optional[str] = None, interval: float = 0.25,
          any_host: bool = False) -> Panel:
    """Serves the panel for the chassis the package finds.

    ``port`` 0 picks a free one (see :attr:`Panel.url`). ``host`` is the
    address to listen on: loopback unless you mean otherwise. ``token``
    defaults to a fresh random one; every request that switches or changes
    a setting needs it. ``interval`` is how often (seconds) the relays are
    read back. With ``background=False`` the call blocks until the panel
    stops; with ``True`` it returns the running :class:`Panel`.
    """
    station = Station(interval)
    station.start()
    try:
        server, thread = start(station, host, port, token or secrets.token_urlsafe(24),
                               any_host)
    except BaseException:
        station.stop()
        raise
    panel = Panel(server, thread, station)
    if not background:
        try:
            panel.wait()
        finally:
            panel.stop()
    return panel
