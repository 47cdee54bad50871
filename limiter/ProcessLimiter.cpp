#define LOG_TAG "Qmed-PL"

#include "limiter/ProcessLimiter.h"

#include <errno.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>
#include <yklog/yklog.h>

#include <thread>

#include "daemon/QmedGlobals.h"
#include "listener/IQmedBinderListenerService.h"
#include "proc/ProcDir.h"
#include "proc/ProcStat.h"

using android::Mutex;
using android::sp;

namespace {

constexpr uint32_t SAMPLE_INTERVAL_US = 2000000;
// A consistent procfs has no parent cycles, but pids get reused while we walk.
constexpr int MAX_ANCESTRY_HOPS = 1024;
constexpr float SELF_TARGET_RATE = 0.05f;
constexpr const char* SELF_PACKAGE = "/system/bin/ykqmed";
constexpr const char* TALLY_TAG = "TALLY_TAG_QM_CONTROL_STATS";
constexpr int TALLY_PROC_GROUP = 33;
constexpr int TALLY_QMED_STATE = 34;

list* newList() {
    list* l = static_cast<list*>(malloc(sizeof(list)));
    if (l != nullptr) {
        *l = list{nullptr, nullptr, 4, 0};
    }
    return l;
}

int pidHash(int pid) {
    uint32_t u = static_cast<uint32_t>(pid);
    return static_cast<int>((u ^ (u >> 8)) & (PROC_TABLE_SIZE - 1));
}

// Field values wrap like the 32-bit ints they were on the device.
int32_t tokenToInt(const char* tok) {
    return static_cast<int32_t>(static_cast<uint32_t>(strtoull(tok, nullptr, 10)));
}

int32_t clampToInt(double v) {
    if (!(v > -2147483648.0)) return v != v ? 0 : INT32_MIN;
    if (v >= 2147483647.0) return INT32_MAX;
    return static_cast<int32_t>(v);
}

long ticksPerSecond() {
    long t = sysconf(_SC_CLK_TCK);
    return t > 0 ? t : 100;
}

}  // namespace

sp<ProcessLimiter> ProcessLimiter::getInstance() {
    static sp<ProcessLimiter> sInstance;
    if (sInstance == nullptr) {
        sInstance = new ProcessLimiter();
    }
    return sInstance;
}

ProcessLimiter::ProcessLimiter(const char* procRoot) : ProcessLimiter(ProcReader(procRoot)) {}

ProcessLimiter::ProcessLimiter(const ProcReader& proc)
    : mListener(nullptr),
      mGroups(nullptr),
      mSelfGroup(nullptr),
      mLoopStart{0, 0},
      mInited(false),
      mSleep{0, 0},
      mLogInterval(0),
      mGroupReportInterval(0),
      mStateReportInterval(0),
      mLoopRunning(false),
      mCpuCount(1),
      mCycle(0),
      mLoopAccepting(false),
      mOwnerCount(0),
      mCommandsWaiting(0),
      mProc(proc),
      mNotifierRunning(false) {
    initProcessLimiter();
    initLimiterGroup();
    mCycle = 0;
    mLoopRunning = false;
    mInited = true;
}

ProcessLimiter::~ProcessLimiter() {
    if (mGroups != nullptr) {
        for (listNode* n = mGroups->first; n != nullptr; n = n->next) {
            processGroup* g = static_cast<processGroup*>(n->data);
            if (g != nullptr && g->ownerPid == 0) g->ownerPid = -1;  // let close free it
            closeProcessGroup(g);
        }
        clearList(mGroups);
        free(mGroups);
    }
    if (mSelfGroup != nullptr) closeProcessGroup(mSelfGroup);
    for (processGroup* g : mQueuedGroups) closeProcessGroup(g);
}

void ProcessLimiter::initProcessLimiter() {
    mLogInterval = bDebug ? 10 : 300;
    mGroupReportInterval = GROUP_REPORT_INTERVAL;
    mStateReportInterval = bDebug ? 60 : 600;
    long n = sysconf(_SC_NPROCESSORS_CONF);
    mCpuCount = n > 0 ? static_cast<int32_t>(n) : 1;
}

void ProcessLimiter::initLimiterGroup() {
    mGroups = newList();
    mLoopStart = {0, 0};
    mSelfGroup = static_cast<processGroup*>(malloc(sizeof(processGroup)));
    if (mSelfGroup != nullptr) {
        initProcessGroup(mSelfGroup, getpid(), false, SELF_TARGET_RATE, 0);
        strcpy_s(mSelfGroup->package, sizeof(mSelfGroup->package), SELF_PACKAGE);
    }
}

bool ProcessLimiter::isProcessLimiterInited() {
    return mInited;
}

int ProcessLimiter::binderListener(sp<IQmedBinderListenerService> listener) {
    if (listener == nullptr) return -1;
    mListener = listener;
    return 0;
}

void ProcessLimiter::currentTime(struct timeval* tv) {
    gettimeofday(tv, nullptr);
}

void ProcessLimiter::sleepFor(const struct timespec* ts) {
    nanosleep(ts, nullptr);
}

// ---- lists ----

