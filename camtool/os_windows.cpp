// camtool's system calls on Windows: Winsock 2, the IP helper's adapter and
// route tables, the console, CreateFile with an owner-only access list, and
// the console's Ctrl-C handler (see os.h).
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
#include <mswsock.h>
#include <sddl.h>
#include <aclapi.h>

#include <atomic>
#include <iostream>
#include <memory>

#include "camtool/os.h"
#include "camtool/upgrade.h"

namespace camtool {
namespace {

std::atomic<bool> g_interrupted{false};

// The system's words for an error code, without the trailing line end.
std::string error_text(DWORD code) {
  char* text = nullptr;
  DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                               FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string out = n > 0 ? std::string(text, n) : "error " + std::to_string(code);
  if (text != nullptr) LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == '.')) out.pop_back();
  return out;
}

std::string socket_error() { return error_text(static_cast<DWORD>(WSAGetLastError())); }

// Winsock is started once, before the first socket, and stays up.
void start_winsock() {
  static const int started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  if (started != 0)
    throw tool_error("Winsock did not start: " + error_text(static_cast<DWORD>(started)), kExitFailed);
}

sockaddr_in address(const std::string& ip, int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<u_short>(port));
  inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
  return a;
}

[[noreturn]] void fail(SOCKET s, const std::string& what) {
  std::string msg = what + ": " + socket_error();
  closesocket(s);
  throw tool_error(msg, kExitFailed);
}

// Non-blocking: a read of an empty queue returns at once (there is no
// MSG_DONTWAIT here).
SOCKET udp_socket() {
  start_winsock();
  SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) throw tool_error("socket: " + socket_error(), kExitFailed);
  u_long nonblocking = 1;
  if (ioctlsocket(s, FIONBIO, &nonblocking) != 0) fail(s, "socket");
  return s;
}

template <typename T>
int set(SOCKET s, int level, int name, T value) {
  return setsockopt(s, level, name, reinterpret_cast<const char*>(&value), sizeof(value));
}

std::string utf8(const wchar_t* w) {
  int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
  if (n <= 1) return "";
  std::string out(static_cast<size_t>(n - 1), '\0');
  WideCharToMultiByte(CP_UTF8, 0, w, -1, out.data(), n, nullptr, nullptr);
  return out;
}

// The adapters with their IPv4 addresses, as the IP helper lists them.
std::unique_ptr<char[]> adapters() {
  ULONG size = 16384;
  for (int tries = 0; tries < 4; ++tries) {
    auto buf = std::make_unique<char[]>(size);
    ULONG r = GetAdaptersAddresses(AF_INET,
                                   GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST |
                                       GAA_FLAG_SKIP_DNS_SERVER,
                                   nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.get()), &size);
    if (r == ERROR_SUCCESS) return buf;
    if (r != ERROR_BUFFER_OVERFLOW) break;
  }
  return nullptr;
}

class handle_file : public file_source {
 public:
  handle_file(HANDLE h, uint64_t size, std::string path) : h_(h), size_(size), path_(std::move(path)) {}
  ~handle_file() override { CloseHandle(h_); }
  uint64_t size() const override { return size_; }
  void read(uint64_t offset, char* buf, size_t len) override {
    while (len > 0) {
      OVERLAPPED at = {};
      at.Offset = static_cast<DWORD>(offset);
      at.OffsetHigh = static_cast<DWORD>(offset >> 32);
      DWORD want = static_cast<DWORD>(std::min<size_t>(len, 1u << 30)), got = 0;
      if (!ReadFile(h_, buf, want, &got, &at) || got == 0)
        throw tool_error("reading " + path_ + ": " + (got == 0 ? "file shrank" : error_text(GetLastError())),
                         kExitFailed);
      buf += got;
      len -= got;
      offset += got;
    }
  }

 private:
  HANDLE h_;
  uint64_t size_;
  std::string path_;
};

// A protected access list that grants the current user alone full control.
struct owner_only {
  PSECURITY_DESCRIPTOR sd = nullptr;
  PACL dacl = nullptr;
  owner_only() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    auto user = std::make_unique<char[]>(size);
    char* sid_text = nullptr;
    if (GetTokenInformation(token, TokenUser, user.get(), size, &size) &&
        ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid, &sid_text)) {
      std::string sddl = std::string("D:P(A;;FA;;;") + sid_text + ")";
      LocalFree(sid_text);
      BOOL present = FALSE, defaulted = FALSE;
      if (ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1, &sd, nullptr))
        GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted);
    }
    CloseHandle(token);
  }
  ~owner_only() {
    if (sd != nullptr) LocalFree(sd);
  }
};

