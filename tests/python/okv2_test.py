#!/usr/bin/env python3
"""okv2_test.py OKV2_PY CONTAINER_DUMP OKV2: tests of python/okv2.py.

Expected values come from containers that are built here byte by byte and from the C++ reader, through
container_dump. Exit code 77, which ctest counts as skipped, without numpy.
"""
import importlib.util
import json
import os
import pathlib
import random
import re
import struct
import subprocess
import sys
import tempfile
import unittest

try:
    import numpy as np
except ImportError:
    print("SKIPPED: numpy is not installed (Debian: python3-numpy)")
    sys.exit(77)

import container_builder as built
from container_builder import patched, section_offset, table_entry

MODULE, DUMP, COMMAND = sys.argv[1:4]
SPEC = importlib.util.spec_from_file_location("okv2", MODULE)
okv2 = importlib.util.module_from_spec(SPEC)
sys.modules["okv2"] = okv2  # dataclasses look their module up
SPEC.loader.exec_module(okv2)


def encoded(text):
    return text.encode("utf-8", "surrogateescape").hex()


def model_info(container):
    return [container.arch_id, container.hidden_size, container.num_layers, container.vocab_size]


def special_ids(tokenizer):
    return [tokenizer.bos_id, tokenizer.eos_id, tokenizer.unk_id, tokenizer.pad_id]


def hexdump_of_document(path):
    """The worked example of docs/container-format.md: hex pairs, "text", XX*n, ; remarks, @offset checks."""
    block = re.search(r"```okv2\n(.*?)```", path.read_text(), re.S).group(1)
    data = b""
    for line in block.splitlines():
        for text, pair, count, offset in re.findall(
                r'"([^"]*)"|([0-9A-Fa-f]{2})(?:\*(\d+))?(?=\s|$)|@(\d+)', line.split(";")[0]):
            if offset:
                assert len(data) == int(offset), (line, len(data))
            else:
                data += text.encode() or bytes([int(pair, 16)]) * int(count or 1)
    return data


class TestCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = pathlib.Path(directory.name)

    def file(self, data):
        path = self.dir / "container.okv2"
        path.write_bytes(data)
        return path

    def refuses(self, data, message, use=lambda container: None):
        with self.assertRaises(okv2.ContainerError) as caught:
            use(okv2.Container(data))
        self.assertEqual(str(caught.exception), message)


