// The simulator's own rules: parent choice, association, the kernel's counter and its loop
// detector. Each is a table: situation, what the rule must decide.
#include "sim_model.h"

#include <gtest/gtest.h>

namespace {

using sim::ParentView;

TEST(SimModel, ParentChoiceTakesTheStrongestQualifiedParent) {
    const struct {
        const char* what;
        std::vector<ParentView> parents;
        uint64_t tieBreak;
        std::optional<std::string> chosen;
    } cases[] = {
        {"strongest of two", {{"p1", -70, true, true}, {"p2", -50, true, true}}, 0, "p2"},
        {"a stronger parent without blocks is passed over",
         {{"p1", -70, true, true}, {"p2", -40, true, false}},
         0,
         "p1"},
        {"a stronger parent whose backhaul is down is passed over",
         {{"p1", -70, true, true}, {"p2", -40, false, true}},
         0,
         "p1"},
        {"out of range", {{"p1", std::nullopt, true, true}}, 0, std::nullopt},
        {"nobody holds blocks",
         {{"p1", -40, true, false}, {"p2", -45, true, false}},
         0,
         std::nullopt},
        {"a tie goes by the tie-break, in name order",
         {{"p2", -60, true, true}, {"p1", -60, true, true}, {"p3", -70, true, true}},
         1,
         "p2"},
        {"the tie-break wraps around", {{"p2", -60, true, true}, {"p1", -60, true, true}}, 2, "p1"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.chosen, sim::chooseParent(c.parents, c.tieBreak)) << c.what;
    }
}

TEST(SimModel, AStationAssociatesOnlyWithTheExactCredentialsOfAReachableBackhaul) {
    const sim::StationConfig sta{"mesh_025a00000001", "0123456789abcdef0123456789abcdef"};
    const struct {
        sim::BackhaulView ap;
        bool ok;
        const char* why;
    } cases[] = {
        {{sta.ssid, sta.passphrase, true, -60}, true, ""},
        {{sta.ssid, "0123456789abcdef0123456789abcdeF", true, -60},
         false,
         "wrong passphrase for mesh_025a00000001"},
        {{sta.ssid, sta.passphrase + "0", true, -60},
         false,
         "wrong passphrase for mesh_025a00000001"},
        {{"mesh_025a00000002", sta.passphrase, true, -60},
         false,
         "SSID mesh_025a00000001 is not the backhaul's mesh_025a00000002"},
        {{sta.ssid, sta.passphrase, false, -60},
         false,
         "the backhaul AP mesh_025a00000001 is down"},
        {{sta.ssid, sta.passphrase, true, std::nullopt},
         false,
         "the backhaul AP mesh_025a00000001 is out of range"},
    };
    for (const auto& c : cases) {
        sim::Association a = sim::associate(sta, c.ap);
        EXPECT_EQ(c.ok, a.ok) << c.why;
        EXPECT_EQ(c.why, a.why);
    }
}

TEST(SimModel, TheCounterMovesOnlyWhileTheTargetIsConfiguredAndReachable) {
    sim::Topology t;
    t.uplink = {"root"};
    t.parentOf = {{"c1", "root"}, {"c2", "c1"}, {"x", "y"}, {"y", "x"}};
    const struct {
        const char* node;
        bool configured;
        uint32_t next;
    } cases[] = {
        {"root", true, 8},  // wired
        {"c2", true, 8},    // two hops up to the wire
        {"root", false, 7}, // no target configured: nothing is counted
        {"lone", true, 7},  // neither wire nor parent
        {"x", true, 7},     // associated in a circle, no wire anywhere
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.next, sim::nextCount(7, c.configured, sim::hasPath(t, c.node))) << c.node;
    }
}

TEST(SimModel, ALoopIsACableBetweenTwoNodesOfOneWirelessTree) {
    sim::Topology t;
    t.parentOf = {{"c1", "p"}, {"c2", "c1"}, {"d1", "q"}};
    const struct {
        std::pair<std::string, std::string> cable;
        const char* node;
        bool detection;
        bool loop;
    } cases[] = {
        {{"c2", "p"}, "c2", true, true},   // grandchild cabled to the top
        {{"c2", "p"}, "p", true, true},    // seen from either end
        {{"c2", "p"}, "c1", true, false},  // not at a node without the cable
        {{"c2", "p"}, "c2", false, false}, // detection off
        {{"c1", "d1"}, "c1", true, false}, // two trees joined by a cable only
        {{"p", "q"}, "p", true, false},    // two separate nodes
    };
    for (const auto& c : cases) {
        t.wires = {c.cable};
        EXPECT_EQ(c.loop, sim::loopSeen(t, c.node, c.detection))
            << c.cable.first << "-" << c.cable.second << " at " << c.node;
    }
}

TEST(SimModel, TheAirHearsBothWaysAndNotBelowTheThreshold) {
    sim::Air air;
    air.setLink("a", "b", -60);
    air.setLink("a", "c", sim::kHearThreshold - 1);
    EXPECT_EQ(-60, air.heard("b", "a"));
    EXPECT_FALSE(air.heard("a", "c"));
    air.removeLink("b", "a");
    EXPECT_FALSE(air.heard("a", "b"));
}

} // namespace
