"""Connecting: every byte of it, every way it fails, relays, credentials and the cache tree."""

import os
import shutil
import socket
import stat
import struct
import time

import pytest

import wire
from cache import CACHE
from script import run

LOGIN = ("operator", "password")
RELAY_PORT = 3968
FOLDERS = ["3DWnd", "CtmGph", "DBDrv", "ExtData", "Media", "RecData", "RecData/Alarm2",
           "RecData/Event", "Report", "ScnDrv", "SysCfg", "Window"]


@pytest.fixture
def connect(script):
    """Connects ``db`` to a host text; gives the result. Cache folders go away afterwards."""
    hosts = set()
    script("db = VzDBAccess.DBCore()")

    def call(host, user=LOGIN[0], password=LOGIN[1]):
        hosts.add(host)
        return script("db.Connect(%r, %r, %r)" % (host, user, password))

    yield call
    for host in hosts - {""}:
        folder = "".join("_" if c in b":/" or c > 0x7F else chr(c) for c in host.encode())
        shutil.rmtree(os.path.join(CACHE, folder), True)


@pytest.fixture
def center(simulate, own_address):
    """Starts a server on the relay port of an address of its own."""
    def start(**arguments):
        try:
            return simulate(host=own_address, port=RELAY_PORT, **arguments)
        except OSError as error:
            pytest.skip("the relay port cannot be used: %s" % error)

    yield start
    shutil.rmtree(os.path.join(CACHE, "p2p(%s)_Plant" % own_address), True)


def plain(data):
    """Code byte and plain body of a hello."""
    return data[:1], wire.unscramble(data[1:])


def tree(path):
    """All paths below a folder, relative to it."""
    return sorted(os.path.relpath(os.path.join(top, name), path)
                  for top, folders, files in os.walk(path) for name in folders + files)


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


# ---- the bytes of a connect ---------------------------------------------------------------------

def test_a_connect_sends_four_requests_in_order(connect, plant, host):
    assert connect(host) == 0
    assert [data[:1] for _, _, data in plant.requests()] == [b"7", b"8", b"9", b"4"]


def test_only_the_second_hello_goes_over_the_notification_channel(connect, plant, host):
    connect(host)
    numbers = [number for number, _, _ in plant.requests()]
    assert [channel for _, channel, _ in plant.requests()] == [
        "request", "notify", "request", "request"]
    assert numbers[0] == numbers[2] == numbers[3] != numbers[1]


def test_the_login_hello_is_a_scrambled_guid(connect, sent, host):
    before = int(time.time())
    connect(host)
    after = int(time.time())
    hello = sent("7")[0]
    assert len(hello) == 23
    code, guid = plain(hello)
    assert (code, len(guid)) == (b"7", 16)
    seconds, _, _, seconds_again, microseconds = struct.unpack("<IHHII", guid)
    assert before <= seconds <= after
    assert before <= seconds_again <= after
    assert microseconds < 1000000


def test_each_group_of_a_hello_has_a_key_of_its_own(connect, sent, host):
    connect(host)
    assert len(set(wire.keys(sent("7")[0][1:]))) > 1


def test_each_connect_has_a_guid_of_its_own(connect, sent, host):
    connect(host)
    connect(host)
    first, second = [plain(hello)[1] for hello in sent("7")]
    assert first != second


def test_the_notification_hello_repeats_the_guid_and_names_this_machine(connect, plant, host):
    connect(host)
    _, guid = plain(plant.requests(codes="7")[0][2])
    code, body = plain(plant.requests(codes="8")[0][2])
    assert code == b"8"
    assert body == guid + socket.gethostname().encode() + b"\0\x01\x01"


def test_the_user_login_is_plain(connect, sent, host):
    connect(host)
    assert sent("9") == [b"9operator\0password\0"]


def test_the_first_connect_asks_for_the_driver_file(connect, sent, host):
    connect(host)
    assert sent("4") == [b"4RecData/drvinfo.dat\r\nHello:Yes\r\n\r\n"]


