#include "wire/text.h"

namespace wire {

std::string search_request(std::string_view client_id) {
  std::string out = "SEARCH * \r\nSEQ=1\r\nClient ID:";
  out.append(client_id.substr(0, kIdLen));
  return out;
}

std::vector<std::pair<std::string, std::string>> reply_fields(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> out;
  size_t pos = text.find(kFieldSep);
  while (pos != std::string_view::npos) {
    size_t start = pos + 2;
    size_t end = text.find(kFieldSep, start);
    std::string_view part =
        text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    size_t sep = part.find_first_of(":=");
    if (sep != std::string_view::npos && sep > 0)
      out.emplace_back(std::string(part.substr(0, sep)), std::string(part.substr(sep + 1)));
    pos = end;
  }
  return out;
}

std::optional<uint32_t> parse_ipv4(std::string_view text, bool refuse_leading_zero) {
  uint32_t out = 0;
  size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.') return std::nullopt;
      ++pos;
    }
    size_t start = pos;
    unsigned v = 0;
    while (pos < text.size() && pos - start < 3 && text[pos] >= '0' && text[pos] <= '9')
      v = v * 10 + static_cast<unsigned>(text[pos++] - '0');
    if (pos == start || v > 255) return std::nullopt;
    if (refuse_leading_zero && text[start] == '0' && pos - start > 1) return std::nullopt;
    out = out << 8 | v;
  }
  if (pos != text.size()) return std::nullopt;
  return out;
}

}  // namespace wire
