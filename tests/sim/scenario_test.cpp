// The scenario parser refuses a file it cannot play with the JSON path of the fault, whatever
// the JSON parser itself objects to.
#include "sim_scenario.h"

#include <gtest/gtest.h>

namespace {

TEST(SimScenario, UnplayableFilesAreRefusedWithThePathOfTheFault) {
    const std::string node =
        R"("nodes": [{"name": "a"}], "expect": [{"node": "a", "state": "NORMAL"}])";
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        {"{" + node + ",}", "$: not JSON"},
        {R"({"seed": 1e400, )" + node + "}", "$: not JSON: [json.exception.out_of_range.406]"},
        {R"({"seed": 1.5, )" + node + "}", "$.seed: must be an integer"},
        {R"({"links": [{"between": ["a", "b"]}], )" + node + "}",
         "$.links[0].between[1]: no node is named b"},
        {R"({"nodes": [{"name": "a"}], "expect": [{"node": "a", "children": ["b"], "at": 9}]})",
         "$.expect[0].children[0]: no node is named b"},
        {R"({"nodes": [{"name": "a"}], "expect": [{"node": "a", "candidates": []}]})",
         "$.expect[0].candidates: must be a list of nodes, with \"node\" and \"at\" alone"},
    };
    for (const auto& c : cases) {
        try {
            sim::parseScenario(c.text);
            ADD_FAILURE() << c.text << " was accepted";
        } catch (const sim::BadScenario& e) {
            EXPECT_EQ(0u, std::string(e.what()).find(c.error)) << e.what();
        }
    }
    EXPECT_EQ(1u, sim::parseScenario("{" + node + "}").nodes.size());
}

} // namespace
