// zormesh-sim: a whole mesh of real daemons on one machine. Reads a scenario, starts one
// zormesh-node per access point under a root of its own, and plays for all of them the
// wireless driver, the air between them, the kernel mesh module, the wired network and the
// management side. Prints a timeline in simulated time, writes a JSON report and exits 0
// when every expectation holds, 1 when one fails, 2 on a bad scenario.
#include "emu_server.h"
#include "sim_model.h"
#include "sim_scenario.h"

#include "records.h"

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "platform/linux_os.h"
#include "platform/remote_proto.h"
#include "platform/unix_sock.h"
#include "platform/wrp.h"
#include "security/mesh_netlink.h"
#include "security/mesh_parent.h"
#include "security/mesh_payload.h"
#include "wlan/mesh_wlan.h"
#include "wlan/mesh_wlan_ie.h"
#include "wlan/mesh_wlan_scan.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <random>
#include <set>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

#ifndef ZORMESH_NODE_LAUNCHER
#define ZORMESH_NODE_LAUNCHER ""
#endif

namespace {

using emu::Bytes;
using nlohmann::json;
using sim::Mac;

constexpr int EXIT_PASS = 0;
constexpr int EXIT_FAIL = 1;
constexpr int EXIT_BAD_SCENARIO = 2;
constexpr int EXIT_TROUBLE = 3;

// The gateway of the wired network: the target the nodes' network check probes.
// "a, b" for a list of node names, "nobody" for none.
std::string namesText(const std::vector<std::string>& names) {
    std::string list;
    for (const auto& name : names) {
        list += (list.empty() ? "" : ", ") + name;
    }
    return list.empty() ? "nobody" : list;
}

constexpr Mac kGatewayMac = {0x02, 0x5a, 0xff, 0x00, 0x00, 0x01};
// Simulated seconds between a survey and the parent information it yields.
constexpr double kSurveyTime = 2.0;
// Interface indexes the packet sockets see.
constexpr int kBridgeIndex = 5;
constexpr int kBackhaulIndex = 6;
constexpr int kStationIndex = 7;

// The driver's profile as a fresh node finds it.
std::string defaultProfile(uint32_t channel) {
    return "Default\nBssidNum=4\nSSID=\nSSID1=zormesh-ap\nSSID2=\nSSID3=\nSSID4=\nWPAPSK=\n"
           "WPAPSK1=\nWPAPSK2=\nWPAPSK3=\nWPAPSK4=\nAuthMode=OPEN;OPEN;OPEN;OPEN\n"
           "EncrypType=NONE;NONE;NONE;NONE\nRekeyMethod=DISABLE;DISABLE;DISABLE;DISABLE\n"
           "HideSSID=0;0;0;0\nHT_BW=1\nVHT_BW=1\nHT_BSSCoexistence=0\nHT_EXTCHA=0\n"
           "AutoChannelSelect=0\nChannel=" +
           std::to_string(channel) + "\n";
}

uint32_t frequencyOf(uint32_t channel) {
    return channel <= 14 ? 2407 + 5 * channel : 5000 + 5 * channel;
}

std::string hexWord(uint32_t v) {
    char b[16];
    snprintf(b, sizeof b, "0x%X", v);
    return b;
}

// Undoes the shell's backslash escapes of an unquoted word.
std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size()) {
            ++i;
        }
        out += s[i];
    }
    return out;
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> w;
    std::string x;
    while (in >> x) {
        w.push_back(x);
    }
    return w;
}

bool readMac(const std::string& text, Mac* m) {
    unsigned v[6];
    char end;
    if (sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
               &end) != 6) {
        return false;
    }
    for (int i = 0; i < 6; ++i) {
        (*m)[i] = static_cast<uint8_t>(v[i]);
    }
    return true;
}

Mac macOf(const uint8_t* p) {
    Mac m{};
    memcpy(m.data(), p, 6);
    return m;
}

// ---- timeline -----------------------------------------------------------------------------

class Clock {
  public:
    void start(uint32_t scale) {
        scale_ = scale;
        t0_ = std::chrono::steady_clock::now();
    }
    double now() const {
        std::chrono::duration<double> d = std::chrono::steady_clock::now() - t0_;
        return d.count() * scale_;
    }
    // Real milliseconds until simulated time `t`.
    int realMsUntil(double t) const {
        double ms = (t - now()) * 1000.0 / scale_;
        return ms < 0 ? 0 : static_cast<int>(ms);
    }
    uint32_t scale() const { return scale_; }

  private:
    uint32_t scale_ = 1;
    std::chrono::steady_clock::time_point t0_;
};

Clock g_clock;

class Timeline {
  public:
    void setQuiet(bool quiet) { quiet_ = quiet; }
    // After the end of the run: what the models see while everything is torn down is noise.
    void close() {
        std::lock_guard<std::mutex> g(mu_);
        closed_ = true;
    }
    void add(const std::string& node, const std::string& text) {
        std::lock_guard<std::mutex> g(mu_);
        if (closed_) {
            return;
        }
        double t = g_clock.now();
        if (!quiet_) {
            printf("%8.1f s  %-8s %s\n", t, node.c_str(), text.c_str());
            fflush(stdout);
        }
        lines_.push_back({{"t", round1(t)}, {"node", node}, {"text", text}});
    }
    json lines() const {
        std::lock_guard<std::mutex> g(mu_);
        return lines_;
    }
    static double round1(double t) {
        return static_cast<double>(static_cast<long long>(t * 10)) / 10;
    }

  private:
    mutable std::mutex mu_;
    bool quiet_ = false;
    bool closed_ = false;
    json lines_ = json::array();
};

Timeline g_timeline;

// ---- the world: every model of every node -------------------------------------------------

struct Iface {
    bool up = false;
    bool bridged = false;
    std::map<std::string, std::string> settings; // from iwpriv lines
};

class World;

struct Node {
    sim::NodeDef def;
    int index = 0;
    std::string root;
    std::string bkh, sta; // interface names of the device configuration
    std::unique_ptr<emu::Handler> handler;
    std::unique_ptr<emu::Server> server;
    pid_t pid = -1;
    bool alive = false;

    // driver
    std::map<std::string, Iface> ifs;
    std::map<std::string, Bytes> elements; // "<interface>/<frame mask>/<type>" -> payload
    std::map<Mac, MESH_CHILD_RECORD> children;
    std::string staSsid, staPass;
    bool staEnabled = false;
    std::string parent; // the node the station is associated with
    std::string lastAssocWhy;
    std::map<uint32_t, std::deque<Bytes>> rx; // packet socket -> frames waiting
    int32_t nextSocket = 1;
    int lastArp = -1; // 1 answered, 0 not, -1 never asked

    // kernel mesh module
    uint32_t counter = 0;
    bool targetOn = false;
    bool loopOn = false;
    bool loopReported = false;

    // wired network
    bool uplink = false;
    bool portCable = false;

    // management side
    int state = 0; // last state the node notified
    json states = json::array();
    json parents = json::array();
    json notes = json::array();
    json errors = json::array();      // the daemon's error lines, under the world lock
    json modelErrors = json::array(); // what the models refused, under World::errMu_
    std::set<std::string> admitted, refused;
    std::mt19937_64 rng;
    long logPos = 0, outPos = 0;
    int errorsShown = 0;
    long peakRssKiB = 0; // the daemon's peak resident size, read before it is stopped

    std::mutex mqMu;
    std::condition_variable mqCv;
    std::deque<std::function<void()>> mq;
    bool mqStop = false;
    std::thread mqThread;
    int listenFds[3] = {-1, -1, -1}; // service 7, service 22, operation wrapper
    std::thread listener;
    std::atomic<bool> listenStop{false};

    Mac staMac() const {
        Mac m = def.mac;
        m[0] |= 0x02;
        m[5] = static_cast<uint8_t>(m[5] ^ 0x80);
        return m;
    }
    bool knownIface(const std::string& name) const {
        if (name == bkh || name == sta) {
            return true;
        }
        for (int i = 0; i < 4; ++i) {
            if (name == "rai" + std::to_string(i) || name == "ra" + std::to_string(i)) {
                return true;
            }
        }
        return false;
    }
    bool beaconOn() const { return elements.count(bkh + "/1/2") != 0; }
    bool backhaulUp() { return ifs[bkh].up && beaconOn(); }
};

class World {
  public:
    std::mutex mu;
    std::condition_variable packetCv;
    sim::Scenario sc;
    sim::Air air;
    std::set<std::pair<std::string, std::string>> wires;
    std::vector<std::unique_ptr<Node>> nodes;
    std::string nodeProgram;
    std::mt19937_64 rng;
    // Set when the run is over: the associations stay as the run left them for the report.
    bool tearingDown = false;

    Node* find(const std::string& name) {
        for (auto& n : nodes) {
            if (n->def.name == name) {
                return n.get();
            }
        }
        return nullptr;
    }
    Node* findByMac(const Mac& m) {
        for (auto& n : nodes) {
            if (n->def.mac == m) {
                return n.get();
            }
        }
        return nullptr;
    }

