#!/usr/bin/env bash
# scripts/macos-sign against stand-ins for Apple's security, PlistBuddy and
# codesign: the bundle it lays out, the Info.plist and entitlements it
# writes, the codesign calls it makes, and the profiles it refuses. The
# stand-ins come first on PATH; PlistBuddy's is real property-list editing
# through Python's plistlib.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
sign="$root/scripts/macos-sign"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fakes="$work/bin"
mkdir -p "$fakes"
failures=0

fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# security cms -D -i FILE prints the profile's content; these test profiles
# are their content.
cat >"$fakes/security" <<'EOF'
#!/bin/sh
[ "$1 $2 $3" = "cms -D -i" ] || exit 64
cat "$4"
EOF

cat >"$fakes/PlistBuddy" <<'EOF'
#!/usr/bin/env python3
import plistlib, sys
args = sys.argv[1:]
path = args[-1]
commands = [args[i + 1] for i in range(0, len(args) - 1, 2) if args[i] == "-c"]
with open(path, "rb") as f:
    root = plistlib.load(f)
changed = False
for command in commands:
    verb, _, rest = command.partition(" ")
    if verb == "Print":
        node = root
        for part in rest.lstrip(":").split(":"):
            try:
                node = node[int(part)] if isinstance(node, list) else node[part]
            except (KeyError, IndexError, ValueError):
                print('Print: Entry, "%s", Does Not Exist' % rest, file=sys.stderr)
                sys.exit(1)
        if isinstance(node, list):
            print("Array {")
            for item in node:
                print("    %s" % item)
            print("}")
        else:
            print(node)
    elif verb == "Add":
        key, kind, value = rest.split(" ", 2)
        if kind != "string" or key.lstrip(":") in root:
            sys.exit(1)
        root[key.lstrip(":")] = value
        changed = True
    else:
        sys.exit(2)
if changed:
    with open(path, "wb") as f:
        plistlib.dump(root, f)
EOF

