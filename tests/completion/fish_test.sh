#!/usr/bin/env bash
# fish_test.sh SCRIPT: asks fish what it would offer. Exit code 77 (skipped) without fish.
set -euo pipefail
command -v fish >/dev/null || { echo "SKIPPED: fish is not installed"; exit 77; }
script=$1
failed=
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export HOME=$scratch XDG_CONFIG_HOME=$scratch XDG_DATA_HOME=$scratch  # nothing of the user's
mkdir "$scratch/here"
cd "$scratch/here"
mkdir models
touch models.okv2

# expect LINE COMPLETIONS...: without the descriptions.
expect() {
  local line=$1 expected got
  shift
  expected=$(printf '%s\n' "$@" | sort)
  got=$(fish --no-config -c "source '$script'; complete -C '$line'" | cut -f1 | sort)
  if [[ $got != "$expected" ]]; then
    printf 'FAILED: %s\nexpected:\n%s\ngot:\n%s\n' "$line" "$expected" "$got" >&2
    failed=1
  fi
}

fish --no-execute "$script"
expect 'okv2 im' import
expect 'okv2 import --forc' --force
expect 'okv2 import mod' models/
expect 'okv2 list mod' models/ models.okv2
expect 'okv2 sample --arch q' qwen2
expect 'okv2 sample --shards ' ''
[[ -z $failed ]]
