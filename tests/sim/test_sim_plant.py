"""Plant files and signals: what is accepted, what is complained about, how values move."""

import json
import os

import pytest

from conftest import small_plant
from vzsim import PlantError, plantfile, signals, values
from vzsim.plant import Plant

try:
    import tomllib
except ImportError:
    tomllib = None

needs_toml = pytest.mark.skipif(tomllib is None, reason="this interpreter reads no TOML")


def with_tag(**tag):
    """A plant of one driver with one tag."""
    return {"name": "p", "drivers": [{"name": "D", "tags": [dict({"name": "t"}, **tag)]}]}


def run(plant):
    return Plant(plantfile.load(plant))


# ---- the packaged plant ----------------------------------------------------------------------

@needs_toml
def test_both_forms_of_the_boiler_house_are_equal():
    folder = os.path.dirname(plantfile.packaged("boiler_house"))
    with open(os.path.join(folder, "boiler_house.toml"), "rb") as stream:
        toml = tomllib.load(stream)
    with open(os.path.join(folder, "boiler_house.json"), "rb") as stream:
        assert json.loads(stream.read().decode("utf-8")) == toml


def test_the_boiler_house_shows_every_type_and_is_found_by_name():
    layout = plantfile.load("boiler_house")
    tags = [tag for driver in layout.drivers for tag in driver.tags]
    assert len(layout.drivers) == 3 and 55 <= len(tags) <= 70
    assert {tag.vt for tag in tags} == set(plantfile.values.TYPE_CODES.values())
    assert [(user.name, user.rights) for user in layout.users] == [("operator", 8), ("guest", 0)]


def test_the_boiler_house_raises_and_clears_alarms_within_its_first_minute():
    plant = Plant(plantfile.load("boiler_house"))
    kinds = [event.frame_type for _ in range(120) for event in plant.step(0.5)[1]]
    assert 1 in kinds and 3 in kinds


def test_a_higher_pressure_setpoint_of_the_boiler_house_raises_its_alarm():
    plant = Plant(plantfile.load("boiler_house"))
    plant.write(plant.find("Boiler", "Pressure setpoint"), 12.0)
    for _ in range(100):
        plant.step(1.0)
    assert plant.find("Boiler", "Steam pressure").value == pytest.approx(12.0, abs=0.1)
    assert [a for a in plant.active_alarms() if a.limit == 10.5]


# ---- reading ---------------------------------------------------------------------------------

@needs_toml
def test_a_toml_file_is_read(tmp_path):
    path = tmp_path / "p.toml"
    path.write_text('name = "p"\n[[drivers]]\nname = "锅炉"\n', encoding="utf-8")
    layout = plantfile.load(str(path))
    assert layout.drivers[0].name == "锅炉" and layout.file_time == int(path.stat().st_mtime)


def test_a_json_file_is_read(tmp_path):
    path = tmp_path / "p.json"
    path.write_text('{"name": "p", "tick": 2}', encoding="utf-8")
    assert plantfile.load(str(path)).tick == 2.0


@pytest.mark.parametrize("name, text", [
    ("p.json", "{"), ("p.json", "[]"), ("p.json", "\udcff"), ("none.json", None)])
def test_an_unreadable_file_is_one_line_that_names_it(tmp_path, name, text):
    path = tmp_path / name
    if text is not None:
        path.write_bytes(text.encode("utf-8", "surrogateescape"))
    with pytest.raises(PlantError) as error:
        plantfile.load(str(path))
    assert str(error.value).startswith(str(path)) and "\n" not in str(error.value)


