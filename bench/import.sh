#!/usr/bin/env bash
# Measures whole imports beside what the kernel needs to copy the same bytes, in interleaved pairs.
#
#   bench/import.sh BUILD_DIR [--size 2G] [--pairs 15] [--work DIR] [--memory DIR] [--json FILE] [--quick]
#
# DIR of --work lies on the disk (default: bench-data in the build directory), that of --memory on a tmpfs
# (default: /dev/shm). Everything that is made is removed at the end. Times are hyperfine's, peak memory and page
# faults those of GNU time. The import of many small tensors, which is short, takes three times as many pairs.
# scripts/bench calls this.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
exec /usr/bin/python3 -B "$here/import_pairs.py" "$@"
