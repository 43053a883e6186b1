"""A running plant: its drivers, tags, signals, alarms, users and files, without any network."""

import math
import os
import time
from typing import Any, Dict, List, NamedTuple, Optional, Tuple, Union

from . import files, frames, plantfile, signals, values

MAY_WRITE = 8       # bit value of the rights word that allows writing
RAISED, CLEARED = 1, 0          # status byte of an alarm
RAISE_FRAME, CLEAR_FRAME = 1, 3  # notification frame types of an alarm

_WHOLE = set(values.INT_RANGES) | {values.BOOL}

Event = NamedTuple("Event", [("frame_type", int), ("alarm", frames.Alarm)])
TagKey = Union[int, str]


class Limit:
    """A limit of a tag and the alarm it has raised, if any."""

    def __init__(self, layout: plantfile.LimitLayout, tid: int, kind: int, group: int) -> None:
        self.layout = layout
        self._tid, self._kind, self._group = tid, kind, group
        self.active = None  # type: Optional[frames.Alarm]

    def check(self, value: float, now: int) -> Optional[Event]:
        """Compare a new value; returns the event when an alarm is raised or cleared."""
        layout = self.layout
        inside = (value <= layout.limit - layout.hysteresis if layout.high
                  else value >= layout.limit + layout.hysteresis)
        if self.active is None and self.crossed(value):
            self.active = frames.Alarm(now, 0, self._tid, self._kind, self._group, layout.level,
                                       RAISED, value, layout.limit)
            return Event(RAISE_FRAME, self.active)
        if self.active is not None and inside:
            cleared = self.active._replace(evttm=now, status=CLEARED, value=value)
            self.active = None
            return Event(CLEAR_FRAME, cleared)
        return None

    def crossed(self, value: float) -> bool:
        """Whether a value lies beyond the limit."""
        return value > self.layout.limit if self.layout.high else value < self.layout.limit

    def value_beyond(self, whole: bool) -> float:
        """A value a little beyond the limit; ``whole`` numbers only, if so wanted."""
        return self._beside(self.layout.limit, self.layout.high, whole)

    def value_inside(self, whole: bool) -> float:
        """A value that clears the alarm, as near to the limit as is safe to round."""
        layout = self.layout
        edge = layout.limit - layout.hysteresis if layout.high else layout.limit + layout.hysteresis
        return self._beside(edge, not layout.high, whole)

    @staticmethod
    def _beside(edge: float, up: bool, whole: bool) -> float:
        if whole:
            return math.floor(edge) + 1 if up else math.ceil(edge) - 1
        distance = max(abs(edge) * 0.01, 0.01)
        return edge + distance if up else edge - distance


class Tag:
    """One tag: its type, present value and the bytes of that value."""

    def __init__(self, driver: int, index: int, layout: plantfile.TagLayout) -> None:
        self.driver, self.index = driver, index
        self.name, self.vt = layout.name, layout.vt
        self.wire_name = layout.name.encode("gb2312")
        self.aliases = layout.aliases
        self.signal = signals.Constant(layout.value)
        self.limits = []  # type: List[Limit]
        self.pushable = values.has_payload(layout.vt)
        self.payload = None  # type: Optional[bytes]
        self.ends_chunk = layout.vt == values.ARRAY
        self.store(layout.value)

    def store(self, value: Any, clamp: bool = False) -> bool:
        """Take a new value; returns whether it differs. ValueError: unsuitable, nothing changed."""
        value, payload = self.suited(value, clamp)
        changed = payload != self.payload
        self.value, self.payload = value, payload
        return changed

    def suited(self, value: Any, clamp: bool = False) -> Tuple[Any, bytes]:
        """A value as the tag would hold it, and its bytes; ValueError: unsuitable."""
        value = values.coerce(self.vt, value, clamp)
        payload = values.encode_payload(self.vt, value)
        if len(payload) + 2 > values.MAX_ENCODED:
            raise ValueError("a value of %d bytes is too long" % len(payload))
        return value, payload

    def writable(self, value: Any) -> Any:
        """A value as an operator's write would leave it; ValueError: unsuitable."""
        if not self.pushable and not self.ends_chunk:
            raise ValueError("tag %s is of a type that holds no value" % self.name)
        return self.suited(value)[0]

    def encoded(self) -> bytes:
        """Type code and payload."""
        return self.vt.to_bytes(2, "little") + self.payload


class Driver:
    """One driver and its tags, whose ids are their positions."""

    def __init__(self, layout: plantfile.DriverLayout) -> None:
        self.name, self.id = layout.name, layout.id
        self.tags = [Tag(layout.id, i, tag) for i, tag in enumerate(layout.tags)]
        self.by_name = {name: tag for tag in self.tags for name in [tag.name] + tag.aliases}
        self.by_wire_name = {name.encode("gb2312"): tag for name, tag in self.by_name.items()}


