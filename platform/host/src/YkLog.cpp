#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>
#include <yklog/yklog.h>

extern "C" int __yklog_write_kernel_printf(int /*level*/, int /*module*/, const char* tag,
                                           const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    const int len = vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    if (len < 0) return len;
    __android_log_write(ANDROID_LOG_INFO, tag ? tag : "yklog", buf);
    return len;
}
