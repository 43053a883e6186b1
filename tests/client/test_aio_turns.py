"""A coroutine that follows changes leaves the other tasks their turns."""

FOLLOW = """
import vzclient.aio

async def count_turns(turns):
    while True:
        turns.append(1)
        await asyncio.sleep(0)

async def follow(count):
    "How often another task had its turn while changes that were already there were taken"
    turns, taken = [], 0
    async with vzclient.aio.connect(host, "operator", "password", timeout=LIMIT) as plant:
        async with plant["line1"].watch("a") as changes:
            until(lambda: changes._watch.waiting == count)
            other = asyncio.ensure_future(count_turns(turns))
            async for change in changes:
                taken += 1
                if taken == count:
                    break
            other.cancel()
    return len(turns)
"""


def test_other_tasks_have_their_turns_however_many_changes_wait(client, sim):
    client(FOLLOW)
    client.start("asyncio.run(follow(5001))")
    sim.wait_requests(1, codes="b")
    sim.burst("line1", "a", range(5000))
    assert client.result() >= 5  # with the present value 5001 changes