def test_user_names_and_passwords_cross_in_utf8(connect, sent, host):
    assert connect(host, "张三", "密码") == 0
    assert sent("9") == [b"9\xe5\xbc\xa0\xe4\xb8\x89\0\xe5\xaf\x86\xe7\xa0\x81\0"]


def test_an_empty_password_is_an_empty_text(connect, sent, host):
    assert connect(host, "guest", "") == 0
    assert sent("9") == [b"9guest\0\0"]


# ---- sockets ------------------------------------------------------------------------------------

def test_the_sockets_of_a_session_are_set_up(session):
    session("import socket, struct, fcntl\n"
            "def option(fd, level, name, size):\n"
            "    with socket.socket(fileno=os.dup(fd)) as s:\n"
            "        return s.getsockopt(level, name, size)\n"
            "fds = [int(n) for n in os.listdir('/proc/self/fd')]\n"
            "links = {}\n"
            "for fd in fds:\n"
            "    try: links[fd] = os.readlink('/proc/self/fd/%d' % fd)\n"
            "    except OSError: pass\n"
            "fds = [fd for fd in links if links[fd].startswith('socket:')]\n"
            "def seconds(fd, name):\n"
            "    return struct.unpack('@ll', option(fd, socket.SOL_SOCKET, name, 16))[0]")
    assert session("len({links[fd] for fd in fds})") == 2
    assert session("sorted({(seconds(fd, socket.SO_RCVTIMEO), seconds(fd, socket.SO_SNDTIMEO))"
                   " for fd in fds})") == [(8, 8), (2147483, 2147483)]
    assert session("{option(fd, socket.SOL_SOCKET, socket.SO_KEEPALIVE, 4) for fd in fds}"
                   ) == {b"\x01\0\0\0"}
    assert session("all(fcntl.fcntl(fd, fcntl.F_GETFD) & fcntl.FD_CLOEXEC for fd in fds)")


# ---- results ------------------------------------------------------------------------------------

def notify_reply(project, code=b"8"):
    return code + bytes(58) + project


FAILURES = [
    ("7", "refuse", {}, -2),
    ("7", "close", {}, -2),
    ("7", "close", {"how": "reset"}, -2),
    ("7", "garbage", {}, -2),
    ("7", "reply", {"data": b"8"}, -2),
    ("8", "refuse", {}, -2),
    ("8", "close", {}, -2),
    ("8", "garbage", {}, -2),
    ("8", "reply", {"data": notify_reply(b"", b"7") + b"Line1\0\0", "scramble": True}, -2),
    ("8", "reply", {"data": notify_reply(b""), "scramble": True}, -2),        # 59 bytes
    ("8", "reply", {"data": notify_reply(b"\0"), "scramble": True}, -3),      # 60 bytes, no name
    ("8", "reply", {"data": b"00", "scramble": True}, -2),
    ("8", "cut", {"after": 79}, -2),                                          # 59 plain bytes
    ("8", "split", {"sizes": [40, 1000], "pause": 1.0}, -2),                  # not in one receive
    ("9", "refuse", {}, -1),
    ("9", "close", {}, -2),
    ("9", "cut", {"after": 0, "then": "reset"}, -2),
    ("9", "garbage", {}, -3),
    ("9", "reply", {"data": b"8\0\0\0\0\x08\0\0\0"}, -3),
    ("4", "close", {}, -2),
    ("4", "cut", {"after": 0, "then": "reset"}, -2),
    ("4", "cut", {"after": 100}, -2),
    ("accept", "close", {}, -2),
]
NAMES_OF_FAILURES = ["%s-%s-%d" % (code, action, i)
                     for i, (code, action, _, _) in enumerate(FAILURES)]


@pytest.mark.parametrize("code, action, arguments, result", FAILURES, ids=NAMES_OF_FAILURES)
def test_a_failure_has_its_result_and_the_next_connect_works(
        connect, plant, host, code, action, arguments, result):
    plant.fault(code, action, **arguments)
    assert connect(host) == result
    assert connect(host) == 0