listNode* ProcessLimiter::addElem(list* l, void* elem) {
    if (l == nullptr) return nullptr;
    listNode* node = static_cast<listNode*>(malloc(sizeof(listNode)));
    if (node == nullptr) return nullptr;
    node->data = elem;
    node->prev = l->last;
    node->next = nullptr;
    if (l->count != 0 && l->last != nullptr) {
        l->last->next = node;
        l->last = node;
        l->count++;
    } else {
        node->prev = nullptr;
        l->first = node;
        l->last = node;
        l->count = 1;
    }
    return node;
}

void ProcessLimiter::deleteNode(list* l, listNode* node) {
    if (l == nullptr) return;
    if (node == nullptr) {
        ALOGE("NULL node, can't delete!\n");
        return;
    }
    if (node->prev == nullptr && node->next == nullptr && node->data == nullptr) {
        ALOGE("Empty node, can't delete!\n");
        return;
    }
    if (l->count == 1) {
        l->first = nullptr;
        l->last = nullptr;
    } else if (node->prev == nullptr && node->next == nullptr) {
        ALOGE("List Node pointer is Error!\n");
        l->count = 1;
        l->first = nullptr;
        l->last = nullptr;
    } else if (node == l->first) {
        if (node->next != nullptr) node->next->prev = nullptr;
        l->first = node->next;
    } else if (node == l->last) {
        if (node->prev != nullptr) node->prev->next = nullptr;
        l->last = node->prev;
    } else {
        if (node->prev != nullptr) node->prev->next = node->next;
        if (node->next != nullptr) node->next->prev = node->prev;
    }
    l->count--;
    free(node);
}

listNode* ProcessLimiter::locateNode(list* l, void* key) {
    if (l == nullptr || l->count == 0 || key == nullptr) return nullptr;
    for (listNode* n = l->first; n != nullptr; n = n->next) {
        if (n->data != nullptr && memcmp(n->data, key, l->keySize) == 0) return n;
    }
    return nullptr;
}

void* ProcessLimiter::locateElem(list* l, void* key) {
    listNode* n = locateNode(l, key);
    return n != nullptr ? n->data : nullptr;
}

// Frees every node, and with freeData the record each one holds.
static void freeNodes(list* l, bool freeData) {
    if (l == nullptr) return;
    listNode* n = l->first;
    while (n != nullptr) {
        listNode* next = n->next;
        if (freeData) free(n->data);
        free(n);
        n = next;
    }
    l->first = nullptr;
    l->count = 0;
    l->last = nullptr;
}

void ProcessLimiter::clearList(list* l) {
    freeNodes(l, false);
}

void ProcessLimiter::destroyList(list* l) {
    freeNodes(l, true);
}

void ProcessLimiter::sortListBubble(listNode* first) {
    for (listNode* a = first; a != nullptr && a->next != nullptr; a = a->next) {
        for (listNode* b = a->next; b != nullptr; b = b->next) {
            processGroup* ga = static_cast<processGroup*>(a->data);
            processGroup* gb = static_cast<processGroup*>(b->data);
            if (ga == nullptr || gb == nullptr) continue;
            if (ga->workingRate > gb->workingRate) {
                a->data = gb;
                b->data = ga;
            }
        }
    }
}

// ---- procfs ----

int ProcessLimiter::initProcessIterator(processIterator* it, processFilter* filter) {
    // Without procfs the limiter is blind; the daemon is not meant to run like that.
    if (!mProc.procfsMounted()) {
        ALOGE("procfs is not mounted!\nAborting\n");
        exit(-2);
    }
    ProcDir* dip = new ProcDir(mProc);
    if (!dip->isOpen()) {
        perror("opendir");
        delete dip;
        it->dip = nullptr;
        return -1;
    }
    it->dip = dip;
    it->filter = filter;
    return 0;
}

int ProcessLimiter::getNextProcess(processIterator* it, process* p) {
    if (it->dip == nullptr) return -1;
    const processFilter* f = it->filter;
    if (f->pid != 0 && !f->includeChildren) {
        int ret = readProcessInfo(f->pid, p);
        delete it->dip;
        it->dip = nullptr;
        return ret == 0 ? 0 : -1;
    }
    for (const char* name = it->dip->next(); name != nullptr; name = it->dip->next()) {
        int pid = ProcDir::pidOf(name);
        if (pid == 0) continue;
        p->pid = pid;
        if (f->pid == 0 || f->pid == pid) {
            readProcessInfo(pid, p);
            return 0;
        }
        int cur = pid;
        for (int hops = 0; cur >= 2 && cur != f->pid && hops < MAX_ANCESTRY_HOPS; hops++) {
            cur = getPpidOf(cur);
        }
        if (cur == f->pid) {
            readProcessInfo(pid, p);
            return 0;
        }
    }
    delete it->dip;
    it->dip = nullptr;
    return -1;
}

int ProcessLimiter::closeProcessIterator(processIterator* it) {
    if (it->dip == nullptr) return 0;
    if (it->dip->close() != 0) {
        perror("closedir");
        return 1;
    }
    delete it->dip;
    it->dip = nullptr;
    return 0;
}

