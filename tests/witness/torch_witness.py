#!/usr/bin/env python3
"""torch_witness.py DRIVER OKV2 OKV2_PY: torch itself writes checkpoints, and its own values must come out.

Each checkpoint is prepared (DRIVER is prepare_weights_driver), imported by the command OKV2, and read again
through python/okv2.py, which shares no code with what wrote the container. What is compared is bytes: those of
torch's own contiguous tensors with those of the container's.

Needs the Debian packages python3-torch and python3-numpy; without them the test says so and counts as skipped.
"""
import collections
import importlib.util
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

try:
    import numpy
    import torch
except ImportError as missing:
    print(f"skipped: python3-{missing.name} is not installed")
    sys.exit(77)

DRIVER, OKV2, OKV2_PY = sys.argv[1:4]

_module = importlib.util.spec_from_file_location("okv2", OKV2_PY)
okv2 = importlib.util.module_from_spec(_module)
sys.modules["okv2"] = okv2
_module.loader.exec_module(okv2)


def raw_bytes(tensor):
    """The tensor's elements in order, as torch has them."""
    flat = tensor.detach().contiguous().reshape(-1)
    if flat.dtype in (torch.bfloat16, torch.float16):
        flat = flat.view(torch.int16)
    return flat.numpy().tobytes()


