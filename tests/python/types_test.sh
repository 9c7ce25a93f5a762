#!/usr/bin/env bash
# The package and the examples are typed, and the stubs say what the module has: types_test.sh EXAMPLES
set -e
cache=$(mktemp -d)
trap 'rm -rf "$cache"' EXIT
cd "$PYTHONPATH"
mypy --strict --cache-dir "$cache" --python-executable /usr/bin/python3 kvxmom
for example in "$1"/*.py; do
    MYPYPATH=$PYTHONPATH mypy --strict --cache-dir "$cache" --python-executable /usr/bin/python3 "$example"
done
cd "$cache"
# What pybind11 makes: the metaclass of its classes, their constructors, and names of generic types.
printf '%s\n' '.*\.[A-Z][A-Za-z]*' '.*\.__init__' '.*\.(T|T_co|D)' '.*__hash__' >allowed
MYPYPATH=$PYTHONPATH stubtest --allowlist allowed --ignore-unused-allowlist kvxmom._kvxmom
