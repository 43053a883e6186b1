"""Other systems that a script could use instead: redis-py and PyTango, each with its own server."""
import contextlib
import os
import socket
import subprocess
import sys
import tempfile
import time

from servers import never_preempts

HERE = os.path.dirname(os.path.abspath(__file__))
PATIENCE_SECONDS = 20
NO_LIMIT = "1000000"  # of events that wait: none may be dropped
ENVIRONMENT = dict(os.environ, TANGO_EVENT_BUFFER_HWM=NO_LIMIT, TANGO_DS_EVENT_BUFFER_HWM=NO_LIMIT)


class NoPeers:
    """There are none to be measured."""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass

    def sides(self, job, size):
        return {}


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def wait_for(port):
    """Returns when a server listens there."""
    deadline = time.monotonic() + PATIENCE_SECONDS
    while time.monotonic() < deadline:
        try:
            return socket.create_connection(("127.0.0.1", port)).close()
        except OSError:
            time.sleep(0.02)
    raise SystemExit("bench: a peer's server did not start")


class Client:
    """A client in a process of its own."""

    def __init__(self, name, port):
        self._process = subprocess.Popen(
            [sys.executable, os.path.join(HERE, "peer_client.py"), name, str(port)],
            env=ENVIRONMENT, stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")
        self._hear()

    def _hear(self):
        line = self._process.stdout.readline()
        if not line:
            raise SystemExit("bench: a peer's client ended")
        return line.strip()

    def seconds(self, job, size, count, publish):
        """CPU seconds of the client; publish(count) is called when it can be told of changes."""
        self._process.stdin.write("%s %d %d\n" % (job, size, count))
        self._process.stdin.flush()
        if job == "deliver":
            self._hear()
            publish(count)
        return float(self._hear())

    def close(self):
        try:
            self._process.communicate(timeout=PATIENCE_SECONDS)
        except BrokenPipeError:
            self._process.wait(timeout=PATIENCE_SECONDS)


class Peer:
    """A server and its client; the server's folder goes with it."""

    def __init__(self, name, command):
        self.port = free_port()
        self.name = name
        self._folder = tempfile.TemporaryDirectory()
        self._server = subprocess.Popen(command(self.port), cwd=self._folder.name,
                                        env=ENVIRONMENT, stdout=subprocess.DEVNULL)
        try:
            wait_for(self.port)
            never_preempts(self._server.pid)
            self._client = Client(name, self.port)
        except BaseException:
            self._end_server()
            raise

    def _end_server(self):
        self._server.terminate()
        self._server.wait(timeout=PATIENCE_SECONDS)
        self._folder.cleanup()

    def _publish(self, count):
        """Has the server send changes, where the client does not order them itself."""

    def seconds(self, job, size, count):
        return self._client.seconds(job, size, count, self._publish)

    def close(self):
        self._client.close()
        self._end_server()


class Redis(Peer):
    COMMAND = ["redis-server", "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
               "--client-output-buffer-limit", "pubsub 0 0 0"]
    BATCH = 1000

    def __init__(self, _):
        super().__init__("redis", lambda port: self.COMMAND + ["--port", str(port)])

    def _publish(self, count):
        with socket.create_connection(("127.0.0.1", self.port)) as sock:
            replies = sock.makefile("rb")
            for first in range(0, count, self.BATCH):
                values = range(first, min(first + self.BATCH, count))
                sock.sendall(b"".join(b"PUBLISH t000000 %d\r\n" % (value + 1) for value in values))
                for _ in values:
                    replies.readline()


class Tango(Peer):
    def __init__(self, programs):
        device = os.path.join(os.path.abspath(programs), "peer_device")
        super().__init__("tango", lambda port: [
            device, "bench", "-nodb", "-dlist", "bench/1/1",
            "-ORBendPoint", "giop:tcp:127.0.0.1:%d" % port])

    def seconds(self, job, size, count):
        """Changes go to a client of their own each time.

        A subscription must not grow older than ten seconds: then the client's library looks after
        it, and ends the process when there is no database.
        """
        if job != "deliver":
            return super().seconds(job, size, count)
        with contextlib.closing(Client(self.name, self.port)) as client:
            return client.seconds(job, size, count, self._publish)


class PeerSide:
    """One job of a peer, beside the module's."""

    def __init__(self, peer, job, size):
        self.seconds = lambda count: peer.seconds(job, size, count)


class Peers:
    def __init__(self, programs):
        self._programs = programs
        self._peers = {}
        self._stack = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            for name, kind in (("redis", Redis), ("tango", Tango)):
                self._peers[name] = stack.enter_context(contextlib.closing(kind(self._programs)))
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_):
        self._stack.close()

    def sides(self, job, size):
        return {name: PeerSide(peer, job, size) for name, peer in self._peers.items()}
