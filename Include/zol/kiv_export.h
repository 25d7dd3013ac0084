/**
 * @file kiv_export.h
 * @brief Marks for the declarations of libzol. Every header includes it; applications do not use it.
 */
#ifndef ZOL_KIV_EXPORT_H
#define ZOL_KIV_EXPORT_H

/** Marks what the shared library exports. Everything else is hidden. */
#define KIV_API __attribute__((visibility("default")))

/** Lets the compiler check a printf-style format against its arguments (positions counted from 1). */
#define KIV_PRINTF_LIKE(formatAt, argumentsAt) __attribute__((format(printf, formatAt, argumentsAt)))

/** The same for scanf-style formats. */
#define KIV_SCANF_LIKE(formatAt, argumentsAt) __attribute__((format(scanf, formatAt, argumentsAt)))

#ifdef __cplusplus
#    define KIV_EXTERN_C_BEGIN extern "C" {
#    define KIV_EXTERN_C_END   }
#else
#    define KIV_EXTERN_C_BEGIN
#    define KIV_EXTERN_C_END
#endif

#endif
