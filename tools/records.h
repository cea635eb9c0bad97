// The daemon's wire records described as data, and their conversion to and from JSON.
//
// Each record (the 788-byte configuration record, the ordinary-AP list, the reply entries, ...)
// is described once by a table of fields: name, offset and size taken from the daemon's own
// headers (core/mesh_config.h, core/mesh_msg.h, wlan/...), the kind of value and its allowed
// range. The JSON reader, the JSON writer, the commented template and the field list of the
// documentation all walk that table, so they cannot drift apart.
//
// Use (link the CMake target `zormesh_records`):
//
//     #include "records.h"
//     MESH_ALL_CONFIG cfg;
//     std::string err;
//     records::Json doc = records::Json::parse(text, nullptr, true, true); // allows // comments
//     if (!records::fromJson(records::config(), doc, &cfg, sizeof cfg, &err)) {
//         fprintf(stderr, "%s\n", err.c_str()); // e.g. "childList[4]: more than 4 entries"
//     }
//     records::Json back = records::toJson(records::config(), &cfg);
//
// JSON keys are the field names of the headers. A missing key leaves its bytes zero; an unknown
// key, a value of the wrong type or out of range is refused with the path of the value. Values:
// numbers as JSON numbers (or true/false for 1/0), IPv4
// addresses as "a.b.c.d", MAC addresses as "aa:bb:cc:dd:ee:ff", byte strings as hexadecimal
// text of exactly the field's size, texts as strings (shorter than the field, no NUL). Nested
// records are objects, arrays of entries are arrays of objects; a count field left out takes the
// number of entries given. Reserved bytes are not in the JSON: they are written as zeros.
// All multi-byte numbers are little-endian, as on the device.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace records {

// Keys keep the order of the table, so output is stable and reads like the record.
using Json = nlohmann::ordered_json;

enum class Kind {
    UINT, // unsigned little-endian number of 1, 2, 4 or 8 bytes
    INT,  // signed little-endian number of 1, 2 or 4 bytes
    IPV4, // u32, first octet most significant, written "a.b.c.d"
    MAC,  // 6 bytes, written "aa:bb:cc:dd:ee:ff"
    HEX,  // raw bytes, written as hexadecimal text
    TEXT, // NUL-terminated text, at most size - 1 characters
    RECORD,
    ARRAY, // `count` entries of `sub`, each sub->size bytes
};

struct Record;

struct Field {
    const char* name;
    size_t offset;
    size_t size; // whole field; for ARRAY all entries
    Kind kind;
    const char* doc;
    int64_t min = 0;
    int64_t max = -1;              // -1: the full range of the size
    const Record* sub = nullptr;   // RECORD, ARRAY
    size_t count = 0;              // ARRAY
    const char* countOf = nullptr; // UINT: counts the entries of this ARRAY field
    const char* example = nullptr; // JSON text for the template; default: a zero value

    Field range(int64_t lo, int64_t hi) const {
        Field f = *this;
        f.min = lo;
        f.max = hi;
        return f;
    }
    Field of(const Record& rec, size_t n = 0) const {
        Field f = *this;
        f.sub = &rec;
        f.count = n;
        return f;
    }
    Field counts(const char* array) const {
        Field f = *this;
        f.countOf = array;
        return f;
    }
    Field ex(const char* json) const {
        Field f = *this;
        f.example = json;
        return f;
    }
};

struct Record {
    const char* name;
    size_t size;
    const char* doc;
    std::vector<Field> fields;
    const Field* find(const std::string& name) const;
};

// Request payloads.
const Record& config();           // MESH_ALL_CONFIG, type 1
const Record& settings();         // its first 28 bytes, type 4
const Record& normalApList();     // MESH_NORMAL_AP_LIST, type 2
const Record& childEntry();       // MESH_CHILD_ENTRY, type 5
const Record& scanRequest();      // MESH_SCAN_REQUEST, type 9
const Record& controllerIpPort(); // MESH_CONTROLLER_IP_PORT, type 12
const Record& basicWlanCfg();     // MESH_BASIC_WLAN_CFG, type 20
const Record& orbpCfg();          // MESH_ORBP_CFG, type 22
// Reply entries.
const Record& onlineChild();    // MESH_ONLINE_CHILD_INFO, type 7
const Record& candidateChild(); // MESH_CANDIDATE_CHILD_INFO, type 8
const Record& scanCandidate();  // MESH_SCAN_CANDIDATE, type 11

// Fills `size` bytes at `out` (which must be rec.size) from a JSON object: zero first, then
// every key given. false with a message "<path>: <reason>" in *error; `out` is then all zero.
bool fromJson(const Record& rec, const Json& doc, void* out, size_t size, std::string* error);

// Every field of a record as JSON (arrays without their trailing all-zero entries).
Json toJson(const Record& rec, const void* data);

// A complete example document with a comment above each key; fromJson accepts it when the
// text is parsed with comments allowed.
std::string commentedTemplate(const Record& rec);

// One line per field for the documentation: "name (kind, offset O, size S): doc".
std::string fieldList(const Record& rec);

// Single values in the forms people type; false when the text is not one.
bool parseMac(const std::string& text, uint8_t out[6]);
bool parseIpv4(const std::string& text, uint32_t* out);
std::string formatMac(const uint8_t* mac);
std::string formatIpv4(uint32_t value);

} // namespace records
