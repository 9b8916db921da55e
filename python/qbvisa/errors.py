"""Exceptions of the qbvisa package.

Every failure the library reports becomes a :class:`Error` carrying the
library's status code and the library's own text for it. The subclasses group
the codes by what a test program does about them, so a test can catch
``qbvisa.ClosureLimitError`` rather than compare numbers. Checks the package
makes itself before anything is sent (a point outside the matrix, a malformed
point text, a slot the model lacks, a wrong type) raise the same classes with
the library code whose meaning fits.
"""

from __future__ import annotations

from typing import Dict, Optional, Tuple, Type


class Error(Exception):
    """A failure reported by libQBVISA (or refused by the package before
    anything reached the chassis).

    ``code`` is the library's negative status (-10000 .. -10053, or a
    negative VISA status passed through), ``text`` the library's text for
    it, ``detail`` what the package adds (the call, the offending value).
    """

    def __init__(self, code: int, text: str, detail: str = "") -> None:
        super().__init__(code, text, detail)
        self.code = code
        self.text = text
        self.detail = detail

    def __str__(self) -> str:
        message = f"[{self.code}] {self.text.rstrip()}"
        return f"{message}: {self.detail}" if self.detail else message


class ChassisNotFoundError(Error):
    """No chassis with that resource name, or the session is unknown or no
    longer usable (-10023, -10048)."""


class NotSupportedError(Error):
    """The chassis model or its firmware does not have this function, or the
    slot cannot do it (-10020, -10017, -10022, -10026, -10027)."""


class ClosureLimitError(Error):
    """Switching would close more relays than the chassis allows at once;
    nothing was sent (-10030)."""


class BadArgumentError(Error, ValueError):
    """An argument is out of range or malformed (rows, columns, slots,
    addresses, rates, serial numbers, point texts)."""


class WrongTypeError(BadArgumentError, TypeError):
    """An argument has the wrong Python type (-10038)."""


class ExchangeError(Error):
    """The request/reply exchange with the chassis failed."""


class SendError(ExchangeError):
    """Writing the request to the chassis failed (-10004)."""


class ReceiveError(ExchangeError):
    """Reading the chassis' reply failed (-10005)."""


class DeviceFailureError(ExchangeError):
    """The chassis answered with its failure status (-10049)."""


class VisaError(ExchangeError):
    """The VISA library reported a failure (a negative VISA status, -10053)."""


class ControlModeError(Error):
    """The chassis is under front-panel (local) control, or already in the
    requested control mode (-10040, -10041)."""


class CardMissingError(Error):
    """A card or board the call needs is not fitted (-10014, -10016, -10024,
    -10025)."""


class NotFittedError(CardMissingError, BadArgumentError):
    """A crosspoint lies in a sub-matrix that is not fitted (-10013)."""


class SelfTestError(Error):
    """The self-test found a broken SPI loop (-10018)."""


class FirmwareUpdateError(Error):
    """The update file cannot be used or the chassis refused the image
    (-10015, -10019)."""


class SerialNumberError(Error):
    """A serial number is unset or unreadable on the chassis (-10029)."""


_BY_CODE: Dict[int, Type[Error]] = {}


def _register(cls: Type[Error], *codes: int) -> None:
    for code in codes:
        _BY_CODE[code] = cls


_register(ChassisNotFoundError, -10023, -10048)
_register(NotSupportedError, -10017, -10020, -10022, -10026, -10027)
_register(ClosureLimitError, -10030)
_register(BadArgumentError, -10007, -10008, -10009, -10011, -10021, -10028,
          -10031, -10032, -10033, -10034, -10037, -10038, -10039, -10042,
          -10043, -10047, -10050, -10051, -10052)
_register(SendError, -10004)
_register(ReceiveError, -10005, -10036)
_register(DeviceFailureError, -10049)
_register(VisaError, -10000, -10001, -10002, -10003, -10006, -10053)
_register(ControlModeError, -10040, -10041)
_register(CardMissingError, -10014, -10016, -10024, -10025)
_register(NotFittedError, -10013)
_register(SelfTestError, -10018)
_register(FirmwareUpdateError, -10015, -10019)
_register(SerialNumberError, -10029)

# The library's own codes; anything more negative is a VISA status.
LIBRARY_CODES: Tuple[int, int] = (-10053, -10000)


def error_class(code: int) -> Type[Error]:
    """The exception class for a negative status."""
    found = _BY_CODE.get(code)
    if found is not None:
        return found
    if code < LIBRARY_CODES[0]:
        return VisaError
    return Error


def from_status(code: int, detail: str = "", text: Optional[str] = None) -> Error:
    """The exception for a negative status, with the library's text."""
    if text is None:
        from . import lib  # the texts live in the library itself

        text = lib.error_text(code)
    if code < LIBRARY_CODES[0]:
        status = f"VISA status 0x{code & 0xFFFFFFFF:08X}"
        detail = f"{detail}: {status}" if detail else status
    return error_class(code)(code, text, detail)
