// The token store: files of the token directory, opened anew for every request.

#include "zol/kiv_token.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <limits>

#include "common/owner.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_services.h"
#include "zol/kiv_status.h"

char g_tokensPath[64];

namespace
{

using unique_file = kiv::owner<FILE, std::fclose>;

// A directory opens but holds no bytes; a FIFO would block the caller until somebody writes.
bool holds_bytes(int fd) noexcept
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && !S_ISDIR(status.st_mode) && !S_ISFIFO(status.st_mode);
}

// The open must not block either, in case a FIFO takes the place of a file before it is looked at.
unique_file open_file(const char *path)
{
    kiv::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.is_open() || !holds_bytes(fd.get())) {
        return nullptr;
    }
    unique_file file(fdopen(fd.get(), "r"));
    if (file != nullptr) {
        static_cast<void>(fd.release()); // the stream closes it
    }
    return file;
}

unique_file _kiv_tokens_openFile(const char *name)
{
    char path[64];
    const bool fits =
        name != nullptr && kiv_snprintf(path, sizeof path, "%s/%s", g_tokensPath, name) == KIV_OK;
    if (!KIV_HOLDS(fits)) {
        KIV_LOG_ERRR("no token %s in %s: its path has at most 63 characters\n", kiv::shown(name),
                     g_tokensPath);
        return nullptr;
    }
    unique_file file = open_file(path);
    KIV_LOG_INF2("open file: %s %p\n", path, static_cast<void *>(file.get()));
    return file;
}

} // namespace

int32_t kiv_token_init(void)
{
    const int32_t found =
        kiv_config_get_param("general", "", "systemTokensPath", g_tokensPath, sizeof g_tokensPath);
    if (!KIV_HOLDS(found == 1)) {
        KIV_LOG_ERRR("general.systemTokensPath is missing\n");
        return KIV_ERR_SYSTEM;
    }
    KIV_LOG_PRNT("systemTokensPath (%s)\n", g_tokensPath);
    return KIV_OK;
}

void kiv_token_deinit(void)
{
    g_tokensPath[0] = '\0';
}

int32_t kiv_token_isExist(const char *name)
{
    KIV_LOG_PRNT("isExist(%s)\n", kiv::shown(name));
    return _kiv_tokens_openFile(name) != nullptr ? KIV_OK : KIV_ERR_OPEN;
}

int32_t kiv_token_getSize(const char *name, uint32_t *size)
{
    KIV_LOG_PRNT("getSize(%s)\n", kiv::shown(name));
    const unique_file file = _kiv_tokens_openFile(name);
    if (file == nullptr) {
        return KIV_ERR_OPEN;
    }
    const long length = std::fseek(file.get(), 0, SEEK_END) == 0 ? std::ftell(file.get()) : -1;
    if (length < 0 || static_cast<unsigned long>(length) > std::numeric_limits<uint32_t>::max()) {
        KIV_LOG_ERRR("can't tell the size of token %s: length %ld, errno %d\n", name, length, errno);
        return KIV_ERR_SYSTEM;
    }
    if (size != nullptr) {
        *size = static_cast<uint32_t>(length);
    }
    return KIV_OK;
}

int32_t kiv_token_getData(const char *name, void *buf, size_t size, uint32_t *readBytes)
{
    KIV_LOG_PRNT("getData(%s)\n", kiv::shown(name));
    if (!KIV_HOLDS(buf != nullptr || size == 0)) {
        KIV_LOG_ERRR("no buffer for the %zu bytes of token %s\n", size, kiv::shown(name));
        return KIV_ERR_INVALID_PARAM;
    }
    const unique_file file = _kiv_tokens_openFile(name);
    if (file == nullptr) {
        return KIV_ERR_OPEN;
    }
    const size_t length = size != 0 ? std::fread(buf, 1, size, file.get()) : 0;
    if (std::ferror(file.get()) != 0) {
        KIV_LOG_ERRR("can't read token %s: errno %d\n", name, errno);
        return KIV_ERR_SYSTEM;
    }
    if (readBytes != nullptr) {
        *readBytes = static_cast<uint32_t>(length);
    }
    return KIV_OK;
}
