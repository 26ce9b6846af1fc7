#!/usr/bin/env bash
# Proves the lab without orvane-ikev2: swanctl in the initiator's namespaces
# loads a connection equal to the tool's (aes256-sha256-modp2048, EAP-
# MSCHAPv2 client, server by certificate asked for no certificate request,
# revocation relaxed, virtual IP, remote_ts 0.0.0.0/0) and shows every case the tool's suites rely on, with
# the initiator charon's log lines that mark it. See lab.sh for the topology.
#
#   lab_selftest.sh        exit 0 all passed, 1 a case failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

lab_require
lab_init
suite_watchdog 170
lab_up || { echo "FAIL: the lab did not come up"; exit 1; }

SW_FILE=$LAB_DIR/init/selftest.conf
INIT_LOG=$LAB_DIR/charon-init.log
LOG_MARK=0

# sw_load SERVER REMOTE_ID PASSWORD [DPD]: the tool's connection as "sw".
sw_load() {
  cat >"$SW_FILE" <<EOF
connections {
  sw {
    version = 2
    remote_addrs = $1
    vips = 0.0.0.0
    proposals = aes256-sha256-modp2048
    send_certreq = no
    dpd_delay = ${4:-60s}
    local {
      auth = eap-mschapv2
      id = $LAB_USER
      eap_id = $LAB_USER
    }
    remote {
      auth = pubkey
      id = $2
      revocation = relaxed
    }
    children {
      sw {
        remote_ts = 0.0.0.0/0
        esp_proposals = aes256-sha256-modp2048
      }
    }
  }
}
secrets {
  eap-sw {
    id = $LAB_USER
    secret = "$3"
  }
}
EOF
  chmod 600 "$SW_FILE"
  in_init swanctl --load-all --noprompt --file "$SW_FILE" >>"$LAB_DIR/swanctl-init.out" 2>&1 \
    || fail "swanctl --load-all $SW_FILE"
  LOG_MARK=$(wc -l <"$INIT_LOG")
}

# Initiator log lines written since sw_load.
new_log() { tail -n "+$((LOG_MARK + 1))" "$INIT_LOG"; }
log_has() { new_log | grep -q -F -- "$1"; }

expect_log() {
  if log_has "$1"; then echo "ok: initiator log: $1"; else fail "initiator log lacks: $1"; fi
}

# sw_initiate SECONDS: blocking initiate; sets SW_RC and SW_MS.
sw_initiate() {
  local t0
  t0=$(lab_now_ms)
  run in_init swanctl --initiate --child sw --timeout "$1" >>"$LAB_DIR/swanctl-init.out" 2>&1
  SW_RC=$?
  SW_MS=$(( $(lab_now_ms) - t0 ))
  echo "swanctl --initiate: status $SW_RC after $SW_MS ms"
}

case_connect_ping() {
  local before after vip
  sw_load "$LAB_LINK_RESP" "$LAB_SERVER_NAME" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  expect_eq "$SW_RC" 0 "initiate status" || return 1
  expect_log "CHILD_SA sw{" || return 1
  vip=$(in_init ip -4 -o addr show dev ipsec0 | awk '{print $4}')
  case $vip in 198.51.100.*/32) echo "ok: virtual IP $vip on ipsec0" ;; *) fail "no pool address on ipsec0: '$vip'"; return 1 ;; esac
  before=$(lab_tun_packets init tx)
  run in_init ping -c 3 -i 0.2 -W 2 "$LAB_POOL_TARGET" || return 1
  after=$(lab_tun_packets init tx)
  [ $((after - before)) -ge 3 ] || { fail "ipsec0 sent $((after - before)) packets, expected >= 3"; return 1; }
  echo "ok: ipsec0 tx packets $before -> $after"
  [ "$(lab_vici_resp child-packets-in "$LAB_RESP_CONN")" -ge 3 ] || { fail "responder CHILD_SA counted < 3 packets in"; return 1; }
  echo "ok: responder CHILD_SA counted the pings"
  run in_init swanctl --terminate --ike sw --timeout 5 >/dev/null || return 1
  wait_until 5 lab_resp_no_sa || { fail "responder still holds an IKE_SA"; return 1; }
  echo "ok: no IKE_SA left at the responder"
}

