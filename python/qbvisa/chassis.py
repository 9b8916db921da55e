"""Chassis and matrices: discovery, connection, switching, administration."""

from __future__ import annotations

import contextlib
import ctypes
import enum
import os
import threading
from dataclasses import dataclass
from typing import Any, Callable, Dict, FrozenSet, Iterator, List, Optional, Set, Tuple

from . import errors, lib
from ._locks import process_lock
from .points import Geometry, Point, Points, normalise

@dataclass(frozen=True)
class Model:
    """A chassis model as the library describes it."""

    name: str
    type_code: int
    slot_count: int               # board positions in the identity reply
    card_slots: int               # plug-in card slots beside slot 0
    has_control_mode: bool        # own ports and front-panel control
    closure_limit: Optional[int]  # most relays closed at once; None: no limit


_models: Optional[Dict[int, Model]] = None


def models() -> Dict[int, Model]:
    """Every chassis model the library knows, by type code (asked once)."""
    global _models
    if _models is None:
        table: Dict[int, Model] = {}
        info = lib.ModelInfo()
        library = lib.library()
        index = 0
        while True:
            try:
                library.QBVISA_GetModelInfo(index, ctypes.byref(info))
            except errors.Error:
                break  # past the last model
            table[int(info.typeCode)] = Model(
                info.name.decode("ascii"), int(info.typeCode), int(info.slotCount),
                int(info.cardSlots), bool(info.hasControlMode),
                int(info.closureLimit) or None)
            index += 1
        _models = table
    return _models


def _model_named(name: str) -> Optional[Model]:
    return next((m for m in models().values() if m.name == name), None)


_REGISTRY_SIZE = 32      # chassis records in the library
_REPLY_SIZE = 1024       # text replies (the library writes at most 400)
_VERSION_SLOTS = 64      # 10-byte version texts (a chassis has at most 22)


class ControlMode(enum.IntEnum):
    """Who drives the relays of an RK421."""

    LOCAL = 0    # the front panel
    REMOTE = 1   # this program


class LanMode(enum.IntEnum):
    """How an RK421's network port gets its address."""

    MANUAL = 0
    AUTO = 1


@dataclass(frozen=True)
class Found:
    """A chassis that discovery found."""

    resource: str
    model: str
    type_code: int


@dataclass(frozen=True)
class ChassisInfo:
    """Identity and versions of a chassis. A part the model or its firmware
    cannot report is None."""

    resource: str
    model: str
    type_code: int
    serial_number: Optional[int]
    id_chars: Optional[str]
    firmware: Optional[str]
    firmware_versions: Optional[Tuple[str, ...]]
    hardware_versions: Optional[Tuple[str, ...]]
    card_serial_numbers: Optional[Tuple[int, ...]]


class _Shared:
    """What every object of one chassis shares: its lock and what this
    process has switched on each slot."""

    def __init__(self) -> None:
        self.lock = threading.RLock()
        self.closed: Dict[int, FrozenSet[Point]] = {}


# Process-wide: per-session shared state, what discovery found, and a
# generation that a new discovery or simulated bench advances (objects of an
# older generation are stale: their sessions are gone).
_shared: Dict[int, _Shared] = {}
_generation = 0
_found: Optional[List[Found]] = None
# After a failed write on the switching path the library keeps its
# process-wide exchange lock held, so every later relay frame would block for
# good; the package refuses switching from then on instead of hanging.
_switching_blocked: Optional[str] = None


def _invalidate() -> None:
    """Sessions of every object so far are gone (a new bench replaced the
    instruments, or discovery opened new sessions); the next connection runs
    discovery. Call under the exclusive lock."""
    global _generation, _found
    _generation += 1
    _found = None
    _shared.clear()


def _discover() -> List[Found]:
    """Runs discovery (exclusive lock held) and keeps its result."""
    global _found
    entries = (lib.ResourceEntry * _REGISTRY_SIZE)()
    count = ctypes.c_uint32(0)
    if _found is not None:
        _invalidate()  # discovery gives every chassis a new session
    lib.library().QBVISA_FindRsrc(entries, ctypes.byref(count))
    found = []
    for entry in entries[: count.value]:
        name = bytes(entry.resourceName).split(b"\0", 1)[0].decode("latin-1")
        code = int(entry.typeCode)
        model = models().get(code)
        found.append(Found(name, model.name if model else f"type {code}", code))
    _found = found
    return list(found)


