"""The driver file: when it is fetched, how, and what is read from it."""

import gzip
import os
import resource

import pytest

import wire
from cache import cache_folder
from plants import SMALL_PLANT

TIME = 1600000000
FILE = "RecData/drvinfo.dat"
REQUEST = b"4RecData/drvinfo.dat\r\n%sHello:Yes\r\n\r\n"
LINE1_ALONE = b"line1\0\0\0\x17\0"  # id 0, 23 tags


def driver_file():
    """The driver file of the small plant, from its description."""
    return b"".join(wire.driver_record(d["name"].encode("gb2312"), d.get("id", i), len(d["tags"]))
                    for i, d in enumerate(SMALL_PLANT["drivers"]))


def long_driver_file(size):
    """A driver file of at least that size that begins with line1."""
    data = LINE1_ALONE
    for i in range(size):
        if len(data) >= size:
            return data
        data += wire.driver_record(b"%0250d" % i, 0, 0)


@pytest.fixture
def plant(simulate):
    """The small plant with a driver file of a known time."""
    return simulate(dict(SMALL_PLANT, file_time=TIME))


@pytest.fixture
def connect(script, host):
    """Connects ``db`` anew; gives the result."""
    script("db = VzDBAccess.DBCore()")
    return lambda: script("db.Connect(%r, 'operator', 'password')" % host)


@pytest.fixture
def drvinfo(cached):
    """Path of the cached driver file, whose folder is there."""
    path = cached(FILE)
    os.makedirs(os.path.dirname(path))
    return path


@pytest.fixture
def reads(script):
    """Whether the session has a driver line1 with its tags."""
    return lambda: script("db.GetDriver('line1').GetTagValue('a')") == 1


def put(path, data, mtime):
    """Write a file of that time; ``data`` may be longer than any buffer."""
    with open(path, "wb") as stream:
        stream.write(data)
    os.utime(path, (mtime, mtime))


def content(path):
    with open(path, "rb") as stream:
        return stream.read()


def drop_privileges(script):
    """From now on the script's user meets file modes, also when that is root."""
    script("import ctypes\n"
           "head = (ctypes.c_uint32 * 2)(0x20080522, 0)\n"
           "assert ctypes.CDLL(None).capset(head, (ctypes.c_uint32 * 6)()) == 0")


# ---- fetching -----------------------------------------------------------------------------------

def test_a_fetched_file_has_the_servers_bytes_and_time(connect, cached):
    assert connect() == 0
    assert content(cached(FILE)) == driver_file()
    assert os.stat(cached(FILE)).st_mtime == TIME


@pytest.mark.parametrize("time", [0x7FFFFFFF, 0x80000000, 0xFFFFFFFF])
def test_a_file_time_from_2038_on_is_kept_and_known_again(
        script, simulate, tmp_path, time):
    put(tmp_path / "probe", b"", time)
    if os.stat(tmp_path / "probe").st_mtime != time:
        pytest.skip("this file system keeps no such time")
    plant = simulate(dict(SMALL_PLANT, file_time=time))
    host = "%s:%d" % (plant.host, plant.port)
    path = os.path.join(cache_folder(host), "Line1", FILE)
    for transfers in (1, 0):
        script("db = VzDBAccess.DBCore()")
        assert script("db.Connect(%r, 'operator', 'password')" % host) == 0
        assert os.stat(path).st_mtime == time
        assert len(plant.requests(clear=True, codes="4")) == transfers


def test_a_fetched_file_belongs_to_the_user_alone(connect, script, cached):
    script("_ = os.umask(0)")
    connect()
    assert os.stat(cached(FILE)).st_mode & 0o777 == 0o600


def test_a_current_file_is_not_asked_for(connect, sent, reads):
    connect()
    sent()
    assert connect() == 0
    assert sent("4") == []
    assert reads()


@pytest.mark.parametrize("apart", [-3, -1, 1, 3])
def test_three_seconds_are_the_same_time(connect, sent, drvinfo, apart):
    put(drvinfo, driver_file(), TIME + apart)
    assert connect() == 0
    assert sent("4") == []


@pytest.mark.parametrize("apart", [-4, 4])
def test_four_seconds_are_another_time(connect, sent, drvinfo, apart):
    put(drvinfo, driver_file(), TIME + apart)
    assert connect() == 0
    assert sent("4") == [REQUEST % (b"LastTime:%X\r\nSize:%X\r\n"
                                    % (TIME + apart, len(driver_file())))]


def test_another_size_is_asked_for(connect, sent, drvinfo):
    put(drvinfo, b"short", TIME)
    assert connect() == 0
    assert sent("4") == [REQUEST % (b"LastTime:%X\r\nSize:5\r\n" % TIME)]
    assert content(drvinfo) == driver_file()


