// Locks that a forked child may take. The installers fork children that log,
// answer the tool and (one of them) carry on as a copy of the listener; a
// lock held by another thread at the fork would stay locked for ever in the
// child, whose copy has no such thread. A guarded lock makes fork() wait
// until no thread holds it, and leaves it free in both processes.
//
// Guard only locks that live as long as the process, and never hold one
// guarded lock while forking or while taking another guarded lock that was
// guarded earlier (fork takes them in reverse order of guarding).
#pragma once

#include <pthread.h>

#include <mutex>

// Usage, at namespace scope next to the lock:
//   std::mutex g_mu;
//   [[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>();
template <std::mutex& M>
int guard_across_fork() {
  return pthread_atfork([] { M.lock(); }, [] { M.unlock(); }, [] { M.unlock(); });
}
