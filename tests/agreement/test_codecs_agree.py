"""The library's codecs and the simulator's come to the same on a hundred thousand random messages.

Neither was made from the other: both were written from the tables of bytes. The library's side is
the program ``codecs``, which answers line by line. VZ_CODECS names it, VZ_SEED sets the seed that a
failure prints.
"""

import math
import os
import random
import struct
import subprocess

import pytest

from vzsim import files, frames, requests, scrambler, values

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CODECS = os.environ.get(
    "VZ_CODECS", os.path.join(ROOT, "build", "release", "tests", "agreement", "codecs"))
SEED = int(os.environ.get("VZ_SEED", random.SystemRandom().randrange(2 ** 32)))

FRACTIONS = {values.R4: "<f", values.R8: "<d", values.DATE: "<d"}
PUSHED = sorted(set(values.INT_RANGES) | set(FRACTIONS) | {values.STR, values.BOOL})
NO_PAYLOAD = [values.EMPTY, values.NULL, values.CY, values.UI8, 9, 10, 12, 15, 24, 8204, 0x4003]
ODD_NUMBERS = [0.0, -0.0, math.inf, -math.inf, math.nan, 5e-324, 2.0 ** -1074 * 3, 1e-310, 1e300,
               1.7976931348623157e308, 2.0 ** -149, 1.1754942106924411e-38, 3.4028234663852886e38]
ODD_DATES = [25569.0, 25568.999988, -657434.0, 2958465.999988425, 1.0, -0.5, 60.0, 1e10]
ALPHABET = "aZ0 ,;\t\x7f锅炉水位温度、。αЯあ①─é🔥"

dice = random.Random()


@pytest.fixture(autouse=True)
def seeded(request):
    """Each test throws the same dice for a seed, whichever tests run."""
    print("VZ_SEED=%d" % SEED)
    dice.seed("%d %s" % (SEED, request.node.name))


def ask(lines):
    """The program's answers, one to each line."""
    assert os.path.exists(CODECS), "not built: ninja -C build/release tests/agreement/codecs"
    done = subprocess.run([CODECS], input="".join(line + "\n" for line in lines),
                          stdout=subprocess.PIPE, encoding="ascii", timeout=300)
    assert done.returncode == 0
    answers = done.stdout.splitlines()
    assert len(answers) == len(lines)
    return answers


def agree(lines, wanted):
    """Every answer is the one wanted."""
    for line, answer, want in zip(lines, ask(lines), wanted):
        assert answer.rstrip() == want.rstrip(), "seed %d: %s" % (SEED, line[:2000])


def hexed(data):
    return data.hex() or "-"


# ---- random things ---------------------------------------------------------------------------

def random_bytes(longest):
    return bytes(dice.getrandbits(8) for _ in range(dice.randint(0, longest)))


def random_text():
    """Bytes of a text: UTF-8, GB2312, or anything but zero."""
    kind = dice.randrange(4)
    if kind == 0:
        return bytes(dice.randrange(1, 256) for _ in range(dice.randint(0, 40)))
    text = "".join(dice.choice(ALPHABET) for _ in range(dice.randint(0, 30)))
    if kind == 1:
        return text.encode("gb2312", "ignore")
    return text.encode("utf-8") * (50 if dice.random() < 0.01 else 1)


def random_number(vt):
    """A number that a fraction of type vt holds exactly."""
    form = FRACTIONS[vt]
    kind = dice.randrange(4)
    if kind == 0:
        number = dice.choice(ODD_NUMBERS + ODD_DATES)
    elif kind == 1:
        number = dice.uniform(-1e6, 1e6)
    else:
        number = struct.unpack(form, random_exactly(struct.calcsize(form)))[0]
    return values.coerce(vt, number, clamp=True) if math.isfinite(number) else number


def random_exactly(size):
    return bytes(dice.getrandbits(8) for _ in range(size))


def random_whole(vt):
    low, high = values.INT_RANGES[vt]
    return dice.choice([low, high, 0, low + 1, high - 1, dice.randint(low, high),
                        dice.randint(low, high), max(low, min(high, dice.randint(-200, 200)))])


def random_value(vt):
    if vt in FRACTIONS:
        return random_number(vt)
    if vt in values.INT_RANGES:
        return random_whole(vt)
    if vt == values.BOOL:
        return dice.random() < 0.5
    if vt == values.STR:
        return random_text()
    if vt == values.ARRAY:
        return [dice.choice([dice.random() < 0.5, random_whole(values.I4), random_number(values.R8),
                             random_text()]) for _ in range(dice.randint(0, 6))]
    return None


def random_typed():
    vt = dice.choice(PUSHED * 4 + NO_PAYLOAD + [values.ARRAY])
    return vt, random_value(vt)


# ---- how the program writes a value -----------------------------------------------------------

def text_of(vt, value):
    if vt in FRACTIONS:
        return "nan" if math.isnan(value) else c_hex(value)
    if vt == values.STR:
        return hexed(value)
    if vt in values.INT_RANGES or vt == values.BOOL:
        return str(int(value))
    return "~"