    // ---- agenda: actions at simulated times, run by the main loop ------------------------------
    void later(double dt, std::function<void()> fn) {
        std::lock_guard<std::mutex> g(agendaMu_);
        agenda_.emplace(g_clock.now() + dt, std::move(fn));
    }
    void at(double t, std::function<void()> fn) {
        std::lock_guard<std::mutex> g(agendaMu_);
        agenda_.emplace(t, std::move(fn));
    }
    void runDue() {
        for (;;) {
            std::function<void()> fn;
            {
                std::lock_guard<std::mutex> g(agendaMu_);
                if (agenda_.empty() || agenda_.begin()->first > g_clock.now()) {
                    return;
                }
                fn = std::move(agenda_.begin()->second);
                agenda_.erase(agenda_.begin());
            }
            fn();
        }
    }

    sim::Topology topology() { // caller holds mu
        sim::Topology t;
        for (auto& n : nodes) {
            if (n->uplink) {
                t.uplink.insert(n->def.name);
            }
            if (!n->parent.empty()) {
                t.parentOf[n->def.name] = n->parent;
            }
        }
        t.wires = wires;
        return t;
    }

    void error(Node& n, const std::string& what) { // caller holds mu or not: only the timeline
        g_timeline.add(n.def.name, "error: " + what);
        std::lock_guard<std::mutex> g(errMu_);
        n.modelErrors.push_back({{"t", Timeline::round1(g_clock.now())}, {"model", what}});
    }

    std::string firstModelError(Node& n) { // "" while the models refused nothing
        std::lock_guard<std::mutex> g(errMu_);
        return n.modelErrors.empty() ? "" : n.modelErrors.front()["model"].get<std::string>();
    }

    void noteParent(Node& n) { // caller holds mu
        n.parents.push_back({{"t", Timeline::round1(g_clock.now())},
                             {"parent", n.parent.empty() ? json(nullptr) : json(n.parent)}});
    }

    // ---- association
    // ------------------------------------------------------------------------------ Drops
    // associations that no longer hold; caller holds mu.
    void refresh() {
        if (tearingDown) {
            return;
        }
        for (auto& c : nodes) {
            if (c->parent.empty()) {
                continue;
            }
            Node* p = find(c->parent);
            std::string why;
            if (!c->alive) {
                why = "the node is down";
            } else if (!c->staEnabled || !c->ifs[c->sta].up) {
                why = "its station was switched off";
            } else if (p == nullptr || !p->alive) {
                why = "the parent is down";
            } else {
                sim::BackhaulView ap{p->ifs[p->bkh].settings["SSID"],
                                     p->ifs[p->bkh].settings["WPAPSK"], p->ifs[p->bkh].up,
                                     air.heard(c->def.name, p->def.name)};
                sim::Association a = sim::associate({c->staSsid, c->staPass}, ap);
                why = a.ok ? "" : a.why;
            }
            if (!why.empty()) {
                g_timeline.add(c->def.name, "lost its association with " + c->parent + ": " + why);
                c->parent.clear();
                noteParent(*c);
            }
        }
    }

    // A station that is switched on tries to join the backhaul AP it was configured for;
    // caller holds mu. Failures are told once per reason.
    void tryAssociate(Node& c) {
        if (tearingDown || !c.alive || !c.staEnabled || !c.parent.empty() || !c.ifs[c.sta].up ||
            c.staSsid.empty()) {
            return;
        }
        Node* target = nullptr;
        for (auto& p : nodes) {
            if (p.get() != &c && p->alive && p->ifs[p->bkh].settings["SSID"] == c.staSsid) {
                target = p.get();
            }
        }
        sim::Association a;
        if (target == nullptr) {
            a = {false, "no backhaul AP is named " + c.staSsid};
        } else {
            sim::BackhaulView ap{target->ifs[target->bkh].settings["SSID"],
                                 target->ifs[target->bkh].settings["WPAPSK"],
                                 target->ifs[target->bkh].up,
                                 air.heard(c.def.name, target->def.name)};
            a = sim::associate({c.staSsid, c.staPass}, ap);
        }
        if (a.ok) {
            c.parent = target->def.name;
            c.lastAssocWhy.clear();
            noteParent(c);
            g_timeline.add(c.def.name,
                           "associated with " + target->def.name + " (" +
                               std::to_string(*air.heard(c.def.name, target->def.name)) + " dBm)");
        } else if (a.why != c.lastAssocWhy) {
            c.lastAssocWhy = a.why;
            g_timeline.add(c.def.name, "association failed: " + a.why);
        }
    }

    void retryAssociations() {
        std::lock_guard<std::mutex> g(mu);
        refresh();
        for (auto& n : nodes) {
            tryAssociate(*n);
        }
    }

    // ---- the air: surveys, child probes and parent information ----------------------------------
    static Bytes netlinkEvent(uint32_t type, const void* record, size_t len) {
        Bytes m(MESH_NETLINK_RECORD_OFF + len, 0);
        uint32_t total = static_cast<uint32_t>(m.size());
        memcpy(m.data(), &total, 4);
        memcpy(m.data() + 16, &type, 4);
        memcpy(m.data() + MESH_NETLINK_RECORD_OFF, record, len);
        return m;
    }

    // A station started a site survey; caller holds mu.
    void survey(Node& c) {
        auto it = c.elements.find(c.sta + "/2/2");
        if (it == c.elements.end() || it->second.size() < sizeof(MESH_IE_PROBE_REQ)) {
            g_timeline.add(c.def.name, "site survey without a mesh probe-request element");
            return;
        }
        MESH_IE_PROBE_REQ req;
        memcpy(&req, it->second.data(), sizeof req);
        g_timeline.add(
            c.def.name,
            std::string("site survey, probing as a would-be child") +
                ((req.flags & MESH_PROBE_FLAG_SEARCHING) != 0 ? " looking for a parent" : ""));
        for (auto& pp : nodes) {
            Node& p = *pp;
            auto signal = air.heard(c.def.name, p.def.name);
            if (&p == &c || !p.alive || !signal || !p.backhaulUp()) {
                continue;
            }
            MESH_CHILD_PROBE probe{};
            memcpy(probe.deviceMac, req.deviceMac, 6);
            Mac staMac = c.staMac();
            memcpy(probe.staMac, staMac.data(), 6);
            probe.drv12 = static_cast<uint8_t>(p.def.channel);
            probe.drv13 = static_cast<int8_t>(*signal);
            probe.flags = req.flags;
            probe.probeAttr = req.probeAttr;
            memcpy(probe.controllerId, req.controllerId, 16);
            memcpy(probe.probeText, req.probeText, sizeof probe.probeText);
            probe.probeTextAttr = req.probeTextAttr;
            probe.keyLen = req.keyLen;
            memcpy(probe.key, req.key, sizeof probe.key);
            memcpy(probe.verCap, req.verCap, 4);
            Bytes ev = netlinkEvent(1, &probe, sizeof probe);
            emu::Server* server = p.server.get();
            std::string pn = p.def.name, cn = c.def.name;
            int sig = *signal;
            later(0, [server, ev, pn, cn, sig] {
                int to = server->pushNetlink(ev);
                g_timeline.add(pn, "hears " + cn + "'s probe request (" + std::to_string(sig) +
                                       " dBm)" + (to == 0 ? ", but no daemon listens" : ""));
            });
            bool allowed = p.def.admitAll;
            for (const auto& a : p.def.admit) {
                allowed = allowed || a == c.def.name;
            }
            if (!allowed) {
                if (p.refused.insert(c.def.name).second) {
                    g_timeline.add(p.def.name, "management refuses " + c.def.name + " (policy)");
                }
                continue;
            }
            if (p.admitted.insert(c.def.name).second) {
                Bytes payload(22);
                memcpy(payload.data(), req.deviceMac, 6);
                memcpy(payload.data() + 6, req.digest, 16);
                Node* target = &p;
                std::string child = c.def.name;
                later(0.5, [this, target, payload, child] {
                    command(*target, MESH_CMD_ADD_CHILD, payload, "admit " + child);
                });
            }
        }
        Node* cp = &c;
        later(kSurveyTime, [this, cp] { parentInfo(*cp); });
    }

    void parentInfo(Node& c) {
        Bytes ev;
        std::string chosen;
        int signal = 0;
        {
            std::lock_guard<std::mutex> g(mu);
            if (!c.alive) {
                return;
            }
            std::vector<sim::ParentView> views;
            for (auto& p : nodes) {
                if (p.get() == &c || !p->alive) {
                    continue;
                }
                auto rec = p->children.find(c.def.mac);
                views.push_back({p->def.name, air.heard(c.def.name, p->def.name), p->backhaulUp(),
                                 rec != p->children.end() && rec->second.data1Len != 0});
            }
            auto choice = sim::chooseParent(views, rng());
            if (!choice) {
                g_timeline.add(c.def.name, "no parent in range holds pairing blocks for it");
                return;
            }
            Node* p = find(*choice);
            const MESH_CHILD_RECORD& rec = p->children[c.def.mac];
            MESH_PARENT_INFO info{};
            memcpy(info.parentMac, p->def.mac.data(), 6);
            info.channel = static_cast<uint8_t>(p->def.channel);
            info.wlanMode = p->def.wlanMode;
            memcpy(info.data1, rec.data1, sizeof info.data1);
            info.data2Len = rec.data2Len;
            memcpy(info.data2, rec.data2, sizeof info.data2);
            ev = netlinkEvent(2, &info, sizeof info);
            chosen = *choice;
            signal = *air.heard(c.def.name, chosen);
        }
        int to = c.server->pushNetlink(ev);
        g_timeline.add(c.def.name, "parent information from " + chosen + " (" +
                                       std::to_string(signal) + " dBm)" +
                                       (to == 0 ? ", but no daemon listens" : ""));
    }

