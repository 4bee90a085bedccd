// Site keys and signatures on the technician's side: `camtool key new`
// makes a key pair and `camtool sign` a detached signature, both in the
// files a release pipeline's signer reads and writes.
#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "camtool/commands.h"
#include "camtool/upgrade.h"
#include "wire/signature.h"

namespace camtool {

// Asks for a passphrase (prompt shown on the terminal); "" for none.
using passphrase_source = std::function<std::string(const std::string& prompt)>;
// From the terminal with echo off, or the first line of stdin when it is not one.
passphrase_source terminal_passphrase();

struct key_new_options {
  std::string name;         // writes NAME.key (mode 0600) and NAME.pub
  bool no_passphrase = false;
  bool force = false;       // overwrite existing files
  wire::kdf_cost cost = wire::kdf_cost::sensitive;
};
// 0, or throws tool_error.
int cmd_key_new(const key_new_options& o, const passphrase_source& ask, std::ostream& out);

// Reads a secret key file, asking for its passphrase when it has one.
wire::secret_key load_secret_key(const std::string& path, const passphrase_source& ask);

// A detached "ED" signature of the file at `path`, trusted comment as the
// signer writes it ("timestamp:<s>\tfile:<base name>\thashed").
std::string sign_file(const std::string& path, const wire::secret_key& key);

struct sign_options {
  std::string file;
  std::string key_file;
  std::string output;  // default FILE.minisig
};
int cmd_sign(const sign_options& o, const passphrase_source& ask, std::ostream& out);

// A command to a keyed camera (its search reply carried a challenge) signed
// with `key_file`; to a camera without keys unchanged. Throws tool_error
// when the camera is keyed and no key file was given.
std::string sign_for(const wire::camera_record& c, const std::string& command,
                     const std::string& key_file, const passphrase_source& ask);

// `camtool key install CAMERA PUBLIC_KEY_FILE` and `camtool key remove
// CAMERA KEY_ID`: the camera answers "Result:ok" or "refused".
int cmd_key_install(command_context& ctx, const std::string& who, const std::string& public_key_file,
                    const std::string& key_file, const passphrase_source& ask);
int cmd_key_remove(command_context& ctx, const std::string& who, const std::string& key_id,
                   const std::string& key_file, const passphrase_source& ask);

// What an upgrade sends to keyed cameras: the file, then its signature as a
// trailer (the camera checks it and cuts it off). The signature is made
// with `key_file`, or read from `signature_file` (a detached signature of
// the same file, for example from `minisign -S`).
std::unique_ptr<file_source> signed_upgrade_file(std::unique_ptr<file_source> f,
                                                 const std::string& file_name,
                                                 const std::string& key_file,
                                                 const std::string& signature_file,
                                                 const passphrase_source& ask);

}  // namespace camtool
