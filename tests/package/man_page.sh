#!/usr/bin/env bash
# Checks of the manual page. Exit 0 passed, 1 failed, 77 cannot run here.
#
#   man_page.sh renders-clean PAGE         groff -man -ww -z prints nothing
#   man_page.sh names-options PAGE TOOL    OPTIONS lists exactly what TOOL --help prints
#   man_page.sh version PAGE CHANGELOG V   the page and debian/changelog say version V
set -u

need_groff() {
  command -v groff >/dev/null 2>&1 && return 0
  echo "SKIP: groff is not installed (groff-base)"
  [ "${CI:-}" = true ] && exit 1
  exit 77
}

# The page as plain text, one line per output line, no formatting.
render() { groff -man -Tascii -P-cbou "$1" 2>/dev/null; }

renders_clean() {
  local warnings
  need_groff
  warnings=$(groff -man -ww -z "$1" 2>&1)
  if [ -n "$warnings" ]; then
    echo "FAIL: groff -man -ww -z $1:"
    echo "$warnings"
    return 1
  fi
  echo "ok: $1 renders without warnings"
}

# Options named in the tool's help: -x and --long words at the start of a
# help line's option column.
help_options() {
  "$1" --help 2>/dev/null | grep -o -E '^ *(-[A-Za-z0-9] +)?--[A-Za-z0-9][A-Za-z0-9-]*' | grep -o -E -- '--?[A-Za-z0-9][A-Za-z0-9-]*'
}

# Options that head an entry of the page's OPTIONS section.
page_options() {
  render "$1" | sed -n '/^OPTIONS$/,/^[A-Z][A-Z ]*$/p' | grep -E '^       -' \
    | grep -o -E -- '(^|[ ,])--?[A-Za-z0-9][A-Za-z0-9-]*' | grep -o -E -- '--?[A-Za-z0-9][A-Za-z0-9-]*'
}

names_options() {
  local page=$1 tool=$2 from_help from_page missing extra
  need_groff
  from_help=$(help_options "$tool" | sort -u)
  [ -n "$from_help" ] || { echo "FAIL: $tool --help printed no option"; return 1; }
  from_page=$(page_options "$page" | sort -u)
  missing=$(comm -23 <(echo "$from_help") <(echo "$from_page"))
  extra=$(comm -13 <(echo "$from_help") <(echo "$from_page"))
  echo "--help prints: $(echo "$from_help" | tr '\n' ' ')"
  echo "the page's OPTIONS: $(echo "$from_page" | tr '\n' ' ')"
  [ -z "$missing" ] || { echo "FAIL: not in the page's OPTIONS: $(echo "$missing" | tr '\n' ' ')"; return 1; }
  [ -z "$extra" ] || { echo "FAIL: in the page's OPTIONS but not in --help: $(echo "$extra" | tr '\n' ' ')"; return 1; }
  echo "ok: the page's OPTIONS name exactly the options of --help"
}

version() {
  local page=$1 changelog=$2 want=$3 in_page in_changelog
  in_page=$(sed -n 's/^\.TH .*"orvane\\-ikev2 \([^"]*\)".*/\1/p' "$page")
  in_changelog=$(sed -n '1s/^orvane-ikev2 (\([^)]*\)).*/\1/p' "$changelog")
  echo "project(VERSION) $want, manual page '$in_page', debian/changelog '$in_changelog'"
  [ "$in_page" = "$want" ] || { echo "FAIL: the manual page says '$in_page'"; return 1; }
  [ "$in_changelog" = "$want" ] || { echo "FAIL: debian/changelog says '$in_changelog'"; return 1; }
  echo "ok: all say $want"
}

case ${1:-} in
  renders-clean) renders_clean "$2" ;;
  names-options) names_options "$2" "$3" ;;
  version) version "$2" "$3" "$4" ;;
  *) echo "usage: $0 renders-clean PAGE | names-options PAGE TOOL | version PAGE CHANGELOG VERSION" >&2; exit 2 ;;
esac
