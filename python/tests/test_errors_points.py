"""Error classes and texts, point texts and their bits in the switching array."""

import ctypes
import re
from pathlib import Path

import pytest

import qbvisa
from qbvisa import lib, points
from qbvisa.points import Geometry


@pytest.mark.parametrize("code, cls", [
    (-10023, qbvisa.ChassisNotFoundError), (-10048, qbvisa.ChassisNotFoundError),
    (-10020, qbvisa.NotSupportedError), (-10030, qbvisa.ClosureLimitError),
    (-10008, qbvisa.BadArgumentError), (-10004, qbvisa.SendError),
    (-10005, qbvisa.ReceiveError), (-10049, qbvisa.DeviceFailureError),
    (-10040, qbvisa.ControlModeError), (-10016, qbvisa.CardMissingError),
    (-1073807343, qbvisa.VisaError), (-10012, qbvisa.Error),
])
def test_codes_map_to_classes_with_the_library_text(code, cls):
    error = qbvisa.errors.from_status(code)
    assert type(error) is cls and error.code == code
    assert error.text == lib.error_text(code) != ""


def test_texts_are_never_cut_in_the_library():
    full = "Relay Closure Limit Exceeded"
    assert lib.error_text(-10030) == full
    buffer = ctypes.create_string_buffer(300)
    assert lib.library().QBVISA_ErrorCodeToMessage(-10030, buffer, 299) == 0
    assert buffer.value.decode() == full


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


@pytest.mark.parametrize("text, expected", [
    ("1!1", [(1, 1)]),
    (" 2!4:1!2 ,7!7", [(1, 2), (1, 3), (1, 4), (2, 2), (2, 3), (2, 4), (7, 7)]),
    ([(3, 4), (1, 2)], [(3, 4), (1, 2)]),
    ((5, 6), [(5, 6)]),
])
def test_point_forms(text, expected):
    assert points.normalise(text) == expected


@pytest.mark.parametrize("bad, cls", [
    ("1!", qbvisa.BadArgumentError), ("0!1", qbvisa.BadArgumentError),
    ("1!1;2!2", qbvisa.BadArgumentError), ("", qbvisa.BadArgumentError),
    ("1!1:2", qbvisa.BadArgumentError), (b"1!1", qbvisa.WrongTypeError),
    (7, qbvisa.WrongTypeError), ([(1, 2, 3)], qbvisa.WrongTypeError),
    ([(1, 2.0)], qbvisa.WrongTypeError), ([(True, 1)], qbvisa.WrongTypeError),
])
def test_bad_point_input(bad, cls):
    with pytest.raises(cls):
        points.normalise(bad)


# Three sub-matrices of 10 columns, 4 rows, the middle one not fitted: its
# columns have no bits and the third sub-matrix takes block 1.
GAPPED = Geometry(rows=4, columns_per_sub_matrix=10, sub_matrices=3, fitted_mask=0b101,
                  array_words=4)


@pytest.mark.parametrize("point, bit", [
    ((1, 1), 0), ((1, 10), 9), ((1, 21), 10), ((1, 30), 19), ((2, 1), 30), ((4, 30), 109),
])
def test_bits_count_only_fitted_sub_matrices(point, bit):
    GAPPED.check(point)
    assert GAPPED.bit(point) == bit


@pytest.mark.parametrize("point, code", [
    ((0, 1), -10007), ((5, 1), -10007), ((1, 0), -10008), ((1, 31), -10008),
    ((1, 11), -10013), ((4, 20), -10013),
])
def test_points_outside_the_fitted_matrix_are_refused(point, code):
    with pytest.raises(qbvisa.BadArgumentError) as raised:
        GAPPED.check(point)
    assert raised.value.code == code
