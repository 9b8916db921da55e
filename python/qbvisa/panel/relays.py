"""Which crosspoint a closed relay belongs to.

A chassis that another process switched can only be read back as relays
(board, bit group, bit), as the simulated rack reports them. The library
places a crosspoint's own relay from its location tables: board from the
slot's fitted-sub-matrix list, bit group and bit from ``GetPoint``. This
module asks the library the same questions, once per chassis, and inverts
the answer, so the panel turns read-back relays into crosspoints. Where
nothing can be read back, the same answers count the relays (isolation
relays included) that what this process closed holds, for the closure
limit gauge.
"""

from __future__ import annotations

import ctypes
from typing import Dict, Iterable, Optional, Tuple

from .. import lib
from ..points import Point

Relay = Tuple[int, int, int]

# Location selectors: a crosspoint's own relay and its isolation relays.
_MATRIX, _ISO_X, _ISO_Y, _ISO_CV = 0, 5, 6, 7
_KIND_RK420, _KIND_RK421, _KIND_RK422, _KIND_RK423 = 0, 1, 2, 3
_LAST_SINGLE_KIND = _KIND_RK423      # kinds 0..3 are the chassis' own matrices
_RK421 = 1066


def _selectors(kind: int, row: int) -> Tuple[int, ...]:
    """The relays a crosspoint of a 0-based row closes, own relay first:
    its Y isolation relay always, X and CV isolation relays by model."""
    if kind == _KIND_RK420:
        return (_MATRIX, _ISO_Y, _ISO_X)
    if kind == _KIND_RK421:
        return (_MATRIX, _ISO_Y, _ISO_X) + ((_ISO_CV,) if row in (4, 5) else ())
    if kind == _KIND_RK423:
        return ((_MATRIX, _ISO_Y) + ((_ISO_X,) if 2 <= row <= 7 else ())
                + ((_ISO_CV,) if row in (6, 7) else ()))
    return (_MATRIX, _ISO_Y)


class _SlotArea(ctypes.Structure):
    _fields_ = [
        ("matrixKind", ctypes.c_uint32),
        ("cardPresent", ctypes.c_uint8 * 21),
        ("subMatrixGroup", ctypes.c_int8 * 21),
        ("ltIsolationState", ctypes.c_uint8 * 2),
        ("lastArray", ctypes.c_uint8 * 6000),
        ("arrayWordLimit", ctypes.c_uint16),
        ("subMatrixCount", ctypes.c_uint16),
        ("groupCount", ctypes.c_uint16),
        ("wordsPerGroup", ctypes.c_uint16),
        ("cardExtra", ctypes.c_uint16),
        ("rowCount", ctypes.c_uint16),
        ("columnCount", ctypes.c_uint16),
        ("cardWords", ctypes.c_uint16 * 2),
        ("pointCount", ctypes.c_uint16),
        ("geometryWords", ctypes.c_uint16 * 2),
        ("ltIsolationCount", ctypes.c_uint16),
        ("cardWordsFollowing", ctypes.c_uint16 * 2),
    ]


class _ChassisRecord(ctypes.Structure):
    _fields_ = [
        ("resourceName", ctypes.c_char * 64),
        ("reportedTypeCode", ctypes.c_uint16),
        ("modelName", ctypes.c_char * 64),
        ("session", ctypes.c_uint32),
        ("firmwareMajor", ctypes.c_uint16),
        ("firmwareMinor", ctypes.c_uint16),
        ("slotCount", ctypes.c_uint16),
        ("modelTypeCode", ctypes.c_uint16),
        ("requestBuffer", ctypes.c_uint8 * 1600),
        ("replyBuffer", ctypes.c_uint8 * 400),
        ("slots", _SlotArea * 3),
        ("connectedFlag", ctypes.c_uint8),
        ("baudRate", ctypes.c_uint32),
        ("scpiReply", ctypes.c_char * 256),
    ]


class _RelayPosition(ctypes.Structure):
    _fields_ = [("group", ctypes.c_int32), ("position", ctypes.c_int32)]


def _declare(library: ctypes.CDLL) -> None:
    library.FindChassis.argtypes = [ctypes.c_int32,
                                    ctypes.POINTER(ctypes.POINTER(_ChassisRecord))]
    library.FindChassis.restype = ctypes.c_int32
    library.GetPoint.argtypes = [ctypes.c_uint32, ctypes.c_int32, ctypes.c_uint32,
                                 ctypes.c_uint32, ctypes.POINTER(_RelayPosition)]
    library.GetPoint.restype = ctypes.c_int32


def crosspoint_relays(session: int) -> Optional[Dict[Point, Tuple[Relay, ...]]]:
    """For the opened slot 0 of a session: the relays every fitted crosspoint
    closes, own relay first, as (row, column) -> relays (1-based, columns
    across the front). None when the library has no record of the session or
    the slot is not a chassis matrix. Call with the package's exclusive lock
    held (the tables and the record are process-wide)."""
    library = lib.library()
    _declare(library)
    record = ctypes.POINTER(_ChassisRecord)()
    if library.FindChassis(session, ctypes.byref(record)) < 0 or not record:
        return None
    chassis = record.contents
    slot = chassis.slots[0]
    kind, rows, columns = int(slot.matrixKind), int(slot.rowCount), int(slot.columnCount)
    subs = min(int(slot.subMatrixCount), 21)
    if kind > _LAST_SINGLE_KIND or rows == 0 or columns == 0:
        return None
    fitted = [s for s in range(subs) if slot.cardPresent[s] == 1]
    where = _RelayPosition()
    result: Dict[Point, Tuple[Relay, ...]] = {}
    for block, sub in enumerate(fitted):
        board = int(slot.subMatrixGroup[block])
        if board < 0:
            continue
        for row in range(rows):
            for column in range(columns):
                wired = column
                # The RK421 wires the first six columns of a sub-matrix in reverse.
                if chassis.modelTypeCode == _RK421 and column <= 5:
                    wired = 5 - column
                relays = []
                for selector in _selectors(kind, row):
                    if kind == _KIND_RK422:
                        # One table of four rows with 1-based bits; each further
                        # block of four rows lies wordsPerGroup bit groups on.
                        library.GetPoint(kind, selector, row % 4, wired, ctypes.byref(where))
                        relays.append((board, where.group + int(slot.wordsPerGroup) * (row // 4),
                                       where.position - 1))
                    else:
                        library.GetPoint(kind, selector, row, wired, ctypes.byref(where))
                        relays.append((board, int(where.group), int(where.position)))
                result[(row + 1, sub * columns + column + 1)] = tuple(relays)
    return result


def own_relays(relays: Dict[Point, Tuple[Relay, ...]]) -> Dict[Relay, Point]:
    """Relay -> crosspoint, for each crosspoint's own relay."""
    return {closes[0]: point for point, closes in relays.items()}


def relay_count(relays: Dict[Point, Tuple[Relay, ...]], closed: Iterable[Point]) -> int:
    """How many relays these closed crosspoints hold closed (isolation
    relays shared by a row or column count once)."""
    return len({relay for point in closed for relay in relays.get(point, ())})
