#!/usr/bin/python3
"""Asks a service and prints the rows as they come: query.py SERVICE TEXT"""

import sys

import kvxmom


def main() -> int:
    service, text = sys.argv[1:]
    try:
        with kvxmom.Client() as client:
            for row in client.query(service, text):
                print(*row.values(), sep="\t")
    except kvxmom.Error as error:
        print(f"query: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