class BuiltContainers(TestCase):
    def test_gives_the_model_info(self):
        container = okv2.Container(built.full().build())
        self.assertEqual(model_info(container), [1, 64, 2, 3])

    def test_gives_metadata_in_order_with_types(self):
        items = okv2.Container(built.full().build()).metadata
        self.assertEqual([(item.key, item.type) for item in items],
                         [("a.u32", "u32"), ("a.i32", "i32"), ("a.f32", "f32"), ("a.u64", "u64"),
                          ("a.str", "string"), ("a.arr", "u32[]"), ("a.u32", "u32")])
        self.assertEqual([item.value for item in items[:5]], [4000000000, -2, 0.5, 2**63, "lläma"])
        self.assertEqual(items[5].value.tolist(), [1, 300])
        self.assertEqual(items[6].value, 8)

    def test_get_finds_the_first_of_equal_keys_or_the_default(self):
        container = okv2.Container(built.full().build())
        self.assertEqual(container.get("a.u32"), 4000000000)
        self.assertIsNone(container.get("b"))
        self.assertEqual(container.get("b", 5), 5)

    def test_gives_the_tokenizer(self):
        tokenizer = okv2.Container(built.full().build()).tokenizer
        self.assertEqual(tokenizer.chat_template, "TT")
        self.assertEqual(tokenizer.tokens[0], "<s>")
        self.assertEqual(tokenizer.tokens[1].encode("utf-8", "surrogateescape"), b"\xe2\x96")
        self.assertEqual(len(tokenizer.tokens), 3)
        self.assertEqual(tokenizer.scores.tolist(), [1.5, -2.0])
        self.assertEqual(tokenizer.types.tolist(), [3, 1, -1])
        self.assertEqual(tokenizer.merges, ["a b", "c d"])
        self.assertEqual(special_ids(tokenizer), [0, 2, -1, 7])
        self.assertIs(tokenizer.add_bos, True)

    def test_gives_template_and_graph(self):
        container = okv2.Container(built.full().build())
        self.assertEqual(container.chat_template, "hällo")
        self.assertEqual(bytes(container.graph), b"GRAPH")

    def test_gives_tensors_in_numpy_types(self):
        container = okv2.Container(built.full().build())
        self.assertEqual([tensor.name for tensor in container], ["alpha", "beta", "delta", "gamma", "g" * 63])
        self.assertEqual(len(container), 5)
        self.assertIn("alpha", container)
        self.assertNotIn("omega", container)
        self.assertEqual(container["alpha"].array.tolist(), [[0, 1, 2], [3, 4, -5.5]])
        self.assertEqual(container["alpha"].array.dtype, np.float32)
        self.assertEqual(container["beta"].array.tolist(), [0x3F80, 0xC020])
        self.assertEqual(container["beta"].array.dtype, np.uint16)
        self.assertEqual(container["delta"].array.dtype, np.float16)
        self.assertEqual(container["delta"].array.tolist(), [[1.0, -5.0]])
        self.assertEqual(container["g" * 63].name_bytes, 70)

    def test_hands_out_quantised_tensors_as_raw_bytes(self):
        tensor = okv2.Container(built.full().build())["gamma"]
        self.assertEqual((tensor.dtype, tensor.dtype_name, tensor.shape), (5, "Q4_K", (256, 2)))
        self.assertEqual(tensor.array.dtype, np.uint8)
        self.assertEqual(tensor.array.tobytes(), bytes(range(256)) + bytes(32))
        with self.assertRaisesRegex(ValueError, "^tensor 'gamma': Q4_K is block-quantised; see `raw`$"):
            tensor.float32()

    def test_float32_converts_every_float_type(self):
        container = okv2.Container(built.full().build())
        self.assertEqual(container["beta"].float32().tolist(), [1.0, -2.5])
        self.assertEqual(container["delta"].float32().tolist(), [[1.0, -5.0]])
        self.assertTrue(np.shares_memory(container["alpha"].float32(), container["alpha"].raw))
        for name in ("alpha", "beta", "delta"):
            self.assertEqual(container[name].float32().dtype, np.float32)

    def test_bf16_helper_keeps_infinities_nans_and_shapes(self):
        values = okv2.bf16_to_float32(np.array([[0x7F80, 0xFF80], [0x7FC0, 0x8000]], dtype="<u2"))
        self.assertEqual(values.shape, (2, 2))
        self.assertEqual(values.view(np.uint32).tolist(),
                         [[0x7F800000, 0xFF800000], [0x7FC00000, 0x80000000]])
        with self.assertRaisesRegex(ValueError, "^bfloat16 numbers come as uint16, not as float32$"):
            okv2.bf16_to_float32(values)

    def test_arrays_are_read_only_views_into_the_mapping_and_outlive_the_container(self):
        path = self.file(built.full().build())
        container = okv2.open(path)
        array, raw = container["alpha"].array, container["alpha"].raw
        self.assertTrue(np.shares_memory(array, raw))
        self.assertFalse(array.flags.writeable)
        with self.assertRaises(ValueError):
            array[0, 0] = 1
        # What changes in the file changes in the array: nothing was copied.
        with open(path, "r+b") as file:
            file.seek(container["alpha"].file_offset)
            file.write(struct.pack("<f", 42))
        self.assertEqual(array[0, 0], 42)
        del container, raw
        self.assertEqual(array[1, 2], -5.5)

    def test_first_of_equal_names_is_found(self):
        builder = built.Builder()
        builder.tensor("t", 0, (1,), struct.pack("<f", 1)).tensor("t", 0, (1,), struct.pack("<f", 2))
        container = okv2.Container(builder.build())
        self.assertEqual(container["t"].array[0], 1)
        self.assertEqual([tensor.array[0] for tensor in container.tensors], [1, 2])

    def test_opens_the_document_s_worked_example(self):
        document = pathlib.Path(__file__).parents[2] / "docs" / "container-format.md"
        container = okv2.Container(hexdump_of_document(document))
        self.assertEqual(container.get("general.architecture"), "llama")
        self.assertEqual(container.tokenizer.tokens, ["<s>", "\u2581"])
        self.assertEqual(container.chat_template, "{{m}}")
        self.assertEqual(container["output_norm.weight"].array.tolist(), [1.0, 1.0])
        self.assertEqual(container["token_embd.weight"].raw.tobytes(), b"\x11" * 68 + b"\x22" * 68)
        self.assertEqual(container["token_embd.weight"].array.shape, (2, 34))


