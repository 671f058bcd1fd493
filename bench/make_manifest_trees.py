#!/usr/bin/env python3
"""Makes the two reproducible trees the manifest benchmark walks.

  A: 20,000 files of 0 to 64 KiB in 400 folders (about 650 MB), 25 symbolic
     links, user extended attributes on every tenth file.
  B: 8 files of 256 MiB.

usage: make_manifest_trees.py DEST   (makes DEST/A and DEST/B)
The contents come from a seeded generator, so every run makes the same bytes.
"""
import os
import random
import sys

MiB = 1 << 20


def make_a(root):
    rng = random.Random(20000)
    folders = [os.path.join(root, "d%03d" % (i // 20), "s%02d" % (i % 20)) for i in range(400)]
    for folder in folders:
        os.makedirs(folder, exist_ok=True)
    files = []
    for i in range(20000):
        path = os.path.join(folders[i % 400], "f%05d.bin" % i)
        with open(path, "wb") as f:
            f.write(rng.randbytes(rng.randint(0, 64 * 1024)))
        if i % 10 == 0:
            os.setxattr(path, "user.demo.id", str(i).encode())
            os.setxattr(path, "user.demo.tag", rng.randbytes(16))
        files.append(path)
    for i in range(25):
        target = files[rng.randrange(len(files))]
        os.symlink(os.path.relpath(target, root), os.path.join(root, "link%02d" % i))


def make_b(root):
    os.makedirs(root, exist_ok=True)
    for i in range(8):
        rng = random.Random(256 + i)
        with open(os.path.join(root, "big%d.bin" % i), "wb") as f:
            for _ in range(256 // 16):
                f.write(rng.randbytes(16 * MiB))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    dest = sys.argv[1]
    for name, make in (("A", make_a), ("B", make_b)):
        root = os.path.join(dest, name)
        if os.path.exists(root):
            print("keeping existing", root)
            continue
        make(root)
        print("made", root)


if __name__ == "__main__":
    main()
