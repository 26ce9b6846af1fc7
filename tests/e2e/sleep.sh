#!/usr/bin/env bash
# Disconnect on sleep. A private system bus and a logind stand-in run in the
# initiator's namespaces (lab_start_init_bus; the machine's own bus is never
# touched). While its tunnel is up orvane-ikev2 holds a "delay" inhibitor
# lock for sleep. On PrepareForSleep(true) it stops the tunnel, the server
# has deleted the tunnel before the lock is released, and the tool ends with
# status 1 after "IKEv2 Last disconnect error: system going to sleep". A
# tunnel stopped by a signal releases the lock too. Topology: lab.sh.
#
#   sleep.sh PATH_TO_orvane-ikev2 PATH_TO_logind-standin
#                                     exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

lab_require dbus-daemon
STANDIN=${2:-}
if [ ! -x "$STANDIN" ]; then
  echo "FAIL: usage: $0 PATH_TO_orvane-ikev2 PATH_TO_logind-standin (was logind-standin built?)"
  exit 1
fi
suite_begin "${1:-}" 100
lab_start_init_bus || { echo "FAIL: no system bus in the initiator's namespaces"; exit 1; }

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

STANDIN_PID=
STANDIN_LOG=
STANDIN_RUNS=0

# Starts the stand-in on the initiator's system bus (after stopping an
# earlier one, which would still own logind's name); waits for its "ready".
standin_start() {
  [ -n "$STANDIN_PID" ] && standin_stop
  STANDIN_RUNS=$((STANDIN_RUNS + 1))
  STANDIN_LOG=$LAB_DIR/standin-$STANDIN_RUNS.out
  printf '[%s] + nsenter -t %s -m -n %s &\n' "$(date -u +%H:%M:%S.%3N)" "$LAB_INIT_PID" "$STANDIN"
  nsenter -t "$LAB_INIT_PID" -m -n "$STANDIN" >"$STANDIN_LOG" 2>&1 </dev/null &
  STANDIN_PID=$!
  LAB_PIDS+=("$STANDIN_PID")
  wait_until 5 standin_has '^ready ' || { fail "the logind stand-in did not start"; cat "$STANDIN_LOG"; return 1; }
}

standin_stop() {
  lab_stop_pid "$STANDIN_PID" 3
  lab_forget_pid "$STANDIN_PID"
  STANDIN_PID=
}

standin_has() { grep -q -E -- "$1" "$STANDIN_LOG"; }

# The time at the end of the stand-in's first line matching PATTERN, in the
# form of charon's file log: "YYYY-MM-DD HH:MM:SS.mmm".
standin_time() {
  grep -E -- "$1" "$STANDIN_LOG" | head -n 1 | grep -o -E '[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\.[0-9]{3}$'
}

# The tool's messages without the log prefix, one a line.
tool_messages() {
  grep -E "$TOOL_LINE_RE" "$TOOL_LOG" | sed -E "s/$TOOL_LINE_RE//"
}

# Connects and waits for the tool's sleep lock at the stand-in.
connect_holding_the_lock() {
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15 || return 1
  wait_until 5 standin_has '^inhibit ' || { fail "the tool took no lock from logind"; return 1; }
  standin_has '^inhibit what=sleep who=orvane-ikev2 why=.* mode=delay ' \
    || { fail "not a delay lock for sleep: $(grep '^inhibit' "$STANDIN_LOG")"; return 1; }
  echo "ok: the tool holds a delay lock for sleep"
  if standin_has '^released '; then fail "the lock was released while the tunnel is up"; return 1; fi
}

case_sleep_stops_the_tunnel() {
  local mark deleted released expected
  standin_start || return 1
  connect_holding_the_lock || return 1
  expect_eq "$(lab_resp_sa_count)" 1 "IKE_SAs at the responder before sleep" || return 1
  mark=$(wc -l <"$LAB_DIR/charon-resp.log")
  run kill -USR1 "$STANDIN_PID"
  tool_wait_exit 10 || { fail "the tool still runs 10 s after PrepareForSleep"; return 1; }
  expect_eq "$TOOL_RC" 1 "status" || return 1
  expected="IKEv2 Connecting
IKEv2 Interface ipsec0
IKEv2 Connected
IKEv2 Disconnecting
IKEv2 Last disconnect error: system going to sleep"
  expect_eq "$(tool_messages)" "$expected" "the tool's log lines" || return 1
  tool_lines_well_formed || return 1
  wait_until 3 standin_has '^released ' || { fail "the stand-in never saw the lock released"; return 1; }
  released=$(standin_time '^released ')
  deleted=$(tail -n "+$((mark + 1))" "$LAB_DIR/charon-resp.log" | grep -F "received DELETE for IKE_SA" | head -n 1 | cut -c1-23)
  [ -n "$deleted" ] || { fail "the responder never received the tunnel's DELETE"; return 1; }
  echo "responder deleted the IKE_SA at $deleted, lock released at $released"
  [[ "$deleted" < "$released" || "$deleted" == "$released" ]] \
    || { fail "the lock was released before the responder deleted the tunnel"; return 1; }
  echo "ok: the tunnel was down at the responder before the lock was released"
  wait_until 3 lab_resp_no_sa || { fail "the responder still holds an IKE_SA"; return 1; }
  wait_until 3 init_no_shared || { fail "the initiator's charon still holds secret(s)"; return 1; }
  echo "ok: no IKE_SA at the responder, no secret in the initiator's charon"
  standin_stop
}

case_signal_stop_releases_the_lock() {
  standin_start || return 1
  connect_holding_the_lock || return 1
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || { fail "the tool did not end within 5 s of SIGTERM"; return 1; }
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  if tool_has_line "$MSG_LAST_ERROR"; then fail "a disconnect error was logged after SIGTERM"; return 1; fi
  wait_until 3 standin_has '^released ' || { fail "the stand-in never saw the lock released"; return 1; }
  echo "ok: the lock was released"
  if standin_has '^prepare-for-sleep '; then fail "sleep was announced"; return 1; fi
  standin_stop
}

t_case case_sleep_stops_the_tunnel "PrepareForSleep: tunnel deleted at the server, lock released, status 1 with the sleep reason"
t_case case_signal_stop_releases_the_lock "SIGTERM: the tunnel stops, the lock is released, status 0"
suite_end
