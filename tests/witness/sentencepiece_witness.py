#!/usr/bin/env python3
"""sentencepiece_witness.py OKV2_PY OKV2 CORPUS: the public SentencePiece library as a witness of `okv2 import --prepare`.

The library reads each original tokenizer.model, and python/okv2.py reads the container: pieces, scores, types and
the four special ids must agree, one by one. Models are trained here, with every type of piece, and taken from
CORPUS/sentencepiece where that is present. Exit code 77, which ctest counts as skipped, without the library or numpy.
"""
import importlib.util
import io
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

try:
    import numpy as np
    import sentencepiece
except ImportError as missing:
    print(f"SKIPPED: {missing.name} is not installed (Debian: python3-numpy, python3-sentencepiece)")
    sys.exit(77)

MODULE, COMMAND, CORPUS = sys.argv[1:4]
SPEC = importlib.util.spec_from_file_location("okv2", MODULE)
okv2 = importlib.util.module_from_spec(SPEC)
sys.modules["okv2"] = okv2
SPEC.loader.exec_module(okv2)

# As the public format numbers the types of pieces.
NORMAL, UNKNOWN, CONTROL, USER_DEFINED, UNUSED, BYTE = 1, 2, 3, 4, 5, 6


def one_tensor():
    """The bytes of a .safetensors file: no model is imported without weights."""
    header = b'{"w":{"dtype":"F32","shape":[1],"data_offsets":[0,4]}}'
    return struct.pack("<Q", len(header)) + header + bytes(4)


def imported_tokenizer(model):
    with tempfile.TemporaryDirectory() as folder:
        directory = pathlib.Path(folder, "model")
        directory.mkdir()
        (directory / "config.json").write_text('{"model_type":"test"}')
        (directory / "model.safetensors").write_bytes(one_tensor())
        (directory / "tokenizer.model").write_bytes(model)
        container = pathlib.Path(folder, "container")
        subprocess.run([COMMAND, "import", "--prepare", "-q", str(directory), "-o", str(container)], check=True)
        return okv2.open(container).tokenizer


def trained(**options):
    words = ["the", "quick", "brown", "fox", "jumps", "over", "a", "lazy", "dog", "again", "and", "once", "more"]
    lines = [" ".join(words[(k * 7 + j * j) % len(words)] for j in range(12)) for k in range(400)]
    model = io.BytesIO()
    sentencepiece.SentencePieceTrainer.train(
        sentence_iterator=iter(lines), model_writer=model, minloglevel=2, num_threads=1,
        hard_vocab_limit=False, **options)
    return model.getvalue()


class SentencePieceWitness(unittest.TestCase):
    def assert_agrees(self, model, user_defined=()):
        witness = sentencepiece.SentencePieceProcessor(model_proto=model)
        tokenizer = imported_tokenizer(model)
        count = witness.get_piece_size()
        self.assertGreater(count, 0)
        self.assertEqual(list(tokenizer.tokens), [witness.id_to_piece(k) for k in range(count)])
        self.assertEqual(np.asarray(tokenizer.scores, dtype="<f4").tobytes(),
                         np.array([witness.get_score(k) for k in range(count)], dtype="<f4").tobytes())
        self.assertEqual(len(tokenizer.types), count)
        for k in range(count):
            kind = tokenizer.types[k]
            self.assertEqual(
                (kind == UNKNOWN, kind == CONTROL, kind == UNUSED, kind == BYTE),
                (witness.is_unknown(k), witness.is_control(k), witness.is_unused(k), witness.is_byte(k)),
                f"type {kind} of piece {k}, {witness.id_to_piece(k)!r}")
            if witness.id_to_piece(k) in user_defined:  # the library does not tell, the training does
                self.assertEqual(kind, USER_DEFINED)
        self.assertEqual(
            (tokenizer.bos_id, tokenizer.eos_id, tokenizer.unk_id, tokenizer.pad_id),
            (witness.bos_id(), witness.eos_id(), witness.unk_id(), witness.pad_id()))
        return set(int(kind) for kind in tokenizer.types)

    def test_a_unigram_model_with_every_type_that_training_makes(self):
        kinds = self.assert_agrees(
            trained(model_type="unigram", vocab_size=320, byte_fallback=True, pad_id=3,
                    user_defined_symbols=["<tool>"], control_symbols=["<turn>"]),
            user_defined={"<tool>"})
        self.assertEqual(kinds, {NORMAL, UNKNOWN, CONTROL, USER_DEFINED, BYTE})

    def test_a_byte_pair_model(self):
        self.assert_agrees(trained(model_type="bpe", vocab_size=60))

    def test_special_pieces_of_other_names_and_ids(self):
        self.assert_agrees(trained(model_type="unigram", vocab_size=40, pad_id=0, bos_id=1, eos_id=2, unk_id=3,
                                   pad_piece="[P]", bos_piece="[B]", eos_piece="[E]", unk_piece="[U]"))

    def test_a_model_without_the_pieces_for_beginning_and_end(self):
        self.assert_agrees(trained(model_type="unigram", vocab_size=40, bos_id=-1, eos_id=-1))

    def test_every_model_of_the_corpus(self):
        folder = pathlib.Path(CORPUS, "sentencepiece")
        if not folder.is_dir():
            self.skipTest(f"needs the real-data corpus, which is not at {CORPUS}")
        seen = 0
        for path in sorted(folder.glob("*.model")):
            if path.name.startswith("not-sentencepiece"):
                continue
            with self.subTest(path.name):
                self.assert_agrees(path.read_bytes())
            seen += 1
        self.assertEqual(seen, 14)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=1)
