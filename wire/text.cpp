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

}  // namespace wire
