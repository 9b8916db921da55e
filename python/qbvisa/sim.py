"""The simulated VISA bench in one line.

``qbvisa.sim.use()`` makes the package talk to the simulated bench that the
project builds (``libvisa.so`` from ``sim/``) instead of the station's VISA.
Call it before the first chassis is touched: it loads the simulated
``libvisa.so`` globally before libQBVISA.so.1 is loaded, so the library's
``libvisa.so`` is the simulated one. Calling it again replaces the bench (every
instrument back to its described state; chassis objects connected before are
stale and the next :func:`qbvisa.connect` runs discovery again).

Which simulated ``libvisa.so``, first match wins: the ``visa_library``
argument; the environment variable ``QBVISA_SIM_VISA``; ``sim/libvisa.so``
in the build tree of ``QBVISA_LIBRARY`` (``<build>/src/libQBVISA.so.1``);
``<checkout>/build/sim/libvisa.so`` beside the package's source.
"""

from __future__ import annotations

import ctypes
import enum
import json
import os
from pathlib import Path
from typing import Any, Dict, List, Mapping, Optional, Tuple, Union

from . import chassis as _chassis
from . import lib
from ._locks import process_lock

Bench = Union[None, str, "os.PathLike[str]", Mapping[str, Any]]
Relay = Tuple[int, int, int]

_visa: Optional[ctypes.CDLL] = None


class SimulationError(RuntimeError):
    """The simulated bench is not in use, refused a bench, or does not know
    a resource."""


class Fault(str, enum.Enum):
    """Faults the simulated bench can arm on a resource (each but VANISH
    hits the next exchange only)."""

    WRITE_FAILS = "WriteFails"       # next write fails (I/O error)
    READ_FAILS = "ReadFails"         # next read fails (I/O error)
    FAILURE_REPLY = "FailureReply"   # next reply is the failure status
    SHORT_REPLY = "ShortReply"       # next reply is 2 bytes long
    TIMEOUT = "Timeout"              # next read times out
    VANISH = "Vanish"                # the instrument is gone for good
    # The next reply arrives whole but ends with a positive VISA completion
    # code (end character / buffer full), which callers must take as success.
    TERM_CHAR_COMPLETION = "TermCharCompletion"
    MAX_COUNT_COMPLETION = "MaxCountCompletion"


def _candidates(visa_library: Optional[str]) -> List[str]:
    if visa_library:
        return [str(visa_library)]
    from_env = os.environ.get("QBVISA_SIM_VISA")
    if from_env:
        return [from_env]
    found = []
    library = os.environ.get("QBVISA_LIBRARY")
    if library:
        found.append(str(Path(library).resolve().parent.parent / "sim" / "libvisa.so"))
    found.append(str(lib.BUILD_TREE / "sim" / "libvisa.so"))
    return [c for c in found if Path(c).exists()] or found[-1:]


def _declare(visa: ctypes.CDLL) -> None:
    c_int, c_char_p = ctypes.c_int, ctypes.c_char_p
    p_int = ctypes.POINTER(ctypes.c_int)
    signatures: Dict[str, Tuple[List[Any], Any]] = {
        "qbsim_closed_relays": ([c_char_p, ctypes.POINTER(ctypes.c_int32), c_int], c_int),
        "qbsim_relay_geometry": ([c_char_p, p_int, p_int], c_int),
        "qbsim_load_bench_json": ([c_char_p, c_char_p, c_int], c_int),
        "qbsim_load_bench_file": ([c_char_p, c_char_p, c_int], c_int),
        "qbsim_use_default_bench": ([], c_int),
        "qbsim_reset": ([], c_int),
        "qbsim_inject_fault": ([c_char_p, c_char_p], c_int),
        "qbsim_bench_json": ([c_char_p, c_int], c_int),
    }
    for name, (argtypes, restype) in signatures.items():
        function = getattr(visa, name)
        function.argtypes = argtypes
        function.restype = restype


def _loaded_visa() -> Optional[ctypes.CDLL]:
    """The libvisa.so libQBVISA.so.1 already uses, if it is the simulator."""
    try:
        visa = ctypes.CDLL("libvisa.so", mode=os.RTLD_NOLOAD | ctypes.RTLD_GLOBAL)
    except OSError:
        return None
    return visa if hasattr(visa, "qbsim_reset") else None


