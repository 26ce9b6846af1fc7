#!/usr/bin/env bash
# Every value of orvane-ikev2's configuration file means the one literal
# thing the platform takes it for, against a real charon: a remote
# identifier "%any" is a name the server's certificate must hold, not "any
# server"; an IP address as remote identifier is that address; a user name
# outside ASCII is sent as it is. A value charon would read as a wildcard or
# a list is refused before anything is saved, with a line that quotes it.
# Topology and servers: lab.sh.
#
#   values.sh PATH_TO_orvane-ikev2    exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

suite_begin "${1:-}" 100

CFG=$LAB_DIR/tool.conf
PROFILE_NAME="Orvane IKEv2"

# The message of the last log line, without the log prefix.
last_message() { tail -n 1 "$TOOL_LOG" | sed -E "s/$TOOL_LINE_RE//"; }

# refused SERVER REMOTE_ID MESSAGE: the tool ends with status 1 (the save
# error's code) after exactly "IKEv2 Error saving configurations: MESSAGE",
# having saved nothing and loaded nothing into charon.
refused() {
  tool_write_config "$CFG" "$1" "$LAB_USER" "$LAB_PASSWORD" "$2"
  tool_run 10 -c "$CFG" || return 1
  expect_eq "$TOOL_RC" 1 "status" || return 1
  expect_eq "$(last_message)" "IKEv2 Error saving configurations: Error Domain=NEVPNErrorDomain Code=1 \"$3\"" "last line" || return 1
  tool_lines_well_formed || return 1
  [ ! -e "$(prefs_file)" ] || { fail "a profile was saved"; return 1; }
  ! lab_vici_init get-conns | grep -q -x -F "$PROFILE_NAME" || { fail "charon has the connection"; return 1; }
  echo "ok: nothing saved, nothing loaded into charon"
}

connects() {
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15 || return 1
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM"
}

case_remote_identifier_any_is_a_name_not_a_wildcard() {
  # To charon "%any" would accept the server whatever its name; the
  # server here is vpn.orvane.test, which is not the one asked for.
  tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "%any"
  tool_run 15 -c "$CFG" || return 1
  ! tool_has_line "$MSG_CONNECTED" || { fail "the tool connected to a server not named %any"; return 1; }
  expect_eq "$TOOL_RC" 1 "status" || return 1
  echo "reason: \"$(tool_last_error)\""
}

case_remote_identifier_address_is_that_address() {
  tool_write_config "$CFG" "$LAB_LINK_ECHO" "$LAB_USER" "$LAB_PASSWORD" "$LAB_LINK_RESP"
  connects
}

case_user_name_outside_ascii_is_sent_as_it_is() {
  local user password
  user=$(printf 'j\303\274rgen-%s' "$LAB_ID")
  password=Pw2-$LAB_ID
  printf '%s\n' "$password" >>"$LAB_DIR/password.pattern"
  lab_resp_add_eap_user "fqdn:#$(printf '%s' "$user" | od -An -tx1 | tr -d ' \n')" "$password" || return 1
  tool_write_config "$CFG" "$LAB_LINK_RESP" "$user" "$password" "$LAB_SERVER_NAME"
  connects
}

case_wildcard_remote_identifier_is_refused() {
  refused "$LAB_LINK_RESP" "*.orvane.test" \
    "remote identifier '*.orvane.test' starts with '*', which charon takes for a wildcard"
}

case_server_address_list_is_refused() {
  refused "$LAB_LINK_RESP,$LAB_LINK_ECHO" "$LAB_SERVER_NAME" \
    "server address '$LAB_LINK_RESP,$LAB_LINK_ECHO' is a list; give one address or DNS name"
}

case_server_address_range_is_refused() {
  refused "$LAB_LINK_RESP-$LAB_LINK_ECHO" "$LAB_SERVER_NAME" \
    "server address '$LAB_LINK_RESP-$LAB_LINK_ECHO' is an address range; give one address or DNS name"
}

t_case case_remote_identifier_any_is_a_name_not_a_wildcard "remote=%any: a server named otherwise is not accepted"
t_case case_remote_identifier_address_is_that_address "remote=192.0.2.2: the certificate's address identity"
t_case case_user_name_outside_ascii_is_sent_as_it_is "a UTF-8 user name authenticates as it is"
t_case case_wildcard_remote_identifier_is_refused "remote=*.orvane.test: refused at the save, quoted"
t_case case_server_address_list_is_refused "ip=a,b: refused at the save, quoted"
t_case case_server_address_range_is_refused "ip=a-b: refused at the save, quoted"
suite_end
