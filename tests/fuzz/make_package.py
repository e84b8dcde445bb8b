#!/usr/bin/env python3
"""Writes the package that the bad-input runs damage: a GNU tar archive (folders, files, a long name)
as raw LZMA2 with its dictionary property byte (16: 1 MiB) in front.  Usage: make_package.py <output>"""
import io, lzma, os, random, sys, tarfile

out = io.BytesIO()
with tarfile.open(fileobj=out, mode="w", format=tarfile.GNU_FORMAT) as tar:
    rng = random.Random(7)
    for name in ["sub/", "sub/one.bin", "sub/deeper/two.bin", "n" * 150 + ".bin", "three.txt"]:
        info = tarfile.TarInfo(name.rstrip("/"))
        data = bytes(rng.getrandbits(8) for _ in range(rng.randrange(20000, 90000))) + b"text " * 4000
        info.type, info.size = (tarfile.DIRTYPE, 0) if name.endswith("/") else (tarfile.REGTYPE, len(data))
        tar.addfile(info, None if name.endswith("/") else io.BytesIO(data))
raw = lzma.compress(out.getvalue(), format=lzma.FORMAT_RAW, filters=[{"id": lzma.FILTER_LZMA2, "dict_size": 1 << 20}])
with open(sys.argv[1] + ".tmp", "wb") as f:
    f.write(bytes([16]) + raw)
os.replace(sys.argv[1] + ".tmp", sys.argv[1])
