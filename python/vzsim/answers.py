"""What a plant answers to each request of a logged-in session. Knows no sockets."""

from typing import Any, Callable, Dict, List, NamedTuple, Optional, Set, Tuple

from . import frames, requests
from .files import FileRequest, file_reply
from .plant import Event, Plant, Tag

REFUSED = b"0"

Answer = NamedTuple("Answer", [
    ("data", bytes), ("acknowledged", bool), ("changed", List[Tag]), ("events", List[Event])])
Answer.__doc__ = """Reply bytes, whether they go out in acknowledged spans, and what changed."""


class Session:
    """One client: its identifier, its two connections, its user and its subscriptions."""

    def __init__(self, guid: bytes) -> None:
        self.guid = guid
        self.request = None  # type: Any
        self.notify = None  # type: Any
        self.user = None  # type: Optional[bytes]
        self.tags = set()  # type: Set[Tuple[int, int]]
        self.alarms = False
        self.relay = None  # type: Optional[Tuple[str, int]]


def answer(plant: Plant, session: Optional[Session], request: Any) -> Answer:
    """Carry out a request of the request channel (all but the two hellos) and answer it.

    Without a login hello everything is refused; tag and alarm requests also without a user.
    """
    silent = isinstance(request, (requests.Write, requests.Acknowledgement))
    if session is None or (session.user is None and not isinstance(request, _BEFORE_LOGIN)):
        return _reply(b"" if silent else REFUSED)
    return _ANSWERS[type(request)](plant, session, request)


def _reply(data: bytes) -> Answer:
    return Answer(data, False, [], [])


def _login(plant: Plant, session: Session, request: requests.Login) -> Answer:
    rights = plant.rights(request.user, request.password)
    if rights is None:
        return _reply(REFUSED)
    session.user = request.user
    return _reply(frames.login_reply(rights))


def _paths(plant: Plant, session: Session, request: requests.Paths) -> Answer:
    return _reply(frames.paths_reply([path.encode("gb2312") for path in plant.layout.paths]))


def _file(plant: Plant, session: Session, request: FileRequest) -> Answer:
    data, acknowledged = file_reply(request, plant.file(request.name))
    return Answer(data, acknowledged, [], [])


def _acknowledgement(plant: Plant, session: Session, request: Any) -> Answer:
    return _reply(b"")  # one that comes after the transfer is over needs nothing


def _lookup(plant: Plant, session: Session, request: requests.Lookup) -> Answer:
    return _reply(frames.lookup_reply(
        plant.lookup(driver, name) for driver, name in request.names))


def _unadvise(plant: Plant, session: Session, request: requests.Unadvise) -> Answer:
    session.tags.discard((request.driver, request.tag))
    known = plant.tag(request.driver, request.tag) is not None
    return _reply(b"d" if known else REFUSED)


def _subscribe(plant: Plant, session: Session, request: requests.Subscribe) -> Answer:
    session.tags.update(key for key in request.tags if plant.tag(*key) is not None)
    return _reply(frames.subscribe_reply(_chunks(plant, request.tags)))


def _read(plant: Plant, session: Session, request: requests.Read) -> Answer:
    return _reply(frames.read_reply(_chunks(plant, request.tags)))


def _chunks(plant: Plant, keys: Tuple[Tuple[int, int], ...]) -> List[bytes]:
    """The values of the tags; an unknown tag is answered as an empty value."""
    tags = [plant.tag(*key) for key in keys]
    return frames.value_chunks(
        (b"\0\0", False) if tag is None else (tag.encoded(), tag.ends_chunk) for tag in tags)


def _write(plant: Plant, session: Session, request: requests.Write) -> Answer:
    """Write what suits; a value for an unknown tag or of no use to its type is left out."""
    changed = []
    events = []  # type: List[Event]
    if plant.may_write(session.user or b""):
        for driver, index, _, value in request.items:
            tag = plant.tag(driver, index)
            if tag is None:
                continue
            try:
                differs, raised = plant.write(tag, value)
            except ValueError:
                continue
            events.extend(raised)
            if differs:
                changed.append(tag)
    return Answer(b"", False, changed, events)


def _alarms(plant: Plant, session: Session, request: requests.AlarmRequest) -> Answer:
    session.alarms = True
    return _reply(frames.alarm_list(plant.active_alarms()))


_ANSWERS = {
    requests.Login: _login, requests.Paths: _paths, FileRequest: _file,
    requests.Acknowledgement: _acknowledgement, requests.Lookup: _lookup,
    requests.Unadvise: _unadvise, requests.Subscribe: _subscribe, requests.Read: _read,
    requests.Write: _write, requests.AlarmRequest: _alarms,
}  # type: Dict[Any, Callable[[Plant, Session, Any], Answer]]
_BEFORE_LOGIN = (requests.Login, requests.Paths, FileRequest, requests.Acknowledgement)


def describe(plant: Plant, request: Any) -> str:
    """A request in words, for the log."""
    if isinstance(request, requests.Hello):
        server = "" if request.server is None else " for server %s" % _text(request.server)
        return "login hello%s, session %s" % (server, request.guid.hex())
    if isinstance(request, requests.ReceiveHello):
        return "notification hello of %s, session %s" % (_text(request.host), request.guid.hex())
    if isinstance(request, requests.Login):
        return "login of user %s" % _text(request.user)
    if isinstance(request, FileRequest):
        return "file %s" % _text(request.name)
    if isinstance(request, requests.Acknowledgement):
        return "acknowledges %d bytes" % request.received
    if isinstance(request, requests.Lookup):
        return "look up %s" % ", ".join(
            "%s/%s" % (_driver(plant, driver), _text(name)) for driver, name in request.names)
    if isinstance(request, requests.Unadvise):
        return "unsubscribe %s" % _tag(plant, request.driver, request.tag)
    if isinstance(request, requests.Write):
        return "write %s" % ", ".join("%s = %r" % (_tag(plant, driver, tag), value)
                                      for driver, tag, _, value in request.items)
    if isinstance(request, (requests.Subscribe, requests.Read)):
        verb = "read" if isinstance(request, requests.Read) else "subscribe"
        return "%s %d: %s" % (verb, len(request.tags), ", ".join(
            _tag(plant, *key) for key in request.tags))
    return "project paths" if isinstance(request, requests.Paths) else "subscribe alarms"


def _text(data: bytes) -> str:
    text = data.decode("gb2312", "replace")
    return "".join(c if c.isprintable() else "\\x%02x" % ord(c) for c in text)


def _driver(plant: Plant, driver: int) -> str:
    found = plant.drivers.get(driver)
    return found.name if found else "#%d" % driver


def _tag(plant: Plant, driver: int, tag: int) -> str:
    found = plant.tag(driver, tag)
    return "%s/%s" % (_driver(plant, driver), found.name if found else "#%d" % tag)
