#!/usr/bin/env bash
# scripts/fuzz end to end on one target: it builds the target with clang and
# libFuzzer in a folder of the build tree, fuzzes for a few seconds from a
# copy of the kept corpus, and leaves that copy holding inputs, none of them
# a seed. Skips (77) where clang has no libFuzzer, except under CI.
#
#   script_test.sh SOURCE_DIR WORK_DIR TARGET
set -u
src=$1 work=$2 target=$3

probe='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
if ! echo "$probe" | clang++ -x c++ -fsanitize=fuzzer - -o "$work.probe" 2>/dev/null; then
  echo "SKIP: clang++ with libFuzzer is not installed (scripts/install-deps installs it)"
  [ "${CI:-}" = true ] && exit 1
  exit 77
fi
rm -f "$work.probe"

rm -rf "$work/corpus"
mkdir -p "$work/corpus/$target"
cp "$src/tests/fuzz/corpus/$target"/* "$work/corpus/$target"/ 2>/dev/null
# At the lowest priority, like the package build: the end-to-end suites run
# beside it.
out=$(FUZZ_BUILD_DIR="$work/build" FUZZ_CORPUS_DIR="$work/corpus" \
  nice -n 19 "$src/scripts/fuzz" "$target" 3 2>&1)
status=$?
summary=$(printf '%s\n' "$out" | grep "^$target: ")
echo "${summary:-$out}"
[ "$status" -eq 0 ] || { printf '%s\n' "$out"; echo "FAIL: scripts/fuzz ended with $status"; exit 1; }
[[ "$summary" =~ ^$target:\ [1-9][0-9]*\ executions.*nothing\ found$ ]] ||
  { echo "FAIL: no executions, or a finding"; exit 1; }
kept=$(find "$work/corpus/$target" -type f | wc -l)
[ "$kept" -gt 0 ] || { echo "FAIL: the corpus is empty"; exit 1; }
for seed in "$src/tests/fuzz/seeds/$target"/*; do
  for input in "$work/corpus/$target"/*; do
    cmp -s "$seed" "$input" && { echo "FAIL: the corpus keeps the seed $seed"; exit 1; }
  done
done
echo "ok: $kept inputs kept"
