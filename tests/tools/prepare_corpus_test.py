#!/usr/bin/env python3
"""prepare_corpus_test.py DRIVER CORPUS: every torch and safetensors file of the corpus, prepared.

Each file is put alone into a minimal model directory, and DRIVER (prepare_weights_driver) prepares it. What
comes out is compared with what Python's own unpickler finds in the original: names, element types, shapes and
the bytes of every value. The unpickler runs with a closed list of its own and builds plain tuples, so it runs
no code either; files that were made to test scanners are not given to it at all.

The tables below hold the options, and the whole message of every file that is refused. A file in no table is
taken whole, without options.
"""
import collections
import csv
import io
import json
import math
import os
import pickle
import pickletools
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import zipfile

DRIVER, CORPUS = sys.argv[1:3]

# Not loaded by Python, on purpose: see the corpus's README.
SCANNER_SAMPLES = "picklescan-"

FOREIGN = "pytorch_model.bin: checkpoint: the pickle names a global that is not on the list: %s"

# Option lists with which a file is taken.
INTEGERS = ["--cast-integers"]
EVERY_TYPE = ["--cast", "--cast-integers", "--drop", "^1[01]$"]  # complex numbers
TORCH_OPTIONS = {
    "bumblebee-noncontiguous_numpy_array.legacy.pt": INTEGERS,
    "bumblebee-noncontiguous_tensor.legacy.pt": INTEGERS,
    "bumblebee-noncontiguous_tensor.zip.pt": INTEGERS,
    "bumblebee-numpy_arrays.zip.pt": ["--cast", "--cast-integers", "--drop", "^1[23]$"],  # complex numbers
    "bumblebee-tensors.legacy.pt": EVERY_TYPE,
    "bumblebee-tensors.zip.pt": EVERY_TYPE,
    "burn-batch_norm__batch_norm2d.pt": ["--drop", "num_batches_tracked$"],
    "burn-bool.pt": INTEGERS,
    "burn-boolean__boolean.pt": INTEGERS,
    "burn-buffers.pt": INTEGERS,
    "burn-complex_nested__complex_nested.pt": ["--drop", "num_batches_tracked$"],
    "burn-key_remap_chained__key_remap.pt": ["--drop", "num_batches_tracked$"],
    "burn-float64.pt": ["--cast"],
    "burn-int32.pt": INTEGERS,
    "burn-int64.pt": INTEGERS,
    "burn-mixed_types.pt": ["--cast", "--drop", "^(int64|bool)$"],
    "burn-test_int.pt": INTEGERS,
    "candle-test.pt": INTEGERS,
    "candle-test_with_key.pt": INTEGERS,
}
for _type in "bool int16 int32 int64 int8 uint8 float64".split():
    for _protocol in "24":
        TORCH_OPTIONS[f"gopickle-tensor_{_type}_proto{_protocol}_zip.pt"] = (
            ["--cast"] if _type == "float64" else INTEGERS)
# What is refused, and why: none of these files holds a tensor with elements. TorchScript programs name classes of
# their own.
TORCH_REFUSED = {
    "bumblebee-ordered_dict.legacy.pt":
        "pytorch_model.bin: checkpoint: it holds no dictionary of tensors by name",
    "burn-empty.pt": "pytorch_model.bin: the container takes one to four extents, none of them 0: 'tensor' [0]",
    "djl-_world__identity.pt": FOREIGN % "__torch__.IValueProcessing",
    "tch-foo1.pt": FOREIGN % "__torch__.Foo1",
    "tch-foo2.pt": FOREIGN % "__torch__.Foo2",
    "tch-foo4.pt": FOREIGN % "__torch__.Foo4",
    "tch-foo5.pt": FOREIGN % "__torch__.Foo5",
    "tch-foo7.pt": FOREIGN % "__torch__.TorchScriptExample",
    "tch-foo8.pt": FOREIGN % "__torch__.DictExample",
    "picklescan-bad_pytorch.pt": "pytorch_model.bin: checkpoint: it is neither a zip archive nor a pickle",
}