@pytest.mark.parametrize("code, action, arguments, result", FAILURES, ids=NAMES_OF_FAILURES)
def test_a_failure_leaves_no_descriptor_and_no_thread(
        connect, script, plant, host, code, action, arguments, result):
    script("before = descriptors(), threads()")
    plant.fault(code, action, **arguments)
    connect(host)
    script.wait_until("(descriptors(), threads()) == before")
    plant.wait_clients(0)


def test_a_failure_leaves_the_core_without_drivers(connect, raised, plant, host):
    plant.fault("4", "close")
    connect(host)
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_a_wrong_password_is_refused(connect, host):
    assert connect(host, "operator", "Password") == -1


def test_a_refused_user_gets_no_file(connect, sent, host):
    connect(host, "nobody", "")
    assert [data[:1] for data in sent()] == [b"7", b"8", b"9"]


def test_without_a_project_name_no_login_is_sent(connect, plant, sent, host):
    plant.set_login(project=b"")
    assert connect(host) == -3
    assert [data[:1] for data in sent()] == [b"7", b"8"]


def test_a_refused_hello_opens_no_notification_channel(connect, plant, sent, host):
    plant.fault("7", "refuse")
    connect(host)
    assert [data[:1] for data in sent()] == [b"7"]


def test_a_server_that_does_not_listen_is_a_failure(connect, plant, host):
    plant.set_listening(False)
    assert connect(host) == -2
    plant.set_listening(True)
    assert connect(host) == 0


def test_a_host_without_an_address_is_a_failure(connect):
    assert connect("256.256.256.256:1") == -2


def test_an_empty_host_is_a_failure(connect, own_address):
    assert connect("") == -2


# ---- rights -------------------------------------------------------------------------------------

def writes(script):
    return script("db.GetDriver('line1').SetTagValue('a', 1)")


def test_the_write_bit_lets_a_user_write(connect, script, host):
    connect(host)
    assert writes(script) == 0


def test_a_guest_may_not_write(connect, script, host):
    connect(host, "guest", "")
    assert writes(script) == -1


@pytest.mark.parametrize("rights, result", [
    (b"\x08\0\0\0", 0), (b"\xff\xff\xff\xff", 0), (b"\xf7\xff\xff\xff", -1), (b"\0\x08\0\0", -1),
    (b"\x08\0\0", -1), (b"", -1)])
def test_bit_8_of_the_rights_word_alone_decides(connect, script, plant, host, rights, result):
    plant.fault("9", "reply", data=b"9\x08\x08\x08\x08" + rights)
    assert connect(host) == 0
    assert writes(script) == result


def test_a_login_reply_of_one_byte_connects_without_rights(connect, script, plant, host):
    plant.fault("9", "reply", data=b"9")
    assert connect(host) == 0
    assert writes(script) == -1


def test_rights_are_those_of_the_latest_login(connect, script, host):
    connect(host)
    connect(host, "guest", "")
    assert writes(script) == -1


# ---- credentials --------------------------------------------------------------------------------

@pytest.mark.parametrize("user, password", [
    ("u" * 253, ""), ("", "p" * 253), ("u" * 200, "p" * 53)], ids=["user", "password", "both"])
def test_credentials_of_253_bytes_are_sent(connect, sent, host, user, password):
    assert connect(host, user, password) == -1
    assert sent("9") == [b"9" + user.encode() + b"\0" + password.encode() + b"\0"]


@pytest.mark.parametrize("user, password", [
    ("u" * 254, ""), ("", "p" * 254), ("u" * 200, "p" * 54), ("张" * 85, ""), ("u" * 70000, "p")],
    ids=["user", "password", "both", "utf8", "huge"])
def test_longer_credentials_fail_before_the_login(connect, sent, host, user, password):
    assert connect(host, user, password) == -2
    assert [data[:1] for data in sent()] == [b"7", b"8"]


# ---- host texts ---------------------------------------------------------------------------------

@pytest.mark.parametrize("form", ["%d", " %d", "%dx", "%d.9", "+%d"])
def test_a_port_is_read_as_a_leading_decimal_number(connect, plant, form):
    assert connect("127.0.0.1:" + form % plant.port) == 0


@pytest.mark.parametrize("turns", [-1, 1, 3])
def test_a_port_is_cut_to_16_bits(connect, plant, turns):
    assert connect("127.0.0.1:%d" % (plant.port + turns * 65536)) == 0


