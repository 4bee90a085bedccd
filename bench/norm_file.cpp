// norm_file: one file to many receivers over NORM (RFC 5740, libnorm), the
// way a site upgrade would carry a camera's upgrade file. A benchmark
// program: bench/lossy_norm.py runs one sender and N receivers on a lossy
// namespace LAN and counts what goes over the wire.
//
//   norm_file send --file PATH [--name NAME] [--iface IF] [--acks 1-20|none] ...
//   norm_file recv --dir DIR --name NAME --size BYTES --id N [--iface IF] ...
//
// Both print one line of key=value figures on standard output when they end.
// The repair work (NACKs, their suppression, Reed-Solomon parity, rate) is
// libnorm's; this program only configures it and handles the file.
//
// The settings, and why (all can be changed on the command line):
// - segment 1400 bytes: a NORM data packet carries at most 48 bytes of
//   NORM header, so it is at most 1400 + 48 + 8 (UDP) + 20 (IP) = 1476
//   bytes, under a 1500-byte LAN MTU: no IP fragments (fragmentation is
//   also switched off on the socket), so one lost frame costs one segment.
// - FEC object information (size, segment, block) in NORM_INFO only, not in
//   every data packet: 16 bytes less per packet (--full-info puts it back).
// - block 128 segments, 32 parity segments computed per block (8-bit
//   Reed-Solomon, 160 <= 255): a block is 175 KiB. One parity segment repairs
//   a different lost segment at every receiver, so the repair a block needs
//   is the largest number lost by any one receiver, not the sum. Long blocks
//   make that maximum small relative to the block; 32 parity covers up to
//   25 % loss within a block before the sender falls back to resending
//   source segments.
// - auto parity 0: nothing proactive by default; a lossless site then pays
//   no extra bytes. --auto-parity N adds N parity segments to every block,
//   which spares a NACK round when every receiver loses at most N.
// - fixed rate (--rate bits/s), congestion control off: a site upgrade runs
//   on a LAN whose capacity the technician chooses; the same rate is given
//   to the tool this is compared with.
// - GRTT (the group round-trip time that scales every NACK, repair and
//   acknowledgement timer): initial estimate 10 ms and at most 20 ms, a LAN;
//   libnorm's defaults (0.5 s, at most 10 s) would make each repair round
//   wait seconds, and a receiver slow to answer (a busy camera) inflates the
//   measured value. Measured by active probing: receivers answer the
//   sender's probes with acknowledgements that are themselves suppressed
//   group-wise (a few packets per probe, not one per receiver). Passive
//   probing (--probe passive: answers only inside NACKs, so a receiver with
//   nothing missing is silent until the final acknowledgement) measured a
//   worse GRTT on the loaded rig and slower repair tails.
// - backoff factor 2 (default 4) and group size as given (default 200, the
//   largest site expected): NACK timers are random within backoff * GRTT
//   and shaped by the group size, so a receiver that hears another's NACK
//   covering its own loss suppresses its own.
// - acknowledgement: with --acks the sender lists the receivers' node IDs
//   and sets a watermark on the file: after the file it asks each listed
//   receiver for a positive acknowledgement (repeated up to the robust
//   factor, 20, then asked again up to --ack-rounds times, only of those
//   that have not answered) and knows which ones have every byte. With
//   --acks none it only flushes (NORM_NODE_NONE): receivers stay silent
//   unless they miss something, and the sender ends when a full flush drew
//   no NACK, without knowing who has the file.
// - pacing: libnorm paces packets on its protocol thread's timer; on a busy
//   machine a late wake-up is time lost, and the first pass of a 16 MiB
//   file at 50 Mbit/s took 2.7-3.6 s instead of 2.8 s on the loaded test
//   machine. --boost (NormCreateInstance's priority boost: the protocol
//   thread runs SCHED_FIFO, which needs root or CAP_SYS_NICE) kept it at
//   2.7-2.8 s there, for about 40 % more sender CPU. Off by default.
// - buffers: the sender keeps the parity state of 8 MiB of blocks (the
//   whole 16 MiB file at 32 parity per 128 segments is 3.3 MiB), so repairs
//   never recompute parity; a receiver keeps 4 MiB of incomplete blocks.

