// The platform's task manager as the explorer runs it: every queue is a daemon thread of the
// scheduler that runs the queue's tasks one at a time, strictly in posting order. Queue state is
// touched only by the thread holding the scheduler's token, so it needs no lock of its own.

#include <deque>
#include <memory>
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
  ~TaskQueue() { mState->closed = true; }
  TaskQueue(TaskQueue const&) = delete;
  TaskQueue& operator=(TaskQueue const&) = delete;

  void post(std::unique_ptr<std::function<void()>> task) {
    mState->tasks.push_back(std::move(task));
  }

 private:
  struct State {
    std::deque<std::unique_ptr<std::function<void()>>> tasks;
    // The owner dropped the queue: the thread ends once the tasks are done.
    bool closed = false;
  };

  static void serve(State& state) {
    while (explore::waitIdle("a task", [&state] { return !state.tasks.empty() || state.closed; })) {
      if (state.tasks.empty()) {
        return;
      }
      std::unique_ptr<std::function<void()>> task = std::move(state.tasks.front());
      state.tasks.pop_front();
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