def c_hex(number):
    """A number as printf's %a writes it where a denormal's exponent is fixed, as in glibc."""
    if math.isinf(number):
        return "inf" if number > 0 else "-inf"
    mantissa, exponent = number.hex().split("p")
    if "." in mantissa:
        mantissa = mantissa.rstrip("0").rstrip(".")
    return "%sp%s" % (mantissa, exponent)


def decoded_text(data, vt=None):
    """What the program says of a value, by the simulator's decoder."""
    try:
        got, value, used = values.decode(data, 0, vt)
    except values.Truncated:
        return "bad"
    if got == values.ARRAY:  # the library keeps the type of its elements, and counts its code alone
        return "8204 %d ~" % (0 if vt is not None else 2)
    return "%d %d %s" % (got, used, text_of(got, value))


# ---- the tests -------------------------------------------------------------------------------

def test_values_that_the_simulator_encodes():
    lines, wanted = [], []
    for _ in range(25000):
        vt, value = random_typed()
        data = values.encode(vt, value)
        if dice.random() < 0.2:
            data = data[:dice.randint(0, len(data))]
        lines.append("decode %s" % hexed(data))
        wanted.append(decoded_text(data))
        payload = values.encode_payload(vt, value) + random_bytes(3)
        lines.append("decodeas %d %s" % (vt, hexed(payload)))
        wanted.append(decoded_text(payload, vt))
    agree(lines, wanted)


def test_values_that_the_library_encodes():
    kinds = [kind for kind in (random_typed() for _ in range(15000)) if kind[0] != values.ARRAY]
    lines = ["encode %d %s" % (vt, text_of(vt, value)) for vt, value in kinds]
    for line, answer, (vt, value) in zip(lines, ask(lines), kinds):
        data = bytes.fromhex(answer)
        got, back, used = values.decode(data)
        assert (got, used) == (vt, len(data)), "seed %d: %s" % (SEED, line)
        assert text_of(vt, back) == text_of(vt, value), "seed %d: %s" % (SEED, line)
        if not (vt in FRACTIONS and math.isnan(value)):
            assert data == values.encode(vt, value), "seed %d: %s" % (SEED, line)


def test_bytes_that_are_no_value():
    lines, wanted = [], []
    for _ in range(10000):
        data = struct.pack("<H", dice.choice(PUSHED + NO_PAYLOAD)) + random_bytes(12)
        data = data[dice.choice([0, 0, 0, 1, 2]):]
        if data[:2] == b"\x00\x20":
            continue
        lines.append("decode %s" % hexed(data))
        wanted.append(decoded_text(data))
    agree(lines, wanted)


def test_packets():
    plain = [random_bytes(80) for _ in range(7500)]
    lines = ["unscramble %s" % hexed(scrambler.scramble(data)) for data in plain]
    agree(lines, [hexed(data) for data in plain])
    lines = ["scramble %s" % hexed(data) for data in plain]
    for line, answer, data in zip(lines, ask(lines), plain):
        wire = bytes.fromhex(answer.replace("-", ""))
        assert len(wire) == scrambler.scrambled_length(len(data))
        assert scrambler.unscramble(wire) == data, "seed %d: %s" % (SEED, line)
    cut = [scrambler.scramble(data)[:dice.randint(0, 90)] for data in plain[:2000]]
    agree(["unscramble %s" % hexed(wire) for wire in cut],
          ["bad" if len(wire) % 4 == 1 else hexed(scrambler.unscramble(wire)) for wire in cut])


def test_notification_frames():
    pushed, told = [], []
    for _ in range(12000):
        if dice.random() < 0.2:
            alarm = frames.Alarm(*[dice.choice([0, 1, top, dice.randint(0, top)]) for top in (
                2 ** 32 - 1, 2 ** 32 - 1, 65535, 65535, 65535, 255, 255)],
                random_number(values.R8), random_number(values.R8))
            pushed.append(frames.alarm_frame(alarm, dice.choice([1, 3])))
            told.append("alarm:" + ":".join(map(str, alarm[:7])) + ":" + ":".join(
                text_of(values.R8, number) for number in alarm[7:]))
        else:
            vt = dice.choice(PUSHED)
            value = random_value(vt)
            payload = values.encode_payload(vt, value)
            if len(payload) > frames.MAX_SEND - 4:
                continue
            pushed.append(frames.change_frame(0, vt, payload))
            told.append("%d:%d:%s" % (vt, vt, text_of(vt, value)))
    sends = frames.pack_sends(pushed)
    answers = ask(["chunk %s" % send.hex() for send in sends])
    assert b"".join(sends) == b"".join(pushed) and len(sends) > 50
    assert " ".join(answers).split() == told, "seed %d" % SEED


def test_a_frame_cut_anywhere_is_no_frame():
    lines = []
    for vt in PUSHED:
        frame = frames.change_frame(0, vt, values.encode_payload(vt, random_value(vt)))
        lines += ["chunk %s" % frame[:size].hex() for size in range(1, len(frame))]
    agree(lines, ["bad"] * len(lines))