class Witness(unittest.TestCase):
    def setUp(self):
        torch.manual_seed(1)
        self.dir = tempfile.mkdtemp(prefix="okv2-torch-")
        self.addCleanup(shutil.rmtree, self.dir)
        self.model = os.path.join(self.dir, "model")
        os.mkdir(self.model)
        with open(os.path.join(self.model, "config.json"), "w", encoding="utf-8") as file:
            file.write('{"model_type":"test"}')

    def run_tool(self, *words):
        return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, check=False)

    def convert(self, *options):
        """Prepares and imports the model directory; the container."""
        out = os.path.join(self.dir, "out")
        os.mkdir(out)
        run = self.run_tool(DRIVER, self.model, out, *options)
        self.assertEqual((run.returncode, run.stderr), (0, b""))
        shutil.copy(os.path.join(self.model, "config.json"), out)
        container = os.path.join(self.dir, "container")
        run = self.run_tool(OKV2, "import", out, "-o", container)
        self.assertEqual(run.returncode, 0, run.stderr)
        run = self.run_tool(OKV2, "verify", container, "--against", out)
        self.assertEqual(run.returncode, 0, run.stderr)
        run = self.run_tool(OKV2, "verify", container, "--against", self.model, "--prepare", *options)
        self.assertEqual((run.returncode, run.stderr), (0, b""))
        return okv2.open(container)

    def assert_same(self, container, expected):
        """Names, shapes and bytes of all tensors; scalars have one extent in a container."""
        self.assertEqual(sorted(tensor.name for tensor in container.tensors), sorted(expected))
        for name, tensor in expected.items():
            with self.subTest(name):
                self.assertEqual(tuple(container[name].shape), tuple(tensor.shape) or (1,))
                self.assertEqual(container[name].raw.tobytes(), raw_bytes(tensor))

    def save(self, value, name="pytorch_model.bin", **options):
        torch.save(value, os.path.join(self.model, name), **options)

    def check(self, tensors, **options):
        self.save(tensors, **options)
        self.assert_same(self.convert(), tensors)

    def plain(self):
        return collections.OrderedDict(a=torch.randn(5, 7), b=torch.randn(3), c=torch.randn(2, 3, 4, 5))

    def test_zip_form(self):
        self.check(self.plain())

    def test_legacy_form(self):
        self.check(self.plain(), _use_new_zipfile_serialization=False)

    def test_every_pickle_protocol(self):
        for protocol in (2, 3, 4, 5):
            for zipped in (True, False):
                with self.subTest(protocol=protocol, zipped=zipped):
                    self.check(self.plain(), pickle_protocol=protocol, _use_new_zipfile_serialization=zipped)
                    shutil.rmtree(os.path.join(self.dir, "out"))
                    os.remove(os.path.join(self.dir, "container"))

    def test_element_types(self):
        self.check({"f32": torch.randn(9), "f16": torch.randn(9).half(), "bf16": torch.randn(9).bfloat16()})

    def test_special_values(self):
        values = [0.0, -0.0, float("inf"), float("-inf"), float("nan"), 1e-45]
        self.check({"f32": torch.tensor(values), "bf16": torch.tensor(values).bfloat16()})

    def test_non_contiguous_tensors(self):
        base = torch.randn(6, 8, 10)
        tensors = {
            "transposed": base[0].t(),
            "permuted": base.permute(2, 0, 1),
            "sliced": base[1:5, ::3, 2:9:2],
            "expanded": torch.randn(1, 4).expand(5, 4),
            "column": base[0][:, 3],
            "channels_last": torch.randn(2, 3, 4, 5).to(memory_format=torch.channels_last),
        }
        for zipped in (True, False):
            with self.subTest(zipped=zipped):
                self.check(tensors, _use_new_zipfile_serialization=zipped)
                shutil.rmtree(os.path.join(self.dir, "out"))
                os.remove(os.path.join(self.dir, "container"))

    def test_large_transposed_tensor(self):
        # More than the pieces that are gathered at a time.
        self.check({"w": torch.randn(700, 900).t(), "h": torch.randn(1000, 600).half().t()})

    def test_shared_storages(self):
        base = torch.randn(100)
        for zipped in (True, False):
            with self.subTest(zipped=zipped):
                self.check({"whole": base, "tied": base, "front": base[:40], "back": base[60:].view(5, 8)},
                           _use_new_zipfile_serialization=zipped)
                shutil.rmtree(os.path.join(self.dir, "out"))
                os.remove(os.path.join(self.dir, "container"))

    def test_parameters_and_modules(self):
        module = torch.nn.Sequential(torch.nn.Linear(4, 3), torch.nn.LayerNorm(3))
        self.check(module.state_dict())

    def test_a_parameter_is_its_tensor(self):
        self.check({"p": torch.nn.Parameter(torch.randn(4, 4))})

    def test_buffers_are_dropped_on_request_only(self):
        module = torch.nn.BatchNorm2d(4)
        self.save(module.state_dict())
        out = tempfile.mkdtemp(dir=self.dir)
        run = self.run_tool(DRIVER, self.model, out)
        self.assertEqual((run.returncode, run.stderr.decode().split("\n")[0]),
                         (3, "pytorch_model.bin: the container cannot carry these element types: "
                             "'num_batches_tracked' (I64)"))
        expected = {k: v for k, v in module.state_dict().items() if k != "num_batches_tracked"}
        self.assert_same(self.convert("--drop", "num_batches_tracked$"), expected)

    def test_doubles_are_cast_as_torch_casts_them(self):
        doubles = {"d": torch.randn(1000, dtype=torch.float64), "t": torch.randn(7, 9, dtype=torch.float64).t()}
        self.save(doubles)
        self.assert_same(self.convert("--cast"), {name: tensor.float() for name, tensor in doubles.items()})

    def test_numpy_arrays_beside_tensors(self):
        values = numpy.linspace(-3, 3, 120)
        single = values.astype("f4").reshape(8, 15)
        saved = {
            "plain": single,
            "tied": single,
            "transposed": single.T,
            "fortran": numpy.asfortranarray(values.astype("f2").reshape(4, 5, 6)),
            "sliced": single[1:7:2, ::-4],
            "every_byte": numpy.arange(256, dtype="u1").view("f2"),
            "double": values,
            "double_fortran": numpy.asfortranarray(values.reshape(10, 12)),
            "scalar": numpy.array(2.5, dtype="f4"),
            "tensor": torch.randn(3, 5),
            "bfloat16": torch.randn(5, 3).bfloat16().t(),
        }
        expected = {name: value if torch.is_tensor(value) else torch.from_numpy(numpy.ascontiguousarray(value))
                    for name, value in saved.items()}
        for name in ("double", "double_fortran"):
            expected[name] = expected[name].float()
        for protocol in (2, 3, 4, 5):
            for zipped in (True, False):
                with self.subTest(protocol=protocol, zipped=zipped):
                    self.save(saved, pickle_protocol=protocol, _use_new_zipfile_serialization=zipped)
                    self.assert_same(self.convert("--cast"), expected)
                    shutil.rmtree(os.path.join(self.dir, "out"))
                    os.remove(os.path.join(self.dir, "container"))

    def test_numpy_arrays_of_other_things_are_refused(self):
        self.save({"w": torch.randn(2), "texts": numpy.array(["a"]), "objects": numpy.array([None]),
                   "records": numpy.zeros(2, dtype=[("x", "f4")])})
        run = self.run_tool(DRIVER, self.model, tempfile.mkdtemp(dir=self.dir))
        self.assertEqual((run.returncode, run.stderr.decode().split("\n")[0]),
                         (3, "pytorch_model.bin: among its tensors are other things: "
                             "'texts' (an object that is no tensor), 'objects' (an object that is no tensor), "
                             "'records' (an object that is no tensor)"))

    def test_a_big_endian_numpy_array_is_refused(self):
        self.save({"w": torch.randn(2), "array": numpy.arange(3, dtype=">f4")})
        run = self.run_tool(DRIVER, self.model, tempfile.mkdtemp(dir=self.dir))
        self.assertEqual((run.returncode, run.stderr.decode().split("\n")[0]),
                         (3, "pytorch_model.bin: among its tensors are other things: 'array' (a big-endian numpy "
                             "array)"))

    def test_scalars(self):
        self.check({"s": torch.tensor(2.5), "w": torch.randn(2)})

    def test_training_checkpoint(self):
        module = torch.nn.Linear(3, 2)
        optimizer = torch.optim.Adam(module.parameters())
        module(torch.randn(4, 3)).sum().backward()
        optimizer.step()
        self.save({"epoch": 3, "model_state_dict": module.state_dict(),
                   "optimizer_state_dict": optimizer.state_dict(), "loss": 0.25})
        self.assert_same(self.convert(), module.state_dict())

    def test_data_parallel_prefix(self):
        tensors = self.plain()
        self.save({"module." + name: tensor for name, tensor in tensors.items()})
        self.assert_same(self.convert(), tensors)

    def test_shards(self):
        tensors = self.plain()
        weight_map = {}
        for number, (name, tensor) in enumerate(tensors.items(), 1):
            file = f"pytorch_model-{number:05}-of-00003.bin"
            self.save({name: tensor}, name=file, _use_new_zipfile_serialization=number != 2)
            weight_map[name] = file
        with open(os.path.join(self.model, "pytorch_model.bin.index.json"), "w", encoding="utf-8") as file:
            json.dump({"metadata": {"total_size": 1}, "weight_map": weight_map}, file)
        self.assert_same(self.convert(), tensors)

    def test_language_model_names(self):
        tensors = {"language_model.model.embed_tokens.weight": torch.randn(4, 2),
                   "language_model.model.layers.0.self_attn.q_proj.weight": torch.randn(2, 2),
                   "language_model.lm_head.weight": torch.randn(4, 2)}
        self.save(tensors)
        names = ["token_embd.weight", "blk.0.attn_q.weight", "output.weight"]
        self.assert_same(self.convert(), dict(zip(names, tensors.values())))

    def test_fused_columns(self):
        fused = torch.randn(6, 18)
        self.save({"transformer.h.0.attn.c_attn.weight": fused})
        q, k, v = fused.split(6, dim=1)
        self.assert_same(self.convert(),
                         {"blk.0.attn_q.weight": q, "blk.0.attn_k.weight": k, "blk.0.attn_v.weight": v})

    def test_a_whole_module_is_refused_by_name(self):
        self.save(torch.nn.Linear(2, 2))
        run = self.run_tool(DRIVER, self.model, tempfile.mkdtemp(dir=self.dir))
        self.assertEqual((run.returncode, run.stderr.decode().split("\n")[0]),
                         (3, "pytorch_model.bin: checkpoint: the pickle names a global that is not on the list: "
                             "torch.nn.modules.linear.Linear"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=1)
