#!/usr/bin/env bash
# The package and the examples are typed, and the stubs say what the module has: types_test.sh EXAMPLE...
set -e
cache=$(mktemp -d)
trap 'rm -rf "$cache"' EXIT
cd "$PYTHONPATH"
mypy --strict --cache-dir "$cache" --python-executable /usr/bin/python3 kvxmom "$@"
cd "$cache"
# pybind11 gives its classes a metaclass, and a constructor that refuses to those that have none.
made='kvxmom\._kvxmom\.(Call|ClientHandle|Listening|Question|ServiceHandle|Stream)'
printf '%s\n' "$made" "$made\.__init__" 'kvxmom\._kvxmom\.Message' >allowed
MYPYPATH=$PYTHONPATH stubtest --allowlist allowed kvxmom._kvxmom