class BadContainers(TestCase):
    def setUp(self):
        super().setUp()
        self.good = built.full().build()
        self.index = section_offset(self.good, 4)
        self.layout = section_offset(self.good, 6)

    def test_files_that_are_no_containers(self):
        for data, message in ((b"", "the file is empty"), (b"O", "1 bytes are too few for a container"),
                              (self.good[:231], "231 bytes are too few for a container"),
                              (b"PK\3\4" + self.good[4:], "the file does not begin with OKV2")):
            with self.subTest(message), self.assertRaises(okv2.ContainerError) as caught:
                okv2.open(self.file(data))
            self.assertEqual(str(caught.exception), message)

    def test_paths_that_are_no_files(self):
        with self.assertRaises(FileNotFoundError):
            okv2.open(self.dir / "none")
        with self.assertRaisesRegex(okv2.ContainerError, "^not a regular file$"):
            okv2.open(self.dir)
        os.mkfifo(self.dir / "fifo")
        with self.assertRaisesRegex(okv2.ContainerError, "^not a regular file$"):
            okv2.open(self.dir / "fifo")  # and does not wait for a writer

    def test_header_and_table_fields(self):
        size = len(self.good)
        weights = section_offset(self.good, 5)
        rows = (
            (4, "I", 3, "version 3, expected 2"),
            (8, "I", 0x04030201, "byte-order mark 0x04030201, expected 0x01020304"),
            (12, "I", 8, "8 sections, expected 7"),
            (40, "Q", 6, "tensor index: 640 bytes for 6 tensors, expected 768"),
            (table_entry(3), "I", 4, "section table: type 4 in the place of type 3"),
            (table_entry(1) + 8, "Q", size + 1,
             f"metadata section: 200 bytes at {size + 1} lie outside the file of {size} bytes"),
            (table_entry(5) + 16, "Q", size - weights + 1,
             f"weights section: {size - weights + 1} bytes at {weights} lie outside the file of "
             f"{size} bytes"),
            (table_entry(5) + 16, "Q", 2**64 - 1,
             f"weights section: {2**64 - 1} bytes at {weights} lie outside the file of {size} bytes"),
            (table_entry(6) + 16, "Q", 128, "tensor layout: 128 bytes for 5 tensors, expected 160"),
        )
        metadata = struct.unpack_from("<Q", self.good, table_entry(1) + 16)[0]
        for at, code, value, message in rows:
            message = message.replace("200 bytes at", f"{metadata} bytes at")
            with self.subTest(message):
                self.refuses(patched(self.good, (at, code, value)), message)

    def test_checksum(self):
        data = bytearray(self.good)
        data[24] ^= 1
        with self.assertRaisesRegex(okv2.ContainerError, "^header checksum 0x[0-9A-F]{16}, computed 0x"):
            okv2.Container(bytes(data))

    def test_checksum_has_the_document_s_check_value(self):
        self.assertEqual(built.checksum(b"123456789"), 0x4DB9A9F87EC10C59)
        self.assertEqual(okv2._checksum(b"123456789"), 0x4DB9A9F87EC10C59)

    def test_tensor_fields(self):
        weights = struct.unpack_from("<Q", self.good, table_entry(5) + 16)[0]
        rows = (
            (self.index + 66, "H", 9, "tensor 'alpha': unknown element type 9"),
            (self.index + 66, "H", 1, "tensor 'alpha': the layout table does not agree with element type 1"),
            (self.layout + 4, "I", 5, "tensor 'alpha': the layout table does not agree with element type 0"),
            (self.index + 68, "H", 0, "tensor 'alpha': 0 dimensions, expected 1 to 4"),
            (self.index + 68, "H", 5, "tensor 'alpha': 5 dimensions, expected 1 to 4"),
            (self.index, "64s", b"x" * 64, f"tensor '{'x' * 64}': the name has no closing zero byte"),
            (self.index + 104, "Q", weights - 23,
             f"tensor 'alpha': 24 bytes at {weights - 23} lie outside the weights of {weights} bytes"),
            (self.index + 112, "Q", 2**64 - 1,
             f"tensor 'alpha': {2**64 - 1} bytes at 0 lie outside the weights of {weights} bytes"),
        )
        for at, code, value, message in rows:
            with self.subTest(message):
                self.refuses(patched(self.good, (at, code, value)), message)

    def test_tensor_that_ends_with_the_weights_is_in(self):
        weights = struct.unpack_from("<Q", self.good, table_entry(5) + 16)[0]
        container = okv2.Container(patched(self.good, (self.index + 104, "Q", weights - 24)))
        self.assertEqual(container["alpha"].raw.size, 24)

    def test_shape_that_is_not_the_size_leaves_the_raw_bytes(self):
        container = okv2.Container(patched(self.good, (self.index + 72, "Q", 3)))
        self.assertEqual(container["alpha"].raw.size, 24)
        with self.assertRaises(okv2.ContainerError) as caught:
            container["alpha"].array
        self.assertEqual(str(caught.exception),
                         "tensor 'alpha': F32 of shape [3, 3] takes 36 bytes, stored are 24")

    def test_shape_beyond_numpy_s_limits(self):
        for extent in (2**62, 2**64 - 1):
            with self.subTest(extent):
                data = patched(self.good, (self.index + 72, "Q", 0),
                               (self.index + 80, "Q", extent), (self.index + 88, "Q", extent),
                               (self.index + 68, "H", 3), (self.index + 112, "Q", 0))
                with self.assertRaises(okv2.ContainerError) as caught:
                    okv2.Container(data)["alpha"].array
                self.assertEqual(str(caught.exception),
                                 f"tensor 'alpha': numpy cannot hold shape [0, {extent}, {extent}]")

    def test_metadata(self):
        at = section_offset(self.good, 1)
        def use(container):
            return container.metadata
        self.refuses(patched(self.good, (at, "I", 2**32 - 1)),
                     "metadata: a key does not fit the section", use)
        size = struct.unpack_from("<Q", self.good, table_entry(1) + 16)[0]
        self.refuses(patched(self.good, (at, "I", 6)), "metadata: 12 bytes too many", use)
        self.refuses(patched(self.good, (at + 11, "B", 6)),
                     "metadata: the value of 'a.u32' has the unknown type 6", use)
        self.refuses(patched(self.good, (table_entry(1) + 16, "Q", size - 1)),
                     "metadata: the value of 'a.u32' does not fit the section", use)

    def test_tokenizer(self):
        at = section_offset(self.good, 2)
        def use(container):
            return container.tokenizer
        rows = (((at, "B", 0), "tokenizer: the section does not begin with TKNZ"),
                ((at + 4, "I", 2**32 - 1), "tokenizer: the chat template does not fit the section"),
                ((at + 10, "I", 2**32 - 1), "tokenizer: a token does not fit the section"),
                ((at + 14, "I", 2**32 - 1), "tokenizer: a token does not fit the section"),
                ((table_entry(2) + 16, "Q", 3), "tokenizer: the mark does not fit the section"))
        for change, message in rows:
            with self.subTest(change=change):
                self.refuses(patched(self.good, change), message, use)
        size = struct.unpack_from("<Q", self.good, table_entry(2) + 16)[0]
        self.refuses(patched(self.good, (table_entry(2) + 16, "Q", size - 1)),
                     "tokenizer: the add-BOS flag does not fit the section", use)
        self.refuses(patched(self.good, (table_entry(2) + 16, "Q", size + 1)),
                     "tokenizer: 1 bytes too many", use)

    def test_chat_template(self):
        at = section_offset(self.good, 7)
        def use(container):
            return container.chat_template
        for length in (7, 2**64 - 1):
            self.refuses(patched(self.good, (at, "Q", length)),
                         "chat template: the template does not fit the section", use)
        self.refuses(patched(self.good, (at, "Q", 5)), "chat template: 1 bytes too many", use)


