// zormeshctl's subcommands: one per command type, each turning its arguments into a payload,
// and one decoder per query reply. Records come from the field tables of records.h.
#include "ctl.h"

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "platform/byteorder.h"
#include "platform/hex.h"
#include "platform/unix_sock.h"
#include "records.h"
#include "wlan/mesh_wlan_scan.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace ctl {
namespace {

constexpr const char* kDefaultSocket = "/var/run/usock/21.sock";
// Queries are sent with these four bytes at payload offset 0. Every answer the daemon writes
// there differs from them, so a reply that still carries them was not filled in.
constexpr uint32_t kUnanswered = 0xFFFFFFFFu;

// A refused argument: the message, and nothing is sent.
struct Refused {
    std::string what;
};

using records::Json;

// ---- arguments ----------------------------------------------------------------------------------

uint64_t parseNumber(const std::string& text, uint64_t max, const std::string& what) {
    errno = 0;
    char* end = nullptr;
    unsigned long long v = text.empty() || text[0] == '-' ? 0 : strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || errno != 0 || end == nullptr || *end != '\0' || v > max) {
        throw Refused{what + " must be a number from 0 to " + std::to_string(max) + ", not '" +
                      text + "'"};
    }
    return v;
}

// A number, or one of `names` (name -> value).
uint32_t parseNamed(const std::string& text,
                    const std::vector<std::pair<std::string, uint32_t>>& names, uint64_t max,
                    const std::string& what) {
    for (const auto& n : names) {
        if (text == n.first) {
            return n.second;
        }
    }
    std::string list;
    for (const auto& n : names) {
        list += (list.empty() ? "" : ", ") + n.first;
    }
    try {
        return static_cast<uint32_t>(parseNumber(text, max, what));
    } catch (const Refused&) {
        throw Refused{what + " must be one of " + list + " or a number from 0 to " +
                      std::to_string(max) + ", not '" + text + "'"};
    }
}

void putMac(const std::string& text, uint8_t* out, const std::string& what) {
    if (!records::parseMac(text, out)) {
        throw Refused{what + " must be a MAC address like aa:bb:cc:dd:ee:ff, not '" + text + "'"};
    }
}

void putHex(const std::string& text, uint8_t* out, size_t size, const std::string& what) {
    size_t n = 0;
    if (!hex::parse(text.data(), text.size(), out, size, &n) || n != size) {
        throw Refused{what + " must be " + std::to_string(size) + " bytes as " +
                      std::to_string(2 * size) + " hexadecimal digits"};
    }
}

uint32_t parseIp(const std::string& text, const std::string& what) {
    uint32_t ip = 0;
    if (!records::parseIpv4(text, &ip)) {
        throw Refused{what + " must be an IPv4 address like 192.168.1.1, not '" + text + "'"};
    }
    return ip;
}

