"""The trace of a real session tells all of its messages, each on its channel."""

import re

from script import run

LOGIN = """
import sys, vzclient
with vzclient.connect(sys.argv[1], "operator", "password", trace=sys.stdout):
    pass
"""


def test_the_login_is_told_in_words_on_both_channels(plant):
    done = run(LOGIN, "%s:%d" % (plant.host, plant.port))
    assert (done.returncode, done.stderr) == (0, "")
    lines = [re.sub(r"^\S+ (.*?)( \d+)?$", r"\1", line) for line in done.stdout.splitlines()]
    assert [line.partition(",")[0] for line in lines] == [
        "request + opened", "notify + opened",
        "request > login hello", "request < login hello accepted",
        "notify > notification hello", 'notify < login record: project "Line1"',
        'request > user login "operator"', "request < user login accepted",
        'request > file "RecData/drvinfo.dat"', "request < file answer: Exist:Yes",
        "request < file body"]
