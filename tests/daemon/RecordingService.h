#pragma once

// A service whose operations only record their arguments, to check the stub's
// unmarshalling and replies independently of the engines.

#include <binder/IBinder.h>
#include <string.h>
#include <utils/String8.h>

#include <mutex>
#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"

class RecordingService : public BnQmedBinderService {
  public:
    int result = 0;
    int outPid = -1;                        // stored by getPidByNameAndUid when not -1
    std::string cpuText = "0\t12\tinit\t";  // written by getProcCpuTime
    std::string cmdText = "/system/bin/app";
    bool bufferWasZero = false;
    int bufferLength = 0;

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> l(mLock);
        return mCalls;
    }

    int registerListener(const android::sp<IQmedBinderListener>& listener, int type) override {
        return rec("registerListener(" + std::string(listener == nullptr ? "null" : "listener") +
                   "," + std::to_string(type) + ")");
    }
    int unregisterListener(const android::sp<IQmedBinderListener>& listener) override {
        return rec("unregisterListener(" + std::string(listener == nullptr ? "null" : "listener") +
                   ")");
    }
    int doFreezer(int action, int* pids, int num) override {
        return rec("doFreezer(" + std::to_string(action) + "," + list(pids, num) + ")");
    }
    int setKstateMask(int mask) override { return rec("setKstateMask(" + s(mask) + ")"); }
    int setKWakelock(int cmd, const char* name, int timeout, unsigned nameLength) override {
        return rec("setKWakelock(" + s(cmd) + "," + name + "," + s(timeout) + "," +
                   std::to_string(nameLength) + ")");
    }
    int getKstateSync(int command) override { return rec("getKstateSync(" + s(command) + ")"); }
    int getProcUTime(int pid) override { return rec("getProcUTime(" + s(pid) + ")"); }
    int getProcCpuTime(char* buffer, int type, int* pids, int num) override {
        bufferWasZero = true;
        for (size_t i = 0; i < IQmedBinderService::kCpuTimeBufferSize; i++) {
            if (buffer[i] != 0) bufferWasZero = false;
        }
        memcpy(buffer, cpuText.c_str(), cpuText.size());
        return rec("getProcCpuTime(" + s(type) + "," + list(pids, num) + ")");
    }
    int getCmdLineByPid(char* buffer, int pid, int length) override {
        bufferLength = length;
        bufferWasZero = true;
        for (int i = 0; i < length; i++) {
            if (buffer[i] != 0) bufferWasZero = false;
        }
        memcpy(buffer, cmdText.c_str(), std::min<size_t>(cmdText.size(), length));
        return rec("getCmdLineByPid(" + s(pid) + ")");
    }
    int getPidByNameAndUid(const char* name, int uid, int* out) override {
        if (outPid != -1) *out = outPid;
        return rec("getPidByNameAndUid(" + std::string(name) + "," + s(uid) + "," + s(*out) + ")");
    }
    int killProcess(int* pids, int num) override {
        return rec("killProcess(" + list(pids, num) + ")");
    }
    int destroySockets(int uid, int pid) override {
        return rec("destroySockets(" + s(uid) + "," + s(pid) + ")");
    }
    int setPowerWatchdog(int type, long first, long second,
                         const android::String8& extend) override {
        return rec("setPowerWatchdog(" + s(type) + "," + std::to_string(first) + "," +
                   std::to_string(second) + "," + extend.c_str() + ")");
    }
    bool writeFileNode(const char* path, const char* content) override {
        rec("writeFileNode(" + std::string(path) + "," + content + ")");
        return result != 0;
    }
    int doSpear(int pid, int rate, int type, bool children) override {
        return rec("doSpear(" + s(pid) + "," + s(rate) + "," + s(type) + "," + s(children) + ")");
    }
    int stopSpear(int pid) override { return rec("stopSpear(" + s(pid) + ")"); }
    int pauseSpear(int pid, int time) override {
        return rec("pauseSpear(" + s(pid) + "," + s(time) + ")");
    }
    int stopSpearAll() override { return rec("stopSpearAll()"); }
    int changeSpearParam(int pid, int rate) override {
        return rec("changeSpearParam(" + s(pid) + "," + s(rate) + ")");
    }
    int readFileNode(const char* path, int def) override {
        return rec("readFileNode(" + std::string(path) + "," + s(def) + ")");
    }
    android::status_t dump(int fd, const android::Vector<android::String16>&) override {
        rec("dump");
        if (fd >= 0) dprintf(fd, "recording service\n");
        return 0;
    }

  private:
    static std::string s(int v) { return std::to_string(v); }
    static std::string list(int* pids, int num) {
        std::string out = "[";
        for (int i = 0; i < num; i++) out += (i ? " " : "") + std::to_string(pids[i]);
        return out + "]";
    }
    int rec(const std::string& call) {
        std::lock_guard<std::mutex> l(mLock);
        mCalls.push_back(call);
        return result;
    }

    std::mutex mLock;
    std::vector<std::string> mCalls;
};
