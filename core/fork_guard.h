// Locks that a forked child may take. The installers fork children that log,
// answer the tool and (one of them) carry on as a copy of the listener; a
// lock held by another thread at the fork would stay locked for ever in the
// child, whose copy has no such thread. A guarded lock makes fork() wait
// until no thread holds it, and leaves it free in both processes.
//
// fork() takes every guarded lock, the highest rank first, so a thread may
// hold a guarded lock only while it takes locks of lower rank. The ranks
// follow the floors: what a module's lock protects may call down into core,
// whose locks are taken last. (The order does not depend on the order in
// which the modules' static objects are initialised.) Guard only locks that
// live as long as the process, and never hold one while forking.
#pragma once

#include <pthread.h>

#include <mutex>

enum fork_rank : int {
  kForkRankLog = 0,      // the trace logs: taken under every other lock
  kForkRankRecord = 1,   // the shared records of core/daemon_state
  kForkRankModule = 2,   // a module's own records (endpoint addresses, maps, ...)
  kForkRankSockets = 3,  // the endpoint sockets (taken around address updates)
  kForkRankSession = 4,  // a protocol session (the multicast transfer, the challenge)
};

// Registers the three fork handlers of one lock at `rank`; returns 0.
int register_fork_guard(int rank, void (*prepare)(), void (*parent)(), void (*child)());

// Usage, at namespace scope next to the lock:
//   std::mutex g_mu;
//   [[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>(kForkRankModule);
template <std::mutex& M>
int guard_across_fork(int rank) {
  return register_fork_guard(rank, [] { M.lock(); }, [] { M.unlock(); }, [] { M.unlock(); });
}
