// How camtool prints: aligned tables, sizes, durations and the progress line.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace camtool {

// Columns padded to their widest cell; the last column is not padded.
void print_table(std::ostream& out, const std::vector<std::string>& head,
                 const std::vector<std::vector<std::string>>& rows);

std::string human_bytes(uint64_t bytes);  // "812 B", "4.0 KiB", "12.3 MiB"
std::string clock_text(double s);         // "0:07", "12:03", "1:02:03"
std::string seconds_text(double s);       // "0.17 s", "3 s", "12.5 s"
std::string uptime_text(uint64_t s);      // "0:07:03", "3d 04:05:06"

// "[#########-----------]  45%  12.3/27.4 MiB  49.8 Mbit/s  0:03 left"
std::string progress_line(uint64_t done, uint64_t total, double bits_per_s, int width = 30);

}  // namespace camtool
