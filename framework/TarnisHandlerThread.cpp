#define LOG_TAG "Tarnis-HandlerThread"

#include "framework/TarnisHandlerThread.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

#include <android-base/logging.h>
#include <log/log.h>

#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"

namespace velmar {
namespace kolto {

namespace {

int KernelTid() { return static_cast<int>(syscall(SYS_gettid)); }

}  // namespace

TarnisHandlerThread::TarnisHandlerThread(std::string name) : name_(std::move(name)) {}

TarnisHandlerThread* TarnisHandlerThread::create(std::string name) {
    TarnisHandlerThread* thread = new (std::nothrow) TarnisHandlerThread(std::move(name));
    if (thread == nullptr) LOG(FATAL) << "thread constructor failed";
    if (pthread_create(&thread->thread_, nullptr, &TarnisHandlerThread::threadMain, thread) != 0) {
        LOG(FATAL) << "thread constructor failed";
    }
    thread->started_ = true;
    return thread;
}

void* TarnisHandlerThread::threadMain(void* self) {
    static_cast<TarnisHandlerThread*>(self)->run();
    return nullptr;
}

void TarnisHandlerThread::run() {
    // The kernel keeps 15 characters of a thread's name.
    prctl(PR_SET_NAME, name_.substr(0, 15).c_str(), 0, 0, 0);
    int tid = KernelTid();
    quitting_.store(false);
    exited_.store(false);
    TarnisLooper::prepare();
    TarnisLooper* looper = TarnisLooper::myLooper();
    {
        std::lock_guard<std::mutex> guard(lock_);
        looper_ = looper;
        looperRef_ = TarnisLooperManager::getInstance().share(TarnisLooperManager::currentThreadId());
        cond_.notify_all();
    }
    ALOGI("[%s] %s(%d) entered loop.", "run", name_.c_str(), tid);
    if (looper != nullptr) looper->_loop();
    ALOGI("[%s] %s(%d) exit loop.", "run", name_.c_str(), tid);
    {
        std::lock_guard<std::mutex> guard(lock_);
        TarnisLooperManager::getInstance().remove(TarnisLooperManager::currentThreadId());
        quitting_.store(false);
        looper_ = nullptr;
        cond_.notify_all();
        exited_.store(true);
    }
    ALOGI("[%s] %s(%d) exited.", "run", name_.c_str(), tid);
}

TarnisLooper* TarnisHandlerThread::getLooper() {
    std::unique_lock<std::mutex> guard(lock_);
    if (exited_.load()) {
        ALOGI("[%s] %s() thread had exit.", "getLooper", "getLooper");
        return nullptr;
    }
    if (looper_ == nullptr) {
        ALOGI("[%s] %s() wait.", "getLooper", "getLooper");
        cond_.wait(guard, [this] { return looper_ != nullptr || exited_.load(); });
    }
    return looper_;
}

void TarnisHandlerThread::quit() { quitImpl(false); }

bool TarnisHandlerThread::quitSafely() { return quitImpl(true); }

bool TarnisHandlerThread::quitImpl(bool safely) {
    if (exited_.load()) return false;
    const bool first = !quitting_.exchange(true);
    // A second safe quit changes nothing; a quit that is not safe still has
    // to end the wait of an earlier safe one.
    if (!first && safely) return false;
    std::shared_ptr<TarnisLooper> looper;
    {
        std::unique_lock<std::mutex> guard(lock_);
        cond_.wait(guard, [this] { return looperRef_ != nullptr || exited_.load(); });
        looper = looperRef_;
        looper_ = nullptr;
    }
    if (looper == nullptr) return false;
    looper->quit(safely);
    return first;
}

TarnisHandlerThread::~TarnisHandlerThread() {
    ALOGD("[%s] ~TarnisHandlerThread", "~TarnisHandlerThread");
    if (started_ && pthread_equal(thread_, pthread_self())) {
        ALOGE("[%s] DO NOT CALL DESTRUCTOR ON THE THREAD YOU WANT TO QUIT!! Will Abort when join "
              "yourself!!",
              "~TarnisHandlerThread");
        abort();
    }
    quit();
    if (started_) pthread_join(thread_, nullptr);
    ALOGD("[%s] ~TarnisHandlerThread Done", "~TarnisHandlerThread");
}

}  // namespace kolto
}  // namespace velmar
