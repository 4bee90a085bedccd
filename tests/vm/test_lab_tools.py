"""The lab's host-side pieces without a virtual camera: the flash file as
the tests read it and the STM32 bootloader served on a pty."""

import os
import select
import subprocess
import termios
import tty

import pytest

import vmcam

P, RAW = vmcam.PAGE, vmcam.RAW_PAGE


@pytest.mark.parametrize("chip", ["nand", "nor-timed"])  # 64 and 32 pages a block
def test_flash_file_pages_oob_bad_blocks_and_erase_count(tmp_path, chip):
    PPB = vmcam.CHIPS[chip].pages_per_block
    flash = vmcam.Flash(tmp_path / "f.nand", [("a", 2), ("b", None)], blocks=6,
                        chip=vmcam.CHIPS[chip])
    flash.create()
    with open(flash.path, "r+b") as f:
        for block in range(6):
            for page in range(PPB):
                f.seek((block * PPB + page) * RAW)
                f.write(bytes([block]) * P + bytes([0xFF if block != 3 else 0x00]) + b"\xff" * 63)
        f.seek(6 * PPB * RAW)
        f.write((42).to_bytes(8, "little"))
    assert flash.bad_blocks() == [3]  # marker in the first OOB byte of page 0
    assert flash.partition(0) == bytes([0]) * (PPB * P) + bytes([1]) * (PPB * P)
    assert flash.partition(1, skip_bad=True) == b"".join(bytes([b]) * (PPB * P)
                                                         for b in (2, 4, 5))
    assert flash.erase_count() == 42


def test_stm32_serve_programs_and_takes_a_quiet_line_for_a_reset(tmp_path):
    prog = vmcam.find_program("stm32_serve")
    assert prog, "build stm32_serve (a host preset)"
    link, out = tmp_path / "tty", tmp_path / "flash.bin"
    srv = subprocess.Popen([prog, "--link", link, "--flash-out", out], stdout=subprocess.PIPE,
                           text=True)
    try:
        srv.stdout.readline()  # the pty's path: the link is in place
        fd = os.open(os.path.realpath(link), os.O_RDWR | os.O_NOCTTY)
        tty.setraw(fd)
        termios.tcflush(fd, termios.TCIOFLUSH)

        # Sync, write memory (command, address, data), go (command, address):
        # each part acknowledged.
        payload = b"\x01\x02\x03\x04"
        address = bytes([0x08, 0, 0, 0, 0x08])
        data = bytes([3]) + payload + bytes([3 ^ 1 ^ 2 ^ 3 ^ 4])
        for part in (b"\x7f", b"\x31\xce", address, data, b"\x21\xde", address):
            os.write(fd, part)
            assert os.read(fd, 1) == b"\x79", part
        lines = [srv.stdout.readline() for _ in range(2)]
        assert lines[1].startswith("go: 0x08000000 after 1 blocks, 4 bytes")
        assert out.read_bytes() == payload
        # The camera's reset pulse is invisible here: a quiet line ends the
        # session; once the line is printed, a single sync is answered again.
        assert srv.stdout.readline().startswith("session: end")
        os.write(fd, b"\x7f")
        assert select.select([fd], [], [], 30)[0], "sync after the session not answered"
        assert os.read(fd, 1) == b"\x79"
        os.close(fd)
    finally:
        srv.terminate()
        srv.wait(10)
    assert not link.exists()
