#include "wlan/mesh_wlan_dat.h"

#include "core/mesh_log.h"
#include "platform/devcfg.h"
#include "platform/os.h"
#include "security/mesh_common.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "platform/seam_guard.h"

int g_datSemId = -1;

namespace {

// Reads the setter's value in its declared form (the pointer may be unaligned).
template <typename T> T loadValue(const void* value) {
    T v;
    memcpy(&v, value, sizeof v);
    return v;
}

bool isSedSpecial(char c) {
    static const char kSpecial[] = ".*[]^${}\\+?|()&;'\"<>/`= ";
    return c != '\0' && strchr(kSpecial, c) != nullptr;
}

bool isPrintable(char c) {
    return c >= 0x20 && c <= 0x7E;
}

// Appends `src` to `dst` (capacity `cap`, write position `o`) as text of a sed replacement
// inside a single-quoted shell word: backslash, "/" and "&" are escaped for sed, and a
// single quote closes the quote, adds an escaped quote and opens it again. A line feed
// cannot be carried: false, as when the text does not fit.
bool appendSedQuoted(char* dst, size_t cap, size_t& o, const char* src) {
    for (const char* s = src; *s != '\0'; ++s) {
        const char* piece = nullptr;
        switch (*s) {
        case '\n':
            return false;
        case '\\':
            piece = "\\\\";
            break;
        case '/':
            piece = "\\/";
            break;
        case '&':
            piece = "\\&";
            break;
        case '\'':
            piece = "'\\''";
            break;
        default:
            break;
        }
        const size_t len = piece != nullptr ? strlen(piece) : 1;
        if (o + len >= cap) {
            return false;
        }
        memcpy(dst + o, piece != nullptr ? piece : s, len);
        o += len;
    }
    dst[o] = '\0';
    return true;
}

// Runs one rewrite of the profile under the lock. 0, or 1 when the lock was not obtained or
// the line is longer than the shell-line formatter takes: a line cut short could end in the
// middle of a quoted value or of the profile's path, so it is refused instead.
int runLocked(const char* cmd) {
    if (strlen(cmd) >= MESH_SYSTEMF_BUF) {
        MESH_ERR("command line too long, refused");
        return 1;
    }
    if (_datSemLock() != 0) {
        MESH_ERR("can't get dat sem lock");
        return 1;
    }
    // The line goes through the formatter as an argument, never as the format itself.
    mesh_common_systemf("%s", cmd);
    _datSemUnlock();
    return 0;
}

bool keyInProfile(const char* key) {
    return _getDatKeyValue(key, nullptr, MTK_DAT_PATH) == 0;
}

} // namespace

// ---- the lock -------------------------------------------------------------------------------

int _initDatSem(void) {
    int id = os().semGet(os().semKey(), 1, IPC_CREAT | 0666);
    if (id < 0) {
        MESH_ERR("semget failed: %s\n", strerror(errno));
        return -1;
    }
    g_datSemId = id;
    // Set free on every start, also when the set existed or another process holds it.
    if (os().semSetVal(id, 0, 1) < 0) {
        MESH_ERR("setctl setval 1 failed:%s\n", strerror(errno));
        if (os().semRemove(id) < 0) {
            MESH_ERR("semctl IPC_RMID failed:%s\n", strerror(errno));
        }
        g_datSemId = -1;
        return -1;
    }
    return 0;
}

int _datSemLock(void) {
    for (int attempt = 0; attempt < MTK_DAT_LOCK_ATTEMPTS; ++attempt) {
        struct sembuf op {};
        op.sem_num = 0;
        op.sem_op = -1;
        op.sem_flg = SEM_UNDO; // the kernel gives the lock back if the holder dies
        if (os().semOp(g_datSemId, &op, 1) == 0) {
            return 0;
        }
        int err = errno;
        if (err == EINTR) {
            MESH_ERR("lock interrupted by signal");
            continue;
        }
        if (err == EAGAIN) {
            MESH_ERR("timed out, errno=%d rc=%d", err, -1);
        } else {
            MESH_ERR("lock failed, errno=%d rc=%d", err, -1);
        }
        return -1;
    }
    return -1;
}

