"""Reads OKV2 model containers. One file; needs Python 3.9 or newer and numpy, nothing else.

    import okv2

    container = okv2.open("model.okv2")
    container["token_embd.weight"].array          # zero-copy numpy view of the mapped file
    container["token_embd.weight"].float32()      # float32, whichever float type is stored
    container.get("model.context_length")         # a metadata value, or None
    container.tokenizer.tokens[0], container.chat_template

The format is described in docs/container-format.md. The file is mapped, not read: opening a container of
many gigabytes touches its first pages only, and arrays are read-only views into the mapping, which lives as
long as any of them does.

Containers are not trusted. Everything that is used is first compared with what the file has room for, and a
container that breaks its format raises ContainerError, a ValueError; what the operating system refuses raises
OSError. As with any mapped file, one that another process cuts short while it is in use costs the process a
SIGBUS. `okv2 verify` checks more than this module does, padding and order among other things.

Texts are str, decoded as UTF-8; bytes that are none become surrogates, so that
text.encode("utf-8", "surrogateescape") always gives back what is stored.
"""
from __future__ import annotations

import builtins
import mmap
import os
import stat
import struct
from dataclasses import dataclass
from functools import cached_property
from typing import Any, Dict, Iterator, List, Optional, Tuple, Union

import numpy as np

__all__ = ["open", "Container", "ContainerError", "MetaItem", "Tensor", "Tokenizer", "bf16_to_float32"]

_VERSION = 2
_BYTE_ORDER_MARK = 0x01020304
_HEADER_BYTES = 64
_SECTION_COUNT = 7
_TABLE_END = _HEADER_BYTES + 24 * _SECTION_COUNT
_INDEX_ENTRY = struct.Struct("<64sHHHH4QQQQ")
_LAYOUT_ENTRY = struct.Struct("<HHIIII12x")
_METADATA, _TOKENIZER, _GRAPH, _INDEX, _WEIGHTS, _LAYOUT, _TEMPLATE = range(1, 8)
_SECTION_NAMES = ("", "metadata", "tokenizer", "graph", "tensor index", "weights", "tensor layout",
                  "chat template")

# Element type -> (name, elements and bytes per block, numpy type). numpy has no bfloat16: those are the 16
# bits as they are stored. Block types have no numpy type, their bytes are handed out raw.
_TYPES: Dict[int, Tuple[str, int, int, Optional[str]]] = {
    0: ("F32", 1, 4, "<f4"),
    1: ("F16", 1, 2, "<f2"),
    2: ("BF16", 1, 2, "<u2"),
    3: ("type 3", 32, 18, None),
    4: ("type 4", 32, 34, None),
    5: ("Q4_K", 256, 144, None),
    6: ("Q5_K", 256, 176, None),
    7: ("Q6_K", 256, 210, None),
    8: ("type 8", 256, 290, None),
}


class ContainerError(ValueError):
    """The file is no OKV2 container, or breaks the format."""


def open(path: Union[str, "os.PathLike[str]"]) -> "Container":  # noqa: A001: okv2.open reads well
    """Maps the container `path`. ContainerError when it is none, OSError when it cannot be read."""
    # Looked at before it is opened, because opening a FIFO would wait for a writer.
    if not stat.S_ISREG(os.stat(path).st_mode):
        raise ContainerError("not a regular file")
    with builtins.open(path, "rb") as file:
        if os.fstat(file.fileno()).st_size == 0:  # which cannot be mapped
            raise ContainerError("the file is empty")
        return Container(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ))


def bf16_to_float32(bits: np.ndarray) -> np.ndarray:
    """The float32 values of bfloat16 numbers given as uint16, in a new array of the same shape; exact."""
    if bits.dtype.kind != "u" or bits.dtype.itemsize != 2:
        raise ValueError(f"bfloat16 numbers come as uint16, not as {bits.dtype}")
    # A bfloat16 is the upper half of a float32.
    return (bits.astype(np.uint32) << np.uint32(16)).view(np.float32)


