"""Which crosspoint a closed relay belongs to.

A chassis that another process switched can only be read back as relays
(board, bit group, bit), as the simulated rack reports them. The library
names the relays each crosspoint closes (QBVISA_GetPointRelays, from the
same wiring its relay frames use); this module asks once per chassis and
inverts the answer, so the panel turns read-back relays into crosspoints.
Where nothing can be read back, the same answers count the relays
(isolation relays included) that what this process closed holds, for the
closure limit gauge.
"""

from __future__ import annotations

import ctypes
from typing import Dict, Iterable, Optional, Tuple

from .. import errors, lib
from ..points import Point

Relay = Tuple[int, int, int]


def crosspoint_relays(session: int) -> Optional[Dict[Point, Tuple[Relay, ...]]]:
    """For the opened slot 0 of a session: the relays every fitted crosspoint
    closes, own relay first, as (row, column) -> relays (1-based, columns
    across the front). None when the library has no record of the session or
    the slot has no crosspoint wiring. Call with the package's exclusive lock
    held (the tables and the record are process-wide)."""
    library = lib.library()
    info = lib.SlotInfo()
    try:
        library.QBVISA_GetSlotInfo(session, 0, ctypes.byref(info))
    except errors.Error:
        return None
    rows, columns = int(info.rows), int(info.columnsPerSubMatrix)
    if rows == 0 or columns == 0:
        return None
    found = (lib.Relay * 4)()
    result: Dict[Point, Tuple[Relay, ...]] = {}
    for sub in range(int(info.subMatrices)):
        if not info.fittedMask >> sub & 1:
            continue
        for row in range(1, rows + 1):
            for column in range(sub * columns + 1, (sub + 1) * columns + 1):
                try:
                    count = library.QBVISA_GetPointRelays(session, 0, row, column, found)
                except errors.Error:
                    return None
                result[(row, column)] = tuple(
                    (int(r.board), int(r.group), int(r.bit)) for r in found[:count])
    return result


def own_relays(relays: Dict[Point, Tuple[Relay, ...]]) -> Dict[Relay, Point]:
    """Relay -> crosspoint, for each crosspoint's own relay."""
    return {closes[0]: point for point, closes in relays.items()}


def relay_count(relays: Dict[Point, Tuple[Relay, ...]], closed: Iterable[Point]) -> int:
    """How many relays these closed crosspoints hold closed (isolation
    relays shared by a row or column count once)."""
    return len({relay for point in closed for relay in relays.get(point, ())})
