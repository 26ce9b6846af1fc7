#!/usr/bin/env bash
# Nothing orphaned: orvane-ikev2 leaves no tunnel and no secret behind, and
# none of its runs disturbs another. A server demanding re-authentication,
# a run killed with SIGKILL, --remove under a live tunnel, a controller
# that goes away or stops reading, standard descriptors closed at start, a
# frozen charon at the stop, a second instance. Topology: lab.sh (with its
# reauth server).
#
#   lifecycle.sh PATH_TO_orvane-ikev2   exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

suite_begin "${1:-}" 170

# The tool re-authenticates 5 minutes before the server's lifetime ends, so
# this server's lifetime has it re-authenticate 6 s after each connect.
REAUTH_SECONDS=306
lab_add_reauth_responder "$REAUTH_SECONDS" >>"$LAB_DIR/lab.out" 2>&1 || { echo "FAIL: no reauth server"; exit 1; }

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

init_has_secret() { [ -n "$(lab_vici_init get-shared)" ]; }
resp_has_sa() { [ "$(lab_resp_sa_count)" -ge 1 ]; }
init_one_established() { [ "$(lab_vici_init list-sas | grep -c ' ESTABLISHED')" = 1 ]; }

# Processes running the tool's binary, one pid a line.
tool_processes() {
  find /proc/[0-9]*/exe -maxdepth 0 -lname "$(readlink -f "$TOOL")" 2>/dev/null | cut -d/ -f3
}
no_tool_process() { [ -z "$(tool_processes)" ]; }

connected() {
  tool_start "$@"
  tool_wait_line "$MSG_CONNECTED" 15
}

stop_with_term() {
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM"
}

# Lines of charon's initiator log after line MARK holding TEXT.
charon_lines_since() { tail -n "+$(($1 + 1))" "$LAB_DIR/charon-init.log" | grep -c -F -- "$2"; }
reauthenticated_since() { [ "$(charon_lines_since "$1" "reauthenticating IKE_SA Orvane IKEv2")" -ge 1 ]; }

case_reauthentication_keeps_the_tunnel() {
  local cfg=$LAB_DIR/reauth.conf mark
  tool_write_config "$cfg" "$LAB_LINK_REAUTH" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"
  mark=$(wc -l <"$LAB_DIR/charon-init.log")
  connected -c "$cfg" || return 1
  wait_until 20 reauthenticated_since "$mark" || { fail "charon did not re-authenticate"; return 1; }
  echo "ok: charon re-authenticates the IKE_SA"
  wait_until 10 init_one_established || { fail "no IKE_SA came up again after the re-authentication"; lab_vici_init list-sas; return 1; }
  sleep 1
  lab_alive "$TOOL_PID" || { fail "the tool ended with the re-authentication"; return 1; }
  ! tool_has_line "$MSG_LAST_ERROR" || { fail "a disconnect error was logged"; return 1; }
  init_has_secret || { fail "the secret was unloaded while the tool runs"; return 1; }
  run in_init ping -c 1 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "no traffic after the re-authentication"; return 1; }
  echo "ok: still connected, secret loaded, traffic passes"
  stop_with_term || return 1
  tunnel_cleared
}

case_leftover_of_a_killed_run_is_cleaned_up() {
  connected -c "$CFG" || return 1
  run kill -KILL "$TOOL_PID"
  tool_wait_exit 5
  init_has_secret && [ "$(lab_vici_init count-sas)" = 1 ] \
    || { fail "the killed run left nothing behind: nothing to clean up"; return 1; }
  echo "ok: the killed run left its IKE_SA and secret"
  connected -c "$CFG" || return 1
  init_one_established || { fail "the initiator holds more than the new IKE_SA"; lab_vici_init list-sas; return 1; }
  echo "ok: the next run connects, with one IKE_SA"
  stop_with_term || return 1
  tunnel_cleared
}

case_remove_ends_a_live_tunnel() {
  local first
  connected -c "$CFG" || return 1
  first=$TOOL_PID
  tool_run 10 --remove || return 1
  expect_eq "$TOOL_RC" 0 "--remove status" || return 1
  TOOL_PID=$first
  tool_wait_exit 10 || { fail "the connected run did not end when its profile was removed"; return 1; }
  [ ! -e "$(prefs_file)" ] || { fail "the profile is still there"; return 1; }
  [ -z "$(lab_vici_init get-conns)" ] || { fail "charon still has the connection"; return 1; }
  tunnel_cleared
}

# controlled MODE WAIT_FOR ARGS...: the tool under a controller (controller.py)
# in the initiator's namespaces; CTRL_PID is the controller, TOOL_PID the tool.
controlled() {
  local mode=$1 wait_for=$2 pidfile
  shift 2
  TOOL_RUNS=$((TOOL_RUNS + 1))
  TOOL_LOG=$LAB_DIR/tool-$TOOL_RUNS.log
  pidfile=$LAB_DIR/tool-$TOOL_RUNS.pid
  printf '[%s] + controller.py %s ... -- %s %s &\n' "$(date -u +%H:%M:%S.%3N)" "$mode" "$TOOL" "$*"
  nsenter -t "$LAB_INIT_PID" -m -n \
    python3 "$LAB_SRC_DIR/controller.py" "$mode" "$pidfile" "$TOOL_LOG" "$wait_for" -- "$TOOL" "$@" &
  CTRL_PID=$!
  LAB_PIDS+=("$CTRL_PID")
  wait_until 5 test -s "$pidfile" || { fail "the controller did not start the tool"; return 1; }
  TOOL_PID=$(cat "$pidfile")
  LAB_PIDS+=("$TOOL_PID")
}