    // ---- management side
    // ---------------------------------------------------------------------------
    void manage(Node& n, std::function<void()> fn) {
        std::lock_guard<std::mutex> g(n.mqMu);
        n.mq.push_back(std::move(fn));
        n.mqCv.notify_one();
    }

    // Queues one command for the node's command socket.
    void command(Node& n, int32_t type, const Bytes& payload, const std::string& what) {
        Node* np = &n;
        manage(n, [np, type, payload, what] {
            std::string err = sendCommand(*np, type, payload);
            if (err.empty()) {
                g_timeline.add(np->def.name,
                               "management: " + what + " (type " + std::to_string(type) + ")");
            } else {
                g_timeline.add(np->def.name, "management: " + what + " (type " +
                                                 std::to_string(type) + ") failed: " + err);
            }
        });
    }

    // Sends one command and waits for its reply; its payload goes to `reply` when given.
    static std::string sendCommand(Node& n, int32_t type, const Bytes& payload,
                                   Bytes* reply = nullptr) {
        std::string path = n.root + "/var/run/usock/21.sock";
        int fd = -1;
        for (int i = 0; i < 400 && fd < 0; ++i) { // the node opens its socket after start-up
            fd = unix_sock_connectPath(path.c_str());
            if (fd < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        if (fd < 0) {
            return "no command socket at " + path;
        }
        timeval tv{30, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        uint8_t msg[UNIX_SOCK_HEADER_SIZE + MESH_CMD_MSG_LEN] = {};
        uint32_t h[4] = {UNIX_SOCK_MAGIC, MESH_CMD_MSG_CODE, MESH_CMD_MSG_LEN, 0};
        memcpy(msg, h, sizeof h);
        memcpy(msg + UNIX_SOCK_HEADER_SIZE, &type, 4);
        std::copy_n(payload.begin(),
                    std::min(payload.size(), static_cast<size_t>(MESH_CMD_PAYLOAD_LEN)),
                    msg + UNIX_SOCK_HEADER_SIZE + 8);
        if (send(fd, msg, sizeof msg, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof msg)) {
            close(fd);
            return std::string("send: ") + strerror(errno);
        }
        size_t got = 0;
        int err = 0;
        while (got < sizeof msg) {
            ssize_t r = recv(fd, msg + got, sizeof msg - got, 0);
            if (r < 0 && errno == EINTR) {
                continue;
            }
            if (r <= 0) {
                err = r < 0 ? errno : 0;
                break;
            }
            got += static_cast<size_t>(r);
        }
        close(fd);
        if (got == sizeof msg) {
            if (reply != nullptr) {
                reply->assign(msg + UNIX_SOCK_HEADER_SIZE + 8, msg + sizeof msg);
            }
            return "";
        }
        return "no reply (" + std::to_string(got) + " bytes" +
               (err != 0 ? std::string(", ") + strerror(err) : std::string()) + ")";
    }

    // The management side's queries of Answer expectations, run on the node's management
    // thread; what they found is kept in `answers` for the judge.
    struct Answer {
        std::string err;
        std::vector<std::string> names;
    };
    std::map<const sim::ExpectDef*, Answer> answers; // guarded by mu

    void ask(Node& n, const sim::ExpectDef* x) {
        Node* np = &n;
        manage(n, [this, np, x] {
            Answer a;
            std::vector<Mac> macs;
            a.err = x->query == sim::Query::Candidates ? scanParents(*np, macs)
                                                       : onlineChildren(*np, macs);
            std::lock_guard<std::mutex> g(mu);
            for (const Mac& m : macs) {
                Node* who = nullptr;
                for (auto& c : nodes) {
                    if (c->def.mac == m || c->staMac() == m) {
                        who = c.get();
                    }
                }
                a.names.push_back(who != nullptr ? who->def.name : sim::macText(m));
            }
            g_timeline.add(np->def.name,
                           std::string("management: ") +
                               (x->query == sim::Query::Candidates ? "candidate scan found "
                                                                   : "online children: ") +
                               (a.err.empty() ? namesText(a.names) : "no answer, " + a.err));
            answers[x] = a;
        });
    }

    // Type 9 starts a scan, type 10 is asked until it has ended, type 11 gives its parents.
    static std::string scanParents(Node& n, std::vector<Mac>& out) {
        std::string err = sendCommand(n, MESH_CMD_SCAN_CANDIDATE_AP, Bytes(8, 0));
        Bytes reply;
        for (int i = 0; err.empty(); ++i) {
            err = sendCommand(n, MESH_CMD_GET_SCAN_STATE, Bytes(4, 0), &reply);
            if (!err.empty() || (reply[0] | reply[1] | reply[2] | reply[3]) == 0) {
                break;
            }
            if (i == 300) {
                return "the scan did not end";
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (err.empty()) {
            err = sendCommand(n, MESH_CMD_GET_SCAN_RESULT, Bytes{}, &reply);
        }
        for (size_t i = 0; err.empty() && i < std::min<size_t>(reply[0], MESH_MAX_SCAN_CANDIDATE);
             ++i) {
            MESH_SCAN_CANDIDATE c;
            memcpy(&c, reply.data() + MESH_SCAN_RESULT_REPLY_OFF + i * sizeof c, sizeof c);
            out.push_back(
                Mac{c.bssid[0], c.bssid[1], c.bssid[2], c.bssid[3], c.bssid[4], c.bssid[5]});
        }
        return err;
    }

    static std::string onlineChildren(Node& n, std::vector<Mac>& out) {
        Bytes reply;
        std::string err = sendCommand(n, MESH_CMD_GET_ONLINE_CHILD, Bytes{}, &reply);
        for (size_t i = 0; err.empty() && i < std::min<size_t>(reply[0], MESH_MAX_ONLINE_CHILD);
             ++i) {
            MESH_ONLINE_CHILD_INFO c;
            memcpy(&c, reply.data() + MESH_ONLINE_CHILD_REPLY_OFF + i * sizeof c, sizeof c);
            out.push_back(Mac{c.mac[0], c.mac[1], c.mac[2], c.mac[3], c.mac[4], c.mac[5]});
        }
        return err;
    }

    MESH_ALL_CONFIG configOf(const Node& n) const {
        MESH_ALL_CONFIG c{};
        const sim::NodeDef& s = n.def;
        c.meshEnable = s.enable ? 1 : 0;
        c.gatewayIp = sc.gateway;
        c.deviceIp = s.ip;
        c.netmask = sc.netmask;
        memcpy(c.deviceMac, s.mac.data(), 6);
        c.resetFlag = s.resetFlag ? 1 : 0;
        snprintf(c.probeText, sizeof c.probeText, "%s", s.name.c_str());
        snprintf(c.lanIfName, sizeof c.lanIfName, "%s", "nas0");
        snprintf(c.radioName, sizeof c.radioName, "%s", "5G");
        c.dfsFlag = s.dfs ? 1 : 0;
        c.countryCode = s.country;
        c.basicWlanCfg.bandwidth = s.bandwidth;
        c.basicWlanCfg.frequency = frequencyOf(s.channel);
        c.basicWlanCfg.wlanMode = s.wlanMode;
        snprintf(c.controllerIpPort.ip, sizeof c.controllerIpPort.ip, "%u.%u.%u.%u",
                 sc.gateway >> 24, (sc.gateway >> 16) & 255, (sc.gateway >> 8) & 255,
                 sc.gateway & 255);
        c.controllerIpPort.value1 = 8080;
        c.controllerIpPort.value2 = 8443;
        snprintf(c.orbpCfg.vintacId, sizeof c.orbpCfg.vintacId, "%s", "zormesh-controller");
        c.orbpCfg.verCap = 2;
        return c;
    }

  private:
    std::mutex agendaMu_;
    std::mutex errMu_;
    std::multimap<double, std::function<void()>> agenda_;
};

World g_world;

// Ctrl-C or a termination request: the run stops, the daemons are stopped, the report written.
volatile sig_atomic_t g_interrupted = 0;

void interrupted(int) {
    g_interrupted = 1;
}

// ---- one node's driver, kernel and wired network, as the emulation protocol sees them ------

class NodeHandler : public emu::Handler {
  public:
    explicit NodeHandler(Node& n) : n_(n) {}

    emu::HelloAnswer hello(const emu::Peer& peer) override {
        emu::HelloAnswer a;
        a.flags = REMOTE_HELLO_RANDOM;
        if (peer.role == "main") {
            g_timeline.add(n_.def.name, "daemon connected (pid " + std::to_string(peer.pid) + ")");
        }
        return a;
    }

    int32_t shell(const emu::Peer&, const std::string& line) override {
        if (line.rfind("sed ", 0) == 0) {
            char* const env[] = {nullptr};
            return linux_impl::runShell(line.c_str(), env); // the profile is a real file
        }
        std::vector<std::string> w = words(line);
        if (w.size() >= 2 && w[w.size() - 2] == ">" && w.back() == "/dev/null") {
            w.resize(w.size() - 2);
        }
        std::lock_guard<std::mutex> g(g_world.mu);
        if (w.size() == 3 && w[0] == "ifconfig" && n_.knownIface(w[1]) &&
            (w[2] == "up" || w[2] == "down")) {
            Iface& i = n_.ifs[w[1]];
            bool up = w[2] == "up";
            if (i.up != up && w[1] == n_.bkh) {
                g_timeline.add(n_.def.name, std::string("backhaul AP ") + (up ? "up" : "down"));
            }
            i.up = up;
            g_world.refresh();
            g_world.tryAssociate(n_);
            return 0;
        }
        if (w.size() == 4 && w[0] == "brctl" && (w[1] == "addif" || w[1] == "delif") &&
            w[2] == "br0" && n_.knownIface(w[3])) {
            n_.ifs[w[3]].bridged = w[1] == "addif";
            return 0;
        }
        size_t eq = w.size() == 4 ? w[3].find('=') : std::string::npos;
        if (w.size() == 4 && w[0] == "iwpriv" && n_.knownIface(w[1]) && w[2] == "set" &&
            eq != std::string::npos && eq > 0) {
            setting(w[1], w[3].substr(0, eq), unescape(w[3].substr(eq + 1)));
            return 0;
        }
        g_world.error(n_, "unknown shell line: " + line);
        return 127 << 8;
    }

    // An iwpriv setting; caller holds the world lock.
    void setting(const std::string& ifName, const std::string& key, const std::string& value) {
        Iface& i = n_.ifs[ifName];
        i.settings[key] = value;
        if (ifName == n_.sta) {
            if (key == "SiteSurvey" && value == "1") {
                g_world.survey(n_);
            } else if (key == "ApCliSsid") {
                n_.staSsid = value;
            } else if (key == "ApCliWPAPSK") {
                n_.staPass = value;
            } else if (key == "ApCliEnable") {
                n_.staEnabled = value == "1";
                n_.lastAssocWhy.clear();
                g_world.refresh();
                if (n_.staEnabled) {
                    g_timeline.add(n_.def.name, "station joins " + n_.staSsid);
                    g_world.tryAssociate(n_);
                }
            }
            return;
        }
        if (ifName == n_.bkh && key == "DisConnectSta") {
            Mac m{};
            if (!readMac(value, &m)) {
                g_world.error(n_, "DisConnectSta with a bad MAC: " + value);
                return;
            }
            for (auto& c : g_world.nodes) {
                if (c->parent == n_.def.name && c->staMac() == m) {
                    g_timeline.add(n_.def.name, "disconnects " + c->def.name);
                    c->parent.clear();
                    g_world.noteParent(*c);
                }
            }
            return;
        }
        if (ifName == n_.bkh && (key == "SSID" || key == "WPAPSK")) {
            g_world.refresh();
        }
    }

    emu::Result ioctl(const emu::Peer&, emu::IoctlCall& call) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        const std::string& ifn = call.ifName;
        if (!n_.knownIface(ifn)) {
            g_world.error(n_, "ioctl " + hexWord(call.request) + " on unknown interface " + ifn);
            return emu::Result::fail(ENODEV);
        }
        switch (call.request) {
        case 0x8913: { // SIOCGIFFLAGS
            uint16_t flags = n_.ifs[ifn].up ? 0x1 : 0;
            if (call.payload.size() >= 2) {
                memcpy(call.payload.data(), &flags, 2);
            }
            return emu::Result{};
        }
        case 0x8B1B: { // SIOCGIWESSID
            std::string ssid = n_.ifs[ifn].settings["SSID"];
            std::fill(call.payload.begin(), call.payload.end(), 0);
            size_t len = std::min(ssid.size(), call.payload.size());
            memcpy(call.payload.data(), ssid.data(), len);
            call.length = static_cast<uint16_t>(len);
            return emu::Result{};
        }
        case RT_PRIV_IOCTL:
            return element(ifn, call);
        case RTPRIV_IOCTL_MESH:
            return meshRequest(ifn, call);
        case RTPRIV_IOCTL_STA_TABLE:
            return stationTable(call);
        case RTPRIV_IOCTL_SCAN_TABLE:
            return surveyTable(call);
        default:
            g_world.error(n_, "unknown ioctl " + hexWord(call.request) + " on " + ifn);
            return emu::Result::fail(EOPNOTSUPP);
        }
    }

    emu::Result element(const std::string& ifn, emu::IoctlCall& call) {
        MESH_IE_RECORD rec{};
        if (call.payload.size() < sizeof rec ||
            (call.flags != MESH_IE_SET && call.flags != MESH_IE_DELETE)) {
            g_world.error(n_, "element request with flags " + hexWord(call.flags) + " and " +
                                  std::to_string(call.payload.size()) + " bytes");
            return emu::Result::fail(EINVAL);
        }
        memcpy(&rec, call.payload.data(), sizeof rec);
        if (rec.ieLength < MESH_VENDOR_OUI_LEN || rec.ieLength > MESH_IE_BODY_LEN) {
            g_world.error(n_, "element of length " + std::to_string(rec.ieLength));
            return emu::Result::fail(EINVAL);
        }
        std::string key =
            ifn + "/" + std::to_string(rec.frameMask) + "/" + std::to_string(rec.ouiType);
        if (call.flags == MESH_IE_DELETE) {
            n_.elements.erase(key);
            return emu::Result{};
        }
        Bytes payload(rec.ie + MESH_VENDOR_OUI_LEN, rec.ie + rec.ieLength);
        bool fresh = n_.elements.count(key) == 0;
        n_.elements[key] = payload;
        if (fresh && key == n_.bkh + "/1/2") {
            g_timeline.add(n_.def.name, "beacons carry the mesh element");
        }
        return emu::Result{};
    }

    emu::Result meshRequest(const std::string& ifn, emu::IoctlCall& call) {
        switch (call.flags) {
        case MESH_SUBCMD_ADD_CHILD:
        case MESH_SUBCMD_DEL_CHILD: {
            MESH_CHILD_RECORD rec{};
            if (call.payload.size() < sizeof rec || ifn != n_.bkh) {
                g_world.error(n_, "child request on " + ifn + " with " +
                                      std::to_string(call.payload.size()) + " bytes");
                return emu::Result::fail(EINVAL);
            }
            memcpy(&rec, call.payload.data(), sizeof rec);
            Mac m = macOf(rec.mac);
            Node* child = g_world.findByMac(m);
            std::string who = child != nullptr ? child->def.name : sim::macText(m);
            if (call.flags == MESH_SUBCMD_DEL_CHILD) {
                n_.children.erase(m);
                g_timeline.add(n_.def.name, "driver forgets child " + who);
                return emu::Result{};
            }
            n_.children[m] = rec;
            g_timeline.add(n_.def.name, "driver admits child " + who +
                                            (rec.data1Len != 0 ? ", pairing blocks pushed"
                                                               : ", no pairing blocks yet"));
            return emu::Result{};
        }
        case MESH_SUBCMD_SET_LABEL:
            return emu::Result{};
        case MESH_SUBCMD_GET_STA_STATUS: {
            uint32_t on = n_.parent.empty() ? 0 : 1;
            if (call.payload.size() >= 4) {
                memcpy(call.payload.data(), &on, 4);
            }
            return emu::Result{};
        }
        default:
            g_world.error(n_, "unknown mesh sub-command " + std::to_string(call.flags));
            return emu::Result::fail(EOPNOTSUPP);
        }
    }

    emu::Result stationTable(emu::IoctlCall& call) {
        std::fill(call.payload.begin(), call.payload.end(), 0);
        uint32_t count = 0;
        for (auto& c : g_world.nodes) {
            if (c->parent != n_.def.name) {
                continue;
            }
            size_t off = MESH_STA_TABLE_HDR + count * MESH_STA_ENTRY_LEN;
            if (off + MESH_STA_ENTRY_LEN > call.payload.size()) {
                break;
            }
            Mac m = c->staMac();
            memcpy(call.payload.data() + off, m.data(), 6);
            call.payload[off + 7] =
                static_cast<uint8_t>(g_world.air.heard(n_.def.name, c->def.name).value_or(-95));
            ++count;
        }
        if (call.payload.size() >= 4) {
            memcpy(call.payload.data(), &count, 4);
        }
        call.length = static_cast<uint16_t>(std::min(
            call.payload.size(), MESH_STA_TABLE_HDR + MESH_MAX_ONLINE_CHILD * MESH_STA_ENTRY_LEN));
        return emu::Result{};
    }

    emu::Result surveyTable(emu::IoctlCall& call) {
        std::fill(call.payload.begin(), call.payload.end(), 0);
        uint32_t count = 0;
        for (auto& p : g_world.nodes) {
            auto signal = g_world.air.heard(n_.def.name, p->def.name);
            if (p.get() == &n_ || !p->alive || !signal || !p->ifs[p->bkh].up) {
                continue;
            }
            size_t off = MESH_SCAN_TABLE_HDR + count * MESH_SCAN_ENTRY_LEN;
            if (off + MESH_SCAN_ENTRY_LEN > call.payload.size()) {
                break;
            }
            uint8_t* e = call.payload.data() + off;
            uint32_t value = p->def.channel;
            int32_t rssi = *signal;
            memcpy(e + MESH_SCAN_ENTRY_VALUE_OFF, &value, 4);
            memcpy(e + MESH_SCAN_ENTRY_RSSI_OFF, &rssi, 4);
            memcpy(e + MESH_SCAN_ENTRY_BSSID_OFF, p->def.mac.data(), 6);
            e[MESH_SCAN_ENTRY_MESH_OFF] = p->beaconOn() ? 1 : 0;
            ++count;
        }
        if (call.payload.size() >= 4) {
            memcpy(call.payload.data(), &count, 4);
        }
        call.length = static_cast<uint16_t>(
            std::min(call.payload.size(),
                     MESH_SCAN_TABLE_HDR + std::max<size_t>(count, 1) * MESH_SCAN_ENTRY_LEN));
        return emu::Result{};
    }

    emu::Result procRead(const emu::Peer&, const std::string& path, uint32_t, Bytes& out) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        std::string text;
        if (path == "/proc/mesh/config_count") {
            sim::Topology t = g_world.topology();
            n_.counter = sim::nextCount(n_.counter, n_.targetOn, sim::hasPath(t, n_.def.name));
            text = std::to_string(n_.counter) + "\n";
        } else if (path == "/proc/mesh/loop_status") {
            bool loop = sim::loopSeen(g_world.topology(), n_.def.name, n_.loopOn);
            if (loop != n_.loopReported) {
                g_timeline.add(n_.def.name, loop ? "kernel: loop detected" : "kernel: loop gone");
                n_.loopReported = loop;
            }
            text = loop ? "1\n" : "0\n";
        } else if (path == "/proc/gpon/linkstate") {
            text = n_.uplink ? "1\n" : "0\n";
        } else if (path == "/proc/gpon/state") {
            text = n_.uplink ? "5\n" : "1\n";
        } else if (path == "/proc/tc3162/eth_port_status") {
            text = n_.portCable ? "1 2 2 2 2\n" : "2 2 2 2 2\n";
        } else {
            g_world.error(n_, "read of unknown kernel file " + path);
            return emu::Result::fail(ENOENT);
        }
        out.assign(text.begin(), text.end());
        return emu::Result{};
    }

    emu::Result procWrite(const emu::Peer&, const std::string& path, const Bytes& data) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        if (path != "/proc/mesh/config_count") {
            g_world.error(n_, "write to unknown kernel file " + path);
            return emu::Result::fail(ENOENT);
        }
        std::string line(data.begin(), std::find(data.begin(), data.end(), uint8_t{0}));
        std::vector<std::string> w = words(line);
        Mac m{};
        if (w.size() == 2 && w[0] == "1" && w[1] == "0") {
            n_.targetOn = false;
        } else if (w.size() == 3 && w[0] == "1" && w[1] == "1" && readMac(w[2], &m)) {
            n_.targetOn = m == kGatewayMac;
        } else if (w.size() >= 5 && w.size() <= 6 && w[0] == "2") {
            // loop-detection set-up: interface index, uplink, ports, own MAC, digest
        } else if (w.size() == 2 && w[0] == "3" && (w[1] == "0" || w[1] == "1")) {
            bool on = w[1] == "1";
            if (on != n_.loopOn) {
                g_timeline.add(n_.def.name,
                               std::string("kernel: loop detection ") + (on ? "on" : "off"));
            }
            n_.loopOn = on;
        } else if (w.size() == 1 && w[0] == "4") {
            // a loop-detection probe
        } else {
            g_world.error(n_, "unknown kernel configuration line: " + line);
            return emu::Result{-2, EINVAL};
        }
        return emu::Result{};
    }

    emu::Result random(const emu::Peer&, uint32_t len, Bytes& out) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        out.resize(len);
        for (auto& b : out) {
            b = static_cast<uint8_t>(n_.rng());
        }
        return emu::Result{static_cast<int32_t>(len), 0};
    }

    emu::Result packetOpen(const emu::Peer&, uint32_t) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        return emu::Result{n_.nextSocket++, 0};
    }

