"""Copies real files of this machine into a sample tree for the demo: documentation, licence texts and
shared libraries, up to a size limit per source, in sorted (repeatable) order.

Only names that Windows can hold are taken: no characters it forbids, no trailing dot or blank, and no
two names in one folder that differ only in letter case. Links are followed; what they lead to is
copied as a plain file. Usage: make-sample.py <target folder> <source>:<limit in MB>...
"""
import os
import shutil
import sys

FORBIDDEN = set('<>:"\\|?*')
RESERVED = {"con", "prn", "aux", "nul"} | {f"com{i}" for i in range(10)} | {f"lpt{i}" for i in range(10)}


def windows_name(name):
    if not name or name[-1] in ". " or any(c in FORBIDDEN or ord(c) < 32 for c in name):
        return False
    return name.split(".")[0].lower() not in RESERVED


def copy_limited(source, target, limit):
    copied = 0
    for folder, dirs, files in os.walk(source, followlinks=False):
        dirs[:] = sorted(d for d in dirs if windows_name(d))
        seen = {d.lower() for d in dirs}
        rel = os.path.relpath(folder, source)
        for name in sorted(files):
            if not windows_name(name) or name.lower() in seen:
                continue
            path = os.path.join(folder, name)
            try:
                if not os.path.isfile(path):
                    continue
                size = os.path.getsize(path)
            except OSError:
                continue
            if copied + size > limit:
                continue
            seen.add(name.lower())
            out = os.path.join(target, rel, name)
            os.makedirs(os.path.dirname(out), exist_ok=True)
            try:
                shutil.copyfile(path, out)
            except OSError:
                continue
            copied += size
    return copied


def main():
    target = sys.argv[1]
    total = 0
    for spec in sys.argv[2:]:
        source, limit = spec.rsplit(":", 1)
        name = source.strip("/").replace("/", "_")
        total += copy_limited(source, os.path.join(target, name), int(limit) << 20)
    print(total)


if __name__ == "__main__":
    main()
