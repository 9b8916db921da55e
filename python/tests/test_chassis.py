"""Discovery, chassis and matrix objects on the simulated bench."""

import subprocess
import sys
import textwrap

import pytest

import qbvisa
from qbvisa import sim
from test_errors_points import expect_golden

RK420 = "GPIB0::5::INSTR"
RK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR"
GAPPED_RK420 = {"version": 1, "resources": [
    {"name": RK420, "chassis": {"model": "RK420", "presenceMask": 0b00101}}]}


def test_find_lists_the_chassis_and_skips_other_makers(qbvisa_bench):
    # The model facts come from the library's own table.
    expect_golden("python_find.txt", [f"found {f.resource} {f.model} {f.type_code}" for f in qbvisa.find()] + [
        f"model {m.name} {m.card_slots} {m.has_control_mode} {m.closure_limit}" for m in qbvisa.models().values()])


@pytest.mark.parametrize("resource, cls", [("GPIB0::9::INSTR", qbvisa.ChassisNotFoundError),
                                           (5, qbvisa.WrongTypeError)])
def test_connect_to_nothing(qbvisa_bench, resource, cls):
    with pytest.raises(cls):
        qbvisa.connect(resource)


def test_close_release_set_reach_the_relays(qbvisa_bench, qbvisa_matrix):
    m, resource = qbvisa_matrix, qbvisa_matrix.chassis.resource
    assert (m.rows, m.columns, m.sub_matrices, m.point_count) == (12, 50, 5, 600)
    m.set([(1, 1), (2, 2)])
    exact = sim.closed_relays(resource)
    m.set(set())
    assert sim.closed_relays(resource) == [] and m.closed == frozenset()
    m.close("1!1:2!2")
    m.release([(1, 2), (2, 1)])
    assert m.closed == {(1, 1), (2, 2)} and sim.closed_relays(resource) == exact
    m.chassis.clear()
    assert m.closed == frozenset() and sim.closed_relays(resource) == []


@pytest.mark.qbvisa_bench(GAPPED_RK420)
def test_columns_of_an_unfitted_sub_matrix(qbvisa_matrix):
    m = qbvisa_matrix
    assert m.fitted == (True, False, True, False, False)
    m.close((3, 21))
    with pytest.raises(qbvisa.NotFittedError):
        m.close((3, 11))
    gapped = sim.closed_relays(RK420)
    sim.use()  # same point, every sub-matrix fitted: same relays
    qbvisa.connect(RK420).open(0).close((3, 21))
    assert sim.closed_relays(RK420) == gapped


@pytest.mark.parametrize("points, cls", [
    ("13!1", qbvisa.BadArgumentError), ("1!51", qbvisa.BadArgumentError),
    ("1!x", qbvisa.BadArgumentError), ([(1, "2")], qbvisa.WrongTypeError),
])
def test_bad_points_send_nothing(qbvisa_matrix, qbvisa_inject, points, cls):
    qbvisa_matrix.close("1!1")
    qbvisa_inject("FailureReply")  # hits the next exchange, if any
    with pytest.raises(cls):
        qbvisa_matrix.close(points)
    with pytest.raises(qbvisa.DeviceFailureError):  # the fault is still armed
        qbvisa_matrix.close("2!2")
    assert qbvisa_matrix.closed == {(1, 1)}


@pytest.mark.qbvisa_resource(RK421)
def test_closure_limit_and_local_control(qbvisa_matrix):
    m = qbvisa_matrix
    assert m.closure_limit == 270
    m.close("1!1")
    with pytest.raises(qbvisa.ClosureLimitError):
        m.set("1!1:10!48")
    m.chassis.control_mode = qbvisa.ControlMode.LOCAL
    with pytest.raises(qbvisa.ControlModeError):
        m.close("2!2")
    assert m.closed == {(1, 1)} and len(sim.closed_relays(RK421)) > 0


@pytest.mark.qbvisa_resource(RK421)
def test_rk421_settings(qbvisa_chassis):
    c = qbvisa_chassis
    c.gpib_address = 9
    c.baud_rate = 38400
    assert (c.gpib_address, c.baud_rate, c.ip_address) == (9, 38400, "192.168.1.21")
    for refused in (lambda: setattr(c, "gpib_address", 31), lambda: c.open(1)):
        pytest.raises(qbvisa.BadArgumentError, refused)


def test_what_an_rk420_lacks_raises(qbvisa_chassis):
    for name in ("control_mode", "gpib_address", "baud_rate", "lan_mode", "ip_address"):
        pytest.raises(qbvisa.NotSupportedError, getattr, qbvisa_chassis, name)
    pytest.raises(qbvisa.NotSupportedError, lambda: qbvisa_chassis.open(1).close("1!1"))


# A positive completion code is a success all the same.
@pytest.mark.parametrize("fault, cls", [
    ("ReadFails", qbvisa.ReceiveError), ("Timeout", qbvisa.ReceiveError),
    ("FailureReply", qbvisa.DeviceFailureError), ("WriteFails", qbvisa.SendError),
    (qbvisa.sim.Fault.TERM_CHAR_COMPLETION.value, None), (qbvisa.sim.Fault.MAX_COUNT_COMPLETION.value, None),
])
def test_exchange_faults(qbvisa_chassis, qbvisa_inject, fault, cls):
    qbvisa_inject(fault)
    if cls is not None:
        with pytest.raises(cls):
            qbvisa_chassis.hardware_versions()
    assert qbvisa_chassis.hardware_versions()[0] == "3.1"


def test_identity_text_commands_and_update(qbvisa_chassis, tmp_path):
    c = qbvisa_chassis
    info = c.info()
    assert (info.model, info.serial_number, info.firmware) == ("RK420", 20420001, "3.06")
    assert info.card_serial_numbers == (30420011, 30420012, 0, 0, 0, 0)
    assert c.scpi(":SYST:VERS?").startswith("Fw Version")
    assert c.self_test() == "Self Test Pass"
    image = tmp_path / "fw.bin"
    image.write_bytes(bytes(range(256)) * 10)
    seen = []
    c.update_firmware(image, progress=lambda done, total: seen.append((done, total)))
    assert seen == [(0, 2560), (2560, 2560)]
    pytest.raises(qbvisa.FirmwareUpdateError, c.update_firmware, tmp_path / "missing.bin")


def test_objects_go_stale(qbvisa_chassis):
    with qbvisa.connect(RK420) as other:
        pass
    pytest.raises(qbvisa.ChassisNotFoundError, other.clear)
    sim.use()
    with pytest.raises(qbvisa.ChassisNotFoundError, match="replaced"):
        qbvisa_chassis.clear()


def test_a_failed_relay_frame_refuses_later_switching_instead_of_hanging():
    # The library keeps its exchange lock after a failed write: run apart.
    script = textwrap.dedent(f"""
        import qbvisa
        qbvisa.sim.use()
        m = qbvisa.connect({RK420!r}).open(0)
        qbvisa.sim.inject({RK420!r}, "WriteFails")
        for _ in range(2):
            try:
                m.close("1!1")
            except qbvisa.SendError as e:
                last = e
        assert "refused" in str(last), last
    """)
    subprocess.run([sys.executable, "-c", script], check=True, timeout=60)