def test_login_packets():
    lines, plain = [], []
    for _ in range(1000):
        project = bytes(dice.randrange(1, 256) for _ in range(dice.randint(1, 160)))
        title = bytes(dice.randrange(1, 256) for _ in range(dice.randint(0, 160)))
        time, size = dice.getrandbits(32), dice.getrandbits(32)
        plain.append("%s %s %d %d" % (hexed(project), hexed(title), time, size))
        lines.append("login %s" % scrambler.scramble(
            frames.receive_reply(project, title, time, size)).hex())
    guids = set()
    for line, answer, want in zip(lines, ask(lines), plain):
        said, hello, notify = answer.rsplit(" ", 2)
        assert said == want, "seed %d: %s" % (SEED, line)
        hello, notify = bytes.fromhex(hello), bytes.fromhex(notify)
        asked, size = requests.parse(hello)
        asked_notify, notify_size = requests.parse(notify)
        assert (size, notify_size) == (len(hello), len(notify))
        assert asked.guid == asked_notify.guid and asked.server is None
        assert (asked_notify.access_db, asked_notify.constant) == (1, 1)
        guids.add(asked.guid)
    assert len(guids) > 900


def random_request(verb):
    """A request for tags of driver 0: (line, names, tags, values, chunks, lookup reply)."""
    tags = dice.sample(range(40), dice.randint(1, 20))
    given = [random_typed() for _ in tags]
    names = [b"t%d" % tag for tag in tags]
    lookup = frames.lookup_reply((tag, vt) for tag, (vt, _) in zip(tags, given))
    chunks = frames.value_chunks(
        ((values.encode(vt, value), vt == values.ARRAY) for vt, value in given),
        dice.choice([512, 2048, 4096]) if all(
            len(values.encode(*typed)) <= 512 for typed in given) else 4096)
    reply = frames.read_reply(chunks) if verb == "read" else frames.subscribe_reply(chunks)
    line = "%s %s %s" % (verb, b",".join(names).decode(), (lookup + reply).hex())
    return line, names, tags, given


@pytest.mark.parametrize("verb, kind", [("read", requests.Read), ("subscribe", requests.Subscribe)])
def test_requests_and_replies(verb, kind):
    asked = [random_request(verb) for _ in range(250)]
    for (line, names, tags, given), answer in zip(asked, ask([one[0] for one in asked])):
        sent, *got = answer.split()
        assert got == ["%d:%s" % (8204 if vt == values.ARRAY else vt, text_of(vt, value))
                       for vt, value in given], "seed %d: %s" % (SEED, line)
        sent = bytes.fromhex(sent)
        size = 1 + sum(len(name) + 3 for name in names)
        assert requests.parse(sent[:size]) == (
            requests.Lookup(tuple((0, name) for name in names)), size)
        assert requests.parse(sent[size:]) == (
            kind(tuple((0, tag) for tag in tags)), len(sent) - size)


def random_object():
    """(what a script writes, its type on the wire, its value there)."""
    kind = dice.randrange(4)
    if kind == 0:
        number = random_whole(values.I4)
        return repr(number), values.I4, number
    if kind == 1:
        number = random_number(values.R8)
        text = "float(%r)" % str(number)
        return text, values.R8, number
    if kind == 2:
        truth = dice.random() < 0.5
        return repr(truth), values.BOOL, truth
    text = "".join(dice.choice(ALPHABET) for _ in range(dice.randint(0, 10)))
    return ascii(text), values.STR, text.encode("utf-8")


def test_writes():
    lines, wanted = [], []
    for _ in range(500):
        tags = dice.sample(range(40), dice.randint(2, 12))
        objects = [random_object() for _ in tags]
        lookup = frames.lookup_reply((tag, 3) for tag in tags)
        lines.append("write %s %s [%s]" % (",".join("t%d" % tag for tag in tags), lookup.hex(),
                                           ", ".join(text for text, _, _ in objects)))
        wanted.append([(0, tag, vt, text_of(vt, value))
                       for tag, (_, vt, value) in zip(tags, objects)])
    for line, answer, want in zip(lines, ask(lines), wanted):
        sent = bytes.fromhex(answer)
        sent = sent[1 + sum(len(name) + 3 for name in line.split()[1].split(",")):]
        write, size = requests.parse(sent)
        got = [(driver, tag, vt, text_of(vt, value)) for driver, tag, vt, value in write.items]
        assert (got, size) == (want, len(sent)), "seed %d: %s" % (SEED, line)


def test_driver_files():
    lines, wanted = [], []
    for _ in range(1000):
        drivers = {}
        for _ in range(dice.randint(0, 8)):
            name = bytes(dice.randrange(1, 256) for _ in range(dice.randint(0, 12)))
            drivers[name] = dice.getrandbits(16), dice.getrandbits(16)
        lines.append("drivers %s" % hexed(files.driver_info(
            (name, number, tags) for name, (number, tags) in drivers.items())))
        wanted.append(" ".join("%s:%d:%d" % ((hexed(name),) + drivers[name])
                               for name in sorted(drivers)))
    agree(lines, wanted)
