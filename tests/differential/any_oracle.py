#!/usr/bin/env python3
"""Writes generated values with python3's own str(), repr() and reference-event JSON of them,
in the format that any_differential_test.cpp reads and describes."""

import argparse
import collections
import json
import math
import random
import struct
import sys
import unicodedata

MAX_CODE_POINT = 0x10FFFF

# Letters of other scripts: Latin, Greek, Cyrillic, Hebrew, Arabic, Devanagari, Hiragana, CJK,
# Hangul; then combining marks.
LETTERS = [(0xC0, 0x24F), (0x391, 0x3C9), (0x410, 0x44F), (0x5D0, 0x5EA), (0x620, 0x64A),
           (0x904, 0x939), (0x3041, 0x3096), (0x4E00, 0x9FFF), (0xAC00, 0xD7A3), (0x300, 0x36F)]
# Private use in every area, astral (emoji, historic scripts, CJK extensions), anything at all.
CODE_POINTS = [(0xE000, 0xF8FF), (0xF0000, 0xFFFFD), (0x100000, 0x10FFFD), (0x1F300, 0x1FAFF),
               (0x10000, 0x1FFFF), (0x20000, 0x3134A), (0x80, MAX_CODE_POINT)]
# Separators and format characters (all escaped but the ASCII space), range ends, a base with a
# combining mark.
SPECIAL = ("\u00a0|\u00ad|\u1680|\u2000|\u200a|\u200b|\u200c|\u200d|\u200e|\u2028|\u2029|\u202f|"
           "\u205f|\u2060|\u3000|\ufeff|\ufff9|\U000e0001|\U0001d173|\u0600|\u061c|\ue000|"
           "\uf8ff|\U000fffff|\U0010ffff|\U0001f600|\U0001d11e|\U00010000|\U000e01ef|a\u0308| ")
# Overlong forms, encoded surrogates (alone and paired), above U+10FFFF.
INVALID = (b"\xc0\x80 \xc0\xaf \xc1\xbf \xe0\x80\xaf \xe0\x9f\xbf \xf0\x80\x80\xaf "
           b"\xf0\x8f\xbf\xbf \xed\xa0\x80 \xed\xbf\xbf \xed\xb2\x80 \xed\xa0\xbd\xed\xb8\x80 "
           b"\xf4\x90\x80\x80 \xf7\xbf\xbf\xbf \xf8\x88\x80\x80\x80").split()
FLOATS = [0.0, -0.0, 0.5, 1.0, -1.0, 1e16, 1e-5, 1e15, 1e-4, 1e-3, 123456789012345678.0,
          9999999999999998.0, 1e16 - 2, 1e17, 1e22, 1e23, 0.1, 0.2, 0.30000000000000004, 1 / 3,
          2.0 ** 53, 2.0 ** 63, 1.7976931348623157e308, 5e-324, 2.2250738585072014e-308,
          2.225073858507201e-308, math.inf, -math.inf, math.nan, -math.nan,
          0.00009999999999999999, 0.0001000000000000001, 1234.5, 100.0]
INTEGERS = [0, 1, -1, 2**63 - 1, -2**63, -2**63 + 1, 2**63 - 2, 10, -10, 2**31, -2**31 - 1,
            2**53 + 1, 10**18, -10**18]


def check_environment():
    # The printable table and the float layout on the other side are tied to these.
    if unicodedata.unidata_version != "14.0.0":
        sys.exit(f"any_oracle.py: needs the Unicode 14.0.0 database (Python 3.11), this python3 "
                 f"has {unicodedata.unidata_version} (Python {sys.version.split()[0]})")
    if sys.float_repr_style != "short":
        sys.exit("any_oracle.py: needs shortest round-trip float repr (sys.float_repr_style)")


def to_bytes(s):
    return s.encode("utf-8", "surrogateescape")


def from_bytes(b):
    return b.decode("utf-8", "surrogateescape")


def is_surrogate(cp):
    return 0xD800 <= cp <= 0xDFFF


def printable(cp):
    return not is_surrogate(cp) and chr(cp).isprintable()


# A host value with its token encoding.
Value = collections.namedtuple("Value", "py tokens")


def string_value(raw):
    return Value(from_bytes(raw), ["S" + raw.hex()])


def float_value(bits):
    return Value(struct.unpack(">d", bits.to_bytes(8, "big"))[0], [f"D{bits:016x}"])


def float_bits(x):
    return int.from_bytes(struct.pack(">d", x), "big")


