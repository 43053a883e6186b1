"""The simulator as a process of its own, controlled from this one."""

import json
import os
import select
import subprocess
import sys
import tempfile
import threading
import weakref
from typing import IO, Any, Dict, List, Optional, Union

from . import control
from .operations import Operations


class SimProcess(Operations):
    """Starts ``python -m vzsim`` and forwards every operation to it; also a context manager.

    ``plant``, ``host``, ``port``, ``centers`` and ``tick`` are those of ``Simulator``;
    ``interpreter`` runs it (default: this one); ``verbose`` logs every request, see ``log``.
    Raises RuntimeError with the simulator's own message when it does not start within
    ``timeout`` seconds. The process ends with ``close``, with this object, or with this
    process, whichever comes first.
    """

    def __init__(self, plant: Union[str, Dict[str, Any]], host: str = "127.0.0.1", port: int = 0,
                 centers: Optional[Dict[str, Any]] = None, tick: Optional[float] = None,
                 interpreter: Optional[str] = None, verbose: bool = False,
                 timeout: float = 20.0) -> None:
        command = [interpreter or sys.executable, "-m", "vzsim",
                   "-" if isinstance(plant, dict) else os.fspath(plant),
                   "--host", host, "--port", str(port), "--control"]
        if tick is not None:
            command += ["--tick", repr(tick)]
        if verbose:
            command.append("-v")
        for name, entry in (centers or {}).items():
            entry = {"address": entry} if isinstance(entry, str) else entry
            option = "--redirect" if entry.get("mode") == "redirect" else "--center"
            command += [option, "%s=%s" % (name, entry["address"])]
        self._lock = threading.Lock()
        self._orders = 0
        self._received = b""
        self._errors = tempfile.TemporaryFile()
        self._last_log = []  # type: List[bytes]  # all of it, once the process has ended
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors,
            env=_environment())
        self._finalizer = weakref.finalize(
            self, _end, self._process, self._errors, self._last_log)
        try:
            if isinstance(plant, dict):
                self._send(plant)
            self._read_ready_line(host, timeout)
        except BaseException:
            self._finalizer()
            raise

    @property
    def pid(self) -> int:
        """Process id of the simulator."""
        return self._process.pid

    def log(self) -> str:
        """What the simulator has written on its error output so far, or until its end."""
        data = self._last_log[0] if self._last_log else _content(self._errors)
        return data.decode("utf-8", "replace")

    def _read_ready_line(self, host: str, timeout: float) -> None:
        line = self._read_line(timeout)
        if not line.startswith("vzsim: ") or " listening on " not in line:
            self._process.stdin.close()
            self._process.wait(timeout=timeout)
            raise RuntimeError("the simulator did not start: %s" % (self.log().strip() or line))
        self.name, _, address = line[len("vzsim: "):].rpartition(" listening on ")
        self.host, self.port = host, int(address.rpartition(":")[2])

    def _read_line(self, timeout: Optional[float]) -> str:
        """One line of its output; empty at its end; RuntimeError after ``timeout`` seconds."""
        stream = self._process.stdout.fileno()
        while b"\n" not in self._received:
            ready, _, _ = select.select([stream], [], [], timeout)
            if not ready:
                raise RuntimeError("the simulator is silent: %s" % self.log().strip())
            data = os.read(stream, 1 << 20)
            if not data:
                return ""
            self._received += data
        line, _, self._received = self._received.partition(b"\n")
        return line.decode("utf-8")

    def _send(self, value: Any) -> None:
        try:
            self._process.stdin.write(json.dumps(value).encode("ascii") + b"\n")
            self._process.stdin.flush()
        except (OSError, ValueError):
            raise RuntimeError("the simulator is gone: %s" % self.log().strip())

    def _call(self, operation: str, **arguments: Any) -> Any:
        with self._lock:
            self._orders += 1
            self._send({"id": self._orders, "do": operation, "with": control.pack(arguments)})
            answer = {"id": None}  # type: Dict[str, Any]
            while answer["id"] != self._orders:  # an interrupted order may have left its answer
                line = self._read_line(None)
                if not line:
                    raise RuntimeError("the simulator is gone: %s" % self.log().strip())
                answer = control.unpack(json.loads(line))
        if "error" in answer:
            raise control.ERRORS[answer["error"]](answer["text"])
        return answer["result"]

    def close(self) -> None:
        """End the process and wait for it; more calls do nothing."""
        self._finalizer()

    def __enter__(self) -> "SimProcess":
        return self

    def __exit__(self, *error: Any) -> None:
        self.close()


def _environment() -> Dict[str, str]:
    """This process's environment, with this package importable."""
    environment = dict(os.environ)
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    paths = [here] + [p for p in [environment.get("PYTHONPATH")] if p]
    environment["PYTHONPATH"] = os.pathsep.join(paths)
    environment["PYTHONIOENCODING"] = "utf-8"
    environment.pop("LD_PRELOAD", None)  # what is preloaded is meant for the client under test
    return environment


def _content(file: IO[bytes]) -> bytes:
    """All that is in a file, which others may be writing."""
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0)


def _end(process: "subprocess.Popen[bytes]", errors: IO[bytes], last_log: List[bytes]) -> None:
    """End the process: first by closing its input, then by signals to its id alone."""
    try:
        process.stdin.close()
    except OSError:
        pass
    for stop in (lambda: None, process.terminate, process.kill):
        stop()
        try:
            process.wait(timeout=5.0)
            break
        except subprocess.TimeoutExpired:
            continue
    process.stdout.close()
    last_log.append(_content(errors))
    errors.close()