def read_all(container):
    """Uses everything; shapes that do not fit are ValueErrors as well."""
    found = [container.metadata, container.tokenizer, container.chat_template, bytes(container.graph)]
    for tensor in container:
        found.append((tensor.name, tensor.raw.tobytes()))
        try:
            found.append(tensor.float32().sum())
        except ValueError:
            pass
    return found


@np.errstate(all="ignore")
def refusal(data):
    """None when `data` can be read to the end."""
    try:
        read_all(okv2.Container(data))
        return None
    except ValueError as error:
        return error


class HostileContainers(TestCase):
    def test_every_truncation_is_refused(self):
        data = built.full().build()
        for length in range(len(data)):
            self.assertIsInstance(refusal(data[:length]), okv2.ContainerError, length)

    def test_any_byte_may_be_anything(self):
        data = built.full().build()
        for at in range(section_offset(data, 5)):
            for value in (0, 1, 0x7F, 0xFF):
                refusal(built.sealed(data[:at] + bytes([value]) + data[at + 1:]))

    def test_refuses_nothing_that_the_cpp_reader_verifies(self):
        data = built.full().build()
        chance = random.Random(1)
        path, verified, refused = self.dir / "mutant", 0, 0
        for _ in range(150):
            mutant = bytearray(data)
            for _ in range(chance.choice((1, 1, 2))):
                mutant[chance.randrange(16, len(data))] = chance.choice((0, 1, 2, 0xFF))
            path.write_bytes(built.sealed(mutant))
            code = subprocess.run([DUMP, path], stdout=subprocess.DEVNULL).returncode
            self.assertIn(code, (0, 8))
            verified, refused = verified + (code == 0), refused + (code == 8)
            if code == 0:
                self.assertIsNone(refusal(path.read_bytes()))
        self.assertGreater(verified, 10)
        self.assertGreater(refused, 10)


