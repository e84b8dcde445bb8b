#!/usr/bin/env python3
"""Makes the tar archives the tar sink is tested with, in <out>:

  gnu.tar, ustar.tar      trees packed by GNU tar (--format=gnu / --format=ustar)
  gnu.manifest, ustar.manifest
                          the trees as expected after extraction, one entry a line, tab-separated:
                            F <path> <size> <md5> <mtime> <readonly 0|1>
                            D <path>
                            S <path> <link target as stored>
  hostile/NN.tar          archives that try to write outside the destination
  hostile.manifest        <file> <expected stage code, hex> <what it tries>
  linked/<case>/          a destination holding a link "s" to a sibling folder or file outside, and
                          archive.tar, which makes a link of its own and then tries to go through "s"
  linked.manifest         <case> <expected stage code, hex; 0 for success> <what it tries>

Every path is relative, "/"-separated, UTF-8.
"""
import hashlib
import io
import os
import shutil
import stat
import subprocess
import sys
import tarfile

BASE_TIME = 1500000000


def pattern(size, seed):
    # Deterministic bytes that do not repeat at block boundaries.
    out = bytearray(size)
    x = (seed * 2654435761 + 12345) & 0xFFFFFFFF
    for i in range(size):
        x = (x * 1103515245 + 12345) & 0xFFFFFFFF
        out[i] = (x >> 16) & 0xFF
    return bytes(out)


def write(root, rel, data, mtime, mode=0o644):
    path = os.path.join(root, rel)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)
    os.utime(path, (mtime, mtime))
    os.chmod(path, mode)


def common_tree(root):
    t = BASE_TIME
    write(root, "top.txt", b"top of the tree\n", t + 1)
    write(root, "empty.bin", b"", t + 2)
    write(root, "block512.bin", pattern(512, 1), t + 3)
    write(root, "block1536.bin", pattern(1536, 2), t + 4)
    write(root, "block512plus1.bin", pattern(513, 3), t + 5)
    write(root, "block511.bin", pattern(511, 4), t + 6)
    write(root, "big.bin", pattern(1536 * 1024 + 37, 5), t + 7)
    write(root, "dir/sub/deeper/file.txt", b"deep\n" * 300, t + 8)
    write(root, "dir/sub/second.bin", pattern(4096, 6), t + 9)
    write(root, "readonly.txt", b"do not touch\n", t + 10, 0o444)
    write(root, "gr\u00fc\u00dfe-\u00fcn\u00efc\u00f6d\u00e9.txt", "unicode name\n".encode(), t + 11)
    os.makedirs(os.path.join(root, "emptydir"))
    os.link(os.path.join(root, "top.txt"), os.path.join(root, "hardlink.txt"))
    os.symlink("top.txt", os.path.join(root, "symlink.txt"))
    os.symlink("dir/sub", os.path.join(root, "symlink-dir"))


def gnu_tree(root):
    common_tree(root)
    t = BASE_TIME + 100
    # A name of over 600 bytes: its GNU long-name record spans two blocks.
    deep = "a_long_dir_" + "x" * 190 + "/" + "y" * 200 + "/" + "z" * 200 + "/target_file.txt"
    write(root, deep, pattern(3000, 7), t)
    write(root, "n" * 100, b"exactly one hundred bytes of name\n", t + 1)
    write(root, "m" * 99, b"ninety-nine\n", t + 2)
    # Sorted after the long name, so stored as links with long link names.
    os.link(os.path.join(root, deep), os.path.join(root, "zz_hardlink_to_long"))
    os.symlink(deep, os.path.join(root, "zz_symlink_to_long"))


def ustar_tree(root):
    common_tree(root)
    t = BASE_TIME + 200
    # Over 100 bytes: ustar keeps the folder part in the prefix field.
    name = "ustar_prefix_dir_" + "p" * 80 + "/file_" + "q" * 60 + ".txt"
    write(root, name, pattern(777, 8), t)


