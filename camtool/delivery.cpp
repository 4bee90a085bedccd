#include "camtool/delivery.h"

#include <algorithm>
#include <map>
#include <set>

#include "camtool/finder.h"
#include "wire/commands.h"
#include "wire/text.h"

namespace camtool {

namespace {

// A query's answer from this camera, by the client ID the query carried.
std::optional<std::string> query_answer_id(const datagram& d, const std::string& device_id) {
  auto r = wire::parse_id_reply(wire::kReplyQuery, d.data);
  if (!r || r->device_id != device_id) return std::nullopt;
  return r->client_id;
}

}  // namespace

delivery deliver(transport& net, const std::string& device_id, const std::string& request,
                 const std::function<bool(const datagram&)>& is_reply, const delivery_options& o) {
  delivery out;
  std::map<std::string, int> queries;  // client ID -> copies sent before the query
  time_point next_query{}, last_answer{};
  auto query = [&] {
    std::string id = random_id();
    queries[id] = out.copies;
    net.send(channel::batch, wire::query_request({device_id}, id));
    next_query = after(net.now(), o.probe_every);
  };
  auto send_copy = [&] {
    net.send(channel::batch, request);
    out.last_copy = net.now();
    if (++out.copies == 1) out.first_copy = out.last_copy;
    query();  // right behind the copy: answered only once the copy has been read
  };
  send_copy();
  while (!interrupted()) {
    time_point give_up = after(std::max(out.last_copy, last_answer), o.silence);
    if (net.now() >= give_up) break;
    auto d = net.receive(std::min(next_query, give_up));
    if (!d) {
      if (net.now() >= next_query && net.now() < give_up) query();
      continue;
    }
    if (o.answered && is_reply(*d)) {
      out.end = delivery_end::replied;
      out.reply = std::move(d);
      return out;
    }
    auto id = query_answer_id(*d, device_id);
    auto it = id ? queries.find(*id) : queries.end();
    if (it == queries.end()) continue;
    const int read = it->second;
    queries.erase(it);
    last_answer = net.now();  // alive, perhaps still working through older datagrams
    if (read < out.copies) continue;
    // It read the latest copy and answered a datagram sent after it: that
    // copy was lost, not taken, or its reply was lost.
    if (out.copies >= o.copies) {
      out.end = delivery_end::ignored;
      return out;
    }
    send_copy();
  }
  out.end = delivery_end::silent;
  return out;
}

comeback await_comeback(transport& net, const std::string& client_id,
                        const wire::camera_record& known, time_point known_at, double wait,
                        const std::function<bool(const datagram&)>& is_reply) {
  comeback out;
  const time_point end = after(net.now(), wait);
  std::set<std::string> queries;
  time_point next_query = net.now();
  while (!interrupted() && net.now() < end) {
    if (net.now() >= next_query) {
      std::string id = random_id();
      queries.insert(id);
      net.send(channel::batch, wire::query_request({known.device_id}, id));
      next_query = after(net.now(), 1.0);
    }
    auto d = net.receive(std::min(next_query, end));
    if (!d) continue;
    if (is_reply && is_reply(*d)) {
      out.late_reply = std::move(d);
      return out;
    }
    auto id = query_answer_id(*d, known.device_id);
    if (!id || !queries.count(*id)) continue;
    // It answers again: its search record tells whether it restarted.
    camera_map found = search(net, client_id, std::clamp(between(net.now(), end), 0.5, 3.0),
                              [&](const camera_map& m) { return m.count(known.device_id) > 0; });
    auto it = found.find(known.device_id);
    if (it == found.end()) continue;
    out.record = it->second;
    // Uptimes are whole seconds: a restart shows as well under the count
    // the camera would have reached without one.
    const double expected = static_cast<double>(known.uptime) + between(known_at, net.now());
    out.rebooted = static_cast<double>(it->second.uptime) + 2.0 < expected;
    return out;
  }
  return out;
}

}  // namespace camtool
