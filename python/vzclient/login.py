"""How a connection is made: where the host is, the login, and what went wrong."""

import re
import threading
import time
from typing import TYPE_CHECKING, List, Optional

import _vzclient

from .errors import ConnectError, LoginRefused, VzTimeoutError

if TYPE_CHECKING:
    from .plant import Plant

_CONNECTED, _REFUSED, _FAILED, _PROTOCOL = 0, -1, -2, -3
_HELLO_BAD_HOST, _HELLO_REFUSED, _NOTIFY_REFUSED = 0x80070057, 0x80004005, 1244
_SLICE = 0.2  # seconds after which a wait looks whether the plant was closed
_QUAD = re.compile(r"\d+\.\d+\.\d+\.\d+\Z")


def open_session(plant: "Plant", timeout: float) -> _vzclient.Session:
    """A connected session. Raises ConnectError, LoginRefused or VzTimeoutError."""
    deadline = time.monotonic() + timeout
    what = "connecting to %s as %r" % (plant.host, plant.user)
    address = _address(plant, deadline)
    news = _vzclient.Feed(plant._routes, 16, "oldest")
    session = _vzclient.Session(plant._routes, news, plant._trace_feed)
    plant._opens(session)
    if plant._trace_feed is not None:
        plant._trace_feed.news("+%.6f" % time.time())
    try:
        result, hello = session.connect(plant.host, address, plant.user, plant._password,
                                        max(deadline - time.monotonic(), 0.0))
    except _vzclient.Failure:
        raise VzTimeoutError("%s: not done within %g s; check that the server is reachable"
                             % (what, timeout)) from None
    if result == _CONNECTED:
        plant._news = news
        return session
    if result == _REFUSED:
        raise LoginRefused("%s: the server refuses the user; check name and password" % what)
    if hello in (_HELLO_REFUSED, _NOTIFY_REFUSED):
        raise LoginRefused("%s: the server refuses this client; check the host text and whether "
                           "the server has a free connection" % what)
    if hello == _HELLO_BAD_HOST:
        raise ConnectError("%s: not a host text; use \"host\", \"host:port\" or "
                           "\"p2p(center):server\"" % what)
    if result == _PROTOCOL:
        raise ConnectError("%s: the server has no project, or answers the login in a way that is "
                           "not known; check its version" % what)
    raise ConnectError("%s: no connection, or it broke during the login; check that the server "
                       "runs and that host and port are right" % what)


def _address(plant: "Plant", deadline: float) -> str:
    """The dotted quad of a host text's host, empty when there is nothing to look up.

    The look-up may take longer than anybody wants to wait, and cannot be interrupted: so it has a
    thread of its own.
    """
    name = host = plant.host
    colon = host.rfind(":")
    if colon > 0:
        name = host[:colon]
    if host[:3].lower() == "p2p" or _QUAD.match(name):
        return ""
    import socket
    found = []  # type: List[Optional[str]]

    def look_up() -> None:
        try:
            found.append(str(socket.getaddrinfo(name, None, socket.AF_INET,
                                                socket.SOCK_STREAM)[0][4][0]))
        except (OSError, UnicodeError):
            found.append(None)

    thread = threading.Thread(target=look_up, name="vzclient-lookup", daemon=True)
    thread.start()
    while thread.is_alive() and not plant._closed and time.monotonic() < deadline:
        thread.join(min(_SLICE, max(deadline - time.monotonic(), 0.0)))
    if not found:
        raise VzTimeoutError("connecting to %s: its address was not found in time; check the name "
                             "service" % host)
    if found[0] is None:
        raise ConnectError("connecting to %s: there is no host %r; check the name" % (host, name))
    return found[0]
