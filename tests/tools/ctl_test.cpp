// zormeshctl's subcommands run in-process against a stand-in daemon on a real Unix socket that
// records the request and answers with hand-written bytes; the configuration record against
// bytes written out by hand.
#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "ctl.h"
#include "platform/byteorder.h"
#include "platform/hex.h"
#include "platform/unix_sock.h"
#include "records.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using hex::hexBytes;
using Args = std::vector<std::string>;

std::string zeros(size_t n) {
    return std::string(2 * n, '0');
}

// A listening socket in a fresh directory, standing in for the daemon.
class Ctl : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zm-ctl-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s/ctl.sock", dir_.c_str());
        ASSERT_EQ(0, bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
        ASSERT_EQ(0, listen(listenFd_, 4));
    }
    void TearDown() override {
        close(listenFd_);
        EXPECT_EQ(0, std::system(("rm -rf '" + dir_ + "'").c_str()));
    }

    std::string file(const std::string& name, const std::string& text) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    // Runs zormeshctl in-process. With `serve`, its connection records the whole request and
    // is answered with it, the payload overwritten from offset 0 by `replyPayload`; without,
    // `connected` tells whether zormeshctl connected at all.
    int run(Args args, const Bytes& replyPayload = {}, bool serve = true) {
        args.insert(args.begin(), {"zormeshctl", "--socket", dir_ + socketName});
        request.clear();
        std::future<void> server;
        if (serve) {
            server = std::async(std::launch::async, [&] { answer(replyPayload); });
        }
        std::vector<const char*> argv;
        for (const std::string& a : args) {
            argv.push_back(a.c_str());
        }
        std::ostringstream o, e;
        int rc = ctl::run(static_cast<int>(argv.size()), argv.data(), o, e);
        if (serve) {
            server.get();
        } else {
            pollfd p{listenFd_, POLLIN, 0};
            connected = poll(&p, 1, 0) > 0;
            if (connected) {
                close(accept(listenFd_, nullptr, nullptr));
            }
        }
        out = o.str();
        err = e.str();
        return rc;
    }

    Bytes request;
    std::string socketName = "/ctl.sock";
    bool hangUp = false; // the stand-in closes the connection without a reply
    bool connected = false;
    std::string out, err, dir_;

  private:
    void answer(const Bytes& payload) {
        pollfd p{listenFd_, POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0) {
            return; // zormeshctl failed before it connected; the test's checks tell
        }
        int fd = accept(listenFd_, nullptr, nullptr);
        if (hangUp) {
            close(fd);
            return;
        }
        uint8_t buf[UNIX_SOCK_HEADER_SIZE + MESH_CMD_MSG_LEN];
        size_t got = 0;
        for (ssize_t n; got < sizeof buf && (n = recv(fd, buf + got, sizeof buf - got, 0)) > 0;) {
            got += static_cast<size_t>(n);
        }
        request.assign(buf + UNIX_SOCK_HEADER_SIZE, buf + got);
        std::copy(payload.begin(), payload.end(), buf + UNIX_SOCK_HEADER_SIZE + 8);
        send(fd, buf, sizeof buf, MSG_NOSIGNAL);
        close(fd);
    }

    int listenFd_ = -1;
};

// Type and reserved word, then the payload as far as it is not zero.
std::string message(const std::string& hexText) {
    Bytes b = hexBytes(hexText);
    b.resize(MESH_CMD_MSG_LEN);
    return hex::toHex(b);
}

