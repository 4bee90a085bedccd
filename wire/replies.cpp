#include "wire/replies.h"
#include "wire/upgrade.h"

#include <cstdlib>

#include "wire/text.h"

namespace wire {

namespace {

bool starts_with(std::string_view text, std::string_view word) {
  return text.size() >= word.size() && text.substr(0, word.size()) == word;
}

const std::string* field(const std::vector<std::pair<std::string, std::string>>& fields,
                         std::string_view key) {
  for (const auto& [k, v] : fields)
    if (k == key) return &v;
  return nullptr;
}

std::string field_or_empty(const std::vector<std::pair<std::string, std::string>>& fields,
                           std::string_view key) {
  const std::string* v = field(fields, key);
  return v ? *v : std::string();
}

uint64_t to_u64(const std::string& text) {
  return static_cast<uint64_t>(strtoull(text.c_str(), nullptr, 10));
}

}  // namespace

std::optional<camera_record> parse_search_reply(std::string_view text) {
  if (!starts_with(text, kKeywords[KW_REPLY_OK])) return std::nullopt;
  auto f = reply_fields(text);
  camera_record r;
  r.device_id = field_or_empty(f, "Device ID");
  if (r.device_id.size() != kIdLen) return std::nullopt;
  r.client_id = field_or_empty(f, "Client ID");
  r.version = field_or_empty(f, "VERSION");
  r.model = field_or_empty(f, "DEVICE_MODEL");
  r.uptime = to_u64(field_or_empty(f, "Uptime"));
  r.dhcp = field_or_empty(f, "DHCP") == "1";
  r.serial = field_or_empty(f, "LUM_Serial_No");
  r.ip = field_or_empty(f, "IP");
  r.netmask = field_or_empty(f, "MASK");
  r.gateway = field_or_empty(f, "GATEWAY");
  r.mac = field_or_empty(f, "MAC");
  r.fdns = field_or_empty(f, "FDNS");
  r.challenge = field_or_empty(f, "CHALLENGE");
  return r;
}

std::optional<upgrade_ack> parse_upgrade_ack(std::string_view text) {
  if (!starts_with(text, kReplyUpgrade)) return std::nullopt;
  auto f = reply_fields(text);
  const std::string* ack = field(f, "Ack");
  if (ack == nullptr || ack->size() != 1) return std::nullopt;
  return upgrade_ack{field_or_empty(f, "Client ID"), field_or_empty(f, "Device ID"), (*ack)[0],
                     field_or_empty(f, "Reason"), read_transfer_answer(text)};
}

std::optional<status_report> parse_status_report(std::string_view text) {
  if (!starts_with(text, kKeywords[KW_STATUS])) return std::nullopt;
  auto f = reply_fields(text);
  if (field_or_empty(f, "Status") != "1") return std::nullopt;
  status_report r{field_or_empty(f, "Device ID"), field_or_empty(f, "MAC"),
                  field_or_empty(f, "VERSION"), field_or_empty(f, "DEVICE_MODEL")};
  if (r.device_id.size() != kIdLen) return std::nullopt;
  return r;
}

std::optional<id_reply> parse_id_reply(std::string_view keyword, std::string_view text) {
  if (!starts_with(text, keyword) || !starts_with(text.substr(keyword.size()), kFieldSep))
    return std::nullopt;
  auto f = reply_fields(text);
  if (f.size() < 2 || f[0].first != "Client ID" || f[1].first != "Device ID") return std::nullopt;
  id_reply r{f[0].second, f[1].second, {f.begin() + 2, f.end()}};
  return r;
}

std::optional<board_test_result> parse_board_test(std::string_view text) {
  auto head = parse_id_reply(kReplyBoardTest, text);
  if (!head) return std::nullopt;
  board_test_result r;
  r.client_id = head->client_id;
  r.device_id = head->device_id;
  // Lines after the keyword, taken one by one: the version has no key.
  std::vector<std::string_view> lines;
  for (size_t pos = text.find(kFieldSep); pos != std::string_view::npos;) {
    size_t start = pos + 2;
    size_t end = text.find(kFieldSep, start);
    lines.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    pos = end;
  }
  bool after_mac = false;
  for (std::string_view line : lines) {
    if (after_mac) {
      r.version = std::string(line);
      after_mac = false;
    } else if (starts_with(line, "IP=")) {
      r.ip = std::string(line.substr(3));
    } else if (starts_with(line, "MAC=")) {
      r.mac = std::string(line.substr(4));
      after_mac = true;
    } else if (line == "STATUS=Test finish") {
      r.finished = true;
    } else {
      for (const char* check : {"USB", "ARM", "HDMI", "SDI"}) {
        std::string_view key(check);
        if (line.size() == key.size() + 2 && starts_with(line, key) && line[key.size()] == '=' &&
            (line.back() == '0' || line.back() == '1'))
          r.checks.emplace_back(check, line.back() == '1');
      }
    }
  }
  return r;
}

std::vector<partition> parse_mtd_info(std::string_view text) {
  std::vector<partition> out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    std::string line(text.substr(pos, end == std::string_view::npos ? end : end - pos));
    pos = end == std::string_view::npos ? text.size() : end + 1;
    size_t colon = line.find(':');
    size_t q1 = line.find('"');
    size_t q2 = line.rfind('"');
    if (colon == std::string::npos || q1 == std::string::npos || q2 <= q1) continue;
    partition p;
    p.dev = line.substr(0, colon);
    p.name = line.substr(q1 + 1, q2 - q1 - 1);
    char* rest = nullptr;
    p.size = strtoull(line.c_str() + colon + 1, &rest, 16);
    p.erasesize = strtoull(rest, nullptr, 16);
    out.push_back(p);
  }
  return out;
}

}  // namespace wire
