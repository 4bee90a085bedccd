// Key pairs and detached signatures for the technician.
#include "camtool/keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "camtool/common.h"
#include "camtool/finder.h"
#include "camtool/os.h"
#include "camtool/output.h"

namespace camtool {
namespace {

std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw tool_error("cannot read " + path + ": " + strerror(errno));
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace

passphrase_source terminal_passphrase() {
  return [](const std::string& prompt) {
    if (os::stdin_is_terminal()) return os::read_hidden_line(prompt);
    std::string line;
    std::getline(std::cin, line);
    return line;
  };
}

int cmd_key_new(const key_new_options& o, const passphrase_source& ask, std::ostream& out) {
  if (o.name.empty()) throw tool_error("a key needs a name");
  std::string pass;
  if (!o.no_passphrase) {
    pass = ask("Passphrase for the new secret key (empty for none): ");
    if (!pass.empty() && ask("The same passphrase again: ") != pass)
      throw tool_error("the passphrases differ; nothing written");
  }
  wire::key_pair kp = wire::generate_key_pair();
  os::write_new_file(o.name + ".key", wire::format_secret_key(kp.sec, pass, o.cost), true, o.force);
  os::write_new_file(o.name + ".pub", wire::format_public_key(kp.pub), false, o.force);
  out << "key " << wire::key_id_text(kp.pub.id) << ": secret key " << o.name
      << ".key (keep it off the LAN), public key " << o.name << ".pub\n";
  return 0;
}

wire::secret_key load_secret_key(const std::string& path, const passphrase_source& ask) {
  std::string text = read_text(path);
  wire::secret_key key;
  wire::secret_result r = wire::parse_secret_key(text, "", key);
  if (r == wire::secret_result::need_passphrase)
    r = wire::parse_secret_key(text, ask("Passphrase for " + path + ": "), key);
  switch (r) {
    case wire::secret_result::ok: return key;
    case wire::secret_result::wrong_passphrase: throw tool_error("wrong passphrase for " + path);
    case wire::secret_result::need_passphrase: throw tool_error(path + " needs its passphrase");
    case wire::secret_result::malformed: break;
  }
  throw tool_error(path + " is not a secret key file");
}

std::string sign_file(const std::string& path, const wire::secret_key& key) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw tool_error("cannot read " + path + ": " + strerror(errno));
  wire::prehash h;
  char buf[65536];
  while (in.read(buf, sizeof buf) || in.gcount() > 0) h.update(buf, static_cast<size_t>(in.gcount()));
  if (in.bad()) throw tool_error("cannot read " + path);
  std::string base = os::base_name(path);
  std::string comment =
      "timestamp:" + std::to_string(static_cast<long long>(time(nullptr))) + "\tfile:" + base + "\thashed";
  return wire::format_signature(wire::sign_prehashed(key, h.final(), comment));
}

int cmd_sign(const sign_options& o, const passphrase_source& ask, std::ostream& out) {
  wire::secret_key key = load_secret_key(o.key_file, ask);
  std::string sig = sign_file(o.file, key);
  std::string dest = o.output.empty() ? o.file + ".minisig" : o.output;
  os::write_new_file(dest, sig, false, true);
  out << "signed " << o.file << " with key " << wire::key_id_text(key.id) << ": " << dest << "\n";
  return 0;
}

std::string sign_for(const wire::camera_record& c, const std::string& command,
                     const std::string& key_file, const passphrase_source& ask) {
  if (c.challenge.empty()) return command;
  if (key_file.empty())
    throw tool_error(c.device_id + " has site keys: give --key SECRET_KEY_FILE to sign the command");
  return wire::sign_command(load_secret_key(key_file, ask), command, c.challenge);
}

namespace {

int key_command(command_context& ctx, const std::string& who, const std::string& field,
                const std::string& what, const std::string& key_file, const passphrase_source& ask) {
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  const std::string request = sign_for(c, std::string(wire::kKeyCommand) + "\r\nDevice ID:" +
                                              c.device_id + "\r\nClient ID:" + ctx.client_id + field,
                                       key_file, ask);
  auto got = exchange(ctx.lan(), channel::batch, request, ctx.timeout, 0,
                      [&](const datagram& d) {
                        auto r = wire::parse_id_reply(wire::kKeyCommand, d.data);
                        return r && r->device_id == c.device_id && r->client_id == ctx.client_id;
                      });
  const std::string name = c.device_id + (c.ip.empty() ? "" : " (" + c.ip + ")");
  if (!got)
    throw tool_error("no answer to the key command from " + name + " within " +
                         seconds_text(ctx.timeout),
                     kExitFailed);
  const bool ok = got->data.find("\r\nResult:ok") != std::string::npos;
  ctx.out << name << ": " << what << (ok ? "" : " refused (a keyed camera needs the command signed by a key it holds)")
          << "\n";
  return ok ? 0 : kExitFailed;
}

}  // namespace

int cmd_key_install(command_context& ctx, const std::string& who, const std::string& public_key_file,
                    const std::string& key_file, const passphrase_source& ask) {
  auto key = wire::parse_public_key(read_text(public_key_file));
  if (!key) throw tool_error(public_key_file + " is not a public key file");
  const std::string text = wire::format_public_key(*key);
  const std::string line = text.substr(text.find('\n') + 1, text.size() - text.find('\n') - 2);
  return key_command(ctx, who, "\r\nAdd:" + line, "key " + wire::key_id_text(key->id) + " installed",
                     key_file, ask);
}

int cmd_key_remove(command_context& ctx, const std::string& who, const std::string& key_id,
                   const std::string& key_file, const passphrase_source& ask) {
  if (key_id.size() != 16 || key_id.find_first_not_of("0123456789ABCDEF") != std::string::npos)
    throw tool_error("a key ID is 16 upper-case hexadecimal digits (as `camtool key new` prints it)");
  return key_command(ctx, who, "\r\nRemove:" + key_id, "key " + key_id + " removed", key_file, ask);
}

namespace {

// The file, then `tail`.
class trailed_file : public file_source {
 public:
  trailed_file(std::unique_ptr<file_source> f, std::string tail) : f_(std::move(f)), tail_(std::move(tail)) {}
  uint64_t size() const override { return f_->size() + tail_.size(); }
  void read(uint64_t offset, char* buf, size_t len) override {
    const uint64_t body = f_->size();
    if (offset < body) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(len, body - offset));
      f_->read(offset, buf, n);
      offset += n;
      buf += n;
      len -= n;
    }
    if (len > 0) memcpy(buf, tail_.data() + (offset - body), len);
  }

