# shellcheck shell=bash
# Shared by the end-to-end suites: runs orvane-ikev2 inside the lab's
# initiator namespaces, waits for its log lines and exit status (always
# bounded), and counts cases. Source after lab.sh.
#
#   suite_begin TOOL_BINARY SECONDS   probe (skip 77 / fail under CI), watchdog
#   t_case FUNCTION "what it shows"   run one case, print PASS/FAIL and time
#   suite_end                         exit 0 when every case passed

TOOL=
TOOL_PID=
TOOL_LOG=
TOOL_RC=
TOOL_T0=
TOOL_MS=
TOOL_RUNS=0
T_PASSED=0
T_FAILED=0
T_FAILED_NAMES=()

# The tool's log line prefix: "YYYY-MM-DD HH:MM:SS:mmm orvane-ikev2[pid:tid] ".
TOOL_LINE_RE='^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3} orvane-ikev2\[[0-9]+:[0-9]+\] '

# Exact status wording of the connector (fixed by the tool's contract).
MSG_INTERFACE='IKEv2 Interface ipsec0'
MSG_CONNECTED='IKEv2 Connected'
MSG_LAST_ERROR='IKEv2 Last disconnect error: '

suite_begin() {
  local tool=$1 limit=$2
  lab_require
  if [ -z "$tool" ]; then
    echo "FAIL: usage: $0 PATH_TO_orvane-ikev2"
    exit 1
  fi
  # A missing binary is a build failure, never a reason to skip.
  if [ ! -x "$tool" ]; then
    echo "FAIL: $tool is not an executable (was orvane-ikev2 built?)"
    exit 1
  fi
  TOOL=$(cd "$(dirname "$tool")" && pwd)/$(basename "$tool")
  lab_init
  suite_watchdog "$limit"
  lab_up || { echo "FAIL: the lab did not come up"; exit 1; }
  # The password is searched for with grep -f, so it never sits in an argv.
  printf '%s\n' "$LAB_PASSWORD" >"$LAB_DIR/password.pattern"
}

# Sends SIGTERM to this script after SECONDS, so that the EXIT trap still
# cleans up before CTest's own timeout kills everything. One process (no
# shell subshell, no sleep child), so killing it by PID leaves nothing.
suite_watchdog() {
  python3 -c 'import os, signal, sys, time
time.sleep(float(sys.argv[1]))
print("suite watchdog: %s s elapsed, stopping" % sys.argv[1], flush=True)
os.kill(int(sys.argv[2]), signal.SIGTERM)' "$1" "$BASHPID" &
  LAB_PIDS+=("$!")
}

suite_end() {
  echo
  echo "passed: $T_PASSED, failed: $T_FAILED${T_FAILED_NAMES[*]:+ (${T_FAILED_NAMES[*]})}"
  [ "$T_FAILED" -eq 0 ] && [ "$T_PASSED" -gt 0 ]
  exit $?
}

t_case() {
  local fn=$1 what=$2 t0 rc
  echo
  echo "=== $fn: $what"
  t0=$(lab_now_ms)
  "$fn"
  rc=$?
  if [ $rc -eq 0 ]; then
    T_PASSED=$((T_PASSED + 1))
    echo "--- PASS $fn ($(( $(lab_now_ms) - t0 )) ms)"
  else
    T_FAILED=$((T_FAILED + 1))
    T_FAILED_NAMES+=("$fn")
    echo "--- FAIL $fn ($(( $(lab_now_ms) - t0 )) ms)"
    [ -n "$TOOL_LOG" ] && [ -f "$TOOL_LOG" ] && { echo "tool log ($TOOL_LOG):"; sed 's/^/    /' "$TOOL_LOG"; }
  fi
  t_reset
  return 0
}

fail() {
  echo "FAIL: $*"
  return 1
}

# expect_eq ACTUAL EXPECTED WHAT
expect_eq() {
  if [ "$1" = "$2" ]; then
    echo "ok: $3 = $2"
  else
    fail "$3: expected '$2', got '$1'"
  fi
}

