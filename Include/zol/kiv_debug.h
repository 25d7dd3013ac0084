/**
 * @file kiv_debug.h
 * @brief Logging: levels, colours, and assertions that report and let the program go on.
 *
 * Every line is written as
 *
 *     T   5.42  [PRNT][   KIV   ]                    kiv_get_version  231 : Version : 0.1.0
 *
 * seconds and milliseconds since the wall-clock second of the first message, the coloured level tag, the name
 * of the calling function and its source line, then the message text. A text ends its own line with "\n".
 *
 * | level | tag  | colour | meant for                                     | shown from g_debugLevel |
 * |-------|------|--------|-----------------------------------------------|-------------------------|
 * | 1     | ERRR | red    | errors and failed assertions                  | 1, and always on stderr |
 * | 2     | PRNT | green  | normal progress and results                   | 2                       |
 * | 3     | INF1 | green  | detail: entry and exit of calls, values found | 3                       |
 * | 4     | INF2 | green  | fine detail: each look-up, each buffer        | 4                       |
 *
 * Any thread may log at any time, holding any lock, and so may a forked child; one message is never torn by
 * another. A thread that is cancelled while it logs finishes its message first. Logging allocates nothing and
 * preserves errno. Failures of the output streams are ignored.
 *
 * @code
 *     KIV_LOG_PRNT("sensor %d answers with 0x%02x\n", index, value);
 * @endcode
 */
#ifndef ZOL_KIV_DEBUG_H
#define ZOL_KIV_DEBUG_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/** The highest level that reaches standard output. 1 until kiv_debug_init() reads "debugLevel" from the
 *  configuration; the comparison is unsigned, so a configured -1 shows everything. Applications may assign it
 *  at any time; where other threads log meanwhile, with an atomic store. */
extern KIV_API uint32_t g_debugLevel;

/** A value of g_debugLevel that shows every level. */
#define KIV_DEBUG_LEVEL_ALL 10

/** The prefixes of the message formats. The two conversions take the function name and the line. */
#define KIV_LOG_PREFIX_ERRR "\033[31m[ERRR][   KIV   ]%35s %4d : \033[0m" /**< level 1 */
#define KIV_LOG_PREFIX_PRNT "\033[32m[PRNT][   KIV   ]%35s %4d : \033[0m" /**< level 2 */
#define KIV_LOG_PREFIX_INF1 "\033[32m[INF1][   KIV   ]%35s %4d : \033[0m" /**< level 3 */
#define KIV_LOG_PREFIX_INF2 "\033[32m[INF2][   KIV   ]%35s %4d : \033[0m" /**< level 4 */

/**
 * Writes one message: to standard output if @p level is at most g_debugLevel, and to standard error if it is
 * 1 or less. Use the KIV_LOG_... entries instead of calling it.
 * @param level   1 (ERRR) to 4 (INF2).
 * @param format  A level's prefix followed by the message text. The arguments are the name of the calling
 *                function, the source line (int), then those of the text.
 */
KIV_API void _kiv_block_print(int level, const char *format, ...) KIV_PRINTF_LIKE(2, 3);

/**
 * @name Log entries
 * KIV_LOG_xxxx(text, ...): logs a printf-style text with up to 15 arguments at one level. The text must be a
 * string literal. Below ERRR a disabled entry costs one load, one comparison and one branch, and its
 * arguments are not evaluated.
 * @{
 */
#define KIV_LOG_ERRR(...) KIV_LOG_CALL_(1, KIV_LOG_PREFIX_ERRR, __VA_ARGS__)       /**< errors */
#define KIV_LOG_PRNT(...) KIV_LOG_FROM_LEVEL_(2, KIV_LOG_PREFIX_PRNT, __VA_ARGS__) /**< progress */
#define KIV_LOG_INF1(...) KIV_LOG_FROM_LEVEL_(3, KIV_LOG_PREFIX_INF1, __VA_ARGS__) /**< detail */
#define KIV_LOG_INF2(...) KIV_LOG_FROM_LEVEL_(4, KIV_LOG_PREFIX_INF2, __VA_ARGS__) /**< fine detail */
/** @} */

/** The source that a failed KIV_ASSERT names. The build of a module may define something shorter. */
#ifndef KIV_SOURCE_PATH
#    define KIV_SOURCE_PATH __FILE__
#endif

/** Logs "ASSERT FAILED [source][line]" at ERRR when @p condition is false. Never stops the program: the code
 *  that follows decides the outcome. */
#define KIV_ASSERT(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            KIV_LOG_ERRR("ASSERT FAILED [%s][%d]\n", KIV_SOURCE_PATH, __LINE__);                             \
        }                                                                                                    \
    } while (0)

/** Reads the level from the configuration key "debugLevel" into g_debugLevel. Called by zol_init().
 *  @retval KIV_OK          The level is set.
 *  @retval KIV_ERR_SYSTEM  The key is missing or no number; g_debugLevel keeps its value. */
KIV_API int32_t kiv_debug_init(void);

/** Does nothing: the level keeps its value. Called by zol_deinit(). @retval KIV_OK Always. */
KIV_API int32_t kiv_debug_deinit(void);

/*
 * These macros put function and line between a text and its arguments. The text is the first of the variable
 * arguments, so that a text without arguments is strict ISO C11. Counting the arguments tells the two cases
 * apart.
 */
#define KIV_LOG_FROM_LEVEL_(level, prefix, ...)                                                              \
    do {                                                                                                     \
        if (__atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED) >= (level)) {                                   \
            KIV_LOG_CALL_(level, prefix, __VA_ARGS__);                                                       \
        }                                                                                                    \
    } while (0)
#define KIV_LOG_CALL_(level, prefix, ...)                                                                    \
    _kiv_block_print(level, prefix KIV_LOG_TEXT_(__VA_ARGS__, 0), __func__,                                  \
                     __LINE__ KIV_LOG_ARGUMENTS_(KIV_LOG_KIND_(__VA_ARGS__), __VA_ARGS__))

#define KIV_LOG_TEXT_(text, ...)         text
#define KIV_LOG_ARGUMENTS_(kind, ...)    KIV_LOG_ARGUMENTS_OF_(kind, __VA_ARGS__)
#define KIV_LOG_ARGUMENTS_OF_(kind, ...) KIV_LOG_ARGUMENTS_##kind(__VA_ARGS__)
#define KIV_LOG_ARGUMENTS_NONE_(text)
#define KIV_LOG_ARGUMENTS_SOME_(text, ...) , __VA_ARGS__
#define KIV_LOG_KIND_(...)                                                                                   \
    KIV_LOG_17TH_(__VA_ARGS__, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_, SOME_,  \
                  SOME_, SOME_, SOME_, SOME_, NONE_, 0)
#define KIV_LOG_17TH_(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, kind, ...) kind

KIV_EXTERN_C_END

#endif
