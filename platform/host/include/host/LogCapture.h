// Test helper: captures Android log lines written in this process while an instance lives.
// Lines are recorded as "<P>/<tag>: <message>" with P one of V D I W E F. Captured lines are
// also passed on to stderr. At most one instance lives at a time. Thread-safe.
#pragma once

#include <mutex>
#include <string>
#include <vector>

struct __android_logger_data;

namespace qmed {
namespace host {

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // True when some captured line contains the text.
    bool contains(const std::string& text) const;
    // Number of captured lines containing the text.
    size_t count(const std::string& text) const;
    void clear();

  private:
    static void onLog(const ::__android_logger_data* data, const char* msg);
    void append(std::string line);

    mutable std::mutex mLock;
    std::vector<std::string> mLines;
};

}  // namespace host
}  // namespace qmed
