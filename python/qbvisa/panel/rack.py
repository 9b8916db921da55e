"""What the panel shows and switches: every chassis found, its matrix of
slot 0 and what is closed on it now.

Where the relays can be read back (the simulated bench, alone in this
process or shared through a rack server), the state shown is the relays the
chassis holds, whoever switched them; otherwise it is what this process
switched through the package (the panel's own clicks and, embedded, the
user's test program). A watcher thread looks every ``interval`` seconds and
advances a version number whenever something changed, which the HTTP side
turns into server-sent events.

Opening slot 0 here does not initialise it: initialising opens every relay,
and the panel must show the rack as it is, not clear it.
"""

from __future__ import annotations

import ctypes
import threading
from dataclasses import dataclass, field
from typing import Any, Dict, FrozenSet, Iterable, List, Optional, Set, Tuple

from .. import chassis as _chassis
from .. import errors, lib, sim
from .._locks import process_lock
from ..points import Point
from .relays import Relay, crosspoint_relays, own_relays, relay_count

Json = Dict[str, Any]


def error_json(exc: BaseException) -> Json:
    """An error as the page shows it: the library's code and text."""
    if isinstance(exc, errors.Error):
        return {"code": exc.code, "text": exc.text.rstrip(), "detail": exc.detail}
    return {"code": None, "text": str(exc) or type(exc).__name__, "detail": ""}


def _optional(getter: Any) -> Any:
    try:
        return getter()
    except errors.Error:
        return None


@dataclass
class View:
    """One chassis as the panel knows it."""

    index: int
    found: _chassis.Found
    chassis: Optional[_chassis.Chassis] = None
    matrix: Optional[_chassis.Matrix] = None
    point_relays: Optional[Dict[Point, Tuple[Relay, ...]]] = None
    relay_map: Optional[Dict[Relay, Point]] = None
    closed: FrozenSet[Point] = frozenset()
    relays: Optional[int] = None
    read_back: bool = False
    problem: Optional[Json] = None
    identity: Json = field(default_factory=dict)
    settings: Json = field(default_factory=dict)
    version: int = 0

    def summary(self) -> Json:
        firmware = self.identity.get("firmware")
        return {"index": self.index, "resource": self.found.resource,
                "model": self.found.model, "type_code": self.found.type_code,
                "firmware": firmware, "closed_count": len(self.closed),
                "relays": self.relays, "problem": self.problem}

    def snapshot(self) -> Json:
        result = self.summary()
        m = self.matrix
        result.update(
            version=self.version, read_back=self.read_back,
            closed=sorted([list(p) for p in self.closed]),
            identity=self.identity, settings=self.settings,
            closure_limit=m.closure_limit if m else None,
            geometry=None if m is None else {
                "rows": m.rows, "columns": m.columns,
                "columns_per_sub_matrix": m.columns_per_sub_matrix,
                "sub_matrices": m.sub_matrices, "fitted": list(m.fitted)})
        return result