def find(refresh: bool = False) -> List[Found]:
    """The chassis reachable through VISA. Discovery runs once per process
    (or per simulated bench); ``refresh=True`` runs it again to see chassis
    switched on since, which gives every chassis a new session: objects
    connected before become stale (connect again, reopen the slot)."""
    with process_lock.exclusive():
        if _found is None or refresh:
            return _discover()
        return list(_found)


def _text(value: object, what: str) -> bytes:
    if not isinstance(value, str):
        raise errors.WrongTypeError(-10038, lib.error_text(-10038),
                                    f"{what} must be a str, not {type(value).__name__}")
    if "\0" in value:
        raise errors.BadArgumentError(-10038, lib.error_text(-10038),
                                      f"{what} {value!r} holds a NUL character")
    return value.encode("latin-1")


def _integer(value: object, what: str) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise errors.WrongTypeError(-10038, lib.error_text(-10038),
                                    f"{what} must be an int, not {type(value).__name__}")
    return value


def connect(resource: str) -> "Chassis":
    """Connects to the chassis at a VISA resource name, running discovery
    first when none has run (or the simulated bench was replaced).

    Raises :class:`qbvisa.ChassisNotFoundError` when no chassis answers
    there. Use it as a context manager::

        with qbvisa.connect("GPIB0::5::INSTR") as chassis:
            matrix = chassis.open(0)
    """
    name = _text(resource, "resource")
    with process_lock.exclusive():
        if _found is None:
            _discover()
        session = ctypes.c_uint32(0)
        library = lib.library()
        try:
            library.QBVISA_Connect(name, ctypes.byref(session))
        except errors.ChassisNotFoundError as exc:
            known = ", ".join(f.resource for f in _found or []) or "none"
            exc.detail = (f"no chassis at {resource!r} (discovery found: {known}; "
                          "qbvisa.find(refresh=True) looks again)")
            raise
        buffer = ctypes.create_string_buffer(64)
        library.QBVISA_GetModelName(session.value, buffer, len(buffer))
        model = buffer.value.decode("latin-1")
        shared = _shared.setdefault(session.value, _Shared())
        return Chassis(resource, session.value, model, shared, _generation)


