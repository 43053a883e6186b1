"""The module's face: names, types, arguments and the errors they raise."""

import pytest

from script import run

CORE_METHODS = {
    "Connect": "Connect DB server",
    "GetDriver": "Get DB Driver",
    "SetRtAlarmNotify": "Set Realtime Alarm Notify",
}
DRIVER_METHODS = {
    "SetTagNotify": "Tag Value Change Notify Function",
    "ConnectTag": "Connect Tag",
    "GetTagValue": "Get Tag Value",
    "SetTagValue": "Set Tag Value",
}
POINTER = "__import__('struct').calcsize('P')"


def docs_of_methods(script, kind):
    return script("{n: getattr(VzDBAccess.%s, n).__doc__ for n in dir(VzDBAccess.%s)"
                  " if not n.startswith('_')}" % (kind, kind))


def test_the_module_calls_itself_vzdb(script):
    assert script("VzDBAccess.__name__") == "vzdb"


def test_the_module_has_a_doc(script):
    assert script("VzDBAccess.__doc__") == "vzdb access."


def test_the_module_exposes_its_two_types_alone(script):
    assert script("sorted(n for n in vars(VzDBAccess) if not n.startswith('__'))") == [
        "DBCore", "Driver"]


def test_the_import_leaves_datetime_alone():
    done = run("import sys, VzDBAccess\n"
               "print('datetime' in sys.modules, '_datetime' in sys.modules)")
    assert done.stdout.split() == ["False", "False"]


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_a_type_carries_its_module_and_name(script, kind):
    assert script("repr(VzDBAccess.%s)" % kind) == "<class 'VzDBAccess.%s'>" % kind


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_a_type_has_a_doc(script, kind):
    assert script("VzDBAccess.%s.__doc__" % kind) == kind + " objects"


def test_a_core_has_three_methods(script):
    assert docs_of_methods(script, "DBCore") == CORE_METHODS


def test_a_driver_has_four_methods(script):
    assert docs_of_methods(script, "Driver") == DRIVER_METHODS


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_an_object_is_its_header_and_one_pointer(script, kind):
    script("size = object.__basicsize__ + " + POINTER)
    assert script("VzDBAccess.%s.__basicsize__ == size" % kind)
    assert script("VzDBAccess.%s.__itemsize__" % kind) == 0
    assert script("sys.getsizeof(VzDBAccess.%s()) == size" % kind)
    assert script("size == 3 * " + POINTER)  # 12 bytes on the board


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_a_type_cannot_be_subclassed(raised, kind):
    error, text = raised("class Own(VzDBAccess.%s): pass" % kind)
    assert error == "TypeError"
    assert "not an acceptable base type" in text


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_objects_are_not_tracked_by_the_collector(script, kind):
    assert script("gc.is_tracked(VzDBAccess.%s())" % kind) is False


@pytest.mark.parametrize("kind", ["DBCore", "Driver"])
def test_making_an_object_ignores_all_arguments(script, kind):
    assert script("type(VzDBAccess.%s('x', k=1)).__name__" % kind) == kind


def test_a_core_made_with_arguments_is_unconnected(raised):
    assert raised("VzDBAccess.DBCore('x', k=1).GetDriver('line1')")[0] == "SystemError"


# ---- arguments ----------------------------------------------------------------------------------