TEST_F(Ctl, EverySubcommandSendsItsRequestBytes) {
    const std::string digest = "00112233445566778899aabbccddeeff";
    const struct {
        Args args;
        std::string request;
    } cases[] = {
        {{"update-ap", "ra0:beacon", "rai0:off"},
         "02000000 00000000  02 000000  01000000 02000000 726130" + zeros(13) +
             " 00000000 00000000 72616930" + zeros(12)},
        {{"digest", digest}, "03000000 00000000" + digest},
        {{"enable", "--target", "8.8.4.4", "--gateway", "192.168.1.1", "--device-ip", "192.168.1.2",
          "--netmask", "255.255.255.0", "--full-sector", "1"},
         "04000000 00000000  01000000 01000000 04040808 0101a8c0 0201a8c0 00ffffff 01000000"},
        {{"disable"}, "04000000 00000000"},
        {{"add-child", "02:11:22:33:44:55", digest}, "05000000 00000000 021122334455" + digest},
        {{"del-child", "02-11-22-33-44-55"}, "06000000 00000000 021122334455"},
        {{"online-children"}, "07000000 00000000 ffffffff"},
        {{"candidates"}, "08000000 00000000 ffffffff"},
        {{"scan", "--notify"}, "09000000 00000000 00000000 01000000"},
        {{"scan-state"}, "0a000000 00000000 ffffffff"},
        {{"scan-result"}, "0b000000 00000000 ffffffff"},
        {{"controller-addr", "10.0.0.1", "8080", "8081"},
         "0c000000 00000000 31302e302e302e31" + zeros(72) + "901f0000 911f0000"},
        {{"state"}, "0d000000 00000000 ffffffff"},
        {{"controller-id", digest}, "0e000000 00000000" + digest},
        {{"rescan"}, "0f000000 00000000 01000000"},
        {{"special", "down"}, "10000000 00000000 02000000"},
        {{"sta-status"}, "11000000 00000000 ffffffff"},
        {{"reset-flag", "on"}, "12000000 00000000 01000000"},
        {{"vlan", "4095"}, "13000000 00000000 ff0f"},
        {{"basic-wlan", "--bandwidth", "3", "--frequency", "5180", "--mode", "14"},
         "14000000 00000000 00000000 03000000 3c140000 0e000000"},
        {{"adv-wlan", "0x11"}, "15000000 00000000 11000000"},
        {{"orbp", "ctl-1", "258"}, "16000000 00000000 63746c2d31" + zeros(31) + "02010000"},
        {{"sync-parent-mode"}, "18000000 00000000"},
        {{"raw", "-2", "de ad"}, "feffffff 00000000 dead"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(0, run(c.args)) << c.args[0] << ": " << err;
        EXPECT_EQ(message(c.request), hex::toHex(request)) << c.args[0];
        // The reply is the request sent back: raw prints it, a query finds it unfilled, a set
        // command prints nothing.
        const bool query = c.request.find("ffffffff") != std::string::npos;
        EXPECT_EQ(c.args[0] == "raw" ? message(c.request) + "\n" : "", query ? "" : out);
        EXPECT_EQ(query, out.rfind("no answer: ", 0) == 0) << c.args[0];
    }
}

// Every field set, each to a value that shows its offset, size and byte order.
const char* kConfigJson = R"({
  "meshEnable": 1, "netChkTargetSet": 1, "netChkTargetIp": "8.8.4.4",
  "gatewayIp": "192.168.1.1", "deviceIp": "192.168.1.2", "netmask": "255.255.255.0",
  "fullSector": 3, "deviceMac": "02:00:00:00:00:01",
  "controllerId": "000102030405060708090a0b0c0d0e0f", "resetFlag": 1, "vlanId": 4094,
  "digest": "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff", "probeText": "zm", "probeTextAttr": 7,
  "lanIfName": "eth0", "radioName": "mt5g",
  "childList": [{"mac": "02:11:22:33:44:55", "digest": "11111111111111111111111111111111"},
                {"mac": "02:66:77:88:99:aa", "digest": "22222222222222222222222222222222"}],
  "normalApNum": 1,
  "normalApList": [{"enable": 1, "flags": 2, "ifName": "ra0"},
                   {"enable": 0, "flags": 0, "ifName": "ra1"}],
  "controllerIpPort": {"ip": "10.0.0.1", "value1": 8080, "value2": 8081},
  "dfsFlag": 1, "bkhApParam": 5, "countryCode": 276, "probeAttr": 9,
  "basicWlanCfg": {"bandwidth": 3, "frequency": 5180, "wlanMode": 14},
  "advWlanCfg": 305419896,
  "orbpCfg": {"vintacId": "ctl-1", "verCap": 258}
})";

const std::string kConfigHex =
    "01000000 01000000 04040808 0101a8c0 0201a8c0 00ffffff 03000000" // settings, 0..27
    "00 020000000001 000102030405060708090a0b0c0d0e0f 00"            // 28..51
    "01000000 fe0f f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff"                 // 52..73
    "7a6d" +
    zeros(30) + "07" +                                // probeText, attr
    "65746830" + zeros(12) + "6d743567" + zeros(12) + // lanIfName, radioName
    "02 021122334455" + std::string(32, '1') + "0266778899aa" + std::string(32, '2') +
    zeros(44) +                                               // childNum, childList
    "01 000000 01000000 02000000 726130" + zeros(13) +        // normalApNum, AP 0
    "00000000 00000000 726131" + zeros(13) + zeros(14 * 24) + // AP 1, 14 empty slots
    "31302e302e302e31" + zeros(72) + "901f0000 911f0000" +    // controllerIpPort at 616
    "01 05 0000 14010000 09 000000" +                         // dfsFlag .. probeAttr
    "00000000 03000000 3c140000 0e000000 00000000 78563412" + // basicWlanCfg, advWlanCfg
    "63746c2d31" + zeros(28) + "000000 02010000" + zeros(8);  // orbpCfg, reserved

