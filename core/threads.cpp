// Thread start: the new thread detaches and names itself, then runs its
// function.
#include "core/threads.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <new>

namespace {

struct start_args {
  const char* name;
  thread_fn fn;
  void* arg;
};

void* run(void* p) {
  const start_args args = *static_cast<start_args*>(p);
  delete static_cast<start_args*>(p);
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, args.name, 0, 0, 0);
  return args.fn(args.arg);
}

}  // namespace

int start_thread(const char* name, thread_fn fn, void* arg) {
  auto* args = new (std::nothrow) start_args{name, fn, arg};
  if (args == nullptr) return -1;
  pthread_t tid;
  if (pthread_create(&tid, nullptr, run, args) != 0) {
    delete args;
    return -1;
  }
  return 0;
}
