/**
 * @file kiv_test.h
 * @brief The test tool kivtest.exe as a library: its driver, and the registry into which test modules plug.
 *
 * All of it is used from one thread, the tool's main thread.
 *
 * @code
 *     static int test_motor(int argc, char **argv, unsigned testFlags) { ... return 1; }
 *
 *     static const kiv_test_item motor = {"motor", "turn the motor", "-n <turns>\n", test_motor, 0};
 *
 *     int main(int argc, char **argv)
 *     {
 *         kiv_test_util_register(&motor);           // kivtest.exe -m motor -n 3
 *         return kiv_test_main(argc, argv);
 *     }
 * @endcode
 */
#ifndef ZOL_KIV_TEST_H
#define ZOL_KIV_TEST_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/** Bits of testFlags. */
#define KIV_TEST_FLAG_SIMULATOR 1u /**< work without the board's hardware */
#define KIV_TEST_FLAG_FREE_PLAY 2u /**< loop until stopped */

/**
 * The entry of a test module.
 * @param argc,argv  The whole command line of the tool. getopt's global optind stands behind the last option
 *                   that the driver took, in every pass, so a module goes on parsing with a getopt_long()
 *                   table of its own.
 * @param testFlags  KIV_TEST_FLAG_... bits.
 * @return 1 passed, 0 failed; neither the driver nor the registry looks at it.
 */
typedef int (*kiv_test_handler)(int argc, char **argv, unsigned testFlags);

/** A test module. The texts must outlive the registry. */
typedef struct kiv_test_item {
    const char *name;         /**< the name for -t and -m, matched exactly */
    const char *description;  /**< one line for the list of modules */
    const char *parameters;   /**< help on the module's own options, may be "" */
    kiv_test_handler handler; /**< null: the module is listed and found, and nothing runs */
    uint32_t inAll;           /**< non-zero: the test "all" runs it, if it is one of the tool's own */
} kiv_test_item;

/** The values from the command line of the tool. The texts point into argv or at literals. */
typedef struct kiv_test_params {
    uint32_t isSimulator;      /**< -s */
    uint32_t isForceDebug;     /**< -x */
    uint32_t isFreePlay;       /**< -l */
    const char *strConfigFile; /**< -c */
    const char *strTest;       /**< -t, -m */
    int32_t repeatNum;         /**< -R: number of passes */
    uint32_t i2c_bus;          /**< -b */
    uint16_t i2c_addr;         /**< -d: 7-bit address */
    uint16_t i2c_reg;          /**< -r */
    uint8_t i2c_val;           /**< -v */
    uint16_t eventId;          /**< -e */
    const char *strCommand;    /**< -C */
    const char *strDevice;     /**< -D */
    const char *strValue;      /**< -V */
    const char *strParam;      /**< -P */
} kiv_test_params;

/** The parameters of the run; written by kiv_test_main(). */
extern KIV_API kiv_test_params g_params;

/**
 * Adds a copy of a record to the registry. Of two records with one name the later one is found first.
 * @retval KIV_OK                 Added.
 * @retval KIV_ERR_SYSTEM         No memory; the registry is unchanged.
 * @retval KIV_ERR_INVALID_PARAM  @p item is null.
 */
KIV_API int kiv_test_util_register(const kiv_test_item *item);

/** Runs the module of a name. @retval 1 There is one, and its handler, if any, has returned.
 *  @retval 0 There is none. */
KIV_API int kiv_test_util_match(const char *name, int argc, char **argv, unsigned testFlags);

/** Prints the list of modules (null or empty @p name) or the details of one to standard output. A name that
 * is not registered is reported at ERRR. @retval 0 Always. */
KIV_API int kiv_test_util_print_modules(const char *name);

/** Empties the registry. Called by zol_deinit(). */
KIV_API void kiv_test_util_deinit(void);

/** Reads a number as kiv_atoi() does. Text that is no number is reported at ERRR and gives 0; so does an
 * empty text, silently. */
KIV_API int stoi(const char *str);

/**
 * The tool itself: parses the command line, starts the library, runs the chosen test, stops the library.
 * Help ends the process with status 0. Its log lines bear the name "main".
 * @return The status of zol_deinit(), which is negative when an option was rejected or the library could not be
 *         started.
 */
KIV_API int kiv_test_main(int argc, char **argv);

/**
 * @name Test modules
 * The tool's own tests; the parameters of the I2C tests come from g_params. 1 passed, 0 failed.
 * @{
 */
KIV_API int _test_kiv_i2c_read(int is16);                                   /**< read_i2c, read_i2c16 */
KIV_API int _test_kiv_i2c_write(int is16);                                  /**< write_i2c, write_i2c16 */
KIV_API int _test_kiv_thread(int argc, char **argv, unsigned testFlags);    /**< kiv_thread */
KIV_API int _kiv_test_biostress(int argc, char **argv, unsigned testFlags); /**< biostress */
KIV_API int _zol_test_cpubench(int argc, char **argv, unsigned testFlags);  /**< cpubench */
KIV_API int _kiv_test_tokens(int argc, char **argv, unsigned testFlags);    /**< kiv_tokens */
KIV_API int test_gpio(int argc, char **argv, unsigned testFlags);           /**< gpio */
KIV_API int test_events(int argc, char **argv, unsigned testFlags);         /**< events */
/** @} */

KIV_EXTERN_C_END

#endif
