"""Writes OKV2 containers byte by byte from the rules of docs/container-format.md; shares nothing with
okv2.py. A built container is good; patched() gives a copy that lies about some bytes, with the checksum made
to fit again.
"""
import struct

ORDER_IN_FILE = (1, 2, 3, 4, 6, 7, 5)
BLOCKS = {0: (1, 4, 0, 0, 0), 1: (1, 2, 0, 0, 0), 2: (1, 2, 0, 0, 0), 3: (32, 18, 2, 0, 0),
          4: (32, 34, 2, 0, 0), 5: (256, 144, 12, 4, 2), 6: (256, 176, 12, 4, 2),
          7: (256, 210, 16, 192, 208), 8: (256, 290, 2, 0, 65535)}


def align(value):
    return (value + 63) // 64 * 64


def padded(data):
    return data + bytes(align(len(data)) - len(data))


def string(text):
    data = text if isinstance(text, bytes) else text.encode()
    return struct.pack("<I", len(data)) + data


def counted(items):
    return struct.pack("<I", len(items)) + b"".join(items)


def crc_of_byte(value):
    for _ in range(8):
        value = (value >> 1) ^ (0x42F0E1EBA9EA3693 * (value & 1))
    return value


CRC_TABLE = [crc_of_byte(value) for value in range(256)]


def checksum(data):
    crc = 0
    for byte in data:
        crc = (crc >> 8) ^ CRC_TABLE[(crc ^ byte) & 0xFF]
    return crc


class Builder:
    def __init__(self):
        self.model_info = (1, 64, 2, 3)
        self.meta, self.tensors = [], []
        self.tokenizer_template = self.template = b""
        self.tokens, self.scores, self.types, self.merges = [], [], [], []
        self.ids, self.add_bos, self.graph = (-1, -1, -1, -1), 1, b""

    def item(self, key, kind, value):
        """`value` is encoded as the format wants it for `kind`."""
        key = key.encode()
        self.meta.append(struct.pack("<H", len(key)) + key + bytes([kind]) + value)
        return self

    def tensor(self, name, dtype, shape, data, name_bytes=None):
        """In the order of their names, which is the caller's to keep."""
        self.tensors.append((name.encode(), dtype, shape, data, name_bytes))
        return self

    def build(self):
        index = layout = weights = b""
        for name, dtype, shape, data, name_bytes in self.tensors:
            length = len(name) if name_bytes is None else name_bytes
            index += struct.pack("<64sHHHH4QQQQ", name, length, dtype, len(shape), 0, *shape,
                                 *[0] * (4 - len(shape)), len(weights), len(data), 0)
            layout += struct.pack("<HHIIII12x", dtype, *BLOCKS[dtype])
            weights += padded(data)
        tokenizer = (b"TKNZ" + string(self.tokenizer_template) + counted([string(t) for t in self.tokens]) +
                     counted([struct.pack("<f", s) for s in self.scores]) +
                     counted([struct.pack("<i", t) for t in self.types]) +
                     counted([string(m) for m in self.merges]) + struct.pack("<4iB", *self.ids, self.add_bos))
        sections = {1: counted(self.meta), 2: tokenizer, 3: self.graph, 4: index, 5: weights, 6: layout,
                    7: struct.pack("<Q", len(self.template)) + self.template}
        body, places = b"", {}
        for kind in ORDER_IN_FILE:
            places[kind] = 256 + len(body)
            body += padded(sections[kind])
        arch, hidden, layers, vocab = self.model_info
        head = struct.pack("<4sIIIIIQIIQQQ", b"OKV2", 2, 0x01020304, 7, arch, 0, hidden, layers, vocab,
                           len(self.tensors), 0, 0)
        for kind in range(1, 8):
            head += struct.pack("<IIQQ", kind, 0, places[kind], len(sections[kind]))
        return sealed(head.ljust(256, b"\0") + body)


def sealed(data):
    data = bytearray(data)
    struct.pack_into("<Q", data, 56, checksum(data[:56] + data[64:232]))
    return bytes(data)


def patched(data, *changes):
    """patched(data, (at, code, value), ...): a copy with the struct `code` of `value` at `at`."""
    data = bytearray(data)
    for at, code, value in changes:
        struct.pack_into("<" + code, data, at, value)
    return sealed(data)


def table_entry(kind):
    return 64 + 24 * (kind - 1)


def section_offset(data, kind):
    return struct.unpack_from("<Q", data, table_entry(kind) + 8)[0]


def full():
    """A container with something of everything."""
    builder = Builder()
    builder.item("a.u32", 0, struct.pack("<I", 4000000000)).item("a.i32", 1, struct.pack("<i", -2))
    builder.item("a.f32", 2, struct.pack("<f", 0.5)).item("a.u64", 3, struct.pack("<Q", 2**63))
    builder.item("a.str", 4, string("lläma")).item("a.arr", 5, struct.pack("<III", 2, 1, 300))
    builder.item("a.u32", 0, struct.pack("<I", 8))
    builder.tokenizer_template, builder.template = b"TT", "hällo".encode()
    builder.tokens, builder.scores, builder.types = ["<s>", b"\xe2\x96", "b"], [1.5, -2.0], [3, 1, -1]
    builder.merges, builder.ids, builder.graph = ["a b", "c d"], (0, 2, -1, 7), b"GRAPH"
    builder.tensor("alpha", 0, (2, 3), struct.pack("<6f", 0, 1, 2, 3, 4, -5.5))
    builder.tensor("beta", 2, (2,), bytes([0x80, 0x3F, 0x20, 0xC0]))  # 1.0 and -2.5
    builder.tensor("delta", 1, (1, 2), bytes([0x00, 0x3C, 0x00, 0xC5]))  # 1.0 and -5.0
    builder.tensor("gamma", 5, (256, 2), bytes(range(256)) + bytes(32))
    builder.tensor("g" * 63, 0, (1,), bytes(4), 70)
    builder.tensors.sort()
    return builder
