"""The same for asyncio: the loop runs on whatever the server does, and cancelling goes through."""

import pytest

import wire
from plants import LINE1
from script import rounds

RUN = """
aio = vzclient.aio
ticks = 0

async def tick():
    global ticks
    while True:
        ticks += 1
        await asyncio.sleep(0.005)

def start(**options):
    return aio.connect(host, "operator", "password", timeout=LIMIT, backoff=(0.01, 0.05), **options)

async def soon(awaitable):
    "What it gives, in time"
    return await asyncio.wait_for(awaitable, LIMIT)

async def aerror_of(awaitable):
    "The name of the error that it raises, in time"
    try:
        result = await soon(awaitable)
    except BaseException as error:
        return type(error).__name__
    raise AssertionError("no error but %r" % (result,))

async def atake(watch, count):
    changes = [await watch.get(LIMIT) for _ in range(count)]
    return [(change.tag, change.value) for change in changes]

async def auntil(condition):
    deadline = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < deadline, "not in time"
        await asyncio.sleep(0.002)
"""
BODY = """
async def main():
    async with start(%s) as plant:
        line = plant["line1"]
%s
result = asyncio.run(main())
"""


@pytest.fixture
def aio(client):
    """Runs the body of a coroutine that is connected; gives what it returns."""
    client(RUN)

    def call(body, options=""):
        client(BODY % (options, "".join("        %s\n" % row for row in body.splitlines())))
        return client("result")
    return call


# ---- everything once ----------------------------------------------------------------------------

def test_a_plant_tells_what_it_is(aio):
    assert aio("return (plant.host == host, plant.project, plant.rights.name, plant.state.name,"
               " sorted(plant.drivers), line.name, line.tag_count, plant.stats.reconnects)") == (
        True, "Line1", "WRITE", "live", ["line1", "none", "wide", "锅炉"], "line1", 23, 0)


def test_awaiting_a_connect_gives_the_plant(client):
    client(RUN + "async def main():\n"
           "    plant = await start()\n"
           "    value = await plant['line1'].read('a')\n"
           "    await plant.close()\n"
           "    return value, plant.state.name")
    assert client("asyncio.run(main())") == ({"a": 1}, "closed")


def test_reading(aio):
    assert aio("return await line.read('a', 'x', 'b', missing='skip')") == {"a": 1, "b": 2}


def test_writing(aio):
    assert aio("await line.write({'a': 5})\nreturn await line.read('a')") == {"a": 5}


def test_what_is_written_is_what_was_there_when_it_was_asked_for(aio, sim):
    sim.fault("H", "delay", seconds=0.2)
    assert aio("values = {'a': 5}\n"
               "slow = asyncio.ensure_future(line.read('b'))\n"
               "writing = asyncio.ensure_future(line.write(values))\n"
               "await asyncio.sleep(0.05)\n"
               "values['a'] = 6\n"
               "await slow, await writing\n"
               "return await line.read('a')") == {"a": 5}


def test_watching(aio):
    assert aio("seen = []\n"
               "async for change in line.watch('a', 'b'):\n"
               "    seen.append((change.tag, change.value))\n"
               "    if len(seen) == 2: await line.write({'a': 5})\n"
               "    if len(seen) == 3: return seen") == [("a", 1), ("b", 2), ("a", 5)]


def test_a_watch_is_a_context_manager(aio):
    assert aio("async with line.watch('a') as watch:\n"
               "    first = await atake(watch, 1)\n"
               "return first, await aerror_of(watch.get()), plant._plant._routes.watched()") == (
        [("a", 1)], "ConnectionLost", {})


def test_alarms(aio, sim):
    sim.raise_alarm(level=7)
    assert aio("async for alarm in plant.alarms(): return alarm.level") == 7


def test_changes_call_functions_and_coroutines_in_the_loop(aio):
    assert aio("seen = []\nhere = threading.current_thread()\n"
               "async def later(change):\n"
               "    await asyncio.sleep(0)\n"
               "    seen.append((change.tag, threading.current_thread() is here))\n"
               "def now(change): seen.append((change.tag, threading.current_thread() is here))\n"
               "subscriptions = await line.on_change(now, 'a'), await line.on_change(later, 'b')\n"
               "await auntil(lambda: len(seen) == 2)\n"
               "return sorted(seen)") == [("a", True), ("b", True)]


def test_alarms_call_functions(aio, sim):
    sim.raise_alarm(level=7)
    assert aio("seen = []\n"
               "subscription = await plant.on_alarm(seen.append, existing=True)\n"
               "await auntil(lambda: seen)\n"
               "return seen[0].level") == 7


