#include "sim_scenario.h"

#include "records.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <cstdio>
#include <set>

namespace sim {

using nlohmann::json;

namespace {

std::string at(const std::string& path, const std::string& key) {
    return path + "." + key;
}
std::string at(const std::string& path, size_t i) {
    return path + "[" + std::to_string(i) + "]";
}

// Refuses keys the scenario format does not know: a misspelt key is a fault, not a default.
void onlyKeys(const json& j, const std::string& path, std::initializer_list<const char*> keys) {
    if (!j.is_object()) {
        throw BadScenario(path, "must be an object");
    }
    for (auto it = j.begin(); it != j.end(); ++it) {
        bool known = false;
        for (const char* k : keys) {
            known = known || it.key() == k;
        }
        if (!known) {
            throw BadScenario(at(path, it.key()), "unknown key");
        }
    }
}

double number(const json& j, const std::string& path, double min, double max) {
    if (!j.is_number()) {
        throw BadScenario(path, "must be a number");
    }
    double v = j.get<double>();
    if (v < min || v > max) {
        throw BadScenario(path, "must lie from " + std::to_string(static_cast<long long>(min)) +
                                    " to " + std::to_string(static_cast<long long>(max)));
    }
    return v;
}

uint32_t integer(const json& j, const std::string& path, uint32_t min, uint32_t max) {
    if (!j.is_number_integer() && !j.is_number_unsigned()) {
        throw BadScenario(path, "must be an integer");
    }
    return static_cast<uint32_t>(number(j, path, min, max));
}

std::string text(const json& j, const std::string& path) {
    if (!j.is_string() || j.get<std::string>().empty()) {
        throw BadScenario(path, "must be a non-empty string");
    }
    return j.get<std::string>();
}

bool boolean(const json& j, const std::string& path) {
    if (!j.is_boolean()) {
        throw BadScenario(path, "must be true or false");
    }
    return j.get<bool>();
}

uint32_t ipv4(const json& j, const std::string& path) {
    in_addr a{};
    if (!j.is_string() || inet_pton(AF_INET, j.get<std::string>().c_str(), &a) != 1) {
        throw BadScenario(path, "must be a dotted IPv4 address");
    }
    return ntohl(a.s_addr);
}

Mac mac(const json& j, const std::string& path) {
    Mac m{};
    unsigned v[6];
    char end;
    if (!j.is_string() || sscanf(j.get<std::string>().c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0],
                                 &v[1], &v[2], &v[3], &v[4], &v[5], &end) != 6) {
        throw BadScenario(path, "must be a MAC address like 02:00:00:00:00:01");
    }
    for (int i = 0; i < 6; ++i) {
        m[i] = static_cast<uint8_t>(v[i]);
    }
    return m;
}

int state(const json& j, const std::string& path) {
    std::string s = j.is_string() ? j.get<std::string>() : "";
    if (s == "NORMAL") {
        return 1;
    }
    if (s == "MESH") {
        return 2;
    }
    if (s == "ISOLATED") {
        return 4;
    }
    throw BadScenario(path, "must be NORMAL, MESH or ISOLATED");
}

std::string nodeRef(const Scenario& s, const json& j, const std::string& path) {
    std::string n = text(j, path);
    if (s.indexOf(n) < 0) {
        throw BadScenario(path, "no node is named " + n);
    }
    return n;
}

std::pair<std::string, std::string> pair(const Scenario& s, const json& j,
                                         const std::string& path) {
    if (!j.is_array() || j.size() != 2) {
        throw BadScenario(path, "must name two nodes");
    }
    auto a = nodeRef(s, j[0], at(path, 0));
    auto b = nodeRef(s, j[1], at(path, 1));
    if (a == b) {
        throw BadScenario(path, "must name two different nodes");
    }
    return {a, b};
}

NodeDef parseNode(const json& j, const std::string& path, size_t index) {
    onlyKeys(j, path,
             {"name", "mac", "uplink", "enable", "managed", "channel", "wlanMode", "bandwidth",
              "dfs", "resetFlag", "country", "admit", "ip", "config"});
    NodeDef n;
    if (!j.contains("name")) {
        throw BadScenario(path, "a node needs a name");
    }
    n.name = text(j["name"], at(path, "name"));
    if (n.name.size() > 16 ||
        n.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                 "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") != std::string::npos) {
        throw BadScenario(at(path, "name"), "must be at most 16 letters, digits, - or _");
    }
    if (j.contains("mac")) {
        n.mac = mac(j["mac"], at(path, "mac"));
    } else {
        n.mac = Mac{0x02,
                    0x5a,
                    0x00,
                    0x00,
                    static_cast<uint8_t>(index >> 8),
                    static_cast<uint8_t>(index + 1)};
    }
    n.ip = 0xC0A80100u + 10u + static_cast<uint32_t>(index); // 192.168.1.10 + index
    if (j.contains("ip")) {
        n.ip = ipv4(j["ip"], at(path, "ip"));
    }
    if (j.contains("uplink")) {
        n.uplink = boolean(j["uplink"], at(path, "uplink"));
    }
    if (j.contains("enable")) {
        n.enable = boolean(j["enable"], at(path, "enable"));
    }
    if (j.contains("managed")) {
        n.managed = boolean(j["managed"], at(path, "managed"));
    }
    if (j.contains("config")) {
        const records::Record& rec = records::config();
        std::vector<uint8_t> record(rec.size, 0);
        std::string err;
        n.configJson = j["config"].dump();
        if (!records::fromJson(rec, records::Json::parse(n.configJson), record.data(),
                               record.size(), &err)) {
            size_t colon = err.find(": ");
            std::string where = colon == std::string::npos ? "" : err.substr(0, colon);
            throw BadScenario(at(path, "config") + (where.empty() || where[0] == '[' ? "" : ".") +
                                  where,
                              colon == std::string::npos ? err : err.substr(colon + 2));
        }
    }
    if (j.contains("channel")) {
        n.channel = integer(j["channel"], at(path, "channel"), 1, 196);
    }
    if (j.contains("wlanMode")) {
        n.wlanMode = integer(j["wlanMode"], at(path, "wlanMode"), 0, 255);
    }
    if (j.contains("bandwidth")) {
        n.bandwidth = integer(j["bandwidth"], at(path, "bandwidth"), 0, 6);
    }
    if (j.contains("dfs")) {
        n.dfs = boolean(j["dfs"], at(path, "dfs"));
    }
    if (j.contains("resetFlag")) {
        n.resetFlag = boolean(j["resetFlag"], at(path, "resetFlag"));
    }
    if (j.contains("country")) {
        n.country = integer(j["country"], at(path, "country"), 0, 999);
    }
    return n;
}

