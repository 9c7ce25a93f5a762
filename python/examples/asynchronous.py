#!/usr/bin/python3
"""Several questions at once, and a report that is followed: asynchronous.py NAME..."""

import asyncio
import sys

import kvxmom
from kvxmom import aio


async def main(names: list[str]) -> None:
    async with aio.Client() as client:
        answers = await asyncio.gather(*(client.query("Links", name).all() for name in names))
        for rows in answers:
            print(rows)
        async with client.follow("Links", "*") as changes:
            async for change in changes:
                print(change.kind, dict(change.row))
                if change.kind != "row":
                    break
                if change.row["name"] == names[0]:
                    report = {"name": names[0], "state": "maintenance"}
                    await client.send(client.in_domain("LINK.STATE"), report)


asyncio.run(main(sys.argv[1:]))