SAFETENSORS_OPTIONS = {
    "candle-encodec-jfk-codes.safetensors": INTEGERS,
    "swift-1d-int32.safetensors": INTEGERS,
    "swift-safetensors-data.safetensors": INTEGERS,
    "burn-mnist.safetensors": ["--drop", "num_batches_tracked$"],
    "burn-multi_layer.safetensors": ["--drop", "num_batches_tracked$"],
    "swift-2d-float64.safetensors": ["--cast"],
}
LINK_TEXT = "model.safetensors: it holds the text of a symbolic link and not its target's content"
SAFETENSORS_REFUSED = {
    "link-text-mini-llm-engine.safetensors": (7, LINK_TEXT),
    "link-text-rtp.safetensors": (7, LINK_TEXT),
}
LFS = "it is a Git LFS pointer and not its content"
DIRECTORIES = {  # exit code and message; None where every shard is linked
    "deepseek-r1-distill-qwen-32b-clone-without-lfs": (7, "model-00001-of-000008.safetensors: " + LFS),
    "falcon-40b-clone-without-lfs": (7, "pytorch_model-00001-of-00009.bin: " + LFS),
    "phi-3-mini-clone-without-lfs": (7, "model-00001-of-00002.safetensors: " + LFS),
    "pythia-410m-clone-without-lfs": (7, "model.safetensors: " + LFS),
    "rtp-llama-sentencepiece-link-text-bin":
        (7, "pytorch_model.bin: it holds the text of a symbolic link and not its target's content"),
    "mixtral-no-weights":
        (2, "pytorch_model-00001-of-00019.bin: it is missing, and pytorch_model.bin.index.json names it"),
    "hf2q-tiny": None,
    "paged-infer-tiny-llama": None,
}

# Names of torch's storage classes: the safetensors type and the bytes of an element.
STORAGES = {"FloatStorage": ("F32", 4), "HalfStorage": ("F16", 2), "BFloat16Storage": ("BF16", 2),
            "DoubleStorage": ("F64", 8), "LongStorage": ("I64", 8), "IntStorage": ("I32", 4),
            "ShortStorage": ("I16", 2), "CharStorage": ("I8", 1), "ByteStorage": ("U8", 1),
            "BoolStorage": ("BOOL", 1), "ComplexFloatStorage": ("C64", 8), "ComplexDoubleStorage": ("C128", 16)}
# The same for numpy's names of types.
NUMPY_TYPES = {"f2": ("F16", 2), "f4": ("F32", 4), "f8": ("F64", 8), "i1": ("I8", 1), "i2": ("I16", 2), "i4": ("I32", 4),
               "i8": ("I64", 8), "u1": ("U8", 1), "u2": ("U16", 2), "u4": ("U32", 4), "u8": ("U64", 8),
               "b1": ("BOOL", 1), "c8": ("C64", 8), "c16": ("C128", 16)}
# Letters of Python's module struct.
INTEGER_LETTERS = {"I64": "q", "I32": "i", "I16": "h", "I8": "b", "U64": "Q", "U32": "I", "U16": "H", "U8": "B",
                   "BOOL": "?"}

Tensor = collections.namedtuple("Tensor", "type shape data")


class NumpyType:
    def __init__(self, code, *_):
        self.code = code

    def __setstate__(self, state):
        assert state[1] in "<|", state


class NumpyArray:
    """As numpy's __reduce__ has it: made empty, and then given (version, shape, type, is Fortran, bytes)."""

    def __init__(self, *_):
        pass

    def __setstate__(self, state):
        _, shape, kind, is_fortran, data = state
        steps = [1]
        for extent in (shape if is_fortran else shape[::-1])[:-1]:
            steps.append(steps[-1] * extent)
        self.tensor = gather(data, NUMPY_TYPES[kind.code], 0, shape, steps if is_fortran else steps[::-1])


