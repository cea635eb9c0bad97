// A scenario: the nodes of a mesh, the links between them, timed events and the
// expectations a run is judged by. Read from JSON (docs/scenarios.md); a fault is reported
// with the JSON path of the value at fault.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

// A scenario that cannot be played: `path` is the JSON path of the fault ("$.nodes[1].mac").
class BadScenario : public std::runtime_error {
  public:
    BadScenario(std::string path, const std::string& what)
        : std::runtime_error(path + ": " + what), path_(std::move(path)) {}
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

using Mac = std::array<uint8_t, 6>;

struct NodeDef {
    std::string name;
    Mac mac{};
    bool uplink = false;            // wired uplink up at start
    bool enable = true;             // meshEnable of the configuration sent at start
    bool managed = false;           // /tmp/ORB_STATE holds 4 (managed) or 2
    uint32_t channel = 36;          // the radio's channel
    uint32_t wlanMode = 14;         // wireless mode code of the radio
    uint32_t bandwidth = 2;         // width code of the basic settings
    bool dfs = false;               // dfsFlag of the configuration
    bool resetFlag = false;         // resetFlag of the configuration
    uint32_t country = 0;           // countryCode of the configuration
    bool admitAll = false;          // admit every would-be child
    std::vector<std::string> admit; // or these nodes only
    uint32_t ip = 0;                // deviceIp
    // Fields of the configuration record sent at start that the scenario sets itself
    // ("config", in the JSON form of the records library), over the record built from the
    // fields above. Empty: none.
    std::string configJson;
};

struct LinkDef {
    std::string a, b;
    int signal = -50;
};

enum class EventKind { Uplink, Link, Loop, Kill, Restart, Configure, Rescan };

struct EventDef {
    double at = 0;
    EventKind kind = EventKind::Uplink;
    std::string node, other; // other: the far end of a link or a loop cable
    bool on = true;          // uplink up, loop on, link present
    int signal = -50;
    std::string path; // JSON path, for the timeline
};

enum class ExpectKind {
    Reach,  // the node is in `state` (with `parent`) at some time in [after, within]
    At,     // the node is in `state` (with `parent`) at time `at`
    Never,  // no node (or `node`) is in `state` from `after` to the end
    Quiet,  // `node`'s daemon prints no error line and the models refuse none of its operations
    Answer, // at time `at`, `node` answers the management side's query with exactly `names`
};

// What an Answer expectation asks: the parents a candidate scan finds (types 9 and 11), or
// the online children (type 7).
enum class Query { Candidates, Children };

struct ExpectDef {
    ExpectKind kind = ExpectKind::Reach;
    std::string node;                  // empty for "any node" in Never
    std::optional<int> state;          // MESH_STATE value
    std::optional<std::string> parent; // "" = no parent
    double after = 0;
    double within = 0; // Reach: deadline; 0 = the end of the run
    double at = 0;
    Query query = Query::Candidates;
    std::vector<std::string> names; // Answer: the nodes expected, in any order
    std::string text;               // the expectation in words
    std::string path;
};

struct Scenario {
    std::string name;
    uint64_t seed = 1;
    uint32_t timeScale = 20;
    double duration = 0; // simulated seconds; 0: until every expectation is decided
    uint32_t gateway = 0;
    uint32_t netmask = 0;
    std::vector<NodeDef> nodes;
    std::vector<LinkDef> links;
    std::vector<EventDef> events;
    std::vector<ExpectDef> expects;

    int indexOf(const std::string& node) const;
};

// Parses a scenario from JSON text; throws BadScenario.
Scenario parseScenario(const std::string& text);

// "MESH" for 2 and so on; "none" for an unknown value.
const char* stateName(int state);
std::string macText(const Mac& mac);

} // namespace sim