int _datSemUnlock(void) {
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = 1;
    op.sem_flg = SEM_UNDO;
    if (os().semOp(g_datSemId, &op, 1) != 0) {
        MESH_ERR("release lock failed, errno=%d", errno);
        return -1;
    }
    return 0;
}

// ---- profile text ----------------------------------------------------------------------------

int _escapeSedChars(char* dst, const char* src) {
    if (dst == nullptr) {
        return -1;
    }
    size_t o = 0;
    for (const char* s = src; s != nullptr && *s != '\0'; ++s) {
        // A control character (a line feed above all) would end or split the shell line
        // whatever stands before it.
        if (!isPrintable(*s)) {
            dst[0] = '\0';
            MESH_ERR("text to escape holds a control character");
            return -1;
        }
        if (isSedSpecial(*s)) {
            dst[o++] = '\\';
        }
        dst[o++] = *s;
    }
    dst[o] = '\0';
    return 0;
}

bool _isEscapedShellText(const char* text) {
    if (text == nullptr) {
        return false;
    }
    for (const char* s = text; *s != '\0'; ++s) {
        if (!isPrintable(*s)) {
            return false;
        }
        if (*s == '\\') {
            // The escaped character must be one the escaping produces: "\\" would let the
            // shell of a double-quoted line hand sed a lone backslash for the next character.
            ++s;
            if (!isSedSpecial(*s) || *s == '\\') {
                return false;
            }
        } else if (isSedSpecial(*s)) {
            return false;
        }
    }
    return true;
}

bool _isPlainShellText(const char* text, size_t max) {
    if (text == nullptr) {
        return false;
    }
    for (size_t i = 0; i < max && text[i] != '\0'; ++i) {
        const char c = text[i];
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!ok) {
            return false;
        }
    }
    return true;
}

void _trimLineEnd(char* text, size_t len) {
    if (text == nullptr || len < 1 || text[len - 1] != '\n') {
        return;
    }
    if (len >= 2 && text[len - 2] == '\r') {
        text[len - 2] = '\0';
    } else {
        text[len - 1] = '\0';
    }
}

int _parseDatLineBuf(char* line, size_t size, char* key, char* value) {
    if (line == nullptr) {
        return -2;
    }
    size_t end = 0;
    char* eq = nullptr;
    for (; end < size && line[end] != '\0'; ++end) {
        // The key ends at the first "="; later ones belong to the value.
        if (line[end] == '=' && eq == nullptr) {
            eq = &line[end];
        }
    }
    if (end == size) {
        MESH_ERR("Can't found Terminator! Exceeding the max line buffer(%d)?",
                 static_cast<int>(MTK_DAT_LINE_BUF));
        return -1;
    }
    if (eq == nullptr) {
        return -2;
    }
    *eq = '\0';
    char* val = eq + 1;
    size_t keyLen = static_cast<size_t>(eq - line);
    size_t valLen = static_cast<size_t>(&line[end] - val); // line end included
    if (keyLen > MTK_DAT_KEY_MAX) {
        MESH_ERR("The DatKey(%s) Exceeding the max key buffer(%d)!", line,
                 static_cast<int>(MTK_DAT_KEY_MAX));
        return -1;
    }
    if (valLen > MTK_DAT_VALUE_MAX) {
        MESH_ERR("The DatValue(%s) Exceeding the max value buffer(%d)!", val,
                 static_cast<int>(MTK_DAT_VALUE_MAX));
        return -1;
    }
    if (key != nullptr) {
        memcpy(key, line, keyLen + 1);
    }
    if (value != nullptr) {
        _trimLineEnd(val, valLen);
        memcpy(value, val, strlen(val) + 1);
    }
    return 0;
}