@dataclass(frozen=True)
class MetaItem:
    key: str
    type: str  # "u32", "i32", "f32", "u64", "string" or "u32[]"
    value: Any  # int, float, str or, for "u32[]", a read-only numpy array


@dataclass(frozen=True)
class Tokenizer:
    """Nothing ties the lengths of scores and types to that of tokens, and ids may lie outside the vocabulary:
    look before indexing. Without a tokenizer all lists are empty and all ids are -1."""
    chat_template: str  # the tokenizer section's own copy; see also Container.chat_template
    tokens: List[str]
    scores: np.ndarray  # float32
    types: np.ndarray  # int32: 1 normal, 3 special
    merges: List[str]
    bos_id: int  # -1 means none, here and below
    eos_id: int
    unk_id: int
    pad_id: int
    add_bos: bool


@dataclass(frozen=True, eq=False)
class Tensor:
    name: str  # cut to 63 bytes by the writer when longer
    name_bytes: int  # length of the name before it was cut, modulo 65536
    dtype: int  # number of the element type
    shape: Tuple[int, ...]
    file_offset: int  # of the data
    raw: np.ndarray  # the stored bytes: uint8, one-dimensional, read-only, not copied

    @property
    def dtype_name(self) -> str:
        """F32, F16, BF16, Q4_K, Q5_K or Q6_K; "type 3", "type 4" and "type 8" have no name."""
        return _TYPES[self.dtype][0]

    @property
    def array(self) -> np.ndarray:
        """A read-only view in the tensor's shape: float32, float16, or uint16 for BF16 (see float32()).
        Block-quantised tensors come as their raw bytes, one-dimensional uint8, as in `raw`.
        ContainerError when the stored size is not that of the shape: the bytes are then in `raw` alone."""
        name, _, element_bytes, numpy_type = _TYPES[self.dtype]
        if numpy_type is None:
            return self.raw
        expected = element_bytes
        for extent in self.shape:
            expected *= extent
        if expected != self.raw.size:
            raise ContainerError(f"tensor {self.name!r}: {name} of shape {list(self.shape)} takes {expected} "
                                 f"bytes, stored are {self.raw.size}")
        try:
            return self.raw.view(numpy_type).reshape(self.shape)
        except (ValueError, OverflowError):  # beside an extent of 0, others may exceed numpy's limits
            raise ContainerError(f"tensor {self.name!r}: numpy cannot hold shape {list(self.shape)}") from None

    def float32(self) -> np.ndarray:
        """The values as float32: the view itself for F32, a new array for F16 and BF16.
        ValueError for block-quantised types, which this module does not decode."""
        if self.dtype_name == "BF16":
            return bf16_to_float32(self.array)
        if _TYPES[self.dtype][3] is None:
            raise ValueError(f"tensor {self.name!r}: {self.dtype_name} is block-quantised; see `raw`")
        return self.array.astype(np.float32, copy=False)


class _Cursor:
    """Reads from the front of a section; `section` names it in errors."""

    def __init__(self, data: memoryview, section: str) -> None:
        self._data, self._at, self._section = data, 0, section

    def take(self, count: int, what: str) -> memoryview:
        if count > len(self._data) - self._at:
            raise ContainerError(f"{self._section}: {what} does not fit the section")
        self._at += count
        return self._data[self._at - count:self._at]

    def number(self, code: str, what: str) -> Any:
        return struct.unpack("<" + code, self.take(struct.calcsize("<" + code), what))[0]

    def text(self, length_code: str, what: str) -> str:
        return _text(self.take(self.number(length_code, what), what))

    def texts(self, what: str) -> List[str]:
        count = self.number("I", what)
        # Each takes four bytes at least: a count that cannot be true is refused before the first is read.
        if 4 * count > len(self._data) - self._at:
            raise ContainerError(f"{self._section}: {what} does not fit the section")
        return [self.text("I", what) for _ in range(count)]

    def numbers(self, numpy_type: str, what: str) -> np.ndarray:
        count = self.number("I", what)
        return np.frombuffer(self.take(4 * count, what), dtype=numpy_type)

    def end(self) -> None:
        if self._at != len(self._data):
            raise ContainerError(f"{self._section}: {len(self._data) - self._at} bytes too many")


