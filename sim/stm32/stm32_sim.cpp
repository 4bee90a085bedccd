#include "sim/stm32/stm32_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace {

constexpr uint8_t kAck = 0x79;
constexpr uint8_t kNack = 0x1F;
constexpr uint8_t kSync = 0x7F;

}  // namespace

Pty::Pty() {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
    throw std::runtime_error("cannot create a pseudo-terminal");
  char name[128];
  if (ptsname_r(master_, name, sizeof(name)) != 0) throw std::runtime_error("ptsname_r failed");
  slave_path_ = name;
  slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (slave_ < 0) throw std::runtime_error("cannot open the pty slave");
  struct termios t;
  tcgetattr(slave_, &t);
  cfmakeraw(&t);
  tcsetattr(slave_, TCSANOW, &t);
}

void Pty::refresh_line() {
  struct termios t;
  tcgetattr(slave_, &t);
  t.c_cflag &= ~static_cast<tcflag_t>(CLOCAL);
  tcsetattr(slave_, TCSANOW, &t);
}

Pty::~Pty() {
  if (slave_ >= 0) close(slave_);
  if (master_ >= 0) close(master_);
}

std::vector<uint8_t> Pty::read_some(size_t max, int timeout_ms) {
  std::vector<uint8_t> out;
  while (out.size() < max) {
    struct pollfd p = {master_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) break;
    uint8_t buf[512];
    size_t want = std::min(sizeof(buf), max - out.size());
    ssize_t n = read(master_, buf, want);
    if (n <= 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  return out;
}

Stm32Sim::Stm32Sim() : Stm32Sim(Options{}) {}

Stm32Sim::Stm32Sim(const Options& options)
    : opt_(options), flash_(options.flash_size, 0xFF) {
  thread_ = std::thread([this] { run(); });
}

Stm32Sim::~Stm32Sim() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

uint64_t Stm32Sim::byte_time_ns() const {
  return 1000000000ull * opt_.bits_per_byte / opt_.baud;
}

void Stm32Sim::inject(Fault fault, int ack_index, uint8_t stray) {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.push_back({fault, ack_index, stray});
}

void Stm32Sim::reset() {
  pty_.refresh_line();
  // The simulator thread carries the reset out between two bytes, so that a
  // command it is still finishing (an ACK already sent, its state not yet
  // recorded) cannot overwrite the fresh state afterwards.
  std::unique_lock<std::mutex> lock(mu_);
  const uint64_t ticket = ++resets_requested_;
  reset_cv_.wait(lock, [&] { return resets_done_ >= ticket || thread_gone_; });
}

// Simulator thread, `mu_` held.
void Stm32Sim::reset_state() {
  synced_ = false;
  running_app_ = false;
  silent_ = false;
  faults_.clear();
  writes_.clear();
  commands_.clear();
  mass_erases_ = pages_erased_ = acks_ = 0;
  go_.reset();
  rx_count_ = tx_count_ = 0;
  // What was on the line when the controller reset is lost.
  rx_len_ = rx_pos_ = 0;
  tcflush(pty_.master(), TCIFLUSH);
  resets_done_ = resets_requested_;
}

void Stm32Sim::load_flash(uint32_t offset, const std::vector<uint8_t>& data) {
  std::lock_guard<std::mutex> lock(mu_);
  for (size_t i = 0; i < data.size() && offset + i < flash_.size(); ++i) flash_[offset + i] = data[i];
}

std::vector<uint8_t> Stm32Sim::flash() const {
  std::lock_guard<std::mutex> lock(mu_);
  return flash_;
}
std::vector<Stm32Sim::Block> Stm32Sim::writes() const {
  std::lock_guard<std::mutex> lock(mu_);
  return writes_;
}
std::vector<uint8_t> Stm32Sim::commands() const {
  std::lock_guard<std::mutex> lock(mu_);
  return commands_;
}
int Stm32Sim::mass_erases() const {
  std::lock_guard<std::mutex> lock(mu_);
  return mass_erases_;
}
int Stm32Sim::pages_erased() const {
  std::lock_guard<std::mutex> lock(mu_);
  return pages_erased_;
}
int Stm32Sim::acks_sent() const {
  std::lock_guard<std::mutex> lock(mu_);
  return acks_;
}
std::optional<uint32_t> Stm32Sim::go_address() const {
  std::lock_guard<std::mutex> lock(mu_);
  return go_;
}
uint64_t Stm32Sim::bytes_received() const {
  std::lock_guard<std::mutex> lock(mu_);
  return rx_count_;
}
uint64_t Stm32Sim::bytes_sent() const {
  std::lock_guard<std::mutex> lock(mu_);
  return tx_count_;
}

bool Stm32Sim::wait_idle(int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mu_);
  return idle_cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return idle_; });
}

void Stm32Sim::throw_if_reset() {
  std::lock_guard<std::mutex> lock(mu_);
  if (resets_done_ != resets_requested_) throw Reset{};
}