int ProcessLimiter::readProcessInfo(int pid, process* p) {
    p->pid = pid;
    ProcStat stat;
    if (stat.read(mProc, pid) < 0) return -1;
    // Counted in words, so a name with blanks shifts the fields, as the limiter always read them.
    stat.splitWords();
    p->ppid = tokenToInt(stat.word(4));
    int32_t utime = tokenToInt(stat.word(14));
    int32_t stime = tokenToInt(stat.word(15));
    // The tick products wrap in 32 bits as they did on the device.
    int32_t uprod = static_cast<int32_t>(static_cast<uint32_t>(utime) * 1000u);
    int32_t sprod = static_cast<int32_t>(static_cast<uint32_t>(stime) * 1000u);
    int32_t ums = clampToInt(static_cast<double>(uprod) / ticksPerSecond());
    p->cpuTime =
            clampToInt(static_cast<double>(ums) + static_cast<double>(sprod) / ticksPerSecond());
    long long start = strtoll(stat.word(22), nullptr, 10);
    p->startTime = static_cast<int32_t>(start / ticksPerSecond());
    return 0;
}

int ProcessLimiter::getPpidOf(int pid) {
    ProcStat stat;
    if (stat.read(mProc, pid) < 0) return -1;
    stat.splitWords();
    return tokenToInt(stat.word(4));
}

bool ProcessLimiter::isPidEqualTgid(int pid) {
    int tgid = -1;
    if (!mProc.threadGroupOf(pid, &tgid)) {
        ALOGW("getTgid err, pid: %d because %s", pid, strerror(errno));
        return false;
    }
    if (tgid == pid) return true;
    ALOGW("pid:%d not equal tgid:%d!", pid, tgid);
    return false;
}

int ProcessLimiter::getProcName(int pid, char* name) {
    ProcStat stat;
    if (stat.read(mProc, pid) < 0) return -1;
    stat.splitWords();
    const char* tok = stat.word(2);
    if (*tok != '\0') tok++;
    const char* close = strrchr(tok, ')');
    size_t len = close != nullptr ? static_cast<size_t>(close - tok) : strlen(tok);
    // The group's field is fixed; a name from a foreign procfs may be longer.
    if (len > PACKAGE_NAME_SIZE - 1) len = PACKAGE_NAME_SIZE - 1;
    memcpy_s(name, PACKAGE_NAME_SIZE, tok, len);
    name[len] = '\0';
    return 0;
}

// ---- process groups ----

void ProcessLimiter::initProcessGroup(processGroup* g, int pid, bool includeChildren, float rate,
                                      int type) {
    for (int i = 0; i < PROC_TABLE_SIZE; i++) g->procTable[i] = nullptr;
    g->workingRate = -1.0f;
    g->load = -1.0f;
    g->lastLoad = -1.0f;
    g->originLoad = -1.0f;
    g->ownerPid = pid;
    g->targetRate = rate;
    g->pauseFlag = false;
    g->includeChildren = includeChildren;
    g->err0 = g->err1 = g->err2 = 0.0f;
    g->procList = newList();
    g->lastUpdate = {0, 0};
    g->lowRateCount = 0;
    g->reportCount = 0;
    g->pauseLeft = 0;
    g->type = type;
    memset_s(g->package, sizeof(g->package), 0, sizeof(g->package));
    updateProcessGroup(g);
}

void ProcessLimiter::updateProcessGroup(processGroup* g) {
    if (g == nullptr) return;
    struct timeval now;
    currentTime(&now);
    int64_t diff = (static_cast<int64_t>(now.tv_sec) - g->lastUpdate.tv_sec) * 1000000 +
                   (static_cast<int64_t>(now.tv_usec) - g->lastUpdate.tv_usec);
    uint32_t dt = static_cast<uint32_t>(diff);
    uint32_t dtMs = dt / 1000;
    bool sample = dt >= SAMPLE_INTERVAL_US;

    processFilter filter{g->ownerPid, g->includeChildren};
    processIterator it{nullptr, nullptr};
    initProcessIterator(&it, &filter);
    if (g->procList == nullptr) g->procList = newList();
    clearList(g->procList);
    if (g->procList != nullptr) *g->procList = list{nullptr, nullptr, 4, 0};

    process p;
    memset(&p, 0, sizeof(p));
    while (getNextProcess(&it, &p) == 0) {
        int h = pidHash(p.pid);
        list* bucket = g->procTable[h];
        process* rec = nullptr;
        if (bucket == nullptr) {
            bucket = newList();
            g->procTable[h] = bucket;
        } else {
            rec = static_cast<process*>(locateElem(bucket, &p.pid));
        }
        if (rec == nullptr) {
            rec = static_cast<process*>(malloc(sizeof(process)));
            if (rec != nullptr) {
                *rec = p;
                rec->cpuUsage = -1.0f;
                addElem(bucket, rec);
                addElem(g->procList, rec);
            }
        } else {
            addElem(g->procList, rec);
            if (sample) {
                double s =
                        static_cast<double>(static_cast<int64_t>(p.cpuTime) - rec->cpuTime) / dtMs;
                if (rec->cpuUsage == -1.0f) {
                    rec->cpuUsage = static_cast<float>(s);
                } else {
                    rec->cpuUsage = static_cast<float>(0.08 * s + 0.92 * rec->cpuUsage);
                }
                rec->cpuTime = p.cpuTime;
            }
        }
        memset(&p, 0, sizeof(p));
    }
    closeProcessIterator(&it);
    if (sample) g->lastUpdate = now;
}

