#include "camtool/transfer.h"

#include <algorithm>
#include <cstdio>

#include "camtool/output.h"
#include "wire/upgrade.h"

namespace camtool {

namespace {

// A NORM data packet: the segment and at most 48 bytes of NORM header.
constexpr double kNormPacketShare = (1400.0 + 48.0) / 1400.0;
// How often the NORM session's events are taken while the round listens.
constexpr double kNormPollEvery = 0.05;
constexpr double kNormUnpacedBps = 1e9;

std::string rate_text(uint64_t bytes, double took) {
  char rate[48] = "";
  if (took > 0) snprintf(rate, sizeof(rate), " (%.1f Mbit/s)", static_cast<double>(bytes) * 8 / took / 1e6);
  return rate;
}

}  // namespace

double norm_rate_bps(double rate_mbit) { return rate_mbit > 0 ? rate_mbit * 1e6 : kNormUnpacedBps; }

uint64_t stream_file(const transfer_context& t, size_t cameras) {
  transport& net = t.net;
  std::ostream& err = t.err;
  const uint64_t size = t.file.size();
  // At least two packets: the first opens the file, the last checks it.
  uint64_t count = std::max<uint64_t>(2, (size + wire::kPacketDataMax - 1) / wire::kPacketDataMax);
  uint64_t piece = count == 2 ? (size + 1) / 2 : wire::kPacketDataMax;
  const double bps = t.o.rate_mbit * 1e6;
  err << "round " << t.round << ": streaming " << count << " packets";
  if (bps > 0) err << " at " << t.o.rate_mbit << " Mbit/s";
  err << " to " << cameras << " camera(s)\n";

  std::string data(static_cast<size_t>(wire::kPacketDataMax), '\0');
  time_point start = net.now(), anchor = start, shown = start;
  uint64_t sent_bits = 0, offset = 0;
  int last_quarter = 0;
  for (uint64_t i = 0; i < count; ++i) {
    size_t len = static_cast<size_t>(std::min<uint64_t>(piece, size - offset));
    if (i + 1 == count) len = static_cast<size_t>(size - offset);
    if (bps > 0) {
      time_point due = after(anchor, static_cast<double>(sent_bits) / bps);
      t.wait_until(due);
      // Late by more than a little (the machine was busy): move the
      // schedule instead of sending a burst the cameras could not take.
      if (between(due, net.now()) > 0.02) anchor += net.now() - due;
    } else {
      t.wait_until(net.now());
    }
    t.file.read(offset, data.data(), len);
    char kind = i == 0 ? wire::kPacketFirst : i + 1 == count ? wire::kPacketLast : wire::kPacketMiddle;
    std::string packet = wire::build_packet(kind, t.session, data.data(), len);
    net.send(channel::batch, packet);
    sent_bits += packet.size() * 8;
    offset += len;
    time_point now = net.now();
    double took = between(start, now);
    double rate = took > 0 ? static_cast<double>(offset) * 8 / took : 0;
    if (t.o.live_progress && (between(shown, now) >= 0.2 || i + 1 == count)) {
      err << "\r" << progress_line(offset, size, rate) << "\x1b[K" << std::flush;
      shown = now;
    } else if (!t.o.live_progress && size > 0 && static_cast<int>(offset * 4 / size) > last_quarter) {
      last_quarter = static_cast<int>(offset * 4 / size);
      if (last_quarter < 4) err << progress_line(offset, size, rate) << "\n";
    }
  }
  if (t.o.live_progress) err << "\n";
  const double took = between(start, net.now());
  err << "round " << t.round << ": sent " << human_bytes(size) << " in " << seconds_text(took)
      << rate_text(sent_bits / 8, took) << "\n";
  return sent_bits / 8;
}

norm_outcome norm_file(const transfer_context& t, norm_sender& sender, const std::vector<uint32_t>& nodes,
                       const std::function<bool(uint32_t)>& answered) {
  const double bps = norm_rate_bps(t.o.rate_mbit);
  const uint64_t size = t.file.size();
  t.err << "round " << t.round << ": NORM session to " << nodes.size() << " camera(s) at "
        << bps / 1e6 << " Mbit/s\n";
  const time_point start = t.net.now();
  // Three passes of the file at the rate, and the cameras' silence time
  // (30 s) for the acknowledgements: a session still going then repairs
  // for a camera that cannot keep up.
  const double first_pass = static_cast<double>(size) * 8 * kNormPacketShare / bps;
  const time_point limit = after(start, 3 * first_pass + 30);
  sender.start(t.file, t.session, nodes, t.o.norm_group, bps);
  bool over = false;
  while (!interrupted() && t.net.now() < limit) {
    if (sender.poll()) {
      const std::vector<uint32_t> acked = sender.acked();
      over = std::all_of(nodes.begin(), nodes.end(), [&](uint32_t n) {
        return answered(n) || std::find(acked.begin(), acked.end(), n) != acked.end();
      });
      if (over) break;
      sender.ask_again();
    }
    t.wait_until(std::min(limit, after(t.net.now(), kNormPollEvery)));
  }
  norm_outcome out = sender.finish();
  const double took = between(start, t.net.now());
  t.err << "round " << t.round << ": NORM " << (over ? "session over" : "session cut short") << " after "
        << seconds_text(took) << ": " << out.acked.size() << " of " << nodes.size()
        << " camera(s) acknowledged; " << human_bytes(out.wire_bytes) << " on the wire"
        << rate_text(out.wire_bytes, took) << "\n";
  return out;
}

}  // namespace camtool