void parseAdmit(Scenario& s, const json& nodes, const std::string& path) {
    for (size_t i = 0; i < nodes.size(); ++i) {
        const json& j = nodes[i];
        if (!j.contains("admit")) {
            continue;
        }
        std::string p = at(at(path, i), "admit");
        const json& a = j["admit"];
        if (a.is_string() && a.get<std::string>() == "all") {
            s.nodes[i].admitAll = true;
            continue;
        }
        if (!a.is_array()) {
            throw BadScenario(p, "must be \"all\" or a list of node names");
        }
        for (size_t k = 0; k < a.size(); ++k) {
            s.nodes[i].admit.push_back(nodeRef(s, a[k], at(p, k)));
        }
    }
}

EventDef parseEvent(const Scenario& s, const json& j, const std::string& path) {
    onlyKeys(j, path,
             {"at", "uplink", "node", "link", "signal", "loop", "between", "kill", "restart",
              "configure", "enable", "rescan"});
    EventDef e;
    e.path = path;
    if (!j.contains("at")) {
        throw BadScenario(path, "an event needs \"at\" (simulated seconds)");
    }
    e.at = number(j["at"], at(path, "at"), 0, 1e6);
    int kinds = 0;
    if (j.contains("uplink")) {
        ++kinds;
        e.kind = EventKind::Uplink;
        std::string v = j["uplink"].is_string() ? j["uplink"].get<std::string>() : "";
        if (v != "up" && v != "down") {
            throw BadScenario(at(path, "uplink"), "must be \"up\" or \"down\"");
        }
        e.on = v == "up";
        if (!j.contains("node")) {
            throw BadScenario(path, "an uplink event needs \"node\"");
        }
        e.node = nodeRef(s, j["node"], at(path, "node"));
    }
    if (j.contains("link")) {
        ++kinds;
        e.kind = EventKind::Link;
        auto p = pair(s, j["link"], at(path, "link"));
        e.node = p.first;
        e.other = p.second;
        if (!j.contains("signal")) {
            throw BadScenario(path, "a link event needs \"signal\" (dBm, or null for none)");
        }
        if (j["signal"].is_null()) {
            e.on = false;
        } else {
            e.signal = static_cast<int>(number(j["signal"], at(path, "signal"), -120, 0));
        }
    }
    if (j.contains("loop")) {
        ++kinds;
        e.kind = EventKind::Loop;
        std::string v = j["loop"].is_string() ? j["loop"].get<std::string>() : "";
        if (v != "on" && v != "off") {
            throw BadScenario(at(path, "loop"), "must be \"on\" or \"off\"");
        }
        e.on = v == "on";
        if (!j.contains("between")) {
            throw BadScenario(path, "a loop event needs \"between\" (two nodes)");
        }
        auto p = pair(s, j["between"], at(path, "between"));
        e.node = p.first;
        e.other = p.second;
    }
    for (auto [key, kind] :
         {std::make_pair("kill", EventKind::Kill), std::make_pair("restart", EventKind::Restart),
          std::make_pair("configure", EventKind::Configure),
          std::make_pair("rescan", EventKind::Rescan)}) {
        if (j.contains(key)) {
            ++kinds;
            e.kind = kind;
            e.node = nodeRef(s, j[key], at(path, key));
        }
    }
    if (j.contains("enable")) {
        if (!j.contains("configure") || !j["enable"].is_boolean()) {
            throw BadScenario(at(path, "enable"), "must be true or false, with \"configure\"");
        }
        e.on = j["enable"].get<bool>();
    } else if (j.contains("configure")) {
        for (const auto& n : s.nodes) {
            e.on = n.name == e.node ? n.enable : e.on;
        }
    }
    if (kinds != 1) {
        throw BadScenario(path, "an event is exactly one of uplink, link, loop, kill, restart, "
                                "configure, rescan");
    }
    return e;
}

