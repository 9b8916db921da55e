"""Raw layer: libQBVISA.so.1 through ctypes.

Every exported ``QBVISA_`` call is declared with its argument and result
types; calls that return a status carry an ``errcheck`` that turns a negative
status into a :class:`qbvisa.Error` (so ``lib.library().QBVISA_Connect(...)``
either returns 0 or a count, or raises). The structures of the C interface
are ctypes structures here.

Which library file is loaded, first match wins:

1. the ``path`` given to :func:`load`;
2. the environment variable ``QBVISA_LIBRARY`` (a path to libQBVISA.so.1);
3. the build tree beside the package's source (``<checkout>/build/src/
   libQBVISA.so.1``, where ``scripts/build.sh build`` and ``scripts/test.sh``
   put it), when the package is imported from ``<checkout>/python``;
4. ``libQBVISA.so.1`` from the system's library path (an installed library).

The library then resolves ``libvisa.so`` itself: the station's VISA, or the
simulated bench when :func:`qbvisa.sim.use` loaded it first.

The raw layer takes no lock. The library's rule holds: discovery
(``QBVISA_FindRsrc``, ``QBVISA_Connect``) must not run while other calls are
under way; the objects of the package (:func:`qbvisa.connect`) see to that.
"""

from __future__ import annotations

import ctypes
import os
import threading
from pathlib import Path
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

from . import errors

LIBRARY_NAME = "libQBVISA.so.1"
_PACKAGE_DIR = Path(__file__).resolve().parent
BUILD_TREE = _PACKAGE_DIR.parent.parent / "build"

# Buffer for error texts: longer than any text the library holds (256-byte
# slots), so the library never cuts its stored text (asking with a shorter
# length would cut it for the rest of the process).
_ERROR_TEXT_SIZE = 1024


class LibraryNotFoundError(OSError):
    """libQBVISA.so.1 (or the simulated VISA library) cannot be loaded."""


class ResourceEntry(ctypes.Structure):
    """One entry of the list QBVISA_FindRsrc fills (66 bytes, packed)."""

    _pack_ = 1
    _fields_ = [("resourceName", ctypes.c_char * 64), ("typeCode", ctypes.c_uint16)]


class PointLocation(ctypes.Structure):
    """A relay's 16-byte group and byte within it (location tables)."""

    _fields_ = [
        ("group", ctypes.c_int32),
        ("position", ctypes.c_int32),
        ("auxiliary", ctypes.c_int32),
    ]


class RelayPosition(ctypes.Structure):
    """What GetPoint hands back: byte address group * 16 + position."""

    _fields_ = [("group", ctypes.c_int32), ("position", ctypes.c_int32)]


class SlotInfo(ctypes.Structure):
    """The matrix of one slot as QBVISA_OpMatrix addresses it."""

    _fields_ = [
        ("rows", ctypes.c_uint32),
        ("columnsPerSubMatrix", ctypes.c_uint32),
        ("subMatrices", ctypes.c_uint32),
        ("fittedMask", ctypes.c_uint32),
        ("pointCount", ctypes.c_uint32),
        ("arrayWords", ctypes.c_uint32),
        ("closureLimit", ctypes.c_uint32),
        ("matrixKind", ctypes.c_uint32),
    ]


class ModelInfo(ctypes.Structure):
    """What the library knows of one chassis model."""

    _fields_ = [
        ("name", ctypes.c_char * 16),
        ("typeCode", ctypes.c_uint16),
        ("slotCount", ctypes.c_uint16),
        ("cardSlots", ctypes.c_uint16),
        ("hasControlMode", ctypes.c_uint16),
        ("closureLimit", ctypes.c_uint32),
    ]


class Relay(ctypes.Structure):
    """A relay of the relay-state frame: board, bit group, bit."""

    _fields_ = [
        ("board", ctypes.c_int32),
        ("group", ctypes.c_int32),
        ("bit", ctypes.c_int32),
    ]


_u32 = ctypes.c_uint32
_i32 = ctypes.c_int32
_u64 = ctypes.c_uint64
_i64 = ctypes.c_int64
_str = ctypes.c_char_p
_buf = ctypes.c_char_p
_pu32 = ctypes.POINTER(ctypes.c_uint32)
_pi32 = ctypes.POINTER(ctypes.c_int32)
_pu64 = ctypes.POINTER(ctypes.c_uint64)

