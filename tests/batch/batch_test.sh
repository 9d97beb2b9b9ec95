#!/usr/bin/env bash
# batch_test.sh OKV2_DIR BATCH_MD: runs the recipes of docs/batch.md as they stand there, over 20 models, some
# of which cannot be imported: the one for GNU parallel is interrupted and resumed. OKV2_DIR holds the
# command. Exit code 77 (skipped) without GNU parallel.
set -euo pipefail
bin=$1 document=$2
command -v parallel >/dev/null || { echo "SKIPPED: GNU parallel is missing (Debian: parallel)"; exit 77; }

scratch=$(mktemp -d)
background=
cleanup() {
  [[ -z $background ]] || kill -KILL -- "-$background" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
expect_equal() { [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"; }
export HOME=$scratch  # where GNU parallel keeps its settings

# The blocks that are marked in the document.
for number in 1 2; do
  awk -v wanted=$number '/^<!-- tests\/batch runs this block/ {++marks} /^```$/ {inside = 0}
    inside {print} /^```bash$/ {inside = marks == wanted}' "$document" >"$scratch/recipe$number"
done
grep -q '^  parallel ' "$scratch/recipe1" || fail "the recipe for GNU parallel is not found"
grep -q SLURM "$scratch/recipe2" || fail "the recipe for Slurm is not found"

# An okv2 that stops at one model as long as `hold` exists: a model that takes hours.
mkdir "$scratch/bin"
cat >"$scratch/bin/okv2" <<WRAPPER
#!/usr/bin/env bash
if [[ \$1 == import && \${!#} == models/model-08 && -e $scratch/hold ]]; then
  : >"$scratch/held"
  exec sleep 100
fi
exec "$bin/okv2" "\$@"
WRAPPER
chmod +x "$scratch/bin/okv2"
PATH=$scratch/bin:$PATH

# 20 models: 16 good ones, of every kind and with awkward names, and four that cannot be imported.
cd "$scratch"
mkdir models
names=()
for number in $(seq -w 1 20); do names+=("model-$number"); done
# shellcheck disable=SC2016  # the dollar is part of the name
names[2]="model 'three" names[3]='model $HOME four'
archs=(llama qwen2 gemma4 gpt2)
for index in "${!names[@]}"; do
  "$bin/okv2" sample "models/${names[index]}" --size 20K --arch "${archs[index % 4]}" 2>/dev/null
done
declare -A expected=(  # the reason of each failure, with its exit code
  [model-06]='7 hf: bad config.json'
  [model-07]='2 convert: HF directory has no safetensors or pytorch_model.bin'
  [model-13]='7 safetensors: bad header length'
  [model-20]='2 hf: no config.json in directory')
echo '{"model_type" "llama"}' >models/model-06/config.json
rm models/model-07/*.safetensors
echo 'version 1 of a pointer, oid sha256' >models/model-13/model.safetensors
rm models/model-20/config.json

# Interrupted: the first signal lets running imports finish, the second ends them.
: >hold
set -m
bash recipe1 >log 2>&1 &
background=$!
set +m
for ((tries = 0; tries < 300; ++tries)); do
  [[ ! -e held ]] || (($(find out -name '*.json' | wc -l) < 5)) || break
  sleep 0.1
done
[[ -e held ]] || { cat log; fail "model-08 was never reached"; }
kill -TERM -- "-$background"
sleep 0.3
kill -TERM -- "-$background" 2>/dev/null || true
wait "$background" && fail "the interrupted run reports success"
background=
before=$(find out -name '*.json' | wc -l)
((before < 20)) || fail "nothing was left to resume"
[[ ! -e out/model-08.json && ! -e out/model-08.okv2 ]] || fail "model-08 was done although it was stopped"

# What a power cut may leave behind.
head -c 1000 out/model-01.okv2 >half
mv half out/model-01.okv2
good=$(find out -name '*.okv2' ! -name model-01.okv2 | sort)
sums=$(echo "$good" | xargs -d '\n' stat -c '%i %y %n')

# Resumed, without the obstacle.
rm hold
code=0
bash recipe1 >log 2>&1 || code=$?
expect_equal "the number of failed models" "$code" 4
expect_equal "what was good already" "$(echo "$good" | xargs -d '\n' stat -c '%i %y %n')" "$sums"

# Every model is verified or has its reason in the report.
result() {  # CODE MESSAGE of a report
  python3 -c 'import json, sys
result = json.load(open(sys.argv[1]))["result"]
print(result["code"], result["message"])' "$1"
}
for name in "${names[@]}"; do
  if [[ -n ${expected[$name]-} ]]; then
    expect_equal "the report of $name" "$(result "out/$name.json")" "${expected[$name]}"
    [[ ! -e out/$name.okv2 ]] || fail "there is a container of $name"
  else
    expect_equal "the report of $name" "$(result "out/$name.json")" "0 "
    "$bin/okv2" verify "out/$name.okv2" >/dev/null || fail "$name does not verify"
  fi
done
expect_equal "what was begun" "$(find out -type f ! -name '*.json' ! -name '*.okv2')" ""
expect_equal "files in out" "$(find out -type f | wc -l)" 36  # 20 reports, 16 containers, nothing half done

summary=$("$bin/okv2" summary out/*.json)
[[ ${summary%%$'\n'*} =~ ^'20 reports: '([0-9]+)' imported, '([0-9]+)' skipped, 4 failed'$ ]] ||
  fail "the summary begins with ${summary%%$'\n'*}"
expect_equal "imported and skipped" $((BASH_REMATCH[1] + BASH_REMATCH[2])) 16
for name in "${!expected[@]}"; do
  grep -qF "models/$name: ${expected[$name]#* }" <<<"$summary" || fail "the summary does not explain $name"
done

# The script for Slurm, as its scheduler would start it: a good model, one that is no model, a wrong set-up.
rm -rf out
find models -mindepth 1 -maxdepth 1 -type d | sort >models.txt
export SLURM_ARRAY_JOB_ID=77
line_of() { grep -n "$1\$" models.txt | cut -d: -f1; }
SLURM_ARRAY_TASK_ID=$(line_of model-01) bash recipe2 2>/dev/null || fail "Slurm: model-01 exited with $?"
"$bin/okv2" verify out/model-01.okv2 >/dev/null
SLURM_ARRAY_TASK_ID=$(line_of model-07) bash recipe2 2>/dev/null || fail "Slurm: model-07 exited with $?"
expect_equal "Slurm: the report of model-07" "$(result out/model-07.json)" "${expected[model-07]}"
for tool in scancel scontrol; do
  printf '#!/bin/sh\necho %s "$@" >>%q\n' $tool "$scratch/scheduler" >"bin/$tool"
  chmod +x "bin/$tool"
done
# A disk with room for the report and not for the container.
rm out/model-01.*
code=0
(trap '' XFSZ && ulimit -f 16 && SLURM_ARRAY_TASK_ID=$(line_of model-01) exec bash recipe2) 2>/dev/null || code=$?
expect_equal "Slurm: the report of a full disk" "$(result out/model-01.json)" "2 OKV2: write weights failed"
expect_equal "Slurm: a full disk" "$code $(cat scheduler)" "74 scontrol requeue 77_$(line_of model-01)"
rm scheduler
printf '#!/bin/sh\nexit 69\n' >bin/okv2
code=0
SLURM_ARRAY_TASK_ID=3 bash recipe2 || code=$?
expect_equal "Slurm: no plug-in" "$code $(cat scheduler)" "69 scancel 77"
printf '#!/bin/sh\nexit 6\n' >bin/okv2
rm scheduler
code=0
SLURM_ARRAY_TASK_ID=3 bash recipe2 || code=$?
expect_equal "Slurm: an input/output error" "$code $(cat scheduler)" "6 scontrol requeue 77_3"
rm scheduler
code=0
SLURM_RESTART_COUNT=3 SLURM_ARRAY_TASK_ID=3 bash recipe2 || code=$?
expect_equal "Slurm: the fourth input/output error" "$code $(cat scheduler 2>/dev/null)" "6 "
