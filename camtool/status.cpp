#include "camtool/status.h"

#include <nlohmann/json.hpp>
#include <set>

#include "wire/replies.h"
#include "wire/upgrade.h"

namespace camtool {

int run_status(transport& net, const std::string& client_id, const status_options& o,
               std::ostream& out) {
  std::set<std::string> seen;
  time_point end = o.wait > 0 ? after(net.now(), o.wait) : time_point::max();
  while (!interrupted() && net.now() < end && (o.count == 0 || static_cast<int>(seen.size()) < o.count)) {
    auto d = net.receive(std::min(end, after(net.now(), 1.0)));
    if (!d || d->ch != channel::status) continue;
    auto r = wire::parse_status_report(d->data);
    if (!r) continue;
    if (o.confirm) net.send(channel::status, wire::status_confirmation(r->device_id, client_id));
    seen.insert(r->device_id);
    if (o.json) {
      out << nlohmann::json{{"device_id", r->device_id}, {"ip", d->src},       {"mac", r->mac},
                            {"version", r->version},     {"model", r->model}, {"confirmed", o.confirm}}
                 .dump()
          << "\n";
    } else {
      out << r->device_id << "  " << d->src << "  MAC " << r->mac << "  version " << r->version
          << "  model " << r->model << (o.confirm ? "  confirmed" : "  (not confirmed)") << "\n";
    }
    out.flush();
  }
  return o.count > 0 && static_cast<int>(seen.size()) < o.count ? kExitFailed : 0;
}

}  // namespace camtool
