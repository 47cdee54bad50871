// Host system properties: read from a "name=value" file on every call.
//
// The file is $QMED_PROPERTY_FILE, or /etc/qmed/properties when that is unset. Blank lines
// and lines starting with '#' are ignored; spaces around names and values are dropped; the
// last line for a name wins. Values longer than PROPERTY_VALUE_MAX - 1 (91) characters cannot
// be set on the platform, so such a line reads as unset, except for read-only ("ro.")
// names, which read back as the platform's message for over-long values.
//
// This file also applies the host log level ($QMED_LOG_LEVEL: v, d, i, w or e; default i)
// before main in every process that links the host platform.
#define LOG_TAG "HostProperties"

#include <android/log.h>
#include <cutils/properties.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>

namespace {

const char* kDefaultPropertyFile = "/etc/qmed/properties";
const char* kLongValueMessage = "Must use __system_property_read_callback() to read";

std::string trim(const std::string& s) {
    const char* ws = " \t\r\n";
    const size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos) return std::string();
    const size_t e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

// Returns the value's length (0 when unset) and fills value (always NUL-terminated).
int readProperty(const char* key, char* value) {
    value[0] = '\0';
    const char* path = getenv("QMED_PROPERTY_FILE");
    if (path == nullptr || *path == '\0') path = kDefaultPropertyFile;
    std::ifstream in(path);
    if (!in) return 0;
    std::string line;
    std::string found;
    bool have = false;
    while (std::getline(in, line)) {
        // Values keep their blanks, as on the device; only the line ending goes.
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
        const size_t start = line.find_first_not_of(" \t");
        const std::string t = start == std::string::npos ? std::string() : line.substr(start);
        if (t.empty() || t[0] == '#') continue;
        const size_t eq = t.find('=');
        if (eq == std::string::npos) continue;
        if (trim(t.substr(0, eq)) != key) continue;
        found = t.substr(eq + 1);
        have = true;
    }
    if (!have) return 0;
    if (found.size() > PROPERTY_VALUE_MAX - 1) {
        if (strncmp(key, "ro.", 3) != 0) return 0;
        found = kLongValueMessage;
    }
    memcpy(value, found.data(), found.size());
    value[found.size()] = '\0';
    return int(found.size());
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    int len = key ? readProperty(key, value) : (value[0] = '\0', 0);
    if (len > 0) return len;
    if (default_value) {
        len = int(strnlen(default_value, PROPERTY_VALUE_MAX - 1));
        memcpy(value, default_value, size_t(len));
        value[len] = '\0';
    }
    return len;
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    if (!key) return default_value;
    int8_t result = default_value;
    char buf[PROPERTY_VALUE_MAX] = {};
    const int len = property_get(key, buf, "");
    if (len == 1) {
        const char ch = buf[0];
        if (ch == '0' || ch == 'n') {
            result = false;
        } else if (ch == '1' || ch == 'y') {
            result = true;
        }
    } else if (len > 1) {
        if (!strcmp(buf, "no") || !strcmp(buf, "false") || !strcmp(buf, "off")) {
            result = false;
        } else if (!strcmp(buf, "yes") || !strcmp(buf, "true") || !strcmp(buf, "on")) {
            result = true;
        }
    }
    return result;
}

// Referenced by the link options of qmed_platform so the initialiser below is always linked.
int qmedHostLogInit = 0;

}  // extern "C"

namespace {

__attribute__((constructor)) void applyHostLogLevel() {
    const char* level = getenv("QMED_LOG_LEVEL");
    int prio = ANDROID_LOG_INFO;
    if (level != nullptr) {
        switch (level[0]) {
            case 'v':
            case 'V':
                prio = ANDROID_LOG_VERBOSE;
                break;
            case 'd':
            case 'D':
                prio = ANDROID_LOG_DEBUG;
                break;
            case 'i':
            case 'I':
                prio = ANDROID_LOG_INFO;
                break;
            case 'w':
            case 'W':
                prio = ANDROID_LOG_WARN;
                break;
            case 'e':
            case 'E':
                prio = ANDROID_LOG_ERROR;
                break;
            default:
                break;
        }
    }
    __android_log_set_minimum_priority(prio);
    qmedHostLogInit = prio;
}

}  // namespace

// Applies to thread-sanitized host programs only.
// - ThreadSanitizer cannot see the atomics inside Debian's uninstrumented libutils, so the
//   reference counting of RefBase (a strong pointer released on one thread, the object
//   freed on another) looks like a race.
// - It does not model re-arming a one-shot epoll entry (EPOLL_CTL_MOD) as a release, so a
//   connection re-armed by one binder thread and then closed by the next one to receive it
//   looks like a race although the kernel orders the two.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libutils.so\n"
           "race:android::RefBase\n"
           "race:android::hostbinder::Transport::dropSource\n";
}