class Chassis:
    """A connected chassis. Calls on one chassis are serialised (several
    threads may share it); calls on different chassis run side by side.

    Leaving its ``with`` block, or :meth:`close`, ends this object's use
    (later calls raise :class:`qbvisa.ChassisNotFoundError`); the relays keep
    their state and the library keeps the session for the process' life."""

    def __init__(self, resource: str, session: int, model: str,
                 shared: _Shared, generation: int) -> None:
        self._resource = resource
        self._session = session
        self._model = model
        self._shared = shared
        self._generation = generation
        self._closed = False

    # -- identity ---------------------------------------------------------
    @property
    def resource(self) -> str:
        return self._resource

    @property
    def session(self) -> int:
        return self._session

    @property
    def model(self) -> str:
        return self._model

    @property
    def type_code(self) -> int:
        model = _model_named(self._model)
        return model.type_code if model else 0

    @property
    def slots(self) -> Tuple[int, ...]:
        """The slots this model has (0 its own matrix, 1 and 2 card slots)."""
        model = _model_named(self._model)
        return (0,) + tuple(range(1, model.card_slots + 1)) if model else (0,)

    def __repr__(self) -> str:
        return f"<qbvisa.Chassis {self._model} at {self._resource!r} session {self._session}>"

    def __enter__(self) -> "Chassis":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the use of this object (nothing is sent to the chassis)."""
        self._closed = True

    # -- calling the library ---------------------------------------------
    def _usable(self) -> None:
        if self._closed:
            raise errors.ChassisNotFoundError(
                -10023, lib.error_text(-10023), f"{self!r} was closed")
        if self._generation != _generation:
            raise errors.ChassisNotFoundError(
                -10023, lib.error_text(-10023),
                f"{self!r} belongs to a simulated bench that was replaced; connect again")

    @contextlib.contextmanager
    def _locked(self) -> Iterator[None]:
        """The process-wide lock shared, then this chassis' lock."""
        self._usable()
        with process_lock.shared(), self._shared.lock:
            self._usable()
            yield

    def _call(self, name: str, *arguments: Any) -> int:
        with self._locked():
            return lib.call(name, self._session, *arguments)

    def _get_u32(self, name: str) -> int:
        value = ctypes.c_uint32(0)
        self._call(name, ctypes.byref(value))
        return value.value

    # -- slots and switching ------------------------------------------------
    def open(self, slot: int = 0) -> "Matrix":
        """Opens and initialises a slot: every relay of it opens. Slot 0 is
        the chassis' own matrix (the one that switches); 1 and 2 are the card
        slots of an RK420/RK420B."""
        slot = _integer(slot, "slot")
        if slot not in self.slots:
            raise errors.BadArgumentError(
                -10033, lib.error_text(-10033),
                f"an {self._model} has slot(s) {', '.join(map(str, self.slots))}, not {slot}")
        # Initialisation rewrites process-wide tables: nothing else may run.
        with process_lock.exclusive():
            self._usable()
            with self._shared.lock:
                library = lib.library()
                kind = ctypes.c_uint64(0)
                library.QBVISA_OpenSpecifiedCard(self._session, slot, ctypes.byref(kind))
                try:
                    library.QBVISA_Init(self._session, slot)
                except errors.NotSupportedError:
                    # Initialising a card slot prepares the tables and then
                    # refuses to clear it: the library switches slot 0 only.
                    if slot == 0:
                        raise
                info = lib.SlotInfo()
                library.QBVISA_GetSlotInfo(self._session, slot, ctypes.byref(info))
                self._shared.closed[slot] = frozenset()
        return Matrix(self, slot, info)

    def clear(self) -> None:
        """Opens every relay of the chassis' own matrix."""
        with self._locked():
            lib.call("QBVISA_Clear", self._session, 0)
            if 0 in self._shared.closed:
                self._shared.closed[0] = frozenset()

    def scpi(self, line: str) -> str:
        """Runs one text command (":SYST:VERS?", ":CLOS (@1(1!1))" ...) and
        returns the chassis' reply text, errors included as text. Switching
        done this way is not in :attr:`Matrix.closed`."""
        data = _text(line, "command")
        reply = ctypes.create_string_buffer(_REPLY_SIZE)
        self._call("QBVISA_SCPIQuery", data, reply)
        return reply.value.decode("latin-1")

    # -- communication settings (RK421; ip_address may be set on all) --------
    @property
    def control_mode(self) -> ControlMode:
        return ControlMode(self._get_u32("QBVISA_GetControlMode"))

    @control_mode.setter
    def control_mode(self, mode: ControlMode) -> None:
        value = _integer(mode, "control mode")
        if value not in (0, 1):
            raise errors.BadArgumentError(-10043, lib.error_text(-10043),
                                          f"control mode {value} is not 0 or 1")
        self._call("QBVISA_SetControlMode", value)

    @property
    def ip_address(self) -> str:
        text = ctypes.create_string_buffer(64)
        self._call("QBVISA_GetCOMMIPAddr", text)
        return text.value.decode("ascii")

    @ip_address.setter
    def ip_address(self, address: str) -> None:
        self._call("QBVISA_SetIPAddress", _text(address, "IP address"))

    @property
    def gpib_address(self) -> int:
        return self._get_u32("QBVISA_GetGPIBAddress")

    @gpib_address.setter
    def gpib_address(self, address: int) -> None:
        self._call("QBVISA_SetGPIBAddress", _u32(address, "GPIB address", -10050))

    @property
    def baud_rate(self) -> int:
        return self._get_u32("QBVISA_GetBaudRate")

    @baud_rate.setter
    def baud_rate(self, rate: int) -> None:
        self._call("QBVISA_SetBaudRate", _u32(rate, "baud rate", -10051))

    @property
    def lan_mode(self) -> LanMode:
        return LanMode(self._get_u32("QBVISA_GetLANMode"))

    @lan_mode.setter
    def lan_mode(self, mode: LanMode) -> None:
        """Takes about 6 s: the chassis restarts its network port."""
        self._call("QBVISA_SetLANMode", _u32(mode, "LAN mode", -10052))

    # -- identity -----------------------------------------------------------
    def serial_numbers(self) -> Tuple[int, ...]:
        """The chassis' serial number, then each card position's (0 unset)."""
        model = _model_named(self._model)
        count = 1 + (model.slot_count if model else 0)
        values = (ctypes.c_uint32 * count)()
        self._call("QBVISA_GetSN", values, count)
        return tuple(values)

    def set_serial_number(self, serial: "str | int", hardware: "str | int",
                          slot: int = 0) -> None:
        """Writes the eight-digit serial number and hardware number of the
        chassis (slot 0) or of the card at position ``slot`` (1..6)."""
        sn, hw = _text(str(serial), "serial number"), _text(str(hardware), "hardware number")
        slot = _integer(slot, "slot")
        if slot == 0:
            self._call("QBVISA_SetSN", sn, hw)
        else:
            self._call("QBVISA_SetCardSN", sn, hw, slot)

    def card_type(self, slot: int) -> str:
        """Model name of the card in a slot (open the slot first: until then
        the library knows of no card there)."""
        name = ctypes.create_string_buffer(64)
        self._call("QBVISA_GetCardType", _u32(slot, "slot", -10033), name)
        return name.value.decode("latin-1")

    def hardware_versions(self) -> Tuple[str, ...]:
        """Hardware version of the chassis, then of each card position."""
        return self._versions("QBVISA_GetHWVersion")

    def firmware_versions(self) -> Tuple[str, ...]:
        """Firmware versions of the chassis' controllers."""
        return self._versions("QBVISA_GetSWVersion")

    def _versions(self, name: str) -> Tuple[str, ...]:
        buffer = ctypes.create_string_buffer(10 * _VERSION_SLOTS)
        self._call(name, buffer, _VERSION_SLOTS)
        raw = buffer.raw
        texts = [raw[i * 10:(i + 1) * 10].split(b"\0", 1)[0].decode("latin-1")
                 for i in range(_VERSION_SLOTS)]
        while texts and not texts[-1]:
            texts.pop()
        return tuple(texts)

    def info(self) -> ChassisInfo:
        """Identity and versions in one record."""
        fields: Dict[str, Any] = {}
        texts = [ctypes.create_string_buffer(64) for _ in range(4)]
        try:
            self._call("QBVISA_GetDeviceInfo", *texts, 63)
            values = [t.value.decode("latin-1").strip() for t in texts]
            fields.update(serial_number=int(values[2]) if values[2].isdigit() else None,
                          id_chars=values[1], firmware=values[3])
        except (errors.NotSupportedError, errors.SerialNumberError):
            fields.update(serial_number=None, id_chars=None, firmware=None)
        for key, getter in (("firmware_versions", self.firmware_versions),
                            ("hardware_versions", self.hardware_versions)):
            try:
                fields[key] = getter()
            except errors.NotSupportedError:
                fields[key] = None
        try:
            fields["card_serial_numbers"] = self.serial_numbers()[1:]
        except (errors.NotSupportedError, errors.SerialNumberError):
            fields["card_serial_numbers"] = None
        return ChassisInfo(resource=self._resource, model=self._model,
                           type_code=self.type_code, **fields)

    # -- diagnostics and firmware -----------------------------------------
    def self_test(self, slot: int = 0) -> str:
        """Runs the self-test of a slot; returns the verdict ("Self Test
        Pass") or raises with the verdict as the error's detail."""
        text = ctypes.create_string_buffer(256)
        try:
            self._call("QBVISA_SelfTest", _u32(slot, "slot", -10038), text, 255)
        except errors.Error as exc:
            if text.value:
                exc.detail = text.value.decode("latin-1")
            raise
        return text.value.decode("latin-1")

    def board_in_place(self) -> Tuple[bool, bool, bool, bool]:
        """Which boards answer: main matrix, card slot 1, card slot 2,
        communication board."""
        values = (ctypes.c_int32 * 4)()
        count = ctypes.c_uint32(0)
        self._call("QBVISA_BoardInPlaceInfo", values, ctypes.byref(count))
        return (bool(values[0]), bool(values[1]), bool(values[2]), bool(values[3]))

    def spi_loop(self, slot: int = 0) -> Tuple[bool, bool, bool, bool]:
        """Whether each of the four SPI chains of a slot loops back."""
        values = (ctypes.c_int32 * 4)()
        count = ctypes.c_uint32(0)
        self._call("QBVISA_SPILoopTestInfo", _u32(slot, "slot", -10038), values,
                   ctypes.byref(count))
        return (bool(values[0]), bool(values[1]), bool(values[2]), bool(values[3]))

    def update_firmware(self, path: "str | os.PathLike[str]",
                        progress: Optional[Callable[[int, int], None]] = None) -> None:
        """Sends a firmware image to the chassis. ``progress(sent, total)``
        (bytes) is called before the transfer and once the chassis accepted
        the image: the library sends the whole image in one call."""
        if not isinstance(path, (str, os.PathLike)):
            raise errors.WrongTypeError(-10038, lib.error_text(-10038),
                                        f"path must be a str or path, not {type(path).__name__}")
        name = os.fspath(path)
        try:
            total = os.path.getsize(name)
        except OSError as exc:
            raise errors.FirmwareUpdateError(-10015, lib.error_text(-10015),
                                             f"{name}: {exc.strerror}") from None
        if progress is not None:
            progress(0, total)
        self._call("QBVISA_OnlineUpdate", _text(name, "path"))
        if progress is not None:
            progress(total, total)


