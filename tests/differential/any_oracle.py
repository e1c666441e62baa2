#!/usr/bin/env python3
"""Writes values together with the host's own str(), repr() and reference-event JSON of them.

Usage: any_oracle.py --seed N --count N --out PATH

Each line of the output holds one value, as tab-separated fields:

    <value tokens>\t<str hex>\t<repr hex>\t<json hex>

Value tokens are separated by single spaces, in prefix order:
    N            None
    T / F        True / False
    I<decimal>   int (signed 64-bit)
    D<16 hex>    float, the IEEE-754 bits, most significant first
    S<hex>       str, as its bytes (invalid UTF-8 stands for the surrogateescape code points)
    L<n>         list, followed by its n elements
    M<n>         dict, followed by n key/value pairs; keys are S tokens, a repeated key
                 assigns again as in a dict display

The three expected texts are hex of their `.encode('utf-8', 'surrogateescape')` bytes. The last
line is `END <number of values>`, so a cut-short file is noticed.
"""

import argparse
import json
import math
import random
import struct
import sys
import unicodedata

MAX_CODE_POINT = 0x10FFFF


def fail_environment(message):
    print(f"any_oracle.py: {message}", file=sys.stderr)
    sys.exit(2)


def check_environment():
    # The printable table and the float layout on the other side are tied to these.
    if unicodedata.unidata_version != "14.0.0":
        fail_environment(
            f"needs the Unicode 14.0.0 database (Python 3.11), this python3 has "
            f"{unicodedata.unidata_version} (Python {sys.version.split()[0]})")
    if sys.float_repr_style != "short":
        fail_environment("needs shortest round-trip float repr (sys.float_repr_style == 'short')")


def to_bytes(s):
    return s.encode("utf-8", "surrogateescape")


def from_bytes(b):
    return b.decode("utf-8", "surrogateescape")


def is_surrogate(cp):
    return 0xD800 <= cp <= 0xDFFF


_edges = []


def printable_edges():
    """Code points whose printability differs from the one before."""
    if not _edges:
        before = False
        for cp in range(MAX_CODE_POINT + 1):
            now = not is_surrogate(cp) and chr(cp).isprintable()
            if now != before:
                _edges.append(cp)
            before = now
    return _edges


class Value:
    """A host value with its token encoding."""

    __slots__ = ("py", "tokens")

    def __init__(self, py, tokens):
        self.py = py
        self.tokens = tokens


def string_value(raw):
    return Value(from_bytes(raw), ["S" + raw.hex()])


def float_value(bits):
    return Value(struct.unpack(">d", bits.to_bytes(8, "big"))[0], [f"D{bits:016x}"])


def float_bits(x):
    return int.from_bytes(struct.pack(">d", x), "big")


