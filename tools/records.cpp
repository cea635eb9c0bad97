// The field tables of the daemon's wire records and the JSON conversions that walk them.
#include "records.h"

#include "core/mesh_config.h"
#include "core/mesh_msg.h"
#include "platform/hex.h"
#include "wlan/mesh_wlan_scan.h"
#include "wlan/mesh_wlan_types.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace records {

// Name, offset and size of a member of a daemon struct.
#define AT(S, m) #m, offsetof(S, m), sizeof(S::m)

namespace {

const Record& childEntryTable() {
    static const Record r{"child entry",
                          sizeof(MESH_CHILD_ENTRY),
                          "an admitted child",
                          {
                              {AT(MESH_CHILD_ENTRY, mac),
                               Kind::MAC,
                               "the child's device MAC",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "\"02:11:22:33:44:55\""},
                              {AT(MESH_CHILD_ENTRY, digest),
                               Kind::HEX,
                               "the child's 16-byte digest",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "\"00112233445566778899aabbccddeeff\""},
                          }};
    return r;
}

const Record& normalApTable() {
    static const Record r{"ordinary AP",
                          sizeof(MESH_NORMAL_AP),
                          "one ordinary (client-serving) AP",
                          {
                              {AT(MESH_NORMAL_AP, enable),
                               Kind::UINT,
                               "non-zero: the AP is in use",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "1"},
                              {AT(MESH_NORMAL_AP, flags),
                               Kind::UINT,
                               "bit 1 (value 2): carry the mesh element in this AP's beacon",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "2"},
                              {AT(MESH_NORMAL_AP, ifName),
                               Kind::TEXT,
                               "interface name",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "\"ra0\""},
                          }};
    return r;
}

const Record& controllerTable() {
    static const Record r{"controller address",
                          sizeof(MESH_CONTROLLER_IP_PORT),
                          "where the controller listens, handed on to the children",
                          {
                              {AT(MESH_CONTROLLER_IP_PORT, ip),
                               Kind::TEXT,
                               "address text, fewer than 80 characters",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "\"192.168.1.1\""},
                              {AT(MESH_CONTROLLER_IP_PORT, value1),
                               Kind::UINT,
                               "first port",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "8080"},
                              {AT(MESH_CONTROLLER_IP_PORT, value2),
                               Kind::UINT,
                               "second port",
                               0,
                               -1,
                               {},
                               nullptr,
                               0,
                               nullptr,
                               "8081"},
                          }};
    return r;
}

const Record& basicWlanTable() {
    static const Record r{
        "basic radio settings",
        sizeof(MESH_BASIC_WLAN_CFG),
        "width, channel and wireless mode of the backhaul",
        {
            {AT(MESH_BASIC_WLAN_CFG, reserved0), Kind::UINT, "carried along, not read"},
            {AT(MESH_BASIC_WLAN_CFG, bandwidth),
             Kind::UINT,
             "width code 2 to 6",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "2"},
            {AT(MESH_BASIC_WLAN_CFG, frequency),
             Kind::UINT,
             "MHz; 0 = automatic channel",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "5180"},
            {AT(MESH_BASIC_WLAN_CFG, wlanMode),
             Kind::UINT,
             "the platform's wireless mode code",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "14"},
            {AT(MESH_BASIC_WLAN_CFG, reserved4), Kind::UINT, "carried along, not read"},
        }};
    return r;
}

const Record& orbpTable() {
    static const Record r{
        "management-protocol settings",
        sizeof(MESH_ORBP_CFG),
        "controller identity text and capability version handed on to the children",
        {
            {AT(MESH_ORBP_CFG, vintacId),
             Kind::TEXT,
             "identity text, at most 32 characters",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"controller-1\""},
            {AT(MESH_ORBP_CFG, verCap),
             Kind::UINT,
             "capability version",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "1"},
        }};
    return r;
}

std::vector<Field> settingsFields() {
    return {
        {AT(MESH_ALL_CONFIG, meshEnable),
         Kind::UINT,
         "1: the mesh is enabled, 0: disabled",
         0,
         1,
         {},
         nullptr,
         0,
         nullptr,
         "1"},
        {AT(MESH_ALL_CONFIG, netChkTargetSet),
         Kind::UINT,
         "non-zero: netChkTargetIp is the target of the network check",
         0,
         -1,
         {},
         nullptr,
         0,
         nullptr,
         "0"},
        {AT(MESH_ALL_CONFIG, netChkTargetIp),
         Kind::IPV4,
         "target of the network check",
         0,
         -1,
         {},
         nullptr,
         0,
         nullptr,
         "\"0.0.0.0\""},
        {AT(MESH_ALL_CONFIG, gatewayIp),
         Kind::IPV4,
         "gateway",
         0,
         -1,
         {},
         nullptr,
         0,
         nullptr,
         "\"192.168.1.1\""},
        {AT(MESH_ALL_CONFIG, deviceIp),
         Kind::IPV4,
         "own address",
         0,
         -1,
         {},
         nullptr,
         0,
         nullptr,
         "\"192.168.1.2\""},
        {AT(MESH_ALL_CONFIG, netmask),
         Kind::IPV4,
         "netmask",
         0,
         -1,
         {},
         nullptr,
         0,
         nullptr,
         "\"255.255.255.0\""},
        {AT(MESH_ALL_CONFIG, fullSector), Kind::UINT, "the driver's full-sector setting"},
    };
}

} // namespace

