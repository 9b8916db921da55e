"""qbvisa: QB relay switch-matrix chassis from Python, over libQBVISA.so.1.

Three lines to switch a crosspoint on the simulated bench::

    import qbvisa
    qbvisa.sim.use()                      # leave out on a real station
    qbvisa.connect("GPIB0::5::INSTR").open(0).close("1!1")

Errors are :class:`qbvisa.Error` subclasses carrying the library's code and
text. Objects may be shared between threads. Nothing in the package prints.
"""

from __future__ import annotations

from . import lib, points, sim
from .chassis import (Model, models, Chassis, ChassisInfo, ControlMode, Found, LanMode,
                      Matrix, _text, connect, find)
from .errors import (BadArgumentError, CardMissingError, ChassisNotFoundError,
                     ClosureLimitError, ControlModeError, DeviceFailureError, Error,
                     ExchangeError, FirmwareUpdateError, NotFittedError,
                     NotSupportedError, ReceiveError, SelfTestError, SendError,
                     SerialNumberError, VisaError, WrongTypeError)
from .lib import LibraryNotFoundError
from .sim import SimulationError

__version__ = "1.1.77"


def library_version() -> str:
    """The version of the loaded libQBVISA.so.1 ("1.1.77")."""
    return lib.version()


def card_size(name: str) -> str:
    """Matrix size ("12*10") of a card model name, "Unknown" otherwise."""
    import ctypes

    size = ctypes.create_string_buffer(64)
    lib.call("QBVISA_GetCardSize", _text(name, "card name"), size)
    return size.value.decode("latin-1")


__all__ = [
    "BadArgumentError", "CardMissingError", "Chassis", "ChassisInfo",
    "ChassisNotFoundError", "ClosureLimitError", "ControlMode", "ControlModeError",
    "DeviceFailureError", "Error", "ExchangeError", "FirmwareUpdateError", "Found",
    "LanMode", "LibraryNotFoundError", "Model", "models", "Matrix", "NotFittedError",
    "NotSupportedError", "ReceiveError", "SelfTestError", "SendError",
    "SerialNumberError", "SimulationError", "VisaError", "WrongTypeError",
    "card_size", "connect", "find", "lib", "library_version", "points", "sim",
]
