#!/usr/bin/env bash
# The responder's charon dies (SIGKILL) under an established tunnel: only
# dead-peer detection can notice. orvane-ikev2's profile fixes DPD at 60 s
# and the lab's initiator gives up ~4.4 s after the first unanswered DPD, so
# the tool must end with status 1 and a reason within about 65 s (bounded
# at 90 s). Slow by nature, hence a suite of its own. Topology: lab.sh.
#
#   dead_peer.sh PATH_TO_orvane-ikev2  exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

suite_begin "${1:-}" 150

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"

case_responder_killed() {
  local t0 ms reason mark
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15 || return 1
  # let the new tunnel settle, so that only DPD can notice the dead server
  sleep 2
  run in_init ping -c 1 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "no traffic through the tunnel"; return 1; }
  mark=$(wc -l <"$LAB_DIR/charon-init.log")
  t0=$(lab_now_ms)
  run kill -KILL "$LAB_RESP_PID"
  wait_until 5 lab_gone "$LAB_RESP_PID" || { fail "the responder's charon survived SIGKILL"; return 1; }
  tool_wait_exit 90 || { fail "the tool still runs 90 s after its server died"; return 1; }
  ms=$(( $(lab_now_ms) - t0 ))
  echo "server killed to tool exit: $ms ms"
  tail -n "+$((mark + 1))" "$LAB_DIR/charon-init.log" | grep -q -F "sending DPD request" \
    || { fail "charon sent no DPD request: something else than DPD ended the tunnel"; return 1; }
  [ "$ms" -ge 50000 ] || { fail "ended $ms ms after the kill, before DPD (60 s) could notice"; return 1; }
  echo "ok: ended by dead-peer detection"
  expect_eq "$TOOL_RC" 1 "status" || return 1
  tool_has_line "$MSG_LAST_ERROR" || { fail "no \"$MSG_LAST_ERROR<reason>\" line"; return 1; }
  reason=$(tool_last_error)
  echo "reason: \"$reason\""
  echo "$reason" | grep -q -E -i 'respond|reach|dead|time|answer' || { fail "reason \"$reason\" does not say the server stopped answering"; return 1; }
  tool_lines_well_formed || return 1
  wait_until 3 init_no_shared || { fail "the initiator's charon still holds secret(s)"; return 1; }
  echo "ok: no secret left in the initiator's charon"
}

t_case case_responder_killed "server's charon killed: status 1 with a reason after dead-peer detection"
suite_end