    emu::Result packetIfIndex(const emu::Peer&, uint32_t, const std::string& ifName) override {
        if (ifName == "br0") {
            return emu::Result{kBridgeIndex, 0};
        }
        if (ifName == n_.bkh) {
            return emu::Result{kBackhaulIndex, 0};
        }
        if (ifName == n_.sta) {
            return emu::Result{kStationIndex, 0};
        }
        g_world.error(n_, "interface index of unknown interface " + ifName);
        return emu::Result::fail(ENODEV);
    }

    // The wired network: the gateway answers an ARP request for its address while the node
    // reaches it.
    emu::Result packetSend(const emu::Peer&, uint32_t socket, int32_t,
                           const Bytes& frame) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        if (frame.size() < 42 || frame[12] != 0x08 || frame[13] != 0x06 || frame[21] != 1) {
            return emu::Result{static_cast<int32_t>(frame.size()), 0};
        }
        uint32_t target = (uint32_t(frame[38]) << 24) | (uint32_t(frame[39]) << 16) |
                          (uint32_t(frame[40]) << 8) | frame[41];
        bool answer = target == g_world.sc.gateway && sim::hasPath(g_world.topology(), n_.def.name);
        if (answer) {
            Bytes r(42, 0);
            memcpy(r.data(), frame.data() + 6, 6); // to the asker
            memcpy(r.data() + 6, kGatewayMac.data(), 6);
            r[12] = 0x08;
            r[13] = 0x06;
            memcpy(r.data() + 14, frame.data() + 14, 6); // hardware, protocol, sizes
            r[20] = 0;
            r[21] = 2; // reply
            memcpy(r.data() + 22, kGatewayMac.data(), 6);
            memcpy(r.data() + 28, frame.data() + 38, 4);  // the gateway's address
            memcpy(r.data() + 32, frame.data() + 22, 10); // the asker's MAC and address
            n_.rx[socket].push_back(r);
            g_world.packetCv.notify_all();
        }
        if (n_.lastArp != (answer ? 1 : 0)) {
            n_.lastArp = answer ? 1 : 0;
            g_timeline.add(n_.def.name, answer ? "gateway answers ARP" : "gateway unreachable");
        }
        return emu::Result{static_cast<int32_t>(frame.size()), 0};
    }

    emu::Result packetWait(const emu::Peer&, uint32_t socket, uint32_t,
                           uint32_t realTimeoutMs) override {
        std::unique_lock<std::mutex> g(g_world.mu);
        bool ready = g_world.packetCv.wait_for(g, std::chrono::milliseconds(realTimeoutMs), [&] {
            auto it = n_.rx.find(socket);
            return it != n_.rx.end() && !it->second.empty();
        });
        return emu::Result{ready ? 1 : 0, 0};
    }

    emu::Result packetRecv(const emu::Peer&, uint32_t socket, uint32_t max, Bytes& out) override {
        std::lock_guard<std::mutex> g(g_world.mu);
        auto it = n_.rx.find(socket);
        if (it == n_.rx.end() || it->second.empty()) {
            return emu::Result::fail(EAGAIN);
        }
        out = it->second.front();
        it->second.pop_front();
        if (out.size() > max) {
            out.resize(max);
        }
        return emu::Result{static_cast<int32_t>(out.size()), 0};
    }

    emu::Result close(const emu::Peer&, uint32_t kind, uint32_t socket) override {
        if (kind == REMOTE_CLOSE_PACKET) {
            std::lock_guard<std::mutex> g(g_world.mu);
            n_.rx.erase(socket);
        }
        return emu::Result{};
    }

    void malformed(const emu::Peer&, uint32_t op, const std::string& why) override {
        g_world.error(n_, "malformed request (op " + std::to_string(op) + "): " + why);
    }

    void stopping() override { g_world.packetCv.notify_all(); }

  private:
    Node& n_;
};