# name: (argument types, result type, checked). Checked calls raise on a
# negative status.
SIGNATURES: Dict[str, Tuple[Sequence[Any], Any, bool]] = {
    "QBVISA_ErrorCodeToMessage": ((_i64, _buf, _u64), _i32, False),
    "QBVISA_GetLibVersion": ((_buf,), None, False),
    "QBVISA_FindRsrc": ((ctypes.POINTER(ResourceEntry), _pu32), _i32, True),
    "QBVISA_Connect": ((_str, _pu32), _i32, True),
    "QBVISA_OpenSpecifiedCard": ((_u32, _u64, _pu64), _i32, True),
    "QBVISA_Init": ((_u32, _u64), _i32, True),
    "QBVISABoardInPlaceHDW": ((_u32, _u64), _i32, True),
    "QBVISA_OpMatrix": ((_u32, _u64, _pu32, _u32), _i32, True),
    "QBVISA_SCPIWrite": ((_u32, _str), _i32, True),
    "QBVISA_SCPIRead": ((_u32, _buf), _i32, True),
    "QBVISA_SCPIQuery": ((_u32, _str, _buf), _i32, True),
    "QBVISA_SetIPAddress": ((_u32, _str), _i32, True),
    "QBVISA_GetCOMMIPAddr": ((_u32, _buf), _i32, True),
    "QBVISA_SetGPIBAddress": ((_u32, _u32), _i32, True),
    "QBVISA_GetGPIBAddress": ((_u32, _pu32), _i32, True),
    "QBVISA_SetBaudRate": ((_u32, _u32), _i32, True),
    "QBVISA_GetBaudRate": ((_u32, _pu32), _i32, True),
    "QBVISA_SetLANMode": ((_u32, _u32), _i32, True),
    "QBVISA_GetLANMode": ((_u32, _pu32), _i32, True),
    "QBVISA_SetSN": ((_u32, _str, _str), _i32, True),
    "QBVISA_GetSN": ((_u32, _pu32, _u64), _i32, True),
    "QBVISA_SetCardSN": ((_u32, _str, _str, _i32), _i32, True),
    "QBVISA_GetCardType": ((_u32, _u32, _buf), _i32, True),
    "QBVISA_GetCardSize": ((_str, _buf), _i32, True),
    "QBVISA_GetHWVersion": ((_u32, _buf, _u64), _i32, True),
    "QBVISA_GetSWVersion": ((_u32, _buf, _u64), _i32, True),
    "QBVISA_GetDeviceInfo": ((_u32, _buf, _buf, _buf, _buf, _u64), _i32, True),
    "QBVISA_GetControlMode": ((_u32, _pu32), _i32, True),
    "QBVISA_SetControlMode": ((_u32, _u32), _i32, True),
    "QBVISA_Clear": ((_u32, _u64), _i32, True),
    "QBVISA_SelfTest": ((_u32, _u64, _buf, _u64), _i32, True),
    "QBVISA_BoardInPlace": ((_u32, _u64), _i32, True),
    "QBVISA_BoardInPlaceInfo": ((_u32, _pi32, _pu32), _i32, True),
    "QBVISA_SPILoopTestInfo": ((_u32, _u64, _pi32, _pu32), _i32, True),
    "QBVISA_OnlineUpdate": ((_u32, _str), _i32, True),
    "QBVISA_GetSlotInfo": ((_u32, _u64, ctypes.POINTER(SlotInfo)), _i32, True),
    "QBVISA_GetModelName": ((_u32, _buf, _u32), _i32, True),
    "QBVISA_GetModelInfo": ((_u32, ctypes.POINTER(ModelInfo)), _i32, True),
    "QBVISA_GetPointRelays": ((_u32, _u64, _u32, _u32, ctypes.POINTER(Relay)), _i32, True),
}


def errcheck(result: Any, func: Any, arguments: Tuple[Any, ...]) -> Any:
    """ctypes errcheck: a negative status becomes the matching Error."""
    if isinstance(result, int) and result < 0:
        raise errors.from_status(result, f"{func.__name__}")
    return result


_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None
_library_path: Optional[str] = None
_texts: Dict[int, str] = {}


def candidate_paths(path: Optional[str] = None) -> List[str]:
    """Where :func:`load` looks for libQBVISA.so.1, in order."""
    found: List[str] = []
    if path:
        return [str(path)]
    from_env = os.environ.get("QBVISA_LIBRARY")
    if from_env:
        return [from_env]
    in_build = BUILD_TREE / "src" / LIBRARY_NAME
    if in_build.exists():
        found.append(str(in_build))
    found.append(LIBRARY_NAME)
    return found


def _declare(library: ctypes.CDLL) -> None:
    for name, (argtypes, restype, checked) in SIGNATURES.items():
        function = getattr(library, name)
        function.argtypes = list(argtypes)
        function.restype = restype
        if checked:
            function.errcheck = errcheck


def load(path: Optional[str] = None) -> ctypes.CDLL:
    """Loads libQBVISA.so.1 (once per process) and declares its calls.

    Raises :class:`LibraryNotFoundError` when no candidate loads. A second
    call returns the library already loaded whatever ``path`` says.
    """
    global _library, _library_path
    with _lock:
        if _library is not None:
            return _library
        failures: List[str] = []
        for candidate in candidate_paths(path):
            try:
                library = ctypes.CDLL(candidate, mode=ctypes.RTLD_GLOBAL)
            except OSError as exc:
                failures.append(f"{candidate}: {exc}")
                continue
            _declare(library)
            _library, _library_path = library, candidate
            return library
        raise LibraryNotFoundError(
            "libQBVISA.so.1 not found (set QBVISA_LIBRARY to its path): "
            + "; ".join(failures))


def library() -> ctypes.CDLL:
    """The loaded library, loading it on first use."""
    return _library if _library is not None else load()


def loaded() -> bool:
    """True once libQBVISA.so.1 is loaded in this process."""
    return _library is not None


def loaded_path() -> Optional[str]:
    """The file (or name) libQBVISA.so.1 was loaded from, None before."""
    return _library_path


def error_text(code: int) -> str:
    """The library's text for a negative status (never cut)."""
    text = _texts.get(code)
    if text is not None:
        return text
    buffer = ctypes.create_string_buffer(_ERROR_TEXT_SIZE)
    status = library().QBVISA_ErrorCodeToMessage(code, buffer, _ERROR_TEXT_SIZE - 1)
    if status != 0:
        text = f"status {code}"
    else:
        text = buffer.value.decode("latin-1")
    _texts[code] = text
    return text


def version() -> str:
    """The library's version text ("1.1.77")."""
    buffer = ctypes.create_string_buffer(64)
    library().QBVISA_GetLibVersion(buffer)
    return buffer.value.decode("ascii")


def call(name: str, *arguments: Any) -> int:
    """Runs one checked call and returns its (non-negative) status."""
    function: Callable[..., Any] = getattr(library(), name)
    return int(function(*arguments))
