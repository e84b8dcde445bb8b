"""Makes the files that the download tests fetch, in the folder given (the fault server's /file/control/):
  plain.bin, mid.bin       patterned bytes
  pkgsrc/                  a folder tree (with a dlm.ini in a subfolder)
  pkg.tar.lzma2            that tree as one package (GNU tar, raw LZMA2 behind its property byte)
  multi_001_003.tar.lzma2 .. multi_003_003.tar.lzma2   the same package split at uneven offsets"""
import os, random, shutil, subprocess, sys

root = sys.argv[1]


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True), open(path, "wb").write(data)


def text(size, seed):
    return b"".join(random.Random(seed).choices([b"alpha ", b"beta ", b"tarnwick ", b"quorvel ", b"\n"], k=size))[:size]


for name, size, seed in [("plain.bin", 6 * 1024 * 1024 + 123, 1), ("mid.bin", 24 * 1024 * 1024 + 3, 8)]:
    if not os.path.isfile(path := os.path.join(root, name)) or os.path.getsize(path) != size:
        write(path, random.Random(seed).randbytes(size))
if not os.path.exists(os.path.join(root, "multi_003_003.tar.lzma2")):
    shutil.rmtree(src := os.path.join(root, "pkgsrc"), ignore_errors=True)
    for rel, data in {"readme.txt": text(5000, 3), "data/random.bin": random.Random(4).randbytes(20 * 1024 * 1024 + 5),
                      "data/words.txt": text(6 * 1024 * 1024, 5), "data/empty.txt": b"", "data/exact.bin": random.Random(6).randbytes(512 * 7),
                      "a" * 60 + "/" + "b" * 60 + "/long-name-" + "c" * 40 + ".txt": text(777, 7),
                      "bin/dlm.ini": b"[DLM_LAUNCH]\r\nEXE_PATH=bin\\game.exe\r\nEXE_PARAM=-play\r\nAUTO_OPEN=1\r\n"}.items():
        write(os.path.join(src, rel), data)
    tar = subprocess.run(["tar", "--format=gnu", "--sort=name", "-C", src, "-cf", "-", "."], check=True,
                         stdout=subprocess.PIPE).stdout
    package = b"\x16" + subprocess.run(["xz", "--format=raw", "--lzma2=preset=1,dict=8MiB", "-c"], input=tar,
                                       check=True, stdout=subprocess.PIPE).stdout  # 0x16: an 8 MiB dictionary
    write(os.path.join(root, "pkg.tar.lzma2"), package)
    cuts = [0, len(package) // 3 + 17, 2 * len(package) // 3 - 5, len(package)]
    for i in range(3):
        write(os.path.join(root, "multi_%03d_003.tar.lzma2" % (i + 1)), package[cuts[i]:cuts[i + 1]])
