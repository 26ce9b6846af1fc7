#!/usr/bin/env bash
# Fails when code that is also built on macOS uses a C++ library feature
# that Apple's libc++ lacks at the deployment target, macOS 11.0: the
# std::format family, polymorphic allocators, floating-point to_chars and
# from_chars (the integer forms are fine: narrow the pattern if they are
# ever needed), time zones and the newer clocks, jthread and stop tokens,
# and parallel algorithms. The clang + libc++ build cannot see these: LLVM's
# libc++ on Linux carries no availability markings.
#
#   apple_libcxx.sh SOURCE_ROOT
set -euo pipefail
root=${1:?usage: apple_libcxx.sh SOURCE_ROOT}
cd "$root"

pattern='#include <(format|memory_resource|stop_token)>'
pattern+='|std::(v?format|format_to|format_to_n|formatted_size|pmr::|to_chars|from_chars|jthread|stop_token|stop_source|execution::)'
pattern+='|std::chrono::(zoned_time|time_zone|tzdb|get_tzdb|current_zone|locate_zone|utc_clock|tai_clock|gps_clock|clock_cast|parse)'

# Everything but the Linux-only folders.
portable=(os/Process.h os/Pipe.h os/Memory.h os/macos log cli connector tool platform/macos
          tests/unit/os tests/unit/cli tests/unit/log tests/unit/platform/macos
          tests/unit/connector tests/unit/tool tests/unit/double)
portable+=(platform/*.h platform/*.cpp tests/unit/platform/*.cpp)

status=0
found=$(grep -rnE "$pattern" --include='*.h' --include='*.cpp' --include='*.mm' \
          "${portable[@]}") || status=$?
case $status in
  0) echo "C++ library features missing from Apple's libc++ at macOS 11.0:" >&2
     echo "$found" >&2
     exit 1 ;;
  1) exit 0 ;;
  *) exit "$status" ;;
esac