ExpectDef parseExpect(const Scenario& s, const json& j, const std::string& path) {
    onlyKeys(j, path,
             {"node", "state", "parent", "within", "after", "at", "never", "errors", "candidates",
              "children"});
    ExpectDef x;
    x.path = path;
    if (j.contains("node")) {
        x.node = nodeRef(s, j["node"], at(path, "node"));
    }
    if (j.contains("after")) {
        x.after = number(j["after"], at(path, "after"), 0, 1e6);
    }
    if (j.contains("never")) {
        x.kind = ExpectKind::Never;
        x.state = state(j["never"], at(path, "never"));
        for (const char* k : {"state", "parent", "within", "at"}) {
            if (j.contains(k)) {
                throw BadScenario(at(path, k), "does not go with \"never\"");
            }
        }
        x.text = x.node.empty() ? std::string("no node ") + stateName(*x.state)
                                : x.node + " never " + stateName(*x.state);
        if (x.after > 0) {
            x.text += " after t=" + std::to_string(static_cast<long long>(x.after));
        }
        return x;
    }
    if (x.node.empty()) {
        throw BadScenario(path, "an expectation needs \"node\" (or \"never\")");
    }
    if (j.contains("errors")) {
        if (j["errors"] != "none" || j.size() != 2) {
            throw BadScenario(at(path, "errors"), "must be \"none\", with \"node\" alone");
        }
        x.kind = ExpectKind::Quiet;
        x.text = x.node + " prints no error line and makes no operation the models refuse";
        return x;
    }
    for (const char* key : {"candidates", "children"}) {
        if (!j.contains(key)) {
            continue;
        }
        const std::string where = at(path, key);
        if (!j[key].is_array() || !j.contains("at") || j.size() != 3) {
            throw BadScenario(where, "must be a list of nodes, with \"node\" and \"at\" alone");
        }
        x.kind = ExpectKind::Answer;
        x.query = key[1] == 'a' ? Query::Candidates : Query::Children;
        x.at = number(j["at"], at(path, "at"), 0, 1e6);
        std::string list;
        for (size_t i = 0; i < j[key].size(); ++i) {
            x.names.push_back(nodeRef(s, j[key][i], at(where, i)));
            list += (i == 0 ? "" : ", ") + x.names.back();
        }
        x.text = x.node +
                 (x.query == Query::Candidates ? "'s candidate scan finds "
                                               : " lists its online children as ") +
                 (list.empty() ? "nobody" : list) +
                 " at t=" + std::to_string(static_cast<long long>(x.at));
        return x;
    }
    if (j.contains("state")) {
        x.state = state(j["state"], at(path, "state"));
    }
    if (j.contains("parent")) {
        x.parent = j["parent"].is_null() ? "" : nodeRef(s, j["parent"], at(path, "parent"));
    }
    if (!x.state && !x.parent) {
        throw BadScenario(path, "an expectation needs \"state\" or \"parent\"");
    }
    std::string what = x.node;
    if (x.state) {
        what += std::string(" in ") + stateName(*x.state);
    }
    if (x.parent) {
        what += x.parent->empty() ? " without a parent"
                                  : (x.state ? " with parent " : "'s parent is ") + *x.parent;
    }
    if (j.contains("at")) {
        if (j.contains("within")) {
            throw BadScenario(at(path, "within"), "does not go with \"at\"");
        }
        x.kind = ExpectKind::At;
        x.at = number(j["at"], at(path, "at"), 0, 1e6);
        x.text = what + " at t=" + std::to_string(static_cast<long long>(x.at));
        return x;
    }
    x.kind = ExpectKind::Reach;
    if (j.contains("within")) {
        x.within = number(j["within"], at(path, "within"), 0, 1e6);
        if (x.within < x.after) {
            throw BadScenario(at(path, "within"), "lies before \"after\"");
        }
        x.text = what + " within " + std::to_string(static_cast<long long>(x.within)) + " s";
    } else {
        x.text = what + " before the end";
    }
    if (x.after > 0) {
        x.text += " (from t=" + std::to_string(static_cast<long long>(x.after)) + ")";
    }
    return x;
}

} // namespace