const Record& childEntry() {
    return childEntryTable();
}
const Record& normalApList() {
    static const Record r{"ordinary-AP list",
                          sizeof(MESH_NORMAL_AP_LIST),
                          "the ordinary APs that carry the mesh element",
                          {
                              {AT(MESH_NORMAL_AP_LIST, count),
                               Kind::UINT,
                               "number of APs in the list",
                               0,
                               MESH_MAX_NORMAL_AP,
                               {},
                               nullptr,
                               0,
                               "list",
                               "1"},
                              {AT(MESH_NORMAL_AP_LIST, list),
                               Kind::ARRAY,
                               "up to 16 APs",
                               0,
                               -1,
                               {},
                               &normalApTable(),
                               MESH_MAX_NORMAL_AP},
                          }};
    return r;
}
const Record& scanRequest() {
    static const Record r{
        "scan request",
        sizeof(MESH_SCAN_REQUEST),
        "a candidate-parent scan",
        {
            {AT(MESH_SCAN_REQUEST, word), Kind::UINT, "handed to the scan, which does not use it"},
            {AT(MESH_SCAN_REQUEST, notify),
             Kind::UINT,
             "non-zero: send the scan-done notification at the end",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "1"},
        }};
    return r;
}
const Record& controllerIpPort() {
    return controllerTable();
}
const Record& basicWlanCfg() {
    return basicWlanTable();
}
const Record& orbpCfg() {
    return orbpTable();
}

const Record& settings() {
    static const Record r{"mesh settings", MESH_SETTINGS_LEN,
                          "the first 28 bytes of the configuration record", settingsFields()};
    return r;
}

