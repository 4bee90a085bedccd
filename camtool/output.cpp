#include "camtool/output.h"

#include <algorithm>
#include <cstdio>

namespace camtool {

void print_table(std::ostream& out, const std::vector<std::string>& head,
                 const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width(head.size());
  for (size_t c = 0; c < head.size(); ++c) {
    width[c] = head[c].size();
    for (const auto& row : rows)
      if (c < row.size()) width[c] = std::max(width[c], row[c].size());
  }
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t c = 0; c < head.size(); ++c) {
      const std::string cell = c < cells.size() ? cells[c] : "";
      text += cell;
      if (c + 1 < head.size()) text += std::string(width[c] - cell.size() + 2, ' ');
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out << text << "\n";
  };
  line(head);
  for (const auto& row : rows) line(row);
}

std::string human_bytes(uint64_t bytes) {
  char buf[32];
  if (bytes < 1024) {
    snprintf(buf, sizeof(buf), "%llu B", static_cast<unsigned long long>(bytes));
  } else if (bytes < 1024 * 1024) {
    snprintf(buf, sizeof(buf), "%.1f KiB", static_cast<double>(bytes) / 1024);
  } else {
    snprintf(buf, sizeof(buf), "%.1f MiB", static_cast<double>(bytes) / (1024 * 1024));
  }
  return buf;
}

std::string clock_text(double s) {
  long t = s < 0 ? 0 : static_cast<long>(s + 0.5);
  char buf[32];
  if (t >= 3600)
    snprintf(buf, sizeof(buf), "%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60);
  else
    snprintf(buf, sizeof(buf), "%ld:%02ld", t / 60, t % 60);
  return buf;
}

std::string seconds_text(double s) {
  char buf[32];
  snprintf(buf, sizeof(buf), s < 100 ? "%.3g s" : "%.0f s", s);
  return buf;
}

std::string uptime_text(uint64_t s) {
  char buf[48];
  unsigned long long d = s / 86400, h = s / 3600 % 24, m = s / 60 % 60, sec = s % 60;
  if (d > 0)
    snprintf(buf, sizeof(buf), "%llud %02llu:%02llu:%02llu", d, h, m, sec);
  else
    snprintf(buf, sizeof(buf), "%llu:%02llu:%02llu", h, m, sec);
  return buf;
}

std::string progress_line(uint64_t done, uint64_t total, double bits_per_s, int width) {
  double part = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  int filled = static_cast<int>(part * width);
  std::string bar(1, '[');
  bar.append(static_cast<size_t>(filled), '#').append(static_cast<size_t>(width - filled), '-') += ']';
  char buf[160];
  double left = bits_per_s > 0 ? static_cast<double>(total - done) * 8 / bits_per_s : 0;
  snprintf(buf, sizeof(buf), " %3d%%  %s/%s  %.1f Mbit/s  %s left", static_cast<int>(part * 100),
           human_bytes(done).c_str(), human_bytes(total).c_str(), bits_per_s / 1e6,
           clock_text(left).c_str());
  return bar + buf;
}

}  // namespace camtool