# ---------------------------------------------------------------- the tool

# tool_write_config FILE SERVER USER PASSWORD REMOTE
tool_write_config() {
  printf 'ip=%s\nusername=%s\npassword=%s\nremote=%s\n' "$2" "$3" "$4" "$5" >"$1"
  chmod 600 "$1"
}

# tool_start ARGS...: starts the tool in the initiator's namespaces; its
# stdout and stderr go to TOOL_LOG.
tool_start() {
  TOOL_RUNS=$((TOOL_RUNS + 1))
  TOOL_LOG=$LAB_DIR/tool-$TOOL_RUNS.log
  TOOL_RC=
  printf '[%s] + nsenter -t %s -m -n %s %s &\n' "$(date -u +%H:%M:%S.%3N)" "$LAB_INIT_PID" "$TOOL" "$*"
  TOOL_T0=$(lab_now_ms)
  nsenter -t "$LAB_INIT_PID" -m -n "$TOOL" "$@" >"$TOOL_LOG" 2>&1 </dev/null &
  TOOL_PID=$!
  LAB_PIDS+=("$TOOL_PID")
}

tool_gone() { lab_gone "$TOOL_PID"; }

# tool_wait_exit SECONDS: sets TOOL_RC and TOOL_MS (start to exit); kills the
# tool and fails when it is still running after SECONDS.
tool_wait_exit() {
  local secs=$1
  if ! wait_until "$secs" tool_gone; then
    echo "tool pid $TOOL_PID still running after ${secs}s; killing it"
    kill -KILL "$TOOL_PID" 2>/dev/null
    wait "$TOOL_PID" 2>/dev/null
    lab_forget_pid "$TOOL_PID"
    TOOL_RC=timeout
    return 1
  fi
  wait "$TOOL_PID"
  TOOL_RC=$?
  TOOL_MS=$(( $(lab_now_ms) - TOOL_T0 ))
  lab_forget_pid "$TOOL_PID"
  echo "tool exited with status $TOOL_RC, $TOOL_MS ms after it started"
}

# tool_signal_in_a_fresh_slice SIG: sends SIG to the tool just after it
# went to sleep again, which an idle tool does at the start of each 0.5 s
# slice of its run loop: what the signal sets off then has the whole slice.
tool_signal_in_a_fresh_slice() {
  printf '[%s] + kill -%s %s (at the start of a slice)\n' "$(date -u +%H:%M:%S.%3N)" "$1" "$TOOL_PID"
  python3 - "$TOOL_PID" "$1" <<'PY'
import os, signal, sys, time
pid, signo = int(sys.argv[1]), getattr(signal, "SIG" + sys.argv[2])
def sleeps():
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("voluntary_ctxt_switches:"):
                return int(line.split()[1])
    return -1
before, end = sleeps(), time.time() + 2
while sleeps() == before and time.time() < end:
    time.sleep(0.0002)
os.kill(pid, signo)
PY
}

# tool_run SECONDS ARGS...: start, then wait for the exit.
tool_run() {
  local secs=$1
  shift
  tool_start "$@"
  tool_wait_exit "$secs"
}

tool_kill() {
  [ -n "$TOOL_PID" ] || return 0
  if lab_alive "$TOOL_PID"; then
    kill -KILL "$TOOL_PID" 2>/dev/null
    wait_until 2 tool_gone
  fi
  wait "$TOOL_PID" 2>/dev/null
  lab_forget_pid "$TOOL_PID"
}

# The tool's log has a line with MESSAGE (a fixed string) in the log shape.
tool_has_line() {
  grep -E "$TOOL_LINE_RE" "$TOOL_LOG" | grep -q -F -- "$1"
}

