"""Writes every tensor of safetensors files to one file with numpy, by name; prints the seconds of the loop.

numpy_copy.py OUT SHARD...
"""

import json
import struct
import sys
import time

import numpy

tensors = []
for path in sys.argv[2:]:
    with open(path, "rb") as file:
        (length,) = struct.unpack("<Q", file.read(8))
        header = json.loads(file.read(length))
    header.pop("__metadata__", None)
    mapping = numpy.memmap(path, mode="r")
    for name, entry in header.items():
        begin, end = entry["data_offsets"]
        tensors.append((name, mapping[8 + length + begin : 8 + length + end]))
tensors.sort(key=lambda tensor: tensor[0])
start = time.monotonic()
with open(sys.argv[1], "wb") as out:
    for _, data in tensors:
        data.tofile(out)
print(time.monotonic() - start)