 private:
  std::unique_ptr<file_source> f_;
  std::string tail_;
};

}  // namespace

std::unique_ptr<file_source> signed_upgrade_file(std::unique_ptr<file_source> f,
                                                 const std::string& file_name,
                                                 const std::string& key_file,
                                                 const std::string& signature_file,
                                                 const passphrase_source& ask) {
  std::string sig;
  if (!signature_file.empty()) {
    sig = read_text(signature_file);
    if (!wire::parse_signature(sig)) throw tool_error(signature_file + " is not a signature file");
  } else {
    wire::secret_key key = load_secret_key(key_file, ask);
    wire::prehash h;
    std::vector<char> buf(1 << 16);
    for (uint64_t at = 0; at < f->size(); at += buf.size()) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), f->size() - at));
      f->read(at, buf.data(), n);
      h.update(buf.data(), n);
    }
    std::string comment = "timestamp:" + std::to_string(static_cast<long long>(time(nullptr))) +
                          "\tfile:" + file_name + "\thashed";
    sig = wire::format_signature(wire::sign_prehashed(key, h.final(), comment));
  }
  if (sig.size() > wire::kTrailerSignatureMax) throw tool_error(signature_file + " is too large");
  return std::make_unique<trailed_file>(std::move(f), wire::build_trailer(sig));
}

}  // namespace camtool
