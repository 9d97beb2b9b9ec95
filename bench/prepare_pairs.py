"""Preparing one torch.save checkpoint beside `cat` of its bytes, in interleaved pairs.

    prepare_pairs.py [--size 10G] [--pairs 5] [--work DIR] [--quick] -- COMMAND...

COMMAND is called with the model directory and the directory to write ("build/release/bin/okv2 prepare"). The
checkpoint is written here, without torch, in the zip form: BF16 tensors of 16 MB, every fourth transposed when
--transposed is given. The answer is checked before anything is timed. Everything that is made is removed.
"""

import argparse
import json
import pathlib
import shutil
import struct
import tempfile
import zipfile

from import_pairs import summary, touch_memory, warm
from measure import require_tools, timed, watched

TENSOR_BYTES = 16 * 1000 * 1024
ROWS, COLUMNS = 8000, 1024
TIME_LIMIT, MEMORY_LIMIT = 1.3, 256


def text(value):
    raw = value.encode()
    return b"X" + struct.pack("<I", len(raw)) + raw


def number(value):
    return b"\x8a\x08" + struct.pack("<q", value)


def program(count, transposed):
    """A state dict of `count` tensors, each over a storage of its own, in pickle protocol 2."""
    out = b"\x80\x02ccollections\nOrderedDict\n)R("
    for k in range(count):
        stride = b"K\x01M" + struct.pack("<H", ROWS) if transposed and k % 4 == 3 else b"M\x00\x04K\x01"
        shape = b"M" + struct.pack("<H", ROWS) + b"M\x00\x04\x86"
        storage = (b"(" + text("storage") + b"ctorch\nBFloat16Storage\n" + text(str(k)) + text("cpu") +
                   number(ROWS * COLUMNS) + b"tQ")
        out += (text(f"model.layers.{k}.mlp.up_proj.weight") + b"ctorch._utils\n_rebuild_tensor_v2\n(" + storage +
                b"K\x00" + shape + stride + b"\x86\x89ccollections\nOrderedDict\n)RtR")
    return out + b"u."


def piece(k):
    """The bytes of tensor k: the same 64 KB again and again, other ones for each tensor."""
    return bytes((j * 7 + k * 31) & 255 for j in range(65536)) * (TENSOR_BYTES // 65536)


def make_model(directory, count, transposed):
    directory.mkdir()
    (directory / "config.json").write_text('{"model_type":"llama"}')
    path = directory / "pytorch_model.bin"
    with zipfile.ZipFile(path, "w", zipfile.ZIP_STORED) as archive:
        archive.writestr("archive/data.pkl", program(count, transposed))
        for k in range(count):
            archive.writestr(f"archive/data/{k}", piece(k))
        archive.writestr("archive/version", "3\n")
    return path


def check(path, count, transposed):
    """Every name, type, shape and offset, and the bytes of the first and of the last tensor."""
    with open(path, "rb") as file:
        (length,) = struct.unpack("<Q", file.read(8))
        header = json.loads(file.read(length))
        header.pop("__metadata__", None)
        assert len(header) == count, len(header)
        for k in range(count):
            entry = header[f"model.layers.{k}.mlp.up_proj.weight"]
            assert entry["dtype"] == "BF16" and entry["shape"] == [ROWS, COLUMNS], entry
            if k not in (0, count - 1):
                continue
            file.seek(8 + length + entry["data_offsets"][0])
            data = file.read(TENSOR_BYTES)
            expected = piece(k)
            if transposed and k % 4 == 3:
                elements = memoryview(expected).cast("H")
                row = b"".join(struct.pack("<H", elements[j * ROWS]) for j in range(COLUMNS))
                assert data[:2 * COLUMNS] == row, k
            else:
                assert data == expected, k


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", default="10G", help="bytes of the checkpoint, with M or G")
    parser.add_argument("--pairs", type=int, default=5)
    parser.add_argument("--work", default=".")
    parser.add_argument("--transposed", action="store_true")
    parser.add_argument("--quick", action="store_true", help="a small checkpoint, one pair: checks answers only")
    parser.add_argument("command", nargs="+")
    args = parser.parse_args()
    if args.quick:
        args.size, args.pairs = "64M", 1
    require_tools(args.quick)
    size = int(args.size[:-1]) * {"M": 10**6, "G": 10**9}[args.size[-1]]
    count = max(4, size // TENSOR_BYTES)
    with tempfile.TemporaryDirectory(dir=args.work, prefix="okv2-bench-") as work:
        work = pathlib.Path(work)
        source = make_model(work / "model", count, args.transposed)
        out = work / "out"
        copy = work / "copy"

        def clear():
            shutil.rmtree(out, ignore_errors=True)
            copy.unlink(missing_ok=True)
            touch_memory(min(source.stat().st_size * 5 // 4, 1 << 31))

        def ours(measure=timed):
            clear()
            if args.command[-1] != "prepare":
                out.mkdir()  # the tests' driver wants it there
            return measure([*args.command, str(source.parent), str(out)])

        def theirs():
            clear()
            return timed(["cat", str(source)], output=copy)

        warm([source])
        held = ours(measure=watched)
        check(out / "model.safetensors", count, args.transposed)
        ratios, own, cats = [], [], []
        for k in range(args.pairs):
            # Each goes first in every other pair: what the first leaves behind in the kernel hits both alike.
            for run, results in ((theirs, cats), (ours, own)) if k % 2 == 0 else ((ours, own), (theirs, cats)):
                results.append(run().wall)
            ratios.append(own[-1] / cats[-1])
        times = summary(ratios)
        kind = "checkpoint, a quarter of it transposed," if args.transposed else "checkpoint"
        print(f"prepare of a torch {kind} of {source.stat().st_size / 1e9:.3f} GB / cat: {times['median']:.3f} "
              f"(min {times['min']:.3f}, max {times['max']:.3f}, {times['runs']} pairs; "
              f"{summary(own)['median']:.3f} s / {summary(cats)['median']:.3f} s; goal {TIME_LIMIT}) "
              f"{'reached' if times['median'] <= TIME_LIMIT else 'MISSED'}")
        print(f"peak anonymous memory {held.anonymous / 1e6:.1f} MB, with mapped pages {held.peak / 1e6:.1f} MB "
              f"(goal {MEMORY_LIMIT} beyond the mapping) "
              f"{'reached' if held.anonymous <= MEMORY_LIMIT * 1e6 else 'MISSED'}")


if __name__ == "__main__":
    main()
