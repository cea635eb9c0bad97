// Driver profile store: the MediaTek profile /tmp/wireless/mt5g.dat, its System V lock, and
// the three setters that apply a driver setting live (iwpriv), to the profile (sed -i), or
// both.
//
// Profile format: one "key=value" per line. A key has at most 63 characters (the text
// before the first "="; later "=" belong to the value), a value at most 9125 characters
// including its line end, which may be "\n" or "\r\n" and is dropped on reading. Lines
// without "=" (comments, headers, blank lines) are ignored and never rewritten.
//
// Per-interface settings are stored either under an indexed key "<base><n>" with n the
// interface index + 1, or as one element of a per-VAP list "key=e0;e1;...;e(n-1)" with one
// element of at most 15 characters per VAP. The interface index comes from the name: the
// digits from position 3 when position 2 is 'i' or 'x' ("rai3" -> 3), else from position 2
// ("ra1" -> 1).
//
// Results: 0 success, 1 failure; the semaphore routines return -1 on failure.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr const char* MTK_DAT_PATH = "/tmp/wireless/mt5g.dat";
constexpr size_t MTK_DAT_LINE_BUF = 9192;        // one profile line, terminator included
constexpr size_t MTK_DAT_KEY_MAX = 63;           // characters of a key
constexpr size_t MTK_DAT_KEY_BUF = 64;           // key output buffer
constexpr size_t MTK_DAT_VALUE_MAX = 9125;       // characters of a value, line end included
constexpr size_t MTK_DAT_VALUE_BUF = 9126;       // value output buffer
constexpr size_t MTK_VAP_ELEM_LEN = 16;          // one per-VAP list element, terminator included
constexpr size_t MTK_VAP_MAX_NUM = 9;            // elements of the per-VAP working table
constexpr uint32_t MTK_DAT_SEM_KEY = 0xC11E0761; // the device's key (the seam supplies it)
constexpr int MTK_DAT_LOCK_ATTEMPTS = 30;        // lock attempts interrupted by signals

// What the value pointer of a setter designates.
enum MTK_DATA_TYPE : int32_t {
    MTK_DATA_STRING = 0, // NUL-terminated text
    MTK_DATA_UINT32 = 1, // uint32_t, written "%u"
    MTK_DATA_INT32 = 2,  // int32_t, written "%d"
    MTK_DATA_UINT16 = 3, // uint16_t, written "%d"
};

// Apply flags of the setters (a bit set); the live command always runs first.
constexpr uint32_t MTK_APPLY_IWPRIV = 1; // "iwpriv <if> set <key>=<value>"
constexpr uint32_t MTK_APPLY_DAT = 2;    // rewrite the profile line with sed -i
constexpr uint32_t MTK_APPLY_BOTH = MTK_APPLY_IWPRIV | MTK_APPLY_DAT;

// Id of the profile semaphore set; -1 until _initDatSem has run.
extern int g_datSemId;

// Creates or opens the semaphore set and sets it free (value 1), also when another process
// holds it. 0, or -1 after an error line.
int _initDatSem(void);
// Takes the lock (SEM_UNDO, blocking; retried when a signal interrupts, at most 30
// attempts). 0 when held, -1 otherwise.
int _datSemLock(void);
// Gives the lock back (SEM_UNDO). 0, or -1.
int _datSemUnlock(void);

// Copies `src` into `dst` with a backslash before every character that sed or the shell
// would interpret. `dst` holds 2 * strlen(src) + 1 bytes. 0; or -1 with `dst` empty and an
// error line when `src` holds a character outside printable ASCII (a line feed would split
// the shell line).
int _escapeSedChars(char* dst, const char* src);
// True when `text` may stand as it is in an unquoted shell word and in a double-quoted sed
// replacement: printable ASCII in which every character _escapeSedChars escapes comes
// behind a backslash, and no backslash escapes a backslash. _escapeSedChars produces such
// text from any printable text without a backslash.
bool _isEscapedShellText(const char* text);
// True when the text (at most `max` bytes, NUL-terminated or not) holds only letters,
// digits, "-" and "_": safe in every quoting context without escaping.
bool _isPlainShellText(const char* text, size_t max);
// Cuts a trailing "\n" or "\r\n" off `text` (`len` = strlen(text)).
void _trimLineEnd(char* text, size_t len);
// Splits one profile line in place. `key` (64 bytes) and `value` (9126 bytes) may be null.
// 0 parsed; -2 no "=" in the line; -1 a limit exceeded (error line printed).
int _parseDatLineBuf(char* line, size_t size, char* key, char* value);
// Looks `key` up in the profile at the fixed path `path` (mapped through the seam).
// `value` (9126 bytes) may be null. 0 found; 1 not found or not readable.
int _getDatKeyValue(const char* key, char* value, const char* path);
// The interface index encoded in a driver interface name (see above).
int _mtk_wlan_ifIndex(const char* ifName);

// Runs "iwpriv <ifName> set <iwprivKey>=<value>"; nothing when the key is null. A text value
// stands unquoted and must pass _isEscapedShellText, else it is refused with an error line;
// so is a text that would make the line longer than 511 characters.
void _doIwprivCommand(const char* iwprivKey, const char* ifName, const void* value,
                      MTK_DATA_TYPE type);
// Rewrites the plain key `datKey` of the profile under the lock. A text value is escaped for
// the single-quoted sed script; one with a line feed is refused. 0 or 1.
//
// Every rewrite whose line would be longer than the 511 characters of the shell-line
// formatter is refused ("command line too long, refused", 1) rather than cut short.
int _mtk_dat_setValue(const char* datKey, const char* ifName, const void* value,
                      MTK_DATA_TYPE type);

// A plain setting: live under `iwprivKey`, in the profile under `datKey`. 0 or 1.
int _mtk_wlan_set(const char* datKey, const char* iwprivKey, const char* ifName, const void* value,
                  MTK_DATA_TYPE type, uint32_t applyFlags);
// An indexed setting: profile key "<datBaseKey><index + 1>" (the base key itself must be in
// the profile). A text value goes into the sed script in double quotes, so the caller
// escapes it with _escapeSedChars; text that fails _isEscapedShellText is refused. 0 or 1.
int _mtk_wlan_setVapCfgWithIndex(const char* datBaseKey, const char* iwprivKey, const char* ifName,
                                 const void* value, MTK_DATA_TYPE type, uint32_t applyFlags);
// One element of a per-VAP list: element <index> of "datKey=e0;e1;...". The list is
// rewritten with exactly radio_config_getMaxVapNum(1) + 1 elements; empty ones take e0.
// An index at or above that count, or a count above 9, is refused ("vap index %d out of
// range", "vap num %d out of range"). Every element, the stored ones included, is escaped
// for the single-quoted sed script; an element with a line feed is refused. 0 or 1.
int _mtk_wlan_setVapCfg(const char* datKey, const char* iwprivKey, const char* ifName,
                        const void* value, MTK_DATA_TYPE type, uint32_t applyFlags);
