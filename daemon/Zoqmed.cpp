#define LOG_TAG "Qmed-Zoqmed"

#include "daemon/Zoqmed.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "daemon/QmedBinderService.h"
#include "daemon/QmedGlobals.h"
#include "daemon/Vigil.h"
#include "msghub/ChannelManager.h"

using android::IPCThreadState;
using android::ProcessState;
using android::sp;

char gDebugPropValue[PROPERTY_VALUE_MAX];

void readDebugProperty() {
    int len = property_get("persist.sys.qmed.debug", gDebugPropValue, "false");
    bDebug = len >= 1 && memcmp(gDebugPropValue, "true", 5) == 0;
}

int parse_args(int argc, char** argv) {
    int result = 0;
    int opt;
    while ((opt = getopt(argc, argv, "t:v")) != -1) {
        switch (opt) {
            case 't':
                vp_type = atoi(optarg);
                if (bDebug) ALOGD("vp_type=%d", vp_type);
                break;
            case 'v':
                printf("version %s\n", QMED_VERSION);
                fflush(stdout);
                result = -1;
                break;
            default:
                break;
        }
    }
    return result;
}

int zoqmed_main(int argc, char** argv) {
    readDebugProperty();
    ALOGI("Zoqmed Start, bDebug: %d, version:%s", bDebug, QMED_VERSION);

    if (parse_args(argc, argv) == -1) {
        if (bDebug) ALOGD("zoqmed version");
        return 0;
    }

    // Init must see a living process even when the daemon is switched off.
    if (property_get_bool("ro.config.qm_disable_qm", false)) {
        ALOGI("qm is disabled, do nothing");
        IPCThreadState::self()->joinThreadPool(true);
        return 0;
    }

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGPIPE, &action, nullptr);

    ChannelManager::getInstance()->start();
    Vigil::getInstance()->start();

    sp<ProcessState> proc(ProcessState::self());
    QmedBinderService::publish(false, 8);
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool(true);
    proc.clear();
    return 0;
}