class Original(pickle.Unpickler):
    """Finds tensors as tuples: nothing that a file names is imported."""

    def __init__(self, file):
        super().__init__(file)
        self.encoding = "utf-8"

    def find_class(self, module, name):
        if (module, name) == ("collections", "OrderedDict"):
            return Original.dictionary
        if (module, name) in Original.numpy:
            return Original.numpy[module, name]
        if module == "torch" and name in STORAGES:
            return name
        if (module, name) == ("torch._utils", "_rebuild_tensor_v2"):
            return lambda storage, offset, shape, strides, *rest: ("tensor", storage, offset, shape, strides)
        if (module, name) == ("torch._utils", "_rebuild_parameter"):
            return lambda tensor, *rest: tensor
        raise pickle.UnpicklingError(f"{module}.{name}")

    class dictionary(dict):
        def __setstate__(self, state):
            pass

    numpy = {
        ("numpy.core.multiarray", "_reconstruct"): NumpyArray,
        ("numpy", "ndarray"): None,
        ("numpy", "dtype"): NumpyType,
        ("_codecs", "encode"): lambda text, encoding: text.encode(encoding),
    }

    def persistent_load(self, pid):
        return pid[1:5]


def gather(storage, element, offset, shape, strides):
    """The elements in the order of the shape, one at a time."""
    name, size = element
    out = b""
    index = [0] * len(shape)
    for _ in range(math.prod(shape)):
        at = (offset + sum(i * s for i, s in zip(index, strides))) * size
        out += storage[at:at + size]
        for k in reversed(range(len(shape))):
            index[k] += 1
            if index[k] < shape[k]:
                break
            index[k] = 0
    return Tensor(name, list(shape), out)


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def persistent_ids(path):
    """How many storages the object of a file refers to, by disassembling it."""
    file = io.BytesIO(read_file(path))
    if zipfile.is_zipfile(path):
        file = io.BytesIO(zipfile.ZipFile(file).read("archive/data.pkl"))
    else:
        for _ in range(3):
            collections.deque(pickletools.genops(file), maxlen=0)
    return sum(opcode.name == "BINPERSID" for opcode, _, _ in pickletools.genops(file))


def read_torch(path):
    """Name to Tensor, for one tensor, a list, or a state dict that may lie under one key of a dictionary."""
    blob = read_file(path)
    storages = {}
    if zipfile.is_zipfile(path):
        archive = zipfile.ZipFile(io.BytesIO(blob))
        folder = archive.namelist()[0].split("/")[0]
        root = Original(io.BytesIO(archive.read(folder + "/data.pkl"))).load()
        lookup = lambda key, kind: archive.read(f"{folder}/data/{key}")
    else:
        file = io.BytesIO(blob)
        for _ in range(3):
            Original(file).load()
        root = Original(file).load()
        kinds = {}

        def note(value):
            if isinstance(value, tuple) and value and value[0] == "tensor":
                kinds[value[1][1]] = value[1][0]
            elif isinstance(value, (dict, list)):
                for item in value.values() if isinstance(value, dict) else value:
                    note(item)

        note(root)
        for key in Original(file).load():
            (count,) = struct.unpack("<Q", file.read(8))
            storages[key] = file.read(count * STORAGES[kinds[key]][1])
        lookup = lambda key, kind: storages[key]
    is_tensor = lambda value: isinstance(value, NumpyArray) or (
        isinstance(value, tuple) and bool(value) and value[0] == "tensor")
    if is_tensor(root):
        root = {"tensor": root}
    elif isinstance(root, list):
        root = {str(position): value for position, value in enumerate(root)}
    if not any(is_tensor(value) for value in root.values()):
        within = [value for value in root.values()
                  if isinstance(value, dict) and any(is_tensor(item) for item in value.values())]
        (root,) = within
    tensors = {}
    for name, value in root.items():
        assert is_tensor(value), name
        if isinstance(value, NumpyArray):
            tensors[name] = value.tensor
            continue
        _, (kind, key, _, _), offset, shape, strides = value
        tensors[name] = gather(lookup(key, kind), STORAGES[kind], offset, shape, strides)
    return tensors


def read_safetensors(path):
    blob = read_file(path)
    (length,) = struct.unpack("<Q", blob[:8])
    header = json.loads(blob[8:8 + length])
    header.pop("__metadata__", None)
    data = blob[8 + length:]
    return {name: Tensor(e["dtype"], e["shape"], data[slice(*e["data_offsets"])]) for name, e in header.items()}


