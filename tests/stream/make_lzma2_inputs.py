#!/usr/bin/env python3
"""Makes the LZMA2 decoder's test inputs: generated payloads and their raw LZMA2 streams from xz,
each stream preceded by its dictionary property byte.

Usage: make_lzma2_inputs.py <output folder>

For every case it writes <name>.raw (the payload) and <name>.lzma2 (property byte + xz output),
and a list "cases.txt" with one line per case: name, dictionary size, property byte, payload size.
Does the work again only when this script changes (the stamp file holds its digest).
"""
import hashlib
import os
import random
import subprocess
import sys

KiB = 1024
MiB = 1024 * KiB

# name, dictionary size, payload size, kind, xz preset
CASES = [
    ("empty", 64 * KiB, 0, "mixed", 1),
    ("tiny", 64 * KiB, 100, "text", 6),
    ("dict64k", 64 * KiB, 1536 * KiB, "mixed", 6),
    ("dict1m", 1 * MiB, 2 * MiB, "mixed", 6),
    ("dict3m", 3 * MiB, 3 * MiB, "mixed", 3),
    ("dict8m", 8 * MiB, 3 * MiB, "mixed", 3),
    ("dict64m", 64 * MiB, 5 * MiB, "mixed", 1),
    ("stored", 256 * KiB, 700 * KiB, "random", 1),
]


def property_byte(dict_size):
    """Smallest LZMA2 dictionary property whose size holds dict_size."""
    for p in range(40):
        if (2 | (p & 1)) << (p // 2 + 11) >= dict_size:
            return p
    return 40


WORDS = ("download manager stream buffer decoder archive block checkpoint header folder "
         "entry resume package request proxy token status thread event chunk dictionary").split()


def text(rng, size):
    out = bytearray()
    while len(out) < size:
        out += rng.choice(WORDS).encode()
        out += b"\n" if rng.random() < 0.08 else b" "
    return bytes(out[:size])


def mixed(rng, size):
    """Text, random runs and copies of earlier stretches from near and far, so that long
    dictionaries have long-distance matches to find."""
    out = bytearray()
    while len(out) < size:
        r = rng.random()
        if r < 0.35 or len(out) < 64 * KiB:
            out += text(rng, rng.randint(200, 8 * KiB))
        elif r < 0.55:
            out += rng.randbytes(rng.randint(16, 4 * KiB))
        else:
            length = rng.randint(64, 32 * KiB)
            start = rng.randint(0, max(0, len(out) - length))
            piece = bytearray(out[start:start + length])
            if piece and rng.random() < 0.5:
                piece[rng.randrange(len(piece))] ^= 0x5A
            out += piece
    return bytes(out[:size])


def payload(name, kind, size):
    rng = random.Random(name)
    if kind == "random":
        return rng.randbytes(size)
    if kind == "text":
        return text(rng, size)
    return mixed(rng, size)


def main():
    if len(sys.argv) != 2:
        sys.stderr.write(__doc__)
        return 2
    folder = sys.argv[1]
    os.makedirs(folder, exist_ok=True)
    stamp = os.path.join(folder, "stamp")
    with open(__file__, "rb") as f:
        version = hashlib.sha256(f.read()).hexdigest()
    if os.path.exists(stamp) and open(stamp).read() == version:
        return 0
    lines = []
    for name, dict_size, size, kind, preset in CASES:
        data = payload(name, kind, size)
        packed = subprocess.run(
            ["xz", "--format=raw", "--lzma2=preset=%d,dict=%d" % (preset, dict_size), "--stdout", "-"],
            input=data, stdout=subprocess.PIPE, check=True).stdout
        prop = property_byte(dict_size)
        with open(os.path.join(folder, name + ".raw"), "wb") as f:
            f.write(data)
        with open(os.path.join(folder, name + ".lzma2"), "wb") as f:
            f.write(bytes([prop]) + packed)
        lines.append("%s %d %d %d\n" % (name, dict_size, prop, size))
    with open(os.path.join(folder, "cases.txt"), "w") as f:
        f.writelines(lines)
    with open(stamp, "w") as f:
        f.write(version)
    return 0


if __name__ == "__main__":
    sys.exit(main())
