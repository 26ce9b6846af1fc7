#!/usr/bin/env bash
# Runs one command of the macOS type-check kit (sdk-check/) for CTest, or
# skips with status 77 when this host lacks what the kit needs (clang and
# GNUstep's Foundation headers); under CI=true a missing tool is a failure.
#
#   run-check.sh COMMAND [ARGS...]   e.g. run-check.sh check.sh --apple-triple F.mm
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"

missing=()
command -v "${CLANG:-clang++}" >/dev/null || missing+=("clang (${CLANG:-clang++})")
[ -f "${GNUSTEP_INC:-/usr/include/GNUstep}/Foundation/Foundation.h" ] ||
  missing+=("GNUstep Foundation headers (libgnustep-base-dev)")
compgen -G "/usr/lib/gcc/*/*/include/objc/objc.h" >/dev/null ||
  missing+=("GCC's Objective-C headers (libobjc-12-dev)")
if [ ${#missing[@]} -gt 0 ]; then
  echo "macos type check cannot run here: missing ${missing[*]}" >&2
  [ "${CI:-}" = true ] && exit 1
  exit 77
fi

command=$1
shift
exec "$here/sdk-check/$command" "$@"
