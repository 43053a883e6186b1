"""Plant files: reads the description of a plant and checks every key of it.

A plant file is TOML (where the interpreter has ``tomllib``) or JSON of the same shape::

    name = "demo"                      # shown by the simulator, known to center servers
    project = "Demo"                   # project name told at login (default: name)
    title = "A demonstration"          # default: project
    tick = 0.5                         # seconds between two steps of the signals
    file_time = 1600000000             # time of the generated files (default: the file's own)
    alarm_texts = ["too high"]         # fixes the first entries of the alarm text list

    [[users]]                          # none at all: everybody may log in and write
    name = "operator"
    password = "secret"
    rights = 8                         # bit value 8: may write

    [paths]                            # answers the project paths request
    project = "/srv/demo/"

    [files]
    folder = "files"                   # more project files, relative to the plant file

    [center]                           # plants this one speaks for as a center server
    Other = "127.0.0.1:8081"           # relayed
    Near = {address = "127.0.0.1:8082", mode = "redirect"}

    [[drivers]]
    name = "Boiler"
    id = 0                             # default: position in the file

    [[drivers.tags]]                   # a tag's id is its position
    name = "Level"
    type = "r4"
    value = 50.0                       # constant, or one of signal = {...}, follows = "..."
    alarms = [{high = 80.0, text = "too high", group = "Boiler", level = 2, hysteresis = 1.0}]
    aliases = ["LEVEL"]                # more names that a look-up finds the tag by

``follows`` names a tag ("Tag" of the same driver or "Driver/Tag") that the value approaches with
the time constant ``tau`` (seconds); ``gain``, ``offset``, ``noise``, ``seed`` and ``value``
(where it starts) are optional.
"""

import copy
import json
import os
import socket
import time
from typing import Any, Dict, List, NamedTuple, Optional, Tuple, Union

from . import signals, values

MAX_NAME = 764      # bytes of a tag name: longer ones fit into no lookup request
MAX_TAGS = 65535    # tag ids are 16 bits wide and 0xFFFF means unknown
_REQUIRED = object()

TagLayout = NamedTuple("TagLayout", [
    ("name", str), ("vt", int), ("value", Any), ("signal", Optional[Dict[str, Any]]),
    ("follows", Optional[Dict[str, Any]]), ("limits", List["LimitLayout"]), ("where", str),
    ("aliases", List[str])])
LimitLayout = NamedTuple("LimitLayout", [
    ("limit", float), ("high", bool), ("text", str), ("group", str), ("level", int),
    ("hysteresis", float)])
DriverLayout = NamedTuple("DriverLayout", [("name", str), ("id", int), ("tags", List[TagLayout])])
UserLayout = NamedTuple("UserLayout", [("name", str), ("password", str), ("rights", int)])
CenterLayout = NamedTuple("CenterLayout", [("host", str), ("port", int), ("redirect", bool)])
PlantLayout = NamedTuple("PlantLayout", [
    ("name", str), ("project", str), ("title", str), ("tick", float), ("file_time", int),
    ("alarm_texts", List[str]), ("users", List[UserLayout]), ("paths", List[str]),
    ("folder", Optional[str]), ("center", Dict[str, CenterLayout]),
    ("drivers", List[DriverLayout])])


class PlantError(Exception):
    """A plant file that cannot be used; the text names the key and says what is wrong."""


