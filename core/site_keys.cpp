// Site keys and the signature checks every installation path makes first.
#include "core/site_keys.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <span>

#include "core/platform.h"

namespace {

constexpr size_t kKeyFileMax = 4096;

// Reads a small text file whole; "" when it is missing, not a regular file
// or larger than `max`.
std::string read_small(const std::string& path, size_t max) {
  int fd = open(cam_path(path).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return "";
  struct stat st;
  std::string text;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) <= max) {
    text.resize(static_cast<size_t>(st.st_size));
    if (read(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) text.clear();
  }
  close(fd);
  return text;
}

// A read-only view of a regular file.
struct mapped_file {
  int fd = -1;
  void* data = MAP_FAILED;
  uint64_t size = 0;
  explicit mapped_file(const std::string& path) {
    fd = open(cam_path(path).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
    size = static_cast<uint64_t>(st.st_size);
    if (size > 0) data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  }
  ~mapped_file() {
    if (data != MAP_FAILED) munmap(data, size);
    if (fd >= 0) close(fd);
  }
  bool ok() const { return data != MAP_FAILED; }
  const uint8_t* bytes() const { return static_cast<const uint8_t*>(data); }
};

std::string key_name(const std::vector<site_key>& keys, const wire::key_id& id) {
  for (const site_key& k : keys)
    if (k.key.id == id) return k.file;
  return "key " + wire::key_id_text(id);
}

}  // namespace

std::vector<site_key> load_site_keys(size_t* files) {
  std::vector<site_key> keys;
  size_t seen = 0;
  std::vector<std::string> names;
  if (DIR* dir = opendir(cam_path(kSiteKeyDir).c_str())) {
    while (struct dirent* e = readdir(dir)) {
      std::string_view n = e->d_name;
      if (n.size() > 4 && n.ends_with(".pub")) names.emplace_back(n);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    ++seen;
    std::string path = std::string(kSiteKeyDir) + "/" + n;
    auto key = wire::parse_public_key(read_small(path, kKeyFileMax));
    if (key && keys.size() < kSiteKeysMax) keys.push_back({path, *key});
  }
  if (files != nullptr) *files = seen;
  return keys;
}

bool camera_is_keyed() {
  size_t files = 0;
  load_site_keys(&files);
  return files > 0;
}

signature_check check_signature(const std::vector<site_key>& keys, const std::string& path,
                                uint64_t len, std::string_view signature_text) {
  auto sig = wire::parse_signature(signature_text);
  if (!sig) return {false, "the signature of " + path + " is malformed"};
  mapped_file f(path);
  if (len > 0 && (!f.ok() || len > f.size)) return {false, "cannot read " + path};
  std::vector<wire::public_key> trusted;
  for (const site_key& k : keys) trusted.push_back(k.key);
  std::span<const uint8_t> payload(len > 0 ? f.bytes() : nullptr, static_cast<size_t>(len));
  wire::sig_verdict v = wire::verify_signature(trusted, *sig, payload);
  if (v == wire::sig_verdict::good) return {true, ""};
  return {false, key_name(keys, sig->id) + ": " + wire::sig_verdict_text(v) + " (" + path + ")"};
}

signature_check take_signature_trailer(const std::string& path, uint64_t* payload_size) {
  size_t files = 0;
  std::vector<site_key> keys = load_site_keys(&files);
  const bool keyed = files > 0;
  uint64_t payload = 0;
  std::string sig_text;
  {
    mapped_file f(path);
    if (!f.ok() || f.size < wire::kTrailerFixed) return {!keyed, "no signature at the end of " + path};
    auto len = wire::trailer_signature_length(f.bytes() + f.size - wire::kTrailerFixed, f.size);
    if (!len) return {!keyed, "no signature at the end of " + path};
    payload = f.size - wire::kTrailerFixed - *len;
    sig_text.assign(reinterpret_cast<const char*>(f.bytes() + payload), *len);
  }
  if (keyed) {
    if (keys.empty()) return {false, "no readable key in " + std::string(kSiteKeyDir)};
    signature_check c = check_signature(keys, path, payload, sig_text);
    if (!c.ok) return c;
  }
  if (truncate(cam_path(path).c_str(), static_cast<off_t>(payload)) != 0)
    return {false, "cannot cut the signature off " + path};
  if (payload_size != nullptr) *payload_size = payload;
  return {true, ""};
}

signature_check check_detached_signature(const std::string& image) {
  size_t files = 0;
  std::vector<site_key> keys = load_site_keys(&files);
  if (files == 0) return {true, ""};
  if (keys.empty()) return {false, "no readable key in " + std::string(kSiteKeyDir)};
  const std::string sig_path = image + ".minisig";
  std::string text = read_small(sig_path, wire::kTrailerSignatureMax);
  if (text.empty()) return {false, "no signature " + sig_path};
  mapped_file f(image);
  if (!f.ok()) return {false, "cannot read " + image};
  return check_signature(keys, image, f.size, text);
}
