#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace NSCam {
namespace CTM {

// A serial work queue: its tasks run one at a time, in posting order, on the platform's workers.
class TaskQueue;

// What a post returns. The poster hands it the task's future right after posting and takes it back
// when it must wait for the task.
class TaskHandle {
 public:
  virtual ~TaskHandle() = default;
  virtual void setFuture(std::shared_future<void> future) = 0;
  virtual std::shared_future<void> getFuture() = 0;
};

class CentralTaskMgr {
 public:
  struct QueueParam {
    std::string name;
    // Scheduling priority of the queue's thread among the camera stack's queues.
    int32_t priority = 0;
  };

  static std::shared_ptr<TaskQueue> createQueue(QueueParam const& param);

  // Takes ownership of `task` and runs it later, after `queue`'s earlier tasks. `priority` orders
  // the task among other queues' work; tasks of one queue always run in posting order. A task
  // posted to an empty queue pointer is dropped (never run), which makes a waiter on its future
  // return at once.
  static std::shared_ptr<TaskHandle> _asyncPost(std::shared_ptr<TaskQueue>& queue,
                                                unsigned int priority,
                                                std::unique_ptr<std::function<void()>>& task);

  template <class F>
  static std::shared_ptr<TaskHandle> asyncPost(std::shared_ptr<TaskQueue>& queue,
                                               unsigned int priority, F&& f) {
    auto task = std::make_unique<std::function<void()>>(std::forward<F>(f));
    return _asyncPost(queue, priority, task);
  }
};

}  // namespace CTM
}  // namespace NSCam
