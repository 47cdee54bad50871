#include "StatusView.h"

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <set>

namespace {

const char* kDaemonName = "ykqmed";

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// Length of the well-formed UTF-8 sequence at s, 0 when there is none.
size_t utf8Length(const unsigned char* s, size_t left) {
    unsigned char c = s[0];
    size_t n = c >= 0xC2 && c <= 0xDF   ? 2
               : c >= 0xE0 && c <= 0xEF ? 3
               : c >= 0xF0 && c <= 0xF4 ? 4
                                        : 0;
    if (n == 0 || n > left) return 0;
    // The second byte's range excludes overlong forms, surrogates and values past U+10FFFF.
    unsigned char lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
    unsigned char hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
    if (s[1] < lo || s[1] > hi) return 0;
    for (size_t i = 2; i < n; i++) {
        if ((s[i] & 0xC0) != 0x80) return 0;
    }
    return n;
}

}  // namespace

bool StatusView::collect() {
    mDaemon = mProc.pidsNamed(kDaemonName);
    // Several daemons (parallel test runs on a host): prefer those that share our /dev/frz.
    const std::string ownNs = mProc.mountNs(getpid());
    std::vector<int> ours;
    for (int pid : mDaemon) {
        if (!ownNs.empty() && mProc.mountNs(pid) == ownNs) ours.push_back(pid);
    }
    if (!ours.empty()) mDaemon = ours;

    FrzTree tree(mFrzRoot);
    mLooked = {tree.root()};
    // Outside the daemon's mount namespace its hierarchy is still reachable through its root.
    for (size_t i = 0; !tree.mounted() && i < mDaemon.size(); i++) {
        tree = FrzTree(mProc.root() + "/" + std::to_string(mDaemon[i]) + "/root" + mFrzRoot);
        mLooked.push_back(tree.root());
    }
    mFrzPath = tree.mounted() ? tree.root() : "";
    for (const FrzTree::Group& g :
         mFrzPath.empty() ? std::vector<FrzTree::Group>() : tree.groups()) {
        mGroups++;
        for (int pid : g.pids) mHeld.push_back({g.name, g.state, pid, mProc.stat(pid).name});
    }
    for (int pid : mProc.pids()) {
        ProcFs::Stat st = mProc.stat(pid);
        if (st.state == 'T') mStopped.push_back({"", "stopped", pid, st.name});
    }
    return !mFrzPath.empty();
}

std::string StatusView::shown(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c < 0x20 || c == 0x7F || c == '\\') {
            out += c == '\\' ? std::string("\\\\") : format("\\x%02x", c);
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string StatusView::jsonString(const std::string& bytes) {
    std::string out = "\"";
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t i = 0; i < bytes.size();) {
        unsigned char c = s[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            out += format("\\u%04x", c);
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (size_t n = utf8Length(s + i, bytes.size() - i)) {
            out.append(bytes, i, n);
            i += n;
            continue;
        } else {
            out += "\\ufffd";  // names are cut at 15 bytes, often inside a character
        }
        i++;
    }
    return out + "\"";
}

std::string StatusView::table() const {
    std::string out = "daemon:  " + std::string(kDaemonName);
    if (mDaemon.empty()) out += " is not running";
    for (size_t i = 0; i < mDaemon.size(); i++) {
        out += (i ? " " : mDaemon.size() > 1 ? ", pids " : ", pid ") + std::to_string(mDaemon[i]);
    }
    std::set<std::string> holding;
    for (const Row& r : mHeld) holding.insert(r.group);
    if (mFrzPath.empty()) {
        out += "\nfreezer: not found at";
        for (const std::string& path : mLooked) out += " " + path;
    } else {
        out += format("\nfreezer: %s, %zu group%s, ", mFrzPath.c_str(), mGroups,
                      mGroups == 1 ? "" : "s");
        out += holding.empty() ? "none holding a process"
                               : format("%zu holding %s", holding.size(),
                                        holding.size() == 1 ? "a process" : "processes");
    }
    out += "\n";
    if (mHeld.empty() && mStopped.empty()) {
        return out + "nothing held: no process is in a freezer group or stopped\n";
    }
    int width = 5;
    for (const Row& r : mHeld) width = std::max(width, static_cast<int>(r.group.size()));
    out += format("%-*s  %-8s %-8s %s\n", width, "GROUP", "STATE", "PID", "NAME");
    for (const std::vector<Row>* rows : {&mHeld, &mStopped}) {
        for (const Row& r : *rows) {
            out += format("%-*s  %-8s %-8d ", width, r.group.empty() ? "-" : r.group.c_str(),
                          r.state.c_str(), r.pid);
            out += shown(r.name) + "\n";
        }
    }
    return out;
}

std::string StatusView::json() const {
    std::string out = "{\n  \"daemon\": {\"name\": " + jsonString(kDaemonName) + ", \"pids\": [";
    for (size_t i = 0; i < mDaemon.size(); i++) out += (i ? ", " : "") + std::to_string(mDaemon[i]);
    out += "]},\n  \"freezer\": {\"found\": ";
    out += mFrzPath.empty() ? "false" : "true, \"path\": " + jsonString(mFrzPath);
    out += format(", \"groups\": %zu, \"looked\": [", mGroups);
    for (size_t i = 0; i < mLooked.size(); i++) out += (i ? ", " : "") + jsonString(mLooked[i]);
    out += "]}";
    const std::pair<const char*, const std::vector<Row>*> lists[] = {{"held", &mHeld},
                                                                     {"stopped", &mStopped}};
    for (const auto& [key, rows] : lists) {
        out += format(",\n  \"%s\": [", key);
        for (size_t i = 0; i < rows->size(); i++) {
            const Row& r = (*rows)[i];
            out += i ? ",\n    {" : "\n    {";
            if (!r.group.empty()) out += "\"group\": " + jsonString(r.group) + ", ";
            out += "\"state\": " + jsonString(r.state) + format(", \"pid\": %d", r.pid);
            out += ", \"name\": " + jsonString(r.name) + "}";
        }
        out += rows->empty() ? "]" : "\n  ]";
    }
    return out + "\n}\n";
}