// ---- the management side's listeners: notification services and the operation wrapper -----

int listenOn(const std::string& path) {
    sockaddr_un a{};
    if (path.size() >= sizeof a.sun_path) {
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    a.sun_family = AF_UNIX;
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0 || listen(fd, 8) < 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

bool readAll(int fd, void* buf, size_t len) {
    auto* p = static_cast<uint8_t*>(buf);
    while (len > 0) {
        ssize_t r = recv(fd, p, len, 0);
        if (r <= 0) {
            return false;
        }
        p += r;
        len -= static_cast<size_t>(r);
    }
    return true;
}

void note(Node& n, const json& what) {
    std::lock_guard<std::mutex> g(g_world.mu);
    json j = what;
    j["t"] = Timeline::round1(g_clock.now());
    n.notes.push_back(j);
}

void serveNotification(Node& n, int which, int fd) {
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    uint32_t h[4];
    if (!readAll(fd, h, sizeof h) || h[2] > 65536) {
        return;
    }
    Bytes body(h[2]);
    if (!body.empty() && !readAll(fd, body.data(), body.size())) {
        return;
    }
    auto word = [&](size_t off) {
        uint32_t v = 0;
        if (body.size() >= off + 4) {
            memcpy(&v, body.data() + off, 4);
        }
        return v;
    };
    if (which == 2) { // operation wrapper: answer, then record
        uint32_t rsp[4] = {WRP_RSP_MAGIC, 0, std::min<uint32_t>(h[3], 4), 0};
        uint8_t out[16 + 4] = {};
        memcpy(out, rsp, sizeof rsp);
        send(fd, out, 16 + rsp[2], MSG_NOSIGNAL);
        if (h[0] != WRP_REQ_MAGIC) {
            g_world.error(n, "operation wrapper request with a bad magic");
        } else if (h[1] == 0x00220003) {
            std::string ip(reinterpret_cast<const char*>(body.data()),
                           strnlen(reinterpret_cast<const char*>(body.data()),
                                   std::min<size_t>(body.size(), 257)));
            note(n, {{"what", "controller address"}, {"address", ip}});
            g_timeline.add(n.def.name, "management learns the controller address " + ip);
        } else if (h[1] == 0x0028000F) {
            std::string id(reinterpret_cast<const char*>(body.data()),
                           strnlen(reinterpret_cast<const char*>(body.data()),
                                   std::min<size_t>(body.size(), 33)));
            note(n, {{"what", "controller identity"}, {"identity", id}});
            g_timeline.add(n.def.name, "management learns the controller identity \"" + id + "\"");
        } else if (h[1] == 0x001D0015) {
            note(n, {{"what", "state to schedule"},
                     {"state", sim::stateName(static_cast<int>(word(0)))}});
        } else {
            g_world.error(n, "unknown operation " + hexWord(h[1]));
        }
        return;
    }
    if (h[0] != UNIX_SOCK_MAGIC) {
        g_world.error(n, "notification with a bad magic");
        return;
    }
    if (which == 0 && h[1] == 2 && word(0) == 0x0028000D) {
        int state = static_cast<int>(word(8));
        std::string parent;
        {
            std::lock_guard<std::mutex> g(g_world.mu);
            n.state = state;
            n.states.push_back(
                {{"t", Timeline::round1(g_clock.now())}, {"state", sim::stateName(state)}});
            parent = n.parent;
        }
        note(n, {{"what", "mesh state"}, {"state", sim::stateName(state)}});
        g_timeline.add(n.def.name, std::string("state ") + sim::stateName(state) +
                                       (state == 2 && !parent.empty() ? " under " + parent : ""));
    } else if (which == 1 && h[1] == 17 && (word(0) == 1 || word(0) == 8)) {
        bool isolated = word(0) == 1;
        note(n, {{"what", isolated ? "isolated" : "scan done"}});
        g_timeline.add(n.def.name, isolated ? "notifies: isolated" : "notifies: scan done");
    } else {
        g_world.error(n, "unknown notification to service " + std::string(which == 0 ? "7" : "22") +
                             ", code " + std::to_string(h[1]));
    }
}

void listenLoop(Node& n) {
    while (!n.listenStop) {
        pollfd p[3];
        for (int i = 0; i < 3; ++i) {
            p[i] = {n.listenFds[i], POLLIN, 0};
        }
        if (poll(p, 3, 100) <= 0) {
            continue;
        }
        for (int i = 0; i < 3; ++i) {
            if ((p[i].revents & POLLIN) != 0) {
                int fd = accept4(n.listenFds[i], nullptr, nullptr, SOCK_CLOEXEC);
                if (fd >= 0) {
                    serveNotification(n, i, fd);
                    close(fd);
                }
            }
        }
    }
}

void managementLoop(Node& n) {
    for (;;) {
        std::function<void()> fn;
        {
            std::unique_lock<std::mutex> g(n.mqMu);
            n.mqCv.wait(g, [&] { return n.mqStop || !n.mq.empty(); });
            if (n.mq.empty()) {
                return;
            }
            fn = std::move(n.mq.front());
            n.mq.pop_front();
        }
        fn();
    }
}

// ---- node processes ---------------------------------------------------------------------------

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

void mkdirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            mkdir(path.substr(0, i).c_str(), 0755);
        }
    }
}

