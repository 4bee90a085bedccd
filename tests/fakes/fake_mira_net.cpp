#include "fakes/fake_mira_net.h"

#include <cstring>

FakeMiraNet::FakeMiraNet() { previous_ = set_mira_net(this); }
FakeMiraNet::~FakeMiraNet() { set_mira_net(previous_); }

int FakeMiraNet::local_address(const char*, char* out, size_t size) {
  if (size == 0) return -1;
  size_t n = address.size() < size - 1 ? address.size() : size - 1;
  memcpy(out, address.data(), n);
  out[n] = '\0';
  return address.empty() ? -1 : 0;
}

int FakeMiraNet::raw_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
                          const void* payload, size_t len) {
  const auto* p = static_cast<const uint8_t*>(payload);
  sent.push_back(Sent{src_addr, src_port, dst_addr, dst_port, {p, p + len}});
  return 0;
}

int FakeMiraNet::tracking_exchange(const void* req, size_t len, uint64_t pause_us, void* answer,
                                   size_t max) {
  const auto* p = static_cast<const uint8_t*>(req);
  exchanges.push_back(Exchange{{p, p + len}, pause_us});
  if (answers_.empty()) return -1;
  auto a = std::move(answers_.front());
  answers_.pop_front();
  if (!a) return -1;
  size_t n = a->size() < max ? a->size() : max;
  if (n > 0) memcpy(answer, a->data(), n);  // an empty answer has no data()
  return static_cast<int>(n);
}
