#!/usr/bin/python3
"""The rows of a service, and then every change of one: follow.py SERVICE TEXT [COUNT]"""

import itertools
import sys

import kvxmom

service, text, *count = sys.argv[1:]
with kvxmom.Client() as client, client.follow(service, text) as changes:
    for change in itertools.islice(changes, int(count[0]) if count else None):
        print(change.kind, *change.row.values(), flush=True)