def test_a_host_name_is_looked_up(connect, plant):
    assert connect("localhost:%d" % plant.port) == 0


def test_the_last_colon_separates_the_port(connect, plant):
    assert connect("127.0.0.1:1:%d" % plant.port) == -2


@pytest.mark.parametrize("port", ["", ":", ":0", ":x", ":65536"])
def test_a_host_text_without_a_port_means_port_80(connect, simulate, own_address, port):
    try:
        simulate(host=own_address, port=80)
    except OSError as error:
        pytest.skip("port 80 cannot be used: %s" % error)
    assert connect(own_address + port) == 0


def test_a_colon_in_front_separates_no_port(connect, plant):
    # With the port cut off the host would be empty, which is this machine.
    assert connect(":%d" % plant.port) == -2


# ---- center servers -----------------------------------------------------------------------------

def test_a_relay_hello_names_the_plant(connect, center, own_address):
    relay = center()
    assert connect("p2p(%s):Plant" % own_address) == 0
    code, body = plain(relay.requests(codes="7")[0][2])
    assert code == b"7"
    assert body[16:] == bytes(6) + b"Plant\0"


def test_a_relay_gets_the_same_second_hello(connect, center, own_address):
    relay = center()
    connect("p2p(%s):Plant" % own_address)
    _, first = plain(relay.requests(codes="7")[0][2])
    _, second = plain(relay.requests(codes="8")[0][2])
    assert second == first[:16] + socket.gethostname().encode() + b"\0\x01\x01"


@pytest.mark.parametrize("form", ["P2P(%s):Plant", "p2P(%s)):Plant", "p2p-any(%s:Plant"])
def test_a_relay_text_begins_with_p2p_in_any_case(connect, center, own_address, form):
    center()
    assert connect(form % own_address) == 0


def test_a_relay_text_without_an_address_means_the_default_center(connect, simulate):
    try:
        relay = simulate(port=RELAY_PORT)
    except OSError as error:
        pytest.skip("the relay port cannot be used: %s" % error)
    assert connect("p2p:Plant") == 0
    assert plain(relay.requests(codes="7")[0][2])[1][22:] == b"Plant\0"


def test_a_plant_name_keeps_its_further_colons(connect, center, own_address):
    relay = center()
    assert connect("p2p(%s):a:b" % own_address) == 0
    assert plain(relay.requests(codes="7")[0][2])[1][22:] == b"a:b\0"


def test_a_relay_carries_a_session_to_its_plant(connect, script, plant, center, own_address):
    center(centers={"Plant": "127.0.0.1:%d" % plant.port})
    assert connect("p2p(%s):Plant" % own_address) == 0
    script("drv = db.GetDriver('line1')\ndrv.ConnectTag('a')")
    plant.set_value("line1", "a", 5)
    script.wait_until("drv.GetTagValue('a') == 5")


def test_an_unknown_plant_is_refused_by_its_relay(connect, center, own_address, plant):
    center(centers={"Plant": "127.0.0.1:%d" % plant.port})
    assert connect("p2p(%s):Other" % own_address) == -2


def test_a_plant_name_of_255_bytes_is_sent(connect, center, own_address):
    relay = center()
    assert connect("p2p(%s):%s" % (own_address, "n" * 255)) in (0, -2)  # no folder has that name
    assert plain(relay.requests(codes="7")[0][2])[1][22:] == b"n" * 255 + b"\0"


def test_a_longer_plant_name_fails_before_any_connection(connect, center, own_address):
    relay = center()
    assert connect("p2p(%s):%s" % (own_address, "n" * 256)) == -2
    assert relay.requests() == []


def test_a_relay_text_without_a_colon_fails_before_any_connection(connect, center, own_address):
    relay = center()
    assert connect("p2p(%s)" % own_address) == -2
    assert relay.requests() == []


def test_the_relay_form_goes_by_the_port(connect, center, own_address):
    relay = center()
    assert connect("%s:%d" % (own_address, RELAY_PORT)) == 0
    assert plain(relay.requests(codes="7")[0][2])[1][16:] == (
        bytes(6) + own_address.encode() + b"\0")