@pytest.mark.parametrize("call, error, text", [
    ("db.Connect()", "TypeError", "takes exactly 3 arguments (0 given)"),
    ("db.Connect('h', 'u')", "TypeError", "takes exactly 3 arguments (2 given)"),
    ("db.Connect('h', 'u', 'p', 1)", "TypeError", "takes exactly 3 arguments (4 given)"),
    ("db.Connect(1, 'u', 'p')", "TypeError", "argument 1 must be str, not int"),
    ("db.Connect('h', None, 'p')", "TypeError", "argument 2 must be str, not None"),
    ("db.Connect('h', 'u', b'p')", "TypeError", "argument 3 must be str, not bytes"),
    ("db.Connect('h\\0', 'u', 'p')", "ValueError", "embedded null character"),
    ("db.Connect('\\ud800', 'u', 'p')", "UnicodeEncodeError", "surrogates not allowed"),
    ("db.Connect(host='h', user='u', password='p')", "TypeError", "no keyword arguments"),
    ("db.GetDriver()", "TypeError", "takes exactly 1 argument (0 given)"),
    ("db.GetDriver(0)", "TypeError", "argument 1 must be str, not int"),
    ("db.GetDriver('line1\\0')", "ValueError", "embedded null character"),
    ("db.SetRtAlarmNotify()", "TypeError", "set_callback() takes exactly 2 arguments (0 given)"),
    ("db.SetRtAlarmNotify(print)", "TypeError",
     "set_callback() takes exactly 2 arguments (1 given)"),
    ("db.SetRtAlarmNotify(print, '1')", "TypeError", "str"),
    ("db.SetRtAlarmNotify(print, 1.0)", "TypeError", ""),
    # The text differs by the width of a long.
    ("db.SetRtAlarmNotify(print, 1 << 31)", "OverflowError", ""),
    ("db.SetRtAlarmNotify(5, 0)", "TypeError", "parameter must be callable"),
    ("drv.SetTagNotify()", "TypeError", "set_callback() takes exactly 1 argument (0 given)"),
    ("drv.SetTagNotify(print, 1)", "TypeError",
     "set_callback() takes exactly 1 argument (2 given)"),
    ("drv.SetTagNotify(5)", "TypeError", "parameter must be callable"),
    ("drv.SetTagNotify(None)", "TypeError", "parameter must be callable"),
    ("drv.ConnectTag()", "TypeError", "takes exactly 1 argument (0 given)"),
    ("drv.ConnectTag(['a'])", "TypeError", "argument 1 must be str, not list"),
    ("drv.GetTagValue('a', 'b')", "TypeError", "takes exactly 1 argument (2 given)"),
    ("drv.GetTagValue(1)", "TypeError", "argument 1 must be str, not int"),
    ("drv.GetTagValue('a\\0b')", "ValueError", "embedded null character"),
    ("drv.SetTagValue('a')", "TypeError", "takes exactly 2 arguments (1 given)"),
    ("drv.SetTagValue(1, 1)", "TypeError", "argument 1 must be str, not int"),
    ("drv.SetTagValue(tag='a', value=1)", "TypeError", "no keyword arguments"),
])
def test_wrong_arguments_raise_and_send_nothing(session, raised, sent, call, error, text):
    kind, message = raised(call)
    assert kind == error
    assert text in message
    assert sent() == []


# ---- drivers ------------------------------------------------------------------------------------

@pytest.mark.parametrize("call", [
    "SetTagNotify(print)", "ConnectTag('a')", "GetTagValue('a')", "SetTagValue('a', 1)"])
def test_a_driver_made_directly_raises(raised, call):
    assert raised("VzDBAccess.Driver()." + call)[0] == "RuntimeError"


def test_get_driver_before_connect_is_a_system_error(raised):
    kind, text = raised("VzDBAccess.DBCore().GetDriver('line1')")
    assert kind == "SystemError"
    assert "without setting an" in text


def test_get_driver_with_an_unknown_name_is_a_system_error(session, raised):
    assert raised("db.GetDriver('Line1')")[0] == "SystemError"


def test_get_driver_sends_nothing(session, sent):
    session("boiler = db.GetDriver('锅炉')")
    assert sent() == []


def test_each_get_driver_makes_a_new_object(session):
    assert session("db.GetDriver('line1') is db.GetDriver('line1')") is False
    assert session("type(drv) is VzDBAccess.Driver")


def test_two_objects_of_one_name_share_the_driver(session, sent):
    session("drv.ConnectTag('a')")
    sent()
    assert session("db.GetDriver('line1').GetTagValue('a')") == 1
    assert sent() == []


