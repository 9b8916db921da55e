"""Which crosspoint a closed relay belongs to.

A chassis that another process switched can only be read back as relays
(board, bit group, bit), as the simulated rack reports them. The library
places a crosspoint's own relay from its location tables: board from the
slot's fitted-sub-matrix list, bit group and bit from ``GetPoint``. This
module asks the library the same questions, once per chassis, and inverts
the answer, so the panel turns read-back relays into crosspoints.
"""

from __future__ import annotations

import ctypes
from typing import Dict, Optional, Tuple

from .. import lib
from ..points import Point

Relay = Tuple[int, int, int]

_MATRIX = 0                # location selector of a crosspoint's own relay
_KIND_RK422 = 2
_LAST_SINGLE_KIND = 3      # kinds 0..3 are the chassis' own matrices
_RK421 = 1066


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


def crosspoint_relays(session: int) -> Optional[Dict[Relay, Point]]:
    """For the opened slot 0 of a session: the relay of every fitted
    crosspoint, as relay -> (row, column) (1-based, columns across the
    front). None when the library has no record of the session or the slot
    is not a chassis matrix. Call with the package's exclusive lock held
    (the tables and the record are process-wide)."""
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
    result: Dict[Relay, Point] = {}
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
                if kind == _KIND_RK422:
                    # One table of four rows with 1-based bits; each further
                    # block of four rows lies wordsPerGroup bit groups on.
                    library.GetPoint(kind, _MATRIX, row % 4, wired, ctypes.byref(where))
                    relay = (board, where.group + int(slot.wordsPerGroup) * (row // 4),
                             where.position - 1)
                else:
                    library.GetPoint(kind, _MATRIX, row, wired, ctypes.byref(where))
                    relay = (board, int(where.group), int(where.position))
                result[relay] = (row + 1, sub * columns + column + 1)
    return result
