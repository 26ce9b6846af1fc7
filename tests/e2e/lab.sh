# shellcheck shell=bash
# A throw-away IKEv2 lab: two strongSwan charons in their own network
# namespaces, joined by one veth pair. Sourced by the suites beside it (bash);
# lab_selftest.sh proves it with swanctl alone (no orvane-ikev2 involved);
# `tests/e2e/lab.sh probe` says whether this host can run it.
#
#   initiator namespace ovi-ID                 responder namespace ovr-ID
#   charon (initiator), private /run and        charon (responder), private /run
#   /var/lib; swanctl or orvane-ikev2 run       swanctl.conf: connections "srv",
#   here via nsenter -t <charon pid> -m -n      "rogue", "echo" and "noprop"
#
#   ipsec0 (TUN, kernel-libipsec)               ipsec0 (TUN, kernel-libipsec)
#     virtual IP from 198.51.100.10-99            lo 198.51.100.1/32 (ping target)
#   veth oviID 192.0.2.1/24  <--------------->  veth ovrID 192.0.2.2/24 (srv)
#                                                          192.0.2.3/24 (rogue)
#                                                          192.0.2.4/24 (echo)
#                                                          192.0.2.5/24 (noprop)
#
#   srv   192.0.2.2: vpn.orvane.test, certificate from the trusted lab CA;
#         a client asking for another server identity gets AUTH_FAILED.
#   rogue 192.0.2.3: vpn.orvane.test, certificate from an untrusted CA.
#   echo  192.0.2.4: the lab CA's vpn.orvane.test certificate, but answers
#         with whatever server identity the client asked for, so the client
#         itself finds that the identity is not in the certificate.
#   noprop 192.0.2.5: like srv, but accepts only aes128-sha256-modp3072 for
#         IKE, so the client's proposal is refused (NO_PROPOSAL_CHOSEN).
#   More servers can join a running lab (lab_add_resp_conn): reauth, which
#   demands re-authentication, and noesp, which refuses the tunnel's ESP.
#   EAP-MSCHAPv2 user: $LAB_USER / $LAB_PASSWORD (random per run).
#   The initiator trusts only the lab CA and gives up after ~4.4 s
#   (retransmit_tries 2, timeout 1.0, base 1.4).
#
# Optional parts, asked for by setting these before lab_up:
#
#   LAB_TRUST=1  the initiator gets a private /etc (an overlay; its trust
#                store and resolv.conf are the lab's, the machine's are never
#                touched), and the responder more servers:
#     sysca   192.0.2.6: sys.orvane.test, from a CA that is only in the
#             initiator's system trust store (/etc/ssl/certs/ca-certificates
#             .crt, where update-ca-certificates puts it), through an
#             intermediate CA that only the server has and sends.
#     revoked 192.0.2.7: revoked.orvane.test, lab CA, revoked in the CRL
#             that the responder serves at http://192.0.2.2:8080/lab.crl.
#     crlgone 192.0.2.8: crlgone.orvane.test, lab CA, its CRL at
#             203.0.113.1, which the initiator cannot reach.
#     quiet   192.0.2.10: like srv, but sends its certificate only when
#             asked for it (strongSwan's default, send_cert = ifasked).
#   LAB_DNS=1    the private /etc as above, charon's resolve plugin in the
#                initiator, and:
#     dns     192.0.2.9: vpn.orvane.test, assigns virtual IPs from
#             198.51.100.100-149 and the DNS server 198.51.100.53 (lo of the
#             responder), which answers $LAB_DNS_NAME with $LAB_DNS_ANSWER
#             through the tunnel and logs every query.
#
# Every name carries a per-run id, so parallel runs do not clash. Every
# process and namespace the lab starts is removed by PID / name on every exit
# path (lab_cleanup runs from the EXIT trap set by lab_init).

LAB_SRC_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
LAB_CHARON=${LAB_CHARON:-/usr/lib/ipsec/charon}

LAB_LINK_INIT=192.0.2.1
LAB_LINK_RESP=192.0.2.2
LAB_LINK_ROGUE=192.0.2.3
LAB_LINK_ECHO=192.0.2.4
LAB_LINK_NOPROP=192.0.2.5
LAB_POOL_TARGET=198.51.100.1
LAB_POOL_RANGE=198.51.100.10-198.51.100.99
LAB_SERVER_NAME=vpn.orvane.test
LAB_RESP_CONN=srv
LAB_ROGUE_CONN=rogue
LAB_ECHO_CONN=echo
LAB_NOPROP_CONN=noprop
LAB_RESP_CONNS=("$LAB_RESP_CONN" "$LAB_ROGUE_CONN" "$LAB_ECHO_CONN" "$LAB_NOPROP_CONN")

# LAB_TRUST=1
LAB_LINK_SYSCA=192.0.2.6
LAB_LINK_REVOKED=192.0.2.7
LAB_LINK_CRLGONE=192.0.2.8
LAB_LINK_QUIET=192.0.2.10
LAB_SYSCA_NAME=sys.orvane.test
LAB_REVOKED_NAME=revoked.orvane.test
LAB_CRLGONE_NAME=crlgone.orvane.test
LAB_CRL_PORT=8080
LAB_CRL_URL=http://$LAB_LINK_RESP:$LAB_CRL_PORT/lab.crl
LAB_CRL_GONE_URL=http://203.0.113.1/lab.crl
# LAB_DNS=1
LAB_LINK_DNS=192.0.2.9
LAB_DNS_POOL_RANGE=198.51.100.100-198.51.100.149
LAB_DNS_SERVER=198.51.100.53
LAB_DNS_NAME=probe.orvane.test
LAB_DNS_ANSWER=198.51.100.77
# The initiator's own resolver before any tunnel: an address that never
# answers (no route), so every lookup fails at once.
LAB_RESOLV_CONF=$'# lab resolver\nnameserver 203.0.113.53\noptions timeout:1 attempts:1\n'

