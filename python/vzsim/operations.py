"""What a test may ask of a running simulator: one set of operations, in process or beside it."""

from typing import Any, List, Optional, Sequence, Tuple

from .scenarios import Scenarios, TagKey

Request = Tuple[int, str, bytes]


class Operations(Scenarios):
    """The operations of ``Simulator`` and ``SimProcess``; thread-safe, each waits for its end.

    Outages, ramps and the like are in ``Scenarios``. Drivers and tags are given by name or by id.
    Wrong arguments raise ValueError (KeyError for unknown drivers, tags and users) and change
    nothing.
    """

    # ---- what the clients did -----------------------------------------------------------------

    def requests(self, clear: bool = False, codes: Optional[str] = None) -> List[Request]:
        """What has been received: (connection id, "request" or "notify", bytes), oldest first.

        One entry per request, with its bytes exactly as they came; bytes that are no complete
        request follow when their connection ends. ``codes`` picks requests by their first
        character ("LH": lookups and reads); ``clear`` forgets everything afterwards.
        The latest 200000 entries are kept.
        """
        return [tuple(entry) for entry in self._call("requests", clear=clear, codes=codes)]

    def wait_requests(self, count: int, timeout: float = 20.0,
                      codes: Optional[str] = None) -> List[Request]:
        """Wait until at least ``count`` entries are there; TimeoutError after ``timeout`` s."""
        return [tuple(entry) for entry in self._call(
            "wait_requests", count=count, timeout=timeout, codes=codes)]

    def client_count(self, channel: Optional[str] = None) -> int:
        """Sessions with an open notification channel; with a channel, its open connections."""
        return self._call("client_count", channel=channel)

    def wait_clients(self, count: int, timeout: float = 20.0,
                     channel: Optional[str] = None) -> None:
        """Wait until ``client_count`` is exactly ``count``; TimeoutError after ``timeout`` s."""
        self._call("wait_clients", count=count, timeout=timeout, channel=channel)

    # ---- the plant ----------------------------------------------------------------------------

    def get_value(self, driver: TagKey, tag: TagKey) -> Any:
        """The present value; None for types without one, text as str."""
        return self._call("get_value", driver=driver, tag=tag)

    def set_value(self, driver: TagKey, tag: TagKey, value: Any, hold: bool = True) -> None:
        """Set a tag and push the change to its subscribers, alarms included.

        ``hold`` stops the tag's signal, so the value stays; otherwise the signal goes on from it.
        """
        self._call("set_value", driver=driver, tag=tag, value=value, hold=hold)

    def step(self, seconds: float) -> None:
        """Advance the signals by ``seconds`` at once and push what changed (best with tick 0)."""
        self._call("step", seconds=seconds)

    def set_rights(self, user: str, rights: int) -> None:
        """Change a user's rights word; for later logins, and at once for what may be written."""
        self._call("set_rights", user=user, rights=rights)

    def set_file(self, name: str, data: bytes, mtime: int, gz: bool = False,
                 append: bool = False, hello: Optional[bool] = None) -> None:
        """Offer a project file (any case of name); ``mtime`` in seconds since 1970.

        ``gz`` sends its compressed form, ``append`` only what the client's copy lacks at its
        end, ``hello`` forces or forbids acknowledgements (None: for long replies).
        """
        self._call("set_file", name=name, data=data, mtime=mtime, gz=gz, append=append,
                   hello=hello)

    def remove_file(self, name: str) -> None:
        """Offer the file no longer; KeyError when it is not there."""
        self._call("remove_file", name=name)

    def set_login(self, dif_time: Optional[int] = None, dif_size: Optional[int] = None,
                  project: Optional[bytes] = None, title: Optional[bytes] = None) -> None:
        """Override parts of the notification hello's reply; what is None stays as it is.

        ``dif_time`` and ``dif_size`` are the time and size told for the driver information
        file, ``project`` and ``title`` raw bytes.
        """
        self._call("set_login", dif_time=dif_time, dif_size=dif_size, project=project,
                   title=title)

    def clear_login(self) -> None:
        """Take back all overrides of ``set_login``."""
        self._call("clear_login")

    # ---- pushes -------------------------------------------------------------------------------

    def push_raw(self, data: bytes, sends: Optional[Sequence[int]] = None,
                 pause: float = 0.01) -> int:
        """Send bytes on every notification channel, subscribed or not.

        One send, or pieces of the sizes ``sends`` (the last repeats) with ``pause`` seconds
        between them. Returns the number of channels; sending may go on afterwards.
        """
        return self._call("push_raw", data=data, sends=sends, pause=pause)

    def push_change(self, driver: TagKey, tag: TagKey, value: Any) -> int:
        """Set a tag and send the change to every channel, subscribed or not; returns how many.

        The signal goes on. ValueError for a tag whose type cannot be pushed.
        """
        return self._call("push_change", driver=driver, tag=tag, value=value)

    def push_series(self, driver: TagKey, tag: TagKey, count: int, first: int = 0,
                    frames_per_send: int = 256, pause: float = 0.0) -> int:
        """Send ``count`` changes with the values first, first + 1, ... to every channel.

        Whole frames, at most ``frames_per_send`` and 2048 bytes a send, ``pause`` seconds
        between sends; not stored in the tag. Returns the number of channels.
        """
        return self._call("push_series", driver=driver, tag=tag, count=count, first=first,
                          frames_per_send=frames_per_send, pause=pause)

    def raise_alarm(self, tid: int = 0, type: int = 0, grp: int = 0, level: int = 1,
                    status: int = 1, value: float = 0.0, limit: float = 0.0,
                    almtm: Optional[int] = None, evttm: int = 0, frame_type: int = 1,
                    active: bool = True, everyone: bool = False) -> int:
        """Send an alarm frame of type 1 or 3; ``almtm`` None is now.

        ``active`` also counts it among the active alarms, ``everyone`` sends it to channels
        without an alarm subscription, too. Returns the number of channels.
        """
        return self._call("raise_alarm", tid=tid, type=type, grp=grp, level=level,
                          status=status, value=value, limit=limit, almtm=almtm, evttm=evttm,
                          frame_type=frame_type, active=active, everyone=everyone)

    def clear_alarms(self, tid: Optional[int] = None, type: Optional[int] = None) -> None:
        """Forget the active alarms made by ``raise_alarm``, or those of a tag or type alone;
        nothing is sent.
        """
        self._call("clear_alarms", tid=tid, type=type)

    # ---- misbehaviour -------------------------------------------------------------------------

    def drop_clients(self, kind: str = "close", channel: Optional[str] = None) -> int:
        """End connections: all, or those of a channel ("request", "notify").

        ``kind`` "close" is an orderly end, "reset" a reset. Returns how many were ended.
        """
        return self._call("drop_clients", kind=kind, channel=channel)

    def set_listening(self, on: bool) -> None:
        """Refuse new connections (the port is closed) or accept them again."""
        self._call("set_listening", on=on)

    def fault(self, code: str, action: str, times: Optional[int] = 1, skip: int = 0,
              **arguments: Any) -> None:
        """Order a fault for the next ``times`` requests of a code (None: all), after ``skip``.

        Codes: "7", "8", "9", "3", "4", "L", "d", "b", "H", "g", "n", and "accept" for a new
        connection (close, silent). Faults of one code come in the order they were ordered.

        ========  =========================  ==================================================
        action    arguments                  what happens
        ========  =========================  ==================================================
        refuse    answer=b"0"                that answer, scrambled for "8"; request has no effect
        delay     seconds                    request is carried out and answered later
        cut       after, then="close"        normal reply ends after that many bytes, then close,
                                             reset or stall (open, but never heard of again)
        garbage   data, or size=16, seed=0   these bytes, or noise, instead of the reply
        reply     data, scramble=False       exactly these bytes instead of the reply
        split     sizes or size, pause=0.005 normal reply in pieces, seconds of pause between
        close     how="close"                no reply, then close or reset; no effect
        silent                               no reply; no effect
        ========  =========================  ==================================================
        """
        self._call("fault", code=code, action=action, times=times, skip=skip,
                   arguments=arguments)

    def clear_faults(self) -> None:
        """Forget all ordered faults."""
        self._call("clear_faults")
