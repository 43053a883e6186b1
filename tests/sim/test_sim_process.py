"""The simulator as a command and as a controlled process."""

import ctypes
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time

import pytest

from conftest import PYTHON, small_plant
from vzsim import Operations, SimProcess, Simulator, control, controller
from vzsim.scenarios import Scenarios
from wire_client import Client, connect, take

READ = b"H\x01\0\0\0\x01\0"


def start(*arguments, **options):
    environment = dict(os.environ, PYTHONPATH=PYTHON, PYTHONIOENCODING="utf-8")
    return subprocess.Popen(
        [sys.executable, "-m", "vzsim"] + list(arguments), env=environment,
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


def outcome(*arguments):
    process = start(*arguments)
    out, err = process.communicate(timeout=30)
    return process.returncode, out.decode(), err.decode()


def gone(pid):
    """Whether no process of that id runs any more (its parent may not have noticed yet)."""
    try:
        with open("/proc/%d/stat" % pid) as stream:
            return stream.read().rpartition(")")[2].split()[0] == "Z"
    except FileNotFoundError:
        return True


def wait_gone(pid):
    deadline = time.monotonic() + 30
    while not gone(pid):
        assert time.monotonic() < deadline, "the simulator is still there"
        time.sleep(0.01)


@pytest.fixture
def process():
    with SimProcess(small_plant(), tick=0, verbose=True) as simulator:
        yield simulator


# ---- the command -----------------------------------------------------------------------------

@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_command_says_one_line_serves_and_ends_cleanly(number):
    process = start("boiler_house", "--port", "0")
    line = process.stdout.readline().decode()
    found = re.match(r"^vzsim: boiler_house listening on 127\.0\.0\.1:(\d+)\n$", line)
    assert found, line
    with Client(int(found.group(1))) as client:
        assert client.log_in(b"operator", b"password")[:1] == b"9"
    process.send_signal(number)
    out, err = process.communicate(timeout=30)
    assert (process.returncode, out, err) == (0, b"", b"")


def test_an_end_of_standard_input_does_not_end_an_uncontrolled_simulator():
    process = start("boiler_house", "--port", "0")
    process.stdout.readline()
    process.stdin.close()
    process.stdin = None
    with pytest.raises(subprocess.TimeoutExpired):
        process.wait(timeout=0.3)
    process.terminate()
    process.communicate(timeout=30)


def test_a_bad_plant_file_is_one_line_and_exit_2(tmp_path):
    path = tmp_path / "p.json"
    path.write_text(json.dumps({"name": "p", "drivers": [{"name": "D", "id": "x"}]}))
    status, out, err = outcome(str(path), "--port", "0")
    assert (status, out) == (2, "")
    assert err == "vzsim: %s: drivers[0].id: must be int, not 'x'\n" % path


def test_a_missing_plant_file_is_one_line_and_exit_2():
    status, out, err = outcome("nowhere.json", "--port", "0")
    assert (status, out, err) == (2, "", "vzsim: nowhere.json: No such file or directory\n")


def test_a_bad_center_option_is_one_line_and_exit_2():
    status, _, err = outcome("boiler_house", "--port", "0", "--center", "X=nowhere")
    assert status == 2 and err == "vzsim: center.X.address: must be HOST:PORT, not 'nowhere'\n"


def test_a_port_in_use_is_one_line_and_exit_1():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen(1)
        status, out, err = outcome("boiler_house", "--port", str(taken.getsockname()[1]))
    assert (status, out) == (1, "") and "cannot listen on" in err and err.count("\n") == 1


def test_the_log_tells_each_request_in_words(process):
    with Client(process.port) as client:
        client.log_in()
        client.lookup(7, "水位")
        client.read((7, 0), (9, 9))
        client.subscribe((0, 1))
        client.write(7, 1, b"\x03\0\x05\0\0\0")
        client.get_file(b"RecData/taglist")
        client.ask(b"d\0\0\x01\0")
        client.ask(b"n")
        client.ask(b"3")
    process.wait_clients(0, channel="request")
    log = process.log()
    for text in ("7 login hello, session ", "8 notification hello of board, session ",
                 "9 login of user operator\n", "L look up 锅炉/水位\n",
                 "H read 2: 锅炉/水位, #9/#9\n", "b subscribe 1: Types/i4\n",
                 "g write 锅炉/Setpoint = 5\n", "4 file RecData/taglist\n",
                 "d unsubscribe Types/i4\n", "n subscribe alarms\n", "3 project paths\n",
                 "- connection ended\n"):
        assert text in log
    assert re.search(r"^\d\d:\d\d:\d\d\.\d\d\d #1 127\.0\.0\.1:\d+ 7 login", log)


def test_a_request_never_spreads_over_two_lines_of_the_log(process):
    with Client(process.port) as client:
        client.log_in(b"a\nb\x1b", b"")
    process.wait_clients(0, channel="request")
    assert "9 login of user a\\x0ab\\x1b\n" in process.log()


def test_passwords_are_not_logged(process):
    with Client(process.port) as client:
        client.log_in()
        assert "secret" not in process.log()


# ---- the controlled process ------------------------------------------------------------------

def test_a_process_serves_a_plant_given_as_a_table(process):
    assert (process.name, process.host) == ("small", "127.0.0.1")
    with Client(process.port) as client:
        assert client.log_in()[:1] == b"9"
        assert client.lookup(7, "水位") == [0]


def test_every_operation_works_from_outside(process):
    with Client(process.port) as client:
        client.log_in()
        process.wait_clients(1)
        assert process.client_count() == 1
        client.subscribe((0, 1))
        process.set_value("Types", "i4", 1)
        assert take(client.notify, 8) == b"\0\0\x01\0\x01\0\0\0"
        process.set_value("Types", 5, "水")
        assert process.get_value("Types", "str") == "水"
        assert process.push_raw(b"\xff\x00", sends=[1], pause=0.0) == 1
        assert take(client.notify, 2) == b"\xff\x00"
        assert process.push_change("Types", "i4", 2) == 1
        assert process.push_series("Types", "i4", 2, first=3) == 1
        assert len(take(client.notify, 24)) == 24
        assert process.raise_alarm(everyone=True) == 1
        assert len(take(client.notify, 35)) == 35
        process.clear_alarms()
        process.step(1.0)
        process.set_file("f", b"\x00\xff", 5)
        assert client.get_file(b"f")[1] == b"\x00\xff"
        process.remove_file("f")
        process.set_rights("guest", 8)
        process.set_login(project=b"\xff")
        process.clear_login()
        process.fault("H", "reply", data=b"\x00\x01", times=None)
        assert client.ask(READ) == b"\x00\x01"
        process.clear_faults()
        process.set_listening(False)
        process.set_listening(True)
        found = process.wait_requests(1, codes="H")
        assert found == [(found[0][0], "request", READ)]
        assert process.requests(clear=True) and process.requests() == []
        assert process.drop_clients("reset") == 2
        process.wait_clients(0)


def test_process_and_thread_offer_the_same_operations():
    public = {name for kind in (Operations, Scenarios) for name in vars(kind)
              if not name.startswith("_")}
    assert public - {"host", "port", "name", "address", "outage", "silence", "playing",
                     "alarm"} == set(controller.OPERATIONS)
    for operation in controller.OPERATIONS:
        assert callable(getattr(controller.Controller, operation))


@pytest.mark.parametrize("make", [Simulator, SimProcess])
def test_wrong_orders_raise_the_same_errors(make):
    with make(small_plant(), tick=0) as sim:
        with pytest.raises(KeyError):
            sim.get_value("Types", "nothing")
        with pytest.raises(KeyError):
            sim.get_value("Nobody", 0)
        with pytest.raises(KeyError):
            sim.set_rights("nobody", 8)
        with pytest.raises(KeyError):
            sim.remove_file("nothing")
        with pytest.raises(ValueError):
            sim.set_value("Types", "i2", 40000)
        with pytest.raises(ValueError):
            sim.set_file("f", b"", -1)
        with pytest.raises(TimeoutError):
            sim.wait_clients(1, timeout=0.01)
        assert sim.get_value("Types", "i2") == -2


def test_a_client_that_blocks_its_interpreter_is_served(process):
    """Waits for a reply with the interpreter lock held: no thread of this process could answer."""
    libc = ctypes.PyDLL(None)  # does not release the lock around a call
    with connect(process.port) as sock:
        sock.setblocking(True)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 30, 0))
        reply = ctypes.create_string_buffer(8)
        assert libc.send(sock.fileno(), b"3", 1, 0) == 1
        assert libc.recv(sock.fileno(), reply, 8, 0) == 1
    assert reply.value == b"0"


