#!/usr/bin/python3
"""Prints messages with the exact types of their fields until Ctrl-C: listen.py SUBJECT [COUNT]"""

import itertools
import sys

import kvxmom


def main() -> None:
    subject = sys.argv[1]
    most = int(sys.argv[2]) if len(sys.argv) > 2 else None
    with kvxmom.Client() as client, client.listen(subject) as heard:
        print("listening", flush=True)
        for delivery in itertools.islice(heard, most):
            fields = (f"{one.name}:{one.type}={one.value}" for one in delivery.message.fields())
            print(delivery.subject, *fields, flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
