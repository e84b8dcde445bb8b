#!/usr/bin/env python3
"""Makes the files that the download tests fetch, under WORKDIR/www-control:
  plain.bin, mid.bin, big.bin   plain files of patterned bytes
  pkgsrc/                  a folder tree (with a dlm.ini in a subfolder)
  pkg.tar.lzma2            that tree as one LZMA2 package (GNU tar, raw LZMA2 with its property byte)
  multi_001_003.tar.lzma2 .. multi_003_003.tar.lzma2   the same package split at uneven byte offsets
usage: make_packages.py WORKDIR
"""
import os
import random
import shutil
import subprocess
import sys

root = os.path.join(sys.argv[1], "www-control")
os.makedirs(root, exist_ok=True)


def pattern(size, seed):
    return random.Random(seed).randbytes(size)


def text(size, seed):
    rnd = random.Random(seed)
    words = [b"alpha ", b"beta ", b"gamma ", b"delta ", b"tarnwick ", b"quorvel ", b"block ", b"\n"]
    out = b"".join(rnd.choices(words, k=size // 4 + 1))
    return out[:size]


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def make_plain(name, size, seed):
    path = os.path.join(root, name)
    if not os.path.exists(path) or os.path.getsize(path) != size:
        write(path, pattern(size, seed)[:size])


make_plain("plain.bin", 6 * 1024 * 1024 + 123, 1)
make_plain("big.bin", 48 * 1024 * 1024 + 7, 2)
make_plain("mid.bin", 24 * 1024 * 1024 + 3, 8)
# Four names for one file: downloads of the same URL share a store section, these do not.
for i in range(4):
    twin = os.path.join(root, "plain%d.bin" % i)
    if not os.path.exists(twin):
        os.link(os.path.join(root, "plain.bin"), twin)

src = os.path.join(root, "pkgsrc")
if not os.path.exists(os.path.join(root, "multi_003_003.tar.lzma2")):
    shutil.rmtree(src, ignore_errors=True)
    write(os.path.join(src, "readme.txt"), text(5000, 3))
    write(os.path.join(src, "data", "random.bin"), pattern(20 * 1024 * 1024 + 5, 4))
    write(os.path.join(src, "data", "words.txt"), text(6 * 1024 * 1024, 5))
    write(os.path.join(src, "data", "empty.txt"), b"")
    write(os.path.join(src, "data", "exact.bin"), pattern(512 * 7, 6)[: 512 * 7])
    write(os.path.join(src, "a" * 60, "b" * 60, "long-name-" + "c" * 40 + ".txt"), text(777, 7))
    write(os.path.join(src, "bin", "dlm.ini"), b"[DLM_LAUNCH]\r\nEXE_PATH=bin\\game.exe\r\nEXE_PARAM=-play\r\nAUTO_OPEN=1\r\n")
    tar = subprocess.run(["tar", "--format=gnu", "--sort=name", "-C", src, "-cf", "-", "."], check=True,
                         stdout=subprocess.PIPE).stdout
    xz = subprocess.run(["xz", "--format=raw", "--lzma2=preset=1,dict=8MiB", "-c"], input=tar, check=True,
                        stdout=subprocess.PIPE).stdout
    package = b"\x16" + xz  # the dictionary property byte of an 8 MiB dictionary
    write(os.path.join(root, "pkg.tar.lzma2"), package)
    cuts = [0, len(package) // 3 + 17, 2 * len(package) // 3 - 5, len(package)]
    for i in range(3):
        write(os.path.join(root, "multi_%03d_003.tar.lzma2" % (i + 1)), package[cuts[i]:cuts[i + 1]])