def _load(visa_library: Optional[str], library: Optional[str]) -> ctypes.CDLL:
    global _visa
    if _visa is not None:
        return _visa
    if lib.loaded():
        visa = _loaded_visa()
        if visa is None:
            raise SimulationError(
                "libQBVISA.so.1 is already loaded with a VISA library that is not "
                "the simulated bench: call qbvisa.sim.use() before the first chassis")
    else:
        failures = []
        for candidate in _candidates(visa_library):
            try:
                visa = ctypes.CDLL(candidate, mode=ctypes.RTLD_GLOBAL)
                break
            except OSError as exc:
                failures.append(f"{candidate}: {exc}")
        else:
            raise lib.LibraryNotFoundError(
                "simulated libvisa.so not found (set QBVISA_SIM_VISA to its path): "
                + "; ".join(failures))
        lib.load(library)
        if _loaded_visa() is None:
            raise SimulationError("libQBVISA.so.1 did not pick up the simulated libvisa.so")
    _declare(visa)
    _visa = visa
    return visa


def _simulator() -> ctypes.CDLL:
    """The simulator in use: the one :func:`use` loaded, or the libvisa.so
    the library resolved when that is the simulated bench."""
    if _visa is not None:
        return _visa
    with process_lock.exclusive():
        return _load(None, None)


def use(bench: Bench = None, *, visa_library: Optional[str] = None,
        library: Optional[str] = None) -> None:
    """Makes the package use the simulated bench and loads ``bench``: None
    for the built-in bench, a path to a bench file, or a dict in the
    bench-file schema. ``visa_library`` and ``library`` name the simulated
    libvisa.so and libQBVISA.so.1 explicitly."""
    if bench is not None and not isinstance(bench, (str, os.PathLike, Mapping)):
        raise TypeError(f"bench must be None, a path or a dict, not {type(bench).__name__}")
    with process_lock.exclusive():
        visa = _load(visa_library, library)
        error = ctypes.create_string_buffer(1024)
        if bench is None:
            status = visa.qbsim_use_default_bench()
        elif isinstance(bench, Mapping):
            status = visa.qbsim_load_bench_json(json.dumps(bench).encode(), error, len(error))
        else:
            status = visa.qbsim_load_bench_file(os.fsencode(bench), error, len(error))
        if status != 0:
            raise SimulationError(f"bench refused: {error.value.decode(errors='replace')}")
        _chassis._invalidate()


def reset() -> None:
    """Every instrument of the current bench back to its described state
    (relays open, settings as described, faults cleared)."""
    visa = _simulator()
    with process_lock.exclusive():
        visa.qbsim_reset()
        _chassis._invalidate()


def closed_relays(resource: str) -> List[Relay]:
    """The relays the simulated chassis holds closed, as sorted
    ``(board, bit group, bit)`` triples."""
    visa = _simulator()
    name = _chassis._text(resource, "resource")
    size = 256
    while True:
        triples = (ctypes.c_int32 * (3 * size))()
        count = int(visa.qbsim_closed_relays(name, triples, size))
        if count < 0:
            raise SimulationError(f"{resource!r} is not a simulated chassis")
        if count <= size:
            return [(triples[3 * i], triples[3 * i + 1], triples[3 * i + 2])
                    for i in range(count)]
        size = count


def inject(resource: str, fault: Union[Fault, str]) -> None:
    """Arms a fault on a simulated resource."""
    name = _chassis._text(resource, "resource")
    try:
        kind = Fault(fault)
    except ValueError:
        raise SimulationError(f"unknown fault {fault!r}: one of "
                              f"{', '.join(f.value for f in Fault)}") from None
    if _simulator().qbsim_inject_fault(name, kind.value.encode()) != 0:
        raise SimulationError(f"{resource!r} is not a simulated resource")


def bench() -> Dict[str, Any]:
    """The current bench as first described (bench-file schema)."""
    visa = _simulator()
    size = int(visa.qbsim_bench_json(None, 0))
    buffer = ctypes.create_string_buffer(size + 1)
    visa.qbsim_bench_json(buffer, len(buffer))
    result: Dict[str, Any] = json.loads(buffer.value.decode())
    return result