def test_an_error_of_a_callback_is_counted_and_told_and_delivery_goes_on(aio):
    assert aio("told, seen = [], []\n"
               "def fail(change):\n"
               "    seen.append(change.value)\n"
               "    raise ValueError('mine')\n"
               "subscription = await line.on_change(fail, 'a',"
               " on_error=lambda error: told.append(repr(error)))\n"
               "await line.write({'a': 5})\n"
               "await auntil(lambda: len(seen) == 2)\n"
               "return seen, told, subscription.active, plant.stats.callback_errors") == (
        [1, 5], ["ValueError('mine')"] * 2, True, 2)


def test_an_error_of_a_callback_goes_to_the_plants_on_error_when_it_has_none(client):
    client(RUN)
    client("told = []\n"
           "async def main():\n"
           "    async with start(on_error=told.append) as plant:\n"
           "        await plant['line1'].on_change(lambda change: 1 / 0, 'a')\n"
           "        await auntil(lambda: told)")
    client("asyncio.run(main())")
    assert client("type(told[0]).__name__") == "ZeroDivisionError"


def test_a_connection_that_is_not_tried_anew_ends_subscriptions_with_an_error(client, sim):
    client(RUN)
    client("told = []\n"
           "async def main():\n"
           "    async with start(reconnect=False) as plant:\n"
           "        s = await plant['line1'].on_change(note([]), 'a', on_error=told.append)\n"
           "        await aerror_of(plant['line1'].read('nothing'))  # once that is watched\n"
           "        await auntil(lambda: told)\n"
           "        return s.active")
    client.start("asyncio.run(main())")
    sim.wait_requests(2, codes="L")
    sim.drop_clients()
    assert client.result() is False
    assert client("type(told[0]).__name__") == "ConnectionLost"


def test_a_subscription_calls_a_function(aio):
    assert aio("return await aerror_of(line.on_change(None, 'a'))") == "TypeError"


@pytest.mark.parametrize("use", ["watch.get(LIMIT)", "watch.__anext__()"])
def test_a_watch_that_was_closed_before_it_was_used_stays_closed(aio, sim, use):
    assert aio("watch = line.watch('a')\n"
               "await watch.close()\n"
               "return await aerror_of(%s)" % use) == "ConnectionLost"
    assert sim.requests(codes="b") == []


def test_a_watch_that_is_closed_while_it_starts_is_closed(aio, sim):
    sim.fault("b", "delay", seconds=0.2)
    assert aio("watch = line.watch('a')\n"
               "waiting = asyncio.ensure_future(watch.get(LIMIT))\n"
               "await asyncio.sleep(0.05)\n"
               "await watch.close()\n"
               "return await aerror_of(waiting)") == "ConnectionLost"


def test_a_cancelled_subscription_calls_no_more(aio):
    assert aio("seen, others = [], []\n"
               "subscription = await line.on_change(note(seen), 'a')\n"
               "second = await line.on_change(note(others), 'a')\n"
               "await auntil(lambda: seen and others)\n"
               "await subscription.cancel()\n"
               "await line.write({'a': 5})\n"
               "await auntil(lambda: len(others) == 2)\n"
               "return seen, subscription.active, second.active") == ([("a", 1)], False, True)


def test_cancelled_within_its_call_a_subscription_calls_no_more(aio):
    assert aio("seen = []\n"
               "async def once(change):\n"
               "    seen.append(change.tag)\n"
               "    await subscription_of[0].cancel()\n"
               "subscription_of = []\n"
               "subscription_of.append(await line.on_change(once, 'a', 'b'))\n"
               "await auntil(lambda: not subscription_of[0].active)\n"
               "return seen") == ["a"]


@pytest.mark.parametrize("call,kind", [
    ("line.read('x')", "UnknownTag"), ("line.write({'i2': 40000})", "ValueRejected"),
    ("line.watch('x').get()", "UnknownTag"), ("line.watch().get()", "ValueError"),
    ("line.on_change(print, 'x')", "UnknownTag"),
    ("start().__class__('127.0.0.1:1')._connect()", "ConnectError")])
def test_errors_are_those_of_the_other_interface(aio, call, kind):
    assert aio("return await aerror_of(%s)" % call) == kind


def test_a_login_that_is_refused_is_an_error(client, sim):
    client(RUN)
    sim.fault("9", "refuse")
    client("async def main(): return await aerror_of(start()._connect())")
    assert client("asyncio.run(main())") == "LoginRefused"
    client("until(lambda: (threads(), sockets()) == (1, 0))")