TEST_F(Ctl, ConfigurationRecordFromJsonAndBack) {
    ASSERT_EQ(788u, hexBytes(kConfigHex).size());
    ASSERT_EQ(0, run({"init", "--config", file("node.json", kConfigJson)})) << err;
    EXPECT_EQ(message("01000000 00000000" + kConfigHex), hex::toHex(request));

    const std::string record(request.begin() + 8, request.begin() + 796);
    ASSERT_EQ(0, run({"decode-config", file("node.bin", record)}, {}, false));
    nlohmann::json expected = nlohmann::json::parse(kConfigJson);
    expected["childNum"] = 2; // left out above: the number of entries given
    expected["basicWlanCfg"]["reserved0"] = 0;
    expected["basicWlanCfg"]["reserved4"] = 0;
    EXPECT_EQ(expected, nlohmann::json::parse(out));
    // The decoded text is itself a valid configuration that gives the same bytes.
    ASSERT_EQ(0, run({"init", "--config", file("again.json", out)})) << err;
    EXPECT_EQ(message("01000000 00000000" + kConfigHex), hex::toHex(request));

    ASSERT_EQ(0, run({"config-template"}, {}, false));
    ASSERT_EQ(0, run({"init", "--config", file("template.json", out)})) << err;

    // The README's example record: 788 bytes, a parent with the mesh enabled.
    std::ifstream in(std::string(ZORMESH_SOURCE_DIR) + "/docs/examples/parent.hex");
    const Bytes example = hexBytes(std::string(std::istreambuf_iterator<char>(in), {}));
    ASSERT_EQ(788u, example.size());
    ASSERT_EQ(
        0, run({"decode-config", file("example.bin", std::string(example.begin(), example.end()))},
               {}, false));
    const nlohmann::json decoded = nlohmann::json::parse(out);
    EXPECT_EQ(1, decoded["meshEnable"]);
    EXPECT_EQ("02:11:22:33:44:55", decoded["deviceMac"]);
}

TEST_F(Ctl, RefusedValuesSendNothing) {
    const std::string json5 = R"({"childList": [{}, {}, {}, {}, {}]})";
    Args seventeen = {"update-ap"};
    seventeen.resize(18, "ra0");
    const struct {
        Args args;
        std::string error;
    } cases[] = {
        {{"add-child", "02:11:22:33:44", zeros(16)}, "MAC must be a MAC address"},
        {{"del-child", "02:11:22:33:44:5g"}, "MAC must be a MAC address"},
        {{"vlan", "4096"}, "ID must be a number from 0 to 4095"},
        {{"vlan", "-1"}, "ID must be a number"},
        {{"digest", "0011"}, "DIGEST must be 16 bytes"},
        {{"enable", "--gateway", "192.168.1.256"}, "--gateway must be an IPv4 address"},
        {{"special", "sideways"}, "must be one of restart, down, up"},
        {{"controller-addr", std::string(80, 'a')}, "ADDRESS must have 1 to 79 characters"},
        {seventeen, "at most 16 APs"},
        {{"update-ap", "ra0:hidden"}, "unknown option 'hidden'"},
        {{"init", "--config", file("a.json", R"({"basicWlanCfg": {"width": 3}})")},
         "basicWlanCfg.width: unknown key"},
        {{"init", "--config", file("b.json", json5)}, "childList[4]: more than 4 entries"},
        {{"init", "--config", file("c.json", R"({"childNum": 5})")}, "childNum: out of range"},
        {{"init", "--config", file("d.json", R"({"vlanId": 4096})")}, "vlanId: out of range"},
        {{"init", "--config", file("e.json", R"({"probeText": ")" + std::string(32, 'x') + "\"}")},
         "probeText: longer than 31 characters"},
        {{"init", "--config", file("f.json", "{\"meshEnable\": 1,}")}, "not JSON"},
        {{"init", "--config", file("g.json", "{\"meshEnable\": 1e400}")}, "number overflow"},
        {{"init", "--config", dir_ + "/missing.json"}, "cannot read"},
        {{"state", "extra"}, "extra"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ctl::EXIT_USAGE, run(c.args, {}, false)) << c.args[0] << " " << c.error;
        EXPECT_NE(std::string::npos, err.find(c.error)) << err;
        EXPECT_FALSE(connected) << c.error << ": nothing may be sent";
    }
}

TEST_F(Ctl, ExitStatusTellsWhetherAReplyCame) {
    hangUp = true;
    EXPECT_EQ(3, run({"raw", "13"})) << "closed without a reply";
    EXPECT_EQ("", out);
    socketName = "/nothing.sock";
    EXPECT_EQ(2, run({"raw", "13"}, {}, false)) << "nobody listens";
}

