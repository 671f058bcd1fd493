#!/usr/bin/env python3
"""Writes a disk image laid out the way the device's volume manager presents
its data disk: a protective MBR carrying the volume manager's signature word,
a GPT whose header counts only the partitions in use and whose entry array
starts at block 2, partitions packed back to back from the first usable block.

The device sandbox uses it where build/bin/qlx-mkdisk is not built.

    gpt-disk.py IMAGE --size BYTES [--block-size 4096] NAME:SIZE ...

SIZE takes the suffixes K, M and G (powers of 1024); the image is sparse.
"""
import argparse
import struct
import sys
import uuid
import zlib

SIGNATURE_WORD = 0x42726F76
# Linux file system data; the device's own type GUIDs do not matter to Linux.
LINUX_DATA_TYPE = uuid.UUID("0FC63DAF-8483-4772-8E79-3D69D8477DE4")
MAX_ENTRIES = 8
ENTRY_SIZE = 128


def parse_size(text):
    units = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    text = text.strip().upper()
    if text and text[-1] in units:
        return int(text[:-1]) * units[text[-1]]
    return int(text)


def entry_bytes(name, first, last):
    encoded = name.encode("utf-16-le")
    if len(encoded) > 72:
        raise ValueError(f"partition name too long: {name}")
    return struct.pack("<16s16sQQQ72s", LINUX_DATA_TYPE.bytes_le, uuid.uuid4().bytes_le,
                       first, last, 0, encoded)


def header_bytes(current, backup, first_usable, last_usable, disk_guid, entries_lba,
                 count, entries_crc):
    def pack(crc):
        return struct.pack("<8sIIIIQQQQ16sQIII", b"EFI PART", 0x00010000, 92, crc, 0,
                           current, backup, first_usable, last_usable, disk_guid,
                           entries_lba, count, ENTRY_SIZE, entries_crc)
    return pack(zlib.crc32(pack(0)))


def protective_mbr(block_size, blocks):
    mbr = bytearray(block_size)
    struct.pack_into("<I", mbr, 440, SIGNATURE_WORD)
    sectors = min(blocks - 1, 0xFFFFFFFF)
    struct.pack_into("<B3sB3sII", mbr, 446, 0, b"\x00\x02\x00", 0xEE, b"\xff\xff\xff", 1,
                     sectors)
    mbr[510:512] = b"\x55\xaa"
    return bytes(mbr)


def build(image, size, block_size, partitions):
    blocks = size // block_size
    if not 1 <= len(partitions) <= MAX_ENTRIES:
        raise ValueError(f"between 1 and {MAX_ENTRIES} partitions, not {len(partitions)}")
    if len(partitions) * ENTRY_SIZE > block_size:
        raise ValueError("the entry array must fit in block 2")
    first_usable, last_usable = 3, blocks - 3
    entries = b""
    next_block = first_usable
    for name, part_size in partitions:
        count = -(-part_size // block_size)
        last = next_block + count - 1
        if last > last_usable:
            raise ValueError(f"partition {name} does not fit on the disk")
        entries += entry_bytes(name, next_block, last)
        next_block = last + 1
    entries_crc = zlib.crc32(entries)
    disk_guid = uuid.uuid4().bytes_le
    count = len(partitions)
    primary = header_bytes(1, blocks - 1, first_usable, last_usable, disk_guid, 2, count,
                           entries_crc)
    backup = header_bytes(blocks - 1, 1, first_usable, last_usable, disk_guid, blocks - 2,
                          count, entries_crc)

    def block(data):
        return data + bytes(block_size - len(data))

    with open(image, "wb") as f:
        f.truncate(blocks * block_size)
        f.write(protective_mbr(block_size, blocks))
        f.write(block(primary))
        f.write(block(entries))
        f.seek((blocks - 2) * block_size)
        f.write(block(entries))
        f.write(block(backup))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("image")
    parser.add_argument("--size", required=True, type=parse_size)
    parser.add_argument("--block-size", type=int, default=4096)
    parser.add_argument("partitions", nargs="+", metavar="NAME:SIZE")
    args = parser.parse_args()
    try:
        parts = [(p.split(":", 1)[0], parse_size(p.split(":", 1)[1])) for p in args.partitions]
        build(args.image, args.size, args.block_size, parts)
    except (ValueError, IndexError, OSError) as e:
        print(f"gpt-disk: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
