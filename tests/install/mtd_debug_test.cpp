#include "install/mtd_debug.h"

#include <fcntl.h>

#include "install_fixture.h"

namespace {

constexpr uint32_t kBlock = 0x1000;

class MtdDebugTest : public InstallTest {
 protected:
  int open_dev(int dev) {
    return mtd_devices().open(("/dev/mtd" + std::to_string(dev)).c_str(), O_RDWR | O_SYNC);
  }
  // Runs erase_write over `length` bytes of /dev/mtd<dev> from /dev/img.
  int erase_write(uint32_t* progress, uint32_t length, int dev = 0) {
    int fd = open_dev(dev);
    int r = file_to_flash_erase_write(progress, fd, 0, length, "/dev/img", 0);
    mtd_devices().close(fd);
    return r;
  }
  Bytes image(size_t n, unsigned seed) {
    Bytes b = pattern(n, seed);
    cam.write("/dev/img", as_text(b));
    return b;
  }
};

// Unknown command words, "info" (does nothing, closes its descriptor), an
// unopenable device reported under the caller's name, a failed close that
// is reported but not fatal, and the size query.
TEST_F(MtdDebugTest, CommandWordsOpenCloseAndSizeQuery) {
  flash.add("/dev/mtd0", 0x80000, kBlock);
  flash.add("/dev/mtd1", 0x300000, kBlock);
  EXPECT_EQ(-1, orn_mtd("format", "/dev/mtd0", "0", "0x1000", " ", "0"));
  EXPECT_EQ(-1, orn_mtd("erase_write", "/dev/mtd0", "0", "0x1000", " ", "0"));  // orn_mtd2's only
  EXPECT_EQ(-1, orn_mtd2(nullptr, "verify", "/dev/mtd0", "0", "0", " ", "0"));
  EXPECT_EQ("", printed([] { EXPECT_EQ(0, orn_mtd("info", "/dev/mtd0", "0", "0", " ", "0")); }));
  EXPECT_EQ(0, flash.open_count());
  EXPECT_EQ(0x80000u, orn_get_mtd_size(0));
  EXPECT_EQ(0x300000u, orn_get_mtd_size(1));
  EXPECT_EQ(0u, orn_get_mtd_size(7));

  flash.fail_open("/dev/mtd0");
  std::string err = printed([] {
    EXPECT_EQ(-1, orn_mtd("info", "/dev/mtd0", "0", "0", " ", "0"));
    EXPECT_EQ(-1, orn_mtd2(nullptr, "info", "/dev/mtd9", "0", "0", " ", "0"));
  });
  EXPECT_THAT(err, HasSubstr("orn_mtd[")) << err;
  EXPECT_THAT(err, HasSubstr("orn_mtd, open /dev/mtd0 fail\n")) << err;
  EXPECT_THAT(err, HasSubstr("orn_mtd2[")) << err;
  EXPECT_THAT(err, HasSubstr("orn_mtd, open /dev/mtd9 fail\n")) << err;
  flash.fail_close(true);
  EXPECT_THAT(printed([] { EXPECT_EQ(0, orn_mtd("info", "/dev/mtd1", "0", "0", " ", "0")); }),
              HasSubstr("close /dev/mtd1 fail\n"));
  flash.fail_get_info(true);
  EXPECT_EQ(0u, orn_get_mtd_size(1));
}

TEST_F(MtdDebugTest, EraseSkipsBadBlocksAndStopsAtFirstFailure) {
  flash.add("/dev/mtd0", 8 * kBlock, kBlock);
  flash.data(0).assign(8 * kBlock, 0x00);
  flash.set_bad_map(0, ".B......");
  // Length not a multiple of the erase size: the last block touched is erased whole.
  EXPECT_THAT(printed([] { EXPECT_EQ(0, orn_mtd("erase", "/dev/mtd0", "0", "0x2800", " ", "0")); }),
              HasSubstr("mtd: not erasing bad block at 0x00001000\n"));
  EXPECT_EQ("E.E.....", flash.erase_map(0));

  flash.reset_counters();
  flash.fail_erase(0, 5);
  EXPECT_THAT(printed([] { EXPECT_EQ(-1, orn_mtd("erase", "/dev/mtd0", "0x4000", "0x4000", " ", "0")); }),
              HasSubstr("mtd: erase failure at 0x00005000\n"));
  EXPECT_EQ("....E...", flash.erase_map(0));

  flash.fail_bad_block_query(true);
  EXPECT_EQ("MEMGETBADBLOCK error",
            printed([] { EXPECT_EQ(-1, orn_mtd("erase", "/dev/mtd0", "0", "0x1000", " ", "0")); }));
}

TEST_F(MtdDebugTest, ReadAndWriteCopyBetweenFlashAndFiles) {
  flash.add("/dev/mtd0", 0x30000, 0x10000);
  const Bytes content = pattern(0x20000, 1);
  cam.write("/dev/piece.bin", as_text(content));
  // Plain write does not erase: programming an erased range works ...
  EXPECT_THAT(printed([] {
                EXPECT_EQ(0, orn_mtd("write", "/dev/mtd0", "0x10000", "0x18000", "/dev/piece.bin",
                                     "0x8000"));
              }),
              HasSubstr("Copied 98304 bytes from /dev/piece.bin to address 0x00010000 in flash\n"));
  EXPECT_TRUE(std::equal(content.begin() + 0x8000, content.end(), flash.data(0).begin() + 0x10000));
  // ... and reading it back gives the same bytes.
  EXPECT_THAT(printed([] {
                EXPECT_EQ(0, orn_mtd("read", "/dev/mtd0", "65536", "0x18000", "/dev/back.bin", "0"));
              }),
              HasSubstr("Copied 98304 bytes from address 0x00010000 in flash to /dev/back.bin\n"));
  EXPECT_EQ(std::string(content.begin() + 0x8000, content.end()), cam.read("/dev/back.bin"));

  // A file shorter than offset + length fails at its last chunk.
  EXPECT_THAT(printed([] {
                EXPECT_EQ(-1, orn_mtd("write", "/dev/mtd0", "0", "0x20000", "/dev/piece.bin", "0x1000"));
              }),
              HasSubstr("file_to_flash: fread, size 0x10000"));
  EXPECT_EQ(-1, orn_mtd("write", "/dev/mtd0", "0", "0x1000", "/dev/missing", "0"));
  EXPECT_EQ(-1, orn_mtd("read", "/dev/mtd0", "0x40000", "0x1000", "/dev/out", "0"));
  flash.fail_read(0, 1);
  EXPECT_EQ(-1, orn_mtd("read", "/dev/mtd0", "0", "0x20000", "/dev/out", "0"));
  flash.fail_write(0, 2);
  EXPECT_EQ(-1, orn_mtd("write", "/dev/mtd0", "0x20000", "0x1000", "/dev/piece.bin", "0"));
  EXPECT_EQ(0, flash.open_count());
}

// A block is compared in two pieces: one that differs early is read only
// as far as its first piece before it is rewritten (then read back whole);
// a difference in its last byte still counts.
TEST_F(MtdDebugTest, EraseWriteRewritesOnlyDifferingBlocks) {
  flash.add("/dev/mtd0", 8 * kBlock, kBlock);
  Bytes img = pattern(8 * kBlock, 2);
  flash.data(0) = img;
  img[3 * kBlock + 17] ^= 0x40;
  img[5 * kBlock - 1] ^= 0x80;
  img[6 * kBlock] ^= 0x01;
  cam.write("/dev/img", as_text(img));
  uint32_t progress = 0x100;
  EXPECT_EQ(0, erase_write(&progress, 8 * kBlock));
  EXPECT_EQ("...EE.E.", flash.erase_map(0));
  EXPECT_EQ(3 * static_cast<long>(kBlock), flash.bytes_programmed());
  // Whole: five equal blocks, block 4 and three read-backs; first pieces: blocks 3 and 6.
  const long first_piece = 0x800;
  EXPECT_EQ((5 + 1 + 3) * static_cast<long>(kBlock) + 2 * first_piece, flash.bytes_read());
  EXPECT_TRUE(img == flash.data(0));
  EXPECT_EQ(0x100 + 8 * kBlock, progress);

  flash.reset_counters();
  EXPECT_EQ(0, erase_write(&progress, 8 * kBlock));
  EXPECT_EQ(0, flash.erases());
}

// NAND skips a bad block without consuming image or counting it as
// progress; NOR only reports bad blocks, so there it is rewritten.
TEST_F(MtdDebugTest, EraseWriteBadBlocksSkippedOnNandRewrittenOnNor) {
  flash.add("/dev/mtd0", 8 * kBlock, kBlock, kNand, 512);
  flash.add("/dev/mtd1", 4 * kBlock, kBlock, kNor);
  flash.set_bad_map(0, "..B.....");
  flash.set_bad_map(1, ".B..");
  Bytes img = image(7 * kBlock, 3);
  uint32_t progress = 0;
  std::string out = printed([&] { EXPECT_EQ(0, erase_write(&progress, 8 * kBlock)); });
  EXPECT_THAT(out, HasSubstr("mtd: not erasing bad block at 0x00002000\n"));
  EXPECT_THAT(out, HasSubstr("continue\n"));
  img.insert(img.begin() + 2 * kBlock, kBlock, 0xFF);
  EXPECT_TRUE(img == flash.data(0));
  EXPECT_EQ(7 * kBlock, progress);

  img = image(4 * kBlock, 4);
  progress = 0;
  EXPECT_EQ(0, erase_write(&progress, 4 * kBlock, 1));
  EXPECT_EQ("EEEE", flash.erase_map(1));
  EXPECT_TRUE(img == flash.data(1));
  EXPECT_EQ(4 * kBlock, progress);
}

TEST_F(MtdDebugTest, EraseWriteVerifiesWithFourAttempts) {
  flash.add("/dev/mtd0", 4 * kBlock, kBlock);
  const Bytes img = image(4 * kBlock, 5);
  flash.fail_verify(0, 1, 3);  // good on the fourth attempt
  flash.fail_verify(0, 2, 4);  // never good
  uint32_t unverified = 0;
  // The command still reports success; only the counter tells.
  std::string out = printed([&] {
    EXPECT_EQ(0, orn_mtd2(nullptr, "erase_write", "/dev/mtd0", "0", "0x4000", "/dev/img", "0",
                          &unverified));
  });
  EXPECT_EQ(1u, unverified);
  EXPECT_EQ(1 + 4 + 4 + 1, flash.erases());
  size_t first = out.find("error: read flash after write, but the data is not the same\n");
  EXPECT_NE(std::string::npos, first);
  EXPECT_EQ(std::string::npos, out.find("error: read flash after write", first + 1));
  EXPECT_TRUE(std::equal(img.begin(), img.begin() + 2 * kBlock, flash.data(0).begin()));
  EXPECT_TRUE(std::equal(img.begin() + 3 * kBlock, img.end(), flash.data(0).begin() + 3 * kBlock))
      << "the block after the failed one is still written";
}

// Bytes a short read leaves unfilled must not pass for flash content: here
// they would make the erased block 1 compare equal to the image.
TEST_F(MtdDebugTest, ShortReadIsAFailedRead) {
  flash.add("/dev/mtd0", 2 * kBlock, kBlock);
  std::fill_n(flash.data(0).begin(), kBlock, 0x00);
  cam.write("/dev/img", as_text(Bytes(2 * kBlock, 0x00)));
  flash.short_read(0, 1, 0);
  EXPECT_THAT(printed([&] { EXPECT_EQ(-1, erase_write(nullptr, 2 * kBlock)); }),
              HasSubstr("read error\n"));
  EXPECT_THAT(printed([] {
                EXPECT_EQ(-1, orn_mtd("read", "/dev/mtd0", "0x1000", "0x1000", "/dev/out", "0"));
              }),
              HasSubstr("flash_to_file: read, size 0x1000"));
}

TEST_F(MtdDebugTest, EraseWriteFailures) {
  // One device per fault: each must stop the routine with -1 on its own.
  flash.add_chain({4 * kBlock, 4 * kBlock, 4 * kBlock, 4 * kBlock}, kBlock);
  flash.fail_write(1, 1);
  flash.fail_read(2, 3);
  flash.fail_erase(3, 2);
  image(4 * kBlock, 6);
  std::string out = printed([&] {
    EXPECT_EQ(-1, erase_write(nullptr, 0));
    int fd = open_dev(0);
    EXPECT_EQ(-1, file_to_flash_erase_write(nullptr, fd, 0, kBlock, nullptr, 0));
    EXPECT_EQ(1, file_to_flash_erase_write(nullptr, fd, 0, kBlock, "/dev/none", 0));
    mtd_devices().close(fd);
    for (int dev : {1, 2, 3}) EXPECT_EQ(-1, erase_write(nullptr, 4 * kBlock, dev)) << dev;
  });
  for (const char* line : {"filename error\n", "write error\n", "read error\n",
                           "mtd: erase failure at 0x00002000\n"})
    EXPECT_THAT(out, HasSubstr(line));
  EXPECT_EQ("EE..", flash.erase_map(1));
  EXPECT_EQ("EEE.", flash.erase_map(2));

  // An image shorter than the length: the routine fails at the block it
  // cannot read, the command still reports success.
  image(2 * kBlock, 7);
  uint32_t progress = 0;
  EXPECT_THAT(printed([&] {
                EXPECT_EQ(0, orn_mtd2(&progress, "erase_write", "/dev/mtd0", "0", "0x4000",
                                      "/dev/img", "0"));
              }),
              HasSubstr("fread error\n"));
  EXPECT_EQ(3 * kBlock, progress);

  flash.fail_bad_block_query(true);
  EXPECT_THAT(printed([&] { EXPECT_EQ(-1, erase_write(nullptr, 4 * kBlock)); }),
              HasSubstr("MEMGETBADBLOCK error at 0x00000000\n"));
  flash.fail_get_info(true);
  EXPECT_EQ(1, erase_write(nullptr, 4 * kBlock));
  EXPECT_EQ(0, flash.open_count());
}

TEST_F(MtdDebugTest, PrintSizeBuffersDifferAndInfoDump) {
  EXPECT_EQ("16777216 (16M)1023 1024 (1K)1536 (1K)4294967295 (3G)", printed([] {
              for (uint32_t v : {16777216u, 1023u, 1024u, 1536u, 0xFFFFFFFFu}) print_size(v);
            }));
  const char a[] = "abcd", b[] = "abce";
  EXPECT_EQ(1, buffers_differ(a, b, 4));
  EXPECT_EQ(0, buffers_differ(a, b, 3));
  EXPECT_EQ(0, buffers_differ(a, b, 0));
  EXPECT_EQ(0, buffers_differ(nullptr, b, 4));

  flash.add("/dev/mtd0", 0x1000000, 0x10000, kNor);
  flash.set_regions(0, {{0, 0x10000, 256, 0}});
  int fd = open_dev(0);
  EXPECT_EQ(
      "mtd.type = MTD_NORFLASH\nmtd.flags = MTD_CAP_NORFLASH\nmtd.size = 16777216 (16M)\n"
      "mtd.erasesize = 65536 (64K)\nmtd.writesize = 1 \nmtd.oobsize = 0 \nregions = 1\n\n"
      "region[0].offset = 0x00000000\nregion[0].erasesize = 65536 (64K)\n"
      "region[0].numblocks = 256\nregion[0].regionindex = 0\n",
      printed([&] { EXPECT_EQ(0, mtd_info_dump(fd)); }));
  mtd_devices().close(fd);
}

}  // namespace
