"""The commands of ``vzclient`` and their options."""

import argparse
import math
import os
from typing import Any, Callable, List, NoReturn, Optional

Options = argparse.Namespace

MODULES = {
    "drivers": "tags", "read": "tags", "write": "tags", "watch": "tags", "alarms": "tags",
    "ping": "ping", "record": "record", "replay": "replay", "sim": "sim",
    "completion": "completion",
}
"""The module of this package that has the function of a command, which is named as the command."""

SHELLS = ("bash", "zsh", "fish")


class CommandError(Exception):
    """The command cannot do what it was told; the text says why in a line."""


class Parser(argparse.ArgumentParser):
    """Ends with one line and exit code 1 on wrong use."""

    def __init__(self, **kwargs: Any) -> None:
        super().__init__(allow_abbrev=False, **kwargs)

    def error(self, message: str) -> NoReturn:
        """Tell what is wrong and end."""
        from .output import visible
        self.exit(1, "vzclient: %s; see %s --help\n" % (visible(message), self.prog))


class _NoPassword(argparse.Action):
    """Refuses a password among the arguments, where every user of the machine can read it."""

    def __call__(self, parser: argparse.ArgumentParser, namespace: Options, values: Any,
                 option_string: Optional[str] = None) -> None:
        parser.error("a password is never an argument: use the prompt, --password-file or "
                     "VZCLIENT_PASSWORD")


def seconds(text: str) -> float:
    """A time of an option: a number above 0 of seconds, or with s, m, h or d behind it."""
    factors = {"s": 1, "m": 60, "h": 3600, "d": 86400}
    number = text[:-1] if text[-1:] in factors else text
    value = _positive(number, "time", text) * factors.get(text[-1:], 1)
    if value > 1e9:
        raise argparse.ArgumentTypeError("%r is too long a time" % text)
    return value


def size(text: str) -> int:
    """A size of an option: a number above 0 of bytes, or with K, M or G (of 1024) behind it."""
    factors = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    number = text[:-1] if text[-1:] in factors else text
    return max(int(_positive(number, "size", text) * factors.get(text[-1:], 1)), 1)


def speed(text: str) -> float:
    """A speed of an option: a number above 0."""
    return _positive(text, "speed", text)


def _positive(number: str, what: str, text: str) -> float:
    try:
        value = float(number)
    except ValueError:
        value = 0.0
    if not 0 < value < math.inf:
        raise argparse.ArgumentTypeError("%r is no %s above 0" % (text, what))
    return value


def _whole(least: int) -> Callable[[str], int]:
    def number(text: str) -> int:
        if not text.isdigit() or int(text) < least:
            raise argparse.ArgumentTypeError("%r is no whole number from %d on" % (text, least))
        return int(text)
    return number


def _port(text: str) -> int:
    if not text.isdigit() or int(text) > 65535:
        raise argparse.ArgumentTypeError("%r is no port" % text)
    return int(text)


# ---- The tree ------------------------------------------------------------------------------------

def build() -> Parser:
    """The parser of all commands."""
    parser = Parser(prog="vzclient", description="Works with a real-time process database server.")
    _add_common(parser, False)
    from _vzclient import __version__
    parser.add_argument("--version", action="version", version="vzclient " + __version__)
    commands = parser.add_subparsers(title="commands", dest="command", metavar="COMMAND")
    commands.required = True
    common = Parser(add_help=False)  # adding its options again and again would take its time
    _add_common(common, True)

    def command(name: str, text: str) -> Parser:
        added = commands.add_parser(name, help=text, description=text,
                                    parents=[common])  # type: Parser
        return added

    _add_reading(command)
    _add_following(command)
    _add_record(command)
    _add_others(commands)
    return parser


def _add_common(parser: argparse.ArgumentParser, again: bool) -> None:
    """The options that may stand before and behind the name of a command."""
    def add(*names: str, default: Any = None, **more: Any) -> None:
        parser.add_argument(*names, default=argparse.SUPPRESS if again else default, **more)

    add("--host", help='the server: "host", "host:port" or "p2p(center):server"; else '
        "VZCLIENT_HOST")
    add("--user", help="user to log in; else VZCLIENT_USER")
    add("--password-file", metavar="FILE",
        help="file whose first line is the password, which only its owner may read; else "
        "VZCLIENT_PASSWORD, or a prompt")
    add("--password", action=_NoPassword, nargs="?", help=argparse.SUPPRESS)
    add("--timeout", type=seconds, default=5.0, metavar="SECONDS",
        help="how long to wait for the server (5)")
    add("--json", dest="form", action="store_const", const="json", default="table",
        help="write an object of JSON per line")
    add("--csv", dest="form", action="store_const", const="csv", default="table",
        help="write CSV under a header line")
    add("--trace", metavar="FILE", help="write a line for each message of the wire; -: to "
        "standard error")
    add("--no-reconnect", dest="reconnect", action="store_false", default=True,
        help="end when the connection is lost")
    add("-v", "--verbose", action="store_true", default=False,
        help="tell on standard error what happens")