def expected(tensors, options):
    """What is to come out: dropped, cast, scalars with one extent."""
    drop = options[options.index("--drop") + 1] if "--drop" in options else None
    out = {}
    for name, tensor in tensors.items():
        if drop and re.search(drop, name):
            continue
        kind, shape, data = tensor
        if kind == "F64" and "--cast" in options:
            count = len(data) // 8
            kind, data = "F32", struct.pack(f"<{count}f", *struct.unpack(f"<{count}d", data))
        if kind in INTEGER_LETTERS and "--cast-integers" in options:
            numbers = [number for (number,) in struct.iter_unpack("<" + INTEGER_LETTERS[kind], data)]
            kind, data = "F32", struct.pack(f"<{len(numbers)}f", *numbers)
        out[name] = Tensor(kind, shape or [1], data)
    return out


class Corpus(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="okv2-prepare-")
        self.addCleanup(shutil.rmtree, self.dir)

    def prepare(self, source, options):
        """Exit code, standard error and the directory."""
        out = tempfile.mkdtemp(dir=self.dir)
        run = subprocess.run([DRIVER, source, out, *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             timeout=120, check=False)
        return run.returncode, run.stderr.decode(), out

    def alone(self, file, name):
        """A minimal model directory around one file."""
        directory = tempfile.mkdtemp(dir=self.dir)
        shutil.copyfile(file, os.path.join(directory, name))
        with open(os.path.join(directory, "config.json"), "w", encoding="utf-8") as config:
            config.write('{"model_type":"test"}')
        return directory

    def rows(self, table):
        with open(os.path.join(CORPUS, table), encoding="utf-8", newline="") as file:
            return list(csv.DictReader(file, delimiter="\t", quoting=csv.QUOTE_NONE))

    def test_every_torch_file(self):
        taken = 0
        for row in self.rows("torch/torch.tsv"):
            file = row["file"]
            path = os.path.join(CORPUS, "torch", file)
            with self.subTest(file):
                self.assertNotEqual(row["as_checkpoint_status"], "OK")  # before: the plug-in takes none
                options = TORCH_OPTIONS.get(file, [])
                code, error, out = self.prepare(self.alone(path, "pytorch_model.bin"), options)
                if file in TORCH_REFUSED:
                    self.assertEqual((code, error.split("\n")[0]), (3, TORCH_REFUSED[file]))
                    self.assertEqual(os.listdir(out), [])
                    continue
                self.assertEqual((code, error), (0, ""))
                taken += 1
                written = read_safetensors(os.path.join(out, "model.safetensors"))
                if file.startswith(SCANNER_SAMPLES):
                    self.assertEqual(len(written), persistent_ids(path))
                else:
                    self.assertEqual(written, expected(read_torch(path), options))
        self.assertEqual(taken + len(TORCH_REFUSED), 79)

    def test_every_safetensors_file(self):
        for row in self.rows("safetensors/safetensors.tsv"):
            if not row["file"].startswith("safetensors/"):
                continue
            path = os.path.join(CORPUS, row["file"])
            file = os.path.basename(path)
            with self.subTest(file):
                options = SAFETENSORS_OPTIONS.get(file, [])
                code, error, out = self.prepare(self.alone(path, "model.safetensors"), options)
                if file in SAFETENSORS_REFUSED:
                    self.assertEqual((code, error.split("\n")[0]), SAFETENSORS_REFUSED[file])
                    continue
                self.assertEqual((code, error), (0, ""))
                written = os.path.join(out, "model.safetensors")
                self.assertEqual(os.path.islink(written), row["status"] == "OK")
                self.assertEqual(read_safetensors(written), expected(read_safetensors(path), options))

    def test_every_model_directory(self):
        for name in sorted(os.listdir(os.path.join(CORPUS, "model-dirs"))):
            directory = os.path.join(CORPUS, "model-dirs", name)
            if not os.path.isdir(directory):
                continue
            with self.subTest(name):
                code, error, out = self.prepare(directory, [])
                verdict = DIRECTORIES.get(name, (2, directory + ": there are no weights"))
                if verdict is None:
                    self.assertEqual((code, error), (0, ""))
                    self.assertTrue(all(os.path.islink(os.path.join(out, f)) for f in os.listdir(out)))
                else:
                    self.assertEqual((code, error.split("\n")[0]), verdict)


if __name__ == "__main__":
    if not os.path.isdir(CORPUS):
        print(f"skipped: needs the real-data corpus, which is not at {CORPUS}")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