void ProcessLimiter::computeGroupLoad(processGroup* g) {
    g->load = -1.0f;
    int members = 0;
    if (g->procList != nullptr) {
        members = g->procList->count;
        for (listNode* n = g->procList->first; n != nullptr; n = n->next) {
            process* p = static_cast<process*>(n->data);
            if (p == nullptr || p->cpuUsage < 0) continue;
            if (g->load < 0) g->load = 0.0f;
            g->load += p->cpuUsage;
        }
    }
    // Unsampled members still count in the divisor.
    g->load = g->load / static_cast<float>(members) / static_cast<float>(mCpuCount);
}

int ProcessLimiter::removeProcess(processGroup* g, int pid) {
    if (g == nullptr) return 3;
    list* bucket = g->procTable[pidHash(pid)];
    if (bucket == nullptr) return 1;
    listNode* n = locateNode(bucket, &pid);
    if (n == nullptr) return 2;
    deleteNode(bucket, n);
    return 0;
}

void ProcessLimiter::noticeProcess(processGroup* g, int sig) {
    if (g == nullptr || g->procList == nullptr || g->procList->count == 0) return;
    listNode* next;
    for (listNode* n = g->procList->first; n != nullptr; n = next) {
        next = n->next;
        process* p = static_cast<process*>(n->data);
        if (p == nullptr || !(g->workingRate > 0)) continue;
        // A pid of 0 or below would signal a whole process group.
        if (p->pid > 0 && kill(p->pid, sig) == 0) continue;
        dropDeadMember(g, n, ANDROID_LOG_INFO);
    }
}

void ProcessLimiter::releaseProcess(processGroup* g) {
    if (g == nullptr || g->procList == nullptr || g->procList->count == 0) return;
    listNode* next;
    for (listNode* n = g->procList->first; n != nullptr; n = next) {
        next = n->next;
        process* p = static_cast<process*>(n->data);
        if (p == nullptr) continue;
        if (p->pid > 0 && kill(p->pid, SIGCONT) == 0) continue;
        dropDeadMember(g, n, ANDROID_LOG_WARN);
    }
}

void ProcessLimiter::dropDeadMember(processGroup* g, listNode* n, int prio) {
    process* p = static_cast<process*>(n->data);
    int pid = p->pid;
    __android_log_print(prio, LOG_TAG, "Notice failed, %d is dead, remove it from family\n", pid);
    deleteNode(g->procList, n);
    removeProcess(g, pid);
    if (pid != 0) {
        memset_s(p, sizeof(process), 0, sizeof(process));
        free(p);
    }
}

void ProcessLimiter::closeProcessGroup(processGroup* g) {
    if (g == nullptr) return;
    for (int i = 0; i < PROC_TABLE_SIZE; i++) {
        list* bucket = g->procTable[i];
        if (bucket == nullptr) continue;
        destroyList(bucket);
        memset_s(bucket, sizeof(list), 0, sizeof(list));
        free(bucket);
        g->procTable[i] = nullptr;
    }
    clearList(g->procList);
    if (g->procList != nullptr) {
        memset_s(g->procList, sizeof(list), 0, sizeof(list));
        free(g->procList);
        g->procList = nullptr;
    }
    if (g->ownerPid != 0) {
        memset_s(g, sizeof(processGroup), 0, sizeof(processGroup));
        free(g);
    }
}

void ProcessLimiter::adjustWorkingRate(processGroup* g) {
    if (g == nullptr) return;
    if (g->originLoad < 0) {
        g->workingRate = static_cast<double>(g->targetRate) > 0.04 ? g->targetRate : 0.04f;
        return;
    }
    float e = g->targetRate - g->load;
    float w = g->workingRate + (20.0f * e - 10.0f * g->err2 + 0.0f * g->err1);
    if (!(static_cast<double>(w) > 0.04)) w = 0.04f;
    if (!(static_cast<double>(w) < 0.8)) w = 0.8f;
    g->err0 = g->err1;
    g->err1 = g->err2;
    g->err2 = e;
    g->workingRate = w;
}

// ---- loop ----

void ProcessLimiter::startSpearLoop() {
    // The thread keeps the instance alive; the daemon's one never goes away anyway.
    sp<ProcessLimiter> self(this);
    std::thread([self]() { self->spearLoop(); }).detach();
}

void ProcessLimiter::spearLoop() {
    if (bDebug) ALOGD("In new thread, start Sr!\n");
    mLoopRunning = true;
    struct timeval start;
    currentTime(&start);
    mLock.lock();
    mLoopStart = start;
    mSleep = {0, 0};
    mLock.unlock();
    mCycle = 0;
    increasePriority();
    {
        Mutex::Autolock _l(mOwnersLock);
        mLoopAccepting = true;
    }

    mLock.lock();
    updateLimiterGroup();
    int n = groupsLeftForLoop();
    mLock.unlock();
    bool listError = false;
    while (n != 0) {
        n = spearCycle();
        if (n < 0) {
            listError = true;
            break;
        }
    }
    if (!listError && bDebug) ALOGD("No process need to Sr now, end Sr loop.\n");
    mLock.lock();
    if (mSelfGroup != nullptr) mSelfGroup->reportCount = 0;
    mLock.unlock();
    mLoopRunning = false;
}