# ---- the loop -----------------------------------------------------------------------------------

@pytest.mark.parametrize("code,call", [
    ("L", "line.read('a')"), ("H", "line.read('a')"), ("H", "line.write({'a': 5})"),
    ("b", "line.watch('a').get()"), ("n", "plant.on_alarm(print)"), ("9", "start()._connect()")])
def test_the_loop_runs_on_while_the_server_takes_its_time(aio, sim, code, call):
    sim.fault(code, "delay", skip=code == "9", seconds=0.5)
    assert aio("ticking = asyncio.ensure_future(tick())\n"
               "value = await soon(%s)\n"
               "ticking.cancel()\n"
               "if isinstance(value, aio.AsyncPlant): await value.close()\n"
               "return ticks > 20" % call) is True


def test_the_loop_runs_on_while_a_host_is_looked_up(client):
    client(RUN + "gate = threading.Event()\n"
           "def look_up(*arguments):\n"
           "    gate.wait(LIMIT)\n"
           "    raise OSError\n"
           "socket.getaddrinfo = look_up\n"
           "async def main():\n"
           "    ticking = asyncio.ensure_future(tick())\n"
           "    host = aio.connect('nobody', timeout=LIMIT)\n"
           "    connecting = asyncio.ensure_future(host._connect())\n"
           "    await auntil(lambda: ticks > 20)\n"
           "    gate.set()\n"
           "    ticking.cancel()\n"
           "    return await aerror_of(connecting)")
    assert client("asyncio.run(main())") == "ConnectError"


def test_the_loop_runs_on_while_nothing_changes(aio):
    assert aio("watch = line.watch('a')\n"
               "await atake(watch, 1)\n"
               "waiting = asyncio.ensure_future(watch.get())\n"
               "ticking = asyncio.ensure_future(tick())\n"
               "await auntil(lambda: ticks > 20)\n"
               "ticking.cancel()\n"
               "await line.write({'a': 5})\n"
               "return (await soon(waiting)).value") == 5


def test_many_tasks_share_a_plant(aio):
    assert aio("wide = plant['wide']\n"
               "async def use(number):\n"
               "    names = ['t%04d' % i for i in range(number, 1200, 50)]\n"
               "    assert await wide.read(*names) == {n: int(n[1:]) for n in names}\n"
               "    assert await atake(wide.watch(names[0]), 1) == [(names[0], number)]\n"
               "return await asyncio.gather(*[use(number) for number in range(50)])") == [None] * 50


def test_several_tasks_may_wait_for_one_watch(aio):
    assert aio("watch = line.watch('a')\n"
               "waiting = [asyncio.ensure_future(watch.get(LIMIT)) for _ in range(3)]\n"
               "await auntil(lambda: any(task.done() for task in waiting))\n"
               "for value in (5, 6): await line.write({'a': value})\n"
               "return sorted([(await soon(task)).value for task in waiting]), watch.dropped") == (
        [1, 5, 6], 0)


def test_one_of_several_waiting_tasks_may_go(aio):
    assert aio("watch = line.watch('a')\n"
               "await atake(watch, 1)\n"
               "waiting = [asyncio.ensure_future(watch.get(LIMIT)) for _ in range(3)]\n"
               "await asyncio.sleep(0.02)\n"
               "waiting[0].cancel()\n"
               "await asyncio.sleep(0.02)\n"
               "for value in (5, 6): await line.write({'a': value})\n"
               "return sorted([(await soon(task)).value for task in waiting[1:]])") == [5, 6]


def test_what_one_task_takes_too_many_of_is_given_to_those_that_wait(aio):
    assert aio("watch = line.watch('a')\n"
               "await atake(watch, 1)\n"
               "waiting = asyncio.ensure_future(watch.get(LIMIT))\n"
               "await asyncio.sleep(0.02)\n"
               "for value in (5, 6): plant._plant['line1']['a'] = value\n"
               "until(lambda: len(watch._watch._feed) == 2)\n"  # the loop stands still meanwhile
               "return sorted([(await watch.get()).value, (await soon(waiting)).value])") == [5, 6]


# ---- time limits --------------------------------------------------------------------------------

def test_a_request_that_is_not_answered_ends_in_time(aio, sim):
    sim.fault("H", "silent")
    assert aio("return await aerror_of(line.read('a', timeout=0.2))") == "VzTimeoutError"