class _Table:
    """One table of the file: hands out its keys and notices the ones nobody asked for."""

    def __init__(self, content: Any, where: str) -> None:
        self.where = where
        if not isinstance(content, dict):
            raise PlantError("%s: must be a table" % (where or "plant"))
        self._left = dict(content)

    def key(self, name: str) -> str:
        """The full name of a key, for messages."""
        return "%s.%s" % (self.where, name) if self.where else name

    def take(self, name: str, kinds: Any, default: Any = _REQUIRED) -> Any:
        """Take a key; its value must be of one of the kinds (a bool is never a number)."""
        if name not in self._left:
            if default is _REQUIRED:
                raise PlantError("%s: is missing" % self.key(name))
            return default
        value = self._left.pop(name)
        kinds = kinds if isinstance(kinds, tuple) else (kinds,)
        if not isinstance(value, kinds) or (isinstance(value, bool) and bool not in kinds):
            wanted = " or ".join(sorted({kind.__name__ for kind in kinds}))
            raise PlantError("%s: must be %s, not %r" % (self.key(name), wanted, value))
        return value

    def text(self, name: str, default: Any = _REQUIRED, limit: int = 255,
             empty: bool = False) -> Any:
        """Take a text that has a GB2312 form of at most ``limit`` bytes."""
        value = self.take(name, str, default)
        if isinstance(value, str):
            check_text(value, self.key(name), limit, empty)
        return value

    def tables(self, name: str) -> List["_Table"]:
        """Take a list of tables; an absent key is an empty list."""
        return [_Table(item, "%s[%d]" % (self.key(name), i))
                for i, item in enumerate(self.take(name, list, []))]

    def has(self, name: str) -> bool:
        """Whether the key is there and not taken yet."""
        return name in self._left

    def finish(self) -> None:
        """Complain about a key that is unknown."""
        for name in self._left:
            raise PlantError("%s: unknown key" % self.key(name))


def check_text(text: str, where: str, limit: int, empty: bool = False) -> bytes:
    """Return the GB2312 form of ``text``; PlantError when it has none or is no usable name."""
    try:
        encoded = text.encode("gb2312")
    except UnicodeEncodeError:
        raise PlantError("%s: %r has no GB2312 form" % (where, text))
    if not empty and not encoded:
        raise PlantError("%s: must not be empty" % where)
    if b"\0" in encoded or b"\n" in encoded or b"\r" in encoded:
        raise PlantError("%s: must not hold NUL or line ends" % where)
    if len(encoded) > limit:
        raise PlantError("%s: longer than %d bytes" % (where, limit))
    return encoded


def packaged(name: str) -> str:
    """The path of the packaged plant of that name, in the form this interpreter reads."""
    ending = ".toml" if _toml() else ".json"
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), "plants", name + ending)


def load(plant: Union[str, Dict[str, Any]]) -> PlantLayout:
    """Read a plant from a path, the name of a packaged plant, or a table already read.

    Raises PlantError with a one-line text that says which file, which key, what is wrong.
    """
    if not isinstance(plant, (str, os.PathLike)):
        return check(plant, os.getcwd(), int(time.time()))
    path = _path(plant)
    try:
        content = _read(path)
        folder = os.path.dirname(os.path.abspath(path))
        return check(content, folder, int(os.stat(path).st_mtime))
    except OSError as error:
        raise PlantError("%s: %s" % (plant, error.strerror))
    except PlantError as error:
        raise PlantError("%s: %s" % (plant, error))


def table(plant: Union[str, Dict[str, Any]]) -> Dict[str, Any]:
    """The description of a plant as a table of the caller's own, to be changed and served.

    ``plant`` and errors are those of ``load``. A relative folder in it becomes an absolute one.
    """
    layout = load(plant)
    if isinstance(plant, (str, os.PathLike)):
        content = _read(_path(plant))  # type: Dict[str, Any]
    else:
        content = copy.deepcopy(plant)
    if layout.folder is not None:
        content["files"]["folder"] = os.path.abspath(layout.folder)
    return content


def _path(plant: Union[str, "os.PathLike[str]"]) -> str:
    """The path of a plant file, or of the packaged plant of that name if there is no such file."""
    path = os.fspath(plant)
    if not os.path.exists(path) and os.path.basename(path) == path:
        path = packaged(path) if os.path.exists(packaged(path)) else path
    return path


def _toml() -> Any:
    try:
        import tomllib
    except ImportError:
        return None
    return tomllib


def _read(path: str) -> Any:
    with open(path, "rb") as stream:
        text = stream.read()
    try:
        if path.endswith(".toml"):
            if _toml() is None:
                raise PlantError("this interpreter reads no TOML, give the plant as JSON")
            return _toml().loads(text.decode("utf-8"))
        return json.loads(text.decode("utf-8"))
    except ValueError as error:
        raise PlantError(str(error).replace("\n", " "))


