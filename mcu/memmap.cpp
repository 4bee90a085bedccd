#include "mcu/memmap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "core/fork_guard.h"
#include "core/dbgout.h"
#include "core/platform.h"

namespace {

const char kMemDevice[] = "/dev/mem";
constexpr uint32_t kPageSize = 4096;

std::mutex g_map_mutex;
[[maybe_unused]] const int g_map_fork_guard = guard_across_fork<g_map_mutex>(kForkRankModule);
int g_mem_fd = -1;
map_node* g_head = nullptr;
void* (*g_node_alloc)(size_t) = malloc;
void (*g_node_free)(void*) = free;

}  // namespace

void* memmap(uint32_t phys_addr, uint32_t size) {
  if (size == 0) {
    DBG_ERR("memmap():size can't be zero!\n");
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_map_mutex);
  // A region already mapped that holds the whole request is shared.
  for (map_node* n = g_head; n != nullptr; n = n->next) {
    if (phys_addr >= n->phys_base &&
        static_cast<uint64_t>(phys_addr) + size <= static_cast<uint64_t>(n->phys_base) + n->length) {
      ++n->count;
      return static_cast<char*>(n->virt_base) + (phys_addr - n->phys_base);
    }
  }
  if (g_mem_fd < 0) {
    g_mem_fd = open(cam_path(kMemDevice).c_str(), O_RDWR | O_SYNC | O_CLOEXEC);
    if (g_mem_fd < 0) {
      DBG_ERR("memmap():open %s error!\n", kMemDevice);
      return nullptr;
    }
  }
  uint32_t offset = phys_addr & ~(kPageSize - 1);
  uint32_t length = ((size + (phys_addr & (kPageSize - 1)) - 1) & ~(kPageSize - 1)) + kPageSize;
  void* mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, g_mem_fd,
                       static_cast<off_t>(offset));
  if (mapping == MAP_FAILED) {
    DBG_ERR("memmap():mmap @ 0x%x error!\n", offset);
    return nullptr;
  }
  auto* node = static_cast<map_node*>(g_node_alloc(sizeof(map_node)));
  if (node == nullptr) {
    // The fresh mapping stays in place; nothing refers to it any more.
    DBG_ERR("memmap():malloc new node failed!\n");
    return nullptr;
  }
  node->phys_base = offset;
  node->virt_base = mapping;
  node->length = length;
  node->count = 1;
  node->next = nullptr;
  if (g_head == nullptr) {
    g_head = node;
  } else {
    map_node* tail = g_head;
    while (tail->next != nullptr) tail = tail->next;
    tail->next = node;
  }
  return static_cast<char*>(mapping) + (phys_addr & (kPageSize - 1));
}

int memunmap(void* virt_addr) {
  std::lock_guard<std::mutex> lock(g_map_mutex);
  if (g_head == nullptr) {
    DBG_ERR("memunmap(): address have not been mmaped!\n");
    return -1;
  }
  auto addr = reinterpret_cast<uintptr_t>(virt_addr);
  map_node* prev = g_head;
  map_node* node = g_head;
  while (node != nullptr) {
    auto base = reinterpret_cast<uintptr_t>(node->virt_base);
    if (base <= addr && addr <= base + node->length) break;  // end inclusive
    prev = node;
    node = node->next;
  }
  if (node == nullptr) {
    DBG_ERR("memunmap(): address have not been mmaped!\n");
    return -1;
  }
  if (--node->count != 0) return 0;

  DBG_INFO("memunmap(): map node will be remove!\n");
  if (node == g_head) {
    // Removing the head forgets the whole list; the regions behind it stay
    // mapped and are mapped afresh when asked for again.
    g_head = nullptr;
  } else {
    prev->next = node->next;
  }
  if (munmap(node->virt_base, node->length) != 0) DBG_INFO("memunmap(): munmap failed!\n");
  g_node_free(node);
  return 0;
}

void* mmapfile(const char* path, uint32_t length) {
  if (path == nullptr) return nullptr;
  int fd = open(cam_path(path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0770);
  if (fd < 0) {
    DBG_ERR("Open file %s error: %i.\n", path, errno);
    return nullptr;
  }
  void* addr = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (addr != nullptr) {
    DBG_INFO("Memory Map OK. Map File: %s, length:%#X, addr:0x%08x", path, length,
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(addr)));
  } else {
    DBG_ERR("Memory Map Failure. Map File %s, length:0x%08x", path, length);
  }
  return addr;
}

void* mmapfile_r(const char* path, uint32_t length) {
  if (path == nullptr) return nullptr;
  int fd = open(cam_path(path).c_str(), O_RDONLY | O_SYNC | O_CLOEXEC);
  if (fd < 0) {
    DBG_ERR("Open file %s error: %d.\n", path, errno);
    return nullptr;
  }
  void* addr = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (addr != nullptr) {
    DBG_INFO("Memory Map OK. Map File: %s, length:%#X, addr:0x%08lX\n", path, length,
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(addr)));
  } else {
    DBG_ERR("Memory Map Failure. Map File %s, length:0x%08x\n", path, length);
  }
  return addr;
}

void memmap_set_node_allocator(void* (*alloc)(size_t), void (*release)(void*)) {
  std::lock_guard<std::mutex> lock(g_map_mutex);
  g_node_alloc = alloc != nullptr ? alloc : malloc;
  g_node_free = release != nullptr ? release : free;
}

void memmap_release_all() {
  std::lock_guard<std::mutex> lock(g_map_mutex);
  while (g_head != nullptr) {
    map_node* next = g_head->next;
    munmap(g_head->virt_base, g_head->length);
    g_node_free(g_head);
    g_head = next;
  }
  if (g_mem_fd >= 0) close(g_mem_fd);
  g_mem_fd = -1;
}
