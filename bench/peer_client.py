"""The client of another system, in a process of its own so that its threads are its own too.

    peer_client.py redis|tango PORT

Reads lines "JOB SIZE COUNT", does the job so often, and answers each with the seconds of CPU that
this process took. "deliver" answers "ready" first, when it can be told of changes.
"""
import sys
import time


class Redis:
    """redis-py, which decodes replies with hiredis where that is installed."""

    def __init__(self, port):
        import redis
        self._redis = redis.Redis("127.0.0.1", port)
        self._names = ["t%06d" % tag for tag in range(1000)]
        self._redis.mset({name: 0.5 * tag if tag % 2 else 100000 + tag
                          for tag, name in enumerate(self._names)})
        self._pubsub = self._redis.pubsub(ignore_subscribe_messages=True)
        self._count = 0
        self._pubsub.subscribe(t000000=self._on_change)
        self._pubsub.get_message(timeout=1)

    def read(self, size):
        if size == 1:
            return self._redis.get, (self._names[0],)
        return self._redis.mget, (self._names[:size],)

    def write(self, size):
        if size == 1:
            return self._redis.set, (self._names[0], 5)
        return self._redis.mset, (dict.fromkeys(self._names[:size], 5),)

    def _on_change(self, message):
        self._count += 1

    def restart(self):
        self._count = 0

    def deliver(self, count):
        while self._count < count:
            self._pubsub.get_message(timeout=1)


class Tango:
    """PyTango, with a device that needs no database."""

    def __init__(self, port):
        import tango
        self._device = tango.DeviceProxy("tango://127.0.0.1:%d/bench/1/1#dbase=no" % port)
        self._names = ["t%06d" % tag for tag in range(1000)]
        self._count = 0
        self._change = tango.EventType.CHANGE_EVENT

    def read(self, size):
        if size == 1:
            return lambda name: self._device.read_attribute(name).value, (self._names[0],)
        return self._read_many, (self._names[:size],)

    def _read_many(self, names):
        return [attribute.value for attribute in self._device.read_attributes(names)]

    def write(self, size):
        if size == 1:
            return self._device.write_attribute, (self._names[0], 5)
        integers = self._names[::2]  # the others cannot be written
        return self._device.write_attributes, ([(name, 5) for name in integers[:size]],)

    def _on_change(self, event):
        if not event.err:
            self._count += 1

    def restart(self):
        self._device.subscribe_event(self._names[0], self._change, self._on_change)
        self._count = 0  # there was one with the value as it is

    def deliver(self, count):
        self._device.command_inout_asynch("Push", count, True)
        while self._count < count:
            time.sleep(0.001)


def say(text):
    print(text, flush=True)


def main():
    client = {"redis": Redis, "tango": Tango}[sys.argv[1]](int(sys.argv[2]))
    say("ready")
    for line in sys.stdin:
        job, size, count = line.split()
        count = int(count)
        if job == "deliver":
            client.restart()
            start = time.process_time()
            say("ready")
            client.deliver(count)
        else:
            function, arguments = getattr(client, job)(int(size))
            start = time.process_time()
            for _ in range(count):
                function(*arguments)
        say(time.process_time() - start)


if __name__ == "__main__":
    main()
