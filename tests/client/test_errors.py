"""Errors: what they are, what they say, and when a call gives up."""

import socket
import threading

import pytest

from script import TIME_SCALE, ScriptError

TREE = [
    ("ConnectError", "VzError ConnectionError OSError"),
    ("LoginRefused", "ConnectError VzError ConnectionError"),
    ("ConnectionLost", "VzError ConnectionError"),
    ("VzTimeoutError", "VzError TimeoutError OSError"),
    ("UnknownDriver", "VzError KeyError LookupError"),
    ("UnknownTag", "VzError KeyError LookupError"),
    ("WriteDenied", "VzError PermissionError OSError"),
    ("ValueRejected", "VzError ValueError"),
    ("VzError", "Exception")]


@pytest.fixture
def black_hole():
    """The host text of a port that takes connections and never says anything."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(5)
        yield "127.0.0.1:%d" % listener.getsockname()[1]


@pytest.mark.parametrize("name,bases", TREE)
def test_an_error_is_also_a_built_in_one(client, name, bases):
    for base in bases.split():
        client("kind = vzclient.%s\n"
               "assert issubclass(kind, getattr(vzclient, %r, None) or eval(%r))"
               % (name, base, "__builtins__[%r]" % base))


def test_unknown_names_show_as_text_not_quoted(connected):
    assert connected("str(error_of(lambda: plant['x']))").startswith("127.0.0.1:")


# ---- connecting ---------------------------------------------------------------------------------

@pytest.mark.parametrize("code,fault,kind,hint", [
    ("9", dict(action="refuse"), "LoginRefused", "check name and password"),
    ("7", dict(action="refuse"), "LoginRefused", "a free connection"),
    ("8", dict(action="refuse"), "LoginRefused", "a free connection"),
    ("7", dict(action="garbage"), "ConnectError", "host and port are right"),
    ("8", dict(action="garbage"), "ConnectError", "host and port are right"),
    ("9", dict(action="garbage"), "ConnectError", "check its version"),
    ("7", dict(action="close"), "ConnectError", "the server runs"),
    ("8", dict(action="close", how="reset"), "ConnectError", "the server runs"),
    ("9", dict(action="close"), "ConnectError", "the server runs"),
    ("4", dict(action="close"), "ConnectError", "the server runs"),
    ("4", dict(action="cut", after=8), "ConnectError", "the server runs"),
    ("4", dict(action="garbage", size=300), "ConnectError", "the server runs"),
    ("accept", dict(action="close"), "ConnectError", "the server runs"),
])
def test_a_connection_that_cannot_be_made_says_where_and_what_to_check(
        client, sim, raised, code, fault, kind, hint):
    sim.fault(code, **fault)
    got, text = raised("connect()")
    assert got == kind
    assert text.startswith("connecting to 127.0.0.1:%d as 'operator': " % sim.port)
    assert hint in text
    client("until(lambda: (threads(), sockets()) == (1, 0))")
    assert client("connect()['line1']['a']") == 1


def test_a_port_where_nobody_listens_says_so(client, sim, raised):
    sim.set_listening(False)
    kind, text = raised("connect()")
    assert kind == "ConnectError" and "check that the server runs" in text


def test_a_wrong_password_says_so(client, raised):
    kind, text = raised("connect('operator', 'wrong')")
    assert kind == "LoginRefused" and "refuses the user" in text and "wrong" not in text


def test_a_host_that_does_not_exist_says_so(client, raised):
    client("def look_up(*arguments): raise OSError\nsocket.getaddrinfo = look_up")
    kind, text = raised("vzclient.connect('nobody.invalid:8000')")
    assert (kind, text) == ("ConnectError", "connecting to nobody.invalid:8000: there is no host "
                            "'nobody.invalid'; check the name")


def test_a_host_text_that_is_none_says_so(client, raised):
    kind, text = raised("vzclient.connect('p2p')")
    assert kind == "ConnectError" and "not a host text" in text


def test_a_project_without_a_name_says_so(client, sim, raised):
    sim.set_login(project=b"")
    assert raised("connect()")[0] == "ConnectError"


def test_a_user_and_password_too_long_for_the_login_are_refused(client, sim):
    assert client("kind_of(connect, 'x' * 200, 'y' * 54)") == "ConnectError"
    assert client("kind_of(connect, 'x' * 200, 'y' * 53)") == "LoginRefused"


@pytest.mark.parametrize("code", ["7", "8", "9", "4", "accept"])
def test_connecting_ends_in_time_when_the_server_falls_silent(client, sim, raised, code):
    sim.fault(code, "silent")
    kind, text = raised("connect(timeout=0.3)")
    assert kind == "VzTimeoutError" and text.endswith("check that the server is reachable")
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_connecting_ends_in_time_when_the_server_drips(client, sim):
    # Beyond the header some bytes of the driver file are left, and each comes soon enough.
    sim.fault("4", "split", sizes=[90, 1], pause=0.15)
    assert client("kind_of(connect, timeout=0.5)") == "VzTimeoutError"


def test_connecting_to_a_black_hole_ends_in_time(client, raised, black_hole):
    assert raised("vzclient.connect(%r, timeout=0.3)" % black_hole)[0] == "VzTimeoutError"


def test_connecting_to_a_full_backlog_ends_in_time(client, raised):
    with socket.socket() as listener, socket.socket() as first, socket.socket() as second:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for taken in (first, second):
            taken.setblocking(False)
            taken.connect_ex(listener.getsockname())
        kind, _ = raised("vzclient.connect('127.0.0.1:%d', timeout=0.5)"
                         % listener.getsockname()[1])
    assert kind == "VzTimeoutError"


def test_a_look_up_of_the_host_ends_in_time(client, raised):
    client("gate = threading.Event()\n"
           "def look_up(*arguments):\n"
           "    gate.wait(LIMIT)\n"
           "    raise OSError\n"
           "socket.getaddrinfo = look_up")
    kind, text = raised("vzclient.connect('nobody.invalid', timeout=0.3)")
    assert kind == "VzTimeoutError" and text.endswith("check the name service")
    client("gate.set()")


# ---- requests -----------------------------------------------------------------------------------

CALLS = [("L", "line.read('a', timeout=0.3)"), ("H", "line.read('a', timeout=0.3)"),
         ("H", "line.write({'a': 5}, timeout=0.3)"), ("L", "line.write({'a': 5}, timeout=0.3)"),
         ("H", "short['a']"), ("b", "short.watch('a')"), ("L", "short.watch('a')"),
         ("b", "short.on_change(print, 'a')"), ("n", "short._plant.alarms()"),
         ("n", "short._plant.on_alarm(print)")]


@pytest.fixture
def short(connected):
    """A client that has ``short``, a driver of a plant whose calls have 0.3 s."""
    connected("short = connect(timeout=0.3 * %r, reconnect=False)['line1']" % TIME_SCALE)
    return connected


@pytest.mark.parametrize("code,call", CALLS)
def test_a_call_ends_in_time_when_the_server_falls_silent(short, sim, raised, code, call):
    sim.fault(code, "silent")
    kind, text = raised(call)
    assert kind == "VzTimeoutError"
    assert "127.0.0.1:%d" % sim.port in text
    assert text.endswith("check the server's load and the network")


@pytest.mark.parametrize("code,call", [
    ("H", "plant['wide'].read(*names, timeout=0.5)"),
    ("b", "short._plant['wide'].watch(*names)"),
    ("L", "plant['wide'].read(*names, timeout=0.5)")])
def test_a_call_ends_in_time_when_the_server_drips(short, sim, raised, code, call):
    short("names = ['t%04d' % i for i in range(1000)]")
    # The first pieces hold what must come at once; no byte is later than 0.02 s.
    sim.fault(code, "split", sizes=[1, 2, 1] if code == "b" else [4, 1], pause=0.02)
    assert raised(call)[0] == "VzTimeoutError"


def test_a_call_ends_in_time_when_the_server_stalls_in_its_answer(short, sim, raised):
    sim.fault("H", "cut", after=8, then="stall")
    assert raised("line.read('a', 'b', timeout=0.3)")[0] == "VzTimeoutError"


def test_one_time_limit_holds_for_all_requests_of_a_call(short, sim, raised):
    # Each answer comes within the limit, all of them do not.
    for code in "LH":
        sim.fault(code, "delay", times=None, seconds=0.4)
    short("names = ['t%04d' % i for i in range(1200)]")
    assert raised("plant['wide'].read(*names, timeout=0.7)")[0] == "VzTimeoutError"


def test_no_time_at_all_is_a_timeout_and_harms_nothing(connected, sent, raised):
    assert raised("line.read('a', timeout=0)")[0] == "VzTimeoutError"
    assert raised("line.write({'a': 5}, timeout=-1)")[0] == "VzTimeoutError"
    assert sent() == []
    assert connected("line['a'], plant.stats.reconnects") == (1, 0)


def test_timeouts_are_counted(connected, sim):
    sim.fault("H", "silent")
    assert connected("kind_of(line.read, 'a', timeout=0.2), plant.stats.timeouts") == (
        "VzTimeoutError", 1)


def test_an_answer_that_comes_too_late_is_given_to_nobody(connected, sim):
    connected("line.read('a', 'b')\n"
              "def read():\n"
              "    try: return line['a']\n"
              "    except vzclient.ConnectionLost: return 1")
    sim.fault("H", "delay", seconds=0.6)
    assert connected("kind_of(line.read, 'b', timeout=0.2)") == "VzTimeoutError"
    assert connected("read()") == 1
    connected("until(lambda: plant.stats.reconnects == 1)")
    assert connected("[line.read('a', 'c') for _ in range(3)]") == [{"a": 1, "c": 3}] * 3


def test_waiting_for_ones_turn_counts_and_ends_no_connection(connected, sim):
    sim.fault("H", "delay", seconds=1)
    connected("thread = Thread(line.read, 'a')")
    sim.wait_requests(2)
    assert connected("kind_of(line.read, 'b', timeout=0.2)") == "VzTimeoutError"
    assert connected("thread.result(), line['b'], plant.stats.reconnects") == ({"a": 1}, 2, 0)


class Flood:
    """Passes both channels on to a simulator; an alarm list has no end."""

    LIMIT = 1 << 30  # bytes; then it stops

    def __init__(self, sim):
        self._to = sim.host, sim.port
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(5)
        self.port = self._listener.getsockname()[1]
        self.ended = threading.Event()  # the client closed before all was sent
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            server = socket.create_connection(self._to)
            threading.Thread(target=self._up, args=(client, server), daemon=True).start()
            threading.Thread(target=self._pipe, args=(server, client), daemon=True).start()

    def _up(self, client, server):
        self._pipe(client, server, self._answer)

    def _answer(self, client, data):
        if not data.startswith(b"4RecData/textlist"):
            return False
        client.sendall(b"FileTime:5F5E1000\r\nSize:%X\r\n\r\n" % self.LIMIT)
        try:
            for _ in range(self.LIMIT >> 20):
                client.sendall(bytes(1 << 20))
        except OSError:
            self.ended.set()
        return True

    @staticmethod
    def _pipe(source, target, answer=lambda source, data: False):
        try:
            while True:
                data = source.recv(1 << 16)
                if not data:
                    break
                if not answer(source, data):
                    target.sendall(data)
        except OSError:
            pass
        for each in (source, target):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def close(self):
        self._listener.close()


def test_a_call_ends_in_time_when_the_server_never_stops_sending(client, sim):
    flood = Flood(sim)
    client("host = '127.0.0.1:%d'\nplant = connect(reconnect=False)\nplant.timeout = 0.3"
           % flood.port)
    sim.set_file("RecData/textlist", b"x", 1)
    assert client("kind_of(plant.alarms)") == "VzTimeoutError"
    client("plant.close()\nimport shutil\n"
           "shutil.rmtree('/tmp/vzbrowser/' + host.replace(':', '_'))")
    assert flood.ended.wait(20 * TIME_SCALE)
    flood.close()


# ---- threads ------------------------------------------------------------------------------------

def test_many_threads_share_a_connection(connected):
    connected("wide = plant['wide']\n"
              "def use(number):\n"
              "    names = ['t%04d' % i for i in range(number, 1200, 16)]\n"
              "    for _ in range(20):\n"
              "        assert wide.read(*names) == {name: int(name[1:]) for name in names}\n"
              "        assert wide[names[0]] == number\n"
              "        with wide.watch(names[1]) as watch:\n"
              "            assert take(watch, 1) == [(names[1], number + 16)]\n"
              "users = [Thread(use, number) for number in range(16)]")
    assert connected("[user.result() for user in users]") == [None] * 16


def test_other_threads_run_while_one_waits_for_an_answer(connected, sim):
    sim.fault("H", "delay", seconds=0.5)
    connected("thread = Thread(line.read, 'a')")
    sim.wait_requests(2)
    assert connected("sum(range(100000)), thread.is_alive()") == (4999950000, True)
    assert connected("thread.result()") == {"a": 1}


def test_what_was_asked_while_another_waited_is_answered_next(connected, sim):
    sim.fault("H", "delay", seconds=0.3)
    connected("waiting = [Thread(line.read, name) for name in 'abcabc']")
    assert connected("[thread.result() for thread in waiting]") == [
        {"a": 1}, {"b": 2}, {"c": 3}] * 2


def test_a_lost_connection_ends_the_calls_of_all_threads(connect, sim):
    client = connect("reconnect=False")
    sim.fault("H", "silent")
    client("waiting = [Thread(line.read, name) for name in 'abc']")
    sim.wait_requests(1, codes="H")
    sim.drop_clients()
    assert client("{type(thread.result()).__name__ for thread in waiting}") == {"ConnectionLost"}


def test_errors_are_no_surprise_to_code_for_built_in_ones(connected, sim):
    sim.fault("H", "silent")
    with pytest.raises(ScriptError) as caught:
        connected("try:\n    line.read('a', timeout=0.2)\n"
                  "except TimeoutError as error:\n    raise RuntimeError(str(error))")
    assert caught.value.kind == "RuntimeError"
