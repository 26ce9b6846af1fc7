#!/usr/bin/env bash
# The built .deb as a user gets it: its files extracted (dpkg -x) and laid
# over /usr with an overlay mount inside the lab initiator's private mount
# namespace, so /usr/sbin/orvane-ikev2 is the packaged binary on the host's
# libraries and strongSwan, and nothing on the host changes. From that path:
# --help, --check, and one connect to the lab's responder, stopped with
# SIGTERM. Topology: tests/e2e/lab.sh.
#
#   installed.sh PATH_TO_DEB VERSION   exit 0 passed, 1 failed, 77 cannot run here
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../e2e/lab.sh
. "$here/../e2e/lab.sh"
# shellcheck source=../e2e/harness.sh
. "$here/../e2e/harness.sh"

DEB=${1:-}
VERSION=${2:-}
INSTALLED=/usr/sbin/orvane-ikev2

lab_require
if [ ! -f "$DEB" ]; then
  # The test package.builds_and_passes_lintian makes it when the package
  # tools are installed.
  if [ "${CI:-}" = true ]; then echo "FAIL: no package at $DEB"; exit 1; fi
  echo "SKIP: no package at $DEB (dpkg-buildpackage, debhelper or lintian missing?)"
  exit 77
fi
lab_init
suite_watchdog 120
run dpkg -x "$DEB" "$LAB_DIR/root" || { echo "FAIL: dpkg -x $DEB"; exit 1; }
lab_up || { echo "FAIL: the lab did not come up"; exit 1; }
printf '%s\n' "$LAB_PASSWORD" >"$LAB_DIR/password.pattern"
run nsenter -t "$LAB_INIT_PID" -m mount -t overlay orvane-package \
  -o "lowerdir=$LAB_DIR/root/usr:/usr" /usr || { echo "FAIL: overlay of the package on /usr"; exit 1; }
TOOL=$INSTALLED

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

case_package_holds_binary_manual_readme_copyright() {
  local listing f field
  listing=$(dpkg-deb --contents "$DEB" | awk '{print $6}')
  for f in ./usr/sbin/orvane-ikev2 ./usr/share/man/man8/orvane-ikev2.8.gz \
    ./usr/share/doc/orvane-ikev2/README.md.gz ./usr/share/doc/orvane-ikev2/copyright; do
    echo "$listing" | grep -q -x -F "$f" || { fail "$f is not in the package"; return 1; }
  done
  echo "ok: binary, manual page, README and copyright in the package"
  field=$(dpkg-deb --field "$DEB" Version)
  expect_eq "$field" "$VERSION" "package version" || return 1
  field=$(zcat "$LAB_DIR/root/usr/share/man/man8/orvane-ikev2.8.gz" | sed -n 's/^\.TH .*"orvane\\-ikev2 \([^"]*\)".*/\1/p')
  expect_eq "$field" "$VERSION" "version in the packaged manual page"
}

case_help_from_installed_path() {
  tool_run 10 --help
  expect_eq "$TOOL_RC" 1 "--help status" || return 1
  grep -q -E '^-c --config' "$TOOL_LOG" || { fail "no --config in the help"; cat "$TOOL_LOG"; return 1; }
  cmp -s "$LAB_DIR/root$INSTALLED" "/proc/$LAB_INIT_PID/root$INSTALLED" \
    || { fail "$INSTALLED in the initiator is not the packaged binary"; return 1; }
  echo "ok: $INSTALLED is the packaged binary and prints the help"
}

case_check_from_installed_path() {
  tool_run 10 --check
  expect_eq "$TOOL_RC" 2 "--check status without a profile" || return 1
  tool_has_line "IKEv2 configuration doesn't exist" || { fail "no \"IKEv2 configuration doesn't exist\""; return 1; }
}

case_connect_from_installed_path() {
  tool_start -c "$CFG"
  tool_wait_line "$MSG_INTERFACE" 15 || return 1
  tool_wait_line "$MSG_CONNECTED" 2 || return 1
  run in_init ping -c 2 -i 0.2 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "no ping through the tunnel"; return 1; }
  echo "ok: ping $LAB_POOL_TARGET through the tunnel"
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  ! has_password "$TOOL_LOG" || { fail "the password is in the log"; return 1; }
  wait_until 5 lab_resp_no_sa || { fail "the responder still holds an IKE_SA"; return 1; }
  echo "ok: no IKE_SA left at the responder"
}

t_case case_package_holds_binary_manual_readme_copyright "the .deb holds the four files and says version $VERSION"
t_case case_help_from_installed_path "$INSTALLED --help prints the help, status 1"
t_case case_check_from_installed_path "$INSTALLED --check without a profile: status 2"
t_case case_connect_from_installed_path "$INSTALLED -c FILE connects, carries a ping, ends with 0 on SIGTERM"
suite_end