class Generator:
    def __init__(self, seed):
        self.rng = random.Random(seed)
        # Code points whose printability differs from the one before.
        self.edges = [cp for cp in range(1, MAX_CODE_POINT + 1)
                      if printable(cp) != printable(cp - 1)]

    def code_point(self, ranges, accept=lambda c: True):
        while True:
            cp = self.rng.randint(*self.rng.choice(ranges))
            if not is_surrogate(cp) and accept(chr(cp)):
                return chr(cp)

    def piece(self):
        """Bytes of one short run of text of a randomly chosen flavour."""
        rng = self.rng
        count = rng.randint(1, 4)
        flavours = [
            # Plain ASCII; quotes and backslashes, which decide the quote character.
            lambda: bytes(rng.randint(0x20, 0x7E) for _ in range(count * 2)),
            lambda: bytes(rng.choice(b"'\"\\ab ") for _ in range(count)),
            # C0 and C1 controls, DEL and the rest of Latin-1.
            lambda: to_bytes(chr(rng.choice([*range(0x20), *range(0x7F, 0x100)]))),
            lambda: to_bytes("".join(self.code_point(LETTERS) for _ in range(count))),
            lambda: to_bytes(rng.choice(SPECIAL.split("|"))),
            lambda: to_bytes(self.code_point(CODE_POINTS)),
            # Not printable in the BMP: unassigned, format, private use, ...
            lambda: to_bytes(self.code_point([(0x80, 0xFFFF)], lambda c: not c.isprintable())),
            self.printability_edge,
            self.cut_short,
            lambda: rng.choice(INVALID),
            # Bytes that never start a sequence, and stray continuation bytes.
            lambda: bytes(rng.choice([*range(0xF5, 0x100), *range(0x80, 0xC2)])
                          for _ in range(count)),
            # A lead byte followed by something that is not a continuation.
            lambda: bytes([rng.randint(0xC2, 0xF4), rng.choice(b"A'\"\xc3\xf0")]),
            lambda: bytes(rng.getrandbits(8) for _ in range(count * 3)),
        ]
        return rng.choice(flavours)()

    def printability_edge(self):
        """Both sides of a point where printability changes."""
        edge = self.rng.choice(self.edges)
        return to_bytes("".join(chr(cp) for cp in (edge - 1, edge) if not is_surrogate(cp)))

    def cut_short(self):
        full = to_bytes(chr(self.rng.choice([0xE9, 0x20AC, 0xFEFF, 0x1F600, 0x10FFFF])))
        return full[:self.rng.randint(1, len(full) - 1)]

    def raw_string(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.05:
            return b""
        if roll < 0.15:  # one quote character alone, or both
            return rng.choice([b"'", b'"', b"'\"", b"\\", b"it's", b'say "hi"', b"'\"'"])
        return b"".join(self.piece() for _ in range(rng.randint(1, 6)))

    def integer(self):
        rng = self.rng
        n = rng.choice([rng.choice(INTEGERS), rng.getrandbits(64) - 2**63, rng.randint(-1000, 1000),
                        rng.getrandbits(rng.randint(1, 63)) * rng.choice([1, -1])])
        return Value(n, [f"I{n}"])

    def float_(self):
        rng = self.rng
        sign = rng.getrandbits(1) << 63
        roll = rng.randrange(8)
        if roll <= 1:  # any bit pattern: NaN payloads, subnormals, huge and tiny exponents
            bits = rng.getrandbits(64)
        elif roll == 2:  # subnormals
            bits = rng.getrandbits(52) | sign
        elif roll == 3:  # neighbours of the switch points between plain and scientific layout
            base = rng.choice([1e-4, 1e-5, 1e16, 1e15, 1e17, 1.0, 10.0, 0.001])
            bits = (float_bits(base) + rng.randint(-3, 3)) | sign
        elif roll == 4:
            bits = float_bits(rng.choice(FLOATS))
        elif roll == 5:  # short decimals at every magnitude near the layout boundaries
            mantissa = rng.randint(1, 10**rng.randint(1, 17) - 1)
            bits = float_bits(float(f"{mantissa}e{rng.randint(-25, 20)}")) | sign
        elif roll == 6:  # integers as floats
            bits = float_bits(float(rng.getrandbits(rng.randint(1, 70))))
        else:  # finite values with an exponent the layout cares about
            bits = float_bits(rng.random() * 10.0 ** rng.randint(-8, 20))
        return float_value(bits)

    def value(self, depth=0):
        rng = self.rng
        if depth >= 5 or rng.random() >= 0.45 / (depth + 1):
            roll = rng.random()
            if roll < 0.45:
                return string_value(self.raw_string())
            if roll < 0.85:
                return self.float_() if roll < 0.65 else self.integer()
            return rng.choice([Value(None, ["N"]), Value(True, ["T"]), Value(False, ["F"])])
        width = rng.choice([0, 0, 1, 2, 3, 4, 6])
        if rng.random() < 0.5:
            items = [self.value(depth + 1) for _ in range(width)]
            return Value([item.py for item in items],
                         [f"L{width}"] + [t for item in items for t in item.tokens])
        py, tokens = {}, [f"M{width}"]
        for _ in range(width):
            # Assigning an existing key again keeps its place.
            raw = to_bytes(rng.choice(list(py))) if py and rng.random() < 0.1 else self.raw_string()
            item = self.value(depth + 1)
            py[from_bytes(raw)] = item.py
            tokens += ["S" + raw.hex(), *item.tokens]
        return Value(py, tokens)


def special_values():
    """Strings that run the printable table and the invalid-byte handling end to end."""
    every = "".join(chr(cp) for cp in range(MAX_CODE_POINT + 1) if not is_surrogate(cp))
    yield string_value(to_bytes(every))
    # Each byte 0x80..0xFF alone, so none of them can be part of a valid sequence.
    yield string_value(b"".join(bytes([b]) + b"." for b in range(0x80, 0x100)))
    items = [string_value(bytes([b])) for b in range(0x80, 0x100)]
    yield Value([item.py for item in items], [f"L{len(items)}"] + [i.tokens[0] for i in items])


def record(value):
    text = str(value.py)
    payload = json.dumps({"data_type": "reference", "data_value": text})
    return "\t".join([" ".join(value.tokens), to_bytes(text).hex(), to_bytes(repr(value.py)).hex(),
                      to_bytes(payload).hex()]) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--count", type=int, required=True, help="random values to write")
    args = parser.parse_args()
    check_environment()
    generator = Generator(args.seed)
    values = [*special_values(), *(generator.value() for _ in range(args.count))]
    sys.stdout.writelines(record(value) for value in values)
    sys.stdout.write(f"END {len(values)}\n")


if __name__ == "__main__":
    main()