def test_a_request_that_waits_for_another_ends_in_time_and_harms_nothing(aio, sim):
    sim.fault("H", "delay", seconds=0.6)
    assert aio("slow = asyncio.ensure_future(line.read('a'))\n"
               "await asyncio.sleep(0.05)\n"
               "kind = await aerror_of(line.read('b', timeout=0.1))\n"
               "return kind, await slow, plant.stats.reconnects") == (
        "VzTimeoutError", {"a": 1}, 0)


def test_connecting_ends_in_time(client, sim):
    client(RUN)
    sim.fault("9", "silent")
    client("async def main():\n"
           "    return await aerror_of(aio.connect(host, timeout=0.3)._connect())")
    assert client("asyncio.run(main())") == "VzTimeoutError"
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_a_watch_waits_no_longer_than_it_is_told(aio):
    assert aio("watch = line.watch('a', timeout=0.1)\n"
               "seen = []\n"
               "async def take():\n"
               "    async for change in watch: seen.append(change.value)\n"
               "kinds = await aerror_of(take()), await aerror_of(watch.get(0.1))\n"
               "await line.write({'a': 5})\n"
               "return kinds, seen, await atake(watch, 1)") == (
        ("VzTimeoutError",) * 2, [1], [("a", 5)])


# ---- cancelling ---------------------------------------------------------------------------------

def test_cancelling_a_request_goes_through_at_once(aio, sim):
    sim.fault("H", "delay", seconds=1)
    assert aio("reading = asyncio.ensure_future(line.read('a'))\n"
               "await asyncio.sleep(0.1)\n"
               "reading.cancel()\n"
               "return await aerror_of(reading)") == "CancelledError"


def test_the_answer_of_a_cancelled_request_is_given_to_nobody(aio, sim):
    sim.fault("H", "delay", seconds=0.3)
    assert aio("reading = asyncio.ensure_future(line.read('a'))\n"
               "await asyncio.sleep(0.1)\n"
               "reading.cancel()\n"
               "return await line.read('b'), await line.read('c'), plant.stats.reconnects") == (
        {"b": 2}, {"c": 3}, 0)


def test_a_request_that_is_cancelled_before_its_turn_is_not_made(aio, sim):
    sim.fault("H", "delay", seconds=0.3)
    aio("slow = asyncio.ensure_future(line.read('a'))\n"
        "await asyncio.sleep(0.05)\n"
        "writing = asyncio.ensure_future(line.write({'b': 5}))\n"
        "await asyncio.sleep(0.05)\n"
        "writing.cancel()\n"
        "await slow\n"
        "await line.read('c')")
    assert sim.requests(codes="g") == []


def test_cancelling_goes_through_at_any_moment(aio):
    assert aio("went = 0\n"
               "for number in range(%d):\n"
               "    name = 'abc'[number %% 3]\n"
               "    reading = asyncio.ensure_future(line.read(name))\n"
               "    for _ in range(number %% 7): await asyncio.sleep(0)\n"
               "    await asyncio.sleep(number %% 11 / 20000)\n"
               "    if reading.cancel():\n"
               "        assert await aerror_of(reading) == 'CancelledError'\n"
               "        went += 1\n"
               "    else:\n"
               "        assert reading.result() == {name: 'abc'.index(name) + 1}\n"
               "    assert await line.read('b') == {'b': 2}\n"
               "return went > 0, plant.stats.reconnects" % rounds(200)) == (True, 0)


def test_cancelling_a_watch_that_waits_loses_no_event(aio):
    assert aio("watch = line.watch('a')\n"
               "await atake(watch, 1)\n"
               "seen, written = [], 0\n"
               "for number in range(%d):\n"
               "    waiting = asyncio.ensure_future(watch.get())\n"
               "    for _ in range(number %% 4): await asyncio.sleep(0)\n"
               "    written += 1\n"
               "    await line.write({'a': 100 + written})\n"
               "    await asyncio.sleep(number %% 11 / 20000)\n"
               "    if not waiting.cancel(): seen.append(waiting.result().value)\n"
               "    else: assert await aerror_of(waiting) == 'CancelledError'\n"
               "while len(seen) < written: seen.append((await watch.get(LIMIT)).value)\n"
               "return seen == list(range(101, 101 + written))" % rounds(200)) is True


