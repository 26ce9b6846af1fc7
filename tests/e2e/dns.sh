#!/usr/bin/env bash
# The DNS server the responder assigns is used while orvane-ikev2's tunnel
# is up (a name resolves through the tunnel), and the initiator's previous
# resolver settings come back, byte for byte, when the tunnel ends: after
# SIGTERM, after the tool is killed once its tunnel is gone, and when the
# VPN service (charon) stops. charon's resolve plugin does the work in the
# initiator's private /etc (the machine's resolv.conf is never touched).
# Topology and servers: lab.sh (LAB_DNS).
#
#   dns.sh PATH_TO_orvane-ikev2       exit 0 passed, 1 failed, 77 cannot run here

# -u without -e: a failing check marks its case failed and the suite goes on
# to its other cases and to the clean-up that removes every namespace and
# process it made; an unset name is still a bug that stops it.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lab.sh
. "$here/lab.sh"
# shellcheck source=harness.sh
. "$here/harness.sh"

LAB_DNS=1
suite_begin "${1:-}" 150

CFG=$LAB_DIR/tool.conf
tool_write_config "$CFG" "$LAB_LINK_DNS" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME"
# The initiator's resolv.conf as its private /etc holds it (readable also
# while no charon, and so no mount namespace, is there).
RESOLV=$LAB_DIR/init/etc.upper/resolv.conf
BEFORE=$LAB_DIR/init/resolv.conf.lab

resolver_is_back() { cmp -s "$BEFORE" "$RESOLV"; }

expect_resolver_back() {
  if wait_until 5 resolver_is_back; then
    echo "ok: resolv.conf is as before the tunnel"
    return 0
  fi
  fail "resolv.conf is not as before the tunnel:"
  cat "$RESOLV"
  return 1
}

# The lab name, resolved in the initiator's namespaces.
lookup() { in_init getent hosts "$LAB_DNS_NAME"; }

# While the tunnel is up: the assigned server comes first in resolv.conf
# and answers through the tunnel.
tunnel_dns_in_use() {
  local first answer
  first=$(grep -m 1 '^nameserver' "$RESOLV")
  [[ $first == "nameserver $LAB_DNS_SERVER "* ]] || { fail "first name server: '$first'"; return 1; }
  answer=$(lookup) || { fail "$LAB_DNS_NAME did not resolve"; return 1; }
  [[ $answer == "$LAB_DNS_ANSWER "* ]] || { fail "$LAB_DNS_NAME resolved to '$answer'"; return 1; }
  grep -q "query $LAB_DNS_NAME type 1 from 198\.51\.100\.1[0-4][0-9]$" "$LAB_DIR/dns.out" \
    || { fail "the DNS server saw no query from a virtual IP"; return 1; }
  echo "ok: $LAB_DNS_NAME -> $LAB_DNS_ANSWER from $LAB_DNS_SERVER through the tunnel"
}

connect_up() {
  tool_start -c "$CFG"
  tool_wait_line "$MSG_CONNECTED" 15
}

case_tunnel_dns_is_used_and_the_resolver_comes_back() {
  resolver_is_back || { fail "resolv.conf changed before the test"; return 1; }
  ! lookup >/dev/null || { fail "$LAB_DNS_NAME resolves without the tunnel"; return 1; }
  connect_up || return 1
  tunnel_dns_in_use || return 1
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM" || return 1
  expect_resolver_back
}

case_killed_tool_keeps_tunnel_and_its_dns_together() {
  # A killed tool cannot stop its tunnel: charon keeps it, and with it the
  # name server it uses; both go together (here by terminating the
  # tunnel, as the tool's next run does).
  connect_up || return 1
  run kill -KILL "$TOOL_PID"
  tool_wait_exit 5
  ! init_no_sa || { fail "the tunnel is gone with the tool"; return 1; }
  tunnel_dns_in_use || return 1
  run in_init swanctl --terminate --ike "Orvane IKEv2" --force --timeout 2 >/dev/null
  expect_resolver_back
}

case_stopped_vpn_service_gives_the_resolver_back() {
  connect_up || return 1
  lab_stop_charon init
  tool_wait_exit 10 || { fail "the tool did not end when charon stopped"; return 1; }
  expect_resolver_back || return 1
  lab_start_initiator
}

t_case case_tunnel_dns_is_used_and_the_resolver_comes_back "the assigned DNS server answers through the tunnel; after SIGTERM resolv.conf is as before"
t_case case_killed_tool_keeps_tunnel_and_its_dns_together "SIGKILL: tunnel and DNS stay together, and go together"
t_case case_stopped_vpn_service_gives_the_resolver_back "charon stops under the tunnel: resolv.conf is as before"
suite_end