#include <normApi.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// --key value pairs after the mode word; a bare --key is "1".
struct Options {
    std::map<std::string, std::string> values;

    std::string text(const std::string& key, const std::string& fallback) const
    {
        auto it = values.find(key);
        return it == values.end() ? fallback : it->second;
    }
    double number(const std::string& key, double fallback) const
    {
        auto it = values.find(key);
        if (it == values.end())
            return fallback;
        char* end = nullptr;
        double v = std::strtod(it->second.c_str(), &end);
        if (end == it->second.c_str() || *end != '\0') {
            std::fprintf(stderr, "norm_file: --%s wants a number, not '%s'\n", key.c_str(),
                         it->second.c_str());
            std::exit(2);
        }
        return v;
    }
    bool has(const std::string& key) const { return values.count(key) != 0; }
};

Options parse(int argc, char** argv)
{
    Options o;
    for (int i = 2; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a.size() < 3 || a.substr(0, 2) != "--") {
            std::fprintf(stderr, "norm_file: unexpected argument '%s'\n", argv[i]);
            std::exit(2);
        }
        std::string key(a.substr(2));
        if (i + 1 < argc && std::string_view(argv[i + 1]).substr(0, 2) != "--")
            o.values[key] = argv[++i];
        else
            o.values[key] = "1";
    }
    return o;
}

// A name the receiver may create in its directory: a plain file name.
bool plain_name(std::string_view name)
{
    if (name.empty() || name.size() > 128 || name == "." || name == "..")
        return false;
    return std::none_of(name.begin(), name.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return c == '/' || c == '\\' || u < 0x20 || u == 0x7f;
    });
}

// "1-20" or "1,2,5" or "none".
std::vector<NormNodeId> node_list(const std::string& text)
{
    std::vector<NormNodeId> ids;
    if (text == "none" || text.empty())
        return ids;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        std::string part = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        size_t dash = part.find('-');
        unsigned long lo = std::strtoul(part.c_str(), nullptr, 10);
        unsigned long hi = dash == std::string::npos ? lo : std::strtoul(part.c_str() + dash + 1, nullptr, 10);
        if (lo == 0 || hi < lo || hi - lo > 100000) {
            std::fprintf(stderr, "norm_file: bad node list '%s'\n", text.c_str());
            std::exit(2);
        }
        for (unsigned long id = lo; id <= hi; ++id)
            ids.push_back(static_cast<NormNodeId>(id));
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    return ids;
}

// Waits up to `timeout` seconds for the next event; false on timeout.
bool next_event(NormInstanceHandle instance, NormEvent& ev, double timeout)
{
    pollfd p{NormGetDescriptor(instance), POLLIN, 0};
    int ms = static_cast<int>(std::max(0.0, timeout) * 1000.0);
    if (poll(&p, 1, ms) <= 0)
        return false;
    return NormGetNextEvent(instance, &ev, false);
}

struct Session {
    NormInstanceHandle instance = NORM_INSTANCE_INVALID;
    NormSessionHandle session = NORM_SESSION_INVALID;

