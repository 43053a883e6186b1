"""Connects as the options say: where to, as whom, with which password, with a trace or without."""

import contextlib
import os
import stat
import sys
from typing import Any, Iterator, NamedTuple, Optional, TextIO

from ..plant import Plant, connect
from .options import CommandError, Options, variable


class Login(NamedTuple):
    """Where to log in, and as whom."""

    host: str
    user: str
    password: str


def login(options: Options) -> Login:
    """What the options and the environment say. Raises CommandError without a host or for a
    password file that cannot be used."""
    host = options.host or variable("VZCLIENT_HOST")
    if not host:
        raise CommandError("no server is named: use --host or set VZCLIENT_HOST")
    user = options.user if options.user is not None else variable("VZCLIENT_USER") or ""
    _check_text(host, "the host")
    _check_text(user, "the user's name")
    password = _password(options, host, user)
    _check_text(password, "the password")
    return Login(host, user, password)


def _check_text(text: str, what: str) -> None:
    try:
        zero = b"\0" in text.encode("utf-8")
    except UnicodeEncodeError:
        raise CommandError("%s is no UTF-8 text" % what) from None
    if zero:
        raise CommandError("%s has a zero character" % what)


def _password(options: Options, host: str, user: str) -> str:
    if options.password_file is not None:
        return _from_file(options.password_file)
    given = os.environ.get("VZCLIENT_PASSWORD")
    if given is not None:
        return given
    if not user or sys.stdin is None or not sys.stdin.isatty():
        return ""
    from getpass import getpass
    try:
        return getpass("Password of %s at %s: " % (user, host))
    except EOFError:
        raise CommandError("no password was given") from None


def _from_file(path: str) -> str:
    """The first line of a file that is its owner's alone."""
    with open(path, "rb") as stream:
        mode = stat.S_IMODE(os.fstat(stream.fileno()).st_mode)
        if mode & 0o077:
            raise CommandError("%s: others can read or change this password file (mode %04o); "
                               "use chmod 600" % (path, mode))
        line = stream.readline()
    try:
        return line.decode("utf-8").rstrip("\r\n")
    except UnicodeDecodeError:
        raise CommandError("%s: the password is no UTF-8 text" % path) from None


@contextlib.contextmanager
def trace_of(options: Options) -> Iterator[Optional[TextIO]]:
    """The stream that the trace goes to, if one is wanted."""
    if options.trace is None:
        yield None
    elif options.trace == "-":
        yield sys.stderr
    else:
        with open(options.trace, "w", encoding="utf-8", errors="backslashreplace") as stream:
            yield stream


@contextlib.contextmanager
def connected(options: Options, **more: Any) -> Iterator[Plant]:
    """A connected plant; more: further arguments of connect."""
    where = login(options)
    with trace_of(options) as trace:
        with connect(where.host, where.user, where.password, timeout=options.timeout,
                     reconnect=options.reconnect, trace=trace, **more) as plant:
            yield plant
