"""The cache among other users: trees they own, links they planted, disks that are full.

Each script has a /tmp of its own, a small file system in a mount namespace, so that the top of the
tree can be anything without touching that of others.
"""

import os
import subprocess

import pytest

import wire
from plants import SMALL_PLANT
from script import Script

TIME = 1600000000
FILE = "RecData/drvinfo.dat"
TOP = "/tmp/vzbrowser"
STRANGER = 65533  # a user of nobody else
NOBODY = 65534
SMALL = 256 * 1024
OWN_TMP = ["unshare", "-m", "sh", "-c",
           "mount -t tmpfs -o size=%d,nr_inodes=200,mode=1777 tmpfs /tmp && exec \"$@\"" % SMALL,
           "sh"]

LINE1_ALONE = wire.driver_record(b"line1", 0, 23)


def long_driver_file(size):
    """A driver file of that size about, that begins with line1."""
    return LINE1_ALONE + b"".join(wire.driver_record(b"%0250d" % i, 0, 0)
                                  for i in range(size // 255))


@pytest.fixture(scope="session")
def own_tmp():
    """The command that gives a child its own /tmp."""
    if os.geteuid() != 0:
        pytest.skip("needs root: other users, and a /tmp of its own")
    if subprocess.run(OWN_TMP + ["true"], stderr=subprocess.DEVNULL).returncode != 0:
        pytest.skip("this machine lets nobody mount a /tmp of its own")
    return OWN_TMP


@pytest.fixture
def script(own_tmp):
    """A script as root with its own /tmp."""
    with Script(prefix=own_tmp) as child:
        child("""
def become(uid):
    os.setgroups([])
    os.setgid(uid)
    os.setuid(uid)

def make(path, owner=0, mode=0o700):
    '''Folders down to path; the last one belongs to owner.'''
    os.makedirs(path, exist_ok=True)
    os.chown(path, owner, owner)
    os.chmod(path, mode)

def tell(top):
    '''Everything below a folder: kind and mode, owner, time and content of each name.'''
    told = {}
    for folder, folders, files in os.walk(top):
        for name in [''] + folders + files:
            path = os.path.join(folder, name)
            s = os.lstat(path)
            data = open(path, 'rb').read() if s.st_mode & 0o170000 == 0o100000 else None
            told[path] = (s.st_mode, s.st_uid, s.st_mtime_ns, data)
    return told
""")
        yield child


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
def project(host):
    """The project's folder in the script's own cache."""
    return os.path.join(TOP, host.replace(":", "_"), "Line1")


@pytest.fixture
def reads(script):
    """Whether the session has the drivers."""
    return lambda: script("db.GetDriver('line1').GetTagValue('a')") == 1


@pytest.fixture
def has_no_drivers(raised):
    return lambda: raised("db.GetDriver('line1')")[0] == "SystemError"


def places(project):
    """The tree's folders, from the top down."""
    return [TOP, os.path.dirname(project), project, project + "/RecData",
            project + "/RecData/Event", project + "/Media"]


def refusal(path, owner):
    return ("VzDBAccess: cache folder %s belongs to user %d\n" % (path, owner)).encode()


# ---- other users --------------------------------------------------------------------------------

@pytest.mark.parametrize("place", range(6))
def test_root_refuses_a_tree_with_a_folder_of_another_user(connect, script, project, place):
    path = places(project)[place]
    script("make(%r, %d)" % (path, STRANGER))
    script("before = tell(%r)" % path)
    assert connect() == -2
    assert script("tell(%r) == before" % path)
    assert script.end() == 0
    assert script.stderr == refusal(path, STRANGER)
    script.expect_stderr = b""


@pytest.mark.parametrize("place", range(3))
def test_a_user_refuses_a_tree_with_a_folder_of_another_user(connect, script, project, place):
    path = places(project)[place]
    for above in places(project)[:place]:
        script("make(%r, %d)" % (above, NOBODY))
    script("make(%r, %d, 0o777)" % (path, STRANGER))
    script("become(%d)" % NOBODY)
    assert connect() == -2
    assert script.end() == 0
    assert script.stderr == refusal(path, STRANGER)
    script.expect_stderr = b""


def test_a_refused_connect_may_succeed_later(connect, script, reads):
    script("make(%r, %d)" % (TOP, STRANGER))
    assert connect() == -2
    script("os.rmdir(%r)" % TOP)
    assert connect() == 0
    assert reads()
    script.expect_stderr = refusal(TOP, STRANGER)


def test_a_user_has_a_cache_of_his_own(connect, script, project, reads):
    script("become(%d)" % NOBODY)
    assert connect() == 0
    assert reads()
    assert script("os.stat(%r).st_uid" % (project + "/" + FILE)) == NOBODY


def test_roots_tree_gives_a_user_no_drivers_and_no_failure(connect, script, has_no_drivers):
    assert connect() == 0
    script("become(%d)" % NOBODY)
    assert connect() == 0
    assert has_no_drivers()


def test_a_top_that_root_opened_to_all_serves_each_user(connect, script, project, reads):
    script("make(%r, 0, 0o1777)" % TOP)
    script("os.setegid(%d)\nos.seteuid(%d)" % (NOBODY, NOBODY))
    assert connect() == 0
    assert reads()
    # The server's folder is that user's now.
    script("os.seteuid(0)\nos.setegid(0)")
    assert connect() == -2
    script("become(%d)" % STRANGER)
    assert connect() == -2
    script.expect_stderr = 2 * refusal(os.path.dirname(project), NOBODY)


def test_a_user_may_pass_through_a_top_that_he_cannot_list(connect, script, project, reads):
    script("make(%r, 0, 0o711)" % TOP)
    script("make(%r, %d)" % (os.path.dirname(project), NOBODY))
    script("become(%d)" % NOBODY)
    assert connect() == 0
    assert reads()


# ---- planted names ------------------------------------------------------------------------------

@pytest.fixture
def victim(script):
    """A folder outside of the cache that must stay as it is; gives its path."""
    script("make('/tmp/victim/RecData')\nmake('/tmp/victim/Line1/RecData')\nbefore = None")
    for name in ("f", FILE, FILE + ".gz", "RecData/textlist", "Line1/" + FILE):
        path = "/tmp/victim/" + name
        script("open(%r, 'w').write('theirs')\nos.utime(%r, (5, 5))\nos.chmod(%r, 0o644)"
               % (path, path, path))
    script("os.chmod('/tmp/victim', 0o755)\nbefore = tell('/tmp/victim')")
    yield "/tmp/victim"
    assert script("tell('/tmp/victim') == before")


@pytest.mark.parametrize("place", range(4))
def test_a_link_in_place_of_a_folder_leads_nowhere(connect, script, project, victim,
                                                   has_no_drivers, place):
    path = places(project)[place]
    script("make(%r)\nos.symlink(%r, %r)" % (os.path.dirname(path), victim, path))
    assert connect() == 0
    assert has_no_drivers()


@pytest.mark.parametrize("place", range(4))
def test_a_link_that_another_user_planted_is_refused(connect, script, project, victim, place):
    path = places(project)[place]
    script("make(%r)\nos.symlink(%r, %r)" % (os.path.dirname(path), victim, path))
    script("os.lchown(%r, %d, %d)" % (path, STRANGER, STRANGER))
    assert connect() == -2
    script.expect_stderr = refusal(path, STRANGER)


PLANT = {
    "link": "os.symlink({victim!r} + '/f', {path!r})",
    "dangling link": "os.symlink({victim!r} + '/new', {path!r})",
    "hard link": "os.link({victim!r} + '/f', {path!r})",
    "pipe": "os.mkfifo({path!r})",
    "pipe with a reader": "os.mkfifo({path!r})\n_ = os.open({path!r}, os.O_RDWR)",
    "folder": "os.mkdir({path!r})",
    "device": "os.mknod({path!r}, 0o020600, os.makedev(1, 5))",
    "socket": "import socket\n_ = socket.socket(socket.AF_UNIX)\n_.bind({path!r})",
    "file of another user": "open({path!r}, 'w').close()\nos.chown({path!r}, 65533, 65533)",
}


@pytest.mark.parametrize("answer", ["body", "gz", "missing"])
@pytest.mark.parametrize("kind", sorted(PLANT))
def test_what_is_planted_in_place_of_the_file_is_not_used(
        connect, script, plant, project, victim, has_no_drivers, kind, answer):
    script("make(%r)" % (project + "/RecData"))
    for name in (FILE, FILE + ".gz"):
        script(PLANT[kind].format(victim=victim, path=project + "/" + name))
    if answer == "gz":
        plant.set_file(FILE, LINE1_ALONE, TIME, gz=True)
    if answer == "missing":
        plant.remove_file(FILE)
    assert connect() == 0
    assert has_no_drivers()
    assert script("os.path.lexists(%r)" % (project + "/" + FILE)) is (
        answer != "missing" or kind == "folder")
    assert script("os.path.lexists(%r)" % (project + "/" + FILE + ".gz"))


def test_planted_alarm_lists_are_not_read(connect, script, plant, project, victim):
    plant.set_file("RecData/textlist", b"from the server\n", TIME)
    assert connect() == 0
    for name in ("textlist", "taglist"):
        script("os.symlink('/tmp/victim/f', %r)" % (project + "/RecData/" + name))
    script("alarms = []\ndef note(*args):\n    alarms.append(args)\n"
           "db.SetRtAlarmNotify(note, 0)")
    plant.raise_alarm(active=False, everyone=True)
    script.wait_until("alarms")
    assert script("alarms[0][2], alarms[0][4]") == ("???", "???")


def test_a_file_that_cannot_be_marked_is_not_written(connect, script, project, has_no_drivers):
    for path in places(project)[:4]:
        script("make(%r, %d)" % (path, NOBODY))
    path = project + "/" + FILE
    script("open(%r, 'w').write('roots')\nos.chmod(%r, 0o666)\nbecome(%d)" % (path, path, NOBODY))
    assert connect() == 0
    assert has_no_drivers()
    assert script("open(%r).read()" % path) == "roots"


def test_an_empty_alarm_list_without_a_time_is_asked_for_again(connect, script, sent, project):
    assert connect() == 0
    path = project + "/RecData/textlist"
    script("open(%r, 'w').close()\nos.utime(%r, (0, 0))" % (path, path))
    sent()
    script("def note(*args):\n    pass\ndb.SetRtAlarmNotify(note, 0)")
    assert sent("4")[0] == b"4RecData/textlist\r\nLastTime:0\r\nSize:0\r\nHello:Yes\r\n\r\n"


# ---- disks --------------------------------------------------------------------------------------

FILL = """
with open('/tmp/filler', 'wb', 0) as stream:
    try:
        while True:
            stream.write(b'x' * 4096)
    except OSError:
        pass
"""


@pytest.mark.parametrize("room", [0, 4096, 40960])
def test_a_full_disk_fails_the_connect_and_keeps_no_half(connect, script, plant, project, reads,
                                                         has_no_drivers, room):
    data = long_driver_file(100000)
    assert connect() == 0
    assert reads()
    script(FILL)
    script("os.truncate('/tmp/filler', os.stat('/tmp/filler').st_size - %d)" % room)
    plant.set_file(FILE, data, TIME)
    plant.set_login(dif_time=TIME, dif_size=len(data))
    assert connect() == -2
    assert has_no_drivers()
    plant.fault("4", "reply", data=b"UseLast:Yes\r\n\r\n")  # a server that errs, or lies
    assert connect() == -2
    assert has_no_drivers()
    script("os.unlink('/tmp/filler')")
    assert connect() == 0
    assert reads()
    assert script("os.stat(%r).st_size" % (project + "/" + FILE)) == len(data)


def test_a_disk_without_room_for_names_gives_no_drivers(connect, script, has_no_drivers, reads):
    script("os.mkdir('/tmp/names')\nmade = 0\n"
           "try:\n"
           "    while True:\n"
           "        open('/tmp/names/%d' % made, 'w').close()\n"
           "        made += 1\n"
           "except OSError:\n"
           "    pass")
    assert connect() == 0
    assert has_no_drivers()
    script("for i in range(made):\n    os.unlink('/tmp/names/%d' % i)")
    assert connect() == 0
    assert reads()


def make_read_only(script):
    script("import ctypes\n"
           "libc = ctypes.CDLL(None, use_errno=True)\n"
           "assert libc.mount(b'tmpfs', b'/tmp', None, 33, None) == 0, ctypes.get_errno()")


def test_a_read_only_cache_without_the_file_gives_no_drivers(connect, script, has_no_drivers):
    make_read_only(script)
    assert connect() == 0
    assert has_no_drivers()


def test_a_read_only_cache_with_the_file_serves(connect, script, reads):
    assert connect() == 0
    make_read_only(script)
    assert connect() == 0
    assert reads()


def test_a_read_only_cache_with_an_older_file_gives_no_drivers(connect, script, plant,
                                                               has_no_drivers):
    assert connect() == 0
    make_read_only(script)
    plant.set_file(FILE, LINE1_ALONE, TIME)
    plant.set_login(dif_time=TIME, dif_size=len(LINE1_ALONE))
    assert connect() == 0
    assert has_no_drivers()
