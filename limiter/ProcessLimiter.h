#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <time.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <deque>
#include <vector>

#include "proc/ProcReader.h"

class IQmedBinderListenerService;
class ProcDir;

// Plain records of the limiter. They live in C-allocated memory and are keyed by
// their first 32-bit field (a pid), so the leading field of every element type
// must stay an int32 at offset 0.

struct listNode {
    void* data;
    listNode* prev;
    listNode* next;
};

struct list {
    listNode* first;
    listNode* last;
    int keySize;
    int count;
};

struct process {
    int32_t pid;
    int32_t ppid;
    int32_t startTime;  // whole seconds after boot
    int32_t cpuTime;    // user + system, milliseconds
    float cpuUsage;     // share of one CPU, -1 until sampled
};

struct processFilter {
    int32_t pid;  // 0: every process
    bool includeChildren;
};

struct processIterator {
    ProcDir* dip;           // the walk over the proc root
    processFilter* filter;  // borrowed
};

constexpr int PROC_TABLE_SIZE = 1024;
constexpr int PACKAGE_NAME_SIZE = 100;

struct processGroup {
    int32_t ownerPid;
    float targetRate;
    float workingRate;
    float load;
    float lastLoad;
    float originLoad;
    float err0;
    float err1;
    float err2;
    list* procTable[PROC_TABLE_SIZE];
    list* procList;
    bool includeChildren;
    bool pauseFlag;
    struct timeval lastUpdate;
    int32_t lowRateCount;
    int32_t reportCount;
    int32_t pauseLeft;
    int32_t type;
    char package[PACKAGE_NAME_SIZE];
};

static_assert(sizeof(listNode) == 3 * sizeof(void*), "listNode is three words");
static_assert(sizeof(list) == 2 * sizeof(void*) + 2 * sizeof(int), "list is four fields");
static_assert(sizeof(process) == 20, "process record is 20 bytes");
static_assert(offsetof(process, pid) == 0 && offsetof(processGroup, ownerPid) == 0,
              "list keys are the leading pid");
static_assert(offsetof(process, cpuUsage) == 16, "process field order");
static_assert(offsetof(processGroup, err2) == 8 * sizeof(float), "group field order");

// The CPU rate limiter: up to MAX_GROUPS process groups held to their target
// load by a one-second stop/continue cycle on a loop thread of its own.
//
// Threading: public commands are called from binder threads and take mLock.
// The loop thread holds mLock from the continue phase through the stop-phase
// sleeps, so a command that changes a group waits out the current stop phase;
// commands waiting for mLock go before the loop's next cycle. The two queries
// (islimitedPid, getPgroupNum) read a copy of the owners published under
// mOwnersLock, a leaf, at every change of the list, and never wait for a cycle;
// nor do changeParam and, while a loop runs, add2LimiterGroup: a rate or a new
// group they cannot place at once is queued under mOwnersLock and placed by the
// next holder of mLock, before any adjustment reads it.
// Release notices are queued with mLock held and posted to the listener
// registry by a notifier thread that holds no limiter lock: a listener stuck in
// its callback must not keep limited processes stopped or commands waiting.
// So the registry's lock is never taken inside mLock, and nothing called from
// the registry's locked section may call back into the limiter.
class ProcessLimiter : public android::RefBase {
  public:
    static constexpr int MAX_GROUPS = 100;
    static constexpr int AUTO_QUIT_LOW_CYCLES = 900;
    static constexpr int GROUP_REPORT_INTERVAL = 60;

    static android::sp<ProcessLimiter> getInstance();

    // The reader's root stands in for procfs in every read; the mount check always
    // looks at the real one.
    explicit ProcessLimiter(const char* procRoot = ProcReader::kProcRoot);
    explicit ProcessLimiter(const ProcReader& proc);
    ~ProcessLimiter() override;

    bool isProcessLimiterInited();
    int binderListener(android::sp<IQmedBinderListenerService> listener);

    int add2LimiterGroup(int pid, int rate, int type, bool includeChildren);
    int changeParam(int pid, int rate);
    int pauseLimit(int pid, int time);
    int quitLimit(int pid);
    int quitLimitAll();
    int resumeProc(int pid);
    int islimitedPid(int pid);
    int getPgroupNum();
    int checkAbnormal();

    // Lists. They touch no field of the limiter.
    static listNode* addElem(list* l, void* elem);
    static void deleteNode(list* l, listNode* node);
    static void* locateElem(list* l, void* key);
    static listNode* locateNode(list* l, void* key);
    static void clearList(list* l);
    static void destroyList(list* l);
    // Elements must be processGroup*; orders by workingRate, ascending.
    static void sortListBubble(listNode* first);