def check(content: Any, folder: str, file_time: int) -> PlantLayout:
    """Check a plant's table; relative folders are taken from ``folder``."""
    top = _Table(content, "")
    name = top.text("name")
    project = top.text("project", name, 200, empty=True)
    layout = PlantLayout(
        name=name, project=project, title=top.text("title", project, 200, empty=True),
        tick=float(top.take("tick", (int, float), 0.5)),
        file_time=_ranged(top, "file_time", file_time, 0, 2 ** 32 - 1),
        alarm_texts=_texts(top, "alarm_texts"),
        users=_users(top), paths=_paths(top, project), folder=_folder(top, folder),
        center=_center(top), drivers=_drivers(top))
    if layout.tick < 0:
        raise PlantError("tick: must not be negative")
    top.finish()
    return layout


def _ranged(table: _Table, name: str, default: Any, low: int, high: int) -> int:
    value = table.take(name, int, default)
    if not low <= value <= high:
        raise PlantError("%s: must lie between %d and %d" % (table.key(name), low, high))
    return value


def _texts(table: _Table, name: str, limit: int = 255) -> List[str]:
    texts = table.take(name, list, [])
    for i, text in enumerate(texts):
        where = "%s[%d]" % (table.key(name), i)
        if not isinstance(text, str):
            raise PlantError("%s: must be str, not %r" % (where, text))
        check_text(text, where, limit)
    return texts


def _users(top: _Table) -> List[UserLayout]:
    users = []
    for table in top.tables("users"):
        users.append(UserLayout(table.take("name", str), table.take("password", str, ""),
                                _ranged(table, "rights", 0, 0, 2 ** 32 - 1)))
        table.finish()
    return users


def _paths(top: _Table, project: str) -> List[str]:
    table = _Table(top.take("paths", dict, {}), "paths")
    root = "/project/%s/" % project
    found = [table.text("project", root), table.text("event", root + "RecData/Event/"),
             table.text("alarm", root + "RecData/Alarm2/"),
             table.text("history", root + "RecData/")]
    table.finish()
    return found


def _folder(top: _Table, base: str) -> Optional[str]:
    table = _Table(top.take("files", dict, {}), "files")
    folder = table.take("folder", str, None)
    table.finish()
    if folder is None:
        return None
    folder = os.path.join(base, folder)
    if not os.path.isdir(folder):
        raise PlantError("files.folder: %s is no directory" % folder)
    return folder


def _center(top: _Table) -> Dict[str, CenterLayout]:
    return center(top.take("center", dict, {}))


def center(entries: Dict[str, Any]) -> Dict[str, CenterLayout]:
    """Check center entries: name to "HOST:PORT" or to {address, mode}."""
    found = {}
    for name, entry in entries.items():
        table = _Table({"address": entry} if isinstance(entry, str) else entry, "center." + name)
        mode = table.take("mode", str, "relay")
        if mode not in ("relay", "redirect"):
            raise PlantError("%s: must be relay or redirect" % table.key("mode"))
        host, port = address_of(table.take("address", str), table.key("address"))
        found[name] = CenterLayout(host, port, mode == "redirect")
        table.finish()
    return found


def address_of(text: str, where: str) -> Tuple[str, int]:
    """Split "HOST:PORT" into the host's IPv4 address and the port; PlantError otherwise."""
    host, _, port = text.rpartition(":")
    if not host or not port.isdigit() or not 0 < int(port) < 65536:
        raise PlantError("%s: must be HOST:PORT, not %r" % (where, text))
    try:
        return socket.gethostbyname(host), int(port)
    except OSError:
        raise PlantError("%s: no address for host %r" % (where, host))


def _drivers(top: _Table) -> List[DriverLayout]:
    drivers = []  # type: List[DriverLayout]
    for position, table in enumerate(top.tables("drivers")):
        name = table.text("name", limit=MAX_NAME)
        number = _ranged(table, "id", position, 0, 65534)
        if any(driver.name == name for driver in drivers):
            raise PlantError("%s: %r is there twice" % (table.key("name"), name))
        if any(driver.id == number for driver in drivers):
            raise PlantError("%s: %d is there twice" % (table.key("id"), number))
        tags = _tags(table)
        drivers.append(DriverLayout(name, number, tags))
        table.finish()
    return drivers