const Record& config() {
    static const Record r = [] {
        Record c{"configuration record", sizeof(MESH_ALL_CONFIG),
                 "everything the management side hands down at start", settingsFields()};
        const std::vector<Field> rest = {
            {AT(MESH_ALL_CONFIG, deviceMac),
             Kind::MAC,
             "own device MAC",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"02:00:00:00:00:01\""},
            {AT(MESH_ALL_CONFIG, controllerId),
             Kind::HEX,
             "controller identity, carried in probe requests",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"000102030405060708090a0b0c0d0e0f\""},
            {AT(MESH_ALL_CONFIG, resetFlag), Kind::UINT,
             "non-zero: the reset flag of the probe requests is set"},
            {AT(MESH_ALL_CONFIG, vlanId), Kind::UINT, "mesh VLAN id", 0, 4095},
            {AT(MESH_ALL_CONFIG, digest), Kind::HEX, "digest carried in probe requests"},
            {AT(MESH_ALL_CONFIG, probeText),
             Kind::TEXT,
             "text carried in probe requests, at most 31 characters",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"zormesh\""},
            {AT(MESH_ALL_CONFIG, probeTextAttr), Kind::UINT, "byte carried right after probeText"},
            {AT(MESH_ALL_CONFIG, lanIfName),
             Kind::TEXT,
             "wired uplink interface",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"eth0\""},
            {AT(MESH_ALL_CONFIG, radioName),
             Kind::TEXT,
             "radio name",
             0,
             -1,
             {},
             nullptr,
             0,
             nullptr,
             "\"mt5g\""},
            {AT(MESH_ALL_CONFIG, childNum),
             Kind::UINT,
             "number of admitted children",
             0,
             MESH_MAX_CHILD,
             {},
             nullptr,
             0,
             "childList",
             "1"},
            {AT(MESH_ALL_CONFIG, childList),
             Kind::ARRAY,
             "up to 4 admitted children",
             0,
             -1,
             {},
             &childEntryTable(),
             MESH_MAX_CHILD},
            {AT(MESH_ALL_CONFIG, normalApNum),
             Kind::UINT,
             "number of ordinary APs",
             0,
             MESH_MAX_NORMAL_AP,
             {},
             nullptr,
             0,
             "normalApList",
             "1"},
            {AT(MESH_ALL_CONFIG, normalApList),
             Kind::ARRAY,
             "up to 16 ordinary APs (enabling visits all 16 slots)",
             0,
             -1,
             {},
             &normalApTable(),
             MESH_MAX_NORMAL_AP},
            {AT(MESH_ALL_CONFIG, controllerIpPort),
             Kind::RECORD,
             "controller address",
             0,
             -1,
             {},
             &controllerTable()},
            {AT(MESH_ALL_CONFIG, dfsFlag), Kind::UINT,
             "non-zero: radar channels need the longer wait"},
            {AT(MESH_ALL_CONFIG, bkhApParam), Kind::UINT, "handed to backhaul creation"},
            {AT(MESH_ALL_CONFIG, countryCode),
             Kind::UINT,
             "ISO 3166-1 numeric country code",
             0,
             999,
             {},
             nullptr,
             0,
             nullptr,
             "276"},
            {AT(MESH_ALL_CONFIG, probeAttr), Kind::UINT, "byte carried in probe requests"},
            {AT(MESH_ALL_CONFIG, basicWlanCfg),
             Kind::RECORD,
             "basic radio settings",
             0,
             -1,
             {},
             &basicWlanTable()},
            {AT(MESH_ALL_CONFIG, advWlanCfg), Kind::UINT, "advanced radio settings word"},
            {AT(MESH_ALL_CONFIG, orbpCfg),
             Kind::RECORD,
             "management-protocol settings",
             0,
             -1,
             {},
             &orbpTable()},
        };
        c.fields.insert(c.fields.end(), rest.begin(), rest.end());
        return c;
    }();
    return r;
}

const Record& onlineChild() {
    static const Record r{
        "online child",
        sizeof(MESH_ONLINE_CHILD_INFO),
        "an admitted child associated with the backhaul AP",
        {
            {AT(MESH_ONLINE_CHILD_INFO, mac), Kind::MAC, "the child's device MAC"},
            {AT(MESH_ONLINE_CHILD_INFO, value48Div1000), Kind::UINT,
             "station value at 48, divided by 1000"},
            {AT(MESH_ONLINE_CHILD_INFO, value52Div1000), Kind::UINT,
             "station value at 52, divided by 1000"},
            {AT(MESH_ONLINE_CHILD_INFO, signalLevel), Kind::UINT, "rssi + 95"},
            {AT(MESH_ONLINE_CHILD_INFO, rssi), Kind::INT, "signal strength, dBm"},
            {AT(MESH_ONLINE_CHILD_INFO, counter32Low), Kind::UINT, "low word of counter 32"},
            {AT(MESH_ONLINE_CHILD_INFO, counter40Low), Kind::UINT, "low word of counter 40"},
            {AT(MESH_ONLINE_CHILD_INFO, counter16), Kind::UINT, "station counter 16"},
            {AT(MESH_ONLINE_CHILD_INFO, counter24), Kind::UINT, "station counter 24"},
        }};
    return r;
}