def test_an_empty_file_is_told_as_size_0(connect, sent, drvinfo):
    put(drvinfo, b"", 0)
    connect()
    assert sent("4") == [REQUEST % b"LastTime:0\r\nSize:0\r\n"]


def test_a_compressed_sibling_is_told(connect, sent, drvinfo):
    put(drvinfo + ".gz", b"x" * 31, 0xABCDEF)
    connect()
    assert sent("4") == [REQUEST % b"gzTime:ABCDEF\r\ngzSize:1F\r\n"]


def test_both_copies_are_told(connect, sent, drvinfo):
    put(drvinfo, b"x" * 16, 0xA)
    put(drvinfo + ".gz", b"x" * 31, 0xB)
    connect()
    assert sent("4") == [REQUEST % b"LastTime:A\r\nSize:10\r\ngzTime:B\r\ngzSize:1F\r\n"]


def test_a_longer_copy_is_cut_to_the_new_file(connect, drvinfo):
    put(drvinfo, b"x" * 5000, 1)
    connect()
    assert content(drvinfo) == driver_file()


# ---- answers ------------------------------------------------------------------------------------

def test_use_last_keeps_the_copy(connect, plant, sent, drvinfo, reads):
    put(drvinfo, LINE1_ALONE, 5)
    plant.fault("4", "reply", data=b"UseLast:Yes\r\n\r\n")
    assert connect() == 0
    assert (content(drvinfo), os.stat(drvinfo).st_mtime) == (LINE1_ALONE, 5)
    assert reads()


def test_a_server_may_say_so_of_a_copy_with_its_own_time_and_size(connect, plant, sent, drvinfo):
    plant.set_login(dif_time=0)
    put(drvinfo, driver_file(), TIME)
    assert connect() == 0
    assert len(sent("4")) == 1
    assert os.stat(drvinfo).st_mtime == TIME


def test_a_file_that_the_server_has_not_is_removed(connect, plant, raised, drvinfo):
    put(drvinfo, LINE1_ALONE, 5)
    put(drvinfo + ".gz", b"kept", 5)
    plant.remove_file(FILE)
    assert connect() == 0
    assert not os.path.exists(drvinfo)
    assert content(drvinfo + ".gz") == b"kept"
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


@pytest.mark.parametrize("line, there", [
    (b"Exist:No", False), (b"EXIST:", False), (b"exist: n", False), (b"exist:ye", False),
    (b"Exist: yes please", True), (b"eXiSt:YES", True)])
def test_existence_is_a_yes_in_any_case(connect, plant, drvinfo, line, there):
    put(drvinfo, b"old copy", 5)
    plant.fault("4", "reply", data=line + b"\r\nUseLast:Yes\r\n\r\n")
    assert connect() == 0
    assert os.path.exists(drvinfo) is there


def test_a_compressed_file_goes_to_its_sibling(connect, plant, drvinfo, reads):
    put(drvinfo, LINE1_ALONE, 5)
    plant.set_file(FILE, driver_file(), TIME, gz=True)
    assert connect() == 0
    assert gzip.decompress(content(drvinfo + ".gz")) == driver_file()
    assert os.stat(drvinfo + ".gz").st_mtime == TIME
    assert (content(drvinfo), os.stat(drvinfo).st_mtime) == (LINE1_ALONE, 5)
    assert reads()


def test_an_appended_body_goes_behind_the_copy(connect, plant, sent, drvinfo, reads):
    plant.set_file(FILE, driver_file(), TIME, append=True)
    put(drvinfo, driver_file()[:7], 5)
    assert connect() == 0
    assert content(drvinfo) == driver_file()
    assert os.stat(drvinfo).st_mtime == TIME
    assert reads()


def test_names_of_header_lines_have_any_case(connect, plant, drvinfo):
    plant.fault("4", "reply", data=b"sIzE:A\r\nFILETIME:5f5e1000\r\n\r\n0123456789")
    assert connect() == 0
    assert content(drvinfo) == b"0123456789"
    assert os.stat(drvinfo).st_mtime == 0x5F5E1000


def test_unknown_header_lines_are_ignored(connect, plant, drvinfo):
    plant.fault("4", "reply", data=wire.file_reply(LINE1_ALONE, b"Colour:red\r\nFileName:x\r\n"))
    assert connect() == 0
    assert content(drvinfo) == LINE1_ALONE


def test_blanks_and_further_colons_of_a_header_are_dropped(connect, plant, drvinfo):
    plant.fault("4", "reply", data=b" Si ze :\t1:0\r\n\r\n" + b"x" * 16)
    assert connect() == 0
    assert content(drvinfo) == b"x" * 16