# codesign records each call, and keeps the entitlements it was given.
cat >"$fakes/codesign" <<EOF
#!/bin/sh
echo "\$*" >>"$work/codesign.log"
while [ \$# -gt 0 ]; do
  [ "\$1" = --entitlements ] && cp "\$2" "$work/signed.entitlements"
  shift
done
exit 0
EOF
chmod +x "$fakes"/*

profile() { # APP_ID TEAM VPN_VALUES...
  local app_id=$1 team=$2
  shift 2
  python3 - "$app_id" "$team" "$@" <<'EOF'
import plistlib, sys
app_id, team, vpn = sys.argv[1], sys.argv[2], sys.argv[3:]
entitlements = {"com.apple.application-identifier": app_id,
                "com.apple.developer.team-identifier": team}
if vpn:
    entitlements["com.apple.developer.networking.vpn.api"] = vpn
sys.stdout.buffer.write(plistlib.dumps({"Entitlements": entitlements, "TeamIdentifier": [team],
                                        "Name": "orvane helper"}))
EOF
}

run_sign() {
  rm -f "$work/codesign.log" "$work/signed.entitlements"
  PATH="$fakes:$PATH" "$sign" "$@" >"$work/out" 2>&1
}

printf '#!/bin/sh\necho tool\n' >"$work/orvane-ikev2"
chmod +x "$work/orvane-ikev2"

# --- a profile that authorizes the entitlement
profile ABCDE12345.net.orvane.ikev2-helper ABCDE12345 allow-vpn >"$work/good.provisionprofile"
if ! run_sign "Developer ID Application: Orvane (ABCDE12345)" "$work/good.provisionprofile" \
  "$work/orvane-ikev2"; then
  fail "signing with a good profile failed: $(cat "$work/out")"
fi
app="$work/orvane-ikev2.app"
cmp -s "$work/orvane-ikev2" "$app/Contents/MacOS/orvane-ikev2" || fail "executable not in Contents/MacOS"
[ -x "$app/Contents/MacOS/orvane-ikev2" ] || fail "executable lost its mode"
cmp -s "$work/good.provisionprofile" "$app/Contents/embedded.provisionprofile" ||
  fail "profile not embedded"
python3 - "$app/Contents/Info.plist" <<'EOF' || fail "Info.plist"
import plistlib, sys
info = plistlib.load(open(sys.argv[1], "rb"))
expected = {"CFBundleExecutable": "orvane-ikev2",
            "CFBundleIdentifier": "net.orvane.ikev2-helper",
            "CFBundlePackageType": "APPL",
            "LSMinimumSystemVersion": "11.0"}
wrong = {k: info.get(k) for k, v in expected.items() if info.get(k) != v}
if wrong or not info.get("CFBundleVersion"):
    sys.exit("Info.plist: %r" % (wrong or info))
EOF
python3 - "$work/signed.entitlements" <<'EOF' || fail "signed entitlements"
import plistlib, sys
got = plistlib.load(open(sys.argv[1], "rb"))
want = {"com.apple.developer.networking.vpn.api": ["allow-vpn"],
        "com.apple.application-identifier": "ABCDE12345.net.orvane.ikev2-helper",
        "com.apple.developer.team-identifier": "ABCDE12345"}
if got != want:
    sys.exit("entitlements: %r" % got)
EOF
expected_log="--force --sign Developer ID Application: Orvane (ABCDE12345) --options runtime --timestamp --entitlements"
log=$(cat "$work/codesign.log" 2>/dev/null || true)
case "$(sed -n 1p <<<"$log")" in
  "$expected_log "*"/entitlements.plist $app") ;;
  *) fail "first codesign call: $(sed -n 1p <<<"$log")" ;;
esac
[ "$(sed -n 2p <<<"$log")" = "--verify --strict --verbose=2 $app" ] ||
  fail "second codesign call: $(sed -n 2p <<<"$log")"
[ "$(wc -l <<<"$log")" -eq 2 ] || fail "codesign calls: $log"

# --- the repository's entitlements: only the Personal VPN one
python3 - "$root/platform/macos/orvane-ikev2.entitlements" <<'EOF' || fail "repository entitlements"
import plistlib, sys
raw = open(sys.argv[1], "rb").read()
if raw.startswith(b"\xef\xbb\xbf") or b"\r" in raw or b"<!--" in raw:
    sys.exit("entitlements must be plain XML: no BOM, CR or comments")
if plistlib.loads(raw) != {"com.apple.developer.networking.vpn.api": ["allow-vpn"]}:
    sys.exit("unexpected entitlements")
EOF

# --- profiles and inputs it must refuse, before anything is signed
refuse() { # WHY MESSAGE ARGS...
  local why=$1 message=$2
  shift 2
  if run_sign "$@"; then
    fail "$why: signed"
  elif ! grep -q "$message" "$work/out"; then
    fail "$why: message was $(cat "$work/out")"
  elif [ -e "$work/codesign.log" ]; then
    fail "$why: codesign was called"
  fi
}
profile ABCDE12345.net.orvane.ikev2-helper ABCDE12345 >"$work/novpn.provisionprofile"
refuse "profile without the VPN entitlement" "does not authorize the Personal VPN" \
  ID "$work/novpn.provisionprofile" "$work/orvane-ikev2"
profile 'ABCDE12345.*' ABCDE12345 allow-vpn >"$work/wildcard.provisionprofile"
refuse "wildcard App ID" "not an explicit App ID" \
  ID "$work/wildcard.provisionprofile" "$work/orvane-ikev2"
profile OTHER.net.orvane.ikev2-helper ABCDE12345 allow-vpn >"$work/otherteam.provisionprofile"
refuse "App ID of another team" "is not of team" \
  ID "$work/otherteam.provisionprofile" "$work/orvane-ikev2"
refuse "missing executable" "no executable" \
  ID "$work/good.provisionprofile" "$work/missing"
refuse "missing profile" "no provisioning profile" \
  ID "$work/missing.provisionprofile" "$work/orvane-ikev2"
refuse "bundle name without .app" "must end in .app" \
  ID "$work/good.provisionprofile" "$work/orvane-ikev2" "$work/helper"
if PATH="$fakes:$PATH" "$sign" ID >/dev/null 2>&1; then
  fail "missing arguments accepted"
fi

[ "$failures" -eq 0 ] || exit 1
echo "macos-sign: all checks passed"