@pytest.mark.parametrize("plant, text", [
    ({}, "name: is missing"),
    ({"name": 5}, "name: must be str"),
    ({"name": ""}, "name: must not be empty"),
    ({"name": "p", "colour": 1}, "colour: unknown key"),
    ({"name": "p", "tick": -1}, "tick: must not be negative"),
    ({"name": "p", "tick": True}, "tick: must be"),
    ({"name": "p", "project": "\u0e01"}, "project: 'ก' has no GB2312 form"),
    ({"name": "p", "users": [{"name": "u", "rights": -1}]}, "users[0].rights: must lie between"),
    ({"name": "p", "drivers": [{"name": "D", "id": 65535}]}, "drivers[0].id: must lie between"),
    ({"name": "p", "drivers": [{"name": "D"}, {"name": "D"}]}, "drivers[1].name: 'D' is there"),
    ({"name": "p", "drivers": [{"name": "D"}, {"name": "E", "id": 0}]}, "drivers[1].id: 0 is"),
    ({"name": "p", "drivers": ["D"]}, "drivers[0]: must be a table"),
    ({"name": "p", "files": {"folder": "/does/not/exist"}}, "files.folder:"),
    ({"name": "p", "alarm_texts": [1]}, "alarm_texts[0]: must be str"),
    (with_tag(), "drivers[0].tags[0].type: is missing"),
    (with_tag(type="i5"), "drivers[0].tags[0].type: must be one of"),
    (with_tag(type="i2", value=32768), "drivers[0].tags[0].value: 32768 is out of range"),
    (with_tag(type="i2", value="x"), "drivers[0].tags[0].value:"),
    (with_tag(type="cy", value=1), "drivers[0].tags[0].value: a tag of this type"),
    (with_tag(type="str", value="x" * 4094), "drivers[0].tags[0].value: longer than 4096"),
    (with_tag(type="i2", name="a,b"), "drivers[0].tags[0].name: a comma"),
    (with_tag(type="i2", name="n" * 765), "drivers[0].tags[0].name: longer than 764"),
    (with_tag(type="i2", aliases=["b", 1]), "drivers[0].tags[0].aliases[1]: must be str"),
    (with_tag(type="i2", aliases=["a,b"]), "drivers[0].tags[0].aliases: a comma"),
    (with_tag(type="i2", aliases=["n" * 765]), "drivers[0].tags[0].aliases[0]: longer than 764"),
    (with_tag(type="i2", aliases=["b", "b"]), "drivers[0].tags[0].aliases: 'b' is there twice"),
    (with_tag(type="i2", signal={"kind": "jump"}), "drivers[0].tags[0].signal: kind must be"),
    (with_tag(type="i2", signal={"kind": "sine"}), "drivers[0].tags[0].signal: missing"),
    (with_tag(type="i2", signal={"kind": "counter", "every": 0}), "every must be greater"),
    (with_tag(type="i2", signal={"kind": "counter", "start": "a"}), "start must be a number"),
    (with_tag(type="i2", signal={"kind": "text", "texts": ["a"]}), "drivers[0].tags[0].signal:"),
    (with_tag(type="i2", signal={"kind": "counter"}, value=1), "signal: excludes value"),
    (with_tag(type="i2", follows="x", tau=1), "follows: no tag 'x'"),
    (with_tag(type="i2", follows="x", tau=0), "tau: must be greater than 0"),
    (with_tag(type="i2", alarms=[{"text": "a", "group": "b"}]), "alarms[0]: needs exactly one"),
    (with_tag(type="i2", name="n" * 256, alarms=[{"high": 1, "text": "a", "group": "b"}]),
     "alarms: the tag's name is longer than 255 bytes"),
    (with_tag(type="str", alarms=[{"high": 1, "text": "a", "group": "b"}]), "holds no number"),
])
def test_a_wrong_plant_is_told_by_key(plant, text):
    with pytest.raises(PlantError) as error:
        run(plant)
    assert text in str(error.value)


def test_limits_of_names_and_values_are_still_accepted():
    run(with_tag(type="str", value="x" * 4093))
    run(with_tag(type="i2", value=32767))
    run(with_tag(type="i2", name="n" * 764))
    run(with_tag(type="i2", name="n" * 255, alarms=[{"high": 1, "text": "a", "group": "b"}]))
    run({"name": "p", "drivers": [{"name": "D", "id": 65534}]})


def test_the_limits_of_every_number_hold_on_both_sides():
    def alarm(level):
        return with_tag(type="i2", alarms=[
            {"high": 1, "text": "t" * 255, "group": "g", "level": level}])

    def refused(plant):
        with pytest.raises(PlantError):
            run(plant)
        return True
    for level in (0, 255):
        run(alarm(level))
    assert refused(alarm(-1)) and refused(alarm(256))
    for number in (0, 2 ** 32 - 1):
        run({"name": "p", "file_time": number, "users": [{"name": "u", "rights": number}]})
    for number in (-1, 2 ** 32):
        assert refused({"name": "p", "file_time": number})
        assert refused({"name": "p", "users": [{"name": "u", "rights": number}]})
    run({"name": "p", "alarm_texts": ["t" * 255]})
    assert refused({"name": "p", "alarm_texts": ["t" * 256]})
    run({"name": "p", "center": {"X": "127.0.0.1:65535"}})
    assert refused({"name": "p", "center": {"X": "127.0.0.1:65536"}})
    assert run({"name": "p", "tick": 0}).layout.tick == 0