# controller_ends SECONDS: the controller, which waits for the tool, ends;
# TOOL_RC is the tool's status.
controller_ends() {
  if ! wait_until "$1" lab_gone "$CTRL_PID"; then
    kill -KILL "$TOOL_PID" "$CTRL_PID" 2>/dev/null
    fail "the tool still runs $1 s later"
    return 1
  fi
  wait "$CTRL_PID"
  TOOL_RC=$?
  lab_forget_pid "$CTRL_PID"
  lab_forget_pid "$TOOL_PID"
  echo "tool exited with status $TOOL_RC"
}

case_controller_going_away_stops_the_tunnel() {
  controlled close "$MSG_CONNECTED" -c "$CFG" || return 1
  controller_ends 10 || return 1
  expect_eq "$TOOL_RC" 0 "status once its reader is gone (not killed by SIGPIPE)" || return 1
  tunnel_cleared
}

case_controller_that_stops_reading_does_not_hold_up_the_stop() {
  local t0
  controlled stall "$MSG_CONNECTED" --verbose -c "$CFG" || return 1
  wait_until 5 resp_has_sa || { fail "no tunnel"; return 1; }
  t0=$(lab_now_ms)
  run kill -TERM "$TOOL_PID"
  controller_ends 5 || return 1
  echo "SIGTERM to exit with a full pipe: $(( $(lab_now_ms) - t0 )) ms"
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  tunnel_cleared
}

case_closed_standard_descriptors_at_start() {
  # `>&- 2>&-`: the tool must not take its own log lines for signals.
  printf '[%s] + nsenter -t %s -m -n %s -c %s >&- 2>&- &\n' "$(date -u +%H:%M:%S.%3N)" "$LAB_INIT_PID" "$TOOL" "$CFG"
  nsenter -t "$LAB_INIT_PID" -m -n sh -c 'exec "$0" -c "$1" >&- 2>&-' "$TOOL" "$CFG" &
  TOOL_PID=$!
  LAB_PIDS+=("$TOOL_PID")
  TOOL_LOG=
  wait_until 15 init_one_established || { fail "no tunnel"; return 1; }
  sleep 1
  lab_alive "$TOOL_PID" || { fail "the tool stopped by itself"; return 1; }
  init_one_established || { fail "the tunnel went down by itself"; return 1; }
  echo "ok: still connected"
  stop_with_term || return 1
  tunnel_cleared
}

case_frozen_charon_at_the_stop() {
  local t0 rc
  connected -c "$CFG" || return 1
  run kill -STOP "$LAB_INIT_PID"
  t0=$(lab_now_ms)
  kill -TERM "$TOOL_PID"
  tool_wait_exit 5
  rc=$?
  echo "SIGTERM to exit with charon frozen: $(( $(lab_now_ms) - t0 )) ms"
  run kill -CONT "$LAB_INIT_PID"
  [ $rc -eq 0 ] || { fail "the tool did not end while charon was frozen"; return 1; }
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  # what the stop left in charon's queue is carried out once it runs again
  tunnel_cleared || return 1
  # and the connection kept open for it goes with charon's answers
  wait_until 3 no_tool_process || { fail "processes of the tool are left: $(tool_processes | tr '\n' ' ')"; return 1; }
  echo "ok: no process of the tool is left"
}

case_second_instance_leaves_the_first_alone() {
  local first first_log
  connected -c "$CFG" || return 1
  first=$TOOL_PID
  first_log=$TOOL_LOG
  for mode in "" --create; do
    # shellcheck disable=SC2086
    tool_run 10 $mode -c "$CFG" || return 1
    [ "$TOOL_RC" != 0 ] || { fail "a second instance ($mode) ended with status 0"; return 1; }
    tool_has_line "IKEv2 Error saving configurations: " || { fail "no error line from the second instance"; return 1; }
    tool_has_line "in use by another orvane-ikev2 (pid $first)" || { fail "the error does not name pid $first"; return 1; }
    echo "ok: second instance ($mode) refused with status $TOOL_RC"
  done
  tool_run 10 --check || return 1
  expect_eq "$TOOL_RC" 0 "--check status while a tunnel runs" || return 1
  TOOL_PID=$first
  TOOL_LOG=$first_log
  lab_alive "$TOOL_PID" || { fail "the first instance ended"; return 1; }
  run in_init ping -c 1 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "the first tunnel was disturbed"; return 1; }
  init_has_secret || { fail "the first instance's secret is gone"; return 1; }
  echo "ok: the first instance still runs its tunnel"
  stop_with_term || return 1
  tunnel_cleared
}

t_case case_reauthentication_keeps_the_tunnel "a server demanding re-authentication: still connected, secret kept until the stop"
t_case case_leftover_of_a_killed_run_is_cleaned_up "a run killed with SIGKILL: the next run cleans up and connects"
t_case case_remove_ends_a_live_tunnel "--remove under a live tunnel ends it and clears charon"
t_case case_controller_going_away_stops_the_tunnel "the reader of standard error goes away: stop as on SIGTERM"
t_case case_controller_that_stops_reading_does_not_hold_up_the_stop "standard error full: SIGTERM still stops the tunnel"
t_case case_closed_standard_descriptors_at_start "started with >&- 2>&-: runs until signalled"
t_case case_frozen_charon_at_the_stop "charon frozen at SIGTERM: bounded exit, nothing left once it runs again"
t_case case_second_instance_leaves_the_first_alone "a second instance says why it stops and leaves the first alone"
suite_end