void sendConfiguration(Node& n, bool enable);

// Starts the node's daemon and sends it its configuration; caller does not hold the lock.
bool startDaemon(Node& n, std::string* error) {
    std::string out = n.root + "/daemon.out";
    std::string scale = std::to_string(g_clock.scale());
    // A cross build runs its programs through an emulator (qemu-user): the daemons too.
    std::vector<std::string> args;
    std::istringstream launcher(ZORMESH_NODE_LAUNCHER);
    for (std::string w; launcher >> w;) {
        args.push_back(w);
    }
    if (!args.empty() && args[0].find('/') != std::string::npos &&
        access(args[0].c_str(), X_OK) != 0) {
        args.clear(); // not on this machine: the node runs natively here
    }
    for (const std::string& a :
         {g_world.nodeProgram, std::string("--root"), n.root, std::string("--time-scale"), scale}) {
        args.push_back(a);
    }
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0].c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        *error = "cannot start " + g_world.nodeProgram + ": " + strerror(rc);
        return false;
    }
    {
        std::lock_guard<std::mutex> g(g_world.mu);
        n.pid = pid;
        n.alive = true;
    }
    g_timeline.add(n.def.name, "daemon started under " + n.root);
    sendConfiguration(n, n.def.enable);
    return true;
}

// The management side hands the node its configuration (command type 1), the mesh enabled or
// not; caller does not hold the lock.
void sendConfiguration(Node& n, bool enable) {
    MESH_ALL_CONFIG cfg = g_world.configOf(n);
    cfg.meshEnable = enable ? 1 : 0;
    if (!n.def.configJson.empty()) {
        // The scenario's own fields over the built record (checked when the scenario was read).
        records::Json doc = records::toJson(records::config(), &cfg);
        doc.merge_patch(records::Json::parse(n.def.configJson));
        std::string err;
        if (!records::fromJson(records::config(), doc, &cfg, sizeof cfg, &err)) {
            g_world.error(n, "configuration record: " + err);
        }
    }
    Bytes payload(sizeof cfg);
    memcpy(payload.data(), &cfg, sizeof cfg);
    g_world.command(n, MESH_CMD_INIT_MESH, payload,
                    std::string("configuration sent, mesh ") +
                        (cfg.meshEnable != 0 ? "enabled" : "disabled"));
}

// The driver of a node whose daemon died starts from nothing; caller holds the lock.
void resetDriver(Node& n) {
    n.ifs.clear();
    n.elements.clear();
    n.children.clear();
    n.staSsid.clear();
    n.staPass.clear();
    n.staEnabled = false;
    n.rx.clear();
    n.counter = 0;
    n.targetOn = false;
    n.loopOn = false;
    n.loopReported = false;
    n.admitted.clear();
    n.refused.clear();
    n.lastArp = -1;
    n.state = 0;
}

// The peak resident set of a running process in KiB (VmHWM), 0 when unknown.
long peakRss(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return atol(line.c_str() + 6);
        }
    }
    return 0;
}

void killDaemon(Node& n, int sig) {
    pid_t pid;
    {
        if (n.pid > 0) {
            n.peakRssKiB = std::max(n.peakRssKiB, peakRss(n.pid));
        }
        std::lock_guard<std::mutex> g(g_world.mu);
        pid = n.pid;
        n.pid = -1;
        if (!g_world.tearingDown) { // at the end the models stay as the run left them
            n.alive = false;
            resetDriver(n);
            g_world.refresh();
        }
    }
    if (pid > 0) {
        kill(pid, sig);
        int status = 0;
        for (int i = 0; i < 100 && waitpid(pid, &status, WNOHANG) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (i == 50) {
                kill(pid, SIGKILL);
            }
        }
    }
}

// Reads what the daemon wrote since the last look: its error log and event log.
void tail(Node& n) {
    auto readFrom = [](const std::string& path, long* pos) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            return std::string();
        }
        in.seekg(0, std::ios::end);
        long size = static_cast<long>(in.tellg());
        if (size < *pos) {
            *pos = 0; // started anew
        }
        in.seekg(*pos);
        std::string text(static_cast<size_t>(size - *pos), '\0');
        in.read(&text[0], static_cast<std::streamsize>(text.size()));
        size_t keep = text.rfind('\n');
        if (keep == std::string::npos) {
            return std::string();
        }
        text.resize(keep + 1);
        *pos += static_cast<long>(text.size());
        return text;
    };
    std::istringstream out(readFrom(n.root + "/daemon.out", &n.outPos));
    for (std::string line; std::getline(out, line);) {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        {
            std::lock_guard<std::mutex> g(g_world.mu);
            n.errors.push_back({{"t", Timeline::round1(g_clock.now())}, {"daemon", line}});
        }
        if (n.errorsShown < 3) {
            g_timeline.add(n.def.name, "daemon: " + line);
        } else if (n.errorsShown == 3) {
            g_timeline.add(n.def.name, "daemon: ... (more error lines in the report)");
        }
        ++n.errorsShown;
    }
    std::istringstream log(readFrom(n.root + "/tmp/zormesh.log", &n.logPos));
    for (std::string line; std::getline(log, line);) {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
            line.pop_back();
        }
        size_t stamp = line.find(']');
        std::string text = stamp != std::string::npos ? line.substr(stamp + 1) : line;
        for (const char* k : {"mesh state:", "net state:", "connecting timeout", "Add Child",
                              "Del Child", "controller"}) {
            if (text.find(k) != std::string::npos) {
                g_timeline.add(n.def.name, "log: " + text);
                break;
            }
        }
    }
}