def _text(data: Union[bytes, memoryview]) -> str:
    return bytes(data).decode("utf-8", "surrogateescape")


def _checksum(data: bytes) -> int:
    # Right-shifting with the polynomial unreflected: OKV2 checksums are defined by this variant.
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x42F0E1EBA9EA3693 if crc & 1 else 0)
    return crc


class Container:
    """An open container. Made by okv2.open; also takes the bytes of one."""

    arch_id: int  # 1 for "gemma4", else 0
    hidden_size: int
    num_layers: int
    vocab_size: int

    def __init__(self, data: Union[bytes, mmap.mmap]) -> None:
        self._data = memoryview(data)
        tensor_count = self._read_header()
        self._sections = self._read_section_table()
        self._tensors = self._read_tensors(tensor_count)
        self._by_name: Dict[str, Tensor] = {}
        for tensor in self._tensors:
            self._by_name.setdefault(tensor.name, tensor)

    @property
    def tensors(self) -> List[Tensor]:
        """All tensors in file order. Names may repeat; container[name] is the first of them."""
        return list(self._tensors)

    def __len__(self) -> int:
        return len(self._tensors)

    def __iter__(self) -> Iterator[Tensor]:
        return iter(self._tensors)

    def __contains__(self, name: object) -> bool:
        return name in self._by_name

    def __getitem__(self, name: str) -> Tensor:
        return self._by_name[name]

    @cached_property
    def metadata(self) -> List[MetaItem]:
        """All items in file order. Keys may repeat."""
        cursor = self._cursor(_METADATA)
        items = [self._read_meta_item(cursor) for _ in range(cursor.number("I", "the number of items"))]
        cursor.end()
        return items

    def get(self, key: str, default: Any = None) -> Any:
        """The value of the first metadata item of this key."""
        return next((item.value for item in self.metadata if item.key == key), default)

    @cached_property
    def tokenizer(self) -> Tokenizer:
        cursor = self._cursor(_TOKENIZER)
        if cursor.take(4, "the mark") != b"TKNZ":
            raise ContainerError("tokenizer: the section does not begin with TKNZ")
        result = Tokenizer(
            chat_template=cursor.text("I", "the chat template"),
            tokens=cursor.texts("a token"),
            scores=cursor.numbers("<f4", "the list of scores"),
            types=cursor.numbers("<i4", "the list of types"),
            merges=cursor.texts("a merge"),
            bos_id=cursor.number("i", "the bos id"),
            eos_id=cursor.number("i", "the eos id"),
            unk_id=cursor.number("i", "the unk id"),
            pad_id=cursor.number("i", "the pad id"),
            add_bos=cursor.number("B", "the add-BOS flag") != 0)
        cursor.end()
        return result

    @cached_property
    def chat_template(self) -> str:
        """The chat template section; empty when the model has none."""
        cursor = self._cursor(_TEMPLATE)
        template = cursor.text("Q", "the template")
        cursor.end()
        return template

    @property
    def graph(self) -> memoryview:
        """The graph section: opaque bytes, usually none."""
        return self._section(_GRAPH)

    def _read_header(self) -> int:
        data = self._data
        if len(data) < _TABLE_END:
            raise ContainerError(f"{len(data)} bytes are too few for a container")
        magic, version, order, sections = struct.unpack_from("<4sIII", data, 0)
        if magic != b"OKV2":
            raise ContainerError("the file does not begin with OKV2")
        if version != _VERSION:
            raise ContainerError(f"version {version}, expected {_VERSION}")
        if order != _BYTE_ORDER_MARK:
            raise ContainerError(f"byte-order mark 0x{order:08X}, expected 0x{_BYTE_ORDER_MARK:08X}")
        if sections != _SECTION_COUNT:
            raise ContainerError(f"{sections} sections, expected {_SECTION_COUNT}")
        (stored,) = struct.unpack_from("<Q", data, 56)
        computed = _checksum(bytes(data[:56]) + bytes(data[_HEADER_BYTES:_TABLE_END]))
        if stored != computed:
            raise ContainerError(f"header checksum 0x{stored:016X}, computed 0x{computed:016X}")
        (self.arch_id, _, self.hidden_size, self.num_layers, self.vocab_size,
         tensor_count) = struct.unpack_from("<IIQIIQ", data, 16)
        return int(tensor_count)

    def _read_section_table(self) -> List[Tuple[int, int]]:
        sections = [(0, 0)]  # index 0: there is no type 0
        for expected in range(1, _SECTION_COUNT + 1):
            entry = _HEADER_BYTES + 24 * (expected - 1)
            kind, _, offset, size = struct.unpack_from("<IIQQ", self._data, entry)
            if kind != expected:
                raise ContainerError(f"section table: type {kind} in the place of type {expected}")
            if offset > len(self._data) or size > len(self._data) - offset:
                raise ContainerError(f"{_SECTION_NAMES[kind]} section: {size} bytes at {offset} lie outside "
                                     f"the file of {len(self._data)} bytes")
            sections.append((offset, size))
        return sections

    def _section(self, kind: int) -> memoryview:
        offset, size = self._sections[kind]
        return self._data[offset:offset + size]

    def _cursor(self, kind: int) -> _Cursor:
        return _Cursor(self._section(kind), _SECTION_NAMES[kind])

    def _read_tensors(self, count: int) -> List[Tensor]:
        index, layout = self._section(_INDEX), self._section(_LAYOUT)
        for name, section, entry in (("tensor index", index, _INDEX_ENTRY),
                                     ("tensor layout", layout, _LAYOUT_ENTRY)):
            if len(section) != count * entry.size:
                raise ContainerError(f"{name}: {len(section)} bytes for {count} tensors, "
                                     f"expected {count * entry.size}")
        return [self._read_tensor(entry, form)
                for entry, form in zip(_INDEX_ENTRY.iter_unpack(index), _LAYOUT_ENTRY.iter_unpack(layout))]

    def _read_tensor(self, entry: Tuple[Any, ...], form: Tuple[int, ...]) -> Tensor:
        field, name_bytes, dtype, ndim, _, d0, d1, d2, d3, offset, size, _ = entry
        name, closed, _ = field.partition(b"\0")
        label = f"tensor {_text(name)!r}"
        if not closed:
            raise ContainerError(f"{label}: the name has no closing zero byte")
        if dtype not in _TYPES:
            raise ContainerError(f"{label}: unknown element type {dtype}")
        if form[:3] != (dtype, *_TYPES[dtype][1:3]):
            raise ContainerError(f"{label}: the layout table does not agree with element type {dtype}")
        if not 1 <= ndim <= 4:
            raise ContainerError(f"{label}: {ndim} dimensions, expected 1 to 4")
        begin, available = self._sections[_WEIGHTS]
        if offset > available or size > available - offset:
            raise ContainerError(f"{label}: {size} bytes at {offset} lie outside the weights of "
                                 f"{available} bytes")
        raw = np.frombuffer(self._data, dtype=np.uint8)[begin + offset:begin + offset + size]
        return Tensor(_text(name), name_bytes, dtype, (d0, d1, d2, d3)[:ndim], begin + offset, raw)

    @staticmethod
    def _read_meta_item(cursor: _Cursor) -> MetaItem:
        key = cursor.text("H", "a key")
        what = f"the value of {key!r}"
        kind = cursor.number("B", what)
        if kind == 0:
            return MetaItem(key, "u32", cursor.number("I", what))
        if kind == 1:
            return MetaItem(key, "i32", cursor.number("i", what))
        if kind == 2:
            return MetaItem(key, "f32", cursor.number("f", what))
        if kind == 3:
            return MetaItem(key, "u64", cursor.number("Q", what))
        if kind == 4:
            return MetaItem(key, "string", cursor.text("I", what))
        if kind == 5:
            return MetaItem(key, "u32[]", cursor.numbers("<u4", what))
        raise ContainerError(f"metadata: {what} has the unknown type {kind}")