int _getDatKeyValue(const char* key, char* value, const char* path) {
    if (key == nullptr || path == nullptr) {
        return 1;
    }
    RootedPath real(path);
    FILE* f = fopen(real.c_str(), "r");
    if (f == nullptr) {
        MESH_ERR("Can't open dat file: %s", path);
        return 1;
    }
    char line[MTK_DAT_LINE_BUF];
    char lineKey[MTK_DAT_KEY_BUF];
    // A line longer than the buffer arrives in pieces; each piece is parsed on its own.
    while (fgets(line, sizeof line, f) != nullptr) {
        if (_parseDatLineBuf(line, sizeof line, lineKey, value) != 0) {
            continue;
        }
        if (strcmp(lineKey, key) == 0) {
            fclose(f);
            return 0;
        }
    }
    fclose(f);
    MESH_ERR("Cannot find key %s.", key);
    return 1;
}

int _mtk_wlan_ifIndex(const char* ifName) {
    if (ifName == nullptr || strnlen(ifName, 3) < 2) {
        return 0;
    }
    const char* digits = (ifName[2] == 'i' || ifName[2] == 'x') ? ifName + 3 : ifName + 2;
    long v = strtol(digits, nullptr, 10); // a decimal prefix; no digits give 0
    if (v > 1000000 || v < -1000000) {
        return -1; // far outside any VAP range
    }
    return static_cast<int>(v);
}

// ---- commands ---------------------------------------------------------------------------------

void _doIwprivCommand(const char* iwprivKey, const char* ifName, const void* value,
                      MTK_DATA_TYPE type) {
    if (iwprivKey == nullptr || ifName == nullptr || value == nullptr) {
        return;
    }
    switch (type) {
    case MTK_DATA_STRING:
        // The value stands outside quotes: only text escaped for the shell is let through.
        if (!_isEscapedShellText(static_cast<const char*>(value))) {
            MESH_ERR("unsafe text for %s refused", iwprivKey);
            return;
        }
        if (strlen(ifName) + strlen(iwprivKey) + strlen(static_cast<const char*>(value)) + 13 >=
            MESH_SYSTEMF_BUF) {
            MESH_ERR("command line too long, refused");
            return;
        }
        mesh_common_systemf("iwpriv %s set %s=%s", ifName, iwprivKey,
                            static_cast<const char*>(value));
        break;
    case MTK_DATA_UINT32:
        mesh_common_systemf("iwpriv %s set %s=%u", ifName, iwprivKey, loadValue<uint32_t>(value));
        break;
    case MTK_DATA_INT32:
        mesh_common_systemf("iwpriv %s set %s=%d", ifName, iwprivKey, loadValue<int32_t>(value));
        break;
    case MTK_DATA_UINT16:
        mesh_common_systemf("iwpriv %s set %s=%d", ifName, iwprivKey, loadValue<uint16_t>(value));
        break;
    default:
        MESH_ERR("Can't support data tpye: %d!", static_cast<int>(type));
        break;
    }
}

int _mtk_dat_setValue(const char* datKey, const char* ifName, const void* value,
                      MTK_DATA_TYPE type) {
    if (datKey == nullptr || ifName == nullptr || value == nullptr) {
        MESH_ERR("invalid param.");
        return 1;
    }
    if (!keyInProfile(datKey)) {
        MESH_ERR("Can't find %s in dat %s", datKey, MTK_DAT_PATH);
        return 1;
    }
    RootedPath path(MTK_DAT_PATH);
    char cmd[MTK_DAT_LINE_BUF];
    switch (type) {
    case MTK_DATA_STRING: {
        char text[MTK_DAT_LINE_BUF];
        size_t o = 0;
        if (!appendSedQuoted(text, sizeof text, o, static_cast<const char*>(value))) {
            MESH_ERR("unsafe text for %s refused", datKey);
            return 1;
        }
        // A line past the buffer is cut, as the shell-line formatter cuts it anyway.
        if (snprintf(cmd, sizeof cmd, "sed -i 's/^%s=.*$/%s=%s/' %s", datKey, datKey, text,
                     path.c_str()) < 0) {
            return 1;
        }
        break;
    }
    case MTK_DATA_UINT32:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s=.*$/%s=%u/' %s", datKey, datKey,
                 loadValue<uint32_t>(value), path.c_str());
        break;
    case MTK_DATA_INT32:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s=.*$/%s=%d/' %s", datKey, datKey,
                 loadValue<int32_t>(value), path.c_str());
        break;
    case MTK_DATA_UINT16:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s=.*$/%s=%d/' %s", datKey, datKey,
                 loadValue<uint16_t>(value), path.c_str());
        break;
    default:
        MESH_ERR("can't support data type: %d!", static_cast<int>(type));
        return 1;
    }
    return runLocked(cmd);
}

