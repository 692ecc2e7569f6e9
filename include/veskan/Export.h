// Symbol visibility of the library's public interface.
#ifndef VESKAN_EXPORT_H
#define VESKAN_EXPORT_H

// The library is built with hidden visibility; VESKAN_API marks what it exports.
#if defined(__GNUC__) || defined(__clang__)
#define VESKAN_API __attribute__((visibility("default")))
#else
#define VESKAN_API
#endif

#endif