def test_a_closed_process_is_gone():
    sim = SimProcess(small_plant())
    sim.close()
    assert gone(sim.pid)
    sim.close()
    with pytest.raises(RuntimeError):
        sim.get_value(0, 0)


@pytest.mark.parametrize("ending", ["sim.close()", "del sim", "pass"])
def test_an_ended_process_leaves_nothing_open(ending):
    code = "import vzsim; sim = vzsim.SimProcess('boiler_house'); " + ending
    found = subprocess.run([sys.executable, "-X", "dev", "-c", code], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, env=dict(os.environ, PYTHONPATH=PYTHON))
    assert (found.returncode, found.stderr) == (0, b"")


def test_the_log_can_be_read_after_the_end():
    with SimProcess(small_plant(), verbose=True) as sim, connect(sim.port) as sock:
        sock.sendall(b"3")
        sock.recv(1)
    assert " 3 project paths\n" in sim.log() and sim.log().endswith(" - connection ended\n")


def test_a_forgotten_process_is_gone():
    sim = SimProcess(small_plant())
    pid = sim.pid
    del sim
    assert gone(pid)


@pytest.mark.parametrize("ending", ["os._exit(0)", "os.kill(os.getpid(), 9)", "pass"])
def test_the_simulator_ends_with_the_process_that_started_it(ending):
    code = ("import os, vzsim; sim = vzsim.SimProcess('boiler_house'); "
            "print(sim.pid, flush=True); " + ending)
    parent = subprocess.Popen([sys.executable, "-c", code], stdout=subprocess.PIPE,
                              env=dict(os.environ, PYTHONPATH=PYTHON))
    out, _ = parent.communicate(timeout=30)
    wait_gone(int(out))


