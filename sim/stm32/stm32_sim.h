// A pseudo-terminal pair, and an STM32 system-memory bootloader on its
// master side: the device half of the USART bootloader protocol, for tests
// and benchmarks of the controller programmer.
//
// The client opens device() (the pty slave). Linux ptys ignore parity, so
// the line is effectively 8N1; with `paced` set the simulator holds every
// byte for its time on a real 115200 baud 8E1 line (11 bits per byte) in
// both directions.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// A pty pair in raw mode. The slave stays open here as well, so the line
// does not hang up when a client closes its descriptor.
class Pty {
 public:
  Pty();
  ~Pty();
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  int master() const { return master_; }
  const std::string& slave_path() const { return slave_path_; }
  // Reads what the client sent, waiting at most `timeout_ms` for each byte;
  // stops at `max` bytes or when the line stays quiet.
  std::vector<uint8_t> read_some(size_t max, int timeout_ms);
  // Puts the line settings back to their power-up state (CLOCAL cleared).
  // Ptys drop PARENB, and glibc's tcsetattr fails with EINVAL when none of
  // the requested changes took, so a client that sets the line up a second
  // time needs something besides parity to change.
  void refresh_line();

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string slave_path_;
};

class Stm32Sim {
 public:
  struct Options {
    uint16_t product_id = 0x410;  // 128 KiB medium-density part, 1 KiB pages
    uint32_t flash_base = 0x08000000;
    uint32_t flash_size = 128 * 1024;
    uint32_t page_size = 1024;
    uint8_t bootloader_version = 0x22;
    // The erase command listed by Get: 0x43 (Erase) or 0x44 (Extended
    // Erase). Both are served whichever is listed.
    uint8_t listed_erase = 0x43;
    bool paced = false;
    uint32_t baud = 115200;
    uint32_t bits_per_byte = 11;  // start, 8 data, parity, stop
    uint32_t mass_erase_us = 0;   // extra time a mass erase takes
    uint32_t block_write_us = 0;  // extra time a Write Memory takes
  };

  enum class Fault {
    kNack,       // answer NACK instead of the chosen ACK
    kSilence,    // send nothing from the chosen ACK on
    kStrayByte,  // send a stray byte before the chosen ACK
  };

  struct Block {
    uint32_t address;
    size_t length;
  };

  Stm32Sim();
  explicit Stm32Sim(const Options& options);
  ~Stm32Sim();
  Stm32Sim(const Stm32Sim&) = delete;
  Stm32Sim& operator=(const Stm32Sim&) = delete;

  // Path the client opens.
  const std::string& device() const { return pty_.slave_path(); }

  // The `ack_index`-th ACK since construction (or reset), counting from 1,
  // is replaced as `fault` says.
  void inject(Fault fault, int ack_index, uint8_t stray = 0x00);
  // Back to a freshly reset bootloader waiting for its sync byte (the flash
  // keeps its content); faults and counters are cleared and the line is
  // refreshed (Pty::refresh_line). Call it between client sessions.
  void reset();
  // Preloads flash content (e.g. an older firmware).
  void load_flash(uint32_t offset, const std::vector<uint8_t>& data);

  std::vector<uint8_t> flash() const;
  std::vector<Block> writes() const;        // Write Memory blocks accepted
  std::vector<uint8_t> commands() const;    // command codes received
  int mass_erases() const;
  int pages_erased() const;
  int acks_sent() const;
  std::optional<uint32_t> go_address() const;
  uint64_t bytes_received() const;
  uint64_t bytes_sent() const;
  // Waits until the bootloader is idle between commands (or has jumped to
  // the application) for `timeout_ms`; true when it is.
  bool wait_idle(int timeout_ms) const;

  // Time of one byte on the line, in nanoseconds.
  uint64_t byte_time_ns() const;

 private:
  struct Stop {};
  void run();
  void serve_command(uint8_t code);
  uint8_t get_byte();
  void send(const uint8_t* data, size_t len);
  void send_byte(uint8_t b) { send(&b, 1); }
  void ack(const std::function<void()>& accepted = {});
  void nack();
  bool get_address(uint32_t* address);
  bool in_flash(uint32_t address, size_t len) const;
  void erase_page(uint32_t page);
  void cmd_get();
  void cmd_get_version();
  void cmd_get_id();
  void cmd_read();
  void cmd_go();
  void cmd_write();
  void cmd_erase();
  void cmd_extended_erase();

  Options opt_;
  Pty pty_;
  std::thread thread_;
  std::atomic<bool> stop_{false};

  mutable std::mutex mu_;
  mutable std::condition_variable idle_cv_;
  std::vector<uint8_t> flash_;
  std::vector<Block> writes_;
  std::vector<uint8_t> commands_;
  int mass_erases_ = 0;
  int pages_erased_ = 0;
  int acks_ = 0;
  std::optional<uint32_t> go_;
  uint64_t rx_count_ = 0;
  uint64_t tx_count_ = 0;
  bool synced_ = false;
  bool running_app_ = false;
  bool idle_ = true;
  bool silent_ = false;
  struct Injected {
    Fault fault;
    int index;
    uint8_t stray;
  };
  std::vector<Injected> faults_;

  // Receive buffer and line clocks (simulator thread only).
  uint8_t rx_buf_[512];
  size_t rx_len_ = 0;
  size_t rx_pos_ = 0;
  std::chrono::steady_clock::time_point rx_clock_{};
  std::chrono::steady_clock::time_point tx_clock_{};
};