// Next byte from the client. With pacing, the byte is only "complete" one
// byte time after the previous one (or after it reached the pty).
uint8_t Stm32Sim::get_byte() {
  throw_if_reset();
  while (rx_pos_ == rx_len_) {
    if (stop_) throw Stop{};
    throw_if_reset();
    struct pollfd p = {pty_.master(), POLLIN, 0};
    int r = poll(&p, 1, 20);
    if (r <= 0) continue;
    ssize_t n = read(pty_.master(), rx_buf_, sizeof(rx_buf_));
    if (n <= 0) continue;
    rx_len_ = static_cast<size_t>(n);
    rx_pos_ = 0;
    auto now = std::chrono::steady_clock::now();
    if (rx_clock_ < now) rx_clock_ = now;
  }
  if (opt_.paced) rx_clock_ += std::chrono::nanoseconds(byte_time_ns());
  {
    std::lock_guard<std::mutex> lock(mu_);
    ++rx_count_;
  }
  return rx_buf_[rx_pos_++];
}

void Stm32Sim::send(const uint8_t* data, size_t len) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (silent_) return;
    tx_count_ += len;
  }
  if (opt_.paced) {
    // The answer starts once the request has fully arrived, and reaches the
    // client when its last bit has been sent.
    auto start = std::max({std::chrono::steady_clock::now(), rx_clock_, tx_clock_});
    tx_clock_ = start + std::chrono::nanoseconds(byte_time_ns() * len);
    std::this_thread::sleep_until(tx_clock_);
  }
  size_t done = 0;
  while (done < len) {
    ssize_t n = write(pty_.master(), data + done, len - done);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return;
    }
    done += static_cast<size_t>(n);
  }
}

// Sends the next ACK unless a fault replaces it; a NACK or silence ends the
// command (thrown as the Fault). `accepted` runs just before a real ACK goes
// out, so that a client that has read the ACK also sees its effect.
void Stm32Sim::ack(const std::function<void()>& accepted) {
  Injected hit{Fault::kNack, 0, 0};
  bool faulted = false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    ++acks_;
    for (const auto& f : faults_) {
      if (f.index == acks_) {
        hit = f;
        faulted = true;
      }
    }
  }
  if (!faulted) {
    if (accepted) accepted();
    send_byte(kAck);
    return;
  }
  switch (hit.fault) {
    case Fault::kNack:
      send_byte(kNack);
      throw Fault::kNack;
    case Fault::kSilence: {
      std::lock_guard<std::mutex> lock(mu_);
      silent_ = true;
      throw Fault::kSilence;
    }
    case Fault::kStrayByte:
      if (accepted) accepted();
      send_byte(hit.stray);
      send_byte(kAck);
      return;
  }
}

void Stm32Sim::nack() { send_byte(kNack); }

bool Stm32Sim::in_flash(uint32_t address, size_t len) const {
  return address >= opt_.flash_base &&
         static_cast<uint64_t>(address) + len <= static_cast<uint64_t>(opt_.flash_base) + opt_.flash_size;
}

bool Stm32Sim::get_address(uint32_t* address) {
  uint8_t b[5];
  for (auto& x : b) x = get_byte();
  *address = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
  return (b[0] ^ b[1] ^ b[2] ^ b[3]) == b[4];
}

void Stm32Sim::erase_page(uint32_t page) {
  std::lock_guard<std::mutex> lock(mu_);
  uint64_t start = uint64_t{page} * opt_.page_size;
  for (uint64_t i = start; i < start + opt_.page_size && i < flash_.size(); ++i) flash_[i] = 0xFF;
  ++pages_erased_;
}

void Stm32Sim::run() {
  try {
    for (;;) {
      try {
        serve_one();
      } catch (Reset) {
        {
          std::lock_guard<std::mutex> lock(mu_);
          reset_state();
        }
        reset_cv_.notify_all();
      }
    }
  } catch (Stop) {
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    thread_gone_ = true;
  }
  reset_cv_.notify_all();
}

// Waits for the next command (or the sync byte) and serves it.
void Stm32Sim::serve_one() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    idle_ = true;
  }
  idle_cv_.notify_all();
  uint8_t code = get_byte();
  bool synced, running;
  {
    std::lock_guard<std::mutex> lock(mu_);
    idle_ = false;
    synced = synced_;
    running = running_app_;
  }
  if (running) return;  // the application owns the line now
  try {
    if (!synced) {
      // Autobaud: everything before the sync byte is line noise.
      if (code != kSync) return;
      ack([&] {
        std::lock_guard<std::mutex> lock(mu_);
        synced_ = true;
      });
      return;
    }
    uint8_t complement = get_byte();
    {
      std::lock_guard<std::mutex> lock(mu_);
      commands_.push_back(code);
    }
    if (static_cast<uint8_t>(code ^ complement) != 0xFF) {
      nack();
      return;
    }
    serve_command(code);
  } catch (Fault) {
    // An injected fault ended the command.
  }
}

void Stm32Sim::serve_command(uint8_t code) {
  switch (code) {
    case 0x00: cmd_get(); break;
    case 0x01: cmd_get_version(); break;
    case 0x02: cmd_get_id(); break;
    case 0x11: cmd_read(); break;
    case 0x21: cmd_go(); break;
    case 0x31: cmd_write(); break;
    case 0x43: cmd_erase(); break;
    case 0x44: cmd_extended_erase(); break;
    default: nack(); break;  // protection commands are not served
  }
}