int _mtk_wlan_set(const char* datKey, const char* iwprivKey, const char* ifName, const void* value,
                  MTK_DATA_TYPE type, uint32_t applyFlags) {
    if (((applyFlags & MTK_APPLY_DAT) != 0 && datKey == nullptr) ||
        ((applyFlags & MTK_APPLY_IWPRIV) != 0 && iwprivKey == nullptr) || ifName == nullptr ||
        value == nullptr) {
        MESH_ERR("invalid param.");
        return 1;
    }
    if ((applyFlags & MTK_APPLY_IWPRIV) != 0) {
        _doIwprivCommand(iwprivKey, ifName, value, type);
    }
    if ((applyFlags & MTK_APPLY_DAT) != 0) {
        return _mtk_dat_setValue(datKey, ifName, value, type);
    }
    return 0;
}

int _mtk_wlan_setVapCfgWithIndex(const char* datBaseKey, const char* iwprivKey, const char* ifName,
                                 const void* value, MTK_DATA_TYPE type, uint32_t applyFlags) {
    if ((datBaseKey == nullptr && iwprivKey == nullptr) || ifName == nullptr || value == nullptr) {
        MESH_ERR("invalid param.");
        return 1;
    }
    int n = _mtk_wlan_ifIndex(ifName) + 1;
    if ((applyFlags & MTK_APPLY_IWPRIV) != 0) {
        _doIwprivCommand(iwprivKey, ifName, value, type);
    }
    if ((applyFlags & MTK_APPLY_DAT) == 0 || datBaseKey == nullptr) {
        return 0;
    }
    if (!keyInProfile(datBaseKey)) {
        MESH_ERR("Can't find %s in dat %s", datBaseKey, MTK_DAT_PATH);
        return 1;
    }
    if (type == MTK_DATA_STRING && !_isEscapedShellText(static_cast<const char*>(value))) {
        MESH_ERR("unsafe text for %s refused", datBaseKey);
        return 1;
    }
    RootedPath path(MTK_DAT_PATH);
    char cmd[MTK_DAT_LINE_BUF];
    switch (type) {
    case MTK_DATA_STRING:
        // Double quotes: the caller has escaped what the shell would expand.
        snprintf(cmd, sizeof cmd, "sed -i \"s/^%s%d=.*$/%s%d=%s/\" %s", datBaseKey, n, datBaseKey,
                 n, static_cast<const char*>(value), path.c_str());
        break;
    case MTK_DATA_UINT32:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s%d=.*$/%s%d=%u/' %s", datBaseKey, n, datBaseKey, n,
                 loadValue<uint32_t>(value), path.c_str());
        break;
    case MTK_DATA_INT32:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s%d=.*$/%s%d=%d/' %s", datBaseKey, n, datBaseKey, n,
                 loadValue<int32_t>(value), path.c_str());
        break;
    case MTK_DATA_UINT16:
        snprintf(cmd, sizeof cmd, "sed -i 's/^%s%d=.*$/%s%d=%d/' %s", datBaseKey, n, datBaseKey, n,
                 loadValue<uint16_t>(value), path.c_str());
        break;
    default:
        MESH_ERR("can't support data type:%d!", static_cast<int>(type));
        return 1;
    }
    return runLocked(cmd);
}