# tool_wait_line MESSAGE SECONDS: fails when the time runs out or the tool
# ends without writing it.
tool_wait_line() {
  local msg=$1 secs=$2 t0
  t0=$(lab_now_ms)
  if wait_until "$secs" tool_line_or_gone "$msg"; then
    echo "ok: \"$msg\" after $(( $(lab_now_ms) - TOOL_T0 )) ms"
    return 0
  fi
  fail "no \"$msg\" within ${secs}s ($(( $(lab_now_ms) - t0 )) ms waited)"
}

tool_line_or_gone() {
  tool_has_line "$1" && return 0
  tool_gone && ! tool_has_line "$1" && return 125
  return 1
}

# Line number of the first line holding MESSAGE (0 if none).
tool_line_no() {
  local n
  n=$(grep -n -F -- "$1" "$TOOL_LOG" | head -n 1 | cut -d: -f1)
  echo "${n:-0}"
}

# The reason logged in "IKEv2 Last disconnect error: <reason>" (last one).
tool_last_error() {
  grep -E "$TOOL_LINE_RE" "$TOOL_LOG" | grep -F -- "$MSG_LAST_ERROR" | tail -n 1 | sed "s/.*$MSG_LAST_ERROR//"
}

# Every log line the tool wrote has the log shape and its own pid.
tool_lines_well_formed() {
  local bad
  bad=$(grep -v -E "${TOOL_LINE_RE}" "$TOOL_LOG" | grep -v -E '^\s*$')
  [ -z "$bad" ] || { fail "lines not in the log shape:"; echo "$bad" | head -5; return 1; }
  bad=$(grep -E "$TOOL_LINE_RE" "$TOOL_LOG" | grep -v -E "orvane-ikev2\[$TOOL_PID:")
  [ -z "$bad" ] || { fail "lines with another pid than $TOOL_PID:"; echo "$bad" | head -5; return 1; }
  echo "ok: every log line has the log shape and pid $TOOL_PID"
}

# ---------------------------------------------------------------- state

# The preferences file as seen by the tool (the initiator's private /var/lib).
prefs_dir() { echo "/proc/$LAB_INIT_PID/root/var/lib/orvane-ikev2"; }
prefs_file() { echo "$(prefs_dir)/preferences.plist"; }

init_no_shared() { [ -z "$(lab_vici_init get-shared)" ]; }
init_no_sa() { [ "$(lab_vici_init count-sas)" = 0 ]; }

# After the tool ended: no IKE_SA at the responder or the initiator, no
# secret in the initiator.
tunnel_cleared() {
  wait_until 5 lab_resp_no_sa || { fail "the responder still holds an IKE_SA"; lab_vici_resp list-sas; return 1; }
  echo "ok: no IKE_SA at the responder"
  wait_until 3 init_no_sa || { fail "the initiator still holds an IKE_SA"; lab_vici_init list-sas; return 1; }
  echo "ok: no IKE_SA at the initiator"
  wait_until 3 init_no_shared || { fail "the initiator's charon still holds secret(s): $(lab_vici_init get-shared | tr '\n' ' ')"; return 1; }
  echo "ok: no shared secret left in the initiator's charon"
}

# Back to a clean lab between cases: no tool, no SA on either side, no
# connection or secret left in the initiator's charon, no saved profile.
t_reset() {
  tool_kill
  if ! lab_alive "$LAB_RESP_PID"; then
    lab_stop_charon resp
    lab_start_responder
  fi
  # A case that ended the initiator's charon and failed before it started
  # a new one leaves the next case without one.
  if ! lab_alive "$LAB_INIT_PID"; then
    lab_stop_charon init
    lab_start_initiator >>"$LAB_DIR/lab.out" 2>&1
  fi
  in_resp nft list table inet orvane_lab_drop >/dev/null 2>&1 && lab_unblock_responder
  in_init swanctl --terminate --ike "Orvane IKEv2" --force --timeout 2 >/dev/null 2>&1
  lab_resp_flush_sas
  # unloads every connection and secret loaded over VICI, reloads the CA
  in_init swanctl --load-all --noprompt --file "$LAB_DIR/init/swanctl.conf" >/dev/null 2>&1
  [ -n "$LAB_INIT_PID" ] && rm -rf "$(prefs_dir)"
  return 0
}