    Session(const Options& o, NormNodeId id)
    {
        // --boost raises the protocol thread's scheduling priority, so that
        // its packet pacing keeps the rate on a busy machine.
        instance = NormCreateInstance(o.has("boost"));
        if (instance == NORM_INSTANCE_INVALID) {
            std::fprintf(stderr, "norm_file: no NORM instance\n");
            std::exit(1);
        }
        std::string addr = o.text("addr", "239.255.255.253");
        auto port = static_cast<UINT16>(o.number("port", 8010));
        session = NormCreateSession(instance, addr.c_str(), port, id);
        if (session == NORM_SESSION_INVALID) {
            std::fprintf(stderr, "norm_file: no NORM session on %s:%u\n", addr.c_str(), port);
            std::exit(1);
        }
        if (o.has("iface") && !NormSetMulticastInterface(session, o.text("iface", "").c_str())) {
            std::fprintf(stderr, "norm_file: interface %s refused\n", o.text("iface", "").c_str());
            std::exit(1);
        }
        NormSetTTL(session, 1);
        NormSetMulticastLoopback(session, false);
        NormSetFragmentation(session, false);  // DF set: a too-large segment fails, never fragments
        int debug = static_cast<int>(o.number("debug", 0));
        if (debug > 0)
            NormSetDebugLevel(static_cast<unsigned>(debug));
    }
    ~Session()
    {
        NormDestroySession(session);
        NormDestroyInstance(instance);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
};

NormProbingMode probing(const std::string& mode)
{
    if (mode == "active")
        return NORM_PROBE_ACTIVE;
    if (mode == "none")
        return NORM_PROBE_NONE;
    if (mode != "passive") {
        std::fprintf(stderr, "norm_file: --probe active|passive|none\n");
        std::exit(2);
    }
    return NORM_PROBE_PASSIVE;
}

int send_main(const Options& o)
{
    std::string path = o.text("file", "");
    struct stat st{};
    if (path.empty() || stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "norm_file send: --file names no regular file\n");
        return 2;
    }
    std::string name = o.text("name", path.substr(path.rfind('/') + 1));
    auto segment = static_cast<UINT16>(o.number("segment", 1400));
    auto block = static_cast<UINT16>(o.number("block", 128));
    auto parity = static_cast<UINT16>(o.number("parity", 32));
    auto auto_parity = static_cast<unsigned char>(o.number("auto-parity", 0));
    if (auto_parity > parity || block + parity > 255) {
        std::fprintf(stderr, "norm_file send: want auto-parity <= parity and block + parity <= 255\n");
        return 2;
    }
    std::vector<NormNodeId> acks = node_list(o.text("acks", "none"));
    double timeout = o.number("timeout", 300);

    Session s(o, static_cast<NormNodeId>(o.number("id", 1000)));
    NormSetTxRate(s.session, o.number("rate", 50e6));
    NormSetCongestionControl(s.session, false);
    NormSetGrttEstimate(s.session, o.number("grtt", 0.01));
    NormSetGrttMax(s.session, o.number("grtt-max", 0.02));
    // FEC object information in NORM_INFO only (16 bytes less per data
    // packet) unless --full-info.
    NormLimitObjectInfo(s.session, !o.has("full-info"));
    NormSetGrttProbingMode(s.session, probing(o.text("probe", "active")));
    NormSetBackoffFactor(s.session, o.number("backoff", 2));
    NormSetGroupSize(s.session, static_cast<unsigned>(o.number("group-size", 200)));
    NormSetTxRobustFactor(s.session, static_cast<int>(o.number("robust", 20)));
    auto buffer = static_cast<UINT32>(o.number("buffer", 8 * 1024 * 1024));
    if (!NormStartSender(s.session, NormGetRandomSessionId(), buffer, segment, block, parity)) {
        std::fprintf(stderr, "norm_file send: the sender did not start\n");
        return 1;
    }
    NormSetTxSocketBuffer(s.session, 4 * 1024 * 1024);
    NormSetAutoParity(s.session, auto_parity);
    for (NormNodeId id : acks)
        NormAddAckingNode(s.session, id);
    if (acks.empty())
        NormAddAckingNode(s.session, NORM_NODE_NONE);

    auto t0 = Clock::now();
    NormObjectHandle obj = NormFileEnqueue(s.session, path.c_str(), name.data(),
                                           static_cast<unsigned>(name.size()));
    if (obj == NORM_OBJECT_INVALID) {
        std::fprintf(stderr, "norm_file send: %s not enqueued\n", path.c_str());
        return 1;
    }
    NormSetWatermark(s.session, obj, true);