int _mtk_wlan_setVapCfg(const char* datKey, const char* iwprivKey, const char* ifName,
                        const void* value, MTK_DATA_TYPE type, uint32_t applyFlags) {
    if (((applyFlags & MTK_APPLY_DAT) != 0 && datKey == nullptr) ||
        ((applyFlags & MTK_APPLY_IWPRIV) != 0 && iwprivKey == nullptr) || ifName == nullptr ||
        value == nullptr) {
        MESH_ERR("invalid param.");
        return 1;
    }
    // The VAP count is taken as an 8-bit number; element v belongs to interface index v.
    const int n = (radio_config_getMaxVapNum(1) & 0xFF) + 1;
    const int v = _mtk_wlan_ifIndex(ifName);
    if ((applyFlags & MTK_APPLY_DAT) != 0) {
        // Outside the working table the new element could not be part of the written
        // line: refuse before anything runs.
        if (n > static_cast<int>(MTK_VAP_MAX_NUM)) {
            MESH_ERR("vap num %d out of range", n);
            return 1;
        }
        if (v < 0 || v >= n) {
            MESH_ERR("vap index %d out of range", v);
            return 1;
        }
    }
    if ((applyFlags & MTK_APPLY_IWPRIV) != 0) {
        _doIwprivCommand(iwprivKey, ifName, value, type);
    }
    if ((applyFlags & MTK_APPLY_DAT) == 0) {
        return 0;
    }

    char elems[MTK_VAP_MAX_NUM][MTK_VAP_ELEM_LEN];
    memset(elems, 0, sizeof elems);
    switch (type) {
    case MTK_DATA_STRING: {
        const char* text = static_cast<const char*>(value);
        if (strnlen(text, MTK_VAP_ELEM_LEN) > MTK_VAP_ELEM_LEN - 1) {
            MESH_ERR("%s exceed buffer size", text);
            return 1;
        }
        memcpy(elems[v], text, strlen(text) + 1);
        break;
    }
    case MTK_DATA_UINT32:
        snprintf(elems[v], MTK_VAP_ELEM_LEN, "%u", loadValue<uint32_t>(value));
        break;
    case MTK_DATA_INT32:
        snprintf(elems[v], MTK_VAP_ELEM_LEN, "%d", loadValue<int32_t>(value));
        break;
    case MTK_DATA_UINT16:
        snprintf(elems[v], MTK_VAP_ELEM_LEN, "%d", loadValue<uint16_t>(value));
        break;
    default:
        MESH_ERR("can't support data type:%d!", static_cast<int>(type));
        return 1;
    }

    char current[MTK_DAT_VALUE_BUF];
    if (_getDatKeyValue(datKey, current, MTK_DAT_PATH) != 0) {
        MESH_ERR("Can't find %s in dat %s", datKey, MTK_DAT_PATH);
        return 1;
    }
    // Pieces of the stored list, empty ones skipped; those past the n-th are dropped.
    int i = 0;
    for (char* p = current; *p != '\0' && i < n;) {
        size_t len = strcspn(p, ";");
        if (len == 0) {
            ++p;
            continue;
        }
        char* next = p[len] == '\0' ? p + len : p + len + 1;
        p[len] = '\0';
        if (len > MTK_VAP_ELEM_LEN - 1) {
            MESH_ERR("vapValue[%d]: %s exceed buffer size", i, p);
            return 1;
        }
        if (i != v) {
            memcpy(elems[i], p, len + 1);
        }
        ++i;
        p = next;
    }
    for (int k = 1; k < n; ++k) {
        if (elems[k][0] == '\0') {
            memcpy(elems[k], elems[0], sizeof elems[0]);
        }
    }

    char keyPart[MTK_DAT_KEY_BUF + 1];
    snprintf(keyPart, sizeof keyPart, "%.64s", datKey);
    // The elements come from the profile or the caller: each is escaped for the quoted sed
    // replacement (at most 4 bytes per character), a line feed is refused.
    char newLine[MTK_DAT_KEY_BUF + MTK_VAP_MAX_NUM * 4 * MTK_VAP_ELEM_LEN + 2];
    size_t o = static_cast<size_t>(snprintf(newLine, sizeof newLine, "%s=", keyPart));
    for (int k = 0; k < n; ++k) {
        if (k > 0) {
            newLine[o++] = ';';
        }
        if (!appendSedQuoted(newLine, sizeof newLine, o, elems[k])) {
            MESH_ERR("unsafe text for %s refused", datKey);
            return 1;
        }
    }
    RootedPath path(MTK_DAT_PATH);
    char cmd[MTK_DAT_LINE_BUF];
    snprintf(cmd, sizeof cmd, "sed -i 's/^%s=.*/%s/g' %s", keyPart, newLine, path.c_str());
    return runLocked(cmd);
}
