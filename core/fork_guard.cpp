// The fork guards (fork_guard.h): one set of fork handlers that takes every
// guarded lock by rank, highest first, and frees them on both sides.
#include "core/fork_guard.h"

#include <cstdio>
#include <cstdlib>

namespace {

struct guard {
  int rank;
  void (*prepare)();
  void (*parent)();
  void (*child)();
};

// Filled while the static objects are initialised (one thread), read by
// fork(): constant-initialised, so a guard registered from any object finds
// it ready.
constexpr int kMaxGuards = 32;
guard g_guards[kMaxGuards];
int g_count = 0;
constexpr int kTopRank = kForkRankSession;

void prepare_all() {
  for (int rank = kTopRank; rank >= 0; --rank)
    for (int i = g_count - 1; i >= 0; --i)
      if (g_guards[i].rank == rank) g_guards[i].prepare();
}

void parent_all() {
  for (int i = 0; i < g_count; ++i) g_guards[i].parent();
}

void child_all() {
  for (int i = 0; i < g_count; ++i) g_guards[i].child();
}

}  // namespace

int register_fork_guard(int rank, void (*prepare)(), void (*parent)(), void (*child)()) {
  if (g_count == kMaxGuards || rank < 0 || rank > kTopRank) {
    fputs("register_fork_guard: no room\n", stderr);
    abort();
  }
  if (g_count == 0) pthread_atfork(prepare_all, parent_all, child_all);
  g_guards[g_count++] = guard{rank, prepare, parent, child};
  return 0;
}
