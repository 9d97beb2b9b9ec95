"""Copies files to one, with pread and write of 256 KB, file by file; prints the seconds it took.

read_write_loop.py OUT FILE...
"""

import os
import sys
import time

PIECE = 256 * 1024

start = time.monotonic()
target = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
for path in sys.argv[2:]:
    source = os.open(path, os.O_RDONLY)
    offset = 0
    while piece := os.pread(source, PIECE, offset):
        os.write(target, piece)
        offset += len(piece)
    os.close(source)
os.close(target)
print(time.monotonic() - start)
