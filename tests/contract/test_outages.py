"""A server that goes away, comes back with other drivers, or says nothing for a while."""

import copy

import pytest

from plants import SMALL_PLANT


def test_a_script_that_connects_again_finds_the_drivers_of_now(plant, session):
    """The removed tag moves all ids by one; the driver table has the size it had."""
    changed = copy.deepcopy(SMALL_PLANT)
    tags = changed["drivers"][0]["tags"]
    tags[0:2] = [tags[1]]
    tags.append({"name": "new", "type": "i4", "value": 9})
    assert session("drv.GetTagValue('i2')") == -2
    with plant.outage():
        plant.replace(changed)
        assert session("db.Connect(%r, 'operator', 'password')" % plant.address) == -2
    session.connect(plant)
    session("drv = db.GetDriver('line1')")
    assert session("drv.GetTagValue('i2')") is None
    assert session("drv.GetTagValue('i4')") == -40000
    assert session("drv.GetTagValue('new')") == 9
    assert session("drv.SetTagValue('a', 5)") == 0
    plant.wait_requests(1, codes="g")
    assert plant.get_value("line1", "a") == 5 and plant.get_value("line1", "b") == 2


def test_a_driver_that_grew_is_seen_although_its_table_has_the_size_it_had(plant, session):
    changed = copy.deepcopy(SMALL_PLANT)
    changed["drivers"][0]["tags"].append({"name": "new", "type": "i4", "value": 9})
    with plant.outage():
        plant.replace(changed)
    session.connect(plant)
    session("drv = db.GetDriver('line1')")
    assert session("drv.GetTagValue('new')") == 9


def test_rights_that_were_taken_away_are_gone_after_an_outage(plant, session):
    changed = copy.deepcopy(SMALL_PLANT)
    changed["users"][0]["rights"] = 0
    with plant.outage("reset"):
        plant.replace(changed)
    session.connect(plant)
    assert session("db.GetDriver('line1').SetTagValue('i4', 5)") == -1


@pytest.mark.parametrize("tag, value", [("i4", -40000), ("str", "valve")])
def test_a_read_waits_for_the_end_of_a_silence(plant, session, tag, value):
    assert session("drv.GetTagValue(%r)" % tag) == value
    plant.requests(clear=True)
    with plant.silence():
        session.start("drv.GetTagValue(%r)" % tag)
        plant.wait_requests(1, codes="H")
    assert session.result() == value


def test_a_burst_of_whole_frames_is_told_completely(plant, session):
    session("seen = []\ndef on_change(driver, tag, value): seen.append(value)\n"
            "drv.SetTagNotify(on_change)\ndrv.ConnectTag('i4')")
    assert plant.burst("line1", "i4", range(20000)) == 1
    session.wait_until("len(seen) >= 20000")
    assert session("seen == list(range(20000))")
