#pragma once

#include <utils/List.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

#include <unordered_map>

#include "freezer/CGroup.h"

// Pool of pre-created, uniquely named freezer groups, handed out one per frozen process.
//
// Threading: every public method takes mLock (getGroup and putGroup always inside the Freezer's
// mutex, never the other way round). createGroupPool and deleteGroupPool are called only while
// the Freezer initialises or tears down; the constructor runs without mLock.
class GroupPool : public android::RefBase {
  public:
    static constexpr const char* kRandomSource = "/dev/urandom";

    // `root` and `randomSource` are injectable for tests; the defaults are the daemon's.
    explicit GroupPool(unsigned int size,
                       android::String8 root = android::String8(CGroup::kFrzRoot),
                       android::String8 randomSource = android::String8(kRandomSource));

    bool createGroupPool();
    android::sp<CGroup> getGroup();
    void putGroup(android::sp<CGroup> group);
    void deleteGroupPool();

    // The name prefix for the current vp_type: "Group_" or "VP<n>_Group_".
    static android::String8 getNamePrefix();

    // Inspection for tests and dumps; take mLock.
    size_t size();
    size_t freeCount();

  private:
    void clearGroups();
    android::sp<CGroup> createGroup() REQUIRES(mLock);
    bool addGroup(android::sp<CGroup> group) REQUIRES(mLock);
    bool deleteGroup(android::sp<CGroup> group) REQUIRES(mLock);
    android::String8 getAvailableName() REQUIRES(mLock);
    bool isNameAvailable(android::String8 name) REQUIRES(mLock);
    android::String8 getRandomString();

    typedef android::List<android::sp<CGroup>>::iterator Slot;
    struct Position {
        Slot slot;
        size_t index;  // creation order
    };

    android::Mutex mLock;
    android::List<android::sp<CGroup>> mGroups GUARDED_BY(mLock);
    // Every group before mFirstFree is handed out, and each group's place in mGroups is known:
    // handing out and taking back cost the same with 800 groups as with 20.
    Position mFirstFree GUARDED_BY(mLock);
    std::unordered_map<const CGroup*, Position> mPositions GUARDED_BY(mLock);
    uint32_t mGroupCount GUARDED_BY(mLock);
    uint32_t mPoolSize;
    android::String8 mRoot;
    android::String8 mRandomSource;
};
