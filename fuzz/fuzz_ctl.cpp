// zormeshctl's inputs. The first byte picks what the rest of the input is:
//   0  a JSON document for one record table of records.h: whatever fromJson accepts, written
//      back with toJson, must be accepted again and give the same bytes;
//   1  the configuration file of a subcommand that reads one (init, update-mesh, update-ap,
//      basic-wlan), through zormeshctl's command runner;
//   2  the daemon's reply (header and message) to a query, decoded as text or JSON;
//   3  a configuration record for decode-config.
// Through the runner, every fault must end in an exit status; an exception that escapes it
// is a finding. Only the JSON parser's own errors are expected outside it.
#include "ctl.h"
#include "core/mesh_msg.h"
#include "fuzz_os.h"
#include "platform/unix_sock.h"
#include "records.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

const records::Record& table(uint8_t i) {
    using Table = const records::Record& (*)();
    static const Table kTables[] = {
        records::config,         records::settings,      records::normalApList,
        records::childEntry,     records::scanRequest,   records::controllerIpPort,
        records::basicWlanCfg,   records::orbpCfg,       records::onlineChild,
        records::candidateChild, records::scanCandidate,
    };
    return kTables[i % (sizeof kTables / sizeof kTables[0])]();
}

const char* const kFileCommands[] = {"init", "update-mesh", "update-ap", "basic-wlan"};
const char* const kQueries[] = {"online-children", "candidates", "scan-state", "scan-result",
                                "state",           "sta-status", "raw"};

FuzzReplyServer* l_daemon = nullptr;
std::string l_socket;
std::string l_file;

int runCtl(std::vector<const char*> args) {
    args.insert(args.begin(), {"zormeshctl", "--socket", l_socket.c_str(), "--timeout", "2"});
    std::ostringstream out;
    std::ostringstream err;
    return ctl::run(static_cast<int>(args.size()), args.data(), out, err);
}

void roundTrip(const records::Record& rec, const std::string& text) {
    records::Json doc;
    try {
        doc = records::Json::parse(text, nullptr, true, true);
    } catch (const records::Json::exception&) {
        return; // not JSON
    }
    std::vector<uint8_t> bytes(rec.size);
    std::string error;
    if (!records::fromJson(rec, doc, bytes.data(), bytes.size(), &error)) {
        return;
    }
    std::vector<uint8_t> again(rec.size);
    if (!records::fromJson(rec, records::toJson(rec, bytes.data()), again.data(), again.size(),
                           &error)) {
        fprintf(stderr, "%s: its own JSON refused: %s\n", rec.name, error.c_str());
        abort();
    }
    if (again != bytes) {
        fprintf(stderr, "%s: the record changed on its way through JSON\n", rec.name);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    l_socket = fuzzOs().root() + "/ctl.sock";
    l_file = fuzzOs().root() + "/ctl.input";
    static FuzzReplyServer daemon(l_socket);
    l_daemon = &daemon;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput& in = fuzzNextInput(data, size);
    const uint8_t op = in.byte();
    const uint8_t pick = in.byte();
    const std::string rest = in.text(in.left());
    const bool json = (pick & 0x80) != 0;
    int rc = ctl::EXIT_REPLY;
    switch (op % 4) {
    case 0:
        roundTrip(table(pick), rest);
        return 0;
    case 1:
        fuzzOs().writeFile("/ctl.input", rest);
        l_daemon->setReply("");
        rc = runCtl({kFileCommands[pick % 4], "--config", l_file.c_str()});
        break;
    case 2: {
        l_daemon->setReply(rest);
        const char* query = kQueries[pick % (sizeof kQueries / sizeof kQueries[0])];
        rc = query == std::string("raw") ? runCtl({"raw", "7"})
                                         : runCtl(json ? std::vector<const char*>{"--json", query}
                                                       : std::vector<const char*>{query});
        // A whole reply is decoded; anything short of one is "no reply".
        const bool whole = rest.size() >= UNIX_SOCK_HEADER_SIZE + MESH_CMD_MSG_LEN &&
                           memcmp(rest.data(), "USCK", 4) == 0 &&
                           memcmp(rest.data() + 8, "\xb0\x05\x00\x00", 4) == 0;
        if (rc != (whole ? ctl::EXIT_REPLY : ctl::EXIT_NO_REPLY)) {
            fprintf(stderr, "%s: exit %d for a %s reply\n", query, rc, whole ? "whole" : "broken");
            abort();
        }
        break;
    }
    default: {
        std::string record = rest;
        if ((pick & 1) == 0) {
            record.resize(788, '\0'); // the size of the record, usually
        }
        fuzzOs().writeFile("/ctl.input", record);
        rc = runCtl({"decode-config", l_file.c_str()});
        break;
    }
    }
    if (rc < ctl::EXIT_REPLY || rc > ctl::EXIT_NO_REPLY) {
        fprintf(stderr, "exit status %d\n", rc);
        abort();
    }
    return 0;
}