    std::optional<double> sent_at, done_at;
    int rounds = 1;
    const int max_rounds = static_cast<int>(o.number("ack-rounds", 4));
    while (!done_at) {
        double left = timeout - seconds_since(t0);
        if (left <= 0)
            break;
        NormEvent ev{};
        if (!next_event(s.instance, ev, left))
            continue;
        switch (ev.type) {
        case NORM_TX_OBJECT_SENT:
            if (!sent_at)
                sent_at = seconds_since(t0);
            break;
        case NORM_TX_WATERMARK_COMPLETED:
            // A receiver still busy with the file (or whose acknowledgements
            // were all lost) is asked again; those that answered are not.
            if (!acks.empty() && NormGetAckingStatus(s.session, NORM_NODE_ANY) != NORM_ACK_SUCCESS &&
                rounds < max_rounds) {
                ++rounds;
                NormResetWatermark(s.session);
                break;
            }
            done_at = seconds_since(t0);
            break;
        default:
            break;
        }
    }

    unsigned acked = 0;
    std::string missing;
    for (NormNodeId id : acks) {
        if (NormGetAckingStatus(s.session, id) == NORM_ACK_SUCCESS)
            ++acked;
        else {
            if (!missing.empty())
                missing += ',';
            missing += std::to_string(id);
        }
    }
    bool ok = done_at && (acks.empty() || acked == acks.size());
    std::printf("mode=send ok=%d size=%lld first_pass_s=%.3f done_s=%.3f acked=%u/%zu ack_rounds=%d missing=%s "
                "grtt_ms=%.2f segment=%u block=%u parity=%u auto_parity=%u\n",
                ok ? 1 : 0, static_cast<long long>(st.st_size), sent_at.value_or(-1),
                done_at.value_or(-1), acked, acks.size(), rounds, missing.empty() ? "-" : missing.c_str(),
                NormGetGrttEstimate(s.session) * 1000.0, segment, block, parity, auto_parity);
    std::fflush(stdout);
    NormStopSender(s.session);
    return ok ? 0 : 1;
}

