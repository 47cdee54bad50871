#define LOG_TAG "Qmed-Kstate"

#include "msghub/Kstate.h"

#include <log/log.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <stdlib.h>

#include <vector>

#include "daemon/QmedGlobals.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/ChannelManager.h"
#include "msghub/TlvEncDec.h"

using android::Mutex;
using android::sp;

sp<Kstate> Kstate::getInstance() {
    // A function-local static: the hub thread and start-up may both make the
    // first call, and the language makes that initialisation race-free.
    static sp<Kstate> sInstance = new Kstate();
    return sInstance;
}

Kstate::Kstate() {}

Kstate::~Kstate() {}

int Kstate::binderListener(sp<IQmedBinderListenerService> service) {
    if (service == nullptr) {
        return -1;
    }
    Mutex::Autolock lock(mLock);
    mListenerService = service;
    return 0;
}

sp<IQmedBinderListenerService> Kstate::listenerService() {
    Mutex::Autolock lock(mLock);
    return mListenerService;
}

int Kstate::processClientData(const char* buf, unsigned len) {
    if (buf == nullptr) {
        return -1;
    }
    TLV_HEADER header = {0, 0, 0, 0};
    const unsigned headerBytes = len < sizeof(header) ? len : sizeof(header);
    if (headerBytes > 0) {
        memcpy_s(&header, sizeof(header), buf, headerBytes);
    }
    if (header.tag != TLV_TAG_KSTATE) {
        return 0;
    }
    // The payload length is the header's. It can claim more than arrived (never
    // more than the hub's receive buffer): what is missing reads as zero, as it
    // would from the hub's cleared buffer.
    if (header.len < 0 || static_cast<unsigned>(header.len) > kMaxPayload) {
        ALOGE("Kernel state message with bad length %d dropped", header.len);
        return 0;
    }
    const unsigned claimed = static_cast<unsigned>(header.len);
    const unsigned available = len > sizeof(header) ? len - sizeof(header) : 0;
    const unsigned copied = claimed < available ? claimed : available;
    if (copied < claimed) {
        ALOGE("Kernel state message shorter than its header says (%u of %u bytes)", copied,
              claimed);
    }
    // The registry reads exactly the claimed length: a whole payload is passed where it lies,
    // a short one in a zero-filled copy, the missing bytes reading as zero.
    if (copied == claimed && claimed > 0) {
        putMessageToBinder(buf + sizeof(header), claimed);
        return 0;
    }
    std::vector<char> payload(claimed, 0);
    if (copied > 0) {
        memcpy_s(payload.data(), payload.size(), buf + sizeof(header), copied);
    }
    putMessageToBinder(payload.data(), claimed);
    return 0;
}

int Kstate::putMessageToBinder(const char* data, unsigned len) {
    sp<IQmedBinderListenerService> service = listenerService();
    if (service == nullptr) {
        ALOGE("Error : Binder service is null !!");
        return -1;
    }
    Message msg;
    msg.arg1 = reinterpret_cast<intptr_t>(data);
    msg.arg2 = static_cast<intptr_t>(len);
    service->handleMessage(TYPE_LISTENER_onKstateCallback, msg);
    if (bDebug) ALOGD("putMessageToBinder len=%d", len);
    return 0;
}

// Sends one TLV message to the kernel module; the payload copy of the mask
// message is checked, that of the QM command is not.
static int sendToKernel(int tag, int src, const void* data, unsigned len, bool checkCopy) {
    char* msg = static_cast<char*>(calloc(1, len + sizeof(TLV_HEADER)));
    if (msg == nullptr) {
        ALOGE("msg is null");
        return -1;
    }
    TLV_HEADER header = {tag, src, TLV_ID_KERNEL, static_cast<int32_t>(len)};
    memcpy_s(msg, sizeof(header), &header, sizeof(header));
    errno_t copied = EOK;
    if (len > 0) {
        copied = memcpy_s(msg + sizeof(header), len, data, len);
    }
    if (checkCopy && copied != EOK) {
        ALOGE("Failed to copy msg ");
        free(msg);
        return -1;
    }
    Channel* channel = ChannelManager::getInstance()->getChannelById(TLV_ID_KERNEL);
    if (channel == nullptr) {
        ALOGE("Failed to get channel by id, ignore forwarding");
        free(msg);
        return -1;
    }
    int ret = channel->putMessage(msg, len + sizeof(header));
    free(msg);
    if (ret < 0) {
        ALOGE("Failed to forward message when sending");
        return -1;
    }
    return ret;
}

int Kstate::putMessageToClient(const char* data, unsigned len) {
    if (bDebug) ALOGD("putMessageToClient begin");
    if (data == nullptr && len > 0) {
        return -1;
    }
    return sendToKernel(TLV_TAG_KSTATE, TLV_ID_KSTATE, data, len, true);
}

int Kstate::putMessageToKQm(QM_CMD* cmd, unsigned len) {
    if (bDebug) ALOGD("putMessageToKQm begin");
    // Never read past the record, whatever length the caller names.
    if (cmd == nullptr || len > sizeof(QM_CMD)) {
        return -1;
    }
    // The module expects src 4 here, unlike the mask message.
    return sendToKernel(TLV_TAG_QM_CMD, TLV_ID_KERNEL, cmd, len, false);
}

int Kstate::getSync(int) {
    return -1;
}

int Kstate::setMask(int mask, int /*callerPid*/) {
    if (bDebug) ALOGD("Kstate::setMask mask %d", mask);
    char buffer[1024];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    if (memcpy_s(buffer, sizeof(buffer), &mask, sizeof(mask)) != EOK) {
        return -1;
    }
    return putMessageToClient(buffer, sizeof(mask));
}

int Kstate::setKWakelock(int cmd, const char* name, int arg, unsigned len) {
    if (bDebug) ALOGD("Kstate::setKLockTimeout %d, %s, %d", cmd, name != nullptr ? name : "", arg);
    QM_CMD record;
    memset_s(&record, sizeof(record), 0, sizeof(record));
    record.cmd = static_cast<uint8_t>(cmd);
    record.arg = static_cast<uint8_t>(arg);
    if (len > 0 &&
        (name == nullptr || memcpy_s(record.data, sizeof(record.data), name, len) != EOK)) {
        return -1;
    }
    return putMessageToKQm(&record, len + 2);
}

int Kstate::checkWaitingBinder(int pid) {
    if (bDebug) ALOGD("Kstate::checkWaitingBinder %d", pid);
    QM_CMD record;
    memset_s(&record, sizeof(record), 0, sizeof(record));
    record.cmd = QM_CMD_CHECK_WAITING_BINDER;
    record.arg = static_cast<uint8_t>(pid);
    snprintf_s(record.data, sizeof(record.data), "%d", pid);
    return putMessageToKQm(&record, sizeof(record));
}
