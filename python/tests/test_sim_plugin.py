"""The simulated bench's entry points and the pytest plugin's options."""

import json
import os
from pathlib import Path

import pytest

import qbvisa
from qbvisa import sim

pytest_plugins = ["pytester"]

ASRL = {"version": 1, "resources": [
    {"name": "ASRL7::INSTR", "chassis": {"model": "RK423B", "baudRate": 57600}},
    {"name": "GPIB0::3::INSTR", "kind": "foreign", "idn": "Acme,DMM,1,1\n"}]}


def test_bench_from_a_file_and_its_read_back(tmp_path):
    path = tmp_path / "bench.json"
    path.write_text(json.dumps(ASRL))
    sim.use(str(path))
    assert [r["name"] for r in sim.bench()["resources"]] == ["ASRL7::INSTR", "GPIB0::3::INSTR"]
    assert [(f.resource, f.model) for f in qbvisa.find()] == [("ASRL7::INSTR", "RK423B")]


@pytest.mark.parametrize("call, cls", [
    (lambda: sim.use({"version": 9}), sim.SimulationError),
    (lambda: sim.use(42), TypeError),
    (lambda: sim.closed_relays("GPIB0::3::INSTR"), sim.SimulationError),
    (lambda: sim.inject("GPIB0::99::INSTR", "Timeout"), sim.SimulationError),
    (lambda: sim.inject("ASRL7::INSTR", "Lightning"), sim.SimulationError),
])
def test_simulator_refusals(call, cls):
    sim.use(ASRL)
    with pytest.raises(cls):
        call()


def test_refreshed_discovery_makes_earlier_objects_stale(qbvisa_matrix):
    qbvisa.find()  # the kept result: sessions stay valid
    qbvisa_matrix.close("1!1")
    qbvisa.find(refresh=True)
    pytest.raises(qbvisa.ChassisNotFoundError, qbvisa_matrix.close, "1!2")
    assert qbvisa.connect(qbvisa_matrix.chassis.resource).open(0).closed == frozenset()


@pytest.mark.qbvisa_resource("USB0::0x1A2B::0x0421::RK421001::INSTR")
def test_text_commands_switch_the_same_relays(qbvisa_matrix):
    # Text commands lay every row out as 48 columns: the RK421's width.
    qbvisa_matrix.close("2!3")
    by_object = sim.closed_relays(qbvisa_matrix.chassis.resource)
    qbvisa_matrix.chassis.clear()
    assert qbvisa_matrix.chassis.scpi(":CLOS (@0(2!3))") == "Relays Operate Success"
    assert sim.closed_relays(qbvisa_matrix.chassis.resource) == by_object
    assert qbvisa.card_size("nonsense") == "Unknown"


def test_plugin_options_and_markers(pytester, tmp_path, monkeypatch):
    package_root = str(Path(qbvisa.__file__).parent.parent)
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join(
        p for p in (package_root, os.environ.get("PYTHONPATH")) if p))
    path = tmp_path / "bench.json"
    path.write_text(json.dumps(ASRL))
    pytester.makepyfile("""
        import pytest
        def test_option(qbvisa_chassis):
            assert qbvisa_chassis.model == "RK423B"
        @pytest.mark.qbvisa_bench(None)
        @pytest.mark.qbvisa_resource("ASRL1::INSTR")
        def test_markers(qbvisa_matrix, qbvisa_inject):
            qbvisa_inject("FailureReply")
            with pytest.raises(Exception):
                qbvisa_matrix.close("1!1")
    """)
    result = pytester.runpytest_subprocess("-p", "qbvisa.testing", f"--qbvisa-bench={path}")
    result.assert_outcomes(passed=2)
