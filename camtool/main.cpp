// camtool: the LAN tool that finds, configures and upgrades cameras.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

#include "camtool/broadcast.h"
#include "camtool/commands.h"
#include "camtool/finder.h"
#include "camtool/keys.h"
#include "camtool/net.h"
#include "camtool/norm.h"
#include "camtool/os.h"
#include "camtool/partner.h"
#include "camtool/status.h"
#include "camtool/upgrade.h"

using namespace camtool;

namespace {

const char* kFooter =
    "CAMERA is a device ID (32 lower-case hex digits) or an IPv4 address.\n"
    "Exit status: 0 done; 1 a camera did not answer or did not upgrade; 2 refused\n"
    "before anything was sent (bad input, no usable interface).";

struct settings {
  std::string iface;
  bool json = false;
  std::map<CLI::App*, double> timeout;  // by command
};

lazy_lan::opener lan_opener(const settings& s, std::vector<channel> channels) {
  return [&s, channels] {
    iface_choice c = choose_interface(list_interfaces(), s.iface, default_route_interface());
    return open_lan(c, channels);
  };
}

CLI::App* with_json(CLI::App* cmd, settings& s) {
  cmd->add_flag("--json", s.json, "one JSON object per line instead of a table");
  return cmd;
}

CLI::App* with_timeout(CLI::App* cmd, settings& s, double seconds) {
  double& t = s.timeout[cmd];
  t = seconds;
  cmd->add_option("--timeout", t, "seconds to wait for the reply")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  return cmd;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"camtool: finds, configures and upgrades the cameras on this LAN", "camtool"};
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
  app.set_version_flag("--version", "camtool " CAMTOOL_VERSION);
  settings s;
  app.add_option("--iface", s.iface,
                 "interface to use (default: the default route's, or the only one with IPv4)");