def test_a_tag_is_found_by_each_of_its_names():
    plant = run(with_tag(type="i2", name="Temp", aliases=["TEMP", "温度"]))
    for name in ("Temp", "TEMP", "温度"):
        assert plant.lookup(0, name.encode("gb2312")) == (0, values.TYPE_CODES["i2"])
        assert plant.find(0, name).name == "Temp"
    assert plant.lookup(0, b"temp") == (0xFFFF, 0)


def test_a_driver_has_at_most_65535_tags():
    def tags(count):
        return [{"name": "t%d" % i, "type": "null"} for i in range(count)]
    plantfile.load({"name": "p", "drivers": [{"name": "D", "tags": tags(65535)}]})
    with pytest.raises(PlantError):
        plantfile.load({"name": "p", "drivers": [{"name": "D", "tags": tags(65536)}]})


def test_project_and_title_may_be_empty_and_default_to_the_name():
    layout = plantfile.load({"name": "p"})
    assert (layout.project, layout.title) == ("p", "p")
    layout = plantfile.load({"name": "p", "project": "", "title": ""})
    assert (layout.project, layout.title) == ("", "")


def test_an_alarm_has_level_1_unless_told():
    plant = run(with_tag(type="i2", value=2, alarms=[{"high": 1, "text": "t", "group": "g"}]))
    assert [alarm.level for alarm in plant.active_alarms()] == [1]


def test_a_low_alarm_clears_at_its_limit_plus_hysteresis():
    plant = run(with_tag(type="r8", value=20.0, alarms=[
        {"low": 10, "text": "t", "group": "g", "hysteresis": 2}]))
    tag = plant.find("D", "t")
    found = [len(plant.write(tag, value)[1]) for value in (10, 9.9, 11.9, 12, 10)]
    assert found == [0, 1, 0, 1, 0]


def test_a_text_is_taken_up_to_what_fits_into_a_chunk():
    plant = run(with_tag(type="str"))
    tag = plant.find("D", "t")
    plant.write(tag, "x" * 4093)
    with pytest.raises(ValueError):
        plant.write(tag, "y" * 4094)
    assert tag.value == "x" * 4093


def test_fixed_alarm_texts_keep_their_places():
    plant = run(small_plant(alarm_texts=["zero", "too low"]))
    assert plant.text_list == ["zero", "too low", "too high", "锅炉"]


# ---- signals ---------------------------------------------------------------------------------

def values_of(description, seconds, steps):
    signal = signals.build(description)
    return [signal.step(seconds * (i + 1), seconds) for i in range(steps)]


def test_a_constant_stays():
    assert values_of({"kind": "constant", "value": 3}, 1.0, 3) == [3, 3, 3]


def test_a_ramp_rises_and_starts_again():
    assert values_of({"kind": "ramp", "low": 0, "high": 10, "period": 4}, 1.0, 5) == [
        2.5, 5.0, 7.5, 0.0, 2.5]


def test_a_ramp_may_begin_anywhere_and_fall():
    assert values_of({"kind": "ramp", "low": 20, "high": 10, "period": 4}, 1.0, 4) == [
        17.5, 15.0, 12.5, 20.0]
    signal = signals.build({"kind": "ramp", "low": 20, "high": 10, "period": 4})
    signal.write(15.0)
    assert signal.step(1.0, 1.0) == pytest.approx(12.5)


def test_a_sine_begins_at_its_phase():
    sine = {"kind": "sine", "mean": 1, "amplitude": 2, "period": 4, "phase": 1.5707963267948966}
    assert signals.build(sine).value == pytest.approx(3.0)
    assert values_of(sine, 1.0, 2) == pytest.approx([1.0, -1.0])


def test_a_walk_may_start_at_its_limits_and_not_beyond():
    walk = {"kind": "walk", "stride": 1, "low": 0, "high": 10}
    for start in (0, 10):
        signals.build(dict(walk, start=start))
    for start in (-1, 11):
        with pytest.raises(signals.SignalError):
            signals.build(dict(walk, start=start))