const Record& candidateChild() {
    static const Record r{
        "candidate child",
        sizeof(MESH_CANDIDATE_CHILD_INFO),
        "a node that asked to join, heard within the last minute",
        {
            {AT(MESH_CANDIDATE_CHILD_INFO, deviceMac), Kind::MAC, "its device MAC"},
            {AT(MESH_CANDIDATE_CHILD_INFO, staMac), Kind::MAC, "its station MAC"},
            {AT(MESH_CANDIDATE_CHILD_INFO, probeText), Kind::TEXT, "its probe text"},
            {AT(MESH_CANDIDATE_CHILD_INFO, controllerId), Kind::HEX, "its controller identity"},
            {AT(MESH_CANDIDATE_CHILD_INFO, resetFlag), Kind::UINT, "1: its reset flag is set"},
            {AT(MESH_CANDIDATE_CHILD_INFO, probeAttr), Kind::UINT, "its probe attribute"},
            {AT(MESH_CANDIDATE_CHILD_INFO, drv15), Kind::UINT, "driver value 15"},
            {AT(MESH_CANDIDATE_CHILD_INFO, probeTextAttr), Kind::UINT, "its probe text attribute"},
            {AT(MESH_CANDIDATE_CHILD_INFO, drv12), Kind::UINT, "driver value 12"},
            {AT(MESH_CANDIDATE_CHILD_INFO, drv13Best), Kind::INT, "best driver value 13"},
            {AT(MESH_CANDIDATE_CHILD_INFO, drv14), Kind::UINT, "driver value 14"},
            {AT(MESH_CANDIDATE_CHILD_INFO, verCap), Kind::UINT, "its capability version"},
        }};
    return r;
}

const Record& scanCandidate() {
    static const Record r{
        "scan candidate",
        sizeof(MESH_SCAN_CANDIDATE),
        "a possible parent found by the last scan",
        {
            {AT(MESH_SCAN_CANDIDATE, bssid), Kind::MAC, "the parent's backhaul BSSID"},
            {AT(MESH_SCAN_CANDIDATE, entryValue), Kind::UINT, "survey entry value"},
            {AT(MESH_SCAN_CANDIDATE, signalLevel), Kind::UINT, "rssi + 95"},
            {AT(MESH_SCAN_CANDIDATE, rssi), Kind::INT, "signal strength, dBm"},
            {AT(MESH_SCAN_CANDIDATE, meshAttr), Kind::UINT, "mesh attribute"},
        }};
    return r;
}

#undef AT

const Field* Record::find(const std::string& key) const {
    for (const Field& f : fields) {
        if (key == f.name) {
            return &f;
        }
    }
    return nullptr;
}

// ---- single values --------------------------------------------------------------------------

bool parseMac(const std::string& text, uint8_t out[6]) {
    if (text.size() != 17) {
        return false;
    }
    for (int i = 0; i < 6; ++i) {
        int hi = hex::digitValue(text[3 * i]);
        int lo = hex::digitValue(text[3 * i + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && text[3 * i + 2] != ':' && text[3 * i + 2] != '-')) {
            return false;
        }
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

bool parseIpv4(const std::string& text, uint32_t* out) {
    uint32_t value = 0;
    size_t pos = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0 && (pos >= text.size() || text[pos++] != '.')) {
            return false;
        }
        size_t start = pos;
        uint32_t octet = 0;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && pos - start < 3) {
            octet = octet * 10 + static_cast<uint32_t>(text[pos++] - '0');
        }
        if (pos == start || octet > 255) {
            return false;
        }
        value = value << 8 | octet;
    }
    if (pos != text.size()) {
        return false;
    }
    *out = value;
    return true;
}

