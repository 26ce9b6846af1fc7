#!/usr/bin/env bash
# orvane-ikev2 trusts servers as the platform's own client does: a CA in
# the system's trust store (and in none of charon's CA folders) is trusted,
# also through an intermediate CA the server sends, and stops being trusted
# once it leaves the store; a server certificate revoked in its CRL fails
# with the reason "server certificate revoked"; a CRL server that cannot be
# reached does not fail the connection. Like the platform's client, the tool
# asks for no certificate: a server that only sends it when asked fails
# with "server sent no certificate". Topology and servers: lab.sh
# (LAB_TRUST).
#
#   trust.sh PATH_TO_orvane-ikev2     exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

LAB_TRUST=1
suite_begin "${1:-}" 150

CFG=$LAB_DIR/tool.conf
INIT_LOG=$LAB_DIR/charon-init.log
SYS_ROOT=$LAB_DIR/pki/sys-root.pem

# The authority name the tool gives a certificate (PEM file).
anchor_name() {
  python3 -c 'import hashlib, sys
text = open(sys.argv[1]).read()
body = text.split("-----BEGIN CERTIFICATE-----")[1].split("-----END CERTIFICATE-----")[0]
print("orvane-ikev2-system-ca-" + hashlib.sha256("".join(body.split()).encode()).hexdigest())' "$1"
}

charon_has_authority() { lab_vici_init get-authorities | grep -q -x -F "$1"; }

# Initiator log lines written since mark_log.
mark_log() { LOG_MARK=$(wc -l <"$INIT_LOG"); }
new_log() { tail -n "+$((LOG_MARK + 1))" "$INIT_LOG"; }

# connect_to SERVER REMOTE_ID: the tool connects and says so.
connect_to() {
  tool_write_config "$CFG" "$1" "$LAB_USER" "$LAB_PASSWORD" "$2"
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15
}

# Ends the connected tool with SIGTERM: status 0.
stop_tool() {
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM"
}

# fails_with SERVER REMOTE_ID REASON: status 1 within 15 s after exactly
# "IKEv2 Last disconnect error: REASON", never Connected.
fails_with() {
  tool_write_config "$CFG" "$1" "$LAB_USER" "$LAB_PASSWORD" "$2"
  tool_start -c "$CFG"
  tool_wait_exit 15 || return 1
  expect_eq "$TOOL_RC" 1 "status" || return 1
  expect_eq "$(tool_last_error)" "$3" "disconnect reason" || return 1
  ! tool_has_line "$MSG_CONNECTED" || { fail "the tool said Connected"; return 1; }
  tool_lines_well_formed
}

case_ca_only_in_the_system_trust_store_is_trusted() {
  local name
  name=$(anchor_name "$SYS_ROOT")
  [ "$(ls "$LAB_DIR/init/x509ca")" = lab-ca.pem ] || { fail "charon's CA folder holds more than the lab CA"; return 1; }
  lab_system_ca_edit has "$SYS_ROOT" || { fail "the CA is not in the private trust store"; return 1; }
  ! charon_has_authority "$name" || { fail "charon holds the CA before the tool ran"; return 1; }
  mark_log
  connect_to "$LAB_LINK_SYSCA" "$LAB_SYSCA_NAME" || return 1
  new_log | grep -q -F "received issuer cert \"C=ZZ, O=Orvane System, CN=Orvane System Intermediate" \
    || { fail "the intermediate CA did not come from the server"; return 1; }
  echo "ok: the server sent the intermediate CA"
  charon_has_authority "$name" || { fail "charon does not hold the store's CA as $name"; return 1; }
  echo "ok: charon holds $(lab_vici_init get-authorities | grep -c '^orvane-ikev2-system-ca-') CAs of the store"
  stop_tool
}

case_revoked_server_certificate_fails_as_revoked() {
  mark_log
  fails_with "$LAB_LINK_REVOKED" "$LAB_REVOKED_NAME" "server certificate revoked" || return 1
  new_log | grep -q "certificate was revoked on" || { fail "charon did not find the certificate revoked"; return 1; }
  grep -q 'GET /lab.crl' "$LAB_DIR/crl-http.out" || { fail "nobody fetched the CRL"; return 1; }
  echo "ok: the CRL was fetched and named the certificate"
}

case_unreachable_revocation_server_is_no_failure() {
  # The lab CA is in charon's own CA folder: that keeps working beside the
  # system's CAs.
  mark_log
  connect_to "$LAB_LINK_CRLGONE" "$LAB_CRLGONE_NAME" || return 1
  new_log | grep -q -F "fetching crl from '$LAB_CRL_GONE_URL'" || { fail "charon did not try the CRL"; return 1; }
  echo "ok: the CRL at $LAB_CRL_GONE_URL could not be fetched, the connection stands"
  stop_tool
}

case_server_waiting_to_be_asked_for_its_certificate_is_named() {
  fails_with "$LAB_LINK_QUIET" "$LAB_SERVER_NAME" "server sent no certificate"
}

case_ca_removed_from_the_system_trust_store_is_no_longer_trusted() {
  local name
  name=$(anchor_name "$SYS_ROOT")
  connect_to "$LAB_LINK_SYSCA" "$LAB_SYSCA_NAME" || return 1
  stop_tool || return 1
  charon_has_authority "$name" || { fail "charon does not hold the CA after a connect"; return 1; }
  lab_system_ca_remove "$SYS_ROOT" || return 1
  fails_with "$LAB_LINK_SYSCA" "$LAB_SYSCA_NAME" "server certificate not trusted"
  local rc=$?
  ! charon_has_authority "$name" || { fail "charon still holds the CA that left the store"; rc=1; }
  [ $rc = 0 ] && echo "ok: the tool unloaded the CA that left the store"
  lab_system_ca_add "$SYS_ROOT" || return 1
  return $rc
}

t_case case_ca_only_in_the_system_trust_store_is_trusted "a CA only in the system trust store, through an intermediate the server sends: Connected"
t_case case_revoked_server_certificate_fails_as_revoked "a server certificate revoked in its CRL: status 1, \"server certificate revoked\""
t_case case_unreachable_revocation_server_is_no_failure "a CRL server that cannot be reached: Connected all the same"
t_case case_server_waiting_to_be_asked_for_its_certificate_is_named "a server that sends its certificate only when asked: \"server sent no certificate\""
t_case case_ca_removed_from_the_system_trust_store_is_no_longer_trusted "a CA taken out of the system trust store: \"server certificate not trusted\""
suite_end
