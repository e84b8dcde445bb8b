#!/usr/bin/env python3
"""Makes the package that the whole-pipeline test downloads from nginx: the GNU tar archive of the
tar fixture, compressed by xz as raw LZMA2 with its dictionary property byte in front, served
whole and as two numbered blocks.

Usage: package_fixture.py <tar-archives folder> <www folder>

Writes <www>/pipeline-gnu.tar.lzma2, pipeline-gnu_001_002.tar.lzma2, pipeline-gnu_002_002.tar.lzma2.
"""
import os
import subprocess
import sys

DICTIONARY = 1 << 20


def property_byte(dict_size):
    for p in range(40):
        if (2 | (p & 1)) << (p // 2 + 11) >= dict_size:
            return p
    return 40


def write(path, data):
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def main():
    archives, www = sys.argv[1], sys.argv[2]
    with open(os.path.join(archives, "gnu.tar"), "rb") as f:
        tar = f.read()
    raw = subprocess.run(["xz", "--format=raw", "--lzma2=dict=%d" % DICTIONARY, "-c"], input=tar,
                         stdout=subprocess.PIPE, check=True).stdout
    packed = bytes([property_byte(DICTIONARY)]) + raw
    os.makedirs(www, exist_ok=True)
    write(os.path.join(www, "pipeline-gnu.tar.lzma2"), packed)
    half = len(packed) // 2
    write(os.path.join(www, "pipeline-gnu_001_002.tar.lzma2"), packed[:half])
    write(os.path.join(www, "pipeline-gnu_002_002.tar.lzma2"), packed[half:])
    return 0


if __name__ == "__main__":
    sys.exit(main())
