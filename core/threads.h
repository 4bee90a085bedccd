// The one way the daemon starts a thread: with default attributes, detached
// and named (PR_SET_NAME) by the new thread itself before its function runs.
#pragma once

using thread_fn = void* (*)(void*);

// Starts fn(arg) on a new thread called `name` (the thread function's own
// name; the kernel keeps its first 15 characters). 0, or -1 when the thread
// could not be created (nothing is logged: the caller says what failed).
int start_thread(const char* name, thread_fn fn, void* arg);
