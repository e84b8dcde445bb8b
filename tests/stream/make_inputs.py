#!/usr/bin/env python3
"""make_inputs.py <work> <www>: in <work>/tar-archives, gnu.tar and ustar.tar of <format>-tree/ by GNU tar
with the trees' symbolic links in <format>.links, and linked/<case>/ (dest/s, a link out of dest, and
archive.tar; linked.manifest); in <www>, packages: pipeline-<kind>.tar.lzma2 (raw LZMA2 by xz behind its
dictionary property byte) and pipeline-gnu.sfx.exe."""
import io, os, random, shutil, subprocess, sys, tarfile

BASE = 1500000000
FILE_OPEN, HARD_LINK, SYMBOLIC_LINK, FOLDER = 0x28000002, 0x28000003, 0x28000004, 0x28000005


def pattern(size, seed):  # random up to 256 KiB, repeated beyond: LZMA2 stores some chunks, matches far in others
    base = random.Random(seed).randbytes(min(size, 1 << 18)) or b"-"
    return (base * (size // len(base) + 1))[:size]


def write(root, rel, data, mtime, mode=0o644):
    os.makedirs(os.path.dirname(os.path.join(root, rel)), exist_ok=True)
    put(os.path.join(root, rel), data)
    os.utime(os.path.join(root, rel), (mtime, mtime))
    os.chmod(os.path.join(root, rel), mode)


def tree(root, fmt):
    if fmt == "ustar":  # over 100 bytes: ustar keeps the folder part in the prefix field
        return write(root, "ustar_prefix_dir_" + "p" * 80 + "/file_" + "q" * 60 + ".txt", pattern(777, 8), BASE)
    for i, (rel, size) in enumerate([("top.txt", 16), ("empty.bin", 0), ("block512.bin", 512), ("block511.bin", 511),
                                     ("block512plus1.bin", 513), ("big.bin", 1536 * 1024 + 37),
                                     ("dir/sub/deeper/file.txt", 1500), ("gr\u00fc\u00dfe-\u00fcn\u00efc\u00f6d\u00e9.txt", 13)]):
        write(root, rel, pattern(size, i), BASE + i)
    write(root, "readonly.txt", b"do not touch\n", BASE + 20, 0o444)
    os.makedirs(os.path.join(root, "emptydir"))
    os.link(os.path.join(root, "top.txt"), os.path.join(root, "hardlink.txt"))
    os.symlink("top.txt", os.path.join(root, "symlink.txt"))
    os.symlink("dir/sub", os.path.join(root, "symlink-dir"))
    # A GNU long name of over 600 bytes (two blocks), and links with long link names.
    deep = "a_long_dir_" + "x" * 190 + "/" + "y" * 200 + "/" + "z" * 200 + "/target_file.txt"
    write(root, deep, pattern(3000, 7), BASE + 30)
    write(root, "n" * 100, b"exactly one hundred bytes of name\n", BASE + 31)
    os.link(os.path.join(root, deep), os.path.join(root, "zz_hardlink_to_long"))
    os.symlink(deep, os.path.join(root, "zz_symlink_to_long"))


def links(root, out_path):  # Wine follows the tree's symbolic links: the tests need to know them
    found = [(os.path.relpath(os.path.join(d, n), root), os.readlink(os.path.join(d, n)))
             for d, dirs, files in os.walk(root) for n in dirs + files if os.path.islink(os.path.join(d, n))]
    put(out_path, "".join("%s\t%s\n" % link for link in sorted(found)).encode())


def member(name, kind=tarfile.REGTYPE, data=b"", link=""):
    info = tarfile.TarInfo(name)
    info.type, info.size, info.mtime, info.linkname = kind, len(data), BASE, link
    return info, (io.BytesIO(data) if kind == tarfile.REGTYPE else None)


def archive(members, path=None):
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for info, content in members:
            tar.addfile(info, content)
    return put(path, data.getvalue()) if path else data.getvalue()


EVIL = b"must never land outside\n"
MADE_BEFORE = member("t", tarfile.SYMTYPE, link="inner")
LINKED = [  # case, where dest/s leads, members, stage code, what it tries (Wine cannot make the link)
    ("through", "../outside", [MADE_BEFORE, member("s/evil.txt", data=EVIL)], FILE_OPEN, "file through a link"),
    ("overwrite", "../outside/target.txt", [MADE_BEFORE, member("s", data=b"x")], FILE_OPEN, "file over a link"),
    ("hardlink", "../outside/target.txt", [MADE_BEFORE, member("h", tarfile.LNKTYPE, link="s")], HARD_LINK, "hard link"),
    ("symlink", "../outside", [MADE_BEFORE, member("s/x", tarfile.SYMTYPE, link="y")], SYMBOLIC_LINK, "link inside it"),
    ("folder", "../outside", [MADE_BEFORE, member("s/sub", tarfile.DIRTYPE)], FOLDER, "folder in a linked folder"),
]


def lzma2(data, dict_size):  # the dictionary property byte, then xz's raw LZMA2
    raw = subprocess.run(["xz", "--format=raw", "--lzma2=preset=6,dict=%d" % dict_size, "-c"], input=data,
                         stdout=subprocess.PIPE, check=True).stdout
    return bytes([next(p for p in range(40) if (2 | (p & 1)) << (p // 2 + 11) >= dict_size)]) + raw


def put(path, data):
    open(path + ".tmp", "wb").write(data)
    os.replace(path + ".tmp", path)


def main():
    work, www = sys.argv[1], sys.argv[2]
    out = os.path.join(work, "tar-archives")
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(out)
    for fmt in ("gnu", "ustar"):
        root = os.path.join(out, fmt + "-tree")
        os.makedirs(root)
        tree(root, fmt)
        subprocess.run(["tar", "--format=" + fmt, "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
                        "-cf", os.path.join(out, fmt + ".tar"), "-C", root, "."], check=True)
        links(root, os.path.join(out, fmt + ".links"))
    lines = []
    for name, target, members, code, what in LINKED:
        case = os.path.join(out, "linked", name)
        os.makedirs(os.path.join(case, "dest"))
        write(case, "outside/target.txt", b"bait\n", BASE)
        os.symlink(target, os.path.join(case, "dest", "s"))
        archive(members, os.path.join(case, "archive.tar"))
        lines.append("%s\t%08x\t%s" % (name, code, what))
    put(os.path.join(out, "linked.manifest"), ("\n".join(lines) + "\n").encode())

    tar = open(os.path.join(out, "gnu.tar"), "rb").read()
    packed = lzma2(tar, 1 << 20)
    half = len(packed) // 2
    os.makedirs(www, exist_ok=True)
    for name, data in [("gnu", packed), ("gnu8m", lzma2(tar, 8 << 20)), ("gnu_001_002", packed[:half]),
                       ("gnu_002_002", packed[half:]),
                       ("cut", packed[:-500]), ("badprop", b"\x29" + packed[1:]),
                       ("cuttar", lzma2(tar[:tar.find(b"big.bin") + 512 + 4096], 1 << 20)),
                       ("hostile", lzma2(archive([member("fine.txt", data=b"fine"), member("../evil.txt", data=EVIL)]),
                                         1 << 16))]:
        put(os.path.join(www, "pipeline-%s.tar.lzma2" % name), data)
    header = tarfile.TarInfo("payload.tar.lzma2")  # a self-extracting package: stub, one header, package
    header.size = len(packed)
    put(os.path.join(www, "pipeline-gnu.sfx.exe"), pattern(3001, 9) + header.tobuf(tarfile.USTAR_FORMAT) + packed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
