#!/usr/bin/env python3
"""Writes generated values with python3's own str(), repr(), reference-event JSON and JSON of
them, in the format that any_differential_test.cpp reads and describes."""

import json
import math
import random
import struct
import sys
import unicodedata

MAX_CODE_POINT = 0x10FFFF

# Overlong forms, encoded surrogates (alone and paired), above U+10FFFF.
INVALID = (b"\xc0\x80 \xc0\xaf \xc1\xbf \xe0\x80\xaf \xe0\x9f\xbf \xf0\x80\x80\xaf "
           b"\xf0\x8f\xbf\xbf \xed\xa0\x80 \xed\xbf\xbf \xed\xb2\x80 \xed\xa0\xbd\xed\xb8\x80 "
           b"\xf4\x90\x80\x80 \xf7\xbf\xbf\xbf \xf8\x88\x80\x80\x80").split()
FLOATS = [0.0, -0.0, 1e16, 1e-5, 123456789012345678.0, 9999999999999998.0, 1e22, 0.1,
          0.30000000000000004, 2.0 ** 63, 1.7976931348623157e308, 5e-324, 2.225073858507201e-308,
          math.inf, -math.inf, math.nan, 0.00009999999999999999, 100.0]


def to_bytes(s):
    return s.encode("utf-8", "surrogateescape")


def from_bytes(b):
    return b.decode("utf-8", "surrogateescape")


def float_bits(x):
    return int.from_bytes(struct.pack(">d", x), "big")


def tagged(value):
    """The value as JSON can carry it: strings tagged with a leading "s", so that the untagged
    strings "nan", "inf" and "-inf" can stand for the floats JSON has no numbers for."""
    if isinstance(value, str):
        return "s" + value
    if isinstance(value, float) and not math.isfinite(value):
        return repr(value)
    if isinstance(value, list):
        return [tagged(item) for item in value]
    if isinstance(value, dict):
        return {key: tagged(item) for key, item in value.items()}
    return value


# Seeded in main.
rng = random.Random()


def code_point():
    """Any code point but a surrogate, half of them in the BMP."""
    while True:
        cp = rng.randint(0x80, rng.choice([0xFFFF, MAX_CODE_POINT]))
        if not 0xD800 <= cp <= 0xDFFF:
            return chr(cp)


def piece():
    """Bytes of one short run of text of a randomly chosen flavour."""
    count = rng.randint(1, 4)
    flavours = [
        # Plain ASCII; quotes and backslashes, which decide the quote character.
        lambda: bytes(rng.randint(0x20, 0x7E) for _ in range(count * 2)),
        lambda: bytes(rng.choice(b"'\"\\ab ") for _ in range(count)),
        # C0 and C1 controls, DEL and the rest of Latin-1.
        lambda: to_bytes(chr(rng.choice([*range(0x20), *range(0x7F, 0x100)]))),
        # Each code point's own forms are pinned by the string of all of them (special_values);
        # here they meet ASCII, controls and invalid bytes.
        lambda: to_bytes("".join(code_point() for _ in range(count))),
        cut_short,
        lambda: rng.choice(INVALID),
        # A lead byte followed by something that is not a continuation, and any bytes.
        lambda: bytes([rng.randint(0xC2, 0xF4), rng.choice(b"A'\"\xc3\xf0")]),
        lambda: bytes(rng.getrandbits(8) for _ in range(count * 3)),
    ]
    return rng.choice(flavours)()


def cut_short():
    full = to_bytes(chr(rng.choice([0xE9, 0x20AC, 0xFEFF, 0x1F600, 0x10FFFF])))
    return full[:rng.randint(1, len(full) - 1)]


def raw_string():
    roll = rng.random()
    if roll < 0.05:
        return b""
    if roll < 0.15:  # one quote character alone, or both
        return rng.choice([b"'", b'"', b"'\"", b"\\", b"it's", b'say "hi"', b"'\"'"])
    return b"".join(piece() for _ in range(rng.randint(1, 6)))


def integer():
    return rng.choice([rng.choice([0, 2**63 - 1, -2**63]), rng.getrandbits(64) - 2**63,
                       rng.randint(-1000, 1000)])


def float_():
    roll = rng.randrange(4)
    if roll == 0:  # any bit pattern: NaN payloads, subnormals, huge and tiny exponents
        bits = rng.getrandbits(64)
    elif roll == 1:  # neighbours of the switch points between plain and scientific layout
        base = rng.choice([1e-4, 1e-5, 1e16, 1e15, 1e17, 1.0, 10.0, 0.001])
        bits = (float_bits(base) + rng.randint(-3, 3)) | (rng.getrandbits(1) << 63)
    elif roll == 2:
        bits = float_bits(rng.choice(FLOATS))
    else:  # short decimals at every magnitude near the layout boundaries
        mantissa = rng.randint(1, 10**rng.randint(1, 17) - 1)
        bits = float_bits(float(f"{mantissa}e{rng.randint(-25, 20)}"))
    return struct.unpack(">d", bits.to_bytes(8, "big"))[0]


def value(depth=0):
    if depth >= 5 or rng.random() >= 0.45 / (depth + 1):
        roll = rng.random()
        if roll < 0.45:
            return from_bytes(raw_string())
        if roll < 0.85:
            return float_() if roll < 0.65 else integer()
        return rng.choice([None, True, False])
    width = rng.choice([0, 0, 1, 2, 3, 4, 6])
    if rng.random() < 0.5:
        return [value(depth + 1) for _ in range(width)]
    return {from_bytes(raw_string()): value(depth + 1) for _ in range(width)}


def special_values():
    """Strings that run the printable table and the invalid-byte handling end to end."""
    yield "".join(chr(cp) for cp in range(MAX_CODE_POINT + 1) if not 0xD800 <= cp <= 0xDFFF)
    # Each byte 0x80..0xFF alone, so none of them can be part of a valid sequence.
    yield from_bytes(b"".join(bytes([b]) + b"." for b in range(0x80, 0x100)))


def record(value):
    text = str(value)
    payload = json.dumps({"data_type": "reference", "data_value": text})
    try:
        written = json.dumps(value, allow_nan=False)
    except ValueError:  # a float JSON has no number for, which the library refuses too
        written = ""
    # ASCII only: bytes that are not UTF-8 are the \udc80..\udcff escapes the library reads back.
    return json.dumps([tagged(value), text, repr(value), payload, written]) + "\n"


def main():
    seed, count = map(int, sys.argv[1:])  # the random values to write after the special ones
    # The printable table on the other side is tied to this.
    if unicodedata.unidata_version != "14.0.0":
        sys.exit(f"any_oracle.py: needs Unicode 14.0.0 (Python 3.11), not {sys.version}")
    rng.seed(seed)
    values = [*special_values(), *(value() for _ in range(count))]
    sys.stdout.writelines(record(item) for item in values)
    sys.stdout.write(f"END {len(values)}\n")


if __name__ == "__main__":
    main()
