// The token test: reads, dumps and parses the tokens of a prepared token directory.

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_token.h"

namespace
{

struct block_deleter {
    void operator()(char *block) const noexcept { std::free(block); }
};

using unique_block = std::unique_ptr<char, block_deleter>;

struct document_deleter {
    void operator()(_xmlDoc *doc) const noexcept { kiv_xml_delete(doc); }
};

using unique_document = std::unique_ptr<_xmlDoc, document_deleter>;

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

int32_t read_and_dump(const char *name, uint32_t size)
{
    const unique_block block = allocate_for(size);
    KIV_ASSERT(block != nullptr);
    if (block == nullptr) {
        return KIV_ERR_NO_MEMORY;
    }
    uint32_t actual = 0;
    const int32_t status = kiv_token_getData(name, block.get(), size, &actual);
    KIV_ASSERT(status == KIV_OK);
    KIV_ASSERT(actual == size);
    KIV_LOG_PRNT("%d / %d\n", static_cast<int>(actual), static_cast<int>(size));
    if (status == KIV_OK) {
        _printBuffer(name, block.get(), size);
    }
    return status;
}

// A token that is there: it must be found, have a size, and be read whole.
int32_t check_token(const char *name)
{
    const int32_t exists = kiv_token_isExist(name);
    KIV_ASSERT(exists == KIV_OK);
    uint32_t size = 0;
    const int32_t status = kiv_token_getSize(name, &size);
    KIV_ASSERT(status == KIV_OK);
    KIV_ASSERT(size != 0);
    KIV_LOG_PRNT("tokenSize (%d)\n", static_cast<int>(size));
    return status == KIV_OK ? read_and_dump(name, size) : status;
}

void check_missing_token(const char *name)
{
    char buffer[256] = {};
    uint32_t size = 0;
    const int32_t exists = kiv_token_isExist(name);
    KIV_ASSERT(exists != KIV_OK);
    const int32_t sized = kiv_token_getSize(name, &size);
    KIV_ASSERT(sized != KIV_OK);
    const int32_t read = kiv_token_getData(name, buffer, sizeof buffer, &size);
    KIV_ASSERT(read != KIV_OK);
}

void _parseAccelToken()
{
    KIV_LOG_ERRR("KIV_USE_CJSON is not defined, can't parse json tokens\n");
}

int32_t check_accel_token()
{
    const int32_t status = check_token("ACCELCAL");
    if (status == KIV_OK) {
        _parseAccelToken();
    }
    return status;
}

struct calibration {
    char name[64];
    char version[64];
    int32_t x;
    int32_t y;
    int32_t z;
    char hello[64];
};

// Every look-up is made; once one has failed, each that follows is reported too.
bool scan_attributes(_xmlDoc *doc, calibration &values)
{
    bool failed = false;
    failed |= kiv_xml_scanAttribute(doc, "t", "name", "%63s", values.name) != KIV_OK;
    KIV_ASSERT(!failed);
    failed |= kiv_xml_scanAttribute(doc, "t", "ver", "%63s", values.version) != KIV_OK;
    KIV_ASSERT(!failed);
    failed |= kiv_xml_scanAttribute(doc, "faceup", "x", "%d", &values.x) != KIV_OK;
    KIV_ASSERT(!failed);
    failed |= kiv_xml_scanAttribute(doc, "faceup", "y", "%d", &values.y) != KIV_OK;
    KIV_ASSERT(!failed);
    failed |= kiv_xml_scanAttribute(doc, "faceup", "z", "%d", &values.z) != KIV_OK;
    KIV_ASSERT(!failed);
    return !failed;
}

void _kiv_test_xmlToken(const char *buffer, uint32_t size)
{
    const unique_document doc(kiv_xml_allocate(buffer, static_cast<int>(size)));
    KIV_ASSERT(doc != nullptr);
    if (doc == nullptr) {
        return;
    }
    calibration values = {};
    const bool has_attributes = scan_attributes(doc.get(), values);
    const bool has_hello = kiv_xml_scanElementContent(doc.get(), "hello", "%63s", values.hello) == KIV_OK;
    const bool complete = has_attributes && has_hello;
    KIV_ASSERT(complete);
    if (complete) {
        std::printf("Read ACCELCAL token name(%s) ver(%s) x(%d) y(%d) z(%d) good_job(%s)\n", values.name,
                    values.version, values.x, values.y, values.z, values.hello);
    }
}

bool check_xml_token()
{
    char buffer[1024] = {};
    uint32_t actual = 0;
    const bool read = kiv_token_getData("ACCELCAL.xml", buffer, sizeof buffer, &actual) == KIV_OK;
    KIV_ASSERT(read);
    _printBuffer("xmlToken", buffer, actual);
    if (read) {
        _kiv_test_xmlToken(buffer, actual);
    }
    return read;
}

} // namespace

int _kiv_test_tokens(int, char **, unsigned)
{
    static_cast<void>(check_token("BINTOKEN"));
    check_missing_token("BADTOKEN");
    if (check_accel_token() != KIV_OK) {
        return 0;
    }
    return check_xml_token() ? 1 : 0;
}
