#include <android/log.h>
#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "HostPlatform.h"
#include "camsys/TaskMgr.h"

namespace {

constexpr char kLogTag[] = "QelCam/HostTaskMgr";

using Task = std::unique_ptr<std::function<void()>>;

// What a queue's worker needs; shared by the queue and its worker, so that a queue dropped on its
// own thread leaves the worker a valid state to finish with.
struct QueueState {
  uint64_t id = 0;
  std::deque<Task> tasks;
  uint64_t posted = 0;
  uint64_t finished = 0;
  bool closing = false;
};

// One lock and one condition for every queue: the host runs a handful of queues, and a single
// lock makes holding, idling and closing easy to get right.
struct Registry {
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;
  uint64_t nextId = 1;
  std::map<uint64_t, std::shared_ptr<QueueState>> live;
};

Registry& registry() {
  static Registry* r = new Registry;  // outlives detached workers at process exit
  return *r;
}

void runWorker(std::shared_ptr<QueueState> state) {
  Registry& r = registry();
  std::unique_lock<std::mutex> lock(r.mutex);
  for (;;) {
    r.changed.wait(lock, [&] {
      return (!r.held && !state->tasks.empty()) || (state->closing && state->tasks.empty());
    });
    if (state->tasks.empty()) {
      break;
    }
    Task task = std::move(state->tasks.front());
    state->tasks.pop_front();
    lock.unlock();
    (*task)();
    // The callable may own objects whose destructors post or wait; never under the lock.
    task.reset();
    lock.lock();
    ++state->finished;
    r.changed.notify_all();
  }
  r.live.erase(state->id);
  r.changed.notify_all();
}

class HostTaskHandle : public NSCam::CTM::TaskHandle {
 public:
  void setFuture(std::shared_future<void> future) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mFuture = std::move(future);
  }
  std::shared_future<void> getFuture() override {
    std::lock_guard<std::mutex> lock(mMutex);
    return mFuture;
  }

 private:
  std::mutex mMutex;
  std::shared_future<void> mFuture;
};

}  // namespace

namespace NSCam {
namespace CTM {

class TaskQueue {
 public:
  explicit TaskQueue(std::string const& name) : mState(std::make_shared<QueueState>()) {
    Registry& r = registry();
    {
      std::lock_guard<std::mutex> lock(r.mutex);
      mState->id = r.nextId++;
      r.live.emplace(mState->id, mState);
    }
    mThread = std::thread(runWorker, mState);
    // Thread names are limited to 15 characters.
    pthread_setname_np(mThread.native_handle(), name.substr(0, 15).c_str());
  }

  ~TaskQueue() {
    Registry& r = registry();
    {
      std::lock_guard<std::mutex> lock(r.mutex);
      mState->closing = true;
    }
    r.changed.notify_all();
    if (mThread.get_id() == std::this_thread::get_id()) {
      mThread.detach();
    } else {
      mThread.join();
    }
  }

  TaskQueue(TaskQueue const&) = delete;
  TaskQueue& operator=(TaskQueue const&) = delete;

  void post(Task task) {
    Registry& r = registry();
    {
      std::lock_guard<std::mutex> lock(r.mutex);
      mState->tasks.push_back(std::move(task));
      ++mState->posted;
    }
    r.changed.notify_all();
  }

 private:
  std::shared_ptr<QueueState> mState;
  std::thread mThread;
};

std::shared_ptr<TaskQueue> CentralTaskMgr::createQueue(QueueParam const& param) {
  return std::make_shared<TaskQueue>(param.name);
}

std::shared_ptr<TaskHandle> CentralTaskMgr::_asyncPost(
    std::shared_ptr<TaskQueue>& queue, unsigned int /*priority*/,
    std::unique_ptr<std::function<void()>>& task) {
  auto handle = std::make_shared<HostTaskHandle>();
  if (!task || !*task) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] empty task, nothing posted", __func__);
    task.reset();
    return handle;
  }
  if (!queue) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] no queue, task dropped", __func__);
    task.reset();
    return handle;
  }
  queue->post(std::move(task));
  return handle;
}

}  // namespace CTM
}  // namespace NSCam

namespace qelcam {
namespace host {

void holdQueues() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.held = true;
}

void releaseQueues() {
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    r.held = false;
  }
  r.changed.notify_all();
}

void waitQueuesIdle() {
  Registry& r = registry();
  std::unique_lock<std::mutex> lock(r.mutex);
  std::map<uint64_t, uint64_t> targets;
  for (auto const& [id, state] : r.live) {
    targets.emplace(id, state->posted);
  }
  r.changed.wait(lock, [&] {
    for (auto const& [id, posted] : targets) {
      auto it = r.live.find(id);
      if (it != r.live.end() && it->second->finished < posted) {
        return false;
      }
    }
    return true;
  });
}

}  // namespace host
}  // namespace qelcam