def test_cancelling_a_connect_leaves_nothing(client, sim):
    client(RUN + "async def main(pause):\n"
           "    connecting = asyncio.ensure_future(start()._connect())\n"
           "    await asyncio.sleep(pause)\n"
           "    if not connecting.cancel(): return await connecting.result().close()\n"
           "    assert await aerror_of(connecting) == 'CancelledError'")
    for number in range(rounds(30)):
        client("asyncio.run(main(%r))" % (number * 0.0015))
    sim.wait_clients(0)
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_a_connect_that_is_cancelled_when_it_has_just_succeeded_leaves_nothing(client, sim):
    client(RUN + "made = threading.Event()\n"
           "real = vzclient.plant.connect\n"
           "def connect_(*arguments, **options):\n"
           "    plant = real(*arguments, **options)\n"
           "    made.set()\n"
           "    return plant\n"
           "vzclient.plant.connect = connect_\n"
           "async def main():\n"
           "    connecting = asyncio.ensure_future(start()._connect())\n"
           "    await asyncio.sleep(0)\n"
           "    made.wait(LIMIT)\n"       # the loop stands still meanwhile
           "    time.sleep(0.1)\n"
           "    connecting.cancel()\n"
           "    return await aerror_of(connecting)")
    assert client("asyncio.run(main())") == "CancelledError"
    sim.wait_clients(0)
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_cancelling_the_start_of_a_watch_leaves_no_watch(aio, sim):
    sim.fault("b", "delay", seconds=0.3)
    assert aio("watch = line.watch('a')\n"
               "starting = asyncio.ensure_future(watch.get())\n"
               "await asyncio.sleep(0.1)\n"
               "starting.cancel()\n"
               "kind = await aerror_of(starting)\n"
               "await line.read('b')\n"  # the subscription is through
               "await auntil(lambda: gc.collect() >= 0 and plant._plant._routes.watched() == {})\n"
               "return kind") == "CancelledError"


# ---- the end ------------------------------------------------------------------------------------

def test_close_ends_what_waits(aio, sim):
    sim.fault("H", "silent")
    assert aio("watch = line.watch('b')\n"
               "await atake(watch, 1)\n"
               "async def every(): return [change async for change in watch]\n"
               "waiting = asyncio.ensure_future(watch.get())\n"
               "iterating = asyncio.ensure_future(every())\n"
               "reading = asyncio.ensure_future(line.read('a'))\n"
               "await asyncio.sleep(0.1)\n"
               "await plant.close()\n"
               "return (await aerror_of(waiting), await soon(iterating), await aerror_of(reading),"
               " await aerror_of(line.read('a')), await aerror_of(line.watch('a').get()))") == (
        "ConnectionLost", [], "ConnectionLost", "ConnectionLost", "ConnectionLost")


def test_a_close_that_is_cancelled_is_done_all_the_same(client, sim):
    client(RUN + "async def main():\n"
           "    plant = await start()\n"
           "    closing = asyncio.ensure_future(plant.close())\n"
           "    await asyncio.sleep(0)\n"
           "    closing.cancel()\n"
           "    kind = await aerror_of(closing)\n"
           "    await plant.close()\n"
           "    return kind")
    assert client("asyncio.run(main())") == "CancelledError"
    sim.wait_clients(0)
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_closing_twice_does_nothing(aio):
    assert aio("await plant.close()\nawait plant.close()\nreturn plant.state.name") == "closed"


def test_nothing_is_left_after_close(aio, client):
    body = ("subscription = await line.on_change(print, 'empty')\n"
            "watch = line.watch('a')\n"
            "await atake(watch, 1)")
    body = body.replace("print", "lambda change: None")
    aio(body)
    client("gc.collect()\nbefore = descriptors()")
    for _ in range(rounds(10)):
        aio(body)
    client("gc.collect()\nuntil(lambda: (descriptors(), threads()) == (before, 1))")


def test_without_reconnect_a_watch_ends_with_the_connection(aio, sim):
    sim.fault("H", "close")
    assert aio("watch = line.watch('b')\n"
               "await atake(watch, 1)\n"
               "waiting = asyncio.ensure_future(watch.get())\n"
               "kind = await aerror_of(line.read('a'))\n"
               "return kind, await aerror_of(waiting)", "reconnect=False") == (
        "ConnectionLost", "ConnectionLost")


def test_a_watch_goes_on_when_the_connection_is_regained(aio, sim):
    sim.fault("H", "close")
    assert aio("watch = line.watch('b')\n"
               "await atake(watch, 1)\n"
               "await aerror_of(line.read('a'))\n"
               "change = await watch.get(LIMIT)\n"
               "return change.value, change.resynced") == (2, True)


def test_requests_are_the_same_bytes(aio, sent):
    aio("await line.read('c', 'a')\nawait line.write({'a': 5})\nawait line.read('a')")
    assert sent("LHg") == [
        wire.lookup(0, "c", "a"), wire.read(0, LINE1["c"], LINE1["a"]),
        wire.write((0, LINE1["a"], wire.i4(5))), wire.read(0, LINE1["a"])]
