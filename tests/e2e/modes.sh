#!/usr/bin/env bash
# orvane-ikev2's check, create and remove modes (and its refusals) against a
# real charon: the profile file in the initiator's private
# /var/lib/orvane-ikev2 and the connection charon holds. Topology: lab.sh.
#
#   modes.sh PATH_TO_orvane-ikev2     exit 0 passed, 1 failed, 77 cannot run here

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
tool_write_config "$CFG" "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"
PROFILE_NAME="Orvane IKEv2"

prefs_exist() { [ -f "$(prefs_file)" ]; }
charon_has_profile() { lab_vici_init get-conns | grep -q -x -F "$PROFILE_NAME"; }

# No log line from the tool at the default level.
tool_silent() {
  if grep -q -E "$TOOL_LINE_RE" "$TOOL_LOG"; then
    fail "expected no log line, got:"; cat "$TOOL_LOG"; return 1
  fi
  echo "ok: nothing logged"
}

case_check_without_profile() {
  ! prefs_exist || { fail "a preferences file exists before any create"; return 1; }
  tool_run 10 --check -c "$CFG"
  expect_eq "$TOOL_RC" 2 "--check status without a profile" || return 1
  tool_has_line "IKEv2 configuration doesn't exist" || { fail "no \"IKEv2 configuration doesn't exist\""; return 1; }
  ! prefs_exist || { fail "--check wrote a preferences file"; return 1; }
  echo "ok: nothing written"
}

case_create_check_remove_check() {
  local mode
  tool_run 10 --create -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--create status" || return 1
  prefs_exist || { fail "no $(prefs_file) after --create"; return 1; }
  mode=$(stat -c %a "$(prefs_file)")
  expect_eq "$mode" 600 "preferences file mode" || return 1
  plist_strings "$(prefs_file)" | grep -q -x -F "$LAB_LINK_RESP" || { fail "server $LAB_LINK_RESP not in the profile"; return 1; }
  plist_strings "$(prefs_file)" | grep -q -x -F "$LAB_USER" || { fail "user $LAB_USER not in the profile"; return 1; }
  plist_strings "$(prefs_file)" | grep -q -x -F "$LAB_SERVER_NAME" || { fail "remote identifier not in the profile"; return 1; }
  echo "ok: profile holds server, user name and remote identifier"
  ! has_password -r "$(prefs_dir)" || { fail "the password is in $(prefs_dir)"; return 1; }
  echo "ok: the password is not in $(prefs_dir)"

  tool_run 10 --check -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--check status with a profile" || return 1
  tool_has_line "IKEv2 configuration already exists" || { fail "no \"IKEv2 configuration already exists\""; return 1; }

  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status" || return 1
  ! prefs_exist || { fail "preferences file still there after --remove"; return 1; }

  tool_run 10 --check -c "$CFG"
  expect_eq "$TOOL_RC" 2 "--check status after --remove" || return 1
}

case_create_loads_charon_remove_unloads() {
  tool_run 10 --create -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--create status" || return 1
  charon_has_profile || { fail "charon has no connection \"$PROFILE_NAME\" after --create"; return 1; }
  echo "ok: charon holds \"$PROFILE_NAME\""
  init_no_shared || { fail "--create loaded a shared secret into charon"; return 1; }
  echo "ok: no secret loaded by --create"
  init_no_sa || { fail "--create started an IKE_SA"; return 1; }
  echo "ok: no IKE_SA started by --create"
  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status" || return 1
  ! charon_has_profile || { fail "charon still holds \"$PROFILE_NAME\" after --remove"; return 1; }
  echo "ok: --remove unloaded it"
}

case_remove_with_nothing_saved() {
  ! prefs_exist || { fail "a preferences file is left from an earlier case"; return 1; }
  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status with nothing saved" || return 1
  tool_silent
}

case_create_without_config_uses_placeholders() {
  local want ip user strings first
  want=$(placeholder_values)
  ip=$(echo "$want" | sed -n 1p)
  user=$(echo "$want" | sed -n 2p)
  tool_run 10 --create
  expect_eq "$TOOL_RC" 0 "--create status without --config" || return 1
  prefs_exist || { fail "no preferences file"; return 1; }
  strings=$(plist_strings "$(prefs_file)")
  echo "$strings" | grep -q -x -F "$ip" || { fail "placeholder server $ip not in the profile"; echo "$strings"; return 1; }
  echo "$strings" | grep -q -x -F "$user" || { fail "placeholder user $user not in the profile"; echo "$strings"; return 1; }
  echo "ok: placeholder server $ip and user $user saved"
  first=$(cat "$(prefs_file)")
  if plist_keys "$(prefs_file)" | grep -q -i password; then
    fail "the profile has a password key:"; plist_keys "$(prefs_file)" | grep -i password; return 1
  fi
  echo "ok: no password key in the profile"
  tool_run 10 --create
  expect_eq "$TOOL_RC" 0 "second --create status" || return 1
  [ "$(cat "$(prefs_file)")" = "$first" ] || { fail "a second --create saved other placeholder values"; return 1; }
  echo "ok: the same placeholders on every run"
  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status" || return 1
}