// ---- expectations -----------------------------------------------------------------------------

struct Verdict {
    bool decided = false;
    bool ok = false;
    std::string seen;
    double when = 0;
};

std::string describe(Node& n) { // caller holds the lock
    return n.def.name + " " + sim::stateName(n.state) +
           (n.parent.empty() ? ", no parent" : ", parent " + n.parent);
}

bool matches(Node& n, const sim::ExpectDef& x) {
    return (!x.state || n.state == *x.state) && (!x.parent || n.parent == *x.parent);
}

void judge(const sim::ExpectDef& x, Verdict& v, double t, bool end) {
    if (v.decided) {
        return;
    }
    std::lock_guard<std::mutex> g(g_world.mu);
    Node* n = x.node.empty() ? nullptr : g_world.find(x.node);
    auto when = [&] { return "at t=" + std::to_string(static_cast<long long>(t)); };
    switch (x.kind) {
    case sim::ExpectKind::Reach:
        if (t >= x.after && (x.within == 0 || t <= x.within) && matches(*n, x)) {
            v = {true, true, describe(*n) + " " + when(), t};
        } else if ((x.within > 0 && t > x.within) || end) {
            v = {true, false, describe(*n) + " " + when(), t};
        }
        break;
    case sim::ExpectKind::At:
        if (t >= x.at) {
            v = {true, matches(*n, x), describe(*n) + " " + when(), t};
        } else if (end) {
            v = {true, false, "the run ended " + when(), t};
        }
        break;
    case sim::ExpectKind::Never:
        if (t >= x.after) {
            for (auto& m : g_world.nodes) {
                if ((n == nullptr || m.get() == n) && m->state == *x.state) {
                    v = {true, false, describe(*m) + " " + when(), t};
                    return;
                }
            }
        }
        if (end) {
            v = {true, true, "not seen", t};
        }
        break;
    case sim::ExpectKind::Answer: {
        auto it = g_world.answers.find(&x);
        if (it != g_world.answers.end()) {
            std::vector<std::string> want = x.names, got = it->second.names;
            std::sort(want.begin(), want.end());
            std::sort(got.begin(), got.end());
            v = {true, it->second.err.empty() && want == got,
                 it->second.err.empty() ? "found " + namesText(it->second.names)
                                        : "no answer: " + it->second.err,
                 t};
        } else if (end) {
            v = {true, false, "no answer by the end", t};
        }
        break;
    }
    case sim::ExpectKind::Quiet: {
        const std::string refused = g_world.firstModelError(*n);
        if (!n->errors.empty()) {
            v = {true, false, n->errors.front()["daemon"].get<std::string>() + " " + when(), t};
        } else if (!refused.empty()) {
            v = {true, false, "refused: " + refused + " " + when(), t};
        } else if (end) {
            v = {true, true, "none", t};
        }
        break;
    }
    }
}

double endOf(const sim::Scenario& s) {
    if (s.duration > 0) {
        return s.duration;
    }
    double end = 0;
    for (const auto& x : s.expects) {
        end = std::max({end, x.within, x.at, x.after});
    }
    for (const auto& e : s.events) {
        end = std::max(end, e.at);
    }
    return end + 10;
}

std::string selfDir() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) {
        return ".";
    }
    buf[n] = '\0';
    std::string p(buf);
    return p.substr(0, p.rfind('/'));
}

void applyEvent(const sim::EventDef& e) {
    Node* n = g_world.find(e.node);
    switch (e.kind) {
    case sim::EventKind::Uplink: {
        std::lock_guard<std::mutex> g(g_world.mu);
        n->uplink = e.on;
        g_timeline.add(e.node, std::string("event: wired uplink ") + (e.on ? "up" : "down"));
        break;
    }
    case sim::EventKind::Link: {
        std::lock_guard<std::mutex> g(g_world.mu);
        if (e.on) {
            g_world.air.setLink(e.node, e.other, e.signal);
        } else {
            g_world.air.removeLink(e.node, e.other);
        }
        g_timeline.add(e.node, "event: link to " + e.other +
                                   (e.on ? " at " + std::to_string(e.signal) + " dBm" : " gone"));
        g_world.refresh();
        break;
    }
    case sim::EventKind::Loop: {
        std::lock_guard<std::mutex> g(g_world.mu);
        auto key = std::minmax(e.node, e.other);
        if (e.on) {
            g_world.wires.insert(key);
        } else {
            g_world.wires.erase(key);
        }
        for (auto& m : g_world.nodes) {
            m->portCable = false;
            for (const auto& w : g_world.wires) {
                m->portCable = m->portCable || w.first == m->def.name || w.second == m->def.name;
            }
        }
        g_timeline.add(e.node, "event: cable to " + e.other + (e.on ? " plugged" : " pulled"));
        break;
    }
    case sim::EventKind::Kill:
        g_timeline.add(e.node, "event: daemon killed");
        killDaemon(*n, SIGKILL);
        break;
    case sim::EventKind::Restart: {
        g_timeline.add(e.node, "event: daemon restarted");
        killDaemon(*n, SIGKILL);
        std::string err;
        if (!startDaemon(*n, &err)) {
            g_world.error(*n, err);
        }
        break;
    }
    case sim::EventKind::Configure:
        g_timeline.add(e.node, "event: configuration sent again");
        sendConfiguration(*n, e.on);
        break;
    case sim::EventKind::Rescan: {
        g_timeline.add(e.node, "event: rescan requested");
        Bytes one = {1, 0, 0, 0};
        g_world.command(*n, MESH_CMD_REQUEST_RESCAN, one, "rescan request");
        break;
    }
    }
}

