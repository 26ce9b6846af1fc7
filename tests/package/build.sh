#!/usr/bin/env bash
# Runs scripts/package into OUT_DIR (after removing an older DEB) when the
# package tools are installed. Exit 0 built and lintian-clean, 1 failed,
# 77 the tools are missing (a failure under CI).
#
#   build.sh SOURCE_DIR OUT_DIR DEB
set -u
src=$1 out=$2 deb=$3
for c in dpkg-buildpackage dh lintian; do
  if ! command -v "$c" >/dev/null 2>&1; then
    echo "SKIP: $c is not installed (scripts/install-deps installs the package tools)"
    [ "${CI:-}" = true ] && exit 1
    exit 77
  fi
done
rm -f "$deb"
# At the lowest priority: the end-to-end suites run beside it, and their
# bounded waits must not pay for the compiler.
nice -n 19 "$src/scripts/package" "$out" || exit 1
[ -f "$deb" ] || { echo "FAIL: scripts/package made no $deb"; exit 1; }
echo "ok: $deb"
