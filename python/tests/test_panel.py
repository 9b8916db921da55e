"""The panel server in this process on the simulated bench: relay read-back
mapped to crosspoints, the JSON routes, their guards, and a test program's
own switching showing up."""

import http.client
import json
import random
import time

import pytest

import qbvisa
import qbvisa.panel
from qbvisa import sim
from qbvisa._locks import process_lock
from qbvisa.panel.relays import crosspoint_relays, own_relays, relay_count
from test_chassis import GAPPED_RK420, RK420
from test_errors_points import DATA, expect_golden


@pytest.fixture
def panel(qbvisa_bench):
    running = qbvisa.panel.serve(background=True, interval=0.05)
    yield running
    running.stop()


def request(panel, method, path, body=None, token=True, headers=()):
    connection = http.client.HTTPConnection(panel.host, panel.port, timeout=10)
    sent = {"Content-Type": "application/json", **({"X-Panel-Token": panel.token} if token else {}), **dict(headers)}
    data = body if isinstance(body, (bytes, type(None))) else json.dumps(body).encode()
    connection.request(method, path, body=data, headers=sent)
    reply = connection.getresponse()
    raw = reply.read()
    connection.close()
    return reply.status, json.loads(raw) if reply.getheader("Content-Type") == "application/json" else raw


def test_relays_read_back_map_to_the_crosspoints_switched_and_are_counted(qbvisa_bench):
    # The RK422 moves relays of rows past 4 into bit groups it does not send,
    # so its read-back covers the first block of four rows.
    for found in qbvisa.find():
        matrix = qbvisa.connect(found.resource).open(0)
        with process_lock.exclusive():
            mapping = crosspoint_relays(matrix.chassis.session)
        rows = 4 if found.model == "RK422" else matrix.rows
        points = {(random.randint(1, rows), random.randint(1, matrix.columns)) for _ in range(30)}
        matrix.set(points)
        relays = sim.closed_relays(found.resource)
        own = own_relays(mapping)
        assert {own[r] for r in relays if r in own} == points, found.model
        assert relay_count(mapping, points) == len(relays), found.model


def replay(panel, name):
    """Sends the requests of a reviewed transcript under tests/data ('> ' and
    [method, path, body (a string: sent as it is), token?, headers], or
    '> relays': the RK420's closed relays) and compares its '< ' lines whole
    with the status and the closed, error code, warning, chassis and fitted
    sub-matrices of each reply."""
    lines = []
    for line in (DATA / name).read_text().splitlines():
        if line == "> relays":
            lines += [line, f"< {sim.closed_relays(RK420)}"]
        elif line.startswith("> "):
            method, path, body, token, headers = json.loads(line[2:])
            status, reply = request(panel, method, path, body.encode() if isinstance(body, str) else body,
                                    token, headers)
            kept = {k: reply[k] for k in ("closed", "error", "warning", "chassis") if k in reply}
            kept.update({"error": reply["error"]["code"]} if "error" in reply else {})
            kept.update({"fitted": reply["geometry"]["fitted"]} if "geometry" in reply else {})
            lines += [line, f"< {status} {json.dumps(kept)}"]
    expect_golden(name, lines)


@pytest.mark.qbvisa_bench(GAPPED_RK420)
def test_unfitted_sub_matrices_are_skipped_in_the_mapping_and_refused(panel):
    replay(panel, "python_panel_gapped.txt")


def test_routes_switch_and_refuse(panel):
    status, page = request(panel, "GET", "/", token=False)
    assert status == 200 and b"panel.js" in page
    replay(panel, "python_panel_routes.txt")


def test_what_the_program_switches_reaches_the_event_stream(panel):
    connection = http.client.HTTPConnection(panel.host, panel.port, timeout=10)
    connection.request("GET", "/api/events")
    stream = connection.getresponse()
    assert stream.getheader("Content-Type") == "text/event-stream"
    assert stream.readline() == b"event: rack\n"
    qbvisa.connect(RK420).open(0).close("3!4")
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        line = stream.readline()
        if line.startswith(b"data: ") and b'"closed": [[3, 4]]' in line:
            break
    else:
        pytest.fail("the switch did not reach the event stream")
    connection.close()


def test_a_program_that_renews_its_sessions_keeps_a_working_panel(panel):
    qbvisa.find(refresh=True)      # every session new; the panel's objects are stale
    deadline = time.monotonic() + 5
    while True:
        status, reply = request(panel, "POST", "/api/switch", {"chassis": 0, "close": "5!5"})
        if status == 200 or time.monotonic() > deadline:
            break
        time.sleep(0.05)
    assert status == 200 and reply["closed"] == [[5, 5]]
