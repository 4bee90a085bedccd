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

namespace {

// The signature file's text checked by `verify` against the keys.
template <typename Verify>
signature_check check_with(const std::vector<site_key>& keys, const std::string& path,
                           std::string_view signature_text, Verify verify) {
  auto sig = wire::parse_signature(signature_text);
  if (!sig) return {false, "the signature of " + path + " is malformed"};
  std::vector<wire::public_key> trusted;
  for (const site_key& k : keys) trusted.push_back(k.key);
  std::optional<wire::sig_verdict> v = verify(trusted, *sig);
  if (!v) return {false, "cannot read " + path};
  if (*v == wire::sig_verdict::good) return {true, ""};
  return {false, key_name(keys, sig->id) + ": " + wire::sig_verdict_text(*v) + " (" + path + ")"};
}

signature_check check_prehash(const std::vector<site_key>& keys, const std::string& path,
                              const std::array<uint8_t, 64>& hash,
                              std::string_view signature_text) {
  return check_with(keys, path, signature_text,
                    [&](const auto& trusted, const wire::detached_signature& sig) {
                      return std::optional(wire::verify_prehashed(trusted, sig, hash));
                    });
}

}  // namespace

signature_check check_signature(const std::vector<site_key>& keys, const std::string& path,
                                uint64_t len, std::string_view signature_text) {
  return check_with(keys, path, signature_text,
                    [&](const auto& trusted, const wire::detached_signature& sig)
                        -> std::optional<wire::sig_verdict> {
                      mapped_file f(path);
                      if (len > 0 && (!f.ok() || len > f.size)) return std::nullopt;
                      std::span<const uint8_t> payload(len > 0 ? f.bytes() : nullptr,
                                                       static_cast<size_t>(len));
                      return wire::verify_signature(trusted, sig, payload);
                    });
}

void streamed_prehash::start(uint64_t announced, bool on) {
  hash_ = wire::prehash{};
  const uint64_t tail = wire::kTrailerFixed + wire::kTrailerSignatureMax;
  limit_ = announced > tail ? announced - tail : 0;
  seen_ = 0;
  on_ = on;
}

void streamed_prehash::feed(const void* data, size_t len) {
  if (!on_) return;
  if (seen_ < limit_)
    hash_.update(data, static_cast<size_t>(std::min<uint64_t>(len, limit_ - seen_)));
  seen_ += len;
}

std::optional<std::array<uint8_t, 64>> streamed_prehash::finish(const uint8_t* file,
                                                                uint64_t file_size,
                                                                uint64_t payload) {
  const uint64_t hashed = std::min(seen_, limit_);
  if (!on_ || seen_ != file_size || hashed > payload || payload > file_size) return std::nullopt;
  on_ = false;
  hash_.update(file + hashed, static_cast<size_t>(payload - hashed));
  return hash_.final();
}

signature_check take_signature_trailer(const std::string& path, uint64_t* payload_size,
                                       streamed_prehash* streamed) {
  size_t files = 0;
  std::vector<site_key> keys = load_site_keys(&files);
  const bool keyed = files > 0;
  uint64_t payload = 0;
  std::string sig_text;
  std::optional<std::array<uint8_t, 64>> hash;
  {
    mapped_file f(path);
    if (!f.ok() || f.size < wire::kTrailerFixed) return {!keyed, "no signature at the end of " + path};
    auto len = wire::trailer_signature_length(f.bytes() + f.size - wire::kTrailerFixed, f.size);
    if (!len) return {!keyed, "no signature at the end of " + path};
    payload = f.size - wire::kTrailerFixed - *len;
    sig_text.assign(reinterpret_cast<const char*>(f.bytes() + payload), *len);
    auto sig = wire::parse_signature(sig_text);
    if (keyed && streamed != nullptr && sig && sig->prehashed)
      hash = streamed->finish(f.bytes(), f.size, payload);
  }
  if (keyed) {
    if (keys.empty()) return {false, "no readable key in " + std::string(kSiteKeyDir)};
    signature_check c = hash ? check_prehash(keys, path, *hash, sig_text)
                             : check_signature(keys, path, payload, sig_text);
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
