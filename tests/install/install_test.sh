#!/usr/bin/env bash
# install_test.sh CMAKE BUILD_DIR SOURCE_DIR CC PKG_CONFIG VERSION
# Installs the build to a scratch prefix, builds the example host through find_package and through pkg-config,
# imports with both, and does it once more after the prefix has been moved.
set -euo pipefail
cmake=$1 build=$2 source=$3 cc=$4 pkg_config=$5 version=$6

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() { echo "FAILED: $*" >&2; exit 1; }
expect_equal() { [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"; }

# use_prefix PREFIX WORK: everything that a host's author and a user do with an installed prefix.
use_prefix() {
  local prefix=$1 work=$2 way plugin
  mkdir "$work"
  plugin=$(find "$prefix" -name importer_hf.so)
  [[ -f $plugin ]] || fail "no plug-in under $prefix"

  # The installed command finds the installed plug-in by itself, from any directory.
  (cd / && "$prefix/bin/okv2" sample "$work/model")

  # Through find_package.
  "$cmake" -S "$source/examples" -B "$work/find_package" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="-Wall -Wextra -Wpedantic -Werror" >"$work/log" 2>&1 &&
    "$cmake" --build "$work/find_package" >>"$work/log" 2>&1 ||
    { cat "$work/log"; fail "the example host does not build through find_package"; }
  expect_equal "the target property's plug-in path" \
    "$(realpath "$("$cmake" --build "$work/find_package" --target where | grep importer_hf.so | tail -n 1)")" \
    "$(realpath "$plugin")"

  # Through pkg-config.
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name importer_hf.pc)")
  export PKG_CONFIG_PATH
  expect_equal "pkg-config's version" "$("$pkg_config" --modversion importer_hf)" "$version"
  expect_equal "pkg-config's plug-in path" \
    "$(realpath "$("$pkg_config" --variable=plugin importer_hf)")" "$(realpath "$plugin")"
  mkdir "$work/pkg_config"
  # shellcheck disable=SC2046  # several flags
  "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror $("$pkg_config" --cflags importer_hf) \
    "$source/examples/host.c" -ldl -o "$work/pkg_config/host"

  for way in find_package pkg_config; do
    "$work/$way/host" "$plugin" "$work/model" "$work/$way.okv2" >"$work/$way.out" ||
      fail "the $way host exited with $?"
    grep -q '^probe: hf (directory with config.json, confidence 100)$' "$work/$way.out" || fail "$way: probe"
    grep -q '^inspect: architecture llama$' "$work/$way.out" || fail "$way: inspect"
    grep -q "^import: [1-9][0-9]* tensors, $(stat -c %s "$work/$way.okv2") bytes in " "$work/$way.out" ||
      fail "$way: import"
    "$prefix/bin/okv2" verify "$work/$way.okv2" >/dev/null || fail "$way: verify exited with $?"
  done

  "$prefix/bin/okv2" import "$work/model" -o "$work/command.okv2" -q || fail "okv2 import exited with $?"
  cmp "$work/command.okv2" "$work/find_package.okv2" || fail "command and host write different containers"
  cmp "$work/command.okv2" "$work/pkg_config.okv2" || fail "command and host write different containers"

  # A host's failures are the plug-in's: result code and text.
  local code=0
  mkdir "$work/no_weights"
  cp "$work/model/config.json" "$work/no_weights"
  "$work/pkg_config/host" "$plugin" "$work/no_weights" "$work/none.okv2" >/dev/null 2>"$work/err" || code=$?
  expect_equal "the exit code without weights" "$code" 2
  expect_equal "the text without weights" "$(cat "$work/err")" \
    "host: convert: HF directory has no safetensors or pytorch_model.bin"
}

"$cmake" --install "$build" --prefix "$scratch/first" >"$scratch/log" 2>&1 ||
  { cat "$scratch/log"; fail "cmake --install"; }
expect_equal "the installed headers" "$(cd "$scratch/first/include" && find . -type f)" \
  ./importer_hf/host_abi.h
use_prefix "$scratch/first" "$scratch/work1"

mv "$scratch/first" "$scratch/second"
if grep -rlF "$scratch/first" "$scratch/second"; then
  fail "the files above name the prefix that they were installed to"
fi
use_prefix "$scratch/second" "$scratch/work2"