TEST_F(Ctl, QueryRepliesAsTextAndJson) {
    const std::string unfilled = "the daemon left the reply unfilled (mesh disabled, driver "
                                 "refusal or a type it does not serve)";
    const struct {
        const char* query;
        std::string payload;
        std::string text;
        std::string json;
    } cases[] = {
        {"state", "02000000", "MESH (2)\n", R"({"state":"MESH","value":2})"},
        {"state", "00000000", "UNKNOWN (0)\n", R"({"state":"UNKNOWN","value":0})"},
        {"sta-status", "01000000", "associated (1)\n", R"({"station":"associated","value":1})"},
        {"scan-state", "00000000", "idle (0)\n", R"({"scan":"idle","value":0})"},
        {"online-children",
         "01 000000 00000000 021122334455 0000 0a000000 14000000 37 d8 0000 01000000 02000000 "
         "00000000 0300000000000000 0400000000000000",
         "1 online children\n  mac=02:11:22:33:44:55  value48Div1000=10  value52Div1000=20  "
         "signalLevel=55  rssi=-40  counter32Low=1  counter40Low=2  counter16=3  counter24=4\n",
         R"({"count":1,"children":[{"mac":"02:11:22:33:44:55","value48Div1000":10,)"
         R"("value52Div1000":20,"signalLevel":55,"rssi":-40,"counter32Low":1,"counter40Low":2,)"
         R"("counter16":3,"counter24":4}]})"},
        {"candidates",
         "01 000000 020000000002 020000000003 7a1b6d" + zeros(29) +
             "000102030405060708090a0b0c0d0e0f 01 09 0f 07 0c f6 0e 00 02010000",
         "1 candidate children\n  deviceMac=02:00:00:00:00:02  staMac=02:00:00:00:00:03  "
         "probeText=z\\x1bm  controllerId=000102030405060708090a0b0c0d0e0f  resetFlag=1  "
         "probeAttr=9  drv15=15  probeTextAttr=7  drv12=12  drv13Best=-10  drv14=14  "
         "verCap=258\n",
         R"({"count":1,"candidates":[{"deviceMac":"02:00:00:00:00:02",)"
         R"("staMac":"02:00:00:00:00:03","probeText":"z\u001bm",)"
         R"("controllerId":"000102030405060708090a0b0c0d0e0f","resetFlag":1,"probeAttr":9,)"
         R"("drv15":15,"probeTextAttr":7,"drv12":12,"drv13Best":-10,"drv14":14,"verCap":258}]})"},
        {"scan-result", "02 aabbccddeeff 05 37 d8 01 112233445566 06 2d ce 01",
         "2 candidate parents\n"
         "  bssid=aa:bb:cc:dd:ee:ff  entryValue=5  signalLevel=55  rssi=-40  meshAttr=1\n"
         "  bssid=11:22:33:44:55:66  entryValue=6  signalLevel=45  rssi=-50  meshAttr=1\n",
         R"({"count":2,"parents":[)"
         R"({"bssid":"aa:bb:cc:dd:ee:ff","entryValue":5,"signalLevel":55,"rssi":-40,"meshAttr":1},)"
         R"({"bssid":"11:22:33:44:55:66","entryValue":6,"signalLevel":45,"rssi":-50,"meshAttr":1}]})"},
        {"online-children", "ffffffff", "no answer: " + unfilled + "\n",
         R"({"answered":false,"reason":")" + unfilled + "\"}"},
    };
    for (const auto& c : cases) {
        const Bytes payload = hexBytes(c.payload);
        ASSERT_EQ(0, run({c.query}, payload)) << c.query << ": " << err;
        EXPECT_EQ(c.text, out) << c.query;
        ASSERT_EQ(0, run({"-j", c.query}, payload));
        EXPECT_EQ(c.json + "\n", out) << c.query;
    }
    // A count above what the reply can hold is capped and reported.
    ASSERT_EQ(0, run({"online-children"}, hexBytes("05")));
    EXPECT_EQ(0u, out.find("4 online children\n")) << out;
    EXPECT_NE(std::string::npos, err.find("counts 5 online children, at most 4")) << err;
}

TEST(CtlDocs, TheTemplateOnThePageIsTheProgramsOwn) {
    std::ifstream in(std::string(ZORMESH_SOURCE_DIR) + "/docs/zormeshctl.md");
    const std::string page{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const size_t start = page.find("```jsonc\n");
    ASSERT_NE(std::string::npos, start);
    const size_t end = page.find("```", start + 9);
    EXPECT_EQ(records::commentedTemplate(records::config()),
              page.substr(start + 9, end - start - 9));
}

} // namespace