BOOL WINAPI on_console_event(DWORD event) {
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT) {
    g_interrupted = true;
    return TRUE;
  }
  return FALSE;
}

}  // namespace

namespace os {

// Windows does not bind a socket to a group's address: the socket is bound
// to the port, and hears the groups it joined.
socket_handle open_group_socket(const char* group, int port, const iface_choice& iface) {
  SOCKET s = udp_socket();
  set(s, SOL_SOCKET, SO_REUSEADDR, BOOL{TRUE});
  sockaddr_in bind_to = address("0.0.0.0", port);
  if (bind(s, reinterpret_cast<sockaddr*>(&bind_to), sizeof(bind_to)) != 0)
    fail(s, "cannot bind port " + std::to_string(port) + " for " + group);
  ip_mreq m = {};
  inet_pton(AF_INET, group, &m.imr_multiaddr);
  inet_pton(AF_INET, iface.ipv4.c_str(), &m.imr_interface);
  if (set(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, m) != 0)
    fail(s, std::string("cannot join ") + group + " on " + iface.name + " (" + iface.ipv4 + ")");
  if (set(s, IPPROTO_IP, IP_MULTICAST_IF, m.imr_interface) != 0)
    fail(s, "cannot send multicast on " + iface.name);
  set(s, IPPROTO_IP, IP_MULTICAST_LOOP, DWORD{0});
  set(s, IPPROTO_IP, IP_MULTICAST_TTL, DWORD{1});
  set(s, SOL_SOCKET, SO_RCVBUF, int{1 << 20});  // bursts of replies from a whole site
  return static_cast<socket_handle>(s);
}

// Bound to the interface's address: the replies come back to it, and a
// datagram for 255.255.255.255 leaves through this interface.
socket_handle open_direct_socket(const iface_choice& iface) {
  SOCKET s = udp_socket();
  set(s, SOL_SOCKET, SO_BROADCAST, BOOL{TRUE});
  // An ICMP "port unreachable" for an earlier datagram would otherwise end
  // the next read with WSAECONNRESET.
  BOOL off = FALSE;
  DWORD unused = 0;
  WSAIoctl(s, SIO_UDP_CONNRESET, &off, sizeof(off), nullptr, 0, &unused, nullptr, nullptr);
  sockaddr_in local = address(iface.ipv4, 0);
  if (bind(s, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0)
    fail(s, "cannot bind a socket to " + iface.ipv4 + " on " + iface.name);
  return static_cast<socket_handle>(s);
}

void close_socket(socket_handle s) { closesocket(static_cast<SOCKET>(s)); }

void send_datagram(socket_handle h, const std::string& ip, int port, std::string_view data,
                   const std::string& iface_name) {
  SOCKET s = static_cast<SOCKET>(h);
  sockaddr_in to = address(ip, port);
  // A fast stream can fill the socket's send queue: wait for room.
  for (int tries = 0;; ++tries) {
    int n = sendto(s, data.data(), static_cast<int>(data.size()), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof(to));
    if (n == static_cast<int>(data.size())) return;
    int e = n < 0 ? WSAGetLastError() : 0;
    if ((e == WSAEWOULDBLOCK || e == WSAENOBUFS) && tries < 1000) {
      fd_set w;
      FD_ZERO(&w);
      FD_SET(s, &w);
      timeval ms = {0, 1000};
      select(0, nullptr, &w, nullptr, &ms);
      continue;
    }
    throw tool_error("sending to " + ip + ":" + std::to_string(port) + " on " + iface_name + ": " +
                         (n < 0 ? error_text(static_cast<DWORD>(e)) : "short send"),
                     kExitFailed);
  }
}

std::optional<received> take_datagram(socket_handle h) {
  char buf[65536];
  for (;;) {
    sockaddr_in from = {};
    int len = sizeof(from);
    int n = recvfrom(static_cast<SOCKET>(h), buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0) {
      // A reset for an earlier datagram is not a datagram: read on.
      if (WSAGetLastError() == WSAECONNRESET) continue;
      return std::nullopt;
    }
    char ip[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &from.sin_addr, ip, sizeof(ip));
    return received{ip, std::string(buf, static_cast<size_t>(n))};
  }
}

// Ctrl-C cannot end a wait in select(): the wait is cut into slices of at
// most a fifth of a second, after each of which the caller checks the flag.
void wait_readable(const std::vector<socket_handle>& sockets, clock::duration left) {
  fd_set r;
  FD_ZERO(&r);
  for (socket_handle s : sockets) FD_SET(static_cast<SOCKET>(s), &r);
  auto us = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
  us = std::max<long long>(1, std::min<long long>(us, 200000));
  timeval tv = {0, static_cast<long>(us)};
  if (select(0, &r, nullptr, nullptr, &tv) == SOCKET_ERROR)
    throw tool_error("waiting for replies: " + socket_error(), kExitFailed);
}

bool stdin_is_terminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

std::string read_hidden_line(const std::string& prompt) {
  HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  DWORD old = 0;
  GetConsoleMode(in, &old);
  std::cerr << prompt << std::flush;
  SetConsoleMode(in, old & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  std::string line;
  std::getline(std::cin, line);
  SetConsoleMode(in, old);
  std::cerr << "\n";
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

void write_new_file(const std::string& path, const std::string& text, bool secret, bool replace) {
  DWORD attrs = GetFileAttributesA(path.c_str());
  if (attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
    throw tool_error(path + ": is a link; camtool does not write through it");
  owner_only acl;
  if (secret && acl.dacl == nullptr)
    throw tool_error("cannot make an access list for " + path + ": " + error_text(GetLastError()));
  SECURITY_ATTRIBUTES sa = {sizeof(sa), secret ? acl.sd : nullptr, FALSE};
  HANDLE h = CreateFileA(path.c_str(), GENERIC_WRITE | (secret ? WRITE_DAC : 0), 0, &sa,
                         replace ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD e = GetLastError();
    throw tool_error(path + ": " + error_text(e) +
                     (e == ERROR_FILE_EXISTS || e == ERROR_ALREADY_EXISTS ? " (--force replaces it)" : ""));
  }
  // A replaced file keeps its old access list unless it is set again.
  DWORD e = ERROR_SUCCESS, wrote = 0;
  if (secret)
    e = SetSecurityInfo(h, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                        nullptr, nullptr, acl.dacl, nullptr);
  if (e == ERROR_SUCCESS &&
      (!WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &wrote, nullptr) || wrote != text.size()))
    e = GetLastError();
  CloseHandle(h);
  if (e != ERROR_SUCCESS) throw tool_error("cannot write " + path + ": " + error_text(e));
}

std::string base_name(const std::string& path) {
  size_t at = path.find_last_of("/\\:");
  return at == std::string::npos ? path : path.substr(at + 1);
}

}  // namespace os

std::vector<iface_info> list_interfaces() {
  std::vector<iface_info> out;
  auto buf = adapters();
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.get()); a != nullptr; a = a->Next) {
    iface_info info{utf8(a->FriendlyName), "", a->OperStatus == IfOperStatusUp,
                    a->IfType == IF_TYPE_SOFTWARE_LOOPBACK};
    for (auto* u = a->FirstUnicastAddress; u != nullptr && info.ipv4.empty(); u = u->Next) {
      if (u->Address.lpSockaddr->sa_family != AF_INET) continue;
      char ip[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(u->Address.lpSockaddr)->sin_addr, ip, sizeof(ip));
      info.ipv4 = ip;
    }
    out.push_back(info);
  }
  return out;
}

// The adapter of the default route with the lowest metric.
std::string default_route_interface() {
  ULONG size = 0;
  GetIpForwardTable(nullptr, &size, FALSE);
  auto table_buf = std::make_unique<char[]>(size + 1);
  auto* table = reinterpret_cast<MIB_IPFORWARDTABLE*>(table_buf.get());
  if (size == 0 || GetIpForwardTable(table, &size, FALSE) != NO_ERROR) return "";
  const MIB_IPFORWARDROW* best = nullptr;
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_IPFORWARDROW& r = table->table[i];
    if (r.dwForwardDest == 0 && r.dwForwardMask == 0 &&
        (best == nullptr || r.dwForwardMetric1 < best->dwForwardMetric1))
      best = &r;
  }
  if (best == nullptr) return "";
  auto buf = adapters();
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.get()); a != nullptr; a = a->Next)
    if (a->IfIndex == best->dwForwardIfIndex) return utf8(a->FriendlyName);
  return "";
}

std::unique_ptr<file_source> open_file(const std::string& path) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) throw tool_error("cannot open " + path + ": " + error_text(GetLastError()));
  LARGE_INTEGER size = {};
  if (GetFileType(h) != FILE_TYPE_DISK || !GetFileSizeEx(h, &size) ||
      (GetFileAttributesA(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    CloseHandle(h);
    throw tool_error(path + " is not a regular file");
  }
  return std::make_unique<handle_file>(h, static_cast<uint64_t>(size.QuadPart), path);
}

bool interrupted() { return g_interrupted; }

void install_interrupt_handler() { SetConsoleCtrlHandler(on_console_event, TRUE); }

}  // namespace camtool