def test_one_step_of_a_walk_is_at_most_its_stride():
    first = values_of({"kind": "walk", "start": 500, "stride": 3, "low": 0, "high": 1000}, 1.0, 99)
    steps = [b - a for a, b in zip([500] + first, first)]
    assert max(map(abs, steps)) <= 3 and min(steps) < -1 and max(steps) > 1


def test_a_counter_shows_the_value_it_wraps_at():
    assert values_of({"kind": "counter", "start": 5, "wrap": 7}, 1.0, 4) == [6, 7, 5, 6]


def test_a_follower_starts_at_its_goal_and_its_noise_stays_within_bounds():
    signal = signals.Follow(lambda: 10.0, tau=1.0, gain=2.0, offset=1.0, noise=0.5, seed=3)
    assert signal.value == 21.0
    found = [signal.step(float(i), 1.0) for i in range(200)]
    assert min(found) >= 20.5 and max(found) <= 21.5 and max(found) - min(found) > 0.8


def test_a_written_ramp_goes_on_from_there():
    signal = signals.build({"kind": "ramp", "low": 0, "high": 10, "period": 4})
    signal.step(1.0, 1.0)
    signal.write(5.0)
    assert signal.step(2.0, 1.0) == pytest.approx(7.5)


def test_a_sine_swings_around_its_mean():
    found = values_of({"kind": "sine", "mean": 1, "amplitude": 2, "period": 4}, 1.0, 4)
    assert found == pytest.approx([3.0, 1.0, -1.0, 1.0])


def test_a_walk_repeats_with_its_seed_and_keeps_its_limits():
    walk = {"kind": "walk", "start": 5, "stride": 3, "low": 0, "high": 10, "seed": 1}
    first = values_of(walk, 1.0, 200)
    assert first == values_of(walk, 1.0, 200) != values_of(dict(walk, seed=2), 1.0, 200)
    assert min(first) >= 0 and max(first) <= 10 and len(set(first)) > 100


def test_a_counter_counts_and_wraps():
    counter = {"kind": "counter", "start": 1, "step": 2, "every": 0.5, "wrap": 6}
    assert values_of(counter, 0.5, 4) == [3, 5, 1, 3]
    assert values_of(counter, 1.0, 2) == [5, 3]


def test_a_written_counter_counts_on_from_there():
    signal = signals.build({"kind": "counter"})
    signal.write(100)
    assert signal.step(1.0, 1.0) == 101


def test_texts_follow_one_another():
    assert values_of({"kind": "text", "texts": ["a", "b"], "every": 2}, 1.0, 4) == [
        "a", "b", "b", "a"]


def test_follow_approaches_its_goal_and_starts_anew_when_written():
    signal = signals.Follow(lambda: 10.0, tau=1.0, start=0.0)
    assert signal.step(1.0, 1.0) == pytest.approx(6.321, abs=0.001)
    signal.write(0.0)
    assert signal.step(2.0, 1.0) == pytest.approx(6.321, abs=0.001)
    assert signal.step(60.0, 58.0) == pytest.approx(10.0)


def test_gain_and_offset_shape_what_is_followed():
    signal = signals.Follow(lambda: 10.0, tau=0.001, gain=2.0, offset=1.0, start=0.0)
    assert signal.step(1.0, 1.0) == pytest.approx(21.0)


def test_a_signal_beyond_its_type_stays_at_the_types_limit():
    plant = run(with_tag(type="ui1", signal={"kind": "counter", "start": 250, "step": 4}))
    plant.step(1.0)
    plant.step(1.0)
    plant.step(1.0)
    assert plant.find("D", "t").value == 255


def test_a_held_tag_no_longer_follows_its_signal():
    plant = run(with_tag(type="i4", signal={"kind": "counter"}))
    tag = plant.find("D", "t")
    plant.write(tag, 7, hold=True)
    plant.step(5.0)
    assert tag.value == 7
    plant = run(with_tag(type="i4", signal={"kind": "counter"}))
    tag = plant.find("D", "t")
    plant.write(tag, 7)
    plant.step(1.0)
    assert tag.value == 8


def test_only_what_changed_is_told_by_a_step():
    plant = run(with_tag(type="i4", signal={"kind": "counter", "every": 2.0}))
    assert [len(plant.step(1.0)[0]) for _ in range(4)] == [0, 1, 0, 1]