int Scenario::indexOf(const std::string& node) const {
    for (size_t i = 0; i < nodes.size(); ++i) {
        if (nodes[i].name == node) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

Scenario parseScenario(const std::string& body) {
    json j;
    try {
        j = json::parse(body);
    } catch (const json::exception& e) { // a syntax error, or a number beyond a double
        throw BadScenario("$", std::string("not JSON: ") + e.what());
    }
    const std::string root = "$";
    onlyKeys(j, root,
             {"name", "description", "seed", "timeScale", "duration", "network", "nodes", "links",
              "events", "expect"});
    Scenario s;
    s.name = j.contains("name") ? text(j["name"], "$.name") : "scenario";
    if (j.contains("seed")) {
        s.seed = integer(j["seed"], "$.seed", 0, 0xFFFFFFFFu);
    }
    if (j.contains("timeScale")) {
        s.timeScale = integer(j["timeScale"], "$.timeScale", 1, 1000);
    }
    if (j.contains("duration")) {
        s.duration = number(j["duration"], "$.duration", 1, 1e6);
    }
    s.gateway = 0xC0A80101u; // 192.168.1.1
    s.netmask = 0xFFFFFF00u;
    if (j.contains("network")) {
        onlyKeys(j["network"], "$.network", {"gateway", "netmask"});
        if (j["network"].contains("gateway")) {
            s.gateway = ipv4(j["network"]["gateway"], "$.network.gateway");
        }
        if (j["network"].contains("netmask")) {
            s.netmask = ipv4(j["network"]["netmask"], "$.network.netmask");
        }
    }
    if (!j.contains("nodes") || !j["nodes"].is_array() || j["nodes"].empty()) {
        throw BadScenario("$.nodes", "must be a list of at least one node");
    }
    std::set<std::string> names;
    std::set<Mac> macs;
    for (size_t i = 0; i < j["nodes"].size(); ++i) {
        NodeDef n = parseNode(j["nodes"][i], at("$.nodes", i), i);
        if (!names.insert(n.name).second) {
            throw BadScenario(at(at("$.nodes", i), "name"), "a second node named " + n.name);
        }
        if (!macs.insert(n.mac).second) {
            throw BadScenario(at(at("$.nodes", i), "mac"), "a second node with this MAC");
        }
        s.nodes.push_back(n);
    }
    parseAdmit(s, j["nodes"], "$.nodes");
    if (j.contains("links")) {
        if (!j["links"].is_array()) {
            throw BadScenario("$.links", "must be a list");
        }
        for (size_t i = 0; i < j["links"].size(); ++i) {
            std::string p = at("$.links", i);
            onlyKeys(j["links"][i], p, {"between", "signal"});
            if (!j["links"][i].contains("between")) {
                throw BadScenario(p, "a link needs \"between\" (two nodes)");
            }
            auto ab = pair(s, j["links"][i]["between"], at(p, "between"));
            LinkDef l{ab.first, ab.second, -50};
            if (j["links"][i].contains("signal")) {
                l.signal =
                    static_cast<int>(number(j["links"][i]["signal"], at(p, "signal"), -120, 0));
            }
            s.links.push_back(l);
        }
    }
    if (j.contains("events")) {
        if (!j["events"].is_array()) {
            throw BadScenario("$.events", "must be a list");
        }
        for (size_t i = 0; i < j["events"].size(); ++i) {
            s.events.push_back(parseEvent(s, j["events"][i], at("$.events", i)));
        }
    }
    if (!j.contains("expect") || !j["expect"].is_array() || j["expect"].empty()) {
        throw BadScenario("$.expect", "must be a list of at least one expectation");
    }
    for (size_t i = 0; i < j["expect"].size(); ++i) {
        s.expects.push_back(parseExpect(s, j["expect"][i], at("$.expect", i)));
    }
    return s;
}

const char* stateName(int state) {
    switch (state) {
    case 1:
        return "NORMAL";
    case 2:
        return "MESH";
    case 4:
        return "ISOLATED";
    default:
        return "none";
    }
}

std::string macText(const Mac& m) {
    char b[18];
    snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

} // namespace sim
