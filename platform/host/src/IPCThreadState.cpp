#define LOG_TAG "HostBinder"

#include <binder/IPCThreadState.h>
#include <unistd.h>

#include "Transport.h"

namespace android {

IPCThreadState* IPCThreadState::self() {
    static thread_local IPCThreadState sState;
    return &sState;
}

IPCThreadState* IPCThreadState::selfOrNull() {
    return self();
}

IPCThreadState::IPCThreadState()
    : mCallingPid(getpid()),
      mCallingUid(getuid()),
      mStrictModePolicy(0),
      mLastTransactionBinderFlags(0),
      mWorkSource(kUnsetWorkSource),
      mPropagateWorkSource(false) {}

IPCThreadState::~IPCThreadState() {}

sp<ProcessState> IPCThreadState::process() {
    return ProcessState::self();
}

status_t IPCThreadState::clearLastError() {
    return NO_ERROR;
}

pid_t IPCThreadState::getCallingPid() const {
    return mCallingPid;
}

const char* IPCThreadState::getCallingSid() const {
    return nullptr;
}

uid_t IPCThreadState::getCallingUid() const {
    return mCallingUid;
}

void IPCThreadState::setStrictModePolicy(int32_t policy) {
    mStrictModePolicy = policy;
}

int32_t IPCThreadState::getStrictModePolicy() const {
    return mStrictModePolicy;
}

int64_t IPCThreadState::setCallingWorkSourceUid(uid_t uid) {
    int64_t token = setCallingWorkSourceUidWithoutPropagation(uid);
    mPropagateWorkSource = true;
    return token;
}

int64_t IPCThreadState::setCallingWorkSourceUidWithoutPropagation(uid_t uid) {
    const int64_t propagatedBit = int64_t(mPropagateWorkSource) << 32;
    const int64_t token = propagatedBit | uint32_t(mWorkSource);
    mWorkSource = int32_t(uid);
    return token;
}

uid_t IPCThreadState::getCallingWorkSourceUid() const {
    return uid_t(mWorkSource);
}

int64_t IPCThreadState::clearCallingWorkSource() {
    return setCallingWorkSourceUid(uid_t(kUnsetWorkSource));
}

void IPCThreadState::restoreCallingWorkSource(int64_t token) {
    mWorkSource = int32_t(token & 0xffffffff);
    mPropagateWorkSource = ((token >> 32) & 1) != 0;
}

void IPCThreadState::clearPropagateWorkSource() {
    mPropagateWorkSource = false;
}

bool IPCThreadState::shouldPropagateWorkSource() const {
    return mPropagateWorkSource;
}

void IPCThreadState::setLastTransactionBinderFlags(int32_t flags) {
    mLastTransactionBinderFlags = flags;
}

int32_t IPCThreadState::getLastTransactionBinderFlags() const {
    return mLastTransactionBinderFlags;
}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token = (int64_t(mCallingUid) << 32) | uint32_t(mCallingPid);
    mCallingUid = getuid();
    mCallingPid = getpid();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = uid_t(token >> 32);
    mCallingPid = pid_t(token & 0xffffffff);
}

status_t IPCThreadState::setupPolling(int* /*fd*/) {
    return INVALID_OPERATION;
}

status_t IPCThreadState::handlePolledCommands() {
    return INVALID_OPERATION;
}

void IPCThreadState::flushCommands() {}

bool IPCThreadState::flushIfNeeded() {
    return false;
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) {
    hostbinder::Transport::get().joinPool();
}

void IPCThreadState::stopProcess(bool /*immediate*/) {}

void IPCThreadState::shutdown() {}

}  // namespace android
