"""Copies the tensors of a model to one file, with pread and write of 256 KB; prints the seconds it took.

read_write_loop.py OUT PLAN: the order is that of PLAN, what `okv2 plan --json` says of the model. The headers
of the shards are read before the clock starts.
"""

import json
import os
import struct
import sys
import time

PIECE = 256 * 1024


def sources(plan):
    """Each tensor's open file, its offset there and its size, in the order of the container."""
    files, headers = {}, {}
    for tensor in plan["tensors"]:
        name = tensor["file"]
        if name not in files:
            files[name] = os.open(os.path.join(plan["directory"], name), os.O_RDONLY)
            (length,) = struct.unpack("<Q", os.pread(files[name], 8, 0))
            headers[name] = length, json.loads(os.pread(files[name], length, 8))
        length, header = headers[name]
        begin, end = header[tensor["source"]]["data_offsets"]
        yield files[name], 8 + length + begin, end - begin


with open(sys.argv[2], encoding="utf-8") as file:
    tensors = list(sources(json.load(file)))
start = time.monotonic()
target = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
for source, offset, left in tensors:
    while left > 0:
        piece = os.pread(source, min(left, PIECE), offset)
        if not piece or os.write(target, piece) != len(piece):
            sys.exit("read_write_loop: the source is too short or the disk is full")
        offset += len(piece)
        left -= len(piece)
os.close(target)
print(time.monotonic() - start)