# Password search without putting the password in any argv.
has_password() { grep -q -F -f "$LAB_DIR/password.pattern" "$@" 2>/dev/null; }

# Processes whose argv (or environment) holds the password: "pid comm where"
# per line; none prints nothing.
procs_with_password() {
  python3 - "$LAB_DIR/password.pattern" <<'PY'
import os, sys
words = [w.encode() for w in open(sys.argv[1]).read().split("\n") if w]
for pid in filter(str.isdigit, os.listdir("/proc")):
    for what in ("cmdline", "environ"):
        try:
            data = open("/proc/%s/%s" % (pid, what), "rb").read()
        except OSError:
            continue
        if any(w in data for w in words):
            try:
                comm = open("/proc/%s/comm" % pid).read().strip()
            except OSError:
                comm = "?"
            print(pid, comm, what)
PY
}

# memory_pieces PID WINDOW FILE: how many runs of WINDOW bytes of the words
# in FILE (one a line) the readable memory of PID holds, then the bytes it
# read and where the first run is. WINDOW 0 searches for whole words.
memory_pieces() {
  python3 - "$@" <<'PY'
import re, sys
pid, window, path = sys.argv[1], int(sys.argv[2]), sys.argv[3]
words = [w.encode() for w in open(path).read().split("\n") if w]
pieces = set()
for w in words:
    n = window or len(w)
    pieces.update(w[i:i + n] for i in range(len(w) - n + 1))
hits, read, first = 0, 0, "-"
with open("/proc/%s/maps" % pid) as maps, open("/proc/%s/mem" % pid, "rb", 0) as mem:
    for line in maps:
        f = line.split()
        name = f[5] if len(f) > 5 else ""
        if f[1][0] != "r" or name in ("[vvar]", "[vvar_vclock]", "[vsyscall]"):
            continue
        start, end = (int(x, 16) for x in f[0].split("-"))
        try:
            mem.seek(start)
            data = mem.read(end - start)
        except (OSError, OverflowError, ValueError):
            continue
        read += len(data)
        for p in pieces:
            at = data.find(p)
            while at >= 0:
                if hits == 0:
                    first = "%#x %s" % (start + at, name)
                hits += 1
                at = data.find(p, at + 1)
print(hits, read, first)
PY
}

# String values anywhere in a property list file (XML or binary), one a line.
plist_strings() {
  python3 - "$1" <<'PY'
import plistlib, sys
def walk(v):
    if isinstance(v, dict):
        for k, x in v.items():
            yield from walk(x)
    elif isinstance(v, list):
        for x in v:
            yield from walk(x)
    elif isinstance(v, str):
        yield v
with open(sys.argv[1], "rb") as f:
    for s in walk(plistlib.load(f)):
        print(s)
PY
}

# Keys anywhere in a property list file, one a line.
plist_keys() {
  python3 - "$1" <<'PY'
import plistlib, sys
def walk(v):
    if isinstance(v, dict):
        for k, x in v.items():
            yield k
            yield from walk(x)
    elif isinstance(v, list):
        for x in v:
            yield from walk(x)
with open(sys.argv[1], "rb") as f:
    for k in walk(plistlib.load(f)):
        print(k)
PY
}

# The placeholder server and user name the tool must make without a
# configuration file: the C library's rand() from its default seed, first
# four numbers for the address (first octet % 240 + 11, others % 256), next
# six for the letters.
placeholder_values() {
  python3 - <<'PY'
import ctypes
libc = ctypes.CDLL("libc.so.6")
r = [libc.rand() for _ in range(10)]
print("%d.%d.%d.%d" % (r[0] % 240 + 11, r[1] % 256, r[2] % 256, r[3] % 256))
print("".join("abcdefghijklmnopqrstuvwxyz"[x % 26] for x in r[4:]))
PY
}
