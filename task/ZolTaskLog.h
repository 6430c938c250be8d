#ifndef ZOL_TASK_ZOLTASKLOG_H
#define ZOL_TASK_ZOLTASKLOG_H

/// Lines of the run log with values in them, composed on the stack. A caller on the path of the messages asks
/// CZolRunLog::isReady() first, so that it does not even pass the values while the log is off or dropping lines; the
/// level of the line is tested here.
void zolFormatInfo(const char *pcScope, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
void zolFormatWarning(const char *pcScope, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
void zolFormatError(const char *pcScope, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
void zolFormatFatal(const char *pcScope, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));

#endif