int recv_main(const Options& o)
{
    std::string dir = o.text("dir", "");
    std::string name = o.text("name", "");
    double size_limit = o.number("size", -1);
    double silence = o.number("silence", 10);
    double linger = o.number("linger", 3);
    auto id = static_cast<NormNodeId>(o.number("id", 0));
    if (dir.empty() || !plain_name(name) || size_limit < 0 || id == 0) {
        std::fprintf(stderr, "norm_file recv: want --dir, a plain --name, --size and a --id above 0\n");
        return 2;
    }
    if (dir.back() != '/')
        dir += '/';
    const std::string target = dir + name;

    Session s(o, id);
    if (!NormSetCacheDirectory(s.instance, dir.c_str())) {
        std::fprintf(stderr, "norm_file recv: cannot receive into %s\n", dir.c_str());
        return 1;
    }
    NormSetSilentReceiver(s.session, o.has("silent"));
    NormSetRxPortReuse(s.session, true);
    if (!NormStartReceiver(s.session, static_cast<UINT32>(o.number("buffer", 4 * 1024 * 1024)))) {
        std::fprintf(stderr, "norm_file recv: the receiver did not start\n");
        return 1;
    }
    NormSetRxSocketBuffer(s.session, 4 * 1024 * 1024);

    auto t0 = Clock::now();
    auto last = t0;
    NormObjectHandle file = NORM_OBJECT_INVALID;
    std::optional<Clock::time_point> first_at;
    std::optional<double> complete_at;
    std::string outcome = "silence";
    std::string info_name = "-";
    long long refused_size = -1;

    auto drop_partial = [&] {
        if (file != NORM_OBJECT_INVALID) {
            char held[1024];
            if (NormFileGetName(file, held, sizeof held))
                ::unlink(held);
            NormObjectCancel(file);
            file = NORM_OBJECT_INVALID;
        }
    };

    for (;;) {
        double wait = complete_at ? linger - (seconds_since(t0) - *complete_at)
                                  : silence - std::chrono::duration<double>(Clock::now() - last).count();
        if (wait <= 0)
            break;
        NormEvent ev{};
        if (!next_event(s.instance, ev, wait))
            continue;
        last = Clock::now();
        if (ev.type == NORM_REMOTE_SENDER_INACTIVE && complete_at)
            break;
        if (ev.object == NORM_OBJECT_INVALID)
            continue;
        if (ev.type == NORM_RX_OBJECT_NEW) {
            NormSize announced = NormObjectGetSize(ev.object);
            if (file != NORM_OBJECT_INVALID || complete_at || NormObjectGetType(ev.object) != NORM_OBJECT_FILE) {
                NormObjectCancel(ev.object);  // one file per session
                continue;
            }
            if (announced > static_cast<NormSize>(size_limit)) {
                // Never written past the size the upgrade announced: refuse
                // the object before its first segment is stored.
                refused_size = static_cast<long long>(announced);
                char held[1024];
                if (NormFileGetName(ev.object, held, sizeof held))
                    ::unlink(held);
                NormObjectCancel(ev.object);
                outcome = "too_large";
                break;
            }
            file = ev.object;
            first_at = Clock::now();
            if (!NormFileRename(file, target.c_str())) {
                drop_partial();
                outcome = "rename_failed";
                break;
            }
            continue;
        }
        if (ev.object != file)
            continue;
        switch (ev.type) {
        case NORM_RX_OBJECT_INFO: {
            char buf[256];
            UINT16 n = NormObjectGetInfo(file, buf, sizeof buf - 1);
            info_name.assign(buf, n);
            if (!plain_name(info_name))
                info_name = "(not-plain)";
            break;
        }
        case NORM_RX_OBJECT_COMPLETED:
            complete_at = seconds_since(t0);
            outcome = "complete";
            // Stay a while: the sender's acknowledgement request may still come.
            break;
        case NORM_RX_OBJECT_ABORTED:
            outcome = "aborted";
            file = NORM_OBJECT_INVALID;
            break;
        default:
            break;
        }
        if (outcome == "aborted")
            break;
    }
    if (!complete_at)
        drop_partial();

    struct stat st{};
    long long stored = stat(target.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    double rx_secs = (complete_at && first_at)
                         ? *complete_at - std::chrono::duration<double>(*first_at - t0).count()
                         : -1;
    std::printf("mode=recv id=%u outcome=%s stored=%lld receive_s=%.3f info=%s refused_size=%lld\n", id,
                outcome.c_str(), stored, rx_secs, info_name.c_str(), refused_size);
    std::fflush(stdout);
    NormStopReceiver(s.session);
    return complete_at ? 0 : 1;
}

void usage()
{
    std::fprintf(stderr,
                 "usage: norm_file send --file PATH [--name NAME] [--iface IF] [--addr GROUP] [--port N]\n"
                 "                      [--rate BITS/S] [--segment 1400] [--block 128] [--parity 32]\n"
                 "                      [--auto-parity 0] [--acks 1-20|none] [--grtt 0.01]\n"
                 "                      [--grtt-max 0.02] [--full-info]\n"
                 "                      [--probe active|passive|none] [--backoff 2] [--group-size 200]\n"
                 "                      [--robust 20] [--ack-rounds 4] [--buffer BYTES] [--timeout 300]\n"
                 "                      [--id 1000] [--boost]\n"
                 "       norm_file recv --dir DIR --name NAME --size BYTES --id N [--iface IF]\n"
                 "                      [--addr GROUP] [--port N] [--silence 10] [--linger 3]\n"
                 "                      [--silent] [--buffer BYTES]\n");
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        usage();
        return 2;
    }
    std::string_view mode = argv[1];
    Options o = parse(argc, argv);
    if (mode == "send")
        return send_main(o);
    if (mode == "recv")
        return recv_main(o);
    usage();
    return 2;
}
