#!/usr/bin/env bash
# prepare_document_test.sh OKV2_DIR PREPARE_MD MODEL: runs the example of docs/prepare.md as it stands there, on
# the published texts of the model that it speaks of, with small stand-ins for the weights: MODEL is a clone of
# which the weights were not fetched. Exit code 77 (skipped) without it.
set -euo pipefail
bin=$1 document=$2 model=$3
[[ -d $model ]] || { echo "SKIPPED: $model is missing"; exit 77; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
expect_equal() { [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"; }

# The blocks that are marked in the document: two to run, one that shows lines.
for number in 1 2; do
  awk -v wanted=$number '/^<!-- .*prepare_document_test.sh runs this block/ {++marks} /^```$/ {inside = 0}
    inside {print} /^```bash$/ {inside = marks == wanted}' "$document" >"$scratch/block$number"
done
awk '/^<!-- .*prepare_document_test.sh looks for/ {inside = 1; next} inside && !/^    / {exit}
  inside {print substr($0, 5)}' "$document" >"$scratch/lines"
expect_equal "commands in the first block" "$(wc -l <"$scratch/block1")" 5
expect_equal "commands in the second block" "$(wc -l <"$scratch/block2")" 1
expect_equal "lines that are shown" "$(wc -l <"$scratch/lines")" 3

# A git that clones the directory, and fetches small weights in the place of the pointers.
mkdir "$scratch/bin"
cat >"$scratch/bin/git" <<'WRAPPER'
#!/usr/bin/env bash
set -euo pipefail
case $1 in
  clone) cp -r --no-preserve=mode "$2" "$3" ;;
  -C) okv2 sample stand-in --size 20K && mv stand-in/*.safetensors "$2/model.safetensors" ;;
  *) exit 1 ;;
esac
WRAPPER
chmod +x "$scratch/bin/git"
PATH=$scratch/bin:$bin:$PATH
export URL=$model
cd "$scratch"

run() {  # EXPECTED COMMAND: one line of a block, with the exit code that it shall have
  code=0
  bash -c "$2" >out 2>err || code=$?
  [[ $code == "$1" ]] || cat err >&2
  expect_equal "the exit code of: $2" "$code" "$1"
}

while IFS= read -r line; do
  expected=0
  if [[ $line =~ '# exits with '([0-9]+) ]]; then expected=${BASH_REMATCH[1]}; fi
  run "$expected" "$line"
  if [[ $line == "okv2 prepare "* ]]; then mv err prepared; fi
done <block1

while IFS= read -r line; do
  grep -qxF -- "$line" prepared || fail "prepare does not say: $line"
done <lines

mv pythia.okv2 expected.okv2
run 0 "$(cat block2)"
cmp pythia.okv2 expected.okv2 || fail "in one go, another container is written"
listed=$(python3 -c 'import json; print(len(json.load(open("pythia.json"))["changes"]))')
expect_equal "changes in the record" "$listed" "$(grep -vc '^not mended: ' prepared)"
