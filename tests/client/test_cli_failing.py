"""Exit codes of vzclient, its one line for each failure, and the rules for passwords."""

import os
import pty
import re
import socket
import subprocess

import pytest

from command import LIMIT, Command, until
from prelude import host_of
from script import ROOT, run


@pytest.fixture
def closed_port():
    """A port that nobody listens on."""
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        yield sock.getsockname()[1]


@pytest.mark.parametrize("arguments, said", [
    ([], "the following arguments are required: COMMAND"),
    (["fly"], "argument COMMAND: invalid choice: 'fly'"),
    (["read", "line1"], "the following arguments are required: TAG"),
    (["read", "line1", "a", "--bogus"], "unrecognized arguments: --bogus"),
    (["drivers", "line1"], "unrecognized arguments: line1"),
    (["read", "line1", "a", "--time", "3"], "unrecognized arguments: --time 3"),
    (["--timeout", "0", "drivers"], "argument --timeout: '0' is no time above 0"),
    (["--timeout", "nan", "drivers"], "argument --timeout: 'nan' is no time above 0"),
    (["watch", "line1", "a", "--count", "0"], "argument --count: '0' is no whole number from 1 on"),
    (["watch", "line1", "a", "--duration", "1y"], "argument --duration: '1y' is no time above 0"),
    (["watch", "line1", "a", "--plot", "--json"], "--plot draws, and writes neither JSON nor CSV"),
    (["replay", "x.csv", "--port", "65536"], "argument --port: '65536' is no port"),
    (["record", "x.txt", "line1", "a"], "x.txt: a recording ends in .csv, .db, .sqlite, .sqlite3"),
    (["record", "x.csv", "line1"], "no tag of driver 'line1' is named"),
    (["record", "x.csv", "--no-alarms"], "there is nothing to record: name tags, or allow alarms"),
    (["--trace", "/nowhere/trace", "drivers"], "/nowhere/trace: No such file or directory"),
    (["--host", "a\udcffb", "drivers"], "the host is no UTF-8 text")])
def test_wrong_use_is_one_line_and_code_1(vz, arguments, said):
    code, out, err = vz(*arguments)
    assert (code, out, err.count("\n")) == (1, "", 1)
    assert err.startswith("vzclient: " + said)


def test_help_goes_to_standard_output(vz):
    code, out, err = vz("--help")
    assert (code, err) == (0, "")
    assert "--password-file FILE" in out and "completion" in out
    assert "--password " not in out


def test_help_loads_nothing_that_only_commands_need():
    done = run("import sys\n"
               "from vzclient.cli.main import main\n"
               "assert main(['--help']) == 0\n"
               "print(*(set(sys.argv[1:]) & set(sys.modules)), file=sys.stderr)",
               "asyncio", "csv", "getpass", "json", "socket", "sqlite3", "vzsim", "vzclient.trace",
               "vzclient.cli.plot", "vzclient.cli.recording", "vzclient.cli.completion")
    assert (done.returncode, done.stderr) == (0, "\n")


def test_the_version_is_that_of_the_package(vz):
    with open(os.path.join(ROOT, "debian", "changelog"), encoding="utf-8") as stream:
        version = re.match(r"vzdbaccess \((.*?)\)", stream.readline()).group(1)
    assert vz("--version") == (0, "vzclient %s\n" % version, "")


def test_without_a_host_nothing_is_tried(vz):
    assert vz("drivers", VZCLIENT_HOST=None) == (
        1, "", "vzclient: no server is named: use --host or set VZCLIENT_HOST\n")


def test_a_host_among_the_options_outweighs_the_environment(sim, vz):
    assert vz("drivers", "--host", host_of(sim), VZCLIENT_HOST="127.0.0.1:1").code == 0
    assert vz("--host", host_of(sim), "drivers", VZCLIENT_HOST="127.0.0.1:1").code == 0


def test_no_server_is_code_2(vz, closed_port):
    code, out, err = vz("drivers", "--host", "127.0.0.1:%d" % closed_port)
    assert (code, out, err.count("\n")) == (2, "", 1)
    assert "no connection" in err