def test_surplus_behind_the_header_is_not_written(connect, plant, drvinfo):
    plant.fault("4", "reply", data=wire.file_reply(LINE1_ALONE + b"surplus", size=len(LINE1_ALONE)))
    assert connect() == 0
    assert content(drvinfo) == LINE1_ALONE


def test_surplus_of_a_later_receive_is_written(connect, plant, drvinfo):
    body = long_driver_file(5000)[:5000]
    reply = wire.file_reply(body, size=3000)
    plant.fault("4", "reply", data=reply)
    assert connect() == 0
    # Two receives of 2048 bytes; the first holds the header, the second reaches the size told.
    assert content(drvinfo) == body[:4096 - (len(reply) - len(body))]


def test_a_header_without_its_blank_line_is_read_as_far_as_it_goes(connect, plant, drvinfo):
    put(drvinfo, LINE1_ALONE, 5)
    plant.fault("4", "reply", data=b"UseLast:Yes\r\n")
    assert connect() == 0
    assert content(drvinfo) == LINE1_ALONE


def test_a_reply_that_says_nothing_leaves_an_empty_file(connect, plant, raised, drvinfo):
    put(drvinfo, LINE1_ALONE, 5)
    plant.fault("4", "garbage")
    assert connect() == 0
    assert content(drvinfo) == b""
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_a_body_may_come_in_any_pieces(connect, plant, cached):
    plant.fault("4", "split", sizes=[100, 1], pause=0.0)
    assert connect() == 0
    assert content(cached(FILE)) == driver_file()


# ---- acknowledgements ---------------------------------------------------------------------------

def test_a_long_transfer_is_acknowledged_span_by_span(connect, plant, sent, cached, reads):
    data = long_driver_file(400000)
    plant.set_file(FILE, data, TIME, hello=True)
    assert connect() == 0
    assert sent("4")[1:] == [b"4Hello20000\0", b"4Hello1D800\0", b"4Hello1B000\0"]
    assert content(cached(FILE)) == data
    assert reads()


def test_spans_shrink_to_8192_bytes(connect, plant, sent, cached):
    data = long_driver_file(1000000)
    plant.set_file(FILE, data, TIME, hello=True)
    assert connect() == 0
    spans, left = [], len(data)
    span = 131072
    while left > span:
        spans.append(span)
        left -= span
        span = max(span - 10240, 8192)
    got = sent("4")[1:]
    assert got[:len(spans)] == [b"4Hello%X\0" % n for n in spans]
    assert got[-1] == b"4Hello2000\0"
    assert content(cached(FILE)) == data


def test_without_the_servers_wish_nothing_is_acknowledged(connect, plant, sent, cached):
    data = long_driver_file(400000)
    plant.set_file(FILE, data, TIME, hello=False)
    assert connect() == 0
    assert len(sent("4")) == 1
    assert content(cached(FILE)) == data


# ---- transfers that fail ------------------------------------------------------------------------

def test_a_transfer_that_breaks_off_leaves_a_part_with_the_servers_time(connect, plant, cached):
    plant.set_file(FILE, LINE1_ALONE * 200, TIME)
    plant.fault("4", "cut", after=1000)
    assert connect() == -2
    part = content(cached(FILE))
    assert 900 < len(part) < 1000
    assert part == (LINE1_ALONE * 200)[:len(part)]
    assert os.stat(cached(FILE)).st_mtime == TIME


def test_after_a_broken_transfer_the_file_is_fetched_anew(connect, plant, sent, cached, reads):
    plant.fault("4", "cut", after=100)
    assert connect() == -2
    size = os.stat(cached(FILE)).st_size
    sent()
    assert connect() == 0
    assert sent("4") == [REQUEST % (b"LastTime:%X\r\nSize:%X\r\n" % (TIME, size))]
    assert content(cached(FILE)) == driver_file()
    assert reads()


def test_a_broken_transfer_gives_no_drivers(connect, plant, raised):
    plant.fault("4", "cut", after=100)
    connect()
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_a_file_that_cannot_be_opened_counts_as_not_needed(connect, raised, drvinfo):
    os.mkdir(drvinfo)
    assert connect() == 0
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_half_a_file_that_cannot_be_replaced_is_not_loaded(connect, script, raised, drvinfo):
    put(drvinfo, driver_file()[:len(LINE1_ALONE) + 3], TIME)
    os.chmod(drvinfo, 0o400)
    drop_privileges(script)
    assert connect() == 0
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_a_whole_copy_that_cannot_be_replaced_is_loaded(connect, script, reads, drvinfo):
    put(drvinfo, driver_file(), TIME - 100)
    os.chmod(drvinfo, 0o400)
    drop_privileges(script)
    assert connect() == 0
    assert os.stat(drvinfo).st_mtime == TIME - 100
    assert reads()