def manifest(root, out_path):
    lines = []
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames.sort()
        rel_dir = os.path.relpath(dirpath, root)
        for d in list(dirnames):
            rel = os.path.normpath(os.path.join(rel_dir, d)).replace(os.sep, "/")
            full = os.path.join(dirpath, d)
            if os.path.islink(full):
                lines.append("S\t%s\t%s" % (rel, os.readlink(full)))
                dirnames.remove(d)
            else:
                lines.append("D\t%s" % rel)
        for f in sorted(filenames):
            full = os.path.join(dirpath, f)
            rel = os.path.normpath(os.path.join(rel_dir, f)).replace(os.sep, "/")
            if os.path.islink(full):
                lines.append("S\t%s\t%s" % (rel, os.readlink(full)))
                continue
            st = os.lstat(full)
            with open(full, "rb") as fh:
                digest = hashlib.md5(fh.read()).hexdigest()
            readonly = 0 if st.st_mode & stat.S_IWUSR else 1
            lines.append("F\t%s\t%d\t%s\t%d\t%d" % (rel, st.st_size, digest, int(st.st_mtime), readonly))
    with open(out_path, "w", encoding="utf-8", newline="\n") as fh:
        fh.write("\n".join(lines) + "\n")


def pack(root, archive, fmt):
    subprocess.run(["tar", "--format=" + fmt, "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
                    "-cf", archive, "-C", root, "."], check=True)


# ---- hostile corpus -----------------------------------------------------------------------------

FILE_OPEN, HARD_LINK, SYMBOLIC_LINK, FOLDER = 0x28000002, 0x28000003, 0x28000004, 0x28000005


def member(name, kind=tarfile.REGTYPE, data=b"", link=""):
    info = tarfile.TarInfo(name)
    info.type = kind
    info.size = len(data) if kind == tarfile.REGTYPE else 0
    info.mtime = BASE_TIME
    info.mode = 0o755 if kind == tarfile.DIRTYPE else 0o644
    info.linkname = link
    return info, (io.BytesIO(data) if kind == tarfile.REGTYPE else None)


def hostile_archive(path, members):
    with tarfile.open(path, "w", format=tarfile.GNU_FORMAT) as tar:
        for info, data in members:
            tar.addfile(info, data)


def hostile_corpus(out):
    folder = os.path.join(out, "hostile")
    os.makedirs(folder)
    evil = b"must never land outside\n"
    ok = member("inside/fine.txt", data=b"fine\n")
    long_climb = "deep/" * 30 + "../" * 31 + "evil-long.txt"
    cases = [
        ([ok, member("../evil.txt", data=evil)], FILE_OPEN, "parent folder"),
        ([member("a/../../evil.txt", data=evil)], FILE_OPEN, "climbs out through a folder"),
        ([member("..\\evil.txt", data=evil)], FILE_OPEN, "parent folder with a backslash"),
        ([member("a\\..\\..\\evil.txt", data=evil)], FILE_OPEN, "climbs out with backslashes"),
        ([member("/abs-evil.txt", data=evil)], FILE_OPEN, "absolute path"),
        ([member("\\abs-evil.txt", data=evil)], FILE_OPEN, "absolute path with a backslash"),
        ([member("C:/evil.txt", data=evil)], FILE_OPEN, "drive letter"),
        ([member("C:evil.txt", data=evil)], FILE_OPEN, "drive-relative path"),
        ([member("inside.txt:stream", data=evil)], FILE_OPEN, "alternate data stream"),
        ([member("../dest2/evil.txt", data=evil)], FILE_OPEN, "sibling folder sharing the name's start"),
        ([member(long_climb, data=evil)], FILE_OPEN, "long name that climbs out"),
        ([member("../evil-dir", tarfile.DIRTYPE)], FOLDER, "folder outside"),
        ([member("/evil-dir", tarfile.DIRTYPE)], FOLDER, "absolute folder"),
        ([member("h.txt", tarfile.LNKTYPE, link="../bait.txt")], HARD_LINK, "hard link to a file outside"),
        ([member("h.txt", tarfile.LNKTYPE, link="../dest2/bait.txt")], HARD_LINK, "hard link into the sibling"),
        ([member("../h.txt", tarfile.LNKTYPE, link="inside/fine.txt")], HARD_LINK, "hard link placed outside"),
        ([member("h.txt", tarfile.LNKTYPE, link="C:/Windows/win.ini")], HARD_LINK, "hard link to a drive path"),
        ([member("h.txt", tarfile.LNKTYPE, link="deep/" * 30 + "../" * 31 + "bait.txt")], HARD_LINK,
         "hard link with a long target outside"),
        ([member("s", tarfile.SYMTYPE, link=".."), member("s/evil.txt", data=evil)], SYMBOLIC_LINK,
         "link to the parent, then a file through it"),
        ([member("s", tarfile.SYMTYPE, link="/etc")], SYMBOLIC_LINK, "link to an absolute path"),
        ([member("s", tarfile.SYMTYPE, link="C:\\Windows")], SYMBOLIC_LINK, "link to a drive path"),
        ([member("sub/s", tarfile.SYMTYPE, link="../../dest2")], SYMBOLIC_LINK, "link to the sibling"),
        ([member("s", tarfile.SYMTYPE, link="sub/../../x")], SYMBOLIC_LINK, "link that climbs through a folder"),
        ([member("../s", tarfile.SYMTYPE, link="dest/inside")], SYMBOLIC_LINK, "link placed outside"),
        ([member("s", tarfile.SYMTYPE, link="long/" * 30 + "../" * 31)], SYMBOLIC_LINK,
         "link with a long target outside"),
        ([member("s", tarfile.SYMTYPE, link="inner"), member("s/../../evil.txt", data=evil)], FILE_OPEN,
         "file that climbs out through a link made before"),
    ]
    lines = []
    for i, (members, code, what) in enumerate(cases):
        name = "%02d.tar" % i
        hostile_archive(os.path.join(folder, name), members)
        lines.append("%s\t%08x\t%s" % (name, code, what))
    with open(os.path.join(out, "hostile.manifest"), "w", encoding="utf-8", newline="\n") as fh:
        fh.write("\n".join(lines) + "\n")


