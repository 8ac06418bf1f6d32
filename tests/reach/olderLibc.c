// What a program of Debian 11 finds in its own C library and not in glibc 2.17 or in musl. It
// stands in for that, so that a PKCS#11 module of Debian 11 runs on these.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef __GLIBC__
void* reallocarray(void* block, size_t count, size_t size) {
  size_t bytes;
  return __builtin_mul_overflow(count, size, &bytes) ? NULL : realloc(block, bytes);
}
#else
void* __memcpy_chk(void* to, const void* from, size_t size, size_t room) {
  return size > room ? (abort(), NULL) : memcpy(to, from, size);
}
char* __strcat_chk(char* to, const char* from, size_t room) {
  return strlen(to) + strlen(from) >= room ? (abort(), NULL) : strcat(to, from);
}
int __vasprintf_chk(char** to, int flag, const char* format, va_list arguments) {
  return vasprintf(to, format, arguments);
}
int __vfprintf_chk(FILE* to, int flag, const char* format, va_list arguments) {
  return vfprintf(to, format, arguments);
}
int __vsnprintf_chk(char* to, size_t size, int flag, size_t room, const char* format,
                    va_list arguments) {
  return vsnprintf(to, size, format, arguments);
}
#define FORMATTED(call)        \
  va_list arguments;           \
  va_start(arguments, format); \
  const int written = call;    \
  va_end(arguments);           \
  return written
int __asprintf_chk(char** to, int flag, const char* format, ...) {
  FORMATTED(vasprintf(to, format, arguments));
}
int __fprintf_chk(FILE* to, int flag, const char* format, ...) {
  FORMATTED(vfprintf(to, format, arguments));
}
int __snprintf_chk(char* to, size_t size, int flag, size_t room, const char* format, ...) {
  FORMATTED(vsnprintf(to, size, format, arguments));
}
int __sprintf_chk(char* to, int flag, size_t room, const char* format, ...) {
  FORMATTED(vsnprintf(to, room, format, arguments));
}
int __register_atfork(void) { return 0; }  // nobody forks
#endif
