#pragma once

#include <android/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace qmedtest {

// Collects "<tag>: <message>" for every line logged in this process while it lives.
class LogLines {
  public:
    LogLines() {
        current() = this;
        __android_log_set_logger(&LogLines::logger);
    }
    ~LogLines() {
        __android_log_set_logger(__android_log_stderr_logger);
        current() = nullptr;
    }
    size_t count(const std::string& text) {
        std::lock_guard<std::mutex> g(mLock);
        size_t n = 0;
        for (const auto& l : mLines) n += l.find(text) != std::string::npos;
        return n;
    }
    std::string all() {
        std::lock_guard<std::mutex> g(mLock);
        std::string s;
        for (const auto& l : mLines) s += l + "\n";
        return s;
    }

  private:
    static LogLines*& current() {
        static LogLines* sCurrent = nullptr;
        return sCurrent;
    }
    static void logger(const struct __android_logger_data* data, const char* message) {
        LogLines* self = current();
        if (self == nullptr) return;
        std::lock_guard<std::mutex> g(self->mLock);
        self->mLines.push_back(std::string(data->tag ? data->tag : "") + ": " +
                               (message ? message : ""));
    }
    std::mutex mLock;
    std::vector<std::string> mLines;
};

}  // namespace qmedtest
