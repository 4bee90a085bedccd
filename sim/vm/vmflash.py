"""The virtual camera's NAND flash seen from the host: nandsim's cache file,
where every page is 2048 data bytes followed by 64 OOB bytes, erase blocks
of 64 pages, and the driver's erase counter after the last page."""

from __future__ import annotations

from pathlib import Path

PAGE = 2048
OOB = 64
PAGES_PER_BLOCK = 64
BLOCK = PAGE * PAGES_PER_BLOCK  # 128 KiB
RAW_PAGE = PAGE + OOB
# A 128 MiB, 3.3 V, 8-bit NAND chip with 2 KiB pages and 128 KiB blocks.
NAND_ID = "0x20,0xf1,0x00,0x15"
NAND_BLOCKS = 1024
# Partitions in erase blocks; the last one takes the rest of the chip.
DEFAULT_PARTS = [("boot", 8), ("env", 2), ("kernel", 32), ("rootfs", 64), ("homefs", None)]


def partition_table(parts=DEFAULT_PARTS, blocks=NAND_BLOCKS):
    """[(name, first block, block count)] for a list of (name, blocks|None)."""
    out, first = [], 0
    for name, count in parts:
        count = blocks - first if count is None else count
        out.append((name, first, count))
        first += count
    return out


class Flash:
    """The nandsim cache file seen from the host: every page is 2048 data
    bytes and 64 OOB bytes, erase blocks of 64 pages."""

    def __init__(self, path, parts=DEFAULT_PARTS, blocks=NAND_BLOCKS):
        self.path = Path(path)
        self.blocks = blocks
        self.parts = partition_table(parts, blocks)

    def create(self):
        with open(self.path, "wb") as f:
            chunk = b"\xff" * (RAW_PAGE * PAGES_PER_BLOCK)
            for _ in range(self.blocks):
                f.write(chunk)
            f.write(b"\xff" * 8)  # the driver's erase counter: none yet

    def erase_count(self):
        """Erase blocks erased since the flash was made (kept by the driver
        after the last page; it survives reboots like the flash)."""
        with open(self.path, "rb") as f:
            f.seek(self.blocks * PAGES_PER_BLOCK * RAW_PAGE)
            raw = f.read(8)
        return 0 if raw == b"\xff" * 8 else int.from_bytes(raw, "little")

    def _block_raw(self, f, block):
        f.seek(block * PAGES_PER_BLOCK * RAW_PAGE)
        return f.read(PAGES_PER_BLOCK * RAW_PAGE)

    def is_bad(self, block):
        with open(self.path, "rb") as f:
            raw = self._block_raw(f, block)
        return raw[PAGE] != 0xFF  # bad-block marker: first OOB byte of page 0

    def block(self, block):
        """Data bytes of one erase block."""
        with open(self.path, "rb") as f:
            raw = self._block_raw(f, block)
        return b"".join(raw[p * RAW_PAGE:p * RAW_PAGE + PAGE] for p in range(PAGES_PER_BLOCK))

    def partition(self, index, skip_bad=False):
        """Data of partition `index`; with skip_bad, bad blocks are left out
        (what a reader that skips bad blocks sees)."""
        _name, first, count = self.parts[index]
        blocks = [b for b in range(first, first + count) if not (skip_bad and self.is_bad(b))]
        return b"".join(self.block(b) for b in blocks)

    def bad_blocks(self):
        return [b for b in range(self.blocks) if self.is_bad(b)]

    def size(self, index):
        return self.parts[index][2] * BLOCK
