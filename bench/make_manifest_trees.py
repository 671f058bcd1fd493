#!/usr/bin/env python3
"""Makes the two reproducible trees the manifest benchmark walks.

  A: 20,000 files of 0 to 64 KiB in 400 folders (about 650 MB), 25 symbolic
     links, user extended attributes on every tenth file.
  B: 8 files of 256 MiB.
  C: FILES (default 200,000) files of 512 bytes in FILES / 200 folders: a data
     area of databases, preferences and caches, where the cost per entry
     outweighs hashing.

usage: make_manifest_trees.py DEST          (makes DEST/A and DEST/B)
       make_manifest_trees.py DEST C [FILES] (makes DEST/C)
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


def make_c(root, files):
    rng = random.Random(512)
    per_folder = 200
    for i in range(files):
        if i % per_folder == 0:
            folder = os.path.join(root, "d%04d" % (i // per_folder // 100),
                                  "s%02d" % (i // per_folder % 100))
            os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "f%07d.db" % i), "wb") as f:
            f.write(rng.randbytes(512))


def main():
    if len(sys.argv) not in (2, 3, 4) or (len(sys.argv) > 2 and sys.argv[2] != "C"):
        sys.exit(__doc__)
    dest = sys.argv[1]
    if len(sys.argv) > 2:
        files = int(sys.argv[3]) if len(sys.argv) > 3 else 200000
        trees = (("C", lambda root: make_c(root, files)),)
    else:
        trees = (("A", make_a), ("B", make_b))
    for name, make in trees:
        root = os.path.join(dest, name)
        if os.path.exists(root):
            print("keeping existing", root)
            continue
        make(root)
        print("made", root)


if __name__ == "__main__":
    main()
