#ifndef NK_SUPPORT_EXPORT_H
#define NK_SUPPORT_EXPORT_H

// Symbols of libnkSupport are hidden by default; the classes and functions of the
// public interface carry this mark.
#if defined(_WIN32)
#define NKS_API
#else
#define NKS_API __attribute__((visibility("default")))
#endif

#endif