def linked_corpus(out):
    # Links that an archive made before are on disk when later entries come; the test system cannot
    # make them itself, so the folders arrive here with a link "s" in place.
    evil = b"must never land outside\n"
    made_before = member("t", tarfile.SYMTYPE, link="inner")
    cases = [
        ("through", "../outside", [made_before, member("s/evil.txt", data=evil)], FILE_OPEN,
         "file through a link"),
        ("overwrite", "../outside/target.txt", [made_before, member("s", data=b"fresh\n")], FILE_OPEN,
         "file over a link to a file"),
        ("hardlink", "../outside/target.txt", [made_before, member("h", tarfile.LNKTYPE, link="s")], HARD_LINK,
         "hard link to a link"),
        ("symlink", "../outside", [made_before, member("s/x", tarfile.SYMTYPE, link="y")], SYMBOLIC_LINK,
         "link inside a linked folder"),
        ("folder", "../outside", [made_before, member("s/sub", tarfile.DIRTYPE)], FOLDER,
         "folder inside a linked folder"),
    ]
    lines = []
    for name, target, members, code, what in cases:
        case = os.path.join(out, "linked", name)
        os.makedirs(os.path.join(case, "dest"))
        os.makedirs(os.path.join(case, "outside"))
        with open(os.path.join(case, "outside", "target.txt"), "wb") as fh:
            fh.write(b"bait\n")
        os.symlink(target, os.path.join(case, "dest", "s"))
        hostile_archive(os.path.join(case, "archive.tar"), members)
        lines.append("%s\t%08x\t%s" % (name, code, what))
    with open(os.path.join(out, "linked.manifest"), "w", encoding="utf-8", newline="\n") as fh:
        fh.write("\n".join(lines) + "\n")


def main():
    out = sys.argv[1]
    if os.path.isdir(out):
        shutil.rmtree(out)
    os.makedirs(out)
    for fmt, build in (("gnu", gnu_tree), ("ustar", ustar_tree)):
        root = os.path.join(out, fmt + "-tree")
        os.makedirs(root)
        build(root)
        pack(root, os.path.join(out, fmt + ".tar"), fmt)
        manifest(root, os.path.join(out, fmt + ".manifest"))
    hostile_corpus(out)
    linked_corpus(out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