class CppReader(TestCase):
    """Both readers find the same in every container."""

    def compare(self, path):
        result = subprocess.run([DUMP, path], capture_output=True, check=True)
        expected, container = json.loads(result.stdout), okv2.open(path)
        self.assertEqual(model_info(container), expected["model"])
        self.assertEqual([self.meta_item(item) for item in container.metadata], expected["metadata"])
        tokenizer = container.tokenizer
        self.assertEqual([encoded(token) for token in tokenizer.tokens], expected["tokens"])
        self.assertEqual(tokenizer.scores.tobytes().hex(), expected["scores"])
        self.assertEqual(tokenizer.types.tobytes().hex(), expected["types"])
        self.assertEqual([encoded(merge) for merge in tokenizer.merges], expected["merges"])
        self.assertEqual(special_ids(tokenizer), expected["ids"])
        self.assertEqual(tokenizer.add_bos, bool(expected["add_bos"]))
        self.assertEqual(encoded(tokenizer.chat_template), expected["tokenizer_template"])
        self.assertEqual(encoded(container.chat_template), expected["template"])
        self.assertEqual(bytes(container.graph).hex(), expected["graph"])
        self.assertEqual([self.tensor(tensor) for tensor in container], expected["tensors"])

    def meta_item(self, item):
        value = item.value
        if item.type == "f32":
            value = struct.unpack("<I", struct.pack("<f", value))[0]
        elif item.type == "string":
            value = encoded(value)
        elif item.type == "u32[]":
            value = value.tobytes().hex()
        return {"key": encoded(item.key), "type": item.type, "value": value}

    def tensor(self, tensor):
        return {"name": encoded(tensor.name), "name_bytes": tensor.name_bytes, "dtype": tensor.dtype,
                "dtype_name": tensor.dtype_name, "shape": list(tensor.shape),
                "file_offset": tensor.file_offset, "data": tensor.raw.tobytes().hex()}

    def test_built_container(self):
        self.compare(self.file(built.full().build()))

    def test_sample_models(self):
        for number, options in enumerate((
                ["--arch", "llama"], ["--arch", "qwen2", "--shards", "3"], ["--arch", "gemma4"],
                ["--arch", "gpt2", "--tokenizer", "none"], ["--arch", "llama", "--format", "pytorch"],
                ["--arch", "llama", "--tokenizer", "model"])):
            with self.subTest(options):
                model, container = self.dir / f"model{number}", self.dir / f"{number}.okv2"
                quiet = {"check": True, "stderr": subprocess.DEVNULL}
                subprocess.run([COMMAND, "sample", model, "--size", "50K", *options], **quiet)
                subprocess.run([COMMAND, "import", model, "-o", container, "-q"], **quiet)
                self.compare(container)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