class Generator:
    def __init__(self, seed):
        self.rng = random.Random(seed)

    # --- strings -------------------------------------------------------------------------

    def code_point_where(self, lo, hi, accept):
        rng = self.rng
        while True:
            cp = rng.randint(lo, hi)
            if not is_surrogate(cp) and accept(chr(cp)):
                return cp

    def piece(self):
        """Bytes of one short run of text of a randomly chosen flavour."""
        rng = self.rng
        kind = rng.randrange(17)
        if kind == 0:  # plain ASCII
            return bytes(rng.randint(0x20, 0x7E) for _ in range(rng.randint(1, 8)))
        if kind == 1:  # quotes and backslashes decide the quote character and get escaped
            return bytes(rng.choice(b"'\"\\ab ") for _ in range(rng.randint(1, 5)))
        if kind == 2:  # C0 controls and DEL
            return bytes([rng.choice([*range(0x20), 0x7F])])
        if kind == 3:  # C1 controls, the rest of Latin-1
            return to_bytes(chr(rng.randint(0x80, 0xFF)))
        if kind == 4:  # letters of other scripts
            lo, hi = rng.choice([(0xC0, 0x24F), (0x391, 0x3C9), (0x410, 0x44F), (0x5D0, 0x5EA),
                                 (0x620, 0x64A), (0x904, 0x939), (0x3041, 0x3096),
                                 (0x4E00, 0x9FFF), (0xAC00, 0xD7A3)])
            return to_bytes("".join(chr(rng.randint(lo, hi)) for _ in range(rng.randint(1, 4))))
        if kind == 5:  # combining marks, alone and after a base
            mark = chr(self.code_point_where(0x300, 0x36F, lambda c: True))
            return to_bytes(rng.choice(["", "e", "a\u0308"]) + mark)
        if kind == 6:  # separators and format characters, all escaped except the ASCII space
            return to_bytes(rng.choice(["\u00a0", "\u00ad", "\u1680", "\u2000", "\u200a",
                                        "\u200b", "\u200c", "\u200d", "\u200e", "\u2028",
                                        "\u2029", "\u202f", "\u205f", "\u2060", "\u3000",
                                        "\ufeff", "\ufff9", "\U000e0001", "\U0001d173",
                                        "\u0600", "\u061c", " "]))
        if kind == 7:  # private use in every area
            return to_bytes(chr(rng.choice([rng.randint(0xE000, 0xF8FF),
                                            rng.randint(0xF0000, 0xFFFFD),
                                            rng.randint(0x100000, 0x10FFFD),
                                            0xE000, 0xF8FF, 0xFFFFF, 0x10FFFF])))
        if kind == 8:  # astral: emoji, historic scripts, CJK extensions, the top of the range
            return to_bytes(chr(rng.choice([rng.randint(0x1F300, 0x1FAFF),
                                            rng.randint(0x10000, 0x1FFFF),
                                            rng.randint(0x20000, 0x3134A),
                                            0x1F600, 0x1D11E, 0x10000, 0x10FFFF, 0xE01EF])))
        if kind == 9:  # anything outside the surrogates
            return to_bytes(chr(self.code_point_where(0x80, MAX_CODE_POINT, lambda c: True)))
        if kind == 10:  # non-printable in the BMP: unassigned, format, private use, ...
            return to_bytes(chr(self.code_point_where(0x80, 0xFFFF,
                                                      lambda c: not c.isprintable())))
        if kind == 11:  # both sides of a point where printability changes
            edge = rng.choice(printable_edges())
            return to_bytes("".join(chr(cp) for cp in (edge - 1, edge) if not is_surrogate(cp)))
        if kind == 12:  # sequences cut short
            full = to_bytes(chr(rng.choice([0xE9, 0x20AC, 0xFEFF, 0x1F600, 0x10FFFF])))
            return full[:rng.randint(1, len(full) - 1)]
        if kind == 13:  # overlong forms, encoded surrogates, above U+10FFFF
            return rng.choice([b"\xc0\x80", b"\xc0\xaf", b"\xc1\xbf", b"\xe0\x80\xaf",
                               b"\xe0\x9f\xbf", b"\xf0\x80\x80\xaf", b"\xf0\x8f\xbf\xbf",
                               b"\xed\xa0\x80", b"\xed\xbf\xbf", b"\xed\xb2\x80",
                               b"\xed\xa0\xbd\xed\xb8\x80", b"\xf4\x90\x80\x80",
                               b"\xf7\xbf\xbf\xbf", b"\xf8\x88\x80\x80\x80"])
        if kind == 14:  # bytes that never start a sequence, and stray continuation bytes
            return bytes(rng.choice([*range(0xF5, 0x100), *range(0x80, 0xC0), 0xC0, 0xC1])
                         for _ in range(rng.randint(1, 3)))
        if kind == 15:  # raw random bytes
            return bytes(rng.getrandbits(8) for _ in range(rng.randint(1, 12)))
        # a lead byte followed by something that is not a continuation
        return bytes([rng.randint(0xC2, 0xF4), rng.choice([0x41, 0x27, 0x22, 0xC3, 0xF0])])

    def raw_string(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.05:
            return b""
        if roll < 0.15:  # one quote character alone, or both
            return rng.choice([b"'", b'"', b"'\"", b"\\", b"it's", b'say "hi"', b"'\"'"])
        return b"".join(self.piece() for _ in range(rng.randint(1, 6)))

    def string(self):
        return string_value(self.raw_string())

    # --- numbers -------------------------------------------------------------------------

    def integer(self):
        rng = self.rng
        roll = rng.randrange(6)
        if roll == 0:
            n = rng.choice([0, 1, -1, 2**63 - 1, -2**63, -2**63 + 1, 2**63 - 2, 10, -10,
                            2**31, -2**31 - 1, 2**53 + 1, 10**18, -10**18])
        elif roll == 1:
            n = rng.getrandbits(64) - 2**63
        elif roll == 2:
            n = rng.randint(-1000, 1000)
        else:
            bits = rng.randint(1, 63)
            n = rng.getrandbits(bits) * rng.choice([1, -1])
        return Value(n, [f"I{n}"])

    def float_(self):
        rng = self.rng
        roll = rng.randrange(8)
        if roll <= 1:  # any bit pattern: NaN payloads, subnormals, huge and tiny exponents
            return float_value(rng.getrandbits(64))
        if roll == 2:
            x = rng.choice([0.0, -0.0, 0.5, 1.0, -1.0, 1e16, 1e-5, 1e15, 1e-4, 1e-3,
                            123456789012345678.0, 9999999999999998.0, 1e16 - 2, 1e17, 1e22,
                            1e23, 0.1, 0.2, 0.30000000000000004, 1 / 3, 2.0 ** 53,
                            2.0 ** 63, 1.7976931348623157e308, 5e-324, 2.2250738585072014e-308,
                            2.225073858507201e-308, math.inf, -math.inf, math.nan, -math.nan,
                            0.00009999999999999999, 0.0001000000000000001, 1234.5, 100.0])
            return float_value(float_bits(x))
        if roll == 3:  # neighbours of the switch points between plain and scientific layout
            base = rng.choice([1e-4, 1e-5, 1e16, 1e15, 1e17, 1.0, 10.0, 0.001])
            bits = float_bits(base) + rng.randint(-3, 3)
            return float_value(bits | (rng.getrandbits(1) << 63))
        if roll == 4:  # subnormals
            return float_value(rng.getrandbits(52) | (rng.getrandbits(1) << 63))
        if roll == 5:  # short decimals at every magnitude near the layout boundaries
            digits = rng.randint(1, 17)
            mantissa = rng.randint(1, 10**digits - 1)
            x = float(f"{mantissa}e{rng.randint(-25, 20)}")
            return float_value(float_bits(-x if rng.random() < 0.3 else x))
        if roll == 6:  # integers as floats
            return float_value(float_bits(float(rng.getrandbits(rng.randint(1, 70)))))
        # finite values with an exponent the layout cares about
        x = rng.random() * 10.0 ** rng.randint(-8, 20)
        return float_value(float_bits(x))

    # --- trees ---------------------------------------------------------------------------

    def scalar(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.45:
            return self.string()
        if roll < 0.65:
            return self.float_()
        if roll < 0.85:
            return self.integer()
        return rng.choice([Value(None, ["N"]), Value(True, ["T"]), Value(False, ["F"])])

    def value(self, depth=0):
        rng = self.rng
        container = 0.45 if depth == 0 else 0.45 / (depth + 1)
        if depth >= 5 or rng.random() >= container:
            return self.scalar()
        width = rng.choice([0, 0, 1, 2, 3, 4, 6])
        if rng.random() < 0.5:
            items = [self.value(depth + 1) for _ in range(width)]
            tokens = [f"L{width}"]
            for item in items:
                tokens += item.tokens
            return Value([item.py for item in items], tokens)
        keys = []
        for _ in range(width):
            if keys and rng.random() < 0.1:
                keys.append(rng.choice(keys))  # assigning an existing key keeps its place
            else:
                keys.append(self.raw_string())
        tokens = [f"M{width}"]
        py = {}
        for raw in keys:
            item = self.value(depth + 1)
            py[from_bytes(raw)] = item.py
            tokens += ["S" + raw.hex(), *item.tokens]
        return Value(py, tokens)


def special_values():
    """Strings that run the printable table and the invalid-byte handling end to end."""
    every = "".join(chr(cp) for cp in range(MAX_CODE_POINT + 1) if not is_surrogate(cp))
    yield string_value(to_bytes(every))
    # Each byte 0x80..0xFF alone, so none of them can be part of a valid sequence.
    lone = b"".join(bytes([b]) + b"." for b in range(0x80, 0x100))
    yield string_value(lone)
    items = [string_value(bytes([b])) for b in range(0x80, 0x100)]
    yield Value([item.py for item in items], [f"L{len(items)}"] + [i.tokens[0] for i in items])


def record(value):
    text = str(value.py)
    quoted = repr(value.py)
    payload = json.dumps({"data_type": "reference", "data_value": text})
    return "\t".join([" ".join(value.tokens), to_bytes(text).hex(), to_bytes(quoted).hex(),
                      to_bytes(payload).hex()]) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--count", type=int, required=True, help="random values to write")
    parser.add_argument("--out", required=True)
    args = parser.parse_args()
    check_environment()

    generator = Generator(args.seed)
    written = 0
    with open(args.out, "w", encoding="ascii", newline="\n") as out:
        for value in special_values():
            out.write(record(value))
            written += 1
        for _ in range(args.count):
            out.write(record(generator.value()))
            written += 1
        out.write(f"END {written}\n")


if __name__ == "__main__":
    main()