case_wrong_password() {
  sw_load "$LAB_LINK_RESP" "$LAB_SERVER_NAME" "wrong-$LAB_PASSWORD" || return 1
  sw_initiate 10
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "EAP-MS-CHAPv2 failed with error ERROR_AUTHENTICATION_FAILURE" || return 1
  [ "$SW_MS" -ge 1500 ] || { fail "failure came after $SW_MS ms, the responder should hold it ~2 s"; return 1; }
}

case_untrusted_certificate() {
  sw_load "$LAB_LINK_ROGUE" "$LAB_SERVER_NAME" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "no issuer certificate found for" || return 1
  # After a genuine connect charon has the genuine certificate cached and
  # tries its key instead: "signature validation failed".
  if log_has "no trusted RSA public key found for '$LAB_SERVER_NAME'" \
    || log_has "signature validation failed"; then
    echo "ok: server not authenticated"
  else
    fail "neither 'no trusted RSA public key' nor 'signature validation failed'"
  fi
}

case_wrong_identity_echo_server() {
  sw_load "$LAB_LINK_ECHO" "wrong.orvane.test" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "no trusted RSA public key found for 'wrong.orvane.test'" || return 1
  if log_has "no issuer certificate found"; then fail "the certificate itself should be trusted"; return 1; fi
  echo "ok: certificate chain trusted, identity not in it"
}

case_wrong_identity_strict_server() {
  sw_load "$LAB_LINK_RESP" "wrong.orvane.test" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "received AUTHENTICATION_FAILED notify error"
}

case_no_proposal_chosen() {
  sw_load "$LAB_LINK_NOPROP" "$LAB_SERVER_NAME" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "received NO_PROPOSAL_CHOSEN notify error"
}

case_unreachable() {
  sw_load "$LAB_LINK_RESP" "$LAB_SERVER_NAME" "$LAB_PASSWORD" || return 1
  lab_block_responder || return 1
  sw_initiate 15
  [ "$SW_RC" -ne 0 ] || { fail "initiate succeeded"; return 1; }
  expect_log "establishing IKE_SA failed, peer not responding" || return 1
  [ "$SW_MS" -ge 3500 ] && [ "$SW_MS" -le 8000 ] || { fail "gave up after $SW_MS ms, expected ~4.4 s"; return 1; }
}

case_responder_deletes() {
  local t0
  sw_load "$LAB_LINK_RESP" "$LAB_SERVER_NAME" "$LAB_PASSWORD" || return 1
  sw_initiate 10
  expect_eq "$SW_RC" 0 "initiate status" || return 1
  t0=$(lab_now_ms)
  run in_resp swanctl --terminate --ike "$LAB_RESP_CONN" --timeout 5 >/dev/null || return 1
  wait_until 5 init_no_sa || { fail "initiator still holds the IKE_SA"; return 1; }
  echo "initiator lost the IKE_SA $(( $(lab_now_ms) - t0 )) ms after the responder's terminate"
  expect_log "received DELETE for IKE_SA sw["
}

case_responder_killed() {
  local t0
  sw_load "$LAB_LINK_RESP" "$LAB_SERVER_NAME" "$LAB_PASSWORD" 2s || return 1
  sw_initiate 10
  expect_eq "$SW_RC" 0 "initiate status" || return 1
  t0=$(lab_now_ms)
  run kill -KILL "$LAB_RESP_PID"
  wait_until 15 init_no_sa || { fail "initiator still holds the IKE_SA 15 s after the kill"; return 1; }
  echo "initiator dropped the IKE_SA $(( $(lab_now_ms) - t0 )) ms after the kill (dpd_delay 2 s)"
  expect_log "giving up after 2 retransmits"
}

for c in case_connect_ping case_wrong_password case_untrusted_certificate \
  case_wrong_identity_echo_server case_wrong_identity_strict_server \
  case_no_proposal_chosen case_unreachable case_responder_deletes case_responder_killed; do
  t_case "$c" "${c#case_}"    # t_reset also unloads "sw" and its secret
done
suite_end
