#!/usr/bin/env bash
# The tool's binary does not name libsystemd among the libraries loaded at
# start: sd-bus is loaded when a sleep watch begins, so the check, create and
# remove modes do not pay for it.
#   start_libraries.sh PATH_TO_orvane-ikev2
set -euo pipefail
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[ -n "$needed" ] || { echo "no NEEDED entries read from $1" >&2; exit 1; }
if grep -q '^libsystemd' <<<"$needed"; then
    echo "$1 loads libsystemd at start:" >&2
    echo "$needed" >&2
    exit 1
fi