def test_a_refused_login_is_code_2(vz):
    code, out, err = vz("drivers", VZCLIENT_PASSWORD="wrong")
    assert (code, out, err.count("\n")) == (2, "", 1)
    assert "the server refuses the user" in err and "wrong" not in err


def test_a_connection_that_is_lost_in_a_call_is_code_2(sim, vz):
    sim.fault("H", "close")
    code, out, err = vz("read", "line1", "a")
    assert (code, out, err.count("\n")) == (2, "", 1)


def test_a_server_that_does_not_answer_is_code_3(sim, vz):
    sim.fault("H", "silent")
    code, out, err = vz("read", "line1", "a", "--timeout", "0.2")
    assert (code, out, err.count("\n")) == (3, "", 1)
    assert "time limit" in err


def test_unknown_names_are_code_4_and_all_told(vz):
    code, out, err = vz("read", "line1", "a", "x", "y\nz", "--json")
    assert (code, out, err.count("\n")) == (4, "", 1)
    assert "'x', 'y\\nz'" in err
    code, out, err = vz("watch", "nothing", "a")
    assert (code, out, err.count("\n")) == (4, "", 1)
    assert "'nothing'" in err


def test_a_user_without_the_right_to_write_gets_code_5(sim, vz):
    for more in ((), ("--dry-run",)):
        code, out, err = vz("write", "line1", "a=2", "--user", "guest", *more,
                            VZCLIENT_PASSWORD="")
        assert (code, out, err.count("\n")) == (5, "", 1)
        assert "'guest' has no right to write" in err
    assert sim.get_value("line1", "a") == 1


def test_a_full_disk_is_one_line(vz):
    with open("/dev/full", "w") as full:
        done = subprocess.run(vz.line("drivers"), env=vz.environment(), stdout=full,
                              stderr=subprocess.PIPE, encoding="utf-8", timeout=LIMIT)
    assert (done.returncode, done.stderr) == (1, "vzclient: No space left on device\n")


# ---- Passwords -----------------------------------------------------------------------------------

@pytest.fixture
def file(tmp_path):
    """Makes a password file of that mode."""
    def make(content, mode=0o600):
        path = tmp_path / "password"
        path.write_bytes(content)
        path.chmod(mode)
        return str(path)
    return make


@pytest.mark.parametrize("content", [b"password", b"password\n", b"password\r\nmore\n"])
def test_the_first_line_of_a_password_file_counts(vz, file, content):
    path = file(content)
    assert vz("drivers", "--password-file", path, VZCLIENT_PASSWORD="wrong").code == 0


def test_a_password_may_have_characters_of_all_languages(vz, file):
    assert vz("drivers", "--user", "张三", "--password-file", file("密码\n".encode())).code == 0


@pytest.mark.parametrize("mode", [0o604, 0o640, 0o602, 0o620, 0o601, 0o610])
def test_a_password_file_that_others_may_use_is_refused(vz, file, mode):
    path = file(b"password", mode)
    assert vz("drivers", "--password-file", path) == (
        1, "", "vzclient: %s: others can read or change this password file (mode %04o); use "
        "chmod 600\n" % (path, mode))


def test_a_password_file_that_its_owner_can_only_read_is_fine(vz, file):
    assert vz("drivers", "--password-file", file(b"password", 0o400)).code == 0


def test_a_password_file_that_is_not_there_is_told(vz, tmp_path):
    path = str(tmp_path / "none")
    assert vz("drivers", "--password-file", path) == (
        1, "", "vzclient: %s: No such file or directory\n" % path)


def test_a_password_file_that_is_no_text_is_told(vz, file):
    path = file(b"\xff\xfe")
    assert vz("drivers", "--password-file", path) == (
        1, "", "vzclient: %s: the password is no UTF-8 text\n" % path)


def test_a_password_may_come_through_a_pipe(vz):
    done = subprocess.run(
        ["bash", "-c", '"$@" --password-file <(echo password)', "bash"] + vz.line("drivers"),
        env=vz.environment(VZCLIENT_PASSWORD=None), stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, encoding="utf-8", timeout=LIMIT)
    assert (done.returncode, done.stderr) == (0, "")