std::string formatMac(const uint8_t* mac) {
    char buf[18];
    snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return buf;
}

std::string formatIpv4(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "%u.%u.%u.%u", v >> 24, v >> 16 & 255, v >> 8 & 255, v & 255);
    return buf;
}

// ---- JSON -> bytes ----------------------------------------------------------------------------

namespace {

uint64_t getLe(const uint8_t* p, size_t size) {
    uint64_t v = 0;
    for (size_t i = size; i-- > 0;) {
        v = v << 8 | p[i];
    }
    return v;
}

void putLe(uint8_t* p, size_t size, uint64_t v) {
    for (size_t i = 0; i < size; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

std::string join(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
}

// The limits of a number field as [lo, hi] in 128 bits' worth of care: u64 fields have no
// limit below 2^64.
struct Range {
    bool isSigned;
    int64_t lo;
    uint64_t hi;
};

Range rangeOf(const Field& f) {
    if (f.kind == Kind::INT) {
        int64_t half = static_cast<int64_t>(1) << (8 * f.size - 1);
        return {true, f.max >= 0 ? f.min : -half,
                static_cast<uint64_t>(f.max >= 0 ? f.max : half - 1)};
    }
    uint64_t full = f.size >= 8 ? UINT64_MAX : (static_cast<uint64_t>(1) << (8 * f.size)) - 1;
    return {false, f.min, f.max >= 0 ? static_cast<uint64_t>(f.max) : full};
}

class Reader {
  public:
    explicit Reader(std::string* error) : error_(error) {}

    bool record(const Record& rec, const Json& doc, uint8_t* out, const std::string& path) {
        if (!doc.is_object()) {
            return fail(path.empty() ? "(document)" : path, "must be an object");
        }
        for (auto it = doc.begin(); it != doc.end(); ++it) {
            if (rec.find(it.key()) == nullptr) {
                return fail(join(path, it.key()), "unknown key in the " + std::string(rec.name));
            }
        }
        for (const Field& f : rec.fields) {
            auto it = doc.find(f.name);
            if (it != doc.end() && !field(f, *it, out + f.offset, join(path, f.name))) {
                return false;
            }
        }
        // Count fields left out take the number of entries given.
        for (const Field& f : rec.fields) {
            if (f.countOf != nullptr && doc.find(f.name) == doc.end()) {
                auto arr = doc.find(f.countOf);
                if (arr != doc.end()) {
                    putLe(out + f.offset, f.size, arr->size());
                }
            }
        }
        return true;
    }

  private:
    bool fail(const std::string& path, const std::string& why) {
        *error_ = path + ": " + why;
        return false;
    }

    bool number(const Field& f, const Json& v, uint8_t* out, const std::string& path) {
        Range r = rangeOf(f);
        std::string limits = r.isSigned ? std::to_string(r.lo) + " to " + std::to_string(r.hi)
                                        : std::to_string(r.lo) + " to " + std::to_string(r.hi);
        if (v.is_string()) {
            for (const Name& n : f.names) {
                if (v.get<std::string>() == n.name) {
                    putLe(out, f.size, static_cast<uint64_t>(n.value));
                    return true;
                }
            }
            return fail(path, "\"" + v.get<std::string>() + "\" is not a known name");
        }
        if (v.is_boolean()) {
            putLe(out, f.size, v.get<bool>() ? 1 : 0);
            return true;
        }
        if (v.is_number_unsigned()) {
            uint64_t u = v.get<uint64_t>();
            if (u > r.hi || (r.lo > 0 && u < static_cast<uint64_t>(r.lo))) {
                return fail(path, "out of range (" + limits + ")");
            }
            putLe(out, f.size, u);
            return true;
        }
        if (v.is_number_integer()) { // negative
            int64_t s = v.get<int64_t>();
            if (!r.isSigned || s < r.lo) {
                return fail(path, "out of range (" + limits + ")");
            }
            putLe(out, f.size, static_cast<uint64_t>(s));
            return true;
        }
        return fail(path, "must be a whole number");
    }

    bool field(const Field& f, const Json& v, uint8_t* out, const std::string& path) {
        switch (f.kind) {
        case Kind::UINT:
        case Kind::INT:
            return number(f, v, out, path);
        case Kind::IPV4: {
            uint32_t ip = 0;
            if (!v.is_string() || !parseIpv4(v.get<std::string>(), &ip)) {
                return fail(path, "must be an IPv4 address \"a.b.c.d\"");
            }
            putLe(out, 4, ip);
            return true;
        }
        case Kind::MAC:
            if (!v.is_string() || !parseMac(v.get<std::string>(), out)) {
                return fail(path, "must be a MAC address \"aa:bb:cc:dd:ee:ff\"");
            }
            return true;
        case Kind::HEX: {
            size_t n = 0;
            std::string why = "must be " + std::to_string(f.size) + " bytes as hexadecimal text";
            if (!v.is_string()) {
                return fail(path, why);
            }
            const std::string& s = v.get_ref<const std::string&>();
            if (!hex::parse(s.data(), s.size(), out, f.size, &n) || n != f.size) {
                memset(out, 0, f.size);
                return fail(path, why);
            }
            return true;
        }
        case Kind::TEXT: {
            if (!v.is_string()) {
                return fail(path, "must be a string");
            }
            const std::string& s = v.get_ref<const std::string&>();
            if (s.size() >= f.size || s.find('\0') != std::string::npos) {
                return fail(path, "longer than " + std::to_string(f.size - 1) + " characters");
            }
            memcpy(out, s.data(), s.size());
            return true;
        }
        case Kind::RECORD:
            return record(*f.sub, v, out, path);
        case Kind::ARRAY: {
            if (!v.is_array()) {
                return fail(path, "must be an array");
            }
            if (v.size() > f.count) {
                return fail(path + "[" + std::to_string(f.count) + "]",
                            "more than " + std::to_string(f.count) + " entries");
            }
            for (size_t i = 0; i < v.size(); ++i) {
                if (!record(*f.sub, v[i], out + i * f.sub->size,
                            path + "[" + std::to_string(i) + "]")) {
                    return false;
                }
            }
            return true;
        }
        }
        return fail(path, "cannot be read");
    }

    std::string* error_;
};

// ---- bytes -> JSON ----------------------------------------------------------------------------

bool allZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != 0) {
            return false;
        }
    }
    return true;
}

