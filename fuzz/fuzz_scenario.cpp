// zormesh-sim's scenario files: the input is the JSON text, read by the simulator's parser. A
// scenario it cannot play must be refused with BadScenario; any other exception is a finding.
// What it accepts must hold together: every name a link, event or expectation uses is a node.
#include "sim_scenario.h"

#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sim::Scenario s;
    try {
        s = sim::parseScenario(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const sim::BadScenario&) {
        return 0;
    }
    auto known = [&s](const std::string& name, bool mayBeEmpty) {
        if ((name.empty() && !mayBeEmpty) || (!name.empty() && s.indexOf(name) < 0)) {
            fprintf(stderr, "accepted a scenario naming '%s', which is no node\n", name.c_str());
            abort();
        }
    };
    for (const sim::LinkDef& l : s.links) {
        known(l.a, false);
        known(l.b, false);
    }
    for (const sim::EventDef& e : s.events) {
        known(e.node, false);
        known(e.other, e.kind != sim::EventKind::Link && e.kind != sim::EventKind::Loop);
    }
    for (const sim::ExpectDef& x : s.expects) {
        known(x.node, x.kind == sim::ExpectKind::Never);
        known(x.parent.value_or(""), true);
    }
    for (const sim::NodeDef& n : s.nodes) {
        for (const std::string& a : n.admit) {
            known(a, false);
        }
    }
    return 0;
}