    // procfs readers and the process iterator. No locking.
    int initProcessIterator(processIterator* it, processFilter* filter);
    int getNextProcess(processIterator* it, process* p);
    int closeProcessIterator(processIterator* it);
    int readProcessInfo(int pid, process* p);
    int getPpidOf(int pid);
    bool isPidEqualTgid(int pid);
    int getProcName(int pid, char* name);

    // Process groups: with mLock held once the group is listed.
    void initProcessGroup(processGroup* g, int pid, bool includeChildren, float rate, int type);
    void updateProcessGroup(processGroup* g);
    void closeProcessGroup(processGroup* g);
    void adjustWorkingRate(processGroup* g);

  protected:
    // Time and thread hooks; tests override them to drive cycles directly.
    virtual void currentTime(struct timeval* tv);
    virtual void sleepFor(const struct timespec* ts);
    virtual void startSpearLoop();

    void initProcessLimiter();
    // From the constructor, before another thread can see the limiter.
    void initLimiterGroup() NO_THREAD_SAFETY_ANALYSIS;
    void spearLoop();
    // One stop/continue cycle followed by the update; returns the group count.
    int spearCycle();
    void updateLimiterGroup() REQUIRES(mLock);
    void computeGroupLoad(processGroup* g);
    bool judgeAutoQuit(listNode* node) REQUIRES(mLock);
    void tgidErrQuit(listNode* node) REQUIRES(mLock);
    // Queues the notice.
    int sendStopMessageToQm(int pid, const char* reason) REQUIRES(mLock);
    void noticeLoop();  // the notifier thread
    void increasePriority();
    void reportProcGroup(processGroup* g);
    void reportQmedState() REQUIRES(mLock);
    float convertRate(int rate);
    processGroup* findGroup(int pid) REQUIRES(mLock);
    void publishOwners() REQUIRES(mLock);  // after every change of mGroups
    void lockForCommand() ACQUIRE(mLock);  // counted, so the loop lets it in first
    void yieldToCommands();                // the loop thread, mLock not held
    void applyQueued() REQUIRES(mLock);
    int queueGroup(int pid, int rate, int type, bool includeChildren);
    int groupsLeftForLoop() REQUIRES(mLock);
    void setTargetRate(int pid, float rate) REQUIRES(mLock);

    android::sp<IQmedBinderListenerService> mListener;
    list* mGroups PT_GUARDED_BY(mLock);
    processGroup* mSelfGroup PT_GUARDED_BY(mLock);
    struct timeval mLoopStart GUARDED_BY(mLock);
    bool mInited;
    struct timespec mSleep GUARDED_BY(mLock);
    int32_t mLogInterval;
    int32_t mGroupReportInterval;
    int32_t mStateReportInterval;
    std::atomic<bool> mLoopRunning;
    android::Mutex mLock;
    int32_t mCpuCount;
    std::atomic<int32_t> mCycle;
    bool mLoopAccepting GUARDED_BY(mOwnersLock);  // a loop runs and will place queued groups

  private:
    int removeProcess(processGroup* g, int pid) REQUIRES(mLock);
    void noticeProcess(processGroup* g, int sig) REQUIRES(mLock);
    void releaseProcess(processGroup* g) REQUIRES(mLock);
    // Forgets a member that could not be signalled.
    void dropDeadMember(processGroup* g, listNode* n, int prio) REQUIRES(mLock);

    android::Mutex mOwnersLock;
    // Owners of the listed groups, in list order, and mGroups->count.
    std::vector<int32_t> mOwners GUARDED_BY(mOwnersLock);
    int mOwnerCount GUARDED_BY(mOwnersLock);
    struct QueuedRate {
        int pid;
        float rate;
    };
    std::vector<QueuedRate> mQueuedRates GUARDED_BY(mOwnersLock);
    // Measured, not yet in mGroups.
    std::vector<processGroup*> mQueuedGroups GUARDED_BY(mOwnersLock);
    static constexpr size_t MAX_QUEUED_RATES = 1024;
    std::atomic<int> mCommandsWaiting;

    struct StopNotice {
        android::sp<IQmedBinderListenerService> listener;
        int pid;
        const char* reason;  // a literal
    };
    static constexpr size_t MAX_QUEUED_NOTICES = 1024;

    const ProcReader mProc;
    android::Mutex mNoticeLock;  // a leaf: nothing is locked inside it
    std::deque<StopNotice> mNotices GUARDED_BY(mNoticeLock);
    bool mNotifierRunning GUARDED_BY(mNoticeLock);
};
