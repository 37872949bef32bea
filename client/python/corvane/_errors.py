"""What a call raises when it fails."""

from __future__ import annotations

from . import _library


class Error(Exception):
    """A call of the daemon failed. The text says why, in one line."""


class Refused(Error, ConnectionRefusedError):
    """Nobody serves the socket, or no connection could be made."""


class NotPermitted(Error, PermissionError):
    """This user may not use the socket."""


class Closed(Error, ConnectionError):
    """The connection ended before the whole answer had come."""


class TimedOut(Error, TimeoutError):
    """The timeout was over before the whole answer had come."""


class BadAnswer(Error):
    """What came is no answer to the request."""


class BadRequest(Error, ValueError):
    """Nothing was sent: an argument cannot be encoded, or the request is larger than the service takes."""


class DaemonError(Error):
    """The daemon answered with an error of its own."""

    def __init__(self, message: str, code: int) -> None:
        super().__init__(message, code)
        self.message = message
        self.code = code

    def __str__(self) -> str:
        return f"the daemon answered error {self.code}: {self.message}"


_CLASSES: dict[int, type[Error]] = {
    1: Refused,
    2: NotPermitted,
    3: Closed,
    4: TimedOut,
    5: BadAnswer,
    6: BadRequest,
}
_DAEMON_ERROR = 7


def raise_for(status: int, error: _library.ErrorRecord) -> None:
    """Raises what stands for a status that is not OK."""
    if status == _library.OK:
        return
    message = error.message.decode("utf-8", "replace")
    if status == _DAEMON_ERROR:
        raise DaemonError(message, error.code)
    if status in _CLASSES:
        raise _CLASSES[status](message)
    raise MemoryError(message)
