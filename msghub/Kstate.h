#pragma once

#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

class IQmedBinderListenerService;

// Command record sent to the kernel module, byte-packed.
struct __attribute__((packed)) QM_CMD {
    uint8_t cmd;
    uint8_t arg;
    char data[64];
};
static_assert(sizeof(QM_CMD) == 66, "QM_CMD is 66 bytes on the wire");
static_assert(__builtin_offsetof(QM_CMD, arg) == 1, "arg at 1");
static_assert(__builtin_offsetof(QM_CMD, data) == 2, "data at 2");

enum {
    QM_CMD_CHECK_WAITING_BINDER = 6,
};

// Bridge between the kernel module and the rest of the daemon.
// Inbound (processClientData, putMessageToBinder) runs on the hub thread;
// outbound sends run on binder threads and the freezer's callers, lock-free,
// each with its own buffer.
class Kstate : public android::RefBase {
  public:
    // Largest payload the hub can receive in one message.
    static constexpr unsigned kMaxPayload = 2048 - 16;
    static constexpr unsigned kWakelockNameMax = 64;

    static android::sp<Kstate> getInstance();

    int binderListener(android::sp<IQmedBinderListenerService> service);
    // buf holds len readable bytes: the whole TLV message.
    int processClientData(const char* buf, unsigned len);
    int putMessageToBinder(const char* data, unsigned len);
    int putMessageToClient(const char* data, unsigned len);
    int putMessageToKQm(QM_CMD* cmd, unsigned len);
    int getSync(int);
    int setMask(int mask, int callerPid);
    int setKWakelock(int cmd, const char* name, int arg, unsigned len);
    int checkWaitingBinder(int pid);

    Kstate();
    ~Kstate() override;

  private:
    android::sp<IQmedBinderListenerService> listenerService();

    android::Mutex mLock;  // guards the hand-over of mListenerService to the hub thread
    android::sp<IQmedBinderListenerService> mListenerService GUARDED_BY(mLock);
};