def test_a_relayed_session_waits_13_seconds_for_replies(connect, script, center, own_address):
    center()
    connect("p2p(%s):Plant" % own_address)
    script("import socket, struct\n"
           "waits = set()\n"
           "for n in os.listdir('/proc/self/fd'):\n"
           "    try:\n"
           "        with socket.socket(fileno=os.dup(int(n))) as s:\n"
           "            waits.add(struct.unpack('@ll', s.getsockopt(\n"
           "                socket.SOL_SOCKET, socket.SO_RCVTIMEO, 16))[0])\n"
           "    except OSError: pass")
    assert script("waits") == {13, 2147483}


# ---- redirects ----------------------------------------------------------------------------------

def lan(host, port, word=b"lan"):
    """The login reply that sends a client to a server of its own network."""
    return b"7" + word + socket.inet_aton(host) + struct.pack(">H", port)


def connect_alone(host):
    """Connect in a script of its own; gives what it printed, the result last."""
    done = run("import VzDBAccess; print(VzDBAccess.DBCore().Connect(%r, %r, %r))"
               % ((host,) + LOGIN))
    assert done.stderr == ""
    return done.stdout


def test_a_redirect_is_followed_and_said(plant, center, own_address):
    relay = center(centers={"Plant": {"address": "127.0.0.1:%d" % plant.port,
                                      "mode": "redirect"}})
    assert connect_alone("p2p(%s):Plant" % own_address) == "Is same lan ...\n0\n"
    assert [data[:1] for _, _, data in relay.requests()] == [b"7"]
    assert [data[:1] for _, _, data in plant.requests()] == [b"7", b"8", b"9", b"4"]


def test_a_redirected_session_says_hello_in_the_direct_form(plant, center, own_address):
    center(centers={"Plant": {"address": "127.0.0.1:%d" % plant.port, "mode": "redirect"}})
    connect_alone("p2p(%s):Plant" % own_address)
    assert len(plant.requests(codes="7")[0][2]) == 23


@pytest.mark.parametrize("word", [b"LAN", b"Lan"])
def test_a_redirect_is_known_in_any_case(plant, center, own_address, word):
    center().fault("7", "reply", data=lan("127.0.0.1", plant.port, word))
    assert connect_alone("p2p(%s):Plant" % own_address) == "Is same lan ...\n0\n"
    assert len(plant.requests(codes="7")) == 1


def test_a_direct_text_with_the_relay_port_is_redirected_too(plant, center, own_address):
    center().fault("7", "reply", data=lan("127.0.0.1", plant.port))
    assert connect_alone("%s:%d" % (own_address, RELAY_PORT)) == "Is same lan ...\n0\n"


def test_a_redirect_of_nine_bytes_is_none(plant, center, own_address):
    relay = center()
    relay.fault("7", "reply", data=lan("127.0.0.1", plant.port)[:9])
    assert connect_alone("p2p(%s):Plant" % own_address) == "0\n"
    assert len(relay.requests(codes="8")) == 1


def test_another_port_is_never_redirected(plant, host, simulate):
    other = simulate()
    plant.fault("7", "reply", data=lan("127.0.0.1", other.port))
    assert connect_alone(host) == "0\n"
    assert other.requests() == []


def test_redirects_in_a_circle_end_in_a_failure(center, own_address):
    relay = center()
    relay.fault("7", "reply", times=None, data=lan(own_address, RELAY_PORT))
    assert connect_alone("p2p(%s):Plant" % own_address).endswith("\n-2\n")
    assert len(relay.requests(codes="7")) == 5


def test_four_redirects_are_followed(center, own_address):
    center().fault("7", "reply", times=4, data=lan(own_address, RELAY_PORT))
    assert connect_alone("p2p(%s):Plant" % own_address).endswith("\n0\n")