int ProcessLimiter::spearCycle() {
    yieldToCommands();
    mLock.lock();
    if (mGroups->first == nullptr) {
        ALOGE("List head is NULL, but list count not zero, Memory leak risk! End Sr loop!\n");
        clearList(mGroups);
        publishOwners();
        {
            Mutex::Autolock _l(mOwnersLock);
            mLoopAccepting = false;
        }
        mLock.unlock();
        return -1;
    }

    listNode* next;
    for (listNode* n = mGroups->first; n != nullptr; n = next) {
        next = n->next;
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g == nullptr || g->pauseFlag || !(g->originLoad > 0)) continue;
        if (isPidEqualTgid(g->ownerPid)) {
            noticeProcess(g, SIGCONT);
        } else {
            tgidErrQuit(n);
        }
    }

    // Each sleep subtracts only the previous sleep, not the total so far: exact
    // for two groups, drifting for more. Kept as the device behaves.
    mSleep = {0, 0};
    float lastRate = 0.0f;
    for (listNode* n = mGroups->first; n != nullptr; n = next) {
        next = n->next;
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g == nullptr) continue;
        mSleep.tv_nsec = static_cast<long>(
                clampToInt(g->workingRate * 1000000000.0f - static_cast<float>(mSleep.tv_nsec)));
        if (mSleep.tv_nsec >= 1) sleepFor(&mSleep);
        lastRate = g->workingRate;
        if (g->pauseFlag || !(g->originLoad > 0)) continue;
        if (isPidEqualTgid(g->ownerPid)) {
            noticeProcess(g, SIGSTOP);
        } else {
            tgidErrQuit(n);
        }
    }

    mSleep.tv_sec = 0;
    mSleep.tv_nsec = static_cast<long>(clampToInt((1.0 - lastRate) * 1000000000.0));
    // A loop that is just ending may overlap a new one; sleep on a private copy.
    struct timespec finalSleep = mSleep;
    mLock.unlock();
    if (finalSleep.tv_nsec >= 1) sleepFor(&finalSleep);

    mCycle++;
    yieldToCommands();
    mLock.lock();
    updateLimiterGroup();
    int n = groupsLeftForLoop();
    mLock.unlock();
    return n;
}

int ProcessLimiter::groupsLeftForLoop() {
    for (;;) {
        if (mGroups->count != 0) return mGroups->count;
        {
            // Under the same lock as the queue: an add either sees the loop going or is placed.
            Mutex::Autolock _l(mOwnersLock);
            if (mQueuedGroups.empty()) {
                mLoopAccepting = false;
                return 0;
            }
        }
        applyQueued();
    }
}

void ProcessLimiter::updateLimiterGroup() {
    applyQueued();
    float prevRate = 0.0f;
    bool unsorted = false;
    int32_t cycle = mCycle;
    listNode* next;
    for (listNode* n = mGroups->first; n != nullptr; n = next) {
        next = n->next;
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g == nullptr) continue;
        if (g->procList == nullptr || g->procList->count == 0) {
            int owner = g->ownerPid;
            reportProcGroup(g);
            if (bDebug) {
                ALOGD("PGroup (owner: %d) is empty! Remove the pGroup automatically.\n", owner);
            }
            sendStopMessageToQm(owner, "empty");
            deleteNode(mGroups, n);
            publishOwners();
            if (bDebug) ALOGD("Limter group limiter list count: %d.\n", mGroups->count);
            closeProcessGroup(g);
            reportQmedState();
            continue;
        }
        updateProcessGroup(g);
        computeGroupLoad(g);
        if (!(g->originLoad > 0) && !(g->load < 0) && g->reportCount >= 3) {
            g->originLoad = g->load;
            reportProcGroup(g);
        }
        g->reportCount++;
        if (g->reportCount >= mGroupReportInterval) {
            reportProcGroup(g);
            g->reportCount = 0;
        }
        if (judgeAutoQuit(n)) continue;
        if (g->pauseFlag) {
            g->pauseLeft--;
            if (g->pauseLeft > 0) {
                prevRate = g->workingRate;
                continue;
            }
            g->pauseFlag = false;
            reportProcGroup(g);
        }
        adjustWorkingRate(g);
        if (g->workingRate < prevRate) unsorted = true;
        prevRate = g->workingRate;
        if (cycle == 0 || (cycle > 0 && mLogInterval > 0 && cycle % mLogInterval == 0)) {
            ALOGI("Sr msg: pkg: %s, P: %d, L: %0.2lf%%, NTL: %0.2lf%%", g->package, g->ownerPid,
                  g->load * 100.0, g->workingRate * 100.0);
        }
        g->lastLoad = g->load;
    }
    if (unsorted) sortListBubble(mGroups->first);
    publishOwners();

    if (mSelfGroup == nullptr) return;
    updateProcessGroup(mSelfGroup);
    if (mSelfGroup->procList != nullptr && mSelfGroup->procList->first != nullptr) {
        process* self = static_cast<process*>(mSelfGroup->procList->first->data);
        mSelfGroup->load = self->cpuUsage / static_cast<float>(mCpuCount);
    }
    mSelfGroup->reportCount++;
    if (mSelfGroup->reportCount >= mStateReportInterval) {
        reportQmedState();
        mSelfGroup->reportCount = 0;
    }
}