def _u32(value: object, what: str, code: int) -> int:
    number = _integer(value, what)
    if not 0 <= number <= 0xFFFFFFFF:
        raise errors.BadArgumentError(code, lib.error_text(code), f"{what} {number} is out of range")
    return number


class Matrix:
    """An opened and initialised slot. Points are ``(row, column)`` from 1,
    columns across the whole front (see :mod:`qbvisa.points`); they may be
    given as a text ``"1!1:4!4, 6!2"``, one pair, or an iterable of pairs.

    Every switching call sends the slot's whole wanted state at once; a
    refused call (bad point, closure limit) leaves the relays and
    :attr:`closed` as they were."""

    def __init__(self, chassis: Chassis, slot: int, info: lib.SlotInfo) -> None:
        self._chassis = chassis
        self._slot = slot
        self._geometry = Geometry(int(info.rows), int(info.columnsPerSubMatrix),
                                  int(info.subMatrices), int(info.fittedMask),
                                  int(info.arrayWords))
        self._point_count = int(info.pointCount)
        self._closure_limit = int(info.closureLimit) or None
        self._kind = int(info.matrixKind)

    def __repr__(self) -> str:
        return (f"<qbvisa.Matrix slot {self._slot} of {self._chassis.model}: "
                f"{self.rows} x {self.columns}>")

    @property
    def chassis(self) -> Chassis:
        return self._chassis

    @property
    def slot(self) -> int:
        return self._slot

    @property
    def geometry(self) -> Geometry:
        return self._geometry

    @property
    def rows(self) -> int:
        return self._geometry.rows

    @property
    def columns(self) -> int:
        """Columns across the whole front, fitted or not."""
        return self._geometry.columns

    @property
    def columns_per_sub_matrix(self) -> int:
        return self._geometry.columns_per_sub_matrix

    @property
    def sub_matrices(self) -> int:
        return self._geometry.sub_matrices

    @property
    def fitted(self) -> Tuple[bool, ...]:
        """Per sub-matrix (left to right): whether it is fitted."""
        return tuple(self._geometry.fitted(s) for s in range(self.sub_matrices))

    @property
    def point_count(self) -> int:
        return self._point_count

    @property
    def closure_limit(self) -> Optional[int]:
        """Most relays (isolation relays included) closed at once; None when
        the model has no limit."""
        return self._closure_limit

    @property
    def kind(self) -> int:
        """The location-table family (MATRIX_KIND_* of the C interface)."""
        return self._kind

    @property
    def closed(self) -> FrozenSet[Point]:
        """The crosspoints this process has closed on this slot."""
        return self._chassis._shared.closed.get(self._slot, frozenset())

    def _switchable(self) -> None:
        if self._slot != 0:
            raise errors.NotSupportedError(
                -10026, lib.error_text(-10026),
                f"slot {self._slot} holds a card: only slot 0 switches")
        if _switching_blocked is not None:
            raise errors.SendError(-10004, lib.error_text(-10004), _switching_blocked)

    def _points(self, points: Points) -> Set[Point]:
        self._switchable()
        wanted = normalise(points)
        for point in wanted:
            self._geometry.check(point)
        return set(wanted)

    def _apply(self, change: Callable[[FrozenSet[Point]], FrozenSet[Point]]) -> None:
        global _switching_blocked
        self._switchable()
        chassis = self._chassis
        with chassis._locked():
            self._switchable()  # another thread's frame may have failed meanwhile
            shared = chassis._shared
            target = change(shared.closed.get(self._slot, frozenset()))
            words = self._geometry.words(target)
            array = (ctypes.c_uint32 * len(words))(*words)
            try:
                lib.call("QBVISA_OpMatrix", chassis.session, self._slot, array, len(words))
            except errors.SendError:
                _switching_blocked = (
                    f"switching is refused for the rest of this process: a relay frame "
                    f"to {chassis.resource!r} failed to send and the library keeps its "
                    "exchange lock after a failed write")
                raise
            shared.closed[self._slot] = target

    def close(self, points: Points) -> None:
        """Closes these points; the others keep their state."""
        wanted = frozenset(self._points(points))
        self._apply(lambda now: now | wanted)

    def release(self, points: Points) -> None:
        """Opens these points; the others keep their state."""
        wanted = frozenset(self._points(points))
        self._apply(lambda now: now - wanted)

    def set(self, points: Points) -> None:
        """Exactly these points closed, every other one open."""
        wanted = frozenset(self._points(points))
        self._apply(lambda now: wanted)

    def open_all(self) -> None:
        """Opens every crosspoint of the slot."""
        self._apply(lambda now: frozenset())

    def is_closed(self, row: int, column: int) -> bool:
        return (row, column) in self.closed
