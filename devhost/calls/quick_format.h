/* _vsnprintf and _snprintf of the C runtime, for runs of many boots. Any thread. */
#ifndef DEVHOST_QUICK_FORMAT_H
#define DEVHOST_QUICK_FORMAT_H

#include <cstdarg>
#include <cstddef>

int quick_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments);
int quick_snprintf(char *buffer, size_t size, const char *format, ...);

#endif