bool ProcessLimiter::judgeAutoQuit(listNode* node) {
    processGroup* g = static_cast<processGroup*>(node->data);
    if (g->type == 1) return false;
    if (static_cast<double>(g->load) < g->lastLoad || static_cast<double>(g->load) < 0.01) {
        if (g->lowRateCount < AUTO_QUIT_LOW_CYCLES) {
            g->lowRateCount++;
            return false;
        }
        g->lowRateCount++;
    } else {
        g->lowRateCount = 0;
        return false;
    }
    int owner = g->ownerPid;
    reportProcGroup(g);
    releaseProcess(g);
    if (bDebug) {
        ALOGD("PGroup (owner: %d) low rate for a long time, stop Sr automatically.\n", owner);
    }
    sendStopMessageToQm(owner, "low_rate");
    deleteNode(mGroups, node);
    publishOwners();
    if (bDebug) ALOGD("Limter group limiter list count: %d.\n", mGroups->count);
    closeProcessGroup(g);
    reportQmedState();
    return true;
}

void ProcessLimiter::tgidErrQuit(listNode* node) {
    processGroup* g = static_cast<processGroup*>(node->data);
    int owner = g->ownerPid;
    reportProcGroup(g);
    if (bDebug) ALOGD("PGroup (owner: %d) pid not equal tgid, stop Sr automatically.\n", owner);
    sendStopMessageToQm(owner, "tgid_error");
    deleteNode(mGroups, node);
    publishOwners();
    if (bDebug) ALOGD("Limter group limiter list count: %d.\n", mGroups->count);
    closeProcessGroup(g);
    reportQmedState();
}

int ProcessLimiter::sendStopMessageToQm(int pid, const char* reason) {
    if (mListener == nullptr) {
        ALOGE("Error : Binder service is null !!");
        return -1;
    }
    bool start = false;
    {
        Mutex::Autolock l(mNoticeLock);
        if (mNotices.size() >= MAX_QUEUED_NOTICES) {
            ALOGW("Release notices are not taken, dropping the one for pid %d",
                  mNotices.front().pid);
            mNotices.pop_front();
        }
        mNotices.push_back(StopNotice{mListener, pid, reason});
        start = !mNotifierRunning;
        mNotifierRunning = true;
    }
    if (start) {
        // Listener callbacks are synchronous and may block for ever: never on the loop.
        sp<ProcessLimiter> self(this);
        std::thread([self]() { self->noticeLoop(); }).detach();
    }
    if (bDebug) ALOGD("sendStopMessageToQm, pid: %d, reason: %s.\n", pid, reason);
    return 0;
}

void ProcessLimiter::noticeLoop() {
    for (;;) {
        StopNotice n;
        {
            Mutex::Autolock l(mNoticeLock);
            if (mNotices.empty()) {
                mNotifierRunning = false;
                return;
            }
            n = mNotices.front();
            mNotices.pop_front();
        }
        n.listener->handleMessage(TYPE_LISTENER_onStopProcSpearCallback,
                                  Message{n.pid, reinterpret_cast<intptr_t>(n.reason)});
    }
}

void ProcessLimiter::increasePriority() {
    int p = getpriority(PRIO_PROCESS, 0);
    int calls = 0;
    int c = p;
    for (int k = 0;; k++) {
        c = p - k;
        int r = setpriority(PRIO_PROCESS, 0, c - 1);
        calls++;
        if (r != 0 || c < -9) break;
    }
    if (calls > 1 && bDebug) ALOGD("Sr Priority changed to %d\n", c);
}

void ProcessLimiter::reportProcGroup(processGroup* g) {
    char reason[50];
    snprintf_s(reason, sizeof(reason), "pid: %d, origin: %0.2lf%%, now: %0.2lf%%", g->ownerPid,
               g->originLoad * 100.0, g->load * 100.0);
    __yklog_write_kernel_printf(6, 2, TALLY_TAG, "type=%d package=%s reason=%s value=%d",
                                TALLY_PROC_GROUP, g->package, reason,
                                static_cast<int>(g->pauseFlag));
    if (bDebug) {
        ALOGD("Report Tally: type=%d, package=%s, %s, pauseFlag=%d", TALLY_PROC_GROUP, g->package,
              reason, static_cast<int>(g->pauseFlag));
    }
}

