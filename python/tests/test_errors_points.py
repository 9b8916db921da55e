"""Error classes and texts, point texts and their bits in the switching array.
The tables are rendered as lines and compared whole with reviewed files under
tests/data ('#' lines there are notes)."""

import ctypes
import itertools
import re
from pathlib import Path

import pytest

import qbvisa
from qbvisa import lib, points
from qbvisa.points import Geometry

DATA = Path(__file__).resolve().parents[2] / "tests" / "data"


def expect_golden(name, lines):
    """Fails naming the differing lines (the first 20) of the reviewed file;
    the whole rendering is left in NAME.actual (working directory), for a diff."""
    want = [line for line in (DATA / name).read_text().splitlines() if not line.startswith("#")]
    differ = [f"line {i + 1} of the rows:\n-{w}\n+{g}" for i, (w, g) in
              enumerate(itertools.zip_longest(want, lines, fillvalue="(end)")) if w != g]
    if differ:
        Path(name + ".actual").write_text("".join(line + "\n" for line in lines))
    assert not differ, f"{name}:\n" + "\n".join(differ[:20])


def classes(error):
    """The error's class and its bases, most derived first, down to Error."""
    return " ".join(c.__name__ for c in type(error).__mro__[:-3])


def outcome(call, *args):
    """What a call returned, or the classes and code of what it raised."""
    try:
        return repr(call(*args))
    except qbvisa.Error as error:
        return f"{classes(error)} {error.code}"


def test_codes_map_to_classes_with_the_library_text():
    lines = []
    for code in [*range(-10000, -10054, -1), -1073807343]:
        error = qbvisa.errors.from_status(code)
        assert error.code == code and error.text == lib.error_text(code)
        lines.append(f"{code} {classes(error)}: {error.text}")
    expect_golden("python_error_classes.txt", lines)


def test_texts_are_never_cut_in_the_library():
    buffer = ctypes.create_string_buffer(300)
    assert lib.library().QBVISA_ErrorCodeToMessage(-10030, buffer, 299) == 0
    assert buffer.value.decode() == lib.error_text(-10030) == "Relay Closure Limit Exceeded"


def test_every_call_of_the_c_headers_is_declared():
    include = Path(__file__).resolve().parents[2] / "include"
    text = "".join((include / h).read_text() for h in ("qbvisa.h", "qbvisa_ext.h"))
    exported = set(re.findall(r"QBVISA_EXPORT[^;(]*?\b(QBVISA\w*)\s*\(", text))
    assert exported == set(lib.SIGNATURES)
    sizes = [ctypes.sizeof(t) for t in (lib.ResourceEntry, lib.PointLocation,
                                         lib.RelayPosition, lib.SlotInfo)]
    assert sizes == [66, 12, 8, 32]


def test_a_negative_status_raises_through_errcheck():
    with pytest.raises(qbvisa.ChassisNotFoundError) as raised:
        lib.library().QBVISA_Clear(12345, 0)
    assert raised.value.code == -10023 and "QBVISA_Clear" in str(raised.value)


def test_point_texts_and_the_bits_of_a_gapped_matrix():
    lines = [f"normalise({text!r}) -> {outcome(points.normalise, text)}" for text in [
        "1!1", " 2!4:1!2 ,7!7", [(3, 4), (1, 2)], (5, 6), "1!", "0!1", "1!1;2!2", "", "1!1:2",
        b"1!1", 7, [(1, 2, 3)], [(1, 2.0)], [(True, 1)]]]
    # Three sub-matrices of 10 columns, 4 rows, the middle one not fitted: its
    # columns have no bits and the third sub-matrix takes block 1.
    gapped = Geometry(rows=4, columns_per_sub_matrix=10, sub_matrices=3, fitted_mask=0b101,
                      array_words=4)
    for point in [(1, 1), (1, 10), (1, 21), (1, 30), (2, 1), (4, 30),
                  (0, 1), (5, 1), (1, 0), (1, 31), (1, 11), (4, 20)]:
        lines.append(f"bit{point} -> {outcome(lambda p: gapped.check(p) or gapped.bit(p), point)}")
    expect_golden("python_points.txt", lines)
