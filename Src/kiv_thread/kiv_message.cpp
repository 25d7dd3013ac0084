#include <cstdlib>

#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_thread.h"

static_assert(sizeof(void *) != 4 || sizeof(kiv_message) == 36, "the record is nine words on the target");

namespace
{

constexpr uint32_t header_size = sizeof(kiv_message);

}

kiv_message *kiv_message_new(int32_t msgId, uint32_t sizeBytes)
{
    if (sizeBytes != 0 && sizeBytes < header_size) {
        KIV_LOG_ERRR("sizeBytes has to be at least sizeof(struct kiv_message) = %d\n",
                     static_cast<int>(header_size));
    }
    const uint32_t size = sizeBytes < header_size ? header_size : sizeBytes;
    auto *const message = static_cast<kiv_message *>(std::malloc(size));
    if (!KIV_HOLDS(message != nullptr)) {
        KIV_LOG_ERRR("no memory for message (%d) of %u bytes\n", msgId, size);
        return nullptr;
    }
    *message = {};
    message->msgId = msgId;
    message->sizeBytes = size;
    return message;
}

void kiv_message_free(kiv_message *msg)
{
    if (msg != nullptr) {
        *msg = {};
        std::free(msg);
    }
}
