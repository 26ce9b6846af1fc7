#!/usr/bin/env bash
# orvane-ikev2 when the VPN service itself fails: the initiator's charon
# stops while the tunnel is up, does not run at all, or accepts on its
# socket but never answers. Each ends with status 1, in bounded time, after
# "IKEv2 Last disconnect error: <reason>" with a reason of its own, so that
# a controller can tell them apart. Topology: lab.sh.
#
#   service.sh PATH_TO_orvane-ikev2   exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

suite_begin "${1:-}" 120

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

# expect_reason SECONDS REASON: the tool ends within SECONDS with status 1
# and REASON as its last line's disconnect error.
expect_reason() {
  tool_wait_exit "$1" || { fail "still running after $1 s"; return 1; }
  expect_eq "$TOOL_RC" 1 "status" || return 1
  expect_eq "$(tool_last_error)" "$2" "reason" || return 1
  [ "$(tail -n 1 "$TOOL_LOG" | grep -c -F "$MSG_LAST_ERROR")" = 1 ] \
    || { fail "\"$MSG_LAST_ERROR\" is not the last line"; return 1; }
  tool_lines_well_formed
}

case_charon_stops_under_the_tunnel() {
  local rc=0
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15 || return 1
  run kill -TERM "$LAB_INIT_PID"
  expect_reason 10 "VPN service stopped" || rc=1
  # whatever the outcome: the later cases need the initiator's charon
  lab_stop_charon init
  lab_start_initiator >>"$LAB_DIR/lab.out" 2>&1 || { fail "the initiator's charon did not start again"; return 1; }
  [ $rc -eq 0 ] || return 1
  wait_until 5 lab_resp_no_sa || { fail "the responder still holds an IKE_SA"; return 1; }
}

case_charon_not_running() {
  # A /run of its own: no charon socket there.
  TOOL_RUNS=$((TOOL_RUNS + 1))
  TOOL_LOG=$LAB_DIR/tool-$TOOL_RUNS.log
  TOOL_T0=$(lab_now_ms)
  echo "+ orvane-ikev2 -c $CFG with an empty /run"
  nsenter -t "$LAB_INIT_PID" -m -n unshare -m --propagation private \
    sh -c 'mount -t tmpfs none /run && exec "$0" -c "$1"' "$TOOL" "$CFG" >"$TOOL_LOG" 2>&1 </dev/null &
  TOOL_PID=$!
  LAB_PIDS+=("$TOOL_PID")
  expect_reason 10 "VPN service not running"
}

case_charon_never_answers() {
  run kill -STOP "$LAB_INIT_PID"
  tool_start -c "$CFG"
  expect_reason 20 "VPN service not answering"
  local rc=$?
  run kill -CONT "$LAB_INIT_PID"
  return $rc
}

t_case case_charon_stops_under_the_tunnel "charon stops while connected: status 1, the service stopped"
t_case case_charon_not_running "no charon: status 1, the service is not running"
t_case case_charon_never_answers "charon accepts but never answers: status 1, the service does not answer"
suite_end