class Station:
    """The rack behind one panel. Thread-safe."""

    def __init__(self, interval: float = 0.25) -> None:
        self.interval = interval
        self._views: List[View] = []
        self._lock = threading.Lock()            # views and versions
        self._switching = threading.Lock()       # one switch at a time
        self._changed = threading.Condition(self._lock)
        self._version = 0
        self._stop = threading.Event()
        self._thread: Optional[threading.Thread] = None

    # -- starting and stopping ----------------------------------------------
    def start(self) -> None:
        """Finds the rack, attaches to every chassis and starts watching."""
        found = _chassis.find()
        views = [View(i, f) for i, f in enumerate(found)]
        for view in views:
            self._attach(view)
            self._refresh(view)
        with self._lock:
            self._views = views
            self._version += 1
        self._thread = threading.Thread(target=self._watch, name="qbvisa-panel-watch",
                                        daemon=True)
        self._thread.start()

    def stop(self) -> None:
        self._stop.set()
        with self._changed:
            self._changed.notify_all()
        if self._thread is not None and self._thread is not threading.current_thread():
            self._thread.join(timeout=5)

    @property
    def stopped(self) -> bool:
        return self._stop.is_set()

    def _attach(self, view: View) -> None:
        """Connects and opens slot 0 without initialising it."""
        try:
            chassis = _chassis.connect(view.found.resource)
            with process_lock.exclusive():
                library = lib.library()
                kind = ctypes.c_uint64(0)
                library.QBVISA_OpenSpecifiedCard(chassis.session, 0, ctypes.byref(kind))
                library.InitPointInfo.restype = None
                library.InitPointInfo()
                info = lib.SlotInfo()
                library.QBVISA_GetSlotInfo(chassis.session, 0, ctypes.byref(info))
                view.point_relays = crosspoint_relays(chassis.session)
            if view.point_relays is not None:
                view.relay_map = own_relays(view.point_relays)
            view.chassis = chassis
            view.matrix = _chassis.Matrix(chassis, 0, info)
            view.problem = None
        except errors.Error as exc:
            view.problem = error_json(exc)
            return
        self._read_identity(view)

    def _read_identity(self, view: View) -> None:
        chassis = view.chassis
        if chassis is None:
            return
        info = _optional(chassis.info)
        mode = _optional(lambda: chassis.control_mode)
        lan = _optional(lambda: chassis.lan_mode)
        view.identity = {} if info is None else {
            "serial_number": info.serial_number, "id_chars": info.id_chars,
            "firmware": info.firmware, "firmware_versions": info.firmware_versions,
            "hardware_versions": info.hardware_versions,
            "card_serial_numbers": info.card_serial_numbers}
        view.settings = {
            "control_mode": None if mode is None else mode.name.lower(),
            "gpib_address": _optional(lambda: chassis.gpib_address),
            "ip_address": _optional(lambda: chassis.ip_address),
            "baud_rate": _optional(lambda: chassis.baud_rate),
            "lan_mode": None if lan is None else lan.name.lower()}

    # -- reading the state ---------------------------------------------------
    def _read(self, view: View) -> Tuple[FrozenSet[Point], Optional[int], bool]:
        """Closed crosspoints, closed relays, read back? Without read-back
        the relays are those the closed crosspoints close."""
        if view.relay_map is not None:
            try:
                relays = sim.closed_relays(view.found.resource)
            except (sim.SimulationError, lib.LibraryNotFoundError, OSError):
                pass
            else:
                mapping = view.relay_map
                points = frozenset(mapping[r] for r in relays if r in mapping)
                return points, len(relays), True
        closed = view.matrix.closed if view.matrix is not None else frozenset()
        count = relay_count(view.point_relays, closed) if view.point_relays else None
        return closed, count, False

    def _refresh(self, view: View) -> bool:
        """Reads one chassis; True when what the page shows changed."""
        if view.matrix is None:
            return False
        closed, relays, read_back = self._read(view)
        with self._lock:
            if (closed, relays, read_back) == (view.closed, view.relays, view.read_back):
                return False
            view.closed, view.relays, view.read_back = closed, relays, read_back
            self._bump(view)
        return True

    def _bump(self, view: View) -> None:
        """A view changed (lock held): new versions, waiters woken."""
        self._version += 1
        view.version = self._version
        self._changed.notify_all()

    def _watch(self) -> None:
        while not self._stop.wait(self.interval):
            for view in list(self._views):
                try:
                    if view.chassis is not None and view.chassis._generation != _chassis._generation:
                        # The program loaded another simulated bench or ran
                        # discovery again: the sessions are new.
                        self._attach(view)
                        with self._lock:
                            self._bump(view)
                    self._refresh(view)
                except Exception:  # a failed look is retried next round
                    continue

    def wait(self, version: int, timeout: float) -> int:
        """Blocks until the station's version passes ``version`` (or the
        time-out, or stop); returns the version now."""
        with self._changed:
            if self._version <= version and not self._stop.is_set():
                self._changed.wait(timeout)
            return self._version

    # -- what the HTTP side asks ---------------------------------------------
    @property
    def version(self) -> int:
        with self._lock:
            return self._version

    def rack(self) -> Json:
        with self._lock:
            views = [v.summary() for v in self._views]
            read_back = any(v.read_back for v in self._views)
        return {"library_version": _optional(lib.version), "chassis": views,
                "read_back": read_back}

    def view(self, index: int) -> View:
        with self._lock:
            if not 0 <= index < len(self._views):
                raise KeyError(index)
            return self._views[index]

    def snapshot(self, index: int) -> Json:
        view = self.view(index)
        with self._lock:
            return view.snapshot()

    def changed_since(self, version: int) -> List[Json]:
        with self._lock:
            return [v.snapshot() for v in self._views if v.version > version]

    # -- switching and settings ----------------------------------------------
    def switch(self, index: int, close: Iterable[Point], release: Iterable[Point]) -> Json:
        """Closes ``close`` and opens ``release`` on top of what is closed
        now; the whole new state is sent at once, so a refusal (closure
        limit, control mode, chassis gone) changes nothing."""
        return self._change(index, lambda now: (now - set(release)) | set(close))

    def open_all(self, index: int) -> Json:
        return self._change(index, lambda now: set())

    def _change(self, index: int, target: Any) -> Json:
        view = self.view(index)
        if view.matrix is None:
            raise errors.ChassisNotFoundError(
                -10023, lib.error_text(-10023), view.problem["text"] if view.problem else "")
        with self._switching:
            now, _, _ = self._read(view)
            wanted: Set[Point] = target(set(now))
            view.matrix.set(wanted)
            self._refresh(view)
            held = view.closed
        result = self.snapshot(index)
        if result["read_back"] and held != wanted:
            # Accepted, yet the relays read back differ (the RK422 sends
            # only its first block of four rows): say which points.
            missing = sorted(wanted - held)[:20]
            extra = sorted(held - wanted)[:20]
            result["warning"] = {"code": None, "text": "The chassis does not hold every wanted state",
                                 "detail": ", ".join([f"{r}!{c} open" for r, c in missing]
                                                     + [f"{r}!{c} closed" for r, c in extra])}
        return result

    def set_control_mode(self, index: int, mode: str) -> Json:
        view = self.view(index)
        if view.chassis is None:
            raise errors.ChassisNotFoundError(-10023, lib.error_text(-10023), "")
        value = {"local": _chassis.ControlMode.LOCAL,
                 "remote": _chassis.ControlMode.REMOTE}[mode]
        with self._switching:
            view.chassis.control_mode = value
            self._read_identity(view)
            with self._lock:
                self._bump(view)
        return self.snapshot(index)