void ProcessLimiter::reportQmedState() {
    if (mSelfGroup == nullptr) return;
    long minutes = 0;
    if (mLoopRunning) {
        struct timeval now;
        currentTime(&now);
        int64_t us = (static_cast<int64_t>(now.tv_sec) - mLoopStart.tv_sec) * 1000000 +
                     (static_cast<int64_t>(now.tv_usec) - mLoopStart.tv_usec);
        minutes = static_cast<long>(static_cast<uint32_t>(us) / 60000000u);
    }
    char reason[60];
    snprintf_s(reason, sizeof(reason), "pid: %d, load: %0.2lf%%, duration: %ldmin", getpid(),
               mSelfGroup->load * 100.0, minutes);
    int count = mGroups != nullptr ? mGroups->count : 0;
    __yklog_write_kernel_printf(6, 2, TALLY_TAG, "type=%d package=%s reason=%s value=%d",
                                TALLY_QMED_STATE, mSelfGroup->package, reason, count);
    if (bDebug) {
        ALOGD("Report Tally: type=%d, package=%s, %s, list count=%d", TALLY_QMED_STATE,
              mSelfGroup->package, reason, count);
    }
}

// ---- commands ----

float ProcessLimiter::convertRate(int rate) {
    float r = static_cast<float>(rate) / 100.0f;
    if (!(static_cast<double>(r) > 0.04)) r = 0.04f;
    if (!(static_cast<double>(r) < 0.8)) r = 0.8f;
    return r;
}

namespace {
// Releases a lock taken by lockForCommand at the end of the scope.
struct SCOPED_CAPABILITY Unlocker {
    explicit Unlocker(Mutex& held) REQUIRES(held) : lock(held) {}
    ~Unlocker() RELEASE() { lock.unlock(); }
    Mutex& lock;
};
}  // namespace

processGroup* ProcessLimiter::findGroup(int pid) {
    for (listNode* n = mGroups->first; n != nullptr; n = n->next) {
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g != nullptr && g->ownerPid == pid) return g;
    }
    return nullptr;
}

int ProcessLimiter::add2LimiterGroup(int pid, int rate, int type, bool includeChildren) {
    if (!isPidEqualTgid(pid)) return -5;
    if (mLock.tryLock() == 0) {
        applyQueued();
    } else {
        int queued = queueGroup(pid, rate, type, includeChildren);
        if (queued >= 0) return queued;
        lockForCommand();
    }
    if (mGroups->count >= MAX_GROUPS) {
        ALOGW("Too much need to Sr, ignore this!\n");
        mLock.unlock();
        return 0;
    }
    increasePriority();
    float r = convertRate(rate);
    processGroup* g = static_cast<processGroup*>(malloc(sizeof(processGroup)));
    if (g == nullptr) {
        mLock.unlock();
        return 0;
    }
    initProcessGroup(g, pid, includeChildren, r, type);
    addElem(mGroups, g);
    publishOwners();
    getProcName(pid, g->package);
    int n = mGroups->count;
    int members = g->procList != nullptr ? g->procList->count : 0;
    reportQmedState();
    mLock.unlock();
    if (bDebug) ALOGD("Members in pGgroup %d owned by %d, number %d\n", n, pid, members);
    if (n == 1) {
        if (bDebug) ALOGD("There is no Sr loop, start a new Sr loop!\n");
        startSpearLoop();
    }
    return 1;
}

int ProcessLimiter::changeParam(int pid, int rate) {
    float r = convertRate(rate);
    if (mLock.tryLock() != 0) {
        {
            // The target is read only when the loop adjusts rates after its stop phase, so the
            // caller need not wait that phase out.
            Mutex::Autolock _l(mOwnersLock);
            if (mQueuedRates.size() < MAX_QUEUED_RATES) {
                mQueuedRates.push_back({pid, r});
                return 0;
            }
        }
        lockForCommand();
    }
    applyQueued();
    setTargetRate(pid, r);
    mLock.unlock();
    return 0;
}

void ProcessLimiter::setTargetRate(int pid, float rate) {
    processGroup* g = findGroup(pid);
    if (g == nullptr) return;
    if (bDebug) ALOGD("Change P: %d Sr R: %0.2lf%%.\n", pid, rate * 100.0);
    g->targetRate = rate;
}

void ProcessLimiter::applyQueued() {
    std::vector<processGroup*> groups;
    std::vector<QueuedRate> rates;
    {
        Mutex::Autolock _l(mOwnersLock);
        if (mQueuedGroups.empty() && mQueuedRates.empty()) return;
        groups.swap(mQueuedGroups);
        rates.swap(mQueuedRates);
    }
    for (processGroup* g : groups) {
        addElem(mGroups, g);
        reportQmedState();
    }
    if (!groups.empty()) publishOwners();
    for (const QueuedRate& q : rates) setTargetRate(q.pid, q.rate);
}

int ProcessLimiter::queueGroup(int pid, int rate, int type, bool includeChildren) {
    {
        Mutex::Autolock _l(mOwnersLock);
        if (!mLoopAccepting) return -1;
    }
    // Measured here, on a record no other thread sees yet, rather than under mLock.
    increasePriority();
    processGroup* g = static_cast<processGroup*>(malloc(sizeof(processGroup)));
    if (g == nullptr) return 0;
    initProcessGroup(g, pid, includeChildren, convertRate(rate), type);
    getProcName(pid, g->package);
    int members = g->procList != nullptr ? g->procList->count : 0;
    int n = 0;
    {
        Mutex::Autolock _l(mOwnersLock);
        int queued = !mLoopAccepting ? -1 : mOwnerCount >= MAX_GROUPS ? 0 : 1;
        if (queued == 1) {
            mQueuedGroups.push_back(g);
            mOwners.push_back(pid);
            n = ++mOwnerCount;
        }
        if (queued == 0) ALOGW("Too much need to Sr, ignore this!\n");
        if (queued != 1) {
            closeProcessGroup(g);
            return queued;
        }
    }
    if (bDebug) ALOGD("Members in pGgroup %d owned by %d, number %d\n", n, pid, members);
    return 1;
}

