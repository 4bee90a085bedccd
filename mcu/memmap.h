// Physical register mapping through the memory device, plus two helpers that
// map ordinary files.
//
// Mapped regions are kept in one process-wide list so that a request for
// registers inside an already mapped region reuses it (reference counted).
// The list is guarded by a mutex: the controller programmer and the HDMI
// reset may run on different threads.
//
// The memory device is opened at cam_path("/dev/mem"); unit tests and the
// sandbox put a sparse regular file there.
#pragma once

#include <cstddef>
#include <cstdint>

struct map_node {
  uint32_t phys_base;  // page-aligned physical address given to mmap
  void* virt_base;     // what mmap returned
  uint32_t length;     // bytes mapped, whole pages
  int32_t count;       // reference count, starts at 1
  map_node* next;
};

// Virtual address of `phys_addr`, or nullptr.
void* memmap(uint32_t phys_addr, uint32_t size);
// 0 when released (or still referenced), -1 when `virt_addr` is not in any
// mapped region. The end of a region counts as inside it.
int memunmap(void* virt_addr);
// Read-write shared mapping of `path` (created if absent). Note: a failed
// mmap is returned as it is (MAP_FAILED), not as nullptr.
void* mmapfile(const char* path, uint32_t length);
// Read-only shared mapping of an existing file.
void* mmapfile_r(const char* path, uint32_t length);

// For tests: the allocator and release used for list nodes (nullptr
// restores malloc/free).
void memmap_set_node_allocator(void* (*alloc)(size_t), void (*release)(void*));
// For tests: unmaps every listed region, frees the list and closes the
// memory device so the next memmap opens it again (under a new root).
void memmap_release_all();
