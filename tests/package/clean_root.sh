#!/usr/bin/env bash
# Installs a built .deb into a fresh Debian root (debootstrap, apt: needs
# Debian's mirror, so it is not part of the test run) and runs the README's
# connect from that root against the lab's responder: the root's own charon
# with Debian's default configuration in the initiator namespace, the
# root's /usr/sbin/orvane-ikev2 -c /root/orvane.conf. This is how the
# package's Depends were found: plugins named after the .deb are removed
# from the root first, to see the connect fail without them.
#
#   clean_root.sh ROOT DEB [PLUGIN...]     ROOT is made when it does not exist
#
# Only what a user of a kernel without IPsec ESP must do by hand is done
# here: kernel-libipsec is enabled, and the lab's CA is put where charon
# reads trust anchors.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../e2e/lab.sh
. "$here/../e2e/lab.sh"
# shellcheck source=../e2e/harness.sh
. "$here/../e2e/harness.sh"

[ $# -ge 2 ] || { echo "usage: $0 ROOT DEB [PLUGIN...]" >&2; exit 2; }
R=$1
DEB=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")
shift 2

# in_root CMD...: CMD chrooted into R with /proc and /dev, in a private
# mount namespace (the mounts go with it).
in_root() {
  unshare -m --propagation private sh -c 'mount -t proc proc "$0/proc" && mount --bind /dev "$0/dev" && exec chroot "$@"' "$R" "$@"
}

if [ ! -d "$R" ]; then
  run debootstrap --variant=minbase bookworm "$R" http://deb.debian.org/debian || exit 1
fi
R=$(cd "$R" && pwd)
# no service starts from package scripts inside the root
printf '#!/bin/sh\nexit 101\n' >"$R/usr/sbin/policy-rc.d"
chmod 755 "$R/usr/sbin/policy-rc.d"
cp "$DEB" "$R/tmp/"
in_root "$R" apt-get update -qq || exit 1
in_root "$R" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
  "/tmp/$(basename "$DEB")" || exit 1
echo "strongSwan packages in the root:"
in_root "$R" dpkg-query -W -f '  ${Package} ${Version}\n' | grep -E 'strongswan|charon'

for p in "$@"; do
  run mv "$R/usr/lib/ipsec/plugins/libstrongswan-$p.so" "$R/tmp/" || exit 1
done

if [ -x "$R/usr/lib/ipsec/charon" ]; then
  daemon=/usr/lib/ipsec/charon section=charon ca_dir=/etc/ipsec.d/cacerts
else
  daemon=/usr/sbin/charon-systemd section=charon-systemd ca_dir=/etc/swanctl/x509ca
fi
sed -i 's/load = no/load = yes/' "$R/etc/strongswan.d/charon/kernel-libipsec.conf"
cat >"$R/etc/strongswan.d/zz-clean-root-log.conf" <<EOC
$section {
  filelog {
    clean-root {
      path = /var/log/charon-clean-root.log
      default = 1
      ike = 2
      flush_line = yes
      append = no
    }
  }
}
EOC

lab_require
lab_init
suite_watchdog 90
lab_make_pki >/dev/null || exit 1
lab_write_configs
lab_make_netns >/dev/null
lab_start_responder >/dev/null || exit 1
mkdir -p "$R$ca_dir"
cp "$LAB_DIR/pki/ca.pem" "$R$ca_dir/lab-ca.pem"

ip netns exec "$LAB_NS_INIT" unshare -m --propagation private sh -c \
  "mount -t tmpfs none $R/run && mount --bind /dev $R/dev && mount -t proc proc $R/proc && exec chroot $R $daemon" \
  >"$LAB_DIR/charon-init.out" 2>&1 </dev/null &
LAB_INIT_PID=$!
LAB_PIDS+=("$LAB_INIT_PID")
wait_until 10 test -S "/proc/$LAB_INIT_PID/root/run/charon.vici"
socket=$?
if [ $socket -eq 0 ] && [ "$section" = charon-systemd ]; then
  # what strongswan.service does after the start
  nsenter -t "$LAB_INIT_PID" -m -n chroot "$R" swanctl --load-all --noprompt
fi
# charon has read its plugins and trust anchors: the root gets them back
for p in "$@"; do mv "$R/tmp/libstrongswan-$p.so" "$R/usr/lib/ipsec/plugins/"; done
rm -f "$R$ca_dir/lab-ca.pem"
[ $socket -eq 0 ] || { echo "FAIL: the root's charon opened no VICI socket"; exit 1; }

# The README's example, with the lab's server and account.
install -m 600 /dev/null "$R/root/orvane.conf"
printf 'ip=%s\nusername=%s\npassword=%s\nremote=%s\n' "$LAB_LINK_RESP" "$LAB_USER" "$LAB_PASSWORD" "$LAB_SERVER_NAME" >"$R/root/orvane.conf"
printf '#!/bin/sh\nexec chroot %s /usr/sbin/orvane-ikev2 "$@"\n' "$R" >"$LAB_DIR/in-root"
chmod 755 "$LAB_DIR/in-root"
TOOL=$LAB_DIR/in-root

case_readme_connect_in_clean_root() {
  tool_start -c /root/orvane.conf
  if ! tool_wait_line "$MSG_CONNECTED" 12; then
    tool_wait_exit 8
    sed 's/^/  tool: /' "$TOOL_LOG"
    grep -E 'plugin .* failed|EAP|no .* found|failed' "$R/var/log/charon-clean-root.log" | head -8 | sed 's/^/  charon: /'
    return 1
  fi
  run in_init ping -c 2 -i 0.2 -W 2 "$LAB_POOL_TARGET" >/dev/null || { fail "no ping through the tunnel"; return 1; }
  run kill -TERM "$TOOL_PID"
  tool_wait_exit 5 || return 1
  expect_eq "$TOOL_RC" 0 "status after SIGTERM"
}

t_case case_readme_connect_in_clean_root "orvane-ikev2 -c /root/orvane.conf from the Debian root, $daemon${*:+, without $*}"
rm -f "$R/root/orvane.conf"
suite_end
