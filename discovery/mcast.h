// Multicast endpoints and the two listener threads.
#pragma once

#include <netinet/in.h>

#include <atomic>

// One multicast endpoint. The socket and addresses live in variables owned by
// start-up; the record only points at them so the DHCP watcher can replace
// the socket under the listener.
struct mcast_endpoint {
  std::atomic<int>* sock = nullptr;           // IPv4 socket descriptor
  struct sockaddr_in* bind_addr = nullptr;    // local bind address (also recvfrom's sender)
  struct sockaddr_in* group_addr = nullptr;   // destination of every reply
  std::atomic<int>* sock6 = nullptr;          // IPv6 socket descriptor
  struct sockaddr_in6* bind_addr6 = nullptr;
  struct sockaddr_in6* group_addr6 = nullptr;
  int port = 0;
  char group[128] = {};
};

// Listener threads (argument: the endpoint record).
void* mcast_func(void* arg);
void* mcast_batUpgrade_func(void* arg);