@pytest.mark.parametrize("arguments", [["--password", "hidden"], ["--password=hidden"]])
def test_a_password_is_no_argument_and_is_not_repeated(vz, arguments):
    for line in (arguments + ["drivers"], ["drivers"] + arguments):
        code, out, err = vz(*line)
        assert (code, out, err.count("\n")) == (1, "", 1)
        assert "a password is never an argument" in err and "hidden" not in err


def test_a_password_with_a_zero_is_told(vz, file):
    assert vz("drivers", "--password-file", file(b"a\0b")) == (
        1, "", "vzclient: the password has a zero character\n")


def test_a_user_without_terminal_and_password_logs_in_with_none(vz):
    assert vz("drivers", "--user", "guest", VZCLIENT_PASSWORD=None).code == 0
    assert vz("drivers", VZCLIENT_PASSWORD=None).code == 2


class Terminal:
    """The command on a terminal of its own."""

    def __init__(self, command, *arguments):
        self.pid, self._terminal = pty.fork()
        if self.pid == 0:
            try:
                os.execvpe(command.line()[0], command.line(*arguments), command.environment())
            finally:
                os._exit(99)
        self.seen = b""

    def wait_for(self, text):
        until(lambda: text.encode() in self.seen or not self._read())
        assert text.encode() in self.seen, self.seen

    def _read(self):
        try:
            self.seen += os.read(self._terminal, 65536)
            return True
        except OSError:  # it has ended
            return False

    def type(self, text):
        os.write(self._terminal, text.encode())

    def end(self):
        until(lambda: not self._read())
        os.close(self._terminal)
        status = os.waitpid(self.pid, 0)[1]
        return os.WEXITSTATUS(status), self.seen.decode().replace("\r\n", "\n")


def test_a_password_is_asked_for_at_a_terminal_and_not_shown(sim, vz):
    command = Command(**dict(vz.variables, VZCLIENT_PASSWORD=None))
    terminal = Terminal(command, "read", "line1", "a", "--csv")
    terminal.wait_for("Password of operator at %s: " % host_of(sim))
    terminal.type("password\n")
    assert terminal.end() == (
        0, "Password of operator at %s: \ntag,value\na,1\n" % host_of(sim))


def test_an_end_instead_of_a_password_is_told(sim, vz):
    command = Command(**dict(vz.variables, VZCLIENT_PASSWORD=None))
    terminal = Terminal(command, "drivers")
    terminal.wait_for(": ")
    terminal.type("\x04")
    code, seen = terminal.end()
    assert code == 1 and seen.endswith("vzclient: no password was given\n")


def test_ctrl_c_at_the_prompt_is_code_130(sim, vz):
    command = Command(**dict(vz.variables, VZCLIENT_PASSWORD=None))
    terminal = Terminal(command, "drivers")
    terminal.wait_for(": ")
    terminal.type("\x03")
    code, seen = terminal.end()
    assert code == 130 and "Traceback" not in seen


# ---- Trace and log -------------------------------------------------------------------------------

def test_the_trace_goes_to_a_file_without_the_password(vz, tmp_path):
    path = tmp_path / "trace"
    assert vz("read", "line1", "a", "--csv", "--trace", str(path)) == (0, "tag,value\na,1\n", "")
    lines = path.read_text("utf-8").splitlines()
    assert any(line.endswith('> user login "operator", password not shown') for line in lines)
    assert any('> look up line1 "a"' in line for line in lines)
    assert "password\0" not in "\n".join(lines)


def test_the_trace_goes_to_standard_error(vz):
    code, out, err = vz("read", "line1", "a", "--csv", "--trace", "-")
    assert (code, out) == (0, "tag,value\na,1\n")
    assert " request < user login accepted, rights 8 (may write)\n" in err


def test_verbose_tells_of_attempts_to_connect(sim, vz):
    with vz.start("watch", "line1", "a", "-v") as running:
        running.read_line()
        running.read_line()
        sim.set_listening(False)
        sim.drop_clients()
        until(lambda: "vzclient.connection: attempt 2 to connect" in running.errors())
