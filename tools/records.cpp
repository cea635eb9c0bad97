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
#include <iterator>
#include <sstream>

namespace records {

// A member of a daemon struct as a field: name, offset and size from the struct itself.
#define FIELD(S, m, kind, doc)                                                                     \
    Field {                                                                                        \
#m, offsetof(S, m), sizeof(S::m), kind, doc                                                \
    }

namespace {

constexpr Kind U = Kind::UINT;

const Record& childEntryTable() {
    static const Record r{"child entry",
                          sizeof(MESH_CHILD_ENTRY),
                          "an admitted child",
                          {FIELD(MESH_CHILD_ENTRY, mac, Kind::MAC, "the child's device MAC")
                               .ex("\"02:11:22:33:44:55\""),
                           FIELD(MESH_CHILD_ENTRY, digest, Kind::HEX, "the child's 16-byte digest")
                               .ex("\"00112233445566778899aabbccddeeff\"")}};
    return r;
}

const Record& normalApTable() {
    static const Record r{
        "ordinary AP",
        sizeof(MESH_NORMAL_AP),
        "one client-serving AP",
        {FIELD(MESH_NORMAL_AP, enable, U, "non-zero: the AP is in use").ex("1"),
         FIELD(MESH_NORMAL_AP, flags, U,
               "bit 1 (value 2): carry the mesh element in this AP's beacon")
             .ex("2"),
         FIELD(MESH_NORMAL_AP, ifName, Kind::TEXT, "interface name").ex("\"ra0\"")}};
    return r;
}

std::vector<Field> settingsFields() {
    using S = MESH_ALL_CONFIG;
    return {
        FIELD(S, meshEnable, U, "1: the mesh is enabled, 0: disabled").range(0, 1).ex("1"),
        FIELD(S, netChkTargetSet, U, "non-zero: netChkTargetIp is the target of the network check"),
        FIELD(S, netChkTargetIp, Kind::IPV4, "target of the network check"),
        FIELD(S, gatewayIp, Kind::IPV4, "gateway").ex("\"192.168.1.1\""),
        FIELD(S, deviceIp, Kind::IPV4, "own address").ex("\"192.168.1.2\""),
        FIELD(S, netmask, Kind::IPV4, "netmask").ex("\"255.255.255.0\""),
        FIELD(S, fullSector, U, "the driver's full-sector setting"),
    };
}

} // namespace

const Record& childEntry() {
    return childEntryTable();
}

const Record& normalApList() {
    using S = MESH_NORMAL_AP_LIST;
    static const Record r{
        "ordinary-AP list",
        sizeof(S),
        "the APs that may carry the mesh element",
        {FIELD(S, count, U, "number of APs in the list")
             .range(0, MESH_MAX_NORMAL_AP)
             .counts("list")
             .ex("1"),
         FIELD(S, list, Kind::ARRAY, "up to 16 APs").of(normalApTable(), MESH_MAX_NORMAL_AP)}};
    return r;
}

const Record& scanRequest() {
    using S = MESH_SCAN_REQUEST;
    static const Record r{
        "scan request",
        sizeof(S),
        "a candidate-parent scan",
        {FIELD(S, word, U, "handed to the scan, which does not use it"),
         FIELD(S, notify, U, "non-zero: send the scan-done notification at the end").ex("1")}};
    return r;
}

const Record& controllerIpPort() {
    using S = MESH_CONTROLLER_IP_PORT;
    static const Record r{
        "controller address",
        sizeof(S),
        "where the controller listens, handed on to the children",
        {FIELD(S, ip, Kind::TEXT, "address text, fewer than 80 characters").ex("\"192.168.1.1\""),
         FIELD(S, value1, U, "first port").ex("8080"),
         FIELD(S, value2, U, "second port").ex("8081")}};
    return r;
}

const Record& basicWlanCfg() {
    using S = MESH_BASIC_WLAN_CFG;
    static const Record r{"basic radio settings",
                          sizeof(S),
                          "width, channel and wireless mode of the backhaul",
                          {FIELD(S, reserved0, U, "carried along, not read"),
                           FIELD(S, bandwidth, U, "width code 2 to 6").ex("2"),
                           FIELD(S, frequency, U, "MHz; 0 = automatic channel").ex("5180"),
                           FIELD(S, wlanMode, U, "the platform's wireless mode code").ex("14"),
                           FIELD(S, reserved4, U, "carried along, not read")}};
    return r;
}

const Record& orbpCfg() {
    using S = MESH_ORBP_CFG;
    static const Record r{
        "management-protocol settings",
        sizeof(S),
        "controller identity text and capability version handed on to the children",
        {FIELD(S, vintacId, Kind::TEXT, "identity text, at most 32 characters")
             .ex("\"controller-1\""),
         FIELD(S, verCap, U, "capability version").ex("1")}};
    return r;
}

const Record& settings() {
    static const Record r{"mesh settings", MESH_SETTINGS_LEN,
                          "the first 28 bytes of the configuration record", settingsFields()};
    return r;
}

const Record& config() {
    using S = MESH_ALL_CONFIG;
    static const Record r = [] {
        Record c{"configuration record", sizeof(S),
                 "everything the management side hands down at start", settingsFields()};
        const Field rest[] = {
            FIELD(S, deviceMac, Kind::MAC, "own device MAC").ex("\"02:00:00:00:00:01\""),
            FIELD(S, controllerId, Kind::HEX, "controller identity, carried in probe requests")
                .ex("\"000102030405060708090a0b0c0d0e0f\""),
            FIELD(S, resetFlag, U, "non-zero: the reset flag of the probe requests is set"),
            FIELD(S, vlanId, U, "mesh VLAN id").range(0, 4095),
            FIELD(S, digest, Kind::HEX, "digest carried in probe requests"),
            FIELD(S, probeText, Kind::TEXT, "text carried in probe requests, at most 31 characters")
                .ex("\"zormesh\""),
            FIELD(S, probeTextAttr, U, "byte carried right after probeText"),
            FIELD(S, lanIfName, Kind::TEXT, "wired uplink interface").ex("\"eth0\""),
            FIELD(S, radioName, Kind::TEXT, "radio name").ex("\"mt5g\""),
            FIELD(S, childNum, U, "number of admitted children")
                .range(0, MESH_MAX_CHILD)
                .counts("childList")
                .ex("1"),
            FIELD(S, childList, Kind::ARRAY, "up to 4 admitted children")
                .of(childEntryTable(), MESH_MAX_CHILD),
            FIELD(S, normalApNum, U, "number of ordinary APs")
                .range(0, MESH_MAX_NORMAL_AP)
                .counts("normalApList")
                .ex("1"),
            FIELD(S, normalApList, Kind::ARRAY,
                  "up to 16 ordinary APs (enabling visits all 16 slots)")
                .of(normalApTable(), MESH_MAX_NORMAL_AP),
            FIELD(S, controllerIpPort, Kind::RECORD, "controller address").of(controllerIpPort()),
            FIELD(S, dfsFlag, U, "non-zero: radar channels need the longer wait"),
            FIELD(S, bkhApParam, U, "handed to backhaul creation"),
            FIELD(S, countryCode, U, "ISO 3166-1 numeric country code").range(0, 999).ex("276"),
            FIELD(S, probeAttr, U, "byte carried in probe requests"),
            FIELD(S, basicWlanCfg, Kind::RECORD, "basic radio settings").of(basicWlanCfg()),
            FIELD(S, advWlanCfg, U, "advanced radio settings word"),
            FIELD(S, orbpCfg, Kind::RECORD, "management-protocol settings").of(orbpCfg()),
        };
        c.fields.insert(c.fields.end(), std::begin(rest), std::end(rest));
        return c;
    }();
    return r;
}

const Record& onlineChild() {
    using S = MESH_ONLINE_CHILD_INFO;
    static const Record r{"online child",
                          sizeof(S),
                          "an admitted child associated with the backhaul AP",
                          {FIELD(S, mac, Kind::MAC, "the child's device MAC"),
                           FIELD(S, value48Div1000, U, "station value at 48, divided by 1000"),
                           FIELD(S, value52Div1000, U, "station value at 52, divided by 1000"),
                           FIELD(S, signalLevel, U, "rssi + 95"),
                           FIELD(S, rssi, Kind::INT, "signal strength, dBm"),
                           FIELD(S, counter32Low, U, "low word of counter 32"),
                           FIELD(S, counter40Low, U, "low word of counter 40"),
                           FIELD(S, counter16, U, "station counter 16"),
                           FIELD(S, counter24, U, "station counter 24")}};
    return r;
}

const Record& candidateChild() {
    using S = MESH_CANDIDATE_CHILD_INFO;
    static const Record r{
        "candidate child",
        sizeof(S),
        "a node that asked to join, heard within the last minute",
        {FIELD(S, deviceMac, Kind::MAC, "its device MAC"),
         FIELD(S, staMac, Kind::MAC, "its station MAC"),
         FIELD(S, probeText, Kind::TEXT, "its probe text"),
         FIELD(S, controllerId, Kind::HEX, "its controller identity"),
         FIELD(S, resetFlag, U, "1: its reset flag is set"),
         FIELD(S, probeAttr, U, "its probe attribute"), FIELD(S, drv15, U, "driver value 15"),
         FIELD(S, probeTextAttr, U, "its probe text attribute"),
         FIELD(S, drv12, U, "driver value 12"),
         FIELD(S, drv13Best, Kind::INT, "best driver value 13"),
         FIELD(S, drv14, U, "driver value 14"), FIELD(S, verCap, U, "its capability version")}};
    return r;
}

const Record& scanCandidate() {
    using S = MESH_SCAN_CANDIDATE;
    static const Record r{"scan candidate",
                          sizeof(S),
                          "a possible parent found by the last scan",
                          {FIELD(S, bssid, Kind::MAC, "the parent's backhaul BSSID"),
                           FIELD(S, entryValue, U, "survey entry value"),
                           FIELD(S, signalLevel, U, "rssi + 95"),
                           FIELD(S, rssi, Kind::INT, "signal strength, dBm"),
                           FIELD(S, meshAttr, U, "mesh attribute")}};
    return r;
}

#undef FIELD

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
        const std::string limits = std::to_string(r.lo) + " to " + std::to_string(r.hi);
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
