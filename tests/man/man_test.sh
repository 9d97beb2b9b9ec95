#!/usr/bin/env bash
# man_test.sh OKV2 PAGES_DIR: the manual pages render without a warning, and okv2(1) names everything that the
# command's own help prints. Exit code 77, which ctest counts as skipped, without man or mandoc.
set -euo pipefail
okv2=$1 pages=$2

fail() { echo "FAILED: $*" >&2; failed=1; }
failed=
for tool in man mandoc; do
  command -v $tool >/dev/null || { echo "SKIPPED: $tool is not installed (Debian: man-db, mandoc)"; exit 77; }
done

for page in okv2.1 okv2-container.5 okv2-plugin.3; do
  [[ -s $pages/$page ]] || { fail "$page is missing"; continue; }
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$pages/$page" 2>&1 >/dev/null)
  [[ -z $warnings ]] || fail "man $page: $warnings"
  warnings=$(mandoc -T lint -W warning "$pages/$page") || fail "mandoc $page: $warnings"
  if grep -n '@[A-Z_]*@' "$pages/$page"; then fail "$page has a place that was not filled in"; fi
done

text=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -E UTF-8 -l "$pages/okv2.1" | col -bx)
require() { grep -qF -- "$1" <<<"$text" || fail "okv2(1) does not name $1"; }

# What the help prints is what users meet: taken from there, not from the table that the page is made of.
subcommands=$("$okv2" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p')
(($(wc -w <<<"$subcommands") >= 6)) || fail "okv2 --help lists only: $subcommands"
options=$("$okv2" --help-all 2>/dev/null || "$okv2" --help)
for subcommand in $subcommands; do
  require "okv2 $subcommand "
  options+=$'\n'$("$okv2" "$subcommand" --help)
done
names=$(grep -oE '^ +(-[A-Za-z],)?--[a-z][a-z-]*' <<<"$options" | grep -oE -- '--[a-z-]+' | sort -u)
(($(wc -w <<<"$names") >= 10)) || fail "the help prints only: $names"
for name in $names; do require "$name"; done
while read -r code meaning; do
  grep -qE "^ +$code +$meaning" <<<"$text" || fail "okv2(1) does not explain exit code $code: $meaning"
done < <("$okv2" --help | sed -n '/^Exit codes:/,$s/^ *\([0-9][0-9]*\) /\1 /p')

[[ -z $failed ]]