std::string readFile(const std::string& path) {
    if (path == "-") {
        return std::string(std::istreambuf_iterator<char>(std::cin), {});
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw Refused{"cannot read " + path + ": " + strerror(errno)};
    }
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A record read from a JSON file (comments allowed) into `out`.
void recordFromFile(const records::Record& rec, const std::string& path, void* out) {
    Json doc;
    try {
        doc = Json::parse(readFile(path), nullptr, true, true);
    } catch (const Json::exception& e) { // a syntax error, or a number beyond a double
        throw Refused{path + ": not JSON: " + e.what()};
    }
    std::string error;
    if (!records::fromJson(rec, doc, out, rec.size, &error)) {
        throw Refused{path + ": " + error};
    }
}

// ---- the exchange -----------------------------------------------------------------------------

// Moves all `len` bytes through `io` (send or recv), going on after an interrupted call.
template <typename Io, typename Buf> bool transferAll(Io io, Buf* buf, size_t len) {
    while (len > 0) {
        ssize_t n = io(buf, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool sendAll(int fd, const uint8_t* buf, size_t len) {
    return transferAll([fd](const uint8_t* b, size_t l) { return send(fd, b, l, MSG_NOSIGNAL); },
                       buf, len);
}

bool recvAll(int fd, uint8_t* buf, size_t len) {
    return transferAll([fd](uint8_t* b, size_t l) { return recv(fd, b, l, 0); }, buf, len);
}

// Sends `msg` and receives the reply into it; returns an exit status.
int exchange(const std::string& path, int timeoutSec, MESH_CMD_MSG* msg, std::ostream& err) {
    int fd = unix_sock_connectPath(path.c_str());
    if (fd < 0) {
        err << "zormeshctl: cannot connect to " << path << ": " << strerror(errno) << "\n";
        return EXIT_NO_CONNECT;
    }
    timeval tv{timeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    uint8_t header[UNIX_SOCK_HEADER_SIZE];
    put_le32(header, UNIX_SOCK_MAGIC);
    put_le32(header + 4, MESH_CMD_MSG_CODE);
    put_le32(header + 8, MESH_CMD_MSG_LEN);
    put_le32(header + 12, 0);
    auto* bytes = reinterpret_cast<uint8_t*>(msg);
    bool ok = sendAll(fd, header, sizeof header) && sendAll(fd, bytes, MESH_CMD_MSG_LEN) &&
              recvAll(fd, header, sizeof header) && get_le32(header) == UNIX_SOCK_MAGIC &&
              get_le32(header + 8) == MESH_CMD_MSG_LEN && recvAll(fd, bytes, MESH_CMD_MSG_LEN);
    int saved = errno;
    close(fd);
    if (!ok) {
        err << "zormeshctl: no reply from " << path
            << (saved == EAGAIN ? " within the time-out" : ": the daemon closed the connection")
            << "\n";
        return EXIT_NO_REPLY;
    }
    return EXIT_REPLY;
}

// ---- replies ----------------------------------------------------------------------------------

std::string dump(const Json& j) {
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Text that came from the air, printable: control bytes and blanks as \xNN.
std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c <= ' ' || c == 0x7f || c == '\\') {
            char buf[5];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// One entry as "key=value" pairs on one line.
std::string entryLine(const Json& entry) {
    std::string line;
    for (auto it = entry.begin(); it != entry.end(); ++it) {
        line += (line.empty() ? "" : "  ") + it.key() + "=" +
                (it->is_string() ? printable(it->get<std::string>()) : dump(*it));
    }
    return line;
}

struct Output {
    bool json;
    std::ostream& out;
    std::ostream& err;
};

// A u32 answer with names for its values.
void printWord(const Output& o, const uint8_t* payload, const char* key,
               const std::vector<std::pair<uint32_t, const char*>>& names, const char* unknown) {
    uint32_t v = get_le32(payload);
    const char* name = unknown;
    for (const auto& n : names) {
        if (n.first == v) {
            name = n.second;
        }
    }
    if (o.json) {
        Json j;
        j[key] = name;
        j["value"] = v;
        o.out << dump(j) << "\n";
    } else {
        o.out << name << " (" << v << ")\n";
    }
}

// The longest lists fit the payload, so a count capped at its maximum bounds every read.
static_assert(MESH_ONLINE_CHILD_REPLY_OFF +
                      MESH_MAX_ONLINE_CHILD * sizeof(MESH_ONLINE_CHILD_INFO) <=
                  MESH_CMD_PAYLOAD_LEN,
              "online children fit");
static_assert(MESH_CANDIDATE_CHILD_REPLY_OFF +
                      MESH_MAX_CANDIDATE_CHILD * sizeof(MESH_CANDIDATE_CHILD_INFO) <=
                  MESH_CMD_PAYLOAD_LEN,
              "candidates fit");
static_assert(MESH_SCAN_RESULT_REPLY_OFF + MESH_MAX_SCAN_CANDIDATE * sizeof(MESH_SCAN_CANDIDATE) <=
                  MESH_CMD_PAYLOAD_LEN,
              "scan results fit");

// A count byte and entries of one record from `entriesAt`; a count above `max` is capped.
void printList(const Output& o, const uint8_t* payload, size_t entriesAt, size_t max,
               const records::Record& rec, const char* key, const char* noun) {
    size_t count = payload[0];
    if (count > max) {
        o.err << "zormeshctl: the reply counts " << count << " " << noun << ", at most " << max
              << " can be; showing " << max << "\n";
        count = max;
    }
    Json list = Json::array();
    for (size_t i = 0; i < count; ++i) {
        list.push_back(records::toJson(rec, payload + entriesAt + i * rec.size));
    }
    if (o.json) {
        Json j;
        j["count"] = count;
        j[key] = list;
        o.out << dump(j) << "\n";
        return;
    }
    o.out << count << " " << noun << "\n";
    for (const Json& e : list) {
        o.out << "  " << entryLine(e) << "\n";
    }
}

// ---- subcommands ------------------------------------------------------------------------------

enum class ReplyKind { NONE, RAW, QUERY };

struct Command {
    CLI::App* app = nullptr;
    int32_t type = 0;
    ReplyKind reply = ReplyKind::NONE;
    std::function<void(uint8_t* payload)> build;               // may throw Refused
    std::function<void(const Output&, const uint8_t*)> decode; // queries
    std::function<int(const Output&)> local;                   // subcommands that send nothing
};

class Cli {
  public:
    Cli() : app_("Sends one command to a mesh daemon's command socket and prints the reply.") {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.option_defaults()->always_capture_default();
        app_.add_option("-s,--socket", socket_, "the daemon's command socket")
            ->default_val(kDefaultSocket);
        app_.add_flag("-j,--json", json_, "print replies as one JSON object");
        app_.add_option("-t,--timeout", timeout_, "seconds to wait for the reply")
            ->default_val(30)
            ->check(CLI::Range(1, 3600));
        app_.footer(
            "Exit status: 0 a reply came; 1 bad usage or a refused value (nothing was sent);\n"
            "2 the socket could not be reached; 3 the daemon closed the connection without a\n"
            "reply (or the time-out passed).\n"
            "The protocol carries no result code: a set command's reply only shows that the\n"
            "daemon read it; its error lines and event log tell whether it took effect. Queries\n"
            "are sent with ff ff ff ff at payload offset 0: a reply that still carries them was\n"
            "not filled in (online-children, scan-state and scan-result while the mesh is\n"
            "disabled, sta-status when the driver did not answer) and is shown as\n"
            "\"no answer\". candidates answers an empty list while the mesh is disabled.");
        addAll();
    }

    int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& e) {
            // --help prints to `out` and is no error.
            return app_.exit(e, out, err) == 0 ? EXIT_REPLY : EXIT_USAGE;
        }
        for (Command& c : commands_) {
            if (c.app->parsed()) {
                return runCommand(c, out, err);
            }
        }
        return EXIT_USAGE;
    }

  private:
    int runCommand(Command& c, std::ostream& out, std::ostream& err) {
        Output o{json_, out, err};
        MESH_CMD_MSG msg{};
        try {
            if (c.local) {
                return c.local(o);
            }
            if (c.reply == ReplyKind::QUERY) {
                put_le32(msg.payload, kUnanswered);
            }
            if (c.build) {
                c.build(msg.payload);
            }
        } catch (const Refused& r) {
            err << "zormeshctl " << c.app->get_name() << ": " << r.what << "\n";
            return EXIT_USAGE;
        }
        put_le32(reinterpret_cast<uint8_t*>(&msg.type), static_cast<uint32_t>(c.type));
        int rc = exchange(socket_, timeout_, &msg, err);
        if (rc != EXIT_REPLY) {
            return rc;
        }
        if (c.reply == ReplyKind::RAW) {
            out << hex::toHex(&msg, sizeof msg) << "\n";
        } else if (c.reply == ReplyKind::QUERY) {
            if (get_le32(msg.payload) == kUnanswered) {
                const char* why = "the daemon left the reply unfilled (mesh disabled, driver "
                                  "refusal or a type it does not serve)";
                if (json_) {
                    out << dump(Json{{"answered", false}, {"reason", why}}) << "\n";
                } else {
                    out << "no answer: " << why << "\n";
                }
            } else {
                c.decode(o, msg.payload);
            }
        }
        return EXIT_REPLY;
    }

    Command& add(const char* name, const char* help, int32_t type,
                 ReplyKind reply = ReplyKind::NONE) {
        commands_.emplace_back();
        Command& c = commands_.back();
        c.app = app_.add_subcommand(name, help);
        c.type = type;
        c.reply = reply;
        return c;
    }

    // Stores one string argument for the build step (kept alive by the Cli).
    std::string& slot() {
        slots_.emplace_back(new std::string);
        return *slots_.back();
    }

    void addSettings(const char* name, const char* help, int enable) {
        Command& c = add(name, help, MESH_CMD_UPDATE_MESH);
        std::string& file = slot();
        std::string& target = slot();
        std::string& gateway = slot();
        std::string& device = slot();
        std::string& netmask = slot();
        std::string& sector = slot();
        c.app->add_option("-c,--config", file,
                          "a configuration JSON file (as for init): its first seven fields");
        c.app->add_option("--target", target,
                          "network-check target address (sets netChkTargetSet)");
        c.app->add_option("--gateway", gateway, "gateway address");
        c.app->add_option("--device-ip", device, "own address");
        c.app->add_option("--netmask", netmask, "netmask");
        c.app->add_option("--full-sector", sector, "the driver's full-sector setting");
        c.build = [&, enable](uint8_t* p) {
            if (!file.empty()) {
                MESH_ALL_CONFIG cfg;
                recordFromFile(records::config(), file, &cfg);
                memcpy(p, &cfg, MESH_SETTINGS_LEN);
            } else if (enable < 0) {
                throw Refused{"needs --config FILE (its meshEnable decides)"};
            }
            if (enable >= 0) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, meshEnable), static_cast<uint32_t>(enable));
            }
            if (!target.empty()) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, netChkTargetSet), 1);
                put_le32(p + offsetof(MESH_ALL_CONFIG, netChkTargetIp),
                         parseIp(target, "--target"));
            }
            if (!gateway.empty()) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, gatewayIp), parseIp(gateway, "--gateway"));
            }
            if (!device.empty()) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, deviceIp), parseIp(device, "--device-ip"));
            }
            if (!netmask.empty()) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, netmask), parseIp(netmask, "--netmask"));
            }
            if (!sector.empty()) {
                put_le32(p + offsetof(MESH_ALL_CONFIG, fullSector),
                         static_cast<uint32_t>(parseNumber(sector, UINT32_MAX, "--full-sector")));
            }
        };
    }

    // A subcommand whose one argument is a u32 at payload offset 0.
    void addWord(const char* name, const char* help, int32_t type, const char* argHelp,
                 std::vector<std::pair<std::string, uint32_t>> names, const char* def = nullptr) {
        Command& c = add(name, help, type);
        std::string& value = slot();
        auto* opt = c.app->add_option("VALUE", value, argHelp);
        if (def != nullptr) {
            value = def;
        } else {
            opt->required();
        }
        c.build = [&value, names](uint8_t* p) {
            put_le32(p, parseNamed(value, names, UINT32_MAX, "VALUE"));
        };
    }

    void addQuery(const char* name, const char* help, int32_t type,
                  std::function<void(const Output&, const uint8_t*)> decode) {
        add(name, help, type, ReplyKind::QUERY).decode = std::move(decode);
    }

    void addAll() {
        {
            Command& c = add("init", "initialise the daemon with a whole configuration record",
                             MESH_CMD_INIT_MESH);
            std::string& file = slot();
            c.app->add_option("-c,--config", file, "configuration JSON file ('-' for stdin)")
                ->required();
            c.build = [&file](uint8_t* p) {
                MESH_ALL_CONFIG cfg;
                recordFromFile(records::config(), file, &cfg);
                memcpy(p, &cfg, sizeof cfg);
            };
        }
        {
            Command& c = add("update-ap", "replace the list of ordinary APs", MESH_CMD_UPDATE_AP);
            std::string& file = slot();
            lists_.push_back(std::make_unique<std::vector<std::string>>());
            std::vector<std::string>& aps = *lists_.back();
            c.app->add_option("-c,--config", file,
                              "the list as JSON: {\"count\":..,\"list\":[..]}");
            c.app->add_option("AP", aps,
                              "NAME[:beacon][:off]: an interface; beacon = carry the mesh "
                              "element, off = listed but not enabled");
            c.build = [&file, &aps](uint8_t* p) {
                MESH_NORMAL_AP_LIST list{};
                if (!file.empty()) {
                    recordFromFile(records::normalApList(), file, &list);
                }
                if (aps.size() > MESH_MAX_NORMAL_AP) {
                    throw Refused{"at most 16 APs"};
                }
                for (size_t i = 0; i < aps.size(); ++i) {
                    std::string name = aps[i].substr(0, aps[i].find(':'));
                    std::string opts = aps[i].substr(name.size());
                    MESH_NORMAL_AP& ap = list.list[i];
                    ap = MESH_NORMAL_AP{};
                    put_le32(reinterpret_cast<uint8_t*>(&ap.enable), 1);
                    if (name.empty() || name.size() >= sizeof ap.ifName) {
                        throw Refused{"AP '" + aps[i] + "' needs a name of 1 to 15 characters"};
                    }
                    memcpy(ap.ifName, name.data(), name.size());
                    for (size_t at = 0; at < opts.size();) {
                        size_t next = opts.find(':', at + 1);
                        std::string o = opts.substr(at + 1, next - at - 1);
                        if (o == "beacon") {
                            put_le32(reinterpret_cast<uint8_t*>(&ap.flags), 2);
                        } else if (o == "off") {
                            put_le32(reinterpret_cast<uint8_t*>(&ap.enable), 0);
                        } else {
                            throw Refused{"AP '" + aps[i] + "': unknown option '" + o + "'"};
                        }
                        at = next == std::string::npos ? opts.size() : next;
                    }
                }
                if (!aps.empty()) {
                    list.count = static_cast<uint8_t>(aps.size());
                }
                memcpy(p, &list, sizeof list);
            };
        }
        {
            Command& c =
                add("digest", "set the digest carried in probe requests", MESH_CMD_UPDATE_DIGEST);
            std::string& digest = slot();
            c.app->add_option("DIGEST", digest, "16 bytes as 32 hexadecimal digits")->required();
            c.build = [&digest](uint8_t* p) { putHex(digest, p, 16, "DIGEST"); };
        }
        addSettings("enable", "enable the mesh (mesh settings with meshEnable 1)", 1);
        addSettings("disable", "disable the mesh (mesh settings with meshEnable 0)", 0);
        addSettings("update-mesh", "send the mesh settings of a configuration file as they are",
                    -1);
        {
            Command& c =
                add("add-child", "admit a child, or update its digest", MESH_CMD_ADD_CHILD);
            std::string& mac = slot();
            std::string& digest = slot();
            c.app->add_option("MAC", mac, "the child's device MAC")->required();
            c.app->add_option("DIGEST", digest, "its digest, 32 hexadecimal digits")->required();
            c.build = [&mac, &digest](uint8_t* p) {
                putMac(mac, p + offsetof(MESH_CHILD_ENTRY, mac), "MAC");
                putHex(digest, p + offsetof(MESH_CHILD_ENTRY, digest), 16, "DIGEST");
            };
        }
        {
            Command& c = add("del-child", "remove an admitted child", MESH_CMD_DEL_CHILD);
            std::string& mac = slot();
            c.app->add_option("MAC", mac, "the child's device MAC")->required();
            c.build = [&mac](uint8_t* p) { putMac(mac, p, "MAC"); };
        }
        addQuery("online-children", "list the admitted children associated with the backhaul",
                 MESH_CMD_GET_ONLINE_CHILD, [](const Output& o, const uint8_t* p) {
                     printList(o, p, MESH_ONLINE_CHILD_REPLY_OFF, MESH_MAX_ONLINE_CHILD,
                               records::onlineChild(), "children", "online children");
                 });
        addQuery("candidates", "list the nodes that asked to join within the last minute",
                 MESH_CMD_GET_CANDIDATE_CHILD, [](const Output& o, const uint8_t* p) {
                     printList(o, p, MESH_CANDIDATE_CHILD_REPLY_OFF, MESH_MAX_CANDIDATE_CHILD,
                               records::candidateChild(), "candidates", "candidate children");
                 });
        {
            Command& c =
                add("scan", "start a scan for candidate parents", MESH_CMD_SCAN_CANDIDATE_AP);
            flags_.push_back(std::make_unique<bool>(false));
            bool& notify = *flags_.back();
            std::string& word = slot();
            word = "0";
            c.app->add_flag("-n,--notify", notify, "announce the end of the scan to service 22");
            c.app->add_option("--word", word, "the request's first word (not used by the scan)");
            c.build = [&notify, &word](uint8_t* p) {
                put_le32(p + offsetof(MESH_SCAN_REQUEST, word),
                         static_cast<uint32_t>(parseNumber(word, UINT32_MAX, "--word")));
                put_le32(p + offsetof(MESH_SCAN_REQUEST, notify), notify ? 1 : 0);
            };
        }
        addQuery("scan-state", "tell whether a candidate-parent scan runs", MESH_CMD_GET_SCAN_STATE,
                 [](const Output& o, const uint8_t* p) {
                     printWord(o, p, "scan", {{0, "idle"}, {1, "scanning"}}, "unknown");
                 });
        addQuery("scan-result", "list the candidate parents of the last scan",
                 MESH_CMD_GET_SCAN_RESULT, [](const Output& o, const uint8_t* p) {
                     printList(o, p, MESH_SCAN_RESULT_REPLY_OFF, MESH_MAX_SCAN_CANDIDATE,
                               records::scanCandidate(), "parents", "candidate parents");
                 });
        {
            Command& c = add("controller-addr", "set the controller's address and ports",
                             MESH_CMD_SET_CONTROLLER_IP_PORT);
            std::string& ip = slot();
            std::string& port1 = slot();
            std::string& port2 = slot();
            port1 = "0";
            port2 = "0";
            c.app->add_option("ADDRESS", ip, "address text, fewer than 80 characters")->required();
            c.app->add_option("PORT1", port1, "first port");
            c.app->add_option("PORT2", port2, "second port");
            c.build = [&ip, &port1, &port2](uint8_t* p) {
                if (ip.empty() || ip.size() >= sizeof(MESH_CONTROLLER_IP_PORT::ip)) {
                    throw Refused{"ADDRESS must have 1 to 79 characters"};
                }
                memcpy(p + offsetof(MESH_CONTROLLER_IP_PORT, ip), ip.data(), ip.size());
                put_le32(p + offsetof(MESH_CONTROLLER_IP_PORT, value1),
                         static_cast<uint32_t>(parseNumber(port1, UINT32_MAX, "PORT1")));
                put_le32(p + offsetof(MESH_CONTROLLER_IP_PORT, value2),
                         static_cast<uint32_t>(parseNumber(port2, UINT32_MAX, "PORT2")));
            };
        }
        addQuery(
            "state", "print the mesh state", MESH_CMD_GET_MESH_STATE,
            [](const Output& o, const uint8_t* p) {
                printWord(o, p, "state", {{1, "NORMAL"}, {2, "MESH"}, {4, "ISOLATED"}}, "UNKNOWN");
            });
        {
            Command& c =
                add("controller-id", "set the controller identity", MESH_CMD_SET_CONTROLLER_ID);
            std::string& id = slot();
            c.app->add_option("ID", id, "16 bytes as 32 hexadecimal digits")->required();
            c.build = [&id](uint8_t* p) { putHex(id, p, 16, "ID"); };
        }
        addWord("rescan", "ask the state module for a new parent search (0 withdraws it)",
                MESH_CMD_REQUEST_RESCAN, "1 (default) or 0", {{"on", 1}, {"off", 0}}, "1");
        addWord("special", "switch the backhaul AP: restart (1), down (2) or up (3)",
                MESH_CMD_SET_SPECIAL, "restart, down, up or 1, 2, 3",
                {{"restart", 1}, {"down", 2}, {"up", 3}});
        addQuery(
            "sta-status", "tell whether the mesh station is associated", MESH_CMD_GET_STA_STATUS,
            [](const Output& o, const uint8_t* p) {
                printWord(o, p, "station", {{0, "not associated"}, {1, "associated"}}, "unknown");
            });
        addWord("reset-flag", "set or clear the reset flag (also posts or withdraws a rescan)",
                MESH_CMD_SET_RESET_FLAG, "on, off or a number", {{"on", 1}, {"off", 0}});
        {
            Command& c = add("vlan", "set the mesh VLAN id", MESH_CMD_SET_VLAN_ID);
            std::string& id = slot();
            c.app->add_option("ID", id, "0 to 4095")->required();
            c.build = [&id](uint8_t* p) {
                put_le16(p, static_cast<uint16_t>(parseNumber(id, 4095, "ID")));
            };
        }
        {
            Command& c = add("basic-wlan", "set the basic radio settings of the backhaul",
                             MESH_CMD_SET_BASIC_WLAN_CFG);
            std::string& file = slot();
            std::string& bandwidth = slot();
            std::string& frequency = slot();
            std::string& mode = slot();
            c.app->add_option("-c,--config", file, "the settings as JSON (fields of basicWlanCfg)");
            c.app->add_option("--bandwidth", bandwidth, "width code 2 to 6");
            c.app->add_option("--frequency", frequency, "MHz, 0 = automatic channel");
            c.app->add_option("--mode", mode, "the platform's wireless mode code");
            c.build = [&file, &bandwidth, &frequency, &mode](uint8_t* p) {
                MESH_BASIC_WLAN_CFG cfg{};
                if (!file.empty()) {
                    recordFromFile(records::basicWlanCfg(), file, &cfg);
                }
                memcpy(p, &cfg, sizeof cfg);
                if (!bandwidth.empty()) {
                    put_le32(p + offsetof(MESH_BASIC_WLAN_CFG, bandwidth),
                             static_cast<uint32_t>(parseNumber(bandwidth, 6, "--bandwidth")));
                }
                if (!frequency.empty()) {
                    put_le32(
                        p + offsetof(MESH_BASIC_WLAN_CFG, frequency),
                        static_cast<uint32_t>(parseNumber(frequency, UINT32_MAX, "--frequency")));
                }
                if (!mode.empty()) {
                    put_le32(p + offsetof(MESH_BASIC_WLAN_CFG, wlanMode),
                             static_cast<uint32_t>(parseNumber(mode, UINT32_MAX, "--mode")));
                }
            };
        }
        addWord("adv-wlan", "set the advanced radio settings word", MESH_CMD_SET_ADV_WLAN_CFG,
                "the word", {});
        {
            Command& c = add("orbp", "set the management-protocol identity and capability version",
                             MESH_CMD_SET_ORBP_CFG);
            std::string& id = slot();
            std::string& verCap = slot();
            verCap = "0";
            c.app->add_option("ID", id, "identity text, at most 32 characters")->required();
            c.app->add_option("VERCAP", verCap, "capability version");
            c.build = [&id, &verCap](uint8_t* p) {
                if (id.size() >= sizeof(MESH_ORBP_CFG::vintacId)) {
                    throw Refused{"ID must have at most 32 characters"};
                }
                memcpy(p + offsetof(MESH_ORBP_CFG, vintacId), id.data(), id.size());
                put_le32(p + offsetof(MESH_ORBP_CFG, verCap),
                         static_cast<uint32_t>(parseNumber(verCap, UINT32_MAX, "VERCAP")));
            };
        }
        add("sync-parent-mode", "re-apply the parent's wireless mode to the backhaul",
            MESH_CMD_SYNC_PARENT_WLAN_MODE);
        {
            Command& c = add("raw",
                             "send any type with a hexadecimal payload; prints the whole "
                             "1456-byte reply as hex",
                             0, ReplyKind::RAW);
            std::string& type = slot();
            std::string& payload = slot();
            c.app->add_option("TYPE", type, "command type, a decimal number")->required();
            c.app->add_option("HEX", payload,
                              "payload bytes as hex (blanks and ':' allowed), at most 1448; the "
                              "rest is zero");
            Command* self = &c;
            c.build = [self, &type, &payload](uint8_t* p) {
                errno = 0;
                char* end = nullptr;
                long long t = strtoll(type.c_str(), &end, 10);
                if (type.empty() || errno != 0 || *end != '\0' || t < INT32_MIN || t > INT32_MAX) {
                    throw Refused{"TYPE must be a decimal number, not '" + type + "'"};
                }
                self->type = static_cast<int32_t>(t);
                size_t n = 0;
                if (!hex::parse(payload.data(), payload.size(), p, MESH_CMD_PAYLOAD_LEN, &n)) {
                    throw Refused{"HEX must be pairs of hexadecimal digits, at most 1448 bytes"};
                }
            };
        }
        {
            Command& c = add("config-template",
                             "print a complete, commented configuration file for init", 0);
            c.local = [](const Output& o) {
                o.out << records::commentedTemplate(records::config());
                return EXIT_REPLY;
            };
        }
        {
            Command& c = add("decode-config", "print a 788-byte configuration record as JSON", 0);
            std::string& file = slot();
            c.app->add_option("FILE", file, "the record ('-' for stdin)")->required();
            c.local = [&file](const Output& o) {
                std::string bytes = readFile(file);
                if (bytes.size() != sizeof(MESH_ALL_CONFIG)) {
                    throw Refused{file + " has " + std::to_string(bytes.size()) +
                                  " bytes, a configuration record has 788"};
                }
                o.out << records::toJson(records::config(), bytes.data())
                             .dump(2, ' ', false, Json::error_handler_t::replace)
                      << "\n";
                return EXIT_REPLY;
            };
        }
        {
            Command& c = add("completion", "print a bash completion script", 0);
            c.local = [this](const Output& o) {
                o.out << completion();
                return EXIT_REPLY;
            };
        }
    }

    // The completion script, from the subcommands and options defined above.
    std::string completion() {
        std::ostringstream s;
        s << "# bash completion for zormeshctl: source it, or install it as\n"
             "# /usr/share/bash-completion/completions/zormeshctl\n"
             "_zormeshctl() {\n"
             "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} sub= skip= "
             "w\n"
             "    for w in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
             "        if [ -n \"$skip\" ]; then skip=; continue; fi\n"
             "        case $w in\n"
             "            -s|--socket|-t|--timeout) skip=1 ;;\n"
             "            -*) ;;\n"
             "            *) [ -z \"$sub\" ] && sub=$w ;;\n"
             "        esac\n"
             "    done\n"
             "    case $prev in\n"
             "        -s|--socket|-c|--config) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
             "    esac\n"
             "    local words\n"
             "    case $sub in\n";
        std::string subs;
        for (const Command& c : commands_) {
            subs += (subs.empty() ? "" : " ") + c.app->get_name();
            std::string opts;
            for (const CLI::Option* opt : c.app->get_options()) {
                for (const std::string& l : opt->get_lnames()) {
                    opts += (opts.empty() ? "--" : " --") + l;
                }
            }
            if (c.app->get_name() == "special") {
                opts += " restart down up";
            } else if (c.app->get_name() == "rescan" || c.app->get_name() == "reset-flag") {
                opts += " on off";
            } else if (c.app->get_name() == "decode-config") {
                s << "        decode-config) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n";
                continue;
            }
            s << "        " << c.app->get_name() << ") words=\"" << opts << "\" ;;\n";
        }
        s << "        *) words=\"--socket --json --timeout --help " << subs << "\" ;;\n"
          << "    esac\n"
             "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
             "}\n"
             "complete -F _zormeshctl zormeshctl\n";
        return s.str();
    }

    CLI::App app_;
    std::string socket_;
    bool json_ = false;
    int timeout_ = 30;
    std::deque<Command> commands_; // stable addresses: the lambdas keep them
    std::vector<std::unique_ptr<std::string>> slots_;
    std::vector<std::unique_ptr<std::vector<std::string>>> lists_;
    std::vector<std::unique_ptr<bool>> flags_;
};

} // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    try {
        Cli cli;
        return cli.run(argc, argv, out, err);
    } catch (const Refused& r) {
        err << "zormeshctl: " << r.what << "\n";
        return EXIT_USAGE;
    }
}

} // namespace ctl
