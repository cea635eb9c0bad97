#include "sim_model.h"

#include <algorithm>

namespace sim {

std::pair<std::string, std::string> Air::key(const std::string& a, const std::string& b) {
    return a < b ? std::make_pair(a, b) : std::make_pair(b, a);
}

void Air::setLink(const std::string& a, const std::string& b, int signal) {
    links_[key(a, b)] = signal;
}

void Air::removeLink(const std::string& a, const std::string& b) {
    links_.erase(key(a, b));
}

std::optional<int> Air::heard(const std::string& a, const std::string& b) const {
    auto it = links_.find(key(a, b));
    if (it == links_.end() || it->second < kHearThreshold) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<std::string> chooseParent(const std::vector<ParentView>& parents, uint64_t tieBreak) {
    std::vector<const ParentView*> best;
    for (const ParentView& p : parents) {
        if (!p.signal || !p.backhaulUp || !p.holdsBlocks) {
            continue;
        }
        if (!best.empty() && *p.signal < *best.front()->signal) {
            continue;
        }
        if (!best.empty() && *p.signal > *best.front()->signal) {
            best.clear();
        }
        best.push_back(&p);
    }
    if (best.empty()) {
        return std::nullopt;
    }
    std::sort(best.begin(), best.end(),
              [](const ParentView* a, const ParentView* b) { return a->name < b->name; });
    return best[tieBreak % best.size()]->name;
}

Association associate(const StationConfig& sta, const BackhaulView& ap) {
    if (!ap.signal) {
        return {false, "the backhaul AP " + sta.ssid + " is out of range"};
    }
    if (!ap.up) {
        return {false, "the backhaul AP " + sta.ssid + " is down"};
    }
    if (sta.ssid != ap.ssid) {
        return {false, "SSID " + sta.ssid + " is not the backhaul's " + ap.ssid};
    }
    if (sta.passphrase != ap.passphrase) {
        return {false, "wrong passphrase for " + sta.ssid};
    }
    return {true, ""};
}

namespace {

// Walks the chain of associations from `node`; stops at the top or on a cycle.
template <typename Visit> void walkUp(const Topology& t, const std::string& node, Visit visit) {
    std::set<std::string> seen;
    std::string at = node;
    while (seen.insert(at).second) {
        if (visit(at)) {
            return;
        }
        auto it = t.parentOf.find(at);
        if (it == t.parentOf.end()) {
            return;
        }
        at = it->second;
    }
}

} // namespace

bool hasPath(const Topology& t, const std::string& node) {
    bool found = false;
    walkUp(t, node, [&](const std::string& n) { return found = t.uplink.count(n) != 0; });
    return found;
}

std::string airRoot(const Topology& t, const std::string& node) {
    std::string top = node;
    walkUp(t, node, [&](const std::string& n) {
        top = n;
        return false;
    });
    return top;
}

uint32_t nextCount(uint32_t count, bool targetConfigured, bool path) {
    return targetConfigured && path ? count + 1 : count;
}

bool loopSeen(const Topology& t, const std::string& node, bool detectionOn) {
    if (!detectionOn) {
        return false;
    }
    for (const auto& w : t.wires) {
        const std::string* other = w.first == node    ? &w.second
                                   : w.second == node ? &w.first
                                                      : nullptr;
        if (other != nullptr && airRoot(t, node) == airRoot(t, *other)) {
            return true;
        }
    }
    return false;
}

} // namespace sim
