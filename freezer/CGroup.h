#pragma once

#include <utils/RefBase.h>
#include <utils/String8.h>

// One child group of the cgroup-v1 freezer hierarchy, the directory <root>/<name>.
//
// Threading: no lock of its own. The Freezer calls attach/detach/set under its mutex; the
// pool creates and deletes groups at start-up, at teardown and from getGroup under its mutex.
// sFrzMounted is written once during start-up, before any other thread runs.
//
// The group's cgroup.procs and freezer.state stay open from their first write until the
// directory is removed or the object dies, within a process-wide budget of descriptors; the
// root's cgroup.procs stays open for good. A failed write closes the descriptor it used, so the
// next write opens the file afresh.
class CGroup : public android::RefBase {
  public:
    static constexpr const char* kFrzRoot = "/dev/frz";
    static constexpr const char* kProcsFile = "cgroup.procs";
    static constexpr const char* kStateFile = "freezer.state";

    // `root` exists so tests can run against a private subtree of the hierarchy.
    explicit CGroup(android::String8 name, android::String8 root = android::String8(kFrzRoot));
    ~CGroup() override;

    // Mount probe; sets the process-wide mounted flag, which is never reset.
    static bool initCGroup(const android::String8& root = android::String8(kFrzRoot));

    bool createCGroup();
    bool deleteCGroup();
    bool attachPid(int pid);
    // Moves pid to the hierarchy root; works for any pid whatever group it is in.
    bool detachPid(int pid);
    bool setCGroup(android::String8 node, android::String8 value);
    bool writeFile(android::String8& path, android::String8& value);

    bool isUsed();
    void setUsed(bool used);
    android::String8 getName();
    android::String8 getPath() const { return mPath; }

    // Descriptors that groups may keep open at once: a quarter of the soft file limit.
    static int cachedFdBudget();

  private:
    bool movePid(int pid, bool attach);
    // Writes value to dir/file (file null: dir is the whole path) through *cache when it holds
    // a descriptor, else through one opened now, kept in *cache (when cache is set and, if
    // budgeted, the budget allows) or closed again.
    static bool writeControl(int* cache, bool budgeted, const android::String8& dir,
                             const char* file, const char* value);
    void closeCached();

    android::String8 mName;
    android::String8 mPath;
    bool mUsed;
    android::String8 mRoot;
    int mProcsFd;
    int mStateFd;

    static bool sFrzMounted;
};