Json value(const Field& f, const uint8_t* p) {
    switch (f.kind) {
    case Kind::UINT:
        return getLe(p, f.size);
    case Kind::INT: {
        uint64_t u = getLe(p, f.size);
        uint64_t sign = static_cast<uint64_t>(1) << (8 * f.size - 1);
        return static_cast<int64_t>(u & sign ? u - 2 * sign : u);
    }
    case Kind::IPV4:
        return formatIpv4(static_cast<uint32_t>(getLe(p, 4)));
    case Kind::MAC:
        return formatMac(p);
    case Kind::HEX:
        return hex::toHex(p, f.size);
    case Kind::TEXT:
        return std::string(reinterpret_cast<const char*>(p),
                           strnlen(reinterpret_cast<const char*>(p), f.size));
    case Kind::RECORD:
        return toJson(*f.sub, p);
    case Kind::ARRAY: {
        size_t used = f.count;
        while (used > 0 && allZero(p + (used - 1) * f.sub->size, f.sub->size)) {
            --used;
        }
        Json arr = Json::array();
        for (size_t i = 0; i < used; ++i) {
            arr.push_back(toJson(*f.sub, p + i * f.sub->size));
        }
        return arr;
    }
    }
    return nullptr;
}

// ---- the template -----------------------------------------------------------------------------

Json example(const Field& f);

Json exampleRecord(const Record& rec) {
    Json obj = Json::object();
    for (const Field& f : rec.fields) {
        obj[f.name] = example(f);
    }
    return obj;
}

