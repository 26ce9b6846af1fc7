#!/usr/bin/env bash
# orvane-ikev2 connects to the lab's responder, reports ipsec0 and
# Connected, carries traffic through the tunnel, and on SIGTERM, SIGINT,
# SIGUSR1 and SIGHUP stops the tunnel, logs it going down (Disconnecting,
# Disconnected) and ends with status 0, leaving no IKE_SA at the responder
# and no EAP secret in the initiator's charon. The password shows
# up in no log line (also with --verbose), no process's argv or environment,
# no file the tool writes, and, once connected, not in the tool's memory.
# Topology: lab.sh.
#
#   connect.sh PATH_TO_orvane-ikev2   exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

suite_begin "${1:-}" 165

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

# Starts the tool and waits for "IKEv2 Connected" with "IKEv2 Interface
# ipsec0" before it.
connect_up() {
  local i c
  tool_start "$@" -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15 || return 1
  i=$(tool_line_no "$MSG_INTERFACE")
  c=$(tool_line_no "$MSG_CONNECTED")
  [ "$i" -gt 0 ] || { fail "no \"$MSG_INTERFACE\""; return 1; }
  [ "$i" -lt "$c" ] || { fail "\"$MSG_INTERFACE\" is not before \"$MSG_CONNECTED\""; return 1; }
  echo "ok: \"$MSG_INTERFACE\" then \"$MSG_CONNECTED\""
}

# Pings the responder's pool-side address through ipsec0; both ends count.
traffic_passes() {
  local before after rin
  before=$(lab_tun_packets init tx) || { fail "no ipsec0 in the initiator"; return 1; }
  run in_init ping -c 3 -i 0.2 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "ping $LAB_POOL_TARGET through the tunnel"; return 1; }
  after=$(lab_tun_packets init tx)
  [ $((after - before)) -ge 3 ] || { fail "ipsec0 sent $((after - before)) packets for 3 pings"; return 1; }
  rin=$(lab_vici_resp child-packets-in "$LAB_RESP_CONN")
  [ "${rin:-0}" -ge 3 ] || { fail "the responder's CHILD_SA counted $rin packets in"; return 1; }
  echo "ok: 3 pings through ipsec0 (tx $before -> $after, responder packets-in $rin)"
}

# The tool's last lines are exactly the tunnel going down, after Connected.
tunnel_went_down_last() {
  local got
  got=$(grep -E "$TOOL_LINE_RE" "$TOOL_LOG" | sed -E "s/$TOOL_LINE_RE//" | tail -n 3)
  expect_eq "$(echo "$got" | tr '\n' '|')" "$MSG_CONNECTED|IKEv2 Disconnecting|IKEv2 Disconnected|" \
    "last three lines"
}

# connect, traffic, signal SIG, status 0 within 5 s after the tunnel going
# down was logged, tunnel gone.
connect_and_stop_with() {
  local sig=$1 t0
  connect_up || return 1
  traffic_passes || return 1
  lab_alive "$TOOL_PID" || { fail "the tool ended by itself before SIG$sig"; return 1; }
  t0=$(lab_now_ms)
  tool_signal_in_a_fresh_slice "$sig"
  tool_wait_exit 5 || { fail "the tool did not end within 5 s of SIG$sig"; return 1; }
  echo "SIG$sig to exit: $(( $(lab_now_ms) - t0 )) ms"
  expect_eq "$TOOL_RC" 0 "status after SIG$sig" || return 1
  if tool_has_line "$MSG_LAST_ERROR"; then fail "a disconnect error was logged after SIG$sig"; return 1; fi
  tunnel_went_down_last || return 1
  tool_lines_well_formed || return 1
  tunnel_cleared
}

case_sigterm() { connect_and_stop_with TERM; }
case_sigint() { connect_and_stop_with INT; }
case_sigusr1() { connect_and_stop_with USR1; }
case_sighup() { connect_and_stop_with HUP; }

