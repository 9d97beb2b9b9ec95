#!/usr/bin/env bash
# package_test.sh CPACK BUILD_DIR VERSION: makes the Debian package of the build, has lintian look at it,
# installs it below a scratch root with dpkg and works with what is there. Exit code 77 (skipped) where dpkg
# or lintian are missing.
set -euo pipefail
cpack=$1 build=$2 version=$3
PATH=$PATH:/usr/sbin:/sbin  # dpkg wants ldconfig there, although nothing calls it
for tool in dpkg dpkg-deb dpkg-shlibdeps lintian; do
  command -v $tool >/dev/null || { echo "SKIPPED: $tool is missing (Debian: dpkg-dev, lintian)"; exit 77; }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
expect_equal() { [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"; }
field() { dpkg-deb -f "$package" "$1"; }

"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/cpack" >"$scratch/log" 2>&1 ||
  { cat "$scratch/log"; fail "cpack"; }
package=$scratch/cpack/importer-hf_$version-1_$(dpkg --print-architecture).deb
[[ -f $package ]] || fail "cpack wrote no $package"
expect_equal "the package" "$(field Package) $(field Version)" "importer-hf $version-1"
[[ $(field Depends) == *libc6* ]] || fail "no dependency on libc6: $(field Depends)"
expect_equal "owners" "$(dpkg-deb -c "$package" | awk '{print $2}' | sort -u)" root/root

# Tags that are overridden are not shown.
as_root=()
((EUID)) || as_root=(--allow-root)
tags=$(TMPDIR=$scratch lintian "${as_root[@]}" --tag-display-limit 0 "$package" 2>&1) || true
expect_equal "lintian's tags" "$tags" ""

# Installed by dpkg into a root of its own; what it depends on is taken from the machine.
root=$scratch/root
mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
touch "$root"/var/lib/dpkg/{status,available}
in_root=(dpkg --root="$root" --log=/dev/null --force-not-root --force-depends --force-script-chrootless)
"${in_root[@]}" -i "$package" >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "dpkg -i"; }
# shellcheck disable=SC2016  # a dpkg format, not a shell variable
state=$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${db:Status-Abbrev}' importer-hf)
expect_equal "the state" "$state" "ii "

for file in include/importer_hf/host_abi.h share/doc/importer-hf/copyright \
    share/doc/importer-hf/changelog.Debian.gz share/doc/importer-hf/docs/container-format.md \
    share/bash-completion/completions/okv2 share/zsh/vendor-completions/_okv2 \
    share/fish/vendor_completions.d/okv2.fish share/man/man1/okv2.1.gz share/man/man3/okv2-plugin.3.gz \
    share/man/man5/okv2-container.5.gz share/importer_hf/python/okv2.py; do
  [[ -s $root/usr/$file ]] || fail "the package has no usr/$file"
done

# No page leads to a file that the package does not have.
while IFS=: read -r page link; do
  target=$(dirname "$page")/${link%%#*}
  [[ -e $target ]] || fail "$page links to $link"
done < <(grep -roP --include='*.md' '\]\(\K(?!https?:|#)[^)]+(?=\))' "$root/usr/share/doc/importer-hf")

# Used from there.
okv2=$root/usr/bin/okv2
expect_equal "okv2 --version" "$("$okv2" --version)" "okv2 $version"
cd /
"$okv2" sample "$scratch/model" --size 100K 2>/dev/null
"$okv2" import "$scratch/model" -o "$scratch/model.okv2" -q
"$okv2" verify "$scratch/model.okv2" >/dev/null
expect_equal "bytes that differ from the build's own import" \
  "$("$build/bin/okv2" import "$scratch/model" -o "$scratch/build.okv2" -q
     cmp "$scratch/model.okv2" "$scratch/build.okv2" 2>&1)" ""
if command -v man >/dev/null; then
  # Not read through a pipe into grep -q, which would leave man writing to nobody.
  page=$(man -l "$root/usr/share/man/man1/okv2.1.gz" 2>/dev/null)
  [[ $page == *"turn model directories into OKV2 containers"* ]] || fail "okv2(1) does not render"
fi
if command -v pkg-config >/dev/null; then
  plugin=$(PKG_CONFIG_LIBDIR=$(dirname "$(find "$root" -name importer_hf.pc)") \
    pkg-config --variable=plugin importer_hf)
  [[ -f $plugin ]] || fail "pkg-config names '$plugin' as the plug-in"
fi
if /usr/bin/python3 -c 'import numpy' 2>/dev/null; then
  expect_equal "the architecture, from Python" "$(PYTHONPATH=$root/usr/share/importer_hf/python \
    /usr/bin/python3 -B -c "import okv2, sys
print(okv2.open(sys.argv[1]).get('general.architecture'))" "$scratch/model.okv2")" llama
fi

"${in_root[@]}" --purge importer-hf >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "dpkg --purge"; }
expect_equal "what is left after a purge" "$(find "$root" -path "$root/var" -prune -o -type f -print)" ""