LAB_PIDS=()          # every long-running process started here, killed on exit
LAB_INIT_PID=
LAB_RESP_PID=
LAB_CLEANED=0

# ---------------------------------------------------------------- helpers

# Milliseconds since the epoch (bash 5 EPOCHREALTIME).
lab_now_ms() {
  local t=${EPOCHREALTIME/./}
  echo $((t / 1000))
}

lab_log() {
  printf '[%s] %s\n' "$(date -u +%H:%M:%S.%3N)" "$*"
}

# Echo a command, then run it.
run() {
  printf '[%s] + %s\n' "$(date -u +%H:%M:%S.%3N)" "$*"
  "$@"
}

# True while PID is a live process (not a zombie, not gone).
lab_alive() {
  local pid=$1 stat
  [ -n "$pid" ] || return 1
  stat=$(cat "/proc/$pid/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

lab_gone() { ! lab_alive "$1"; }

# Seconds (decimal allowed) to milliseconds.
lab_secs_to_ms() {
  local s=$1 i f=0
  i=${s%%.*}
  if [[ $s == *.* ]]; then f=${s#*.}000; f=$((10#${f:0:3})); fi
  echo $(( ${i:-0} * 1000 + f ))
}

# wait_until SECONDS COMMAND...: poll COMMAND every 50 ms until it succeeds;
# fails after SECONDS, or at once when COMMAND returns 125 (never going to
# succeed).
wait_until() {
  local limit_ms rc
  limit_ms=$(( $(lab_now_ms) + $(lab_secs_to_ms "$1") ))
  shift
  while :; do
    "$@" >/dev/null 2>&1
    rc=$?
    [ $rc -eq 0 ] && return 0
    [ $rc -eq 125 ] && return 1
    [ "$(lab_now_ms)" -ge "$limit_ms" ] && return 1
    sleep 0.05
  done
}

# stop_pid PID SECONDS: SIGTERM, wait up to SECONDS, then SIGKILL; reaps the
# process when it is our child.
lab_stop_pid() {
  local pid=$1 secs=${2:-5}
  [ -n "$pid" ] || return 0
  if lab_alive "$pid"; then
    kill -TERM "$pid" 2>/dev/null
    if ! wait_until "$secs" lab_gone "$pid"; then
      lab_log "pid $pid did not stop within ${secs}s, killing it"
      kill -KILL "$pid" 2>/dev/null
      wait_until 2 lab_gone "$pid"
    fi
  fi
  wait "$pid" 2>/dev/null
  return 0
}

lab_forget_pid() {
  local pid=$1 i
  for i in "${!LAB_PIDS[@]}"; do
    [ "${LAB_PIDS[$i]}" = "$pid" ] && unset 'LAB_PIDS[i]'
  done
}

# ---------------------------------------------------------------- probe

# Prints why this host cannot run the lab and fails, or succeeds silently.
# Arguments: further commands a suite needs.
lab_probe() {
  local c
  if [ "$(id -u)" -ne 0 ]; then echo "needs root (network namespaces, charon)"; return 1; fi
  for c in ip nsenter unshare nft pki swanctl python3 ping mount "$@"; do
    command -v "$c" >/dev/null 2>&1 || { echo "missing command: $c"; return 1; }
  done
  [ -x "$LAB_CHARON" ] || { echo "missing strongSwan charon at $LAB_CHARON"; return 1; }
  [ -c /dev/net/tun ] || { echo "no /dev/net/tun (kernel-libipsec needs a TUN device)"; return 1; }
  [ -e /usr/lib/ipsec/plugins/libstrongswan-kernel-libipsec.so ] \
    || { echo "missing kernel-libipsec plugin (libcharon-extra-plugins)"; return 1; }
  [ -e /usr/lib/ipsec/plugins/libstrongswan-eap-mschapv2.so ] \
    || { echo "missing eap-mschapv2 plugin (libcharon-extauth-plugins)"; return 1; }
  local ns=ovprobe-$$-$RANDOM
  ip netns add "$ns" 2>/dev/null || { echo "cannot create network namespaces"; return 1; }
  ip netns del "$ns"
  if lab_private_etc; then
    lab_probe_overlay || { echo "cannot mount an overlay on /etc in a mount namespace"; return 1; }
  fi
  return 0
}

# The initiator gets a private /etc.
lab_private_etc() { [ "${LAB_TRUST:-0}" = 1 ] || [ "${LAB_DNS:-0}" = 1 ]; }

lab_probe_overlay() {
  local d rc
  d=$(mktemp -d /tmp/orvane-overlay-probe.XXXXXX) || return 1
  mkdir "$d/upper" "$d/work"
  unshare -m --propagation private \
    mount -t overlay lab-probe -o "lowerdir=/etc,upperdir=$d/upper,workdir=$d/work" /etc 2>/dev/null
  rc=$?
  rm -rf "$d"
  return $rc
}

# Skip (status 77) with a reason, except under CI=true where a skip fails.
# Arguments: as lab_probe.
lab_require() {
  local why
  if ! why=$(lab_probe "$@"); then
    if [ "${CI:-}" = true ]; then
      echo "FAIL: cannot run on this host under CI: $why"
      exit 1
    fi
    echo "SKIP: $why"
    exit 77
  fi
}

# ---------------------------------------------------------------- setup

lab_init() {
  LAB_ID=$(printf '%04x%02x' $(( $$ & 0xffff )) $(( RANDOM & 0xff )))
  LAB_NS_INIT=ovi-$LAB_ID
  LAB_NS_RESP=ovr-$LAB_ID
  LAB_VETH_INIT=ovi$LAB_ID
  LAB_VETH_RESP=ovr$LAB_ID
  LAB_DIR=$(mktemp -d "/tmp/orvane-e2e-$LAB_ID.XXXXXX")
  chmod 700 "$LAB_DIR"
  LAB_USER=alice$LAB_ID
  LAB_PASSWORD=Pw-$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')
  # Whatever runs in the lab finds the system bus at the initiator's own
  # /run/dbus/system_bus_socket (or none), never the machine's.
  unset DBUS_SYSTEM_BUS_ADDRESS
  # Subshells inherit these traps (a subshell killed with SIGTERM runs them):
  # only the main shell may clean up.
  LAB_MAIN_PID=$BASHPID
  trap lab_cleanup EXIT
  trap 'exit 143' TERM
  trap 'exit 130' INT
  trap 'exit 129' HUP
  lab_log "lab $LAB_ID in $LAB_DIR"
}

lab_cleanup() {
  local rc=$? pid
  [ "$BASHPID" = "$LAB_MAIN_PID" ] || return
  [ "$LAB_CLEANED" = 1 ] && return
  LAB_CLEANED=1
  trap - EXIT
  trap '' TERM INT HUP
  if [ "$rc" -ne 0 ] && [ "$rc" -ne 77 ] && [ -n "${LAB_DIR:-}" ]; then
    lab_dump_logs
  fi
  for pid in "${LAB_PIDS[@]}"; do
    lab_stop_pid "$pid" 3
  done
  LAB_PIDS=()
  [ -n "${LAB_NS_INIT:-}" ] && ip netns del "$LAB_NS_INIT" 2>/dev/null
  [ -n "${LAB_NS_RESP:-}" ] && ip netns del "$LAB_NS_RESP" 2>/dev/null
  [ -n "${LAB_NS_CLIENT:-}" ] && ip netns del "$LAB_NS_CLIENT" 2>/dev/null
  if [ -n "${LAB_DIR:-}" ] && [ -d "$LAB_DIR" ]; then
    if [ "${LAB_KEEP:-0}" = 1 ]; then lab_log "kept $LAB_DIR"; else rm -rf "$LAB_DIR"; fi
  fi
  exit "$rc"
}

lab_dump_logs() {
  local f
  for f in "$LAB_DIR"/*.log "$LAB_DIR"/*.out; do
    [ -s "$f" ] || continue
    echo "----- last lines of $f"
    tail -n 40 "$f"
  done
}

# Test CA, server certificate, and a second untrusted CA with a server
# certificate for the same name.
lab_make_pki() {
  # pki complains about a missing TPM library on stderr; keep that in a file
  lab_make_pki_steps "$LAB_DIR/pki" 2>>"$LAB_DIR/pki.out"
}

lab_make_pki_steps() {
  local d=$1
  mkdir -p "$d"
  run pki --gen --type ecdsa --size 256 --outform pem >"$d/ca.key" || return 1
  run pki --self --ca --lifetime 30 --in "$d/ca.key" --type ecdsa \
    --dn "C=ZZ, O=Orvane Lab, CN=Orvane Lab CA $LAB_ID" --outform pem >"$d/ca.pem" || return 1
  run pki --gen --type rsa --size 2048 --outform pem >"$d/server.key" || return 1
  run pki --issue --lifetime 30 --cacert "$d/ca.pem" --cakey "$d/ca.key" \
    --type priv --in "$d/server.key" --dn "C=ZZ, O=Orvane Lab, CN=$LAB_SERVER_NAME" \
    --san "$LAB_SERVER_NAME" --san "$LAB_LINK_RESP" --flag serverAuth --flag ikeIntermediate \
    --outform pem >"$d/server.pem" || return 1
  run pki --gen --type ecdsa --size 256 --outform pem >"$d/rogue-ca.key" || return 1
  run pki --self --ca --lifetime 30 --in "$d/rogue-ca.key" --type ecdsa \
    --dn "C=ZZ, O=Rogue, CN=Rogue CA $LAB_ID" --outform pem >"$d/rogue-ca.pem" || return 1
  # its own key: charon caches peer certificates, and a rogue certificate
  # with the genuine key would pass once the genuine one had been seen
  run pki --gen --type rsa --size 2048 --outform pem >"$d/rogue.key" || return 1
  run pki --issue --lifetime 30 --cacert "$d/rogue-ca.pem" --cakey "$d/rogue-ca.key" \
    --type priv --in "$d/rogue.key" --dn "C=ZZ, O=Rogue, CN=$LAB_SERVER_NAME" \
    --san "$LAB_SERVER_NAME" --san "$LAB_LINK_ROGUE" --flag serverAuth --flag ikeIntermediate \
    --outform pem >"$d/rogue.pem" || return 1
  if [ "${LAB_TRUST:-0}" = 1 ]; then lab_make_trust_pki "$d"; fi
}

# lab_issue DIR NAME ISSUER SUBJECT_CN SAN... [-- EXTRA pki OPTIONS]: an
# ECDSA key NAME.key and a server certificate NAME.pem from ISSUER(.pem/.key).
lab_issue() {
  local d=$1 name=$2 issuer=$3 cn=$4 sans=() extra=()
  shift 4
  while [ $# -gt 0 ] && [ "$1" != -- ]; do sans+=(--san "$1"); shift; done
  [ "${1:-}" = -- ] && { shift; extra=("$@"); }
  run pki --gen --type ecdsa --size 256 --outform pem >"$d/$name.key" || return 1
  run pki --issue --lifetime 30 --cacert "$d/$issuer.pem" --cakey "$d/$issuer.key" \
    --type priv --in "$d/$name.key" --dn "C=ZZ, O=Orvane Lab, CN=$cn" "${sans[@]}" \
    --flag serverAuth --flag ikeIntermediate "${extra[@]}" --outform pem >"$d/$name.pem"
}

# LAB_TRUST: a root CA for the system trust store with an intermediate CA,
# the servers' certificates, and the lab CA's CRL revoking one of them.
lab_make_trust_pki() {
  local d=$1
  run pki --gen --type ecdsa --size 256 --outform pem >"$d/sys-root.key" || return 1
  run pki --self --ca --lifetime 30 --in "$d/sys-root.key" --type ecdsa \
    --dn "C=ZZ, O=Orvane System, CN=Orvane System Root $LAB_ID" --outform pem >"$d/sys-root.pem" || return 1
  run pki --gen --type ecdsa --size 256 --outform pem >"$d/sys-int.key" || return 1
  run pki --issue --lifetime 30 --cacert "$d/sys-root.pem" --cakey "$d/sys-root.key" --ca \
    --type priv --in "$d/sys-int.key" --dn "C=ZZ, O=Orvane System, CN=Orvane System Intermediate $LAB_ID" \
    --outform pem >"$d/sys-int.pem" || return 1
  lab_issue "$d" sys sys-int "$LAB_SYSCA_NAME" "$LAB_SYSCA_NAME" "$LAB_LINK_SYSCA" || return 1
  lab_issue "$d" revoked ca "$LAB_REVOKED_NAME" "$LAB_REVOKED_NAME" "$LAB_LINK_REVOKED" \
    -- --crl "$LAB_CRL_URL" || return 1
  lab_issue "$d" crlgone ca "$LAB_CRLGONE_NAME" "$LAB_CRLGONE_NAME" "$LAB_LINK_CRLGONE" \
    -- --crl "$LAB_CRL_GONE_URL" || return 1
  mkdir -p "$d/crl"
  # not through run: its echo would land in the DER file
  lab_log "+ pki --signcrl --cacert $d/ca.pem --cakey $d/ca.key --lifetime 30 --reason key-compromise --cert $d/revoked.pem >$d/crl/lab.crl"
  pki --signcrl --cacert "$d/ca.pem" --cakey "$d/ca.key" --lifetime 30 \
    --reason key-compromise --cert "$d/revoked.pem" >"$d/crl/lab.crl"
}

# strongswan.conf for one role: kernel-libipsec, file log with millisecond
# stamps, default VICI socket inside the role's private /run.
lab_write_strongswan_conf() {
  local role=$1 extra=$2 resolve=no
  # only with a private /etc: the plugin rewrites /etc/resolv.conf
  [ "$role" = init ] && [ "${LAB_DNS:-0}" = 1 ] && resolve=yes
  cat >"$LAB_DIR/$role/strongswan.conf" <<EOF
charon {
  load_modular = yes
  plugins {
    include /etc/strongswan.d/charon/*.conf
    kernel-libipsec {
      load = yes
    }
    resolve {
      load = $resolve
    }
    revocation {
      # a revocation server that never answers costs this per fetch
      timeout = 2s
    }
    tpm {
      load = no
    }
    vici {
      socket = unix:///run/charon.vici
    }
  }
  filelog {
    lab {
      path = $LAB_DIR/charon-$role.log
      time_format = %Y-%m-%d %H:%M:%S
      time_add_ms = yes
      ike_name = yes
      append = yes
      flush_line = yes
      default = 1
      ike = 2
      cfg = 2
      knl = 1
    }
  }
  syslog {
    daemon {
      default = -1
    }
  }
$extra
}
EOF
}

# One responder connection: NAME bound to ADDRESS, authenticating with CERT
# under identity ID (%any: answer with whatever identity the client asked
# for), clients by EAP-MSCHAPv2, virtual IPs from POOL (default lab-pool);
# IKE proposals PROPOSALS (default: the tool's aes256-sha256-modp2048 and
# one more); the certificate sent as SEND_CERT says (default always).
lab_resp_conn() {
  local proposals=${5:-aes256-sha256-modp2048, aes128-sha256-modp2048}
  cat <<EOF
  $1 {
    version = 2
    local_addrs = $2
    pools = ${6:-lab-pool}
    proposals = $proposals
    send_certreq = no
    # always: as servers for Apple's clients, which ask for no certificate
    send_cert = ${7:-always}
    local {
      auth = pubkey
      certs = $3
      id = $4
    }
    remote {
      auth = eap-mschapv2
      eap_id = %any
    }
    children {
      $1 {
        local_ts = 0.0.0.0/0
        esp_proposals = aes256-sha256-modp2048, aes256-sha256, aes128-sha256, aes128-sha1
      }
    }
  }
EOF
}

lab_write_configs() {
  local r=$LAB_DIR/resp i=$LAB_DIR/init d=$LAB_DIR/pki sub
  for sub in x509 x509ca x509ocsp x509aa x509ac x509crl pubkey private rsa ecdsa bliss pkcs8 pkcs12; do
    mkdir -p "$r/$sub" "$i/$sub"
  done
  chmod 700 "$r/private" "$i/private"
  cp "$d/server.pem" "$d/rogue.pem" "$r/x509/"
  cp "$d/server.key" "$d/rogue.key" "$r/private/"
  cp "$d/ca.pem" "$i/x509ca/lab-ca.pem"
  if [ "${LAB_TRUST:-0}" = 1 ]; then
    cp "$d/sys.pem" "$d/revoked.pem" "$d/crlgone.pem" "$r/x509/"
    cp "$d/sys.key" "$d/revoked.key" "$d/crlgone.key" "$r/private/"
    # the responder builds (and sends) its chain from these
    cp "$d/sys-int.pem" "$d/sys-root.pem" "$r/x509ca/"
    LAB_RESP_CONNS+=(sysca revoked crlgone quiet)
  fi
  [ "${LAB_DNS:-0}" = 1 ] && LAB_RESP_CONNS+=(dns)

  lab_write_strongswan_conf resp ""
  lab_write_strongswan_conf init "  retransmit_tries = 2
  retransmit_timeout = 1.0
  retransmit_base = 1.4"

  {
    echo "connections {"
    lab_resp_conn "$LAB_RESP_CONN" "$LAB_LINK_RESP" server.pem "$LAB_SERVER_NAME"
    lab_resp_conn "$LAB_ROGUE_CONN" "$LAB_LINK_ROGUE" rogue.pem "$LAB_SERVER_NAME"
    lab_resp_conn "$LAB_ECHO_CONN" "$LAB_LINK_ECHO" server.pem %any
    lab_resp_conn "$LAB_NOPROP_CONN" "$LAB_LINK_NOPROP" server.pem "$LAB_SERVER_NAME" aes128-sha256-modp3072
    if [ "${LAB_TRUST:-0}" = 1 ]; then
      lab_resp_conn sysca "$LAB_LINK_SYSCA" sys.pem "$LAB_SYSCA_NAME"
      lab_resp_conn revoked "$LAB_LINK_REVOKED" revoked.pem "$LAB_REVOKED_NAME"
      lab_resp_conn crlgone "$LAB_LINK_CRLGONE" crlgone.pem "$LAB_CRLGONE_NAME"
      lab_resp_conn quiet "$LAB_LINK_QUIET" server.pem "$LAB_SERVER_NAME" "" "" ifasked
    fi
    if [ "${LAB_DNS:-0}" = 1 ]; then
      lab_resp_conn dns "$LAB_LINK_DNS" server.pem "$LAB_SERVER_NAME" "" dns-pool
    fi
    cat <<EOF
}
pools {
  lab-pool {
    addrs = $LAB_POOL_RANGE
  }
  dns-pool {
    addrs = $LAB_DNS_POOL_RANGE
    dns = $LAB_DNS_SERVER
  }
}
secrets {
  eap-lab {
    id = $LAB_USER
    secret = "$LAB_PASSWORD"
  }
}
EOF
  } >"$r/swanctl.conf"
  chmod 600 "$r/swanctl.conf"

  # The initiator's own file only makes it trust the lab CA (x509ca/).
  cat >"$i/swanctl.conf" <<EOF
# trust anchors come from x509ca/
EOF
}

lab_make_netns() {
  run ip netns add "$LAB_NS_INIT"
  run ip netns add "$LAB_NS_RESP"
  # No IPv6: its link-local address settling after the link comes up makes
  # charon send a MOBIKE address update right after a connect.
  run ip netns exec "$LAB_NS_INIT" sysctl -q -w net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  run ip netns exec "$LAB_NS_RESP" sysctl -q -w net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  run ip link add "$LAB_VETH_INIT" netns "$LAB_NS_INIT" type veth peer name "$LAB_VETH_RESP" netns "$LAB_NS_RESP"
  run ip -n "$LAB_NS_INIT" addr add "$LAB_LINK_INIT/24" dev "$LAB_VETH_INIT"
  run ip -n "$LAB_NS_RESP" addr add "$LAB_LINK_RESP/24" dev "$LAB_VETH_RESP"
  run ip -n "$LAB_NS_RESP" addr add "$LAB_LINK_ROGUE/24" dev "$LAB_VETH_RESP"
  run ip -n "$LAB_NS_RESP" addr add "$LAB_LINK_ECHO/24" dev "$LAB_VETH_RESP"
  run ip -n "$LAB_NS_RESP" addr add "$LAB_LINK_NOPROP/24" dev "$LAB_VETH_RESP"
  run ip -n "$LAB_NS_RESP" addr add "$LAB_POOL_TARGET/32" dev lo
  if [ "${LAB_TRUST:-0}" = 1 ]; then
    for a in "$LAB_LINK_SYSCA" "$LAB_LINK_REVOKED" "$LAB_LINK_CRLGONE" "$LAB_LINK_QUIET"; do
      run ip -n "$LAB_NS_RESP" addr add "$a/24" dev "$LAB_VETH_RESP"
    done
  fi
  if [ "${LAB_DNS:-0}" = 1 ]; then
    run ip -n "$LAB_NS_RESP" addr add "$LAB_LINK_DNS/24" dev "$LAB_VETH_RESP"
    run ip -n "$LAB_NS_RESP" addr add "$LAB_DNS_SERVER/32" dev lo
  fi
  run ip -n "$LAB_NS_INIT" link set lo up
  run ip -n "$LAB_NS_RESP" link set lo up
  run ip -n "$LAB_NS_INIT" link set "$LAB_VETH_INIT" up
  run ip -n "$LAB_NS_RESP" link set "$LAB_VETH_RESP" up
}

# The VICI socket of charon PID exists; fails at once if charon died.
lab_socket_ready() {
  lab_alive "$1" || return 125
  test -S "/proc/$1/root/run/charon.vici"
}

# lab_start_charon ROLE: starts charon for ROLE (init|resp) in its network
# namespace and a new mount namespace with a private /run (and, for the
# initiator, a private /var/lib); waits up to 10 s for its VICI socket.
lab_start_charon() {
  local role=$1 ns mounts pid t0
  if [ "$role" = init ]; then
    ns=$LAB_NS_INIT
    mounts='mount -t tmpfs -o mode=0755 lab-run /run && mount -t tmpfs -o mode=0755 lab-varlib /var/lib'
    if lab_private_etc; then
      # kept in $LAB_DIR, so a restarted charon finds what the last one left
      mkdir -p "$LAB_DIR/init/etc.upper" "$LAB_DIR/init/etc.work"
      mounts="$mounts && mount -t overlay lab-etc -o lowerdir=/etc,upperdir=$LAB_DIR/init/etc.upper,workdir=$LAB_DIR/init/etc.work /etc"
      if [ ! -e "$LAB_DIR/init/resolv.conf.lab" ]; then
        printf '%s' "$LAB_RESOLV_CONF" >"$LAB_DIR/init/resolv.conf.lab"
        mounts="$mounts && rm -f /etc/resolv.conf && cp $LAB_DIR/init/resolv.conf.lab /etc/resolv.conf"
      fi
    fi
  else
    ns=$LAB_NS_RESP
    mounts='mount -t tmpfs -o mode=0755 lab-run /run'
  fi
  t0=$(lab_now_ms)
  printf '[%s] + STRONGSWAN_CONF=%s ip netns exec %s unshare -m sh -c "%s && exec %s" &\n' \
    "$(date -u +%H:%M:%S.%3N)" "$LAB_DIR/$role/strongswan.conf" "$ns" "$mounts" "$LAB_CHARON"
  STRONGSWAN_CONF=$LAB_DIR/$role/strongswan.conf \
    ip netns exec "$ns" unshare -m --propagation private \
    sh -c "$mounts && exec $LAB_CHARON" >>"$LAB_DIR/charon-$role.out" 2>&1 </dev/null &
  pid=$!
  LAB_PIDS+=("$pid")
  if ! wait_until 10 lab_socket_ready "$pid"; then
    lab_log "charon ($role) did not open its VICI socket within 10 s"
    return 1
  fi
  if [ "$(cat "/proc/$pid/comm" 2>/dev/null)" != charon ]; then
    lab_log "pid $pid is not charon"
    return 1
  fi
  lab_log "charon ($role) pid $pid ready in $(( $(lab_now_ms) - t0 )) ms"
  if [ "$role" = init ]; then LAB_INIT_PID=$pid; else LAB_RESP_PID=$pid; fi
}

lab_stop_charon() {
  local role=$1 pid t0
  if [ "$role" = init ]; then pid=$LAB_INIT_PID; LAB_INIT_PID=; else pid=$LAB_RESP_PID; LAB_RESP_PID=; fi
  [ -n "$pid" ] || return 0
  t0=$(lab_now_ms)
  lab_stop_pid "$pid" 5
  lab_forget_pid "$pid"
  lab_log "charon ($role) pid $pid stopped in $(( $(lab_now_ms) - t0 )) ms"
}

# Commands in the namespaces (network and mount) of a running charon.
in_init() { nsenter -t "$LAB_INIT_PID" -m -n "$@"; }
in_resp() { nsenter -t "$LAB_RESP_PID" -m -n "$@"; }

lab_resp_load() {
  run in_resp swanctl --load-all --noprompt --file "$LAB_DIR/resp/swanctl.conf" >>"$LAB_DIR/swanctl-resp.out" 2>&1 \
    || { lab_log "responder swanctl --load-all failed"; tail -n 20 "$LAB_DIR/swanctl-resp.out"; return 1; }
}

lab_init_load() {
  run in_init swanctl --load-creds --noprompt --file "$LAB_DIR/init/swanctl.conf" >>"$LAB_DIR/swanctl-init.out" 2>&1 \
    || { lab_log "initiator swanctl --load-creds failed"; tail -n 20 "$LAB_DIR/swanctl-init.out"; return 1; }
}

# A second, bare client namespace ovc-ID (no charon in it) with its own veth
# to the responder: 192.0.2.129/25 here, 192.0.2.130/25 at the responder,
# and the rest of 192.0.2.0/24 through the responder. For one-shot clients
# (charon-cmd) that bring their own IKE daemon.
lab_add_client() {
  LAB_NS_CLIENT=ovc-$LAB_ID
  run ip netns add "$LAB_NS_CLIENT"
  run ip netns exec "$LAB_NS_CLIENT" sysctl -q -w net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  run ip link add "ovc$LAB_ID" netns "$LAB_NS_CLIENT" type veth peer name "ovs$LAB_ID" netns "$LAB_NS_RESP"
  run ip -n "$LAB_NS_CLIENT" addr add 192.0.2.129/25 dev "ovc$LAB_ID"
  run ip -n "$LAB_NS_RESP" addr add 192.0.2.130/25 dev "ovs$LAB_ID"
  run ip -n "$LAB_NS_CLIENT" link set lo up
  run ip -n "$LAB_NS_CLIENT" link set "ovc$LAB_ID" up
  run ip -n "$LAB_NS_RESP" link set "ovs$LAB_ID" up
  run ip -n "$LAB_NS_CLIENT" route add 192.0.2.0/24 via 192.0.2.130
}

# lab_resp_add_eap_user ID PASSWORD: the responder also takes this EAP
# user; ID as swanctl.conf spells an identity (quoted: '#' would start a
# comment).
lab_resp_add_eap_user() {
  printf 'secrets {\n  eap-lab-%s {\n    id = "%s"\n    secret = "%s"\n  }\n}\n' \
    "$(printf '%s' "$1" | md5sum | cut -c1-8)" "$1" "$2" >>"$LAB_DIR/resp/swanctl.conf"
  run in_resp swanctl --load-creds --noprompt --file "$LAB_DIR/resp/swanctl.conf" >>"$LAB_DIR/swanctl-resp.out" 2>&1
}

lab_start_responder() { lab_start_charon resp && lab_resp_load; }
lab_start_initiator() { lab_start_charon init && lab_init_load; }
lab_restart_responder() { lab_stop_charon resp; lab_start_responder; }

# The whole lab: names, PKI, configurations, namespaces, both charons.
lab_up() {
  local t0
  t0=$(lab_now_ms)
  [ -n "${LAB_ID:-}" ] || lab_init
  lab_make_pki || return 1
  lab_write_configs || return 1
  lab_make_netns || return 1
  lab_start_responder || return 1
  lab_start_initiator || return 1
  if [ "${LAB_TRUST:-0}" = 1 ]; then
    lab_start_crl_server || return 1
    lab_system_ca_add "$LAB_DIR/pki/sys-root.pem" || return 1
  fi
  if [ "${LAB_DNS:-0}" = 1 ]; then lab_start_dns_server || return 1; fi
  lab_log "lab up in $(( $(lab_now_ms) - t0 )) ms"
}

# ---------------------------------------------------------------- optional servers

# The lab CA's CRL over HTTP from the responder's namespace.
lab_start_crl_server() {
  printf '[%s] + ip netns exec %s python3 -m http.server %s --bind %s --directory %s &\n' \
    "$(date -u +%H:%M:%S.%3N)" "$LAB_NS_RESP" "$LAB_CRL_PORT" "$LAB_LINK_RESP" "$LAB_DIR/pki/crl"
  ip netns exec "$LAB_NS_RESP" python3 -m http.server "$LAB_CRL_PORT" --bind "$LAB_LINK_RESP" \
    --directory "$LAB_DIR/pki/crl" >>"$LAB_DIR/crl-http.out" 2>&1 </dev/null &
  LAB_PIDS+=("$!")
  wait_until 10 lab_crl_served || { lab_log "the CRL server did not answer within 10 s"; return 1; }
}

lab_crl_served() {
  ip netns exec "$LAB_NS_RESP" python3 -c 'import sys, urllib.request
sys.exit(0 if urllib.request.urlopen(sys.argv[1], timeout=1).read() else 1)' "$LAB_CRL_URL"
}

# A DNS server on the responder's lo, reachable only through the tunnel:
# answers one name with one address (A), every other name with NXDOMAIN,
# and logs "query NAME from ADDRESS" per question.
lab_start_dns_server() {
  printf '[%s] + ip netns exec %s python3 - %s (DNS server) &\n' "$(date -u +%H:%M:%S.%3N)" "$LAB_NS_RESP" "$LAB_DNS_SERVER"
  ip netns exec "$LAB_NS_RESP" python3 -u -c '
import socket, struct, sys
server, name, answer = sys.argv[1:4]
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((server, 53))
print("ready", flush=True)
while True:
    data, peer = s.recvfrom(2048)
    if len(data) < 12:
        continue
    labels, i = [], 12
    while i < len(data) and data[i]:
        labels.append(data[i + 1:i + 1 + data[i]].decode(errors="replace"))
        i += 1 + data[i]
    qname, qtype = ".".join(labels), struct.unpack(">H", data[i + 1:i + 3])[0]
    print("query %s type %d from %s" % (qname, qtype, peer[0]), flush=True)
    question = data[12:i + 5]
    found = qname.lower() == name and qtype == 1
    flags = 0x8180 if qname.lower() == name else 0x8183
    reply = data[:2] + struct.pack(">HHHHH", flags, 1, 1 if found else 0, 0, 0) + question
    if found:
        reply += struct.pack(">HHHIH", 0xC00C, 1, 1, 60, 4) + socket.inet_aton(answer)
    s.sendto(reply, peer)
' "$LAB_DNS_SERVER" "$LAB_DNS_NAME" "$LAB_DNS_ANSWER" >>"$LAB_DIR/dns.out" 2>&1 </dev/null &
  LAB_PIDS+=("$!")
  wait_until 10 grep -q ready "$LAB_DIR/dns.out" || { lab_log "the DNS server did not start within 10 s"; return 1; }
}

# ---------------------------------------------------------------- system trust store

# The trust store bundle as the initiator (and the tool) see it.
LAB_SYSTEM_BUNDLE=/etc/ssl/certs/ca-certificates.crt

# The certificate block of a PEM file (the lab's files also hold the echoed
# command that made them).
lab_pem_block() {
  sed -n '/^-----BEGIN CERTIFICATE-----$/,/^-----END CERTIFICATE-----$/p' "$1"
}

# Adds a CA certificate (PEM file) to the initiator's private trust store,
# as update-ca-certificates would: the bundle gains the certificate. (The
# real tool takes seconds for the whole store; the bundle is what charon's
# clients read.)
lab_system_ca_add() {
  lab_log "+ adding $1 to the initiator's $LAB_SYSTEM_BUNDLE"
  lab_pem_block "$1" | in_init sh -c "cat >>$LAB_SYSTEM_BUNDLE"
}

# lab_system_ca_edit remove|has PEM_FILE: takes the certificate out of the
# initiator's trust store, or says whether it is in it.
lab_system_ca_edit() {
  lab_pem_block "$2" | in_init python3 -c 'import sys
path, what, cert = sys.argv[1], sys.argv[2], sys.stdin.read()
text = open(path).read()
if what == "has" or cert not in text:
    sys.exit(0 if cert in text else 1)
open(path, "w").write(text.replace(cert, "", 1))' "$LAB_SYSTEM_BUNDLE" "$1"
}
lab_system_ca_remove() {
  lab_log "+ removing $1 from the initiator's $LAB_SYSTEM_BUNDLE"
  lab_system_ca_edit remove "$1"
}

# ---------------------------------------------------------------- system bus

# A private system bus in the initiator's namespaces: a dbus-daemon on
# /run/dbus/system_bus_socket of the initiator's private /run, which is
# where every sd-bus client there (orvane-ikev2, a logind stand-in) looks
# for the system bus. The machine's own bus is never touched. Any client
# may own any name on it (tests/logind/system-bus.conf).
lab_bus_socket() { echo "/proc/$LAB_INIT_PID/root/run/dbus/system_bus_socket"; }

lab_bus_ready() {
  lab_alive "$1" || return 125
  test -S "$(lab_bus_socket)"
}

lab_start_init_bus() {
  local conf=$LAB_DIR/init/system-bus.conf pid
  sed 's|@LISTEN@|unix:path=/run/dbus/system_bus_socket|' "$LAB_SRC_DIR/../logind/system-bus.conf" >"$conf" || return 1
  run in_init mkdir -p /run/dbus || return 1
  printf '[%s] + nsenter -t %s -m -n dbus-daemon --nofork --nopidfile --config-file=%s &\n' \
    "$(date -u +%H:%M:%S.%3N)" "$LAB_INIT_PID" "$conf"
  nsenter -t "$LAB_INIT_PID" -m -n dbus-daemon --nofork --nopidfile --config-file="$conf" \
    >>"$LAB_DIR/dbus-init.out" 2>&1 </dev/null &
  pid=$!
  LAB_PIDS+=("$pid")
  if ! wait_until 5 lab_bus_ready "$pid"; then
    lab_log "the initiator's system bus did not open its socket within 5 s"
    return 1
  fi
  lab_log "system bus in the initiator's namespaces: pid $pid"
}

# ---------------------------------------------------------------- more servers

# Responder connections added to a running lab, each on an address of its
# own at the responder (192.0.2.20 and up), kept across responder restarts.
LAB_EXTRA_RESP_CONNS=()

#   reauth 192.0.2.20: like srv, but demands re-authentication (AUTH_LIFETIME)
#   noesp  192.0.2.21: like srv, but accepts no ESP proposal of the client's,
#          so the IKE_SA comes up and the tunnel (CHILD_SA) is refused
LAB_LINK_REAUTH=192.0.2.20
LAB_REAUTH_CONN=reauth
LAB_LINK_NOESP=192.0.2.21
LAB_NOESP_CONN=noesp

# lab_add_resp_conn NAME ADDRESS SED_SCRIPT: a connection like srv on
# ADDRESS, its swanctl text edited by SED_SCRIPT; reloads the responder.
lab_add_resp_conn() {
  local name=$1 address=$2 edit=$3
  run ip -n "$LAB_NS_RESP" addr add "$address/24" dev "$LAB_VETH_RESP" || return 1
  {
    echo "connections {"
    lab_resp_conn "$name" "$address" server.pem "$LAB_SERVER_NAME" | sed "$edit"
    echo "}"
  } >>"$LAB_DIR/resp/swanctl.conf"
  LAB_EXTRA_RESP_CONNS+=("$name")
  lab_resp_load
}

# lab_add_reauth_responder SECONDS: the reauth server, demanding a new
# authentication every SECONDS (no jitter).
lab_add_reauth_responder() {
  lab_add_resp_conn "$LAB_REAUTH_CONN" "$LAB_LINK_REAUTH" \
    "/^    version = 2\$/a\\    reauth_time = ${1}s\\n    rand_time = 0s"
}

lab_add_noesp_responder() {
  lab_add_resp_conn "$LAB_NOESP_CONN" "$LAB_LINK_NOESP" 's/esp_proposals = .*/esp_proposals = aes128-sha1/'
}

# ---------------------------------------------------------------- queries

# Minimal VICI client (python3) run inside a namespace: vici.py CMD ...
lab_vici_init() { in_init python3 "$LAB_SRC_DIR/vici.py" "$@"; }
lab_vici_resp() { in_resp python3 "$LAB_SRC_DIR/vici.py" "$@"; }

# Number of IKE_SAs the responder holds (any state).
lab_resp_sa_count() {
  lab_vici_resp count-sas
}

lab_resp_no_sa() { [ "$(lab_resp_sa_count)" = 0 ]; }

# Drop every IKE SA the responder holds (half-open ones included).
lab_resp_flush_sas() {
  local c
  for c in "${LAB_RESP_CONNS[@]}" "${LAB_EXTRA_RESP_CONNS[@]}"; do
    in_resp swanctl --terminate --ike "$c" --force --timeout 2 >/dev/null 2>&1
  done
  wait_until 5 lab_resp_no_sa
}

# Make the responder unreachable (drop IKE and ESP-in-UDP), and back.
lab_block_responder() {
  run in_resp nft -f - <<'EOF'
table inet orvane_lab_drop {
  chain input {
    type filter hook input priority -10; policy accept;
    udp dport { 500, 4500 } drop
  }
}
EOF
}
lab_unblock_responder() {
  run in_resp nft delete table inet orvane_lab_drop
}

# lab_tun_packets ROLE rx|tx: packet counter of ipsec0 in ROLE's namespace.
lab_tun_packets() {
  local f=/sys/class/net/ipsec0/statistics/${2}_packets
  if [ "$1" = init ]; then in_init cat "$f"; else in_resp cat "$f"; fi
}

# ---------------------------------------------------------------- command

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  set -u
  case ${1:-} in
    probe)
      if why=$(lab_probe); then echo "lab can run here"; else echo "lab cannot run here: $why"; exit 1; fi ;;
    *)
      echo "usage: $0 probe" >&2
      exit 2 ;;
  esac
fi
