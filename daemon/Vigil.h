#pragma once

#include <utils/RefBase.h>
#include <utils/String8.h>
#include <utils/Thread.h>

// One-shot thread that hosts the optional plug-in: loads the library, runs its
// entry function to completion, unloads it and ends. getInstance() is locked;
// start() is called once, by the entry sequence.
class Vigil : public android::Thread {
  public:
    static constexpr const char* kLibrary = "libvigild.so";
    static constexpr const char* kEntry = "vigild_main";

    static android::sp<Vigil> getInstance();

    // The library is injectable for tests; the daemon always uses kLibrary.
    explicit Vigil(const char* library = kLibrary);

    void start();

  private:
    bool threadLoop() override;

    android::String8 mLibrary;
};
