#!/usr/bin/env bash
# quickstart_test.sh SOURCE BUILD: scripts/quickstart as a newcomer runs it, with a build that is there.
set -euo pipefail

source=$1
build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export OKV2_QUICKSTART_BUILD=$build

fail() { echo "FAIL: $*" >&2; exit 1; }

# expect CODE LAST_LINE ARGUMENT...: what the script answers and says last.
expect() {
  local code=$1 line=$2 answer=0 said
  shift 2
  "$source/scripts/quickstart" "$@" >"$scratch/said" 2>&1 </dev/null || answer=$?
  said=$(grep -v '^ *$' "$scratch/said" | tail -n 1)
  ((answer == code)) || fail "quickstart $*: exit code $answer: $(cat "$scratch/said")"
  [[ $said == "$line" ]] || fail "quickstart $*: said '$said'"
}

# Its own sample model.
expect 0 "   Now your own model:  scripts/quickstart DIR OUT.okv2"
"$build/bin/okv2" verify "$source/build/quickstart-demo/model.okv2" >/dev/null || fail "the demo's container is not good"

# The user's directory, from another folder and by a relative path.
"$build/bin/okv2" sample "$scratch/model" --size 100K 2>/dev/null
cd "$scratch"
expect 0 "== Done: out.okv2 is a verified OKV2 container." model out.okv2
"$build/bin/okv2" verify out.okv2 >/dev/null || fail "the container is not good"

# What cannot be done is said, and nothing is made.
expect 2 "'out.okv2' exists already and is left as it is. Remove it or choose another name, then run this again." \
  model out.okv2
expect 2 "There is no directory 'none'. Give the folder that holds your model's config.json." none new.okv2
expect 2 "usage: scripts/quickstart [DIR OUT]" model
mkdir empty
expect 2 "README.md, 'What it refuses', lists the usual reasons." empty new.okv2
[[ ! -e new.okv2 ]] || fail "a failed import left new.okv2"