def test_a_redirected_session_keeps_its_cache_under_the_first_host_text(
        plant, center, own_address, cached):
    center(centers={"Plant": {"address": "127.0.0.1:%d" % plant.port, "mode": "redirect"}})
    connect_alone("p2p(%s):Plant" % own_address)
    assert os.path.isfile(os.path.join(
        CACHE, "p2p(%s)_Plant" % own_address, "Line1", "RecData", "drvinfo.dat"))
    assert not os.path.exists(cached())


# ---- cache tree ---------------------------------------------------------------------------------

def test_a_connect_makes_the_cache_tree(connect, host, cached):
    connect(host)
    assert tree(cached()) == sorted(FOLDERS + ["RecData/drvinfo.dat"])


def test_the_folders_of_the_cache_belong_to_the_user_alone(connect, host, cached):
    connect(host)
    assert {mode(cached(name)) for name in FOLDERS} == {0o700}
    assert mode(cached()) == mode(cached("..")) == 0o700


def test_some_folders_keep_their_mode_whatever_the_mask(connect, script, host, cached):
    script("_ = os.umask(0o022)")
    os.makedirs(cached("RecData", "Event"))
    os.makedirs(cached("Window"))
    for folder in (cached(".."), cached(), cached("RecData", "Event"), cached("Window")):
        os.chmod(folder, 0o755)
    assert connect(host) == 0
    assert mode(cached("..")) == 0o700
    assert mode(cached()) == 0o700
    assert mode(cached("RecData", "Event")) == 0o700
    assert mode(cached("Window")) == 0o755


def test_a_second_connect_finds_the_tree_in_place(connect, host, cached):
    connect(host)
    before = tree(cached())
    assert connect(host) == 0
    assert tree(cached()) == before


@pytest.mark.parametrize("name, folder", [
    ("../../x", ".._.._x"), ("..", ".."), ("a:b", "a_b"), ("/", "_"), ("水位", "______"),
    ("a b", "a b")])
def test_a_host_text_is_one_folder(connect, center, own_address, name, folder):
    center()
    assert connect("p2p(%s):%s" % (own_address, name)) == 0
    path = os.path.join(CACHE, "p2p(%s)_%s" % (own_address, folder))
    assert tree(path) == sorted(["Line1", "Line1/RecData/drvinfo.dat"]
                                + ["Line1/" + name for name in FOLDERS])


# ---- project names ------------------------------------------------------------------------------

def test_a_chinese_project_has_a_utf8_folder(connect, plant, host, cached):
    plant.set_login(project="锅炉房".encode("gb2312"))
    assert connect(host) == 0
    assert os.path.isfile(cached("..", "锅炉房", "RecData", "drvinfo.dat"))
    assert os.listdir(cached("..")) == ["锅炉房"]


def test_a_chinese_project_gives_its_drivers(connect, script, plant, host):
    plant.set_login(project="锅炉房".encode("gb2312"))
    connect(host)
    assert script("db.GetDriver('line1').GetTagValue('a')") == 1


@pytest.mark.parametrize("name", [
    b".", b"..", b"a/b", b"/", b"../x", b"\xff\xff", b"\x81\x40", b"a\xb9"])
def test_a_project_name_that_is_no_folder_name_fails(script, connect, plant, host, cached, name):
    script.expect_stderr = b""  # a name without a UTF-8 form is said there
    plant.set_login(project=name)
    outside = set(os.listdir(CACHE)) if os.path.isdir(CACHE) else set()
    assert connect(host) == -2
    assert not os.path.isdir(cached("..")) or tree(cached("..")) == []
    assert {"Window", "RecData", "x"} & set(os.listdir(CACHE)) <= outside


def test_a_bad_project_name_sends_no_login(connect, plant, sent, host):
    plant.set_login(project=b"..")
    connect(host)
    assert [data[:1] for data in sent()] == [b"7", b"8"]


def test_the_title_means_nothing(connect, plant, host):
    plant.set_login(title=b"../..\xff")
    assert connect(host) == 0


def test_a_project_name_without_an_end_is_taken_to_the_end(connect, plant, host, cached):
    plant.fault("8", "reply", data=notify_reply(b"Line9"), scramble=True)
    assert connect(host) == 0
    assert os.path.isfile(cached("..", "Line9", "RecData", "drvinfo.dat"))
