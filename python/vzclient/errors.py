"""What can go wrong, as one tree of exceptions. Each is also a built-in one where one fits."""

from typing import Iterable, Tuple


class VzError(Exception):
    """Base of all errors of this package."""


class ConnectError(VzError, ConnectionError):
    """A connection could not be made: the server is not there, or does not speak the protocol."""


class LoginRefused(ConnectError):
    """The server does not accept the user, or this client."""


class ConnectionLost(VzError, ConnectionError):
    """There is no connection, or it ended during the call, or the plant was closed.

    Whether the server carried out what was asked for is not known.
    """


class VzTimeoutError(VzError, TimeoutError):
    """The call's time limit passed."""


class _Unknown(VzError, KeyError):
    """``names``: those that do not exist."""

    def __init__(self, message: str, names: Iterable[str] = ()) -> None:
        super().__init__(message)
        self.names = tuple(names)  # type: Tuple[str, ...]

    def __str__(self) -> str:  # a KeyError shows its argument quoted
        return str(self.args[0])


class UnknownDriver(_Unknown):
    """The project has no such driver; ``names`` holds its name."""


class UnknownTag(_Unknown):
    """The driver has no such tags; ``names`` holds all of them."""


class WriteDenied(VzError, PermissionError):
    """The user has no right to write, or the plant was connected read-only."""


class ValueRejected(VzError, ValueError):
    """A value cannot be sent exactly as the tag would hold it. Nothing was written."""
