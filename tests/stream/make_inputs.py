#!/usr/bin/env python3
"""make_inputs.py <work> <www>: in <work>/tar-archives, <format>.tar of <format>-tree/ by GNU tar, the trees'
symbolic links in <format>.links, and linked/<kind>/ (dest/s links to a folder or file outside dest); <kind>.tar
of other writers (GNU tar's other formats and sparse forms, bsdtar, Python's tarfile) with GNU tar's own
extraction in <kind>-tree/; in <www>, pipeline-<kind>.tar.lzma2 (raw LZMA2 by xz behind its dictionary property
byte) and pipeline-gnu.sfx.exe."""
import io, os, random, shutil, subprocess, sys, tarfile

BASE = 1500000000


def pattern(size, seed):  # random up to 256 KiB, repeated beyond: LZMA2 stores some chunks, matches far in others
    base = random.Random(seed).randbytes(min(size, 1 << 18)) or b"-"
    return (base * (size // len(base) + 1))[:size]


def put(path, data, mtime=None, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = os.path.join(os.path.dirname(path), ".put.tmp")
    open(tmp, "wb").write(data)
    os.replace(tmp, path)
    if mtime:
        os.utime(path, (mtime, mtime))
        os.chmod(path, mode)


def tree(root, fmt):
    if fmt == "ustar":  # over 100 bytes: ustar keeps the folder part in the prefix field
        return put(os.path.join(root, "ustar_prefix_dir_" + "p" * 80, "file_" + "q" * 60 + ".txt"), pattern(777, 8), BASE)
    deep = "a_long_dir_" + "x" * 190 + "/" + "y" * 200 + "/" + "z" * 200 + "/target_file.txt"  # GNU long name: 2 blocks
    for i, (rel, data) in enumerate([("top.txt", 16), ("empty.bin", 0), ("block512.bin", 512), ("block511.bin", 511),
                                     ("block512plus1.bin", 513), ("big.bin", 1536 * 1024 + 37), ("dir/sub/deeper/file.txt", 1500),
                                     ("gr\u00fc\u00dfe-\u00fcn\u00efc\u00f6d\u00e9.txt", 13), (deep, 3000), ("n" * 100, 34)]):
        put(os.path.join(root, rel), pattern(data, i), BASE + i)
    put(os.path.join(root, "readonly.txt"), b"do not touch\n", BASE + 20, 0o444)
    os.makedirs(os.path.join(root, "emptydir"))
    for name, target in [("hardlink.txt", "top.txt"), ("zz_hardlink_to_long", deep)]:
        os.link(os.path.join(root, target), os.path.join(root, name))
    for name, target in [("symlink.txt", "top.txt"), ("symlink-dir", "dir/sub"), ("zz_symlink_to_long", deep)]:
        os.symlink(target, os.path.join(root, name))
    found = [(os.path.relpath(os.path.join(d, n), root), os.readlink(os.path.join(d, n)))  # Wine follows them
             for d, dirs, files in os.walk(root) for n in dirs + files if os.path.islink(os.path.join(d, n))]
    put(root[:-len("-tree")] + ".links", "".join("%s\t%s\n" % link for link in sorted(found)).encode())


def lzma2(data, dict_size):  # the dictionary property byte, then xz's raw LZMA2
    raw = subprocess.run(["xz", "--format=raw", "--lzma2=preset=6,dict=%d" % dict_size, "-c"], input=data,
                         stdout=subprocess.PIPE, check=True).stdout
    return bytes([next(p for p in range(40) if (2 | (p & 1)) << (p // 2 + 11) >= dict_size)]) + raw


def hostile():  # GNU tar would strip the "../"
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for name, content in [("fine.txt", b"fine"), ("../evil.txt", b"must never land outside\n")]:
            info = tarfile.TarInfo(name)
            info.size, info.mtime = len(content), BASE
            tar.addfile(info, io.BytesIO(content))
    return data.getvalue()


def foreign(out):  # long names, a hard link to one, a fraction of a second, and a file with holes
    src = os.path.join(out, "foreign-src")
    names = ["n" * 100, "m" * 101, "k" * 255, "/".join(["d" * 240] * 4) + "/" + "f" * 35]  # 100, 101, 255 and 1000 bytes
    for i, name in enumerate(names + ["gr\u00fc\u00dfe/\u00e9t\u00e9.txt"]):
        put(os.path.join(src, name), pattern(700 + 300 * i, 20 + i), BASE + i)
    os.link(os.path.join(src, names[3]), os.path.join(src, "hardlink-to-long"))
    put(os.path.join(src, "fraction.txt"), b"fraction\n")
    os.utime(os.path.join(src, "fraction.txt"), ns=(BASE * 10**9 + 750000000,) * 2)
    holes = os.path.join(src, "holes.bin")  # 30 stretches of data, then a hole to 3 MiB: old GNU needs extension blocks
    for i in range(30):
        subprocess.run(["dd", "if=/dev/urandom", "of=" + holes, "bs=1000", "count=1", "seek=%d" % (i * 65 + 3), "conv=notrunc",
                        "status=none"], check=True)
    subprocess.run(["truncate", "-s", "3M", holes], check=True)
    os.utime(holes, (BASE + 9, BASE + 9))
    tar = ["tar", "--sort=name", "--owner=0", "--group=0", "--numeric-owner", "-C", src]
    made = {"x-gnu": tar + ["--format=gnu"], "x-gnu-sparse": tar + ["--format=gnu", "--sparse"], "x-posix": tar + ["--format=posix"],
            "x-posix-sparse": tar + ["--format=posix", "--sparse"], "x-sparse00": tar + ["--format=posix", "--sparse", "--sparse-version=0.0"],
            "x-sparse01": tar + ["--format=posix", "--sparse", "--sparse-version=0.1"], "x-bsdtar": ["bsdtar", "-C", src]}
    for kind, command in made.items():
        subprocess.run(command + ["-cf", os.path.join(out, kind + ".tar"), "."], check=True)
    for kind, fmt in [("x-python-pax", tarfile.PAX_FORMAT), ("x-python-gnu", tarfile.GNU_FORMAT)]:
        with tarfile.open(os.path.join(out, kind + ".tar"), "w", format=fmt) as t:
            t.add(src, ".")
    for kind in list(made) + ["x-python-pax", "x-python-gnu"]:
        os.makedirs(os.path.join(out, kind + "-tree"))
        subprocess.run(["tar", "-xf", os.path.join(out, kind + ".tar"), "-C", os.path.join(out, kind + "-tree")], check=True)
        put(os.path.join(out, kind + ".links"), b"")
        yield kind, open(os.path.join(out, kind + ".tar"), "rb").read()
    huge = tarfile.TarInfo("huge.bin")  # 9 GiB declared (a pax size), 64 KiB there
    huge.size = 9 << 30
    yield "x-huge-cut", huge.tobuf(tarfile.PAX_FORMAT) + pattern(65536, 30)
    yield "x-empty", b""


def main():
    work, www = sys.argv[1], sys.argv[2]
    out = os.path.join(work, "tar-archives")
    shutil.rmtree(out, ignore_errors=True)
    for fmt in ("gnu", "ustar"):
        root = os.path.join(out, fmt + "-tree")
        os.makedirs(root)
        tree(root, fmt)
        subprocess.run(["tar", "--format=" + fmt, "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
                        "-cf", os.path.join(out, fmt + ".tar"), "-C", root, "."], check=True)
    for kind, target in [("folder", "../outside"), ("file", "../outside/target.txt")]:
        put(os.path.join(out, "linked", kind, "outside", "target.txt"), b"bait\n")
        os.makedirs(os.path.join(out, "linked", kind, "dest"))
        os.symlink(target, os.path.join(out, "linked", kind, "dest", "s"))

    tar = open(os.path.join(out, "gnu.tar"), "rb").read()
    packed = lzma2(tar, 1 << 20)
    half = len(packed) // 2
    for name, data in [("gnu", packed), ("gnu8m", lzma2(tar, 8 << 20)), ("gnu_001_002", packed[:half]),
                       ("gnu_002_002", packed[half:]), ("cut", packed[:-500]), ("badprop", b"\x29" + packed[1:]),
                       ("cuttar", lzma2(tar[:tar.find(b"big.bin") + 512 + 4096], 1 << 20)), ("hostile", lzma2(hostile(), 1 << 16))]:
        put(os.path.join(www, "pipeline-%s.tar.lzma2" % name), data)
    for name, data in foreign(out):
        put(os.path.join(www, "pipeline-%s.tar.lzma2" % name), lzma2(data, 1 << 20))
    header = tarfile.TarInfo("payload.tar.lzma2")  # a self-extracting package: stub, one header, package
    header.size = len(packed)
    put(os.path.join(www, "pipeline-gnu.sfx.exe"), pattern(3001, 9) + header.tobuf(tarfile.USTAR_FORMAT) + packed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