def _add_reading(command: Callable[[str, str], Parser]) -> None:
    command("drivers", "List the drivers of the project.")

    read = command("read", "Read tags.")
    read.add_argument("driver", metavar="DRIVER")
    read.add_argument("tags", metavar="TAG", nargs="+")

    write = command("write", "Write tags. Values are taken as the tag's type has them.")
    write.add_argument("driver", metavar="DRIVER")
    write.add_argument("tags", metavar="TAG=VALUE", nargs="+",
                       help="a number, true or false, a text, or a time in ISO form")
    write.add_argument("--dry-run", action="store_true", help="show what would be written")


def _add_following(command: Callable[[str, str], Parser]) -> None:
    watch = command("watch", "Show tags, and every change of them.")
    watch.add_argument("driver", metavar="DRIVER")
    watch.add_argument("tags", metavar="TAG", nargs="+")
    watch.add_argument("--plot", action="store_true", help="draw trends in the terminal")
    watch.add_argument("--span", type=seconds, default=60.0, metavar="SECONDS",
                       help="what a trend shows (60)")
    _add_end(watch, "changes")

    alarms = command("alarms", "Show the active alarms, and all that follow.")
    alarms.add_argument("--existing", dest="existing", action="store_true", default=True,
                        help="begin with the alarms that are active (so without this option)")
    alarms.add_argument("--no-existing", dest="existing", action="store_false",
                        help="show only those that follow")
    _add_end(alarms, "alarms")

    ping = command("ping", "Connect, and show how many milliseconds each step took.")
    ping.add_argument("--count", type=_whole(1), default=1, metavar="N", help="how often (1)")
    ping.add_argument("--interval", type=seconds, default=1.0, metavar="SECONDS",
                      help="pause between two times (1)")


def _add_end(parser: argparse.ArgumentParser, what: str) -> None:
    parser.add_argument("--count", type=_whole(1), metavar="N", help="end after so many " + what)
    parser.add_argument("--duration", type=seconds, metavar="SECONDS",
                        help="end after so many seconds")


def _add_record(command: Callable[[str, str], Parser]) -> None:
    record = command("record",
                     "Record changes and alarms in a file, until SIGINT or SIGTERM.")
    record.add_argument("file", metavar="FILE",
                        help="CSV (.csv) or SQLite (.db, .sqlite); one that is there is continued")
    record.add_argument("tags", metavar="DRIVER TAG", nargs="*",
                        help="a driver, and those of its tags to record")
    record.add_argument("--also", action="append", nargs="+", default=[],
                        metavar=("DRIVER", "TAG"), help="tags of another driver; may be repeated")
    record.add_argument("--no-alarms", dest="alarms", action="store_false",
                        help="record no alarms")
    record.add_argument("--duration", type=seconds, metavar="SECONDS",
                        help="end after so many seconds")
    record.add_argument("--rotate-size", type=size, metavar="BYTES",
                        help="begin a new file when one has so many (K, M, G)")
    record.add_argument("--rotate-age", type=seconds, metavar="SECONDS",
                        help="begin a new file when one is so old (m, h, d)")
    record.add_argument("--keep", type=_whole(0), default=10, metavar="N",
                        help="how many old files to keep (10)")


def _add_others(commands: Any) -> None:
    replay = commands.add_parser("replay", help="Serve a recording at its pace.",
                                 description="Serve a recording at its pace, and then on, until "
                                 "SIGINT or SIGTERM.")
    replay.add_argument("files", metavar="FILE", nargs="+",
                        help="files of one recording, in any order")
    replay.add_argument("--address", default="127.0.0.1", help="address to listen on (127.0.0.1)")
    replay.add_argument("--port", type=_port, default=8080,
                        help="port to listen on, 0 for a free one (8080)")
    replay.add_argument("--speed", type=speed, default=1.0, metavar="FACTOR",
                        help="how many times as fast (1)")
    replay.add_argument("--wait", action="store_true", help="begin when a client has connected")
    replay.add_argument("-v", "--verbose", action="store_true", default=argparse.SUPPRESS,
                        help="log every request on standard error")
    replay.add_argument("--end", action="store_true", help="end after the last change")

    sim = commands.add_parser("sim", help="Serve a simulated plant; see vzclient sim --help.",
                              add_help=False)
    sim.add_argument("arguments", nargs=argparse.REMAINDER)

    completion = commands.add_parser("completion", help="Print a script that completes commands.",
                                     description="Print a script that completes commands in a "
                                     "shell.")
    completion.add_argument("shell", choices=SHELLS)


# ---- Parsing -------------------------------------------------------------------------------------

def parse(arguments: List[str]) -> Options:
    """The options of a command line. Ends with SystemExit 1 on wrong use, 0 after --help."""
    parser = build()
    options, rest = parser.parse_known_args(arguments)
    if rest:  # names of tags that stand behind other options
        tags = getattr(options, "tags", None)
        if tags is None or any(text.startswith("-") for text in rest):
            parser.error("unrecognized arguments: " + " ".join(rest))
        tags.extend(rest)
    return options


def for_sim(arguments: List[str]) -> Options:
    """The options of the command ``sim`` with these arguments."""
    return Options(command="sim", arguments=arguments)


def variable(name: str) -> Optional[str]:
    """A variable of the environment; None also when it is empty."""
    return os.environ.get(name) or None