Json example(const Field& f) {
    if (f.example != nullptr) {
        return Json::parse(f.example);
    }
    std::vector<uint8_t> zero(f.kind == Kind::ARRAY ? f.sub->size : f.size, 0);
    switch (f.kind) {
    case Kind::RECORD:
        return exampleRecord(*f.sub);
    case Kind::ARRAY:
        return Json::array({exampleRecord(*f.sub)});
    default:
        return value(f, zero.data());
    }
}

const char* kindText(const Field& f) {
    switch (f.kind) {
    case Kind::UINT:
        return "unsigned";
    case Kind::INT:
        return "signed";
    case Kind::IPV4:
        return "IPv4 address";
    case Kind::MAC:
        return "MAC address";
    case Kind::HEX:
        return "hexadecimal bytes";
    case Kind::TEXT:
        return "text";
    case Kind::RECORD:
        return "object";
    case Kind::ARRAY:
        return "array";
    }
    return "";
}

std::string limitsText(const Field& f) {
    if (f.kind != Kind::UINT && f.kind != Kind::INT) {
        return "";
    }
    Range r = rangeOf(f);
    if (f.max < 0 && f.min == 0) {
        return "";
    }
    return ", " + std::to_string(r.lo) + " to " + std::to_string(r.hi);
}

void writeTemplate(const Record& rec, const Json& obj, int indent, std::ostringstream& out) {
    std::string pad(static_cast<size_t>(indent), ' ');
    out << "{\n";
    for (size_t i = 0; i < rec.fields.size(); ++i) {
        const Field& f = rec.fields[i];
        const Json& v = obj.at(f.name);
        out << pad << "  // " << f.doc << " (" << kindText(f) << limitsText(f);
        if (f.countOf != nullptr) {
            out << "; may be left out: the number of entries of " << f.countOf;
        }
        out << ")\n" << pad << "  \"" << f.name << "\": ";
        if (f.kind == Kind::RECORD) {
            writeTemplate(*f.sub, v, indent + 2, out);
        } else if (f.kind == Kind::ARRAY) {
            out << "[\n" << pad << "    ";
            for (size_t k = 0; k < v.size(); ++k) {
                writeTemplate(*f.sub, v[k], indent + 4, out);
                out << (k + 1 < v.size() ? ",\n" + pad + "    " : "\n");
            }
            out << pad << "  ]";
        } else {
            out << v.dump();
        }
        out << (i + 1 < rec.fields.size() ? ",\n" : "\n");
    }
    out << pad << "}";
}

} // namespace

bool fromJson(const Record& rec, const Json& doc, void* out, size_t size, std::string* error) {
    std::string ignored;
    std::string* err = error != nullptr ? error : &ignored;
    if (size != rec.size) {
        *err = std::string(rec.name) + ": needs " + std::to_string(rec.size) + " bytes";
        return false;
    }
    auto* bytes = static_cast<uint8_t*>(out);
    memset(bytes, 0, size);
    if (!Reader(err).record(rec, doc, bytes, "")) {
        memset(bytes, 0, size);
        return false;
    }
    return true;
}

Json toJson(const Record& rec, const void* data) {
    const auto* p = static_cast<const uint8_t*>(data);
    Json obj = Json::object();
    for (const Field& f : rec.fields) {
        obj[f.name] = value(f, p + f.offset);
    }
    return obj;
}

std::string commentedTemplate(const Record& rec) {
    std::ostringstream out;
    out << "// " << rec.name << ": " << rec.doc << "\n";
    writeTemplate(rec, exampleRecord(rec), 0, out);
    out << "\n";
    return out.str();
}

std::string fieldList(const Record& rec) {
    std::ostringstream out;
    for (const Field& f : rec.fields) {
        out << "- `" << f.name << "` (" << kindText(f) << limitsText(f) << ", offset " << f.offset
            << ", " << f.size << " bytes): " << f.doc << "\n";
        if (f.sub != nullptr) {
            std::istringstream sub(fieldList(*f.sub));
            for (std::string line; std::getline(sub, line);) {
                out << "  " << line << "\n";
            }
        }
    }
    return out.str();
}

} // namespace records
