"""A test suite for a fixture, written with the qbvisa pytest plugin.

    pytest -p qbvisa.testing examples/python/test_with_plugin.py

(installed packages register the plugin themselves). Every test gets a fresh
simulated bench."""

import pytest

import qbvisa

ONE_RK423 = {"version": 1, "resources": [
    {"name": "ASRL3::INSTR", "chassis": {"model": "RK423", "baudRate": 9600}}]}


def test_path_closes_one_crosspoint(qbvisa_bench, qbvisa_matrix):
    qbvisa_matrix.set("3!7")
    assert qbvisa_matrix.closed == {(3, 7)}
    assert qbvisa_bench.closed_relays(qbvisa_matrix.chassis.resource)


@pytest.mark.qbvisa_bench(ONE_RK423)
def test_bench_from_a_dict(qbvisa_chassis):
    assert qbvisa_chassis.model == "RK423"
    assert qbvisa_chassis.open(0).columns == 12


def test_a_chassis_that_stops_answering(qbvisa_matrix, qbvisa_inject):
    qbvisa_inject("ReadFails")
    with pytest.raises(qbvisa.ReceiveError):
        qbvisa_matrix.close("1!1")
    qbvisa_matrix.close("1!1")  # the fault hit one exchange only
