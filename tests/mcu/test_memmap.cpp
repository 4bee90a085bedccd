#include "mcu/memmap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "mcu_test_util.h"

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr uint32_t kBlock = 0x12040000;

// Nodes come from a pool: a node the list forgets is not a leak to the checker.
map_node g_pool[16];
size_t g_pool_used = 0;
void* pool_alloc(size_t) { return g_pool_used < 16 ? &g_pool[g_pool_used++] : nullptr; }
void pool_free(void*) {}

class MemmapTest : public testing::Test {
 protected:
  void SetUp() override {
    g_pool_used = 0;
    memmap_set_node_allocator(pool_alloc, pool_free);
  }
  void TearDown() override {
    memmap_release_all();
    memmap_set_node_allocator(nullptr, nullptr);
  }
  FakeCamera cam;
  MemFile mem{cam};
};

TEST_F(MemmapTest, RefusesZeroSizeMissingDeviceAndFailedNodeAllocation) {
  CaptureStderr();
  EXPECT_EQ(memmap(kBlock, 0), nullptr);
  memmap_set_node_allocator([](size_t) -> void* { return nullptr; }, pool_free);
  EXPECT_EQ(memmap(kBlock, 4), nullptr);
  memmap_release_all();
  std::filesystem::remove(cam.path("/dev/mem"));
  EXPECT_EQ(memmap(kBlock, 4), nullptr);
  std::string err = GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("memmap():size can't be zero!\n"));
  EXPECT_THAT(err, HasSubstr("memmap():malloc new node failed!\n"));
  EXPECT_THAT(err, HasSubstr("memmap():open /dev/mem error!\n"));
}

TEST_F(MemmapTest, RequestsInsideARegionShareItsMapping) {
  auto* block = static_cast<char*>(memmap(kBlock, 0x10000));
  ASSERT_NE(block, nullptr);
  *reinterpret_cast<volatile uint32_t*>(block + 0x98) = 0x12345678;
  EXPECT_EQ(mem.word(kBlock + 0x98), 0x12345678u);

  char* reg = static_cast<char*>(memmap(kBlock + 0x98, 4));
  EXPECT_EQ(reg, block + 0x98);
  EXPECT_EQ(memunmap(reg), 0);  // still referenced: stays mapped
  *reinterpret_cast<volatile uint32_t*>(block + 0x98) = 7;
  EXPECT_EQ(mem.word(kBlock + 0x98), 7u);
  EXPECT_EQ(memunmap(block), 0);
  EXPECT_EQ(memunmap(block), -1);

  // Unaligned: every touched page is mapped; a request that runs past the
  // end of a region gets a new, overlapping one.
  auto* p = static_cast<char*>(memmap(kBlock + 0xFFC, 8));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(memmap(kBlock + 0x1FFC, 4), p + 0x1000);
  auto* q = static_cast<char*>(memmap(kBlock + 0x1FFC, 8));
  ASSERT_NE(q, nullptr);
  EXPECT_NE(q, p + 0x1000);
  *reinterpret_cast<volatile uint32_t*>(q) = 0x55;
  EXPECT_EQ(*reinterpret_cast<volatile uint32_t*>(p + 0x1000), 0x55u);
}

TEST_F(MemmapTest, RemovingTheHeadForgetsTheListAndTheEndIsInclusive) {
  auto* a = static_cast<char*>(memmap(kBlock, 0x1000));
  auto* b = static_cast<volatile uint32_t*>(memmap(kBlock + 0x10000, 0x1000));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  CaptureStderr();
  EXPECT_EQ(memunmap(reinterpret_cast<char*>(0x10)), -1);
  EXPECT_EQ(memunmap(a + 0x1000), 0);  // one past the end finds the head
  EXPECT_EQ(memunmap(const_cast<uint32_t*>(b)), -1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("memunmap(): address have not been mmaped!\n"));
  // The forgotten region stays mapped; asking again maps it afresh.
  b[0] = 0x11;
  void* again = memmap(kBlock + 0x10000, 0x1000);
  EXPECT_NE(again, const_cast<uint32_t*>(b));
  EXPECT_EQ(*static_cast<volatile uint32_t*>(again), 0x11u);
  munmap(const_cast<uint32_t*>(b), 0x1000);
}

TEST_F(MemmapTest, FileMappings) {
  cam.write("/data/map.bin", std::string(4096, 'x'));
  auto* rw = static_cast<char*>(mmapfile("/data/map.bin", 4096));
  ASSERT_NE(rw, MAP_FAILED);
  memcpy(rw, "hello", 5);
  munmap(rw, 4096);
  auto* ro = static_cast<char*>(mmapfile_r("/data/map.bin", 4096));
  ASSERT_NE(ro, MAP_FAILED);
  EXPECT_EQ(std::string(ro, 6), "hellox");
  munmap(ro, 4096);
  EXPECT_EQ(mmapfile_r("/data/none.bin", 4096), nullptr);
  // A failing mmap is returned as it is.
  EXPECT_EQ(mmapfile("/data/map.bin", 0), MAP_FAILED);
}

}  // namespace
