#include <android/log.h>
#include <host/LogCapture.h>

#include <atomic>

namespace qmed {
namespace host {

namespace {
std::atomic<LogCapture*> sActive{nullptr};
std::atomic<int> sPassOnPriority{ANDROID_LOG_INFO};
}  // namespace

LogCapture::LogCapture() {
    // Capture everything; pass on to stderr only what the process would have printed.
    sPassOnPriority.store(__android_log_get_minimum_priority());
    sActive.store(this);
    __android_log_set_logger(&LogCapture::onLog);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
    __android_log_set_minimum_priority(sPassOnPriority.load());
    __android_log_set_logger(__android_log_stderr_logger);
    sActive.store(nullptr);
}

void LogCapture::onLog(const ::__android_logger_data* data, const char* msg) {
    static const char kLetters[] = "??VDIWEF";
    const int prio = data->priority;
    const char letter = (prio >= 0 && prio < 8) ? kLetters[prio] : '?';
    std::string line;
    line += letter;
    line += '/';
    line += data->tag ? data->tag : "";
    line += ": ";
    line += msg ? msg : "";
    LogCapture* active = sActive.load();
    if (active != nullptr) active->append(line);
    const int passOn = sPassOnPriority.load();
    if (passOn == ANDROID_LOG_DEFAULT || prio >= passOn) __android_log_stderr_logger(data, msg);
}

void LogCapture::append(std::string line) {
    std::lock_guard<std::mutex> l(mLock);
    mLines.push_back(std::move(line));
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> l(mLock);
    return mLines;
}

bool LogCapture::contains(const std::string& text) const {
    return count(text) > 0;
}

size_t LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> l(mLock);
    size_t n = 0;
    for (const auto& line : mLines) {
        if (line.find(text) != std::string::npos) n++;
    }
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> l(mLock);
    mLines.clear();
}

}  // namespace host
}  // namespace qmed
