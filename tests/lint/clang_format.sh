#!/usr/bin/env bash
# Every C++ and Objective-C++ source of the project is laid out as
# .clang-format says. The macOS check kit's declaration headers are copies
# kept as they came.
set -euo pipefail
cd "$1"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git ls-files -z '*.cpp' '*.h' '*.mm' ':!:tests/macos/sdk-check/**'
else
  find . \( -path ./tests/macos/sdk-check -o -path './build*' -o -path ./debian \) -prune -o \
    \( -name '*.cpp' -o -name '*.h' -o -name '*.mm' \) -print0
fi | xargs -0 clang-format --dry-run --Werror
