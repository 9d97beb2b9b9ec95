#!/usr/bin/env bash
# bash_test.sh SCRIPT: completes command lines as bash does for a user, without a terminal: the script is
# sourced, and its function called with the words and the place of the cursor.
set -euo pipefail
# shellcheck source=/dev/null
source "$1"
failed=
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir 'model one' models
touch 'model two.okv2' models.okv2

# expect WORDS... "|" COMPLETIONS...: the last word is the one under the cursor.
expect() {
  COMP_WORDS=(okv2)
  while [[ $1 != '|' ]]; do COMP_WORDS+=("$1"); shift; done
  shift
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _okv2 || true  # the shell does not look at the code either
  local expected got
  expected=$(printf '%s\n' "$@" | sort)
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
  if [[ $got != "$expected" ]]; then
    printf 'FAILED: %s\nexpected:\n%s\ngot:\n%s\n' "${COMP_WORDS[*]}" "$expected" "$got" >&2
    failed=1
  fi
}

[[ $(complete -p okv2) == 'complete -F _okv2 okv2' ]] || { echo "FAILED: not registered" >&2; failed=1; }
expect im '|' import
expect --v '|' --version
expect import --forc '|' --force
expect import mod '|' 'model one' models             # a directory
expect list mod '|' 'model one' models 'model two.okv2' models.okv2
expect import models -o mod '|' 'model one' models 'model two.okv2' models.okv2
expect sample --arch '' '|' llama qwen2 gemma4 gpt2
expect sample --arch q '|' qwen2
expect sample --tokenizer = m '|' model               # --tokenizer=m
expect sample --tokenizer = '|' json model none       # --tokenizer=
expect sample --shards '' '|'                         # a number: nothing to offer
expect sample new --form '|' --format
expect nonsense --x '|'
[[ -z $failed ]]