void Stm32Sim::cmd_get() {
  ack();
  const uint8_t list[] = {0x00, 0x01, 0x02, 0x11, 0x21, 0x31, opt_.listed_erase, 0x63, 0x73, 0x82, 0x92};
  std::vector<uint8_t> out;
  out.push_back(static_cast<uint8_t>(sizeof(list)));  // bytes that follow - 1
  out.push_back(opt_.bootloader_version);
  out.insert(out.end(), list, list + sizeof(list));
  send(out.data(), out.size());
  ack();
}

void Stm32Sim::cmd_get_version() {
  ack();
  const uint8_t out[] = {opt_.bootloader_version, 0x00, 0x00};
  send(out, sizeof(out));
  ack();
}

void Stm32Sim::cmd_get_id() {
  ack();
  const uint8_t out[] = {0x01, static_cast<uint8_t>(opt_.product_id >> 8),
                         static_cast<uint8_t>(opt_.product_id)};
  send(out, sizeof(out));
  ack();
}

void Stm32Sim::cmd_read() {
  ack();
  uint32_t address;
  if (!get_address(&address) || !in_flash(address, 1)) return nack();
  ack();
  uint8_t n = get_byte();
  uint8_t complement = get_byte();
  if (static_cast<uint8_t>(n ^ complement) != 0xFF || !in_flash(address, size_t{n} + 1)) return nack();
  ack();
  std::vector<uint8_t> out;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto first = flash_.begin() + (address - opt_.flash_base);
    out.assign(first, first + n + 1);
  }
  send(out.data(), out.size());
}

void Stm32Sim::cmd_go() {
  ack();
  uint32_t address;
  if (!get_address(&address) || !in_flash(address, 1)) return nack();
  ack([&] {
    std::lock_guard<std::mutex> lock(mu_);
    go_ = address;
    running_app_ = true;
  });
}

void Stm32Sim::cmd_write() {
  ack();
  uint32_t address;
  if (!get_address(&address) || !in_flash(address, 1)) return nack();
  ack();
  uint8_t n = get_byte();
  uint8_t data[256];
  uint8_t sum = n;
  for (int i = 0; i <= n; ++i) {
    data[i] = get_byte();
    sum ^= data[i];
  }
  uint8_t checksum = get_byte();
  if (checksum != sum || !in_flash(address, size_t{n} + 1)) return nack();
  if (opt_.block_write_us) std::this_thread::sleep_for(std::chrono::microseconds(opt_.block_write_us));
  bool programmed = true;
  {
    // Flash programming only clears bits; a cell that is not erased and
    // would need a bit set again is a programming error.
    std::lock_guard<std::mutex> lock(mu_);
    size_t base = address - opt_.flash_base;
    for (int i = 0; i <= n; ++i)
      if ((flash_[base + i] & data[i]) != data[i]) programmed = false;
    if (programmed)
      for (int i = 0; i <= n; ++i) flash_[base + i] = data[i];
    // A failed block is recorded with length 0.
    writes_.push_back({address, programmed ? size_t{n} + 1 : 0});
  }
  if (programmed) ack();
  else nack();
}

void Stm32Sim::cmd_erase() {
  ack();
  uint8_t n = get_byte();
  if (n == 0xFF) {
    if (get_byte() != 0x00) return nack();
    if (opt_.mass_erase_us) std::this_thread::sleep_for(std::chrono::microseconds(opt_.mass_erase_us));
    {
      std::lock_guard<std::mutex> lock(mu_);
      std::fill(flash_.begin(), flash_.end(), 0xFF);
      ++mass_erases_;
    }
    ack();
    return;
  }
  std::vector<uint8_t> pages;
  uint8_t sum = n;
  for (int i = 0; i <= n; ++i) {
    pages.push_back(get_byte());
    sum ^= pages.back();
  }
  if (get_byte() != sum) return nack();
  for (uint8_t p : pages) erase_page(p);
  ack();
}

void Stm32Sim::cmd_extended_erase() {
  ack();
  uint8_t hi = get_byte();
  uint8_t lo = get_byte();
  uint16_t n = static_cast<uint16_t>((hi << 8) | lo);
  if (n >= 0xFFF0) {
    if (get_byte() != (hi ^ lo) || n < 0xFFFD) return nack();
    if (opt_.mass_erase_us) std::this_thread::sleep_for(std::chrono::microseconds(opt_.mass_erase_us));
    {
      std::lock_guard<std::mutex> lock(mu_);
      std::fill(flash_.begin(), flash_.end(), 0xFF);
      ++mass_erases_;
    }
    ack();
    return;
  }
  std::vector<uint16_t> pages;
  uint8_t sum = hi ^ lo;
  for (int i = 0; i <= n; ++i) {
    uint8_t a = get_byte();
    uint8_t b = get_byte();
    sum ^= a ^ b;
    pages.push_back(static_cast<uint16_t>((a << 8) | b));
  }
  if (get_byte() != sum) return nack();
  for (uint16_t p : pages) erase_page(p);
  ack();
}
