// The token test: reads, dumps and parses the tokens of a prepared token directory.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owner.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_token.h"

namespace
{

using kiv::call_site;
using unique_block = kiv::owner<char, std::free>;
using unique_document = kiv::owner<_xmlDoc, kiv_xml_delete>;

// The range takes in 0x7f and, unlike isprint(), does not follow the locale.
void print_as_text(const unsigned char *bytes, unsigned len)
{
    for (unsigned i = 0; i < len; ++i) {
        std::putchar(bytes[i] >= 0x20 && bytes[i] <= 0x7f ? bytes[i] : '.');
    }
}

void print_as_hex(const unsigned char *bytes, unsigned len)
{
    constexpr unsigned bytes_per_line = 16;
    for (unsigned i = 0; i < len; ++i) {
        if (i % bytes_per_line == 0) {
            std::printf("\n   ");
        }
        std::printf("%02x ", bytes[i]);
    }
}

// A token may be text or binary, so it is shown as both.
void _printBuffer(const char *name, const void *data, unsigned len)
{
    const auto *const bytes = static_cast<const unsigned char *>(data);
    std::printf(" %s {", name);
    print_as_text(bytes, len);
    std::puts("\n}");
    std::printf(" %s.bin {", name);
    print_as_hex(bytes, len);
    std::puts("\n}");
}

// Room for the token and some bytes more, zeroed behind it, so that what is read is terminated as text too.
unique_block allocate_for(uint32_t size)
{
    unique_block block(static_cast<char *>(std::malloc(static_cast<size_t>(size) + 10)));
    if (block != nullptr) {
        std::memset(block.get(), 0, static_cast<size_t>(size) + 2);
    }
    return block;
}

// A check that fails is reported, and the test goes on.
bool check(bool passed, const char *name, const char *problem, call_site site)
{
    if (!KIV_HOLDS_AT(site, passed)) {
        KIV_LOG_AT(site, ERRR, "token %s of directory %s %s\n", name, g_tokensPath, problem);
    }
    return passed;
}

int32_t read_and_dump(const char *name, uint32_t size, call_site site)
{
    const unique_block block = allocate_for(size);
    if (!check(block != nullptr, name, "does not fit the memory", site)) {
        return KIV_ERR_NO_MEMORY;
    }
    uint32_t actual = 0;
    const int32_t status = kiv_token_getData(name, block.get(), size, &actual);
    check(status == KIV_OK, name, "can't be read", site);
    check(actual == size, name, "is read in part", site);
    KIV_LOG_AT(site, PRNT, "%d / %d\n", static_cast<int>(actual), static_cast<int>(size));
    if (status == KIV_OK) {
        _printBuffer(name, block.get(), size);
    }
    return status;
}

// A token that must exist, have a size, and be read whole.
int32_t check_token(const char *name, call_site site)
{
    check(kiv_token_isExist(name) == KIV_OK, name, "does not exist", site);
    uint32_t size = 0;
    const int32_t status = kiv_token_getSize(name, &size);
    check(status == KIV_OK, name, "can't be measured", site);
    check(size != 0, name, "has no size", site);
    KIV_LOG_AT(site, PRNT, "tokenSize (%d)\n", static_cast<int>(size));
    return status == KIV_OK ? read_and_dump(name, size, site) : status;
}

// The buffer is large enough for any token: a failure is due to the missing file alone.
void check_missing_token(const char *name, call_site site)
{
    char buffer[256] = {};
    uint32_t size = 0;
    check(kiv_token_isExist(name) != KIV_OK, name, "should not exist", site);
    check(kiv_token_getSize(name, &size) != KIV_OK, name, "should have no size", site);
    check(kiv_token_getData(name, buffer, sizeof buffer, &size) != KIV_OK, name, "should have no data", site);
}

// JSON needs a library that the build does not ask for. The line tells a reader of the log why nothing is parsed.
void _parseAccelToken()
{
    KIV_LOG_ERRR("KIV_USE_CJSON is not defined, can't parse json tokens\n");
}

int32_t check_accel_token(call_site site)
{
    const int32_t status = check_token("ACCELCAL", site);
    if (status == KIV_OK) {
        _parseAccelToken();
    }
    return status;
}

// The texts take 63 characters and an end, which the formats of the scans repeat.
struct calibration {
    char name[64];
    char version[64];
    int32_t x;
    int32_t y;
    int32_t z;
    char hello[64];
};

// Every look-up is made; once one has failed, each that follows is reported too.
bool scan_attributes(_xmlDoc *doc, calibration &values, call_site site)
{
    bool passed = true;
    const auto note = [&passed, site](int32_t status, const char *attribute) {
        passed = passed && status == KIV_OK;
        if (!KIV_HOLDS_AT(site, passed)) {
            KIV_LOG_AT(site, ERRR, "the element of attribute %s, or an earlier one, is missing\n", attribute);
        }
    };
    note(kiv_xml_scanAttribute(doc, "t", "name", "%63s", values.name), "t.name");
    note(kiv_xml_scanAttribute(doc, "t", "ver", "%63s", values.version), "t.ver");
    note(kiv_xml_scanAttribute(doc, "faceup", "x", "%d", &values.x), "faceup.x");
    note(kiv_xml_scanAttribute(doc, "faceup", "y", "%d", &values.y), "faceup.y");
    note(kiv_xml_scanAttribute(doc, "faceup", "z", "%d", &values.z), "faceup.z");
    return passed;
}

void _kiv_test_xmlToken(const char *buffer, uint32_t size)
{
    const unique_document doc(kiv_xml_allocate(buffer, static_cast<int>(size)));
    if (!KIV_HOLDS(doc != nullptr)) {
        KIV_LOG_ERRR("token ACCELCAL.xml is no XML document\n");
        return;
    }
    calibration values = {};
    const bool has_attributes = scan_attributes(doc.get(), values, call_site::here());
    const bool has_hello = kiv_xml_scanElementContent(doc.get(), "hello", "%63s", values.hello) == KIV_OK;
    if (!KIV_HOLDS(has_attributes && has_hello)) {
        KIV_LOG_ERRR("token ACCELCAL.xml lacks an element: attributes %s, hello %s\n",
                     has_attributes ? "found" : "missing", has_hello ? "found" : "missing");
        return;
    }
    std::printf("Read ACCELCAL token name(%s) ver(%s) x(%d) y(%d) z(%d) good_job(%s)\n", values.name,
                values.version, values.x, values.y, values.z, values.hello);
}

bool check_xml_token(call_site site)
{
    char buffer[1024] = {};
    uint32_t actual = 0;
    const int32_t status = kiv_token_getData("ACCELCAL.xml", buffer, sizeof buffer, &actual);
    const bool read = check(status == KIV_OK, "ACCELCAL.xml", "can't be read", site);
    _printBuffer("xmlToken", buffer, actual); // empty after a failure
    if (read) {
        _kiv_test_xmlToken(buffer, actual);
    }
    return read;
}

} // namespace

int _kiv_test_tokens(int, char **, unsigned)
{
    // Neither of the first two decides the result; their failures are in the log.
    static_cast<void>(check_token("BINTOKEN", call_site::here()));
    check_missing_token("BADTOKEN", call_site::here());
    if (check_accel_token(call_site::here()) != KIV_OK) {
        return 0;
    }
    return check_xml_token(call_site::here()) ? 1 : 0;
}