  // search
  search_options so;
  auto* search = with_json(app.add_subcommand("search", "find the cameras on the LAN"), s);
  search->add_option("--wait", so.wait, "seconds to listen (the request is resent meanwhile)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  search->add_flag("--watch", so.watch, "keep the table live until Ctrl-C");

  // Single-camera commands.
  std::string who;
  auto camera_arg = [&](CLI::App* cmd) { cmd->add_option("CAMERA", who, "device ID or IPv4 address")->required(); };
  confignet_flags cf;
  auto settings_flags = [&](CLI::App* cmd, bool mac) {
    cmd->add_option("--dhcp", cf.dhcp, "on or off");
    cmd->add_option("--ip", cf.ip, "IPv4 address");
    cmd->add_option("--mask", cf.mask, "netmask");
    cmd->add_option("--gateway", cf.gateway, "default gateway");
    cmd->add_option("--dns", cf.dns, "DNS server");
    if (mac) cmd->add_option("--mac", cf.mac, "MAC address");
    cmd->footer("Settings not given keep the camera's current values.");
  };
  auto* confignet = with_json(with_timeout(app.add_subcommand("confignet",
      "set a camera's network settings (the camera reboots to apply them)"), s, 3), s);
  camera_arg(confignet);
  settings_flags(confignet, true);
  double back_wait = 60.0;
  auto with_back_wait = [&](CLI::App* cmd) {
    cmd->add_option("--back-wait", back_wait,
                    "seconds to wait for a camera that went silent without confirming\n"
                    "(it took the command and reboots, or its confirmation was lost)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
  };
  with_back_wait(confignet);

  bool no_wait = false;
  auto* reboot = app.add_subcommand("reboot", "reboot a camera and see it go down");
  camera_arg(reboot);
  reboot->add_flag("--no-wait", no_wait, "send the command and return");

  std::string led;
  auto* flicker = app.add_subcommand("flicker", "switch a camera's LED flicker on or off");
  camera_arg(flicker);
  flicker->add_option("STATE", led, "on or off")->required();

  wire::board_test_options bo;
  auto* board = with_json(with_timeout(app.add_subcommand("board-test",
      "run the factory board test (stops the camera's main application)"), s, 15), s);
  camera_arg(board);
  board->add_option("--type", bo.type, "board type (default: from the camera's model)");
  board->add_flag("--usb", bo.usb, "test the USB disk");
  board->add_flag("--hdmi", bo.hdmi, "test the HDMI transmitter");
  board->add_flag("--sdi", bo.sdi, "test the SDI transmitter");

  std::vector<std::string> whos;
  auto* query = with_json(with_timeout(app.add_subcommand("query", "firmware version and partition table"), s, 10), s);
  query->add_option("CAMERA", whos, "device IDs or IPv4 addresses")->required();

  auto* production = with_json(with_timeout(app.add_subcommand("production", "production counters"), s, 10), s);
  camera_arg(production);

  std::optional<std::string> serial, mac;
  auto* lumconfig = with_json(with_timeout(app.add_subcommand("lumconfig",
      "set a camera's serial number and MAC address (the camera reboots)"), s, 3), s);
  camera_arg(lumconfig);
  with_back_wait(lumconfig);
  lumconfig->add_option("--serial", serial, "serial number (up to 63 characters)");
  lumconfig->add_option("--mac", mac, "MAC address");

  // upgrade
  std::string file;
  upgrade_options uo;
  auto* upgrade = with_json(app.add_subcommand("upgrade", "upgrade one camera or many in one stream"), s);
  upgrade->add_option("FILE", file, "the upgrade file")->required();
  upgrade->add_option("--mode", uo.mode,
                      "1 system package, 2 controller image, 3 package with controller image,\n"
                      "4 whole flash, 5-9 one partition (5 = the first; see 'query')")
      ->required();
  auto* to = upgrade->add_option("--to", uo.to, "cameras, by device ID or address, comma-separated")
                 ->delimiter(',')
                 ->allow_extra_args(false);
  upgrade->add_flag("--all", uo.all, "every camera that answers the search")->excludes(to);
  std::string up_key, up_sig;
  auto* up_key_opt = upgrade->add_option("--key", up_key,
      "secret key file: sign the file for keyed cameras (the signature travels at its end)");
  upgrade->add_option("--signature", up_sig, "the file's detached signature (FILE.minisig) instead")
      ->excludes(up_key_opt);
  upgrade->add_option("--rate", uo.rate_mbit,
                      "Mbit/s of the stream and the NORM session; 0 sends the stream unpaced")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  std::string transfer = "auto", norm_group = kNormGroupDefault;
  upgrade->add_option("--transfer", transfer,
                      "auto: cameras that can take the file over NORM get it that way, the\n"
                      "others the stream (camtool for Windows: the stream only); stream: the\n"
                      "stream only, offered to no camera")
      ->capture_default_str()
      ->check(CLI::IsMember({"auto", "stream"}));
  upgrade->add_option("--norm-group", norm_group, "multicast group and port of the NORM session")
      ->capture_default_str();
  upgrade->add_option("--retries", uo.retries, "rounds again for cameras whose md5 failed")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  upgrade->add_option("--answer-wait", uo.answer_wait, "seconds to wait for the cameras' '0'")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  upgrade->add_option("--install-wait", uo.install_wait, "seconds to wait for the installation's answer")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  upgrade->add_option("--back-wait", uo.back_wait, "seconds to wait for a camera to come back")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  upgrade->footer(
      "A camera that answers '0' receives the file; it answers '5' (md5 ok) or '6' (md5\n"
      "failed: it reboots and gets the file again in the next round), then '7' (installed),\n"
      "'8' (controller programming failed) or '2' (failed), and reboots. '1' means not\n"
      "enough space, '9' another upgrade in progress.");

  // partner: the partner's binary protocol
  auto* partner = app.add_subcommand("partner",
      "the partner's binary protocol (236.5.7.1:8000; tracking on UDP 8001)");
  partner->require_subcommand(1);
  partner->footer("Cameras answer it only with partner=1 in /customer/upgrade.conf.");
  double p_wait = 2.0;
  auto* p_search = with_json(partner->add_subcommand("search", "find the cameras that answer it"), s);
  p_search->add_option("--wait", p_wait, "seconds to listen (the request is resent meanwhile)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  auto* p_query = with_json(with_timeout(partner->add_subcommand("query", "a camera's network settings"), s, 3), s);
  camera_arg(p_query);
  auto* p_set = with_json(with_timeout(partner->add_subcommand("set",
      "set a camera's network settings (the camera reboots to apply them)"), s, 3), s);
  camera_arg(p_set);
  settings_flags(p_set, false);
  std::optional<int> track_value;
  auto* p_track = with_json(with_timeout(partner->add_subcommand("track",
      "read a camera's tracking sensitivity, or set it (0-15)"), s, 5), s);
  camera_arg(p_track);
  p_track->add_option("VALUE", track_value, "the new sensitivity, 0 to 15");

  // broadcast: commissioning on UDP 12811
  auto* bcast = app.add_subcommand("broadcast", "broadcast commissioning (UDP 12811)");
  bcast->require_subcommand(1);
  bcast->footer("Cameras answer it only with broadcast=1 in /customer/upgrade.conf. A camera\n"
                "named by its device ID is reached by broadcast, one named by its address directly.");
  double b_wait = 2.0;
  std::string b_to = kBroadcastAll;
  auto* b_discover = with_json(bcast->add_subcommand("discover", "find the cameras and their network settings"), s);
  b_discover->add_option("--wait", b_wait, "seconds to listen (the request is resent meanwhile)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  b_discover->add_option("--to", b_to, "ask one address instead of broadcasting")->capture_default_str();
  auto* b_netconfig = with_json(with_timeout(bcast->add_subcommand("netconfig",
      "store a camera's network settings (applied at its next network start, no reboot)"), s, 3), s);
  camera_arg(b_netconfig);
  settings_flags(b_netconfig, true);
  std::string action, action_value;
  auto* b_production = with_json(with_timeout(bcast->add_subcommand("production",
      "send a production-mode action (never answered)"), s, 3), s);
  camera_arg(b_production);
  b_production->add_option("ACTION", action, production_names())->required();
  b_production->add_option("VALUE", action_value,
                           "on or off for test-enable and central-cross; the model for update-model");
  b_production->footer(
      "Every action but test-enable is ignored until 'test-enable on' has been sent; the\n"
      "camera never switches production mode off again.");

  // Site keys and signatures (no network).
  key_new_options kn;
  auto* key = app.add_subcommand("key", "site keys: Ed25519 key pairs in the release signer's format");
  key->require_subcommand(1);
  auto* key_new = key->add_subcommand("new", "make NAME.key (secret, mode 0600) and NAME.pub");
  key_new->add_option("NAME", kn.name, "the files' name without extension")->required();
  key_new->add_flag("--no-passphrase", kn.no_passphrase, "leave the secret key unencrypted");
  key_new->add_flag("--force", kn.force, "replace existing files");
  std::string key_camera, key_arg, key_secret;
  auto* key_install = with_timeout(key->add_subcommand("install",
      "put a public key on a camera (a camera with keys needs --key of one it holds)"), s, 3);
  key_install->add_option("CAMERA", key_camera, "device ID or IPv4 address")->required();
  key_install->add_option("PUBLIC_KEY_FILE", key_arg, "the .pub file")->required();
  key_install->add_option("--key", key_secret, "secret key file of a key the camera holds");
  auto* key_remove = with_timeout(key->add_subcommand("remove", "take a key off a camera"), s, 3);
  key_remove->add_option("CAMERA", key_camera, "device ID or IPv4 address")->required();
  key_remove->add_option("KEY_ID", key_arg, "the key's ID (16 hex digits)")->required();
  key_remove->add_option("--key", key_secret, "secret key file of a key the camera holds")->required();
  sign_options sg;
  auto* sign = app.add_subcommand("sign", "write a detached signature of a file (FILE.minisig)");
  sign->add_option("FILE", sg.file, "the file to sign")->required();
  sign->add_option("--key", sg.key_file, "secret key file")->required();
  sign->add_option("--output", sg.output, "signature file (default: FILE.minisig)");

  // status
  status_options st;
  auto* status = with_json(app.add_subcommand("status", "list post-upgrade reports and confirm them"), s);
  status->add_flag("--confirm", st.confirm, "confirm each report (the camera then stops waiting)");
  status->add_option("--wait", st.wait, "seconds to listen (default: until Ctrl-C)")
      ->check(CLI::PositiveNumber);
  status->add_option("--count", st.count, "end after this many cameras")->check(CLI::PositiveNumber);

  // --key on the commands that change a camera: a keyed camera takes them
  // only signed by one of its site keys.
  std::string cmd_key;
  for (CLI::App* cmd : {confignet, reboot, flicker, board, lumconfig})
    cmd->add_option("--key", cmd_key, "secret key file: sign the command for a keyed camera");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : kExitRefused;
  }

  install_interrupt_handler();
  const std::string client_id = random_id();
  try {
    if (key_new->parsed()) return cmd_key_new(kn, terminal_passphrase(), std::cout);
    if (sign->parsed()) return cmd_sign(sg, terminal_passphrase(), std::cout);
    if (search->parsed()) {
      so.json = s.json;
      lazy_lan lan(lan_opener(s, {channel::batch}));
      return run_search(lan(), client_id, so, std::cout);
    }
    if (upgrade->parsed()) {
      uo.json = s.json;
      uo.live_progress = isatty(STDERR_FILENO) != 0;
      auto f = open_file(file);
      uo.file_name = os::base_name(file);
      if (!up_key.empty() || !up_sig.empty())
        f = signed_upgrade_file(std::move(f), uo.file_name, up_key, up_sig, terminal_passphrase());
      uo.transfer = transfer == "stream" ? transfer_mode::stream : transfer_mode::automatic;
      uo.norm_group = parse_norm_group(norm_group);
      check_upgrade(uo, f->size());
      // NORM talks on the interface the batch group is joined on.
      iface_choice iface = choose_interface(list_interfaces(), s.iface, default_route_interface());
      auto net = open_lan(iface, {channel::batch, channel::status});
      std::unique_ptr<norm_sender> norm;
      if (uo.transfer == transfer_mode::automatic) norm = make_norm_sender(iface.name);
      return run_upgrade(*net, client_id, *f, uo, std::cout, std::cerr, norm.get());
    }
    if (status->parsed()) {
      st.json = s.json;
      lazy_lan lan(lan_opener(s, {channel::status}));
      return run_status(lan(), client_id, st, std::cout);
    }
    double timeout = 3.0;
    for (const auto& [cmd, t] : s.timeout)
      if (cmd->parsed()) timeout = t;
    if (partner->parsed()) {
      lazy_lan lan(lan_opener(s, {channel::partner, channel::partner_alt, channel::direct}));
      command_context ctx{lan, client_id, std::cout, std::cerr, s.json, timeout, 3.0, back_wait, {}};
      if (p_search->parsed()) return cmd_partner_search(ctx, p_wait);
      if (p_query->parsed()) return cmd_partner_query(ctx, who);
      if (p_set->parsed()) return cmd_partner_set(ctx, who, cf);
      return cmd_partner_track(ctx, who, track_value);
    }
    if (bcast->parsed()) {
      lazy_lan lan(lan_opener(s, {channel::direct}));
      command_context ctx{lan, client_id, std::cout, std::cerr, s.json, timeout, 3.0, back_wait, {}};
      if (b_discover->parsed()) return cmd_broadcast_discover(ctx, b_to, b_wait);
      if (b_netconfig->parsed()) return cmd_broadcast_netconfig(ctx, who, cf);
      return cmd_broadcast_production(ctx, who, action, action_value);
    }
    lazy_lan lan(lan_opener(s, {channel::batch}));
    command_context ctx{lan, client_id, std::cout, std::cerr, s.json, timeout, 3.0, back_wait, {}};
    ctx.sign = [&](const wire::camera_record& c, const std::string& request) {
      return sign_for(c, request, cmd_key, terminal_passphrase());
    };
    if (key_install->parsed())
      return cmd_key_install(ctx, key_camera, key_arg, key_secret, terminal_passphrase());
    if (key_remove->parsed())
      return cmd_key_remove(ctx, key_camera, key_arg, key_secret, terminal_passphrase());
    if (confignet->parsed()) return cmd_confignet(ctx, who, cf);
    if (reboot->parsed()) return cmd_reboot(ctx, who, !no_wait);
    if (flicker->parsed()) return cmd_flicker(ctx, who, led);
    if (board->parsed()) return cmd_board_test(ctx, who, bo);
    if (query->parsed()) return cmd_query(ctx, whos);
    if (production->parsed()) return cmd_production(ctx, who);
    if (lumconfig->parsed()) return cmd_lumconfig(ctx, who, serial, mac);
  } catch (const tool_error& e) {
    std::cout.flush();
    std::cerr << "camtool: " << e.what() << "\n";
    return e.status;
  }
  return 0;
}