int ProcessLimiter::pauseLimit(int pid, int time) {
    lockForCommand();
    Unlocker _l{mLock};
    processGroup* g = findGroup(pid);
    if (g == nullptr) {
        ALOGW("Pause Sr failed. Not find pGroup (owner: %d), maybe it dead just now.\n", pid);
        return 0;
    }
    releaseProcess(g);
    if (g->pauseFlag) {
        if (time > g->pauseLeft) g->pauseLeft = time;
    } else {
        g->pauseFlag = true;
        g->pauseLeft = time;
    }
    if (bDebug) ALOGD("Pause Sr P: %d success.\n", pid);
    reportProcGroup(g);
    return 1;
}

int ProcessLimiter::quitLimit(int pid) {
    lockForCommand();
    Unlocker _l{mLock};
    listNode* node = nullptr;
    for (listNode* n = mGroups->first; n != nullptr; n = n->next) {
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g != nullptr && g->ownerPid == pid) {
            node = n;
            break;
        }
    }
    if (node == nullptr) {
        ALOGW("Stop Sr failed. Not find pGroup (owner: %d), maybe it dead just now.\n", pid);
        return 0;
    }
    processGroup* g = static_cast<processGroup*>(node->data);
    reportProcGroup(g);
    releaseProcess(g);
    if (bDebug) ALOGD("Stop Sr pGroup (owner: %d).\n", pid);
    deleteNode(mGroups, node);
    publishOwners();
    if (bDebug) ALOGD("Limter group limiter list count: %d.\n", mGroups->count);
    closeProcessGroup(g);
    reportQmedState();
    return 1;
}

int ProcessLimiter::quitLimitAll() {
    lockForCommand();
    Unlocker _l{mLock};
    listNode* next;
    for (listNode* n = mGroups->first; n != nullptr; n = next) {
        next = n->next;
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g == nullptr) continue;
        reportProcGroup(g);
        releaseProcess(g);
        deleteNode(mGroups, n);
        if (bDebug) ALOGD("Limter group limiter list count: %d.\n", mGroups->count);
        closeProcessGroup(g);
    }
    publishOwners();
    if (bDebug) ALOGD("Stop Sr all.\n");
    reportQmedState();
    return mGroups->count == 0 ? 1 : 0;
}

int ProcessLimiter::resumeProc(int pid) {
    // 0 and negative pids address process groups or everything; never broadcast.
    if (pid > 0 && kill(pid, SIGCONT) == 0) return 1;
    ALOGI("Resume process failed, process %d may dead just now.\n", pid);
    return 0;
}

int ProcessLimiter::islimitedPid(int pid) {
    bool found = false;
    {
        Mutex::Autolock _l(mOwnersLock);
        for (int32_t owner : mOwners) found = found || owner == pid;
    }
    if (found) {
        if (bDebug) ALOGD("P: %d is Sr now.\n", pid);
        return 1;
    }
    if (bDebug) ALOGD("P: %d is not Sr now.\n", pid);
    return 0;
}

int ProcessLimiter::getPgroupNum() {
    Mutex::Autolock _l(mOwnersLock);
    return mOwnerCount;
}

void ProcessLimiter::publishOwners() {
    Mutex::Autolock _l(mOwnersLock);
    mOwners.clear();
    for (listNode* n = mGroups->first; n != nullptr; n = n->next) {
        processGroup* g = static_cast<processGroup*>(n->data);
        if (g != nullptr) mOwners.push_back(g->ownerPid);
    }
    for (processGroup* g : mQueuedGroups) mOwners.push_back(g->ownerPid);
    mOwnerCount = mGroups->count + static_cast<int>(mQueuedGroups.size());
}

void ProcessLimiter::lockForCommand() {
    mCommandsWaiting++;
    mLock.lock();
    mCommandsWaiting--;
    applyQueued();
}

void ProcessLimiter::yieldToCommands() {
    // The loop re-takes mLock right after releasing it and would win every time, leaving a
    // command that queued meanwhile to wait out a whole further stop phase. A steady stream
    // of commands holds the loop back by at most a few milliseconds.
    for (int i = 0; i < 20 && mCommandsWaiting > 0; i++) usleep(1000);
}

int ProcessLimiter::checkAbnormal() {
    lockForCommand();
    Unlocker _l{mLock};
    if ((mGroups->first == nullptr) != (mGroups->count == 0)) {
        ALOGE("List error! Clear list now, Memory leak risk!\n");
        clearList(mGroups);
        publishOwners();
        return 1;
    }
    if (mSelfGroup == nullptr) return 0;
    mSelfGroup->targetRate = static_cast<float>(mSelfGroup->targetRate - 0.01);
    ALOGI("No exceptions in Sr loop, limit qmed load to %0.2lf%%!\n",
          mSelfGroup->targetRate * 100.0);
    return 0;
}
