"""pytest plugin: a simulated bench, a connected chassis and fault injection
for test suites that use qbvisa.

Enabled by installing the package (entry point ``qbvisa.testing``) or with
``pytest -p qbvisa.testing``. Every test that uses a fixture below gets a
fresh simulated bench (every relay open, settings as described).

Choosing the bench, most specific first:

- ``@pytest.mark.qbvisa_bench(bench)`` on a test or module: a dict in the
  bench-file schema or a path to a bench file;
- ``pytest --qbvisa-bench=PATH``;
- otherwise the built-in bench.

``@pytest.mark.qbvisa_resource("ASRL1::INSTR")`` picks the chassis of
:func:`qbvisa_chassis` (default: the first chassis the bench describes).

Fixtures:

- ``qbvisa_bench``: the loaded :class:`SimulatedBench` (resources, closed
  relays, fault injection);
- ``qbvisa_chassis``: a connected :class:`qbvisa.Chassis`;
- ``qbvisa_matrix``: slot 0 of that chassis, opened and initialised;
- ``qbvisa_inject``: ``inject(fault, resource=None)`` arms a fault on the
  chassis (or on ``resource``).

A "WriteFails" or "Vanish" fault that hits a switching call leaves the
library's exchange lock held for the rest of the process: the package then
refuses every later switching call with :class:`qbvisa.SendError` rather
than hang. Arm those two before administration calls, or run such a test in
a process of its own.
"""

from __future__ import annotations

import os
from typing import Any, Callable, Dict, Iterator, List, Optional, Union

import pytest

from . import sim
from .chassis import Chassis, Matrix, connect

BenchSource = Union[None, str, "os.PathLike[str]", Dict[str, Any]]


class SimulatedBench:
    """The simulated bench a test runs on."""

    def __init__(self, description: Dict[str, Any]) -> None:
        self.description = description

    @property
    def resources(self) -> List[str]:
        """Every resource name, instruments of other makers included."""
        return [r["name"] for r in self.description.get("resources", [])]

    @property
    def chassis_resources(self) -> List[str]:
        """Resource names of the chassis, in the order described."""
        return [r["name"] for r in self.description.get("resources", [])
                if r.get("kind", "chassis") == "chassis"]

    def closed_relays(self, resource: str) -> List[sim.Relay]:
        return sim.closed_relays(resource)

    def inject(self, resource: str, fault: Union[sim.Fault, str]) -> None:
        sim.inject(resource, fault)


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--qbvisa-bench", default=None, metavar="PATH",
                     help="bench file for the qbvisa fixtures (default: built-in bench)")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers", "qbvisa_bench(bench): simulated bench (dict or bench-file path) of the test")
    config.addinivalue_line(
        "markers", "qbvisa_resource(name): chassis the qbvisa_chassis fixture connects to")


def _marker(request: pytest.FixtureRequest, name: str) -> Optional[pytest.Mark]:
    marker: Optional[pytest.Mark] = request.node.get_closest_marker(name)
    if marker is not None and len(marker.args) != 1:
        raise pytest.UsageError(f"@pytest.mark.{name} takes one argument")
    return marker


@pytest.fixture
def qbvisa_bench_source(request: pytest.FixtureRequest) -> BenchSource:
    """What the bench is loaded from; override it in a conftest.py to give
    a whole directory of tests one bench."""
    marker = _marker(request, "qbvisa_bench")
    if marker is not None:  # None in the marker: the built-in bench
        return marker.args[0]  # type: ignore[no-any-return]
    option = request.config.getoption("--qbvisa-bench")
    return str(option) if option else None


@pytest.fixture
def qbvisa_bench(qbvisa_bench_source: BenchSource) -> SimulatedBench:
    sim.use(qbvisa_bench_source)
    return SimulatedBench(sim.bench())


@pytest.fixture
def qbvisa_resource(request: pytest.FixtureRequest, qbvisa_bench: SimulatedBench) -> str:
    marker = _marker(request, "qbvisa_resource")
    if marker is not None:
        return str(marker.args[0])
    names = qbvisa_bench.chassis_resources
    if not names:
        raise pytest.UsageError("the simulated bench describes no chassis")
    return names[0]


@pytest.fixture
def qbvisa_chassis(qbvisa_resource: str) -> Iterator[Chassis]:
    with connect(qbvisa_resource) as chassis:
        yield chassis


@pytest.fixture
def qbvisa_matrix(qbvisa_chassis: Chassis) -> Matrix:
    return qbvisa_chassis.open(0)


@pytest.fixture
def qbvisa_inject(qbvisa_resource: str) -> Callable[..., None]:
    def inject(fault: Union[sim.Fault, str], resource: Optional[str] = None) -> None:
        sim.inject(resource or qbvisa_resource, fault)

    return inject
