"""Crosspoints as test engineers write them, and where they sit in the
switching array.

A point is ``(row, column)``, both counted from 1 as on the chassis' front.
Columns run across the whole front: with ``C`` columns per sub-matrix,
sub-matrix ``s`` (from 0) holds columns ``s*C + 1 .. (s+1)*C`` whether or not
it is fitted, so a point keeps its number when boards are added or removed.

Texts use the chassis' crosspoint-list syntax without the subunit wrapper:
items separated by commas, each ``ROW!COLUMN`` or a rectangle
``ROW1!COL1:ROW2!COL2`` (corners in any order), blanks around items allowed:
``"1!1, 2!5:4!6"``.

In the 32-bit word array the library switches from, bit
``(row0 * subMatrices + block) * C + column0`` (0-based row, column within
the sub-matrix) is a crosspoint, where ``block`` counts only FITTED
sub-matrices: a fitted sub-matrix's block is the number of fitted
sub-matrices left of it. A point of an unfitted sub-matrix has no bit and is
refused before anything is sent.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import FrozenSet, Iterable, List, Tuple, Union

from . import errors

Point = Tuple[int, int]
Points = Union[str, Point, Iterable[Point]]

_ITEM = re.compile(r"^(\d+)!(\d+)(?::(\d+)!(\d+))?$")


def _bad(code: int, detail: str) -> errors.Error:
    return errors.from_status(code, detail)


def parse(text: str) -> List[Point]:
    """The points of a crosspoint-list text, rectangles expanded row by row.

    Raises :class:`qbvisa.BadArgumentError` (-10021) for anything that is not
    a list of ``ROW!COLUMN`` items, or for a row or column of 0."""
    points: List[Point] = []
    items = text.split(",")
    for item in items:
        item = item.strip()
        match = _ITEM.match(item)
        if match is None:
            raise _bad(-10021, f"{item!r} in {text!r} is not ROW!COLUMN or "
                               "ROW1!COL1:ROW2!COL2")
        numbers = [int(g) for g in match.groups() if g is not None]
        if min(numbers) < 1:
            raise _bad(-10021, f"{item!r}: rows and columns count from 1")
        if len(numbers) == 2:
            points.append((numbers[0], numbers[1]))
            continue
        row1, row2 = sorted((numbers[0], numbers[2]))
        col1, col2 = sorted((numbers[1], numbers[3]))
        points.extend((r, c) for r in range(row1, row2 + 1)
                      for c in range(col1, col2 + 1))
    return points


def _is_int(value: object) -> bool:
    return isinstance(value, int) and not isinstance(value, bool)


def normalise(points: Points) -> List[Point]:
    """Points from a text, one ``(row, column)`` pair or an iterable of
    pairs. Raises :class:`qbvisa.WrongTypeError` for anything else."""
    if isinstance(points, str):
        return parse(points)
    if isinstance(points, (bytes, bytearray)):
        raise _wrong(f"points must be a str, not {type(points).__name__}")
    if isinstance(points, tuple) and len(points) == 2 and all(map(_is_int, points)):
        return [(points[0], points[1])]
    try:
        iterator = iter(points)
    except TypeError:
        raise _wrong(f"points must be a text or (row, column) pairs, not "
                     f"{type(points).__name__}") from None
    result: List[Point] = []
    for item in iterator:
        if not (isinstance(item, tuple) and len(item) == 2
                and _is_int(item[0]) and _is_int(item[1])):
            raise _wrong(f"{item!r} is not a (row, column) pair of ints")
        result.append((item[0], item[1]))
    return result


def _wrong(detail: str) -> errors.Error:
    from . import lib

    return errors.WrongTypeError(-10038, lib.error_text(-10038), detail)


@dataclass(frozen=True)
class Geometry:
    """The matrix of one slot, from the library's slot information."""

    rows: int
    columns_per_sub_matrix: int
    sub_matrices: int
    fitted_mask: int
    array_words: int

    @property
    def columns(self) -> int:
        return self.columns_per_sub_matrix * self.sub_matrices

    def sub_matrix_of(self, column: int) -> int:
        """The sub-matrix (from 0) that holds a 1-based column."""
        return (column - 1) // self.columns_per_sub_matrix

    def fitted(self, sub_matrix: int) -> bool:
        return 0 <= sub_matrix < self.sub_matrices and bool(
            self.fitted_mask >> sub_matrix & 1)

    def check(self, point: Point) -> None:
        """Raises unless the point exists on this matrix and is fitted."""
        row, column = point
        if not 1 <= row <= self.rows:
            raise _bad(-10007, f"row {row} of {point} is outside 1..{self.rows}")
        if not 1 <= column <= self.columns:
            raise _bad(-10008, f"column {column} of {point} is outside "
                               f"1..{self.columns}")
        sub = self.sub_matrix_of(column)
        if not self.fitted(sub):
            raise _bad(-10013, f"{point} lies in sub-matrix {sub + 1} (columns "
                               f"{sub * self.columns_per_sub_matrix + 1}.."
                               f"{(sub + 1) * self.columns_per_sub_matrix}), "
                               "which is not fitted")

    def bit(self, point: Point) -> int:
        """Bit of the switching array for a checked point."""
        row, column = point
        sub, column0 = divmod(column - 1, self.columns_per_sub_matrix)
        block = bin(self.fitted_mask & ((1 << sub) - 1)).count("1")
        return ((row - 1) * self.sub_matrices + block) * self.columns_per_sub_matrix + column0

    def words(self, closed: FrozenSet[Point]) -> List[int]:
        """The word array that closes exactly ``closed``."""
        words = [0] * self.array_words
        for point in closed:
            index = self.bit(point)
            words[index // 32] |= 1 << (index % 32)
        return words
