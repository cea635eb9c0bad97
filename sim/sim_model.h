// The rules of the simulator's models, free of sockets, processes and clocks: who hears
// whom, which parent a scanning child is told about, when a station associates, when the
// kernel's target counter moves and when its loop detector reports a loop. zormesh-sim
// applies them to the live mesh; the model tests check them as tables.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace sim {

// A link weaker than this is not heard at all (dBm).
constexpr int kHearThreshold = -85;

// The air: a signal level per pair of nodes, the same both ways. No entry: out of range.
class Air {
  public:
    void setLink(const std::string& a, const std::string& b, int signal);
    void removeLink(const std::string& a, const std::string& b);
    // The signal between a and b when they hear each other.
    std::optional<int> heard(const std::string& a, const std::string& b) const;

  private:
    static std::pair<std::string, std::string> key(const std::string& a, const std::string& b);
    std::map<std::pair<std::string, std::string>, int> links_;
};

// A would-be parent as a scanning child sees it.
struct ParentView {
    std::string name;
    std::optional<int> signal; // none: out of range
    bool backhaulUp = false;   // its backhaul AP is up and carries the mesh element
    bool holdsBlocks = false;  // it admitted the child and holds encrypted blocks for it
};

// The parent whose information the child receives: the strongest heard parent whose
// backhaul is up and that holds blocks for the child. Equal signals are decided by
// `tieBreak` (an index into the tied parents, taken modulo their number), so that a seeded
// run replays the same choice. None when no parent qualifies.
std::optional<std::string> chooseParent(const std::vector<ParentView>& parents, uint64_t tieBreak);

// What a station tries to join and what the backhaul AP of the parent offers.
struct StationConfig {
    std::string ssid;
    std::string passphrase;
};
struct BackhaulView {
    std::string ssid;
    std::string passphrase;
    bool up = false;
    std::optional<int> signal;
};

struct Association {
    bool ok = false;
    std::string why; // the reason of a failure, for the timeline
};

// A station associates only with a backhaul AP that is up, in range, and whose SSID and
// passphrase equal the station's exactly.
Association associate(const StationConfig& sta, const BackhaulView& ap);

// Who is wired to the uplink and who is associated with whom.
struct Topology {
    std::set<std::string> uplink;                        // nodes whose wired uplink is up
    std::map<std::string, std::string> parentOf;         // station associations, child -> parent
    std::set<std::pair<std::string, std::string>> wires; // cables between two nodes' ports
};

// A node reaches the target when its own uplink is up or its parent reaches it.
bool hasPath(const Topology& t, const std::string& node);
// The top of a node's chain of associations (itself when it has no parent).
std::string airRoot(const Topology& t, const std::string& node);

// The kernel's target counter: it counts traffic of the configured target, so it moves
// (by one per reading) only while a target is configured and the node reaches it.
uint32_t nextCount(uint32_t count, bool targetConfigured, bool path);

// The kernel's loop detector: with detection on, a node reports a loop when a cable joins
// it to a node of the same wireless tree (so the two are bridged by wire and by air).
bool loopSeen(const Topology& t, const std::string& node, bool detectionOn);

} // namespace sim