@pytest.mark.parametrize("room", [0, 10, 3000])
def test_a_write_that_fails_fails_the_connect(connect, script, plant, raised, cached, room):
    plant.set_file(FILE, long_driver_file(9000), TIME)
    script("import resource\nresource.setrlimit(resource.RLIMIT_FSIZE, (%d, %d))"
           % (room, resource.RLIM_INFINITY))
    assert connect() == -2
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_after_a_write_that_failed_the_file_is_fetched_whole(connect, script, plant, cached):
    data = long_driver_file(9000)
    plant.set_file(FILE, data, TIME)
    script("import resource\nresource.setrlimit(resource.RLIMIT_FSIZE, (3000, %d))"
           % resource.RLIM_INFINITY)
    connect()
    script("resource.setrlimit(resource.RLIMIT_FSIZE, (%d, %d))" % (2 * (resource.RLIM_INFINITY,)))
    assert connect() == 0
    assert content(cached(FILE)) == data


# ---- what the file says -------------------------------------------------------------------------

@pytest.fixture
def with_drivers(connect, plant):
    """Connects to the plant with another driver file."""
    def call(data):
        plant.set_file(FILE, data, TIME)
        plant.set_login(dif_time=TIME, dif_size=len(data))
        assert connect() == 0
    return call


def has_driver(script, name):
    return script("try:\n    d = db.GetDriver(%r)\nexcept SystemError:\n    d = None" % name
                  ) or script("d is not None")


def test_an_empty_file_gives_no_drivers(with_drivers, script):
    with_drivers(b"")
    assert not has_driver(script, "")


def test_four_bytes_are_no_driver_file(with_drivers, script):
    with_drivers(b"\0\0\0\0")
    assert not has_driver(script, "")


def test_five_bytes_may_be_a_driver_without_a_name(with_drivers, script):
    with_drivers(wire.driver_record(b"", 0, 23))
    assert has_driver(script, "")
    assert script("d.GetTagValue('a')") == 1


def test_a_driver_name_has_its_case(with_drivers, script):
    with_drivers(wire.driver_record(b"Line1", 0, 23))
    assert has_driver(script, "Line1")
    assert not has_driver(script, "line1")


def test_a_driver_has_the_id_of_the_file(with_drivers, script, sent):
    with_drivers(wire.driver_record(b"x", 0xABCD, 1))
    sent()
    assert has_driver(script, "x")
    script("d.GetTagValue('a')")
    assert sent() == [b"L\xcd\xaba\0"]


def test_the_later_of_two_records_counts(with_drivers, script, sent):
    with_drivers(wire.driver_record(b"x", 3, 5) + wire.driver_record(b"x", 0, 23))
    assert has_driver(script, "x")
    assert script("d.GetTagValue('a')") == 1


def test_a_new_connect_forgets_the_drivers_of_the_old_file(with_drivers, script):
    with_drivers(wire.driver_record(b"old", 0, 23))
    with_drivers(wire.driver_record(b"newer", 0, 23))
    assert has_driver(script, "newer")
    assert not has_driver(script, "old")


def test_a_fragment_at_the_end_is_no_driver(with_drivers, script):
    with_drivers(LINE1_ALONE + b"y\0\1\0\2")
    assert has_driver(script, "line1")
    assert not has_driver(script, "y")


def test_a_name_cut_by_the_end_is_no_driver(with_drivers, script):
    with_drivers(LINE1_ALONE + b"yyyyyy")
    assert has_driver(script, "line1")
    assert not has_driver(script, "yyyyyy")


def test_an_id_beyond_the_number_of_drivers_works(session, plant):
    session("wide = db.GetDriver('wide')\nwide.ConnectTag('t0003')")
    plant.set_value("wide", "t0003", 99)
    session.wait_until("wide.GetTagValue('t0003') == 99")


def test_the_highest_id_works(with_drivers, script, plant):
    with_drivers(wire.driver_record(b"top", 0xFFFF, 1))
    assert has_driver(script, "top")


def test_more_tags_than_told_are_out_of_reach(with_drivers, script):
    with_drivers(wire.driver_record(b"line1", 0, 21))
    assert has_driver(script, "line1")
    assert script("d.GetTagValue('a')") == 1     # id 20
    assert script("d.GetTagValue('b')") is None  # id 21


def test_a_chinese_driver_name_is_found(session):
    session("boiler = db.GetDriver('锅炉')")
    assert session("boiler.GetTagValue('x')") == 11


def test_a_driver_without_tags_is_one(session):
    assert session("type(db.GetDriver('none')).__name__") == "Driver"