case_password_never_leaks() {
  local marker=$LAB_DIR/start.marker found
  touch "$marker"
  connect_up --verbose || return 1
  lab_alive "$TOOL_PID" || { fail "the tool ended by itself while connected"; return 1; }
  found=$(procs_with_password)
  [ -z "$found" ] || { fail "processes with the password in argv or environment:"; echo "$found"; return 1; }
  echo "ok: no process has the password in its argv or environment"
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  tool_has_line "Received signal 15" || { fail "no \"Received signal 15\" at --verbose"; return 1; }
  [ "$(grep -c -E "$TOOL_LINE_RE" "$TOOL_LOG")" -gt 3 ] || { fail "--verbose logged hardly anything"; return 1; }
  ! has_password "$TOOL_LOG" || { fail "the password is in the tool's --verbose log"; return 1; }
  echo "ok: not in the --verbose log ($(wc -l <"$TOOL_LOG") lines)"
  [ -d "$(prefs_dir)" ] || { fail "no $(prefs_dir) after a connect"; return 1; }
  ! has_password -r "$(prefs_dir)" || { fail "the password is in $(prefs_dir)"; return 1; }
  echo "ok: not in $(prefs_dir): $(ls "$(prefs_dir)" | tr '\n' ' ')"
  ! has_password -r "/proc/$LAB_INIT_PID/root/run" || { fail "the password is in a file under the initiator's /run"; return 1; }
  echo "ok: not under the initiator's /run"
  found=$(find /tmp /var/tmp -xdev -type f -newer "$marker" ! -path "$LAB_DIR/*" -print0 2>/dev/null \
    | xargs -0 -r grep -l -F -f "$LAB_DIR/password.pattern" 2>/dev/null)
  [ -z "$found" ] || { fail "the password is in: $found"; return 1; }
  echo "ok: not in any file written under /tmp or /var/tmp since the start"
  ! has_password "$LAB_DIR/charon-init.log" || { fail "the password is in the initiator charon's log"; return 1; }
  echo "ok: not in the initiator charon's log"
  tunnel_cleared
}

# The tool's copy of the password goes once the secret is loaded into
# charon: while connected its memory holds no 8 bytes of it in a row, though
# it does hold the user name.
case_no_piece_of_the_password_in_the_tools_memory() {
  local user pieces n bytes
  connect_up || return 1
  lab_alive "$TOOL_PID" || { fail "the tool ended by itself while connected"; return 1; }
  printf '%s\n' "$LAB_USER" >"$LAB_DIR/user.pattern"
  user=$(memory_pieces "$TOOL_PID" 0 "$LAB_DIR/user.pattern")
  pieces=$(memory_pieces "$TOOL_PID" 8 "$LAB_DIR/password.pattern")
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  read -r n bytes _ <<<"$user"
  [ "${n:-0}" -ge 1 ] || { fail "the search did not find the user name the tool holds ($user)"; return 1; }
  echo "ok: the user name found in the tool's memory ($bytes bytes read)"
  read -r n bytes _ <<<"$pieces"
  [ "${n:-x}" = 0 ] || { fail "pieces of the password in the tool's memory: $pieces"; return 1; }
  echo "ok: no 8 bytes of the password in a row in the tool's memory ($bytes bytes read)"
  tunnel_cleared
}

case_connect_again_after_stop() {
  # The profile and charon state the previous run left must not stop a new one.
  connect_up || return 1
  lab_alive "$TOOL_PID" || { fail "the first run ended by itself"; return 1; }
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "first run status" || return 1
  connect_up || return 1
  traffic_passes || return 1
  lab_alive "$TOOL_PID" || { fail "the second run ended by itself"; return 1; }
  run kill -INT "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "second run status" || return 1
  tunnel_cleared
}

t_case case_sigterm "connect, ping through ipsec0, SIGTERM: status 0, tunnel and secret gone"
t_case case_sigint "connect, ping through ipsec0, SIGINT: status 0, tunnel and secret gone"
t_case case_sigusr1 "connect, ping through ipsec0, SIGUSR1: status 0, tunnel and secret gone"
t_case case_sighup "connect, ping through ipsec0, SIGHUP (terminal closed): as SIGTERM"
t_case case_password_never_leaks "the password is in no log line (--verbose), argv, environment or written file"
t_case case_no_piece_of_the_password_in_the_tools_memory "once connected, the tool's memory holds no piece of the password"
t_case case_connect_again_after_stop "two runs one after the other both connect"
suite_end
