#!/usr/bin/env bash
# zsh_test.sh SCRIPT: presses Tab in a zsh on a pseudo-terminal. Exit code 77 (skipped) without zsh.
set -euo pipefail
command -v zsh >/dev/null || { echo "SKIPPED: zsh is not installed"; exit 77; }
script=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
zsh -n "$script"
mkdir "$scratch/functions" "$scratch/here"
cp "$script" "$scratch/functions/_okv2"  # as installed: found by its name and autoloaded
mkdir "$scratch/here/models"
touch "$scratch/here/models.okv2"
cd "$scratch/here"
export HOME=$scratch ZDOTDIR=$scratch

cat >"$scratch/.zshrc" <<'RC'
PS1='> '
unset zle_bracketed_paste
fpath=($HOME/functions $fpath)
autoload -Uz compinit
compinit -u -D
expanded() { print -r -- "$BUFFER" >>$HOME/lines; BUFFER=; }
zle -N expanded
bindkey '^X' expanded
RC

# Each line is completed, not run: the shell writes what its line has become to a file.
cat >"$scratch/drive.zsh" <<'DRIVE'
zmodload zsh/zpty
zpty shell 'TERM=dumb zsh -i'
for line in "$@"; do
  zpty -w -n shell "$line"$'\t\x18'
done
zpty -w shell $'\nexit'
zpty -r shell output '*exit*' || true
local deadline=$((SECONDS + 20))
while zpty -t shell 2>/dev/null && ((SECONDS < deadline)); do zpty -r -t shell output || sleep 0.1; done
zpty -d shell
DRIVE
timeout 60 zsh -f "$scratch/drive.zsh" 'okv2 im' 'okv2 import --forc' 'okv2 sample --arch q' \
  'okv2 import mode' 'okv2 list models.o' >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }

expected='okv2 import
okv2 import --force
okv2 sample --arch qwen2
okv2 import models/
okv2 list models.okv2'
got=$(sed 's/ *$//' "$scratch/lines")
if [[ $got != "$expected" ]]; then
  printf 'FAILED\nexpected:\n%s\ngot:\n%s\n' "$expected" "$got" >&2
  exit 1
fi