case_check_and_create_together_create() {
  tool_run 10 --check --create -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--check --create status" || return 1
  prefs_exist || { fail "--check --create did not save the profile"; return 1; }
  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status" || return 1
}

case_missing_config_file() {
  local missing=$LAB_DIR/no-such.conf
  tool_run 10 -c "$missing"
  expect_eq "$TOOL_RC" 1 "status for a missing configuration file" || return 1
  tool_has_line "Config file $missing doesn't exist!" || { fail "no \"Config file $missing doesn't exist!\""; return 1; }
  tool_run 10 --create -c "$missing"
  expect_eq "$TOOL_RC" 1 "--create status for a missing configuration file" || return 1
  ! prefs_exist || { fail "a profile was saved"; return 1; }
}

case_connect_without_config() {
  tool_run 10
  expect_eq "$TOOL_RC" 1 "status without any option" || return 1
  tool_has_line "Must provide a config file to start vpn tunnel!" \
    || { fail "no \"Must provide a config file to start vpn tunnel!\""; return 1; }
}

case_help() {
  tool_run 10 --help
  expect_eq "$TOOL_RC" 1 "--help status" || return 1
  grep -q -e "--config" "$TOOL_LOG" || { fail "help does not name --config"; return 1; }
  tool_run 10 -h
  expect_eq "$TOOL_RC" 1 "-h status" || return 1
  tool_run 10 --no-such-option
  expect_eq "$TOOL_RC" 1 "unknown option status" || return 1
}

write_corrupt_profile() {
  mkdir -p "$(prefs_dir)"
  printf 'not a property list' >"$(prefs_file)"
}

case_corrupt_profile_is_cleared_by_remove_and_kept_aside() {
  write_corrupt_profile
  tool_run 10 --check -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--check status: the file stands for the profile" || return 1
  tool_run 10 --remove
  expect_eq "$TOOL_RC" 0 "--remove status for a corrupt profile" || return 1
  ! prefs_exist || { fail "the corrupt file is still the profile"; return 1; }
  expect_eq "$(cat "$(prefs_file).corrupt")" "not a property list" "what was kept aside" || return 1
  tool_run 10 --check -c "$CFG"
  expect_eq "$TOOL_RC" 2 "--check status after --remove" || return 1
}

case_corrupt_profile_is_replaced_by_create() {
  write_corrupt_profile
  tool_run 10 --create -c "$CFG"
  expect_eq "$TOOL_RC" 0 "--create status over a corrupt profile" || return 1
  plist_strings "$(prefs_file)" | grep -q -x -F "$LAB_LINK_RESP" || { fail "no new profile saved"; return 1; }
  expect_eq "$(cat "$(prefs_file).corrupt")" "not a property list" "what was kept aside"
}

case_endless_configuration_file() {
  tool_run 10 -c /dev/zero
  expect_eq "$TOOL_RC" 1 "status for an endless configuration file" || return 1
  tool_has_line "parse_config /dev/zero: File too large" || { fail "no parse_config line"; return 1; }
  ! prefs_exist || { fail "a profile was saved"; return 1; }
}

t_case case_check_without_profile "--check without a profile exits 2 and writes nothing"
t_case case_create_check_remove_check "--create 0, --check 0, --remove 0, --check 2; no password in the file"
t_case case_create_loads_charon_remove_unloads "--create loads the connection into charon, --remove unloads it"
t_case case_remove_with_nothing_saved "--remove with nothing saved exits 0 silently"
t_case case_create_without_config_uses_placeholders "--create without --config saves the placeholder server and user"
t_case case_check_and_create_together_create "--check --create is the create mode"
t_case case_missing_config_file "a missing configuration file ends with status 1"
t_case case_connect_without_config "connect mode without --config ends with status 1"
t_case case_corrupt_profile_is_cleared_by_remove_and_kept_aside "a corrupt profile: --remove clears it, keeping it aside"
t_case case_corrupt_profile_is_replaced_by_create "a corrupt profile: --create replaces it, keeping it aside"
t_case case_endless_configuration_file "--config /dev/zero is refused with the parse_config line, status 1"
t_case case_help "--help, -h and an unknown option end with status 1"
suite_end