def test_a_process_that_cannot_start_tells_why():
    with pytest.raises(RuntimeError) as error:
        SimProcess({"name": "p", "tick": "x"})
    assert "tick: must be" in str(error.value)
    with pytest.raises(RuntimeError) as error:
        SimProcess("nowhere.json")
    assert "nowhere.json: No such file" in str(error.value)


def test_a_killed_simulator_is_noticed():
    with SimProcess(small_plant()) as sim:
        os.kill(sim.pid, signal.SIGKILL)
        with pytest.raises(RuntimeError):
            sim.get_value(0, 0)


def test_centers_are_passed_to_the_process(process):
    entries = {"Far": "127.0.0.1:%d" % process.port,
               "Near": {"address": "127.0.0.1:%d" % process.port, "mode": "redirect"}}
    for number in range(2, 250):
        try:
            front = SimProcess(small_plant(), "127.77.%d.2" % number, 3968, centers=entries)
            break
        except RuntimeError:
            continue
    with front:
        with Client(3968, front.host, b"Far") as client:
            assert client.log_in()[:1] == b"9"
        with Client(3968, front.host, b"Near") as client:
            assert client.hello()[:4] == b"7lan"


def test_bytes_travel_through_the_control_lines():
    packed = {"a": [{"$hex": "00ff"}, 1, "x", None]}
    assert control.pack({"a": (b"\x00\xff", 1, "x", None)}) == packed
    assert control.unpack(packed) == {"a": [b"\x00\xff", 1, "x", None]}


def test_a_line_that_is_no_order_is_answered_with_its_error():
    process = start("boiler_house", "--port", "0", "--control")
    process.stdout.readline()
    process.stdin.write(b'nonsense\n{"id": 2, "do": "explode"}\n'
                        b'{"id": 3, "do": "client_count", "with": {"channel": null}}\n')
    process.stdin.flush()
    answers = [json.loads(process.stdout.readline().decode()) for _ in range(3)]
    assert answers[0]["error"] == "ValueError" and answers[0]["id"] is None
    assert (answers[1]["error"], answers[1]["id"]) == ("ValueError", 2)
    assert answers[2] == {"id": 3, "result": 0}
    out, err = process.communicate(timeout=30)  # closes its input
    assert (process.returncode, out, err) == (0, b"", b"")


def test_a_closed_simulator_thread_refuses_orders():
    sim = Simulator(small_plant())
    sim.close()
    sim.close()
    with pytest.raises(RuntimeError):
        sim.get_value(0, 0)
