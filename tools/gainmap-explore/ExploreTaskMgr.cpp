// The platform's task manager as the explorer runs it: every queue is a daemon thread of the
// scheduler that runs the queue's tasks one at a time, strictly in posting order.

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "Explorer.h"
#include "camsys/TaskMgr.h"

namespace NSCam {
namespace CTM {

class TaskQueue {
 public:
  explicit TaskQueue(std::string const& name) : mState(std::make_shared<State>()) {
    explore::spawnDaemon(name, [state = mState] { serve(*state); });
  }
  ~TaskQueue() {
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->closed = true;
  }
  TaskQueue(TaskQueue const&) = delete;
  TaskQueue& operator=(TaskQueue const&) = delete;

  void post(std::unique_ptr<std::function<void()>> task) {
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->tasks.push_back(std::move(task));
  }

 private:
  struct State {
    // Orders a post before its task, as a platform queue does; the scheduler's own ordering is
    // hidden from ThreadSanitizer.
    std::mutex mutex;
    std::deque<std::unique_ptr<std::function<void()>>> tasks;
    // The owner dropped the queue: the thread ends once the tasks are done.
    bool closed = false;
  };

  static void serve(State& state) {
    // The scheduler evaluates the condition while this thread waits, with no other thread running.
    auto work = [&state] { return !state.tasks.empty() || state.closed; };
    while (explore::waitIdle("a task", work)) {
      std::unique_ptr<std::function<void()>> task;
      {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.tasks.empty()) {
          return;
        }
        task = std::move(state.tasks.front());
        state.tasks.pop_front();
      }
      (*task)();
    }
  }

  std::shared_ptr<State> mState;
};

namespace {

class ExploreTaskHandle : public TaskHandle {
 public:
  void setFuture(std::shared_future<void> future) override { mFuture = std::move(future); }
  std::shared_future<void> getFuture() override { return mFuture; }

 private:
  std::shared_future<void> mFuture;
};

}  // namespace

std::shared_ptr<TaskQueue> CentralTaskMgr::createQueue(QueueParam const& param) {
  return std::make_shared<TaskQueue>(param.name);
}

std::shared_ptr<TaskHandle> CentralTaskMgr::_asyncPost(
    std::shared_ptr<TaskQueue>& queue, unsigned int /*priority*/,
    std::unique_ptr<std::function<void()>>& task) {
  if (queue) {
    queue->post(std::move(task));
  }
  // A task posted to no queue is dropped with its promise, which readies its future.
  task.reset();
  return std::make_shared<ExploreTaskHandle>();
}

}  // namespace CTM
}  // namespace NSCam
