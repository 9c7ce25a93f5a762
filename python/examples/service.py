#!/usr/bin/python3
"""A service with beats and a group: it answers, hears reports, numbers and tells its changes."""

from typing import Iterator

import kvxmom

links = {"core-1": "up", "edge-1": "down"}

with kvxmom.Service("Links", group="links") as service:
    service.changes.set_key(["name"])

    @service.on_query
    def answer(question: kvxmom.Question) -> Iterator[kvxmom.Row]:
        stamp, now = service.changes.read(lambda: dict(links))
        question.as_of(stamp)
        if question.text != "*" and question.text not in now:
            raise kvxmom.Refused(f"no link is named {question.text}", position=1)
        for name, state in now.items():
            if question.text in ("*", name):
                yield {"name": name, "state": state}

    @service.on_message("LINK.STATE")
    def report(message: kvxmom.Message) -> None:
        name, state = str(message["name"]), str(message["state"])
        if not service.is_active:
            links[name] = state
        elif links.get(name) != state:
            change = kvxmom.Change("changed", {"name": name, "state": state})
            service.changes.commit(change, lambda: links.update({name: state}))

    @service.on_role
    def role(active: bool) -> None:
        print("active" if active else "standing by", flush=True)

    service.run()
