#define LOG_TAG "Qmed-GroupPool"

#include "freezer/GroupPool.h"

#include <dirent.h>
#include <fcntl.h>
#include <log/log.h>
#include <safe_str_lib.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"

using android::Mutex;
using android::sp;
using android::String8;

GroupPool::GroupPool(unsigned int size, String8 root, String8 randomSource)
    : mGroupCount(0), mPoolSize(size), mRoot(root), mRandomSource(randomSource) {
    mFirstFree = {mGroups.begin(), 0};
    CGroup::initCGroup(mRoot);
    clearGroups();
}

void GroupPool::clearGroups() {
    DIR* dir = opendir(mRoot.c_str());
    if (dir == nullptr) return;
    String8 prefix = getNamePrefix();
    struct dirent* entry;
    while ((entry = readdir(dir)) != nullptr) {
        if (strncmp(entry->d_name, prefix.c_str(), prefix.length()) != 0) continue;
        // A previous run may have died with processes frozen inside: thaw before emptying,
        // or they would stay stopped in the root group.
        sp<CGroup> group = new CGroup(String8(entry->d_name), mRoot);
        group->setCGroup(String8(CGroup::kStateFile), String8("THAWED"));
        group->deleteCGroup();
    }
    closedir(dir);
}

bool GroupPool::createGroupPool() {
    if (mPoolSize == 0) return true;
    Mutex::Autolock lock(mLock);
    for (uint32_t i = 0; i < mPoolSize; i++) {
        sp<CGroup> group = createGroup();
        if (group == nullptr) {
            ALOGE("Create pool failed");
            return false;
        }
        addGroup(group);
    }
    return true;
}

sp<CGroup> GroupPool::createGroup() {
    String8 name = getAvailableName();
    if (name.isEmpty()) {
        ALOGE("Get available name error");
        return nullptr;
    }
    if (bDebug) ALOGD("create new group: %s", name.c_str());
    sp<CGroup> group = new CGroup(name, mRoot);
    if (!group->createCGroup()) {
        ALOGE("Create cgroup fail");
        return nullptr;
    }
    mGroupCount++;
    return group;
}

bool GroupPool::addGroup(sp<CGroup> group) {
    if (group == nullptr) {
        ALOGE("CGroup is null, plz check it");
        return false;
    }
    mGroups.push_back(group);
    Position added = {mGroups.end(), mPositions.size()};
    --added.slot;
    mPositions[group.get()] = added;
    if (mFirstFree.slot == mGroups.end()) mFirstFree = added;
    return true;
}

bool GroupPool::deleteGroup(sp<CGroup> group) {
    if (group == nullptr) {
        ALOGE("Group can not be null");
        return false;
    }
    if (bDebug) ALOGD("delete group: %s", group->getName().c_str());
    if (!group->deleteCGroup()) {
        ALOGE("delete group: %s error", group->getName().c_str());
        return false;
    }
    mGroupCount--;
    return true;
}

String8 GroupPool::getAvailableName() {
    for (;;) {
        String8 random = getRandomString();
        if (random.isEmpty()) {
            ALOGE("Get random str error");
            return String8();
        }
        String8 name = getNamePrefix();
        name.append(random);
        if (isNameAvailable(name)) return name;
        if (bDebug) ALOGD("name %s already exists", name.c_str());
    }
}

bool GroupPool::isNameAvailable(String8 name) {
    for (auto it = mGroups.begin(); it != mGroups.end(); ++it) {
        if (strcmp((*it)->getName().c_str(), name.c_str()) == 0) return false;
    }
    return true;
}

String8 GroupPool::getNamePrefix() {
    if (vp_type != 0) return String8::format("VP%d_Group_", vp_type);
    return String8("Group_");
}

String8 GroupPool::getRandomString() {
    int fd = open(mRandomSource.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ALOGE("open /dev/urandom fail");
        return String8();
    }
    uint32_t value = 0;
    // A short read leaves the remaining bytes zero; the name check catches any repeat.
    ssize_t n = read(fd, &value, sizeof(value));
    (void)n;
    close(fd);
    char text[16];
    snprintf_s(text, sizeof(text), "%010u", value);
    return String8(text);
}

sp<CGroup> GroupPool::getGroup() {
    Mutex::Autolock lock(mLock);
    for (Position p = mFirstFree; p.slot != mGroups.end(); ++p.slot, ++p.index) {
        if (!(*p.slot)->isUsed()) {
            (*p.slot)->setUsed(true);
            mFirstFree = {++Slot(p.slot), p.index + 1};
            if (bDebug) ALOGD("use free group");
            return *p.slot;
        }
    }
    sp<CGroup> group = createGroup();
    if (group == nullptr) {
        ALOGE("Create group failed while adding new group to pool");
        return nullptr;
    }
    addGroup(group);
    group->setUsed(true);
    mFirstFree = {mGroups.end(), mPositions.size()};
    return group;
}

void GroupPool::putGroup(sp<CGroup> group) {
    if (group == nullptr) {
        ALOGE("Group can not be null, plz check it");
        return;
    }
    Mutex::Autolock lock(mLock);
    auto found = mPositions.find(group.get());
    if (found == mPositions.end()) {
        if (bDebug) ALOGD("Cgroup is not found");
        return;
    }
    group->setUsed(false);
    if (found->second.index < mFirstFree.index) mFirstFree = found->second;
}

void GroupPool::deleteGroupPool() {
    if (bDebug) ALOGD("deleteGroupPool");
    Mutex::Autolock lock(mLock);
    while (!mGroups.empty()) {
        auto it = mGroups.begin();
        deleteGroup(*it);
        mGroups.erase(it);
    }
    mPositions.clear();
    mFirstFree = {mGroups.begin(), 0};
    mGroupCount = 0;
}

size_t GroupPool::size() {
    Mutex::Autolock lock(mLock);
    return mGroups.size();
}

size_t GroupPool::freeCount() {
    Mutex::Autolock lock(mLock);
    size_t n = 0;
    for (auto it = mGroups.begin(); it != mGroups.end(); ++it) {
        if (!(*it)->isUsed()) n++;
    }
    return n;
}