json nodeReport(Node& n) {
    std::lock_guard<std::mutex> g(g_world.mu);
    return {{"mac", sim::macText(n.def.mac)},
            {"root", n.root},
            {"states", n.states},
            {"state", sim::stateName(n.state)},
            {"parent", n.parent.empty() ? json(nullptr) : json(n.parent)},
            {"parents", n.parents},
            {"notifications", n.notes},
            {"peakRssKiB", n.peakRssKiB},
            {"errors", n.errors},
            {"modelErrors", n.modelErrors}};
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"zormesh-sim: runs a scenario on a simulated mesh of real zormesh daemons.\n"
                 "Exit status: 0 every expectation holds, 1 one fails, 2 bad scenario, 3 the\n"
                 "simulator could not run (missing program, unusable work directory)."};
    std::string file, report, workdir, nodeProgram;
    uint32_t scale = 0;
    uint64_t seed = 0;
    bool seedGiven = false, quiet = false;
    app.add_option("scenario", file, "scenario file (JSON, see docs/scenarios.md)")->required();
    app.add_option("--time-scale", scale,
                   "simulated seconds per real second (1-1000); default: "
                   "the scenario's timeScale, else 20")
        ->check(CLI::Range(1, 1000));
    auto* seedOpt = app.add_option("--seed", seed,
                                   "seed of every random choice (default: the "
                                   "scenario's seed, else 1)");
    app.add_option("--report", report, "write the JSON report to this file");
    app.add_option("--workdir", workdir,
                   "keep the node roots under this directory (default: a "
                   "temporary directory, removed at the end)");
    app.add_option("--node", nodeProgram, "the zormesh-node program (default: beside this one)");
    app.add_flag("--quiet", quiet, "do not print the timeline");
    CLI11_PARSE(app, argc, argv);
    seedGiven = seedOpt->count() > 0;

    std::ifstream in(file, std::ios::binary);
    if (!in) {
        fprintf(stderr, "zormesh-sim: cannot read %s\n", file.c_str());
        return EXIT_BAD_SCENARIO;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    try {
        g_world.sc = sim::parseScenario(ss.str());
    } catch (const sim::BadScenario& e) {
        fprintf(stderr, "zormesh-sim: %s: %s\n", file.c_str(), e.what());
        return EXIT_BAD_SCENARIO;
    }
    sim::Scenario& sc = g_world.sc;
    if (scale != 0) {
        sc.timeScale = scale;
    }
    if (seedGiven) {
        sc.seed = seed;
    }
    g_world.nodeProgram = nodeProgram.empty() ? selfDir() + "/zormesh-node" : nodeProgram;
    if (access(g_world.nodeProgram.c_str(), X_OK) != 0) {
        fprintf(stderr, "zormesh-sim: cannot run %s\n", g_world.nodeProgram.c_str());
        return EXIT_TROUBLE;
    }
    bool tempDir = workdir.empty();
    if (tempDir) {
        char tmpl[] = "/tmp/zormesh-sim.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            fprintf(stderr, "zormesh-sim: cannot make a work directory: %s\n", strerror(errno));
            return EXIT_TROUBLE;
        }
        workdir = tmpl;
    }
    mkdirs(workdir);
    char real[PATH_MAX];
    if (realpath(workdir.c_str(), real) == nullptr) {
        fprintf(stderr, "zormesh-sim: cannot use %s: %s\n", workdir.c_str(), strerror(errno));
        return EXIT_TROUBLE;
    }
    workdir = real;
    g_timeline.setQuiet(quiet);
    g_world.rng.seed(sc.seed);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, interrupted);
    signal(SIGTERM, interrupted);

    // Models and listeners first, so that each daemon finds its surroundings at start.
    for (size_t i = 0; i < sc.nodes.size(); ++i) {
        auto n = std::make_unique<Node>();
        n->def = sc.nodes[i];
        n->index = static_cast<int>(i);
        n->root = workdir + "/" + n->def.name;
        DeviceConfig dev = defaultDeviceConfig();
        n->bkh = dev.bkhApIfName;
        n->sta = dev.staIfName;
        n->uplink = n->def.uplink;
        n->rng.seed(sc.seed * 1000003u + i);
        mkdirs(n->root + "/tmp/wireless");
        mkdirs(n->root + "/var/run/usock");
        unlink((n->root + "/tmp/zormesh.log").c_str());
        unlink((n->root + "/daemon.out").c_str());
        writeFile(n->root + "/tmp/wireless/mt5g.dat", defaultProfile(n->def.channel));
        writeFile(n->root + "/tmp/ORB_STATE", n->def.managed ? "4\n" : "2\n");
        n->listenFds[0] = listenOn(n->root + "/var/run/usock/7.sock");
        n->listenFds[1] = listenOn(n->root + "/var/run/usock/22.sock");
        n->listenFds[2] = listenOn(n->root + "/var/run/wrp.sock");
        if (n->listenFds[0] < 0 || n->listenFds[1] < 0 || n->listenFds[2] < 0) {
            fprintf(stderr, "zormesh-sim: cannot listen under %s\n", n->root.c_str());
            return EXIT_TROUBLE;
        }
        n->handler = std::make_unique<NodeHandler>(*n);
        n->server = std::make_unique<emu::Server>(n->root, *n->handler);
        std::string err;
        if (!n->server->start(&err)) {
            fprintf(stderr, "zormesh-sim: %s\n", err.c_str());
            return EXIT_TROUBLE;
        }
        g_world.nodes.push_back(std::move(n));
    }
    for (const auto& l : sc.links) {
        g_world.air.setLink(l.a, l.b, l.signal);
    }
    g_clock.start(sc.timeScale);
    if (!quiet) {
        printf("zormesh-sim: %s, %zu nodes, time scale %u, seed %llu, work directory %s\n",
               sc.name.c_str(), sc.nodes.size(), sc.timeScale,
               static_cast<unsigned long long>(sc.seed), workdir.c_str());
    }
    int status = EXIT_PASS;
    for (auto& n : g_world.nodes) {
        Node* np = n.get();
        np->listener = std::thread([np] { listenLoop(*np); });
        np->mqThread = std::thread([np] { managementLoop(*np); });
        std::string err;
        if (!startDaemon(*np, &err)) {
            fprintf(stderr, "zormesh-sim: %s\n", err.c_str());
            status = EXIT_TROUBLE;
            break;
        }
    }
    for (const auto& e : sc.events) {
        const sim::EventDef* ep = &e;
        g_world.at(e.at, [ep] { applyEvent(*ep); });
    }
    for (const auto& x : sc.expects) {
        if (x.kind == sim::ExpectKind::Answer) {
            const sim::ExpectDef* xp = &x;
            g_world.at(x.at, [xp] { g_world.ask(*g_world.find(xp->node), xp); });
        }
    }

    std::vector<Verdict> verdicts(sc.expects.size());
    double end = endOf(sc);
    double lastSecond = 0;
    auto lastTail = std::chrono::steady_clock::now();
    while (status == EXIT_PASS) {
        double t = g_clock.now();
        g_world.runDue();
        if (t - lastSecond >= 1.0) {
            lastSecond = t;
            g_world.retryAssociations();
        }
        if (std::chrono::steady_clock::now() - lastTail > std::chrono::milliseconds(100)) {
            lastTail = std::chrono::steady_clock::now();
            for (auto& n : g_world.nodes) {
                tail(*n);
                int st = 0;
                pid_t pid;
                {
                    std::lock_guard<std::mutex> g(g_world.mu);
                    pid = n->pid;
                }
                if (pid > 0 && waitpid(pid, &st, WNOHANG) == pid) {
                    std::lock_guard<std::mutex> g(g_world.mu);
                    n->pid = -1;
                    n->alive = false;
                    resetDriver(*n);
                    g_world.refresh();
                    g_timeline.add(
                        n->def.name,
                        "daemon exited by itself, status " +
                            std::to_string(WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st)));
                }
            }
        }
        bool all = true, failed = false;
        for (size_t i = 0; i < sc.expects.size(); ++i) {
            judge(sc.expects[i], verdicts[i], t, t >= end);
            all = all && verdicts[i].decided;
            failed = failed || (verdicts[i].decided && !verdicts[i].ok);
        }
        if (failed || all || t >= end) {
            break;
        }
        if (g_interrupted != 0) {
            status = EXIT_TROUBLE;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    double stoppedAt = g_clock.now();
    bool reachedEnd = stoppedAt >= end;
    g_timeline.add("-", g_interrupted != 0 ? "run interrupted"
                        : reachedEnd       ? "end of the scenario"
                                     : "run stopped: every expectation is decided or one failed");
    g_timeline.close();
    {
        std::lock_guard<std::mutex> g(g_world.mu);
        g_world.tearingDown = true;
    }
    for (size_t i = 0; i < sc.expects.size(); ++i) {
        if (reachedEnd) {
            judge(sc.expects[i], verdicts[i], stoppedAt, true);
        }
    }

    // Stop everything: daemons, management, listeners, emulators.
    for (auto& n : g_world.nodes) {
        killDaemon(*n, SIGTERM);
        tail(*n);
    }
    for (auto& n : g_world.nodes) {
        {
            std::lock_guard<std::mutex> g(n->mqMu);
            n->mqStop = true;
            n->mq.clear();
        }
        n->mqCv.notify_all();
        if (n->mqThread.joinable()) {
            n->mqThread.join();
        }
        n->listenStop = true;
        if (n->listener.joinable()) {
            n->listener.join();
        }
        for (int fd : n->listenFds) {
            if (fd >= 0) {
                close(fd);
            }
        }
        n->server->stop();
    }

    json rep;
    rep["scenario"] = sc.name;
    rep["file"] = file;
    rep["seed"] = sc.seed;
    rep["timeScale"] = sc.timeScale;
    rep["simulatedSeconds"] = Timeline::round1(stoppedAt);
    rep["expectations"] = json::array();
    int held = 0;
    printf("\n");
    for (size_t i = 0; i < sc.expects.size(); ++i) {
        const Verdict& v = verdicts[i];
        held += v.ok ? 1 : 0;
        // An expectation the run stopped before deciding (another one failed first).
        std::string seen = v.decided ? v.seen
                                     : "not decided: the run stopped at t=" +
                                           std::to_string(static_cast<long long>(stoppedAt));
        rep["expectations"].push_back({{"expect", sc.expects[i].text},
                                       {"path", sc.expects[i].path},
                                       {"holds", v.ok},
                                       {"decided", v.decided},
                                       {"seen", seen}});
        printf("%s  %s  (%s: %s%s)\n",
               v.ok        ? "PASS"
               : v.decided ? "FAIL"
                           : "----",
               sc.expects[i].text.c_str(), sc.expects[i].path.c_str(),
               v.ok || !v.decided ? "" : "seen ", seen.c_str());
    }
    rep["nodes"] = json::object();
    for (auto& n : g_world.nodes) {
        rep["nodes"][n->def.name] = nodeReport(*n);
    }
    rusage self{}, children{};
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_CHILDREN, &children);
    auto seconds = [](const rusage& r) {
        return r.ru_utime.tv_sec + r.ru_stime.tv_sec +
               (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
    };
    double wall = stoppedAt / sc.timeScale;
    rep["resources"] = {{"wallSeconds", wall},
                        {"simulatorCpuSeconds", seconds(self)},
                        {"daemonsCpuSeconds", seconds(children)},
                        {"simulatorCpuShare", wall > 0 ? seconds(self) / wall : 0.0}};
    rep["timeline"] = g_timeline.lines();
    if (status == EXIT_PASS) {
        status = held == static_cast<int>(sc.expects.size()) ? EXIT_PASS : EXIT_FAIL;
    }
    rep["verdict"] = status == EXIT_PASS ? "pass" : status == EXIT_FAIL ? "fail" : "trouble";
    if (!report.empty() && !writeFile(report, rep.dump(2) + "\n")) {
        fprintf(stderr, "zormesh-sim: cannot write %s\n", report.c_str());
    }
    printf("zormesh-sim: %s: %d of %zu expectations hold after %.0f simulated seconds: %s\n",
           sc.name.c_str(), held, sc.expects.size(), stoppedAt,
           status == EXIT_PASS ? "PASS" : "FAIL");
    if (tempDir) {
        std::string rm = "rm -rf '" + workdir + "'"; // a path we made with mkdtemp
        char* const env[] = {nullptr};
        linux_impl::runShell(rm.c_str(), env);
    }
    return status;
}