def test_a_callback_set_through_one_object_serves_the_other(session, plant):
    session("calls = []\n"
            "note = lambda *change: calls.append(change)\n"
            "drv.SetTagNotify(note)\n"
            "other = db.GetDriver('line1')\n"
            "other.SetTagNotify(print)\n"
            "other.ConnectTag('a')")
    plant.set_value("line1", "a", 5)
    session.wait_until("calls")
    assert session("calls") == [("line1", "a", 5)]


def test_dropping_a_driver_object_leaves_the_driver(session, sent):
    session("drv.ConnectTag('a')\ndel drv")
    sent()
    assert session("db.GetDriver('line1').GetTagValue('a')") == 1
    assert sent() == []


# ---- callbacks ----------------------------------------------------------------------------------

def test_the_first_tag_callback_stays(session, plant):
    session("calls = []\n"
            "first = lambda *change: calls.append('first')\n"
            "second = lambda *change: calls.append('second')\n"
            "drv.SetTagNotify(first)")
    assert session("drv.SetTagNotify(second)") is None
    session("drv.ConnectTag('a')")
    plant.set_value("line1", "a", 5)
    session.wait_until("calls")
    assert session("calls") == ["first"]


def test_a_tag_callback_is_borrowed(session):
    session("note = lambda *change: None\nbefore = sys.getrefcount(note)\ndrv.SetTagNotify(note)")
    assert session("sys.getrefcount(note) == before")


def test_an_alarm_callback_is_borrowed(session):
    session("note = lambda *alarm: None\nbefore = sys.getrefcount(note)\n"
            "db.SetRtAlarmNotify(note, 0)")
    assert session("sys.getrefcount(note) == before")


def test_an_alarm_subscription_returns_none(session, sent):
    assert session("db.SetRtAlarmNotify(print, 0)") is None
    assert sent()[0] == b"n"


def test_an_alarm_subscription_that_fails_returns_none(session, plant):
    plant.fault("n", "refuse")
    assert session("db.SetRtAlarmNotify(print, 0)") is None


def test_an_alarm_subscription_before_connect_returns_none(script):
    assert script("VzDBAccess.DBCore().SetRtAlarmNotify(print, 0)") is None


def test_a_second_alarm_subscription_sends_nothing(session, sent):
    session("db.SetRtAlarmNotify(print, 0)")
    sent()
    assert session("db.SetRtAlarmNotify(repr, 1)") is None
    assert sent() == []


def test_an_alarm_subscription_lasts_across_sessions(session, sent, host):
    session("db.SetRtAlarmNotify(print, 0)")
    session("db.Connect(%r, 'operator', 'password')" % host)
    sent()
    session("db.SetRtAlarmNotify(repr, 0)")
    assert sent() == []


# ---- the interpreter lock -----------------------------------------------------------------------

@pytest.mark.parametrize("call, request_code", [
    ("drv.GetTagValue, 'a'", "H"), ("drv.ConnectTag, 'a'", "b"), ("drv.SetTagValue, 'a', 1", "L"),
    ("db.Connect, host, 'operator', 'password'", "9")])
def test_a_method_keeps_the_interpreter_lock_while_it_waits(
        session, plant, host, call, request_code):
    session("import functools, operator\n"
            "host = %r\n"
            "ticks, going = [], [1]\n"
            "def tick():\n"
            "    while going: ticks.append(1)\n"
            "todo = [functools.partial(f, *a) for f, *a in ((len, ticks), (%s), (len, ticks))]\n"
            "every = operator.methodcaller('__call__')\n"
            "ticker = threading.Thread(target=tick)\n"
            "ticker.start()" % (host, call))
    plant.fault(request_code, "delay", seconds=0.1)
    session("found = list(map(every, todo))\ngoing.clear()\nticker.join()")
    assert session("found[2] - found[0]") == 0
