"""The virtual camera's flash seen from the host: nandsim's cache file,
where every page is 2048 data bytes followed by 64 OOB bytes, erase blocks
of 64 pages (32 on the NOR-like chip), and the driver's erase counter after
the last page. Also the chips the camera can have: their geometry (from
nandsim's ID bytes), partitions, boot-environment place and timing."""

from __future__ import annotations

from dataclasses import dataclass, field
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

# nandsim's delays (do_delays=1: busy-waits, so that they count as guest
# time under qemu's -icount). Its names: access_delay (us) and input_cycle
# (ns per byte) make a page read, programm_delay (us) and output_cycle (ns
# per byte) a page program, erase_delay (ms) a block erase.
#
# SLC NAND, from typical datasheet figures: 25 us to open a page, 40 MB/s on
# the bus, 250 us to program a 2 KiB page, 2 ms to erase a 128 KiB block.
NAND_TIMING = {"access_delay": 25, "input_cycle": 25, "programm_delay": 250,
               "output_cycle": 25, "erase_delay": 2}
# SPI NOR as on the cameras (quad read at about 25 MB/s, 256-byte pages at
# 0.6 ms each, 64 KiB block erase 0.4 s; datasheets give 0.15 s typical to 2 s
# worst): nandsim with 64 KiB erase blocks, a 2 KiB "page" being 8 NOR pages.
NOR_TIMING = {"access_delay": 5, "input_cycle": 40, "programm_delay": 4800,
              "output_cycle": 40, "erase_delay": 400}


@dataclass(frozen=True)
class Chip:
    """One flash chip of the virtual camera: nandsim's ID bytes (which give
    the erase block size), the default partitions in its erase blocks, the
    boot environment's line of /etc/fw_env.config and nandsim's delays
    (empty: none, every access costs only what emulating it costs)."""
    name: str
    nand_id: str
    pages_per_block: int
    blocks: int
    parts: list
    fw_env_config: str
    timing: dict = field(default_factory=dict)

    @property
    def block(self):
        return PAGE * self.pages_per_block

    def nandsim_args(self):
        """nandsim parameters beyond ID, partitions and cache file."""
        if not self.timing:
            return ""
        return " ".join(["do_delays=1", *(f"{k}={v}" for k, v in self.timing.items())])


_NAND_ENV = "/dev/mtd1 0x0 0x20000 0x20000 2\n"
CHIPS = {
    # The default: NAND without delays (fast; what the system tests use).
    "nand": Chip("nand", NAND_ID, PAGES_PER_BLOCK, NAND_BLOCKS, DEFAULT_PARTS, _NAND_ENV),
    "nand-timed": Chip("nand-timed", NAND_ID, PAGES_PER_BLOCK, NAND_BLOCKS, DEFAULT_PARTS,
                       _NAND_ENV, NAND_TIMING),
    # 64 KiB erase blocks (fourth ID byte 0x05); the same partition sizes in bytes.
    "nor-timed": Chip("nor-timed", "0x20,0xf1,0x00,0x05", 32, 2 * NAND_BLOCKS,
                      [("boot", 16), ("env", 4), ("kernel", 64), ("rootfs", 128),
                       ("homefs", None)],
                      "/dev/mtd1 0x0 0x10000 0x10000 2\n", NOR_TIMING),
}


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
    bytes and 64 OOB bytes, erase blocks of the chip's pages."""

    def __init__(self, path, parts=None, blocks=None, chip=CHIPS["nand"]):
        self.path = Path(path)
        self.chip = chip
        self.ppb = chip.pages_per_block
        self.block_size = chip.block
        self.blocks = blocks or chip.blocks
        self.parts = partition_table(parts or chip.parts, self.blocks)

    def create(self):
        with open(self.path, "wb") as f:
            chunk = b"\xff" * (RAW_PAGE * self.ppb)
            for _ in range(self.blocks):
                f.write(chunk)
            f.write(b"\xff" * 8)  # the driver's erase counter: none yet

    def erase_count(self):
        """Erase blocks erased since the flash was made (kept by the driver
        after the last page; it survives reboots like the flash)."""
        with open(self.path, "rb") as f:
            f.seek(self.blocks * self.ppb * RAW_PAGE)
            raw = f.read(8)
        return 0 if raw == b"\xff" * 8 else int.from_bytes(raw, "little")

    def _block_raw(self, f, block):
        f.seek(block * self.ppb * RAW_PAGE)
        return f.read(self.ppb * RAW_PAGE)

    def is_bad(self, block):
        with open(self.path, "rb") as f:
            raw = self._block_raw(f, block)
        return raw[PAGE] != 0xFF  # bad-block marker: first OOB byte of page 0

    def block(self, block):
        """Data bytes of one erase block."""
        with open(self.path, "rb") as f:
            raw = self._block_raw(f, block)
        return b"".join(raw[p * RAW_PAGE:p * RAW_PAGE + PAGE] for p in range(self.ppb))

    def partition(self, index, skip_bad=False):
        """Data of partition `index`; with skip_bad, bad blocks are left out
        (what a reader that skips bad blocks sees)."""
        _name, first, count = self.parts[index]
        blocks = [b for b in range(first, first + count) if not (skip_bad and self.is_bad(b))]
        return b"".join(self.block(b) for b in blocks)

    def bad_blocks(self):
        return [b for b in range(self.blocks) if self.is_bad(b)]

    def size(self, index):
        return self.parts[index][2] * self.block_size