class Plant:
    """The plant a simulator serves. Not thread-safe: the serving thread owns it.

    Raises plantfile.PlantError when signals of the description do not fit together.
    """

    def __init__(self, layout: plantfile.PlantLayout) -> None:
        self.layout = layout
        self.drivers = {driver.id: Driver(driver) for driver in layout.drivers}
        self._by_name = {driver.name: driver for driver in self.drivers.values()}
        self._moving = []  # type: List[Tag]
        self._now = 0.0
        self._extra_alarms = []  # type: List[frames.Alarm]
        self.text_list = list(layout.alarm_texts)
        self.tag_list = []  # type: List[str]
        self.users = {user.name.encode("utf-8"): user for user in layout.users}
        self._build_signals()
        self._build_limits()
        self.files = {}  # type: Dict[bytes, files.ProjectFile]
        self._generate_files()

    # ---- tags ---------------------------------------------------------------------------------

    def tag(self, driver: int, tag: int) -> Optional[Tag]:
        """The tag of these ids, or None."""
        found = self.drivers.get(driver)
        return found.tags[tag] if found and tag < len(found.tags) else None

    def find(self, driver: TagKey, tag: TagKey) -> Tag:
        """The tag by driver name or id and tag name or id; KeyError when there is none."""
        holder = self.drivers.get(driver) if isinstance(driver, int) else self._by_name.get(driver)
        if holder is None:
            raise KeyError("no driver %r" % (driver,))
        if isinstance(tag, int) and 0 <= tag < len(holder.tags):
            return holder.tags[tag]
        if tag not in holder.by_name:
            raise KeyError("no tag %r in driver %s" % (tag, holder.name))
        return holder.by_name[tag]

    def lookup(self, driver: int, wire_name: bytes) -> Tuple[int, int]:
        """Tag id and type code of a GB2312 name; (0xFFFF, 0) when unknown."""
        holder = self.drivers.get(driver)
        tag = holder.by_wire_name.get(wire_name) if holder else None
        return (tag.index, tag.vt) if tag else (frames.UNKNOWN_TAG, 0)

    def step(self, seconds: float) -> Tuple[List[Tag], List[Event]]:
        """Advance the signals by ``seconds``; returns the tags that changed and the alarms."""
        self._now += seconds
        changed = []
        events = []  # type: List[Event]
        for tag in self._moving:
            if tag.store(tag.signal.step(self._now, seconds), clamp=True):
                changed.append(tag)
                events.extend(self.check_limits(tag))
        return changed, events

    def write(self, tag: Tag, value: Any, hold: bool = False) -> Tuple[bool, List[Event]]:
        """Set a tag as an operator does; its signal goes on from there unless ``hold``.

        Returns whether the value differs and the alarms it raised or cleared. ValueError: the
        value does not suit the tag, nothing changed.
        """
        changed = tag.store(tag.writable(value))
        if hold:
            self._stop(tag)
        tag.signal.write(tag.value)
        return changed, self.check_limits(tag)

    def _stop(self, tag: Tag) -> None:
        tag.signal = signals.Constant(tag.value)
        if tag in self._moving:
            self._moving.remove(tag)

    # ---- alarms -------------------------------------------------------------------------------

    def exceed(self, tag: Tag, text: Optional[str]) -> Tuple[bool, List[Event]]:
        """Take a tag beyond the limit of this alarm text, or its first one, and hold it there.

        Returns what ``write`` does. KeyError: there is no such limit; RuntimeError: its alarm is
        active already; ValueError: the tag can hold no value beyond it.
        """
        limit = next((limit for limit in tag.limits
                      if text is None or limit.layout.text == text), None)
        if limit is None:
            raise KeyError("tag %s has no limit%s" % (tag.name, " " + repr(text) if text else ""))
        if limit.active is not None:
            raise RuntimeError("the alarm %r of tag %s is active already"
                               % (limit.layout.text, tag.name))
        value = tag.writable(limit.value_beyond(tag.vt in _WHOLE))
        if not limit.crossed(float(value)):
            raise ValueError("tag %s holds no value beyond %g" % (tag.name, limit.layout.limit))
        return self.write(tag, value, hold=True)

    def recover(self, tag: Tag) -> Tuple[bool, List[Event]]:
        """Take a tag back inside the limits whose alarms are active, and hold it there.

        Returns what ``write`` does; without an active alarm nothing happens.
        """
        changed = False
        events = []  # type: List[Event]
        for limit in tag.limits:
            if limit.active is not None:
                differs, cleared = self.write(tag, limit.value_inside(tag.vt in _WHOLE), hold=True)
                changed = changed or differs
                events.extend(cleared)
        return changed, events

    def check_limits(self, tag: Tag) -> List[Event]:
        """Compare the tag's value with its limits; returns the alarms raised and cleared."""
        if not tag.limits:
            return []
        now = int(time.time())
        events = (limit.check(float(tag.value), now) for limit in tag.limits)
        return [event for event in events if event is not None]

    def active_alarms(self) -> List[frames.Alarm]:
        """The alarms that are active now, oldest first."""
        raised = [limit.active for driver in self.drivers.values() for tag in driver.tags
                  for limit in tag.limits if limit.active is not None]
        return sorted(raised + self._extra_alarms, key=lambda alarm: alarm.almtm)

    def add_alarm(self, alarm: frames.Alarm) -> None:
        """Count an alarm made on order among the active ones."""
        self._extra_alarms.append(alarm)

    def clear_alarms(self, tid: Optional[int] = None, kind: Optional[int] = None) -> None:
        """Forget the alarms made on order, or those of a tag or type alone."""
        self._extra_alarms = [alarm for alarm in self._extra_alarms
                              if tid not in (None, alarm.tid) or kind not in (None, alarm.type)]

    # ---- users and files ----------------------------------------------------------------------

    def rights(self, user: bytes, password: bytes) -> Optional[int]:
        """The rights word of a user, or None when the login is refused."""
        if not self.users:
            return MAY_WRITE
        known = self.users.get(user)
        if known is None or known.password.encode("utf-8") != password:
            return None
        return known.rights

    def set_rights(self, user: str, rights: int) -> None:
        """Change a user's rights word; KeyError for an unknown user."""
        key = user.encode("utf-8")
        self.users[key] = self.users[key]._replace(rights=rights)

    def may_write(self, user: bytes) -> bool:
        """Whether a logged-in user may write now."""
        return not self.users or bool(self.users[user].rights & MAY_WRITE)

    def file(self, name: bytes) -> Optional[files.ProjectFile]:
        """A project file by its GB2312 name, any case; from memory first, then the folder."""
        found = self.files.get(name.lower())
        if found is not None or self.layout.folder is None:
            return found
        path = os.path.realpath(os.path.join(
            self.layout.folder, name.decode("gb2312", "replace").replace("\\", "/")))
        if not path.startswith(os.path.realpath(self.layout.folder) + os.sep):
            return None
        try:
            with open(path, "rb") as stream:
                return files.ProjectFile(stream.read(), int(os.fstat(stream.fileno()).st_mtime))
        except (OSError, ValueError):
            return None

    def _generate_files(self) -> None:
        generated = {
            b"recdata/drvinfo.dat": files.driver_info(
                (driver.name.encode("gb2312"), driver.id, len(driver.tags))
                for driver in self.drivers.values()),
            b"recdata/textlist": files.list_file(t.encode("gb2312") for t in self.text_list),
            b"recdata/taglist": files.list_file(t.encode("gb2312") for t in self.tag_list),
        }
        for name, data in generated.items():
            self.files[name] = files.ProjectFile(data, self.layout.file_time)

    # ---- building -----------------------------------------------------------------------------

    def _build_signals(self) -> None:
        following = []
        for driver, tag, layout in self._layouts():
            if layout.signal is not None:
                tag.signal = signals.build(layout.signal)
                tag.store(tag.signal.value, clamp=True)
                self._moving.append(tag)
            elif layout.follows is not None:
                following.append((driver, tag, layout))
        for driver, tag, layout in following:
            arguments = dict(layout.follows)
            target = self._target(driver, arguments.pop("target"), layout.where)
            tag.signal = signals.Follow(lambda target=target: target.value, **arguments)
            tag.store(tag.signal.value, clamp=True)
            self._moving.append(tag)

    def _target(self, driver: plantfile.DriverLayout, name: str, where: str) -> Tag:
        holder, _, tag = name.rpartition("/")
        try:
            found = self.find(holder or driver.name, tag)
        except KeyError as error:
            raise plantfile.PlantError("%s.follows: %s" % (where, error.args[0]))
        if isinstance(found.value, (str, bytes, list, type(None))):
            raise plantfile.PlantError("%s.follows: %s holds no number" % (where, name))
        return found

    def _build_limits(self) -> None:
        for _, tag, layout in self._layouts():
            if not layout.limits:
                continue
            if isinstance(tag.value, (str, bytes, list, type(None))):
                raise plantfile.PlantError("%s.alarms: the tag holds no number" % layout.where)
            if len(tag.wire_name) > files.MAX_LIST_LINE:
                raise plantfile.PlantError("%s.alarms: the tag's name is longer than %d bytes, "
                                           "a line of the alarm tag list"
                                           % (layout.where, files.MAX_LIST_LINE))
            for limit in layout.limits:
                tag.limits.append(Limit(limit, len(self.tag_list), self._text(limit.text),
                                        self._text(limit.group)))
            self.tag_list.append(tag.name)
            self.check_limits(tag)

    def _text(self, text: str) -> int:
        if text not in self.text_list:
            self.text_list.append(text)
        return self.text_list.index(text)

    def _layouts(self) -> Any:
        for driver in self.layout.drivers:
            for index, layout in enumerate(driver.tags):
                yield driver, self.drivers[driver.id].tags[index], layout