def _tags(driver: _Table) -> List[TagLayout]:
    tags = []
    names = set()
    tables = driver.tables("tags")
    if len(tables) > MAX_TAGS:
        raise PlantError("%s: more than %d tags" % (driver.key("tags"), MAX_TAGS))
    for table in tables:
        tag = _tag(table)
        for key, name in [("name", tag.name)] + [("aliases", alias) for alias in tag.aliases]:
            if name in names:
                raise PlantError("%s: %r is there twice" % (table.key(key), name))
            names.add(name)
        tags.append(tag)
        table.finish()
    return tags


def _tag(table: _Table) -> TagLayout:
    name = table.text("name", limit=MAX_NAME)
    aliases = _texts(table, "aliases", MAX_NAME)
    for key, each in [("name", name)] + [("aliases", alias) for alias in aliases]:
        if "," in each:
            raise PlantError("%s: a comma separates names and cannot be part of one"
                             % table.key(key))
    kind = table.take("type", str)
    if kind not in values.TYPE_CODES:
        raise PlantError("%s: must be one of %s, not %r"
                         % (table.key("type"), ", ".join(values.TYPE_CODES), kind))
    vt = values.TYPE_CODES[kind]
    follows = _follows(table)
    signal = table.take("signal", dict, None)
    if signal is not None and (follows or table.has("value")):
        raise PlantError("%s: excludes value and follows" % table.key("signal"))
    if signal is not None:
        _check_signal(vt, signal, table.key("signal"))
    value = _value(table, vt)
    return TagLayout(name, vt, value, signal, follows, _limits(table), table.where, aliases)


def _check_signal(vt: int, signal: Dict[str, Any], where: str) -> None:
    try:
        first = signals.build(signal).step(0.0, 0.0)
        values.encode(vt, values.coerce(vt, first, clamp=True))
        for item in signal.get("texts", signal.get("values", [])):
            values.encode(vt, values.coerce(vt, item))
    except ValueError as error:
        raise PlantError("%s: %s" % (where, error))


def _follows(table: _Table) -> Optional[Dict[str, Any]]:
    target = table.take("follows", str, None)
    if target is None:
        return None
    number = (int, float)
    found = {"target": target, "tau": table.take("tau", number), "start": None,
             "gain": table.take("gain", number, 1.0), "offset": table.take("offset", number, 0.0),
             "noise": table.take("noise", number, 0.0), "seed": table.take("seed", int, 0)}
    if not found["tau"] > 0:
        raise PlantError("%s: must be greater than 0" % table.key("tau"))
    if table.has("value"):
        found["start"] = table.take("value", number)
    return found


_EMPTY_VALUES = {values.STR: "", values.ARRAY: [], values.BOOL: False}


def _value(table: _Table, vt: int) -> Any:
    if not table.has("value"):
        return _EMPTY_VALUES.get(vt, 0)
    value = table.take("value", (bool, int, float, str, list))
    if vt != values.ARRAY and not values.has_payload(vt):
        raise PlantError("%s: a tag of this type holds no value" % table.key("value"))
    try:
        value = values.coerce(vt, value)
        if len(values.encode(vt, value)) > values.MAX_ENCODED:
            raise ValueError("longer than %d bytes" % values.MAX_ENCODED)
    except ValueError as error:
        raise PlantError("%s: %s" % (table.key("value"), error))
    return value


def _limits(tag: _Table) -> List[LimitLayout]:
    limits = []
    for table in tag.tables("alarms"):
        if table.has("high") == table.has("low"):
            raise PlantError("%s: needs exactly one of high and low" % table.where)
        high = table.has("high")
        limits.append(LimitLayout(
            float(table.take("high" if high else "low", (int, float))), high,
            table.text("text"), table.text("group"), _ranged(table, "level", 1, 0, 255),
            float(table.take("hysteresis", (int, float), 0.0))))
        table.finish()
    return limits
