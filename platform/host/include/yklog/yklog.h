// Host stand-in for the vendor kernel log writer: the record is written as one info line of
// the Android log under the given tag.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int __yklog_write_kernel_printf(int level, int module, const char* tag, const char* fmt, ...)
        __attribute__((__format__(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
